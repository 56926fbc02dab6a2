#include "framestate.h"

#include <epoxy/gl.h>

#include <initializer_list>

#include <initializer_list>

namespace Brevane::Kvo {

FrameState::FrameState()
{
    glGetIntegerv(GL_DRAW_FRAMEBUFFER_BINDING, &_drawFramebuffer);
    glGetIntegerv(GL_READ_FRAMEBUFFER_BINDING, &_readFramebuffer);
    glGetIntegerv(GL_VIEWPORT, _viewport);

    // Passes set what they need, but not all of what a host may have left.
    for (const GLenum capability : {GL_BLEND, GL_CULL_FACE, GL_DEPTH_TEST, GL_SCISSOR_TEST, GL_STENCIL_TEST,
                                    GL_FRAMEBUFFER_SRGB, GL_RASTERIZER_DISCARD, GL_POLYGON_OFFSET_FILL})
        glDisable(capability);
    glColorMask(GL_TRUE, GL_TRUE, GL_TRUE, GL_TRUE);
    glDepthMask(GL_TRUE);
    glStencilMask(~0u);
    glDepthFunc(GL_LESS);
    glDepthRange(0.0, 1.0);
    glClearDepth(1.0);
    glClearStencil(0);
    glClearColor(0.0f, 0.0f, 0.0f, 0.0f);
    glPolygonMode(GL_FRONT_AND_BACK, GL_FILL);
}

FrameState::~FrameState()
{
    glBindFramebuffer(GL_DRAW_FRAMEBUFFER, GLuint(_drawFramebuffer));
    glBindFramebuffer(GL_READ_FRAMEBUFFER, GLuint(_readFramebuffer));
    glViewport(_viewport[0], _viewport[1], _viewport[2], _viewport[3]);
}

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
