#include "host/pipeline.h"
#include "renderpasses/modeldeferredpass.h"
#include "renderpasses/modelrenderpass.h"

using namespace Brevane::Kvo;

void wire(Pipeline &pipeline)
{
    // BLOCK
}
