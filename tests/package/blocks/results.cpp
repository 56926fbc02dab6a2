#include "gl/texture.h"
#include "host/imageoutput.h"
#include "renderpasses/modelrenderpass.h"

using namespace Brevane::Kvo;

void read(const ModelRenderPass &surfaces, int x, int y, float near, float far)
{
    // BLOCK
}
