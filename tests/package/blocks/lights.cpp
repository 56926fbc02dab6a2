#include "host/pipeline.h"
#include "shadows/shadowmaplight.h"

using namespace Brevane::Kvo;

void light(Pipeline &pipeline)
{
    // BLOCK
}
