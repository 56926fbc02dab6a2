#include "passkit/fragmentlists.h"

#include "gl/glinfo.h"

namespace Brevane::Kvo {

bool canBuildFragmentLists()
{
    return hasGLExtension("ARB_shader_atomic_counters") && hasGLExtension("ARB_shader_image_load_store")
           && hasGLExtension("ARB_shading_language_420pack");
}

} // namespace Brevane::Kvo
