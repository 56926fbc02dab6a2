#include "passkit/pool.h"

#include "core/passslot.h"
#include "gl/drawbuffers.h"
#include "gl/framebufferobject.h"
#include "gl/guards.h"
#include "gl/hoststate.h"
#include "gl/pixelstore.h"
#include "gl/sampling.h"
#include "gl/storage.h"
#include "gl/texture.h"
#include "gl/vertexarrayobject.h"
#include "passkit/slots.h"

#include <epoxy/gl.h>

namespace Brevane::Kvo {

Texture *tempTexture(TextureFormat format, const Extent &extent)
{
    return TextureManager::Instance().tempTexture(format, extent.width, extent.height, -1);
}

Texture *blackTempTexture(unsigned int format)
{
    Texture *texture = tempTexture(TextureFormat::Frame, {1, 1});
    StorageBinder bound(texture);
    if (!bound.isBound())
        return texture;
    constexpr unsigned char kZero[4] = {};
    const DefaultPixelStore pixelStore;
    glTexImage2D(GL_TEXTURE_2D, 0, GLint(format), 1, 1, 0, format, GL_UNSIGNED_BYTE, kZero);
    return texture;
}

void publish(PassSlot &output, Texture *texture, int users)
{
    output.value = objectForm(texture);
    TextureManager::Instance().addTempTextureRef(texture, users);
}

void release(Texture *texture)
{
    TextureManager::Instance().releaseTempTextureRef(texture, 1);
}

void setLinear(Texture *texture)
{
    setSampling(texture, GL_LINEAR, GL_LINEAR);
}

void setLinearClamped(Texture *texture)
{
    setSampling(texture, GL_LINEAR, GL_LINEAR, GL_CLAMP_TO_EDGE, GL_CLAMP_TO_EDGE);
}

LinearFilterScope::LinearFilterScope(Texture *texture) : _texture(texture), _before(filtersOf(texture))
{
    setLinear(texture);
}

LinearFilterScope::~LinearFilterScope()
{
    setSampling(_texture, _before.minification, _before.magnification);
}

bool attachTarget(FramebufferObject *framebuffer, Texture *output, Texture *depthStencil)
{
    const bool isAttached = framebuffer->attach(output, GL_COLOR_ATTACHMENT0, 0);
    if (depthStencil)
        framebuffer->attach(depthStencil, GL_DEPTH_STENCIL_ATTACHMENT, 0);
    framebuffer->setDrawBuffers();
    return isAttached;
}

TargetViewport::TargetViewport(const Extent &extent)
{
    glGetFloatv(GL_VIEWPORT, _before);
    setFirstViewport({0.0f, 0.0f, float(extent.width), float(extent.height)});
}

TargetViewport::~TargetViewport()
{
    setFirstViewport(_before);
}

Stage::Stage(FramebufferObject *framebuffer, const Extent &extent) : _bound(framebuffer), _viewport(extent) {}

Stage::~Stage() = default;

} // namespace Brevane::Kvo
