#include "passkit/fragmentlists.h"

#include "gl/glinfo.h"

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

} // namespace Brevane::Kvo
