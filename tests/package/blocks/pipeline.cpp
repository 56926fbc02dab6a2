#include "gl/framebufferobject.h"
#include "model/gpumodel.h"

#include <QDebug>
#include <QMatrix4x4>

using namespace Brevane::Kvo;

void drawFrame(int width, int height, const QMatrix4x4 &worldToCamera, const QMatrix4x4 &cameraToClip, float nearPlane,
               float farPlane, GPUModel &model, FramebufferObject *screen)
{
    // BLOCK
}
