#pragma once

#include "host/export.h"

#include <QImage>
#include <QString>
#include <QVector>

namespace Brevane::Kvo {

class ShadowMapRenderData;
class Texture;

/// The texels of a texture as floats, bottom row first. Layers of an array texture and faces of a cube
/// map follow one another upwards.
struct TexturePixels
{
    /// What the numbers are.
    enum class Kind {
        Color,
        Depth,
        Integer,
        Moments, ///< Shadow maps: depth and its square, 1e9 where nothing is. For readShadowMaps to know.
    };

    Kind kind = Kind::Color; ///< What the numbers are.
    bool normalized = false; ///< Fixed point: all values from 0 to 1.
    int width = 0; ///< Of a layer, in texels.
    int height = 0; ///< Of all layers together.
    int layers = 1; ///< Or faces.
    int channels = 0; ///< Numbers per texel.
    QVector<float> values; ///< Row by row, the channels of a texel together.
    QVector<quint32> integers; ///< In the place of values for unsigned integer formats.
};

/// Reads a level of a texture back, the largest unless another one is named; waits for the GPU. False, with the reason,
/// for buffer textures, empty textures, levels that are not there and null.
KVO_IMAGES_EXPORT bool readTexture(Texture *texture, TexturePixels *pixels, QString *error = nullptr, int mipLevel = 0);

/// A picture of a texture for people, upright, 8 bits:
/// - colour from 0 to 1 as it is, beyond that clamped, with alpha where all of it is within 0 and 1;
/// - directions (components from -1 to 1) with 0 at middle grey;
/// - depth in greys, near bright and far dark, stretched over what is there; nothing (1) black;
/// - whole numbers (ids, integer formats) in a grey of their own each, 0 black;
/// - one channel beyond 0 to 1 in greys, stretched over what is there;
/// - two channels as red and green;
/// - shadow maps in greys as depth, each layer stretched over what is there, with empty texels in dark blue
///   and those that a filter has mixed with empty ones in violet.
/// What is not a number is magenta. Layers of an array texture and faces of a cube map lie side by side in
/// rows, from the upper left on, as on a contact sheet.
KVO_IMAGES_EXPORT QImage visibleImage(const TexturePixels &pixels);
/// readTexture and visibleImage in one; null, with the reason, on failure.
KVO_IMAGES_EXPORT QImage textureImage(Texture *texture, QString *error = nullptr);

/// Writes a texture: ".png" (or another format that QImage writes) as textureImage, ".exr" with its
/// values as they are. The file appears only when all of it could be written. False, with the file and
/// the reason.
KVO_IMAGES_EXPORT bool writeTexture(Texture *texture, const QString &path, QString *error = nullptr);
/// Reads the maps of a shadow pass.
KVO_IMAGES_EXPORT bool readShadowMaps(const ShadowMapRenderData *record, TexturePixels *pixels,
                                      QString *error = nullptr);
/// Writes them like a texture.
KVO_IMAGES_EXPORT bool writeShadowMaps(const ShadowMapRenderData *record, const QString &path,
                                       QString *error = nullptr);
/// The same for an image.
KVO_IMAGES_EXPORT bool writeImage(const QImage &image, const QString &path, QString *error = nullptr);
/// Writes values as OpenEXR, upright: channels R, G, B, A; Z for depth, Y for one channel.
KVO_IMAGES_EXPORT bool writeExr(const TexturePixels &pixels, const QString &path, QString *error = nullptr);
/// Whether the ending of a name stands for a kind of image that can be written, .exr among them for a texture: true, or
/// false with the kinds there are. Looks at no file.
KVO_IMAGES_EXPORT bool hasImageEnding(const QString &path, bool isTexture, QString *error = nullptr);
/// Whether a file of that name could be written, going by its ending and its folder: true, or false with the reason.
KVO_IMAGES_EXPORT bool canWriteImage(const QString &path, bool isTexture, QString *error = nullptr);

} // namespace Brevane::Kvo
