#include "gl/texture.h"
#include "host/imageoutput.h"
#include "host/pipeline.h"

using namespace Brevane::Kvo;
using namespace Qt::StringLiterals;

void observe(Pipeline &pipeline, TexturePixels &pixels)
{
    // BLOCK
}
