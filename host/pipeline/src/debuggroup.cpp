#include "debuggroup.h"

#include <epoxy/gl.h>

namespace Brevane::Kvo {

DebugGroup::DebugGroup(bool enabled, const char *name) : _open(enabled)
{
    if (_open)
        glPushDebugGroup(GL_DEBUG_SOURCE_APPLICATION, 0, -1, name);
}

DebugGroup::~DebugGroup()
{
    if (_open)
        glPopDebugGroup();
}

} // namespace Brevane::Kvo
