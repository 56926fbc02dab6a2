#pragma once

#include "host/imageoutput.h"

#include <QImage>
#include <QMatrix4x4>
#include <QSize>
#include <QString>
#include <QVector>

#include <array>

namespace Brevane::Kvo {
class Texture;
}

/// What a texture is, beside its texels.
struct TextureFacts
{
    QString format; ///< "RGBA16F".
    QString target; ///< "2D", "array", "cube".
    QSize size; ///< Of level 0.
    int layers = 1; ///< Faces of a cube map too.
    int levels = 1; ///< With storage.
    bool isSigned = false; ///< Whole numbers below 0 among them.

    QString text() const;
};

/// How texels become a picture.
struct Look
{
    enum class Channels {
        Color, ///< Red, green and blue.
        Red,
        Green,
        Blue,
        Alpha,
        Blended, ///< Colour over a chequered ground by alpha.
        LinearDepth, ///< Distance from the eye, by the projection.
        Ids, ///< A colour for each whole number.
    };

    Channels channels = Channels::Color;
    double low = 0.0; ///< Shown as black,
    double high = 1.0; ///< and this as white.
    bool marksSpecials = true; ///< NaN magenta, infinities yellow (+) and cyan (-).
    QMatrix4x4 projection; ///< For LinearDepth.
};

/// What values there are, in the channels that a look shows.
struct TexelStatistics
{
    static constexpr int kBins = 128;

    qint64 finite = 0;
    qint64 notNumbers = 0;
    qint64 infinities = 0;
    double least = 0.0;
    double most = 0.0;
    double mean = 0.0;
    std::array<qint64, kBins> histogram{}; ///< From least to most.
};

/// A level and layer of a texture as it was at some moment: exact values, statistics and pictures. Positions count from
/// the upper left, as on screen.
class Texels
{
public:
    /// Reads a level with all its layers; waits for the GPU. False with the reason.
    static bool read(Brevane::Kvo::Texture *texture, int level, Texels *texels, QString *error);

    bool isEmpty() const { return _pixels.width == 0; }
    const TextureFacts &facts() const { return _facts; }
    QSize size() const;
    int layers() const { return _pixels.layers; }
    int channels() const { return _pixels.channels; }
    bool isDepth() const { return _pixels.kind == Brevane::Kvo::TexturePixels::Kind::Depth; }
    bool isInteger() const { return _pixels.kind == Brevane::Kvo::TexturePixels::Kind::Integer; }
    /// All layers, as they were read.
    const Brevane::Kvo::TexturePixels &pixels() const { return _pixels; }

    /// The channels of a texel; none outside.
    QVector<double> at(const QPoint &position, int layer) const;
    /// What a look makes of it: the distance for LinearDepth.
    double shownAt(const QPoint &position, int layer, const Look &look, int channel) const;
    TexelStatistics statistics(int layer, const Look &look) const;
    QImage picture(int layer, const Look &look) const;
    /// A layer by itself, for writing.
    Brevane::Kvo::TexturePixels layer(int layer) const;

    /// Absolute differences of two of the same size, channel by channel; false, with the reason, for others.
    static bool difference(const Texels &a, const Texels &b, Texels *result, QString *error);

    /// The distance from the eye of what has a depth, in the unit of the scene.
    static double linearDepth(double depth, const QMatrix4x4 &projection);
    /// The colour that stands for a whole number; black for 0.
    static QRgb colorOfId(quint32 id);

private:
    int shownChannels(const Look &look, int *first) const;
    double value(qsizetype index) const;
    qsizetype indexOf(int x, int y, int layer) const;
    QRgb colorAt(int x, int y, int layer, const Look &look) const;

    TextureFacts _facts;
    Brevane::Kvo::TexturePixels _pixels;
};
