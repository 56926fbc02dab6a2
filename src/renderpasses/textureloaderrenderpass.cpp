#include "renderpasses/textureloaderrenderpass.h"

#include "gl/bindings.h"
#include "gl/fallenshort.h"
#include "gl/guards.h"
#include "gl/pixelstore.h"
#include "gl/storage.h"
#include "gl/texture.h"
#include "passkit/images.h"
#include "passkit/slots.h"

#include <epoxy/gl.h>

namespace Brevane::Kvo {

namespace {

enum Input { kTexturePath };
enum Output { kTexture };

constexpr SlotInfo kInputInfo[] = {
    {.name = "Kvo_QString_TexturePath",
     .meaning = "an image file that Qt reads, or a resource",
     .kind = SlotKind::Path},
};

constexpr SlotInfo kOutputInfo[] = {
    {.name = "Kvo_KvoTexture*_Texture",
     .meaning = "the image",
     .kind = SlotKind::Texture,
     .format = "GL_RGBA with mip levels, bottom row first, GL's default filters"},
};

constexpr PassInfo kInfo = {"TextureLoaderRenderPass", "turns an image file into a texture", Reach::texels(0),
                            kInputInfo, kOutputInfo};

} // namespace

TextureLoaderRenderPass::TextureLoaderRenderPass()
{
    addInput(QStringLiteral("Kvo_QString_TexturePath"), QVariant(), kTexturePath);
    addOutput(QStringLiteral("Kvo_KvoTexture*_Texture"), kTexture);
    describe(kInfo);
}

TextureLoaderRenderPass::TextureLoaderRenderPass(const TextureLoaderRenderPass &other) = default;
TextureLoaderRenderPass &TextureLoaderRenderPass::operator=(const TextureLoaderRenderPass &other) = default;

TextureLoaderRenderPass::~TextureLoaderRenderPass() = default;

void TextureLoaderRenderPass::start(RenderCallbacks *)
{
    const BindingScope scope;
    if (!scope)
        return;
    if (!_texture) {
        _path.clear();
        _texture = new Texture(nullptr);
        _texture->setTarget(GL_TEXTURE_2D);
        _texture->setLabel(QStringLiteral("TextureLoaderRenderPass"));
    }
    // An empty path in the first frame is no change either.
    if (const QString path = _inputs[kTexturePath].value.toString(); path != _path) {
        _path = path;
        _upload();
    }
    _outputs[kTexture].value = objectForm(_texture);
}

void TextureLoaderRenderPass::_upload()
{
    StorageBinder bound(_texture);
    if (!bound.isBound()) {
        noteFallenShort(_texture);
        return;
    }
    GLint largest = 0;
    glGetIntegerv(GL_MAX_TEXTURE_SIZE, &largest);
    QImage image = loadBgraImage(_path, largest).mirrored(false, true);
    if (image.isNull())
        image = bgraTexel(qRgba(255, 255, 255, 255));

    const DefaultPixelStore pixelStore;
    glTexImage2D(GL_TEXTURE_2D, 0, GL_RGBA, image.width(), image.height(), 0, GL_BGRA, GL_UNSIGNED_BYTE,
                 image.constBits());
    if (!hasLevel(GL_TEXTURE_2D, image.width(), _texture->label())) {
        noteFallenShort(_texture);
        return;
    }
    glGenerateMipmap(GL_TEXTURE_2D);
    _texture->setReadOnly();
}

} // namespace Brevane::Kvo
