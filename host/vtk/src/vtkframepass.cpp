#include "vtkframepass.h"

#include "gl/contextscope.h"
#include "gl/guards.h"
#include "gl/texture.h"
#include "gl/texturemanager.h"

#include <epoxy/gl.h>

namespace Brevane::Kvo {

namespace {

enum Output { kFrame, kDepth };

} // namespace

VtkFramePass::VtkFramePass()
{
    addInput(QStringLiteral("Kvo_QRect_Viewport"));
    addOutput(QStringLiteral("Kvo_KvoTexture*_Frame"), kFrame);
    addOutput(QStringLiteral("Kvo_KvoTexture*_Depth"), kDepth);
}

void VtkFramePass::setSource(unsigned int framebuffer, int width, int height)
{
    _framebuffer = framebuffer;
    _width = width;
    _height = height;
}

// Copies, since passes give back to the pool what they have read, and VTK keeps its textures.
void VtkFramePass::start(RenderCallbacks *)
{
    const ContextScope scope;
    if (!scope || _framebuffer == 0)
        return;
    GLint before = 0;
    glGetIntegerv(GL_READ_FRAMEBUFFER_BINDING, &before);
    glBindFramebuffer(GL_READ_FRAMEBUFFER, _framebuffer);
    GLint readBuffer = 0;
    glGetIntegerv(GL_READ_BUFFER, &readBuffer);
    glReadBuffer(GL_COLOR_ATTACHMENT0);
    auto &pool = TextureManager::Instance();
    for (const auto &[output, format] : {std::pair(kFrame, TextureFormat::Frame), {kDepth, TextureFormat::Depth32}}) {
        Texture *texture = pool.tempTexture(format, _width, _height);
        const AutoBinder bound(texture);
        glCopyTexSubImage2D(GL_TEXTURE_2D, 0, 0, 0, 0, 0, _width, _height);
        _outputs[output].value = textureToVariant(texture);
        pool.addTempTextureRef(texture, _numOutputUsers[output]);
        pool.releaseTempTextureRef(texture, 1);
    }
    glReadBuffer(GLenum(readBuffer));
    glBindFramebuffer(GL_READ_FRAMEBUFFER, GLuint(before));
}

} // namespace Brevane::Kvo
