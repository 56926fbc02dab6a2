#include "gl/shaderprogram.h"
#include "renderpasses/shadowmaprenderpass.h"
#include "shadows/shadowmapmanager.h"
#include "shadows/shadowmaprenderdata.h"

#include <epoxy/gl.h>

using namespace Brevane::Kvo;

void draw();

void shade(ShadowMapRenderPass &shadows, ShaderProgram &program)
{
    // BLOCK
}
