#pragma once

#include "host/export.h"
#include "shadows/shadowmaplight.h"

#include <QImage>
#include <QString>
#include <QStringList>
#include <QVector3D>
#include <QVector>
#include <qfloat16.h>

#include <array>
#include <optional>

namespace Brevane::Kvo {

/// Light from all around, made ready for shading: a picture of it, what it does to rough and to matt surfaces, and
/// the one light in it that casts shadows. Plain data, computed without GL.
///
/// Directions are those of a world with +y up. Values are linear radiance with the primaries of sRGB.
struct Environment
{
    /// Steps of roughness, from 0 (mirror) to 1, in which specular is kept.
    static constexpr int kLevels = 9;
    /// Side of the tile for a mirror, and of those for the other steps.
    static constexpr int kSharpSide = 512;
    static constexpr int kSoftSide = 128; ///< See kSharpSide.
    static constexpr int kAtlasWidth = kSharpSide; ///< Of the whole atlas, in texels.
    static constexpr int kAtlasHeight = kSharpSide + 3 * kSoftSide; ///< Of the whole atlas, in texels.

    /// The picture, RGBA: a latitude-longitude map, bottom row first. The centre looks along -z, the right half has +x
    /// in its middle.
    QVector<qfloat16> radiance;
    int width = 0; ///< In texels.
    int height = 0; ///< In texels.

    /// What a surface of some roughness mirrors, RGBA, bottom row first: the mean of the radiance around a direction,
    /// weighted with the distribution of GGX (Trowbridge and Reitz) and the cosine, for a viewer above the surface.
    /// Tiles in octahedral projection with +y in the middle; the centres of border texels lie on the border, so that
    /// bilinear taps need no margin. The mirror is below, the others above it, four in a row; above these a tile of
    /// irradiance by pi, which is what a white matt surface shows.
    QVector<qfloat16> specular;

    /// The same in short, within a few percent: coefficients of the nine spherical harmonics up to order 2, in their
    /// usual order (Ramamoorthi and Hanrahan, 2001). Damped as far as it takes to be nowhere negative.
    std::array<QVector3D, 9> irradiance{};

    /// A light of its own; not in the above. Its colour may be black.
    ShadowMapLight key;
};

/// The names of the environments that are computed: "studio" (soft boxes in a grey room), "overcast" (a sky of
/// clouds), "sun" (a clear sky, its sun as the key light), "night" (the glow of a town, and two cool lamps behind).
KVO_PIPELINE_EXPORT QStringList environmentNames();
/// One of those; nothing for another name. It is computed when it is first asked for, and its 5 MB are kept.
KVO_PIPELINE_EXPORT std::optional<Environment> environmentNamed(const QString &name);

/// The environment of a latitude-longitude picture, top row first. Floats are taken as linear, pictures of 8 bits as
/// sRGB. What is more than 40 times as bright as the mean, as the sun is, becomes the key light, at its place and with
/// its energy.
KVO_PIPELINE_EXPORT Environment environmentOf(const QImage &picture);

/// What a GGX surface does to specular light, by the view: \a side squared texels of four numbers. x is the root of the
/// cosine of the view, y is the roughness, the first and the last texel at 0 and at 1.
///
/// | Number | Meaning                                                                                              |
/// |--------|------------------------------------------------------------------------------------------------------|
/// | 0, 1   | how much of even light comes back: F0 times the first and the second added, for Schlick's Fresnel term |
/// | 2      | where the light comes from in the mean: from 0, the normal, to 1, the mirrored view, mixed            |
/// | 3      | the roughness in Environment::specular whose light is spread as widely around it                      |
KVO_PIPELINE_EXPORT QVector<float> specularTable(int side);

/// The place of a direction in octahedral projection, each from 0 to 1.
KVO_PIPELINE_EXPORT QPointF octahedral(const QVector3D &direction);
/// The direction of a place in octahedral projection.
KVO_PIPELINE_EXPORT QVector3D octahedralDirection(const QPointF &place);

} // namespace Brevane::Kvo
