#include "renderpasses/cubemaploaderrenderpass.h"

#include "core/hostcode.h"
#include "gl/bindings.h"
#include "gl/bufferobject.h"
#include "gl/fallenshort.h"
#include "gl/guards.h"
#include "gl/pixelstore.h"
#include "gl/storage.h"
#include "gl/texture.h"
#include "passkit/images.h"
#include "passkit/slots.h"

#include <epoxy/gl.h>

#include <cstring>

namespace Brevane::Kvo {

namespace {

enum Input { kPathPosX, kPathNegX, kPathPosY, kPathNegY, kPathPosZ, kPathNegZ };
enum Output { kCubemap };

constexpr QRgb kTransparentBlack = 0;
const QString kLabel = QStringLiteral("CubemapLoaderRenderPass");

QImage loadFace(const QString &path, int largest)
{
    QImage image = loadBgraImage(path, largest);
    if (image.width() != image.height()) {
        const HostCode hostCode;
        qWarning("Image '%s' is no face of a cube: it has %dx%d texels", qPrintable(path), image.width(),
                 image.height());
        image = QImage();
    }
    return image.isNull() ? bgraTexel(kTransparentBlack) : image;
}

// Through a pixel buffer of its own, which goes at the end; where the driver gives none, out of the image. False where
// it has no room for the face.
bool uploadFace(GLenum face, const QImage &image)
{
    const auto specify = [&](const void *texels) {
        glTexImage2D(face, 0, GL_RGBA, image.width(), image.height(), 0, GL_BGRA, GL_UNSIGNED_BYTE, texels);
        return hasLevel(face, image.width(), kLabel);
    };
    const QSharedPointer<BufferObject> pixels = QSharedPointer<BufferObject>::create();
    pixels->setTarget(GL_PIXEL_UNPACK_BUFFER);
    const qsizetype bytes = image.sizeInBytes();
    {
        const AutoBinder bound(pixels);
        const bool hasRoom = bound.isBound() && pixels->uploadBytes(nullptr, bytes, GL_STATIC_DRAW);
        if (void *mapped = hasRoom ? pixels->map(GL_WRITE_ONLY) : nullptr) {
            std::memcpy(mapped, image.constBits(), size_t(bytes));
            pixels->unmap();
            return specify(nullptr);
        }
    }
    return specify(image.constBits());
}

constexpr SlotInfo kInputInfo[] = {
    {.name = "Kvo_QString_CubemapPathPosX", .meaning = "image file of the face +x", .kind = SlotKind::Path},
    {.name = "Kvo_QString_CubemapPathNegX", .meaning = "image file of the face -x", .kind = SlotKind::Path},
    {.name = "Kvo_QString_CubemapPathPosY", .meaning = "image file of the face +y", .kind = SlotKind::Path},
    {.name = "Kvo_QString_CubemapPathNegY", .meaning = "image file of the face -y", .kind = SlotKind::Path},
    {.name = "Kvo_QString_CubemapPathPosZ", .meaning = "image file of the face +z", .kind = SlotKind::Path},
    {.name = "Kvo_QString_CubemapPathNegZ", .meaning = "image file of the face -z", .kind = SlotKind::Path},
};

constexpr SlotInfo kOutputInfo[] = {
    {.name = "Kvo_KvoTexture*_Cubemap",
     .meaning = "the six faces",
     .kind = SlotKind::Texture,
     .format = "cube map, GL_RGBA with mip levels, linear filters, clamped to the edge"},
};

constexpr PassInfo kInfo = {"CubemapLoaderRenderPass", "turns six image files into a cube map", Reach::texels(0),
                            kInputInfo, kOutputInfo};

} // namespace

CubemapLoaderRenderPass::CubemapLoaderRenderPass()
{
    addInput(QStringLiteral("Kvo_QString_CubemapPathPosX"), QVariant(), kPathPosX);
    addInput(QStringLiteral("Kvo_QString_CubemapPathNegX"), QVariant(), kPathNegX);
    addInput(QStringLiteral("Kvo_QString_CubemapPathPosY"), QVariant(), kPathPosY);
    addInput(QStringLiteral("Kvo_QString_CubemapPathNegY"), QVariant(), kPathNegY);
    addInput(QStringLiteral("Kvo_QString_CubemapPathPosZ"), QVariant(), kPathPosZ);
    addInput(QStringLiteral("Kvo_QString_CubemapPathNegZ"), QVariant(), kPathNegZ);
    addOutput(QStringLiteral("Kvo_KvoTexture*_Cubemap"), kCubemap);
    describe(kInfo);
}

CubemapLoaderRenderPass::CubemapLoaderRenderPass(const CubemapLoaderRenderPass &other) = default;
CubemapLoaderRenderPass &CubemapLoaderRenderPass::operator=(const CubemapLoaderRenderPass &other) = default;

CubemapLoaderRenderPass::~CubemapLoaderRenderPass() = default;

void CubemapLoaderRenderPass::start(RenderCallbacks *)
{
    const BindingScope scope;
    if (!scope)
        return;
    const QString posX = _inputs[kPathPosX].value.toString();
    const QString negX = _inputs[kPathNegX].value.toString();
    const QString posY = _inputs[kPathPosY].value.toString();
    const QString negY = _inputs[kPathNegY].value.toString();
    const QString posZ = _inputs[kPathPosZ].value.toString();
    const QString negZ = _inputs[kPathNegZ].value.toString();

    const bool isLoaded = _cubemap && posX == _pathPosX && negX == _pathNegX && posY == _pathPosY && negY == _pathNegY
                          && posZ == _pathPosZ && negZ == _pathNegZ;
    if (!isLoaded) {
        if (_cubemap) {
            _cache.insert(_key(), _cubemap);
            _cubemap = nullptr;
        }
        _pathPosX = posX;
        _pathNegX = negX;
        _pathPosY = posY;
        _pathNegY = negY;
        _pathPosZ = posZ;
        _pathNegZ = negZ;
        if (const Held<Texture> cached = _cache.value(_key())) {
            _cubemap = cached;
            _outputs[kCubemap].value = objectForm(_cubemap);
            return;
        }
        _cubemap = _load();
    }
    _outputs[kCubemap].value = typedForm(_cubemap);
}

QString CubemapLoaderRenderPass::_key() const
{
    return _pathPosX + _pathPosY + _pathPosZ + _pathNegX + _pathNegY + _pathNegZ;
}

Texture *CubemapLoaderRenderPass::_load() const
{
    auto *texture = new Texture(nullptr);
    texture->setTarget(GL_TEXTURE_CUBE_MAP);
    texture->setLabel(kLabel);
    StorageBinder bound(texture);
    if (!bound.isBound()) {
        noteFallenShort(texture);
        return texture;
    }
    texture->setFilter(GL_LINEAR);
    texture->setWrap(GL_CLAMP_TO_EDGE);

    const QHash<GLenum, QString> faces{
        {GL_TEXTURE_CUBE_MAP_POSITIVE_X, _pathPosX}, {GL_TEXTURE_CUBE_MAP_NEGATIVE_X, _pathNegX},
        {GL_TEXTURE_CUBE_MAP_POSITIVE_Y, _pathPosY}, {GL_TEXTURE_CUBE_MAP_NEGATIVE_Y, _pathNegY},
        {GL_TEXTURE_CUBE_MAP_POSITIVE_Z, _pathPosZ}, {GL_TEXTURE_CUBE_MAP_NEGATIVE_Z, _pathNegZ}};
    GLint largest = 0;
    glGetIntegerv(GL_MAX_CUBE_MAP_TEXTURE_SIZE, &largest);
    const DefaultPixelStore pixelStore;
    bool isWhole = true;
    QHash<QString, QImage> images; // a file that several faces show is read once
    for (auto face = faces.cbegin(); face != faces.cend(); ++face) {
        auto image = images.find(face.value());
        if (image == images.end())
            image = images.insert(face.value(), loadFace(face.value(), largest));
        isWhole = uploadFace(face.key(), *image) && isWhole;
    }
    if (!isWhole) {
        noteFallenShort(texture);
        return texture;
    }
    // GL makes no mip levels for faces of different sizes, and calls it an error to ask.
    const auto isOfOneSize = [&](const QImage &image) { return image.size() == images.cbegin()->size(); };
    if (std::all_of(images.cbegin(), images.cend(), isOfOneSize))
        glGenerateMipmap(GL_TEXTURE_CUBE_MAP);
    return texture;
}

} // namespace Brevane::Kvo
