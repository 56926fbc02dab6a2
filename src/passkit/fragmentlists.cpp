#include "passkit/fragmentlists.h"

#include "gl/drawbuffers.h"
#include "gl/framebufferobject.h"
#include "gl/glinfo.h"
#include "passkit/glstate.h"
#include "passkit/targets.h"

#include <epoxy/gl.h>

namespace Brevane::Kvo {

const unsigned int kListBarrier = GL_SHADER_IMAGE_ACCESS_BARRIER_BIT | GL_TEXTURE_FETCH_BARRIER_BIT
                                  | GL_TEXTURE_UPDATE_BARRIER_BIT | GL_FRAMEBUFFER_BARRIER_BIT
                                  | GL_BUFFER_UPDATE_BARRIER_BIT;

bool canBuildFragmentLists()
{
    return hasGLExtension("ARB_shader_atomic_counters") && hasGLExtension("ARB_shader_image_load_store")
           && hasGLExtension("ARB_shading_language_420pack");
}

void attachListStencil(FramebufferObject *framebuffer, const Extent &extent)
{
    replaceTarget(framebuffer, GL_DEPTH_STENCIL_ATTACHMENT,
                  {GL_DEPTH24_STENCIL8, GL_DEPTH_STENCIL, GL_UNSIGNED_INT_24_8, GL_NEAREST}, extent);
}

MarkedPixels::MarkedPixels(DrawBuffers &quad)
{
    glClear(GL_STENCIL_BUFFER_BIT);
    glEnable(GL_STENCIL_TEST);
    glStencilFunc(GL_ALWAYS, 1, 0xff);
    glStencilOp(GL_KEEP, GL_KEEP, GL_REPLACE);
    glColorMask(GL_FALSE, GL_FALSE, GL_FALSE, GL_FALSE);
    quad.draw();
    openColorMask();
    glStencilFunc(GL_EQUAL, 1, 0xff);
    glStencilOp(GL_KEEP, GL_KEEP, GL_KEEP);
    glStencilMask(0);
}

MarkedPixels::~MarkedPixels()
{
    glDisable(GL_STENCIL_TEST);
    glStencilMask(~0u);
}

} // namespace Brevane::Kvo
