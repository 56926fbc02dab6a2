#include "gl/framebufferobject.h"
#include "host/outlinepass.h"
#include "host/pickpass.h"
#include "model/gpumodel.h"

using namespace Brevane::Kvo;

void click(PickPass &pick, OutlinePass &outline, GPUModel &model, const QMatrix4x4 &camera,
           const QMatrix4x4 &projection, FramebufferObject *screen, int width, int height, QPoint mouse)
{
    // BLOCK
}
