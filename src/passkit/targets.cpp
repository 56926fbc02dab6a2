#include "passkit/targets.h"

#include "core/renderpasshelper.h"
#include "gl/fallenshort.h"
#include "gl/framebufferobject.h"
#include "gl/givenup.h"
#include "gl/glinfo.h"
#include "gl/guards.h"
#include "gl/picturewindow.h"
#include "gl/pixelstore.h"
#include "gl/sampling.h"
#include "gl/storage.h"
#include "gl/texture.h"
#include "gl/texturemanager.h"

#include <QColor>

#include <epoxy/gl.h>

namespace Brevane::Kvo {

QStringList outputsOf(const std::vector<OutputTarget> &targets)
{
    QStringList outputs;
    for (const OutputTarget &target : targets)
        outputs.append(target.output);
    return outputs;
}

bool made(Held<FramebufferObject> &framebuffer, const char *label)
{
    if (framebuffer)
        return false;
    framebuffer = new FramebufferObject(nullptr);
    framebuffer->setLabel(QLatin1String(label));
    return true;
}

bool needsTargets(Held<FramebufferObject> &framebuffer, const char *label, const Extent &extent, int &width,
                  int &height)
{
    const bool resized = extent != Extent{width, height};
    width = extent.width;
    height = extent.height;
    if (resized && framebuffer.isShared())
        framebuffer = nullptr;
    return made(framebuffer, label) || resized;
}

Texture *makeTexture(const TargetFormat &format, const Extent &extent, const void *pixels, const QString &name)
{
    auto *texture = new Texture(nullptr);
    texture->setTarget(GL_TEXTURE_2D);
    StorageBinder bound(texture);
    if (!bound.isBound()) {
        noteFallenShort(texture);
        return texture;
    }
    texture->setFilter(GLenum(format.filter));
    const DefaultPixelStore pixelStore;
    if (!allocateImage(format.internalFormat, {extent.width, extent.height}, format.format, format.type, pixels, name))
        noteFallenShort(texture);
    return texture;
}

void replaceTarget(FramebufferObject *framebuffer, unsigned int attachment, const TargetFormat &format,
                   const Extent &extent)
{
    if (framebuffer->hasAttachment(attachment))
        delete framebuffer->detach(attachment);
    Texture *texture = makeTexture(format, extent, nullptr, framebuffer->label());
    texture->setParent(framebuffer);
    if (isFallingShort(texture))
        noteFallenShort(framebuffer);
    // What repeats finds the other side of the picture beyond its edge. Of a part that would be its middle.
    if (PictureWindow::current().isPart()) {
        const StorageBinder bound(texture);
        texture->setWrap(GL_CLAMP_TO_EDGE);
    }
    if (!framebuffer->attach(texture, attachment, 0)) {
        noteFallenShort(framebuffer);
        if (framebuffer->attachment(attachment) != texture)
            delete texture;
    }
}

void replaceGeometryTargets(FramebufferObject *framebuffer, const std::vector<OutputTarget> &targets,
                            const Extent &extent)
{
    unsigned int attachment = GL_COLOR_ATTACHMENT0;
    for (const OutputTarget &target : targets)
        replaceTarget(framebuffer, attachment++, {target.internalFormat, GL_BGRA, GL_FLOAT, GL_NEAREST}, extent);
    replaceTarget(framebuffer, GL_DEPTH_ATTACHMENT, {GL_DEPTH_COMPONENT32F, GL_DEPTH_COMPONENT, GL_FLOAT, GL_NEAREST},
                  extent);
}

Texture *makeBlackTexture()
{
    constexpr unsigned int kZero = 0;
    return makeTexture({GL_RGBA, GL_BGRA, GL_UNSIGNED_BYTE, GL_NEAREST}, {1, 1}, &kZero);
}

Extent sizeOf(Texture *texture)
{
    const LevelInfo level = levelInfo(texture, GL_TEXTURE_2D);
    return {level.width, level.height};
}

unsigned int depthAttachmentOf(RenderPassHelper &pass, int slot, Texture *depth, unsigned int target)
{
    if (depth->target() == GL_NONE || !depth->isUsable())
        return GL_NONE;
    if (depth->target() != target) {
        pass.reportInput(slot, QStringLiteral("is not of the kind of the texture that is drawn to; it is left out"));
        return GL_NONE;
    }
    if (target != GL_TEXTURE_2D)
        return GL_DEPTH_STENCIL_ATTACHMENT;
    switch (formatFromInternalFormat(levelInfo(depth, GL_TEXTURE_2D).internalFormat)) {
    case GL_DEPTH_COMPONENT: pass.acceptInput(slot); return GL_DEPTH_ATTACHMENT;
    case GL_DEPTH_STENCIL: pass.acceptInput(slot); return GL_DEPTH_STENCIL_ATTACHMENT;
    default: pass.reportInput(slot, QStringLiteral("has no depth; it is left out")); return GL_NONE;
    }
}

bool canDrawTo(RenderPassHelper &pass, int slot)
{
    if (glCheckFramebufferStatus(GL_DRAW_FRAMEBUFFER) == GL_FRAMEBUFFER_COMPLETE) {
        pass.acceptInput(slot);
        return true;
    }
    pass.reportInput(slot, QStringLiteral("is nothing that can be drawn to; nothing is"));
    return false;
}

void giveUpTargets(const Held<FramebufferObject> &framebuffer)
{
    if (!framebuffer.any() || framebuffer.isShared())
        return;
    for (Texture *target : framebuffer.any()->findChildren<Texture *>(Qt::FindDirectChildrenOnly))
        giveUp(target, framebuffer.shareGroup());
}

Texture *transparentTexel(Held<Texture> &kept)
{
    if (!kept)
        kept.borrowHere(TextureManager::Instance().solidTexture(QColor(Qt::transparent)));
    return kept;
}

} // namespace Brevane::Kvo
