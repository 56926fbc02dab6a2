#pragma once

#include <QColor>
#include <QImage>
#include <QString>
#include <QVector>

#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <limits>

namespace Brevane::Kvo {
class Texture;
}

namespace Brevane::Kvo::Test {

/// Pixels of four channels; row 0 is the bottom one, as in GL. Single values sit in channel 0.
template <typename T>
struct Image
{
    using Pixel = std::array<T, 4>;

    int width = 0;
    int height = 0;
    QVector<Pixel> pixels;

    Image() = default;
    Image(int w, int h, Pixel value = Pixel{}) : width(w), height(h), pixels(qsizetype(w) * h, value) {}

    const Pixel &at(int x, int y) const { return pixels.at(qsizetype(y) * width + x); }
    Pixel &at(int x, int y) { return pixels[qsizetype(y) * width + x]; }
};

/// Reads a level and layer (a face of a cube map) of a colour texture of the current context, leaving
/// all bindings as they are. T is float, quint8 (normalised), quint32 or qint32 (integer formats).
template <typename T>
Image<T> readTexture(const Texture *texture, int level = 0, int layer = 0);
/// The same by GL name and target.
template <typename T>
Image<T> readTexture(unsigned int name, unsigned int target, int level = 0, int layer = 0);
/// Depth of a depth or depth-stencil texture, in channel 0.
Image<float> readDepth(const Texture *texture, int level = 0, int layer = 0);
/// Stencil of a depth-stencil texture, in channel 0.
Image<quint8> readStencil(const Texture *texture);
/// Colour of the framebuffer bound for reading.
Image<float> readFramebuffer(int x, int y, int width, int height);

/// When two images count as the same.
struct ImageLimits
{
    /// Largest difference that any channel of any pixel may have.
    double worst = 0;
    /// Differences up to this do not count as differing.
    double tolerance = 0;
    /// Share of pixels that may differ.
    double share = 0;
};

struct ImageDifference
{
    bool sameSize = false;
    double worst = 0;
    int worstX = -1;
    int worstY = -1;
    double share = 0; ///< Pixels beyond the tolerance, as a share of all.
};

QString testOutputPath(const QString &name);
void saveImages(const QString &name, const QImage &actual, const QImage &expected, const QImage &difference);

template <typename T>
ImageDifference difference(const Image<T> &actual, const Image<T> &expected, double tolerance = 0)
{
    ImageDifference result;
    result.sameSize = actual.width == expected.width && actual.height == expected.height;
    if (!result.sameSize)
        return result;
    int differing = 0;
    for (int y = 0; y < actual.height; ++y) {
        for (int x = 0; x < actual.width; ++x) {
            double pixel = 0;
            for (size_t c = 0; c < 4; ++c) {
                const double a = double(actual.at(x, y)[c]);
                const double b = double(expected.at(x, y)[c]);
                const bool bothOdd = (std::isnan(a) && std::isnan(b)) || a == b;
                const double d = bothOdd ? 0 : std::abs(a - b);
                pixel = std::max(pixel, std::isnan(d) ? std::numeric_limits<double>::infinity() : d);
            }
            differing += pixel > tolerance;
            if (pixel > result.worst || result.worstX < 0) {
                result.worst = pixel;
                result.worstX = x;
                result.worstY = y;
            }
        }
    }
    result.share = actual.pixels.isEmpty() ? 0 : double(differing) / double(actual.pixels.size());
    return result;
}

template <typename T>
QImage toQImage(const Image<T> &image, double scale = std::is_same_v<T, float> ? 255.0 : 1.0, bool opaque = false)
{
    QImage out(image.width, image.height, QImage::Format_RGBA8888);
    for (int y = 0; y < image.height; ++y) {
        for (int x = 0; x < image.width; ++x) {
            int value[4];
            for (size_t c = 0; c < 4; ++c) {
                const double v = double(image.at(x, y)[c]) * scale;
                value[c] = std::isnan(v) ? 255 : int(std::lround(std::min(255.0, std::max(0.0, v))));
            }
            out.setPixelColor(x, image.height - 1 - y, QColor(value[0], value[1], value[2], opaque ? 255 : value[3]));
        }
    }
    return out;
}

template <typename T>
Image<float> differenceImage(const Image<T> &actual, const Image<T> &expected)
{
    Image<float> out(actual.width, actual.height);
    for (qsizetype i = 0; i < out.pixels.size(); ++i)
        for (size_t c = 0; c < 4; ++c)
            out.pixels[i][c] = float(std::abs(double(actual.pixels[i][c]) - double(expected.pixels[i][c])));
    return out;
}

/// Whether images are the same within limits, without a word: the negative control of sameImage.
template <typename T>
bool isSameImage(const Image<T> &actual, const Image<T> &expected, const ImageLimits &limits)
{
    const ImageDifference d = difference(actual, expected, limits.tolerance);
    return d.sameSize && d.worst <= limits.worst && d.share <= limits.share;
}

/// For EXPECT_TRUE: says what differs, and saves actual, expected and difference as PNG files.
template <typename T>
::testing::AssertionResult sameImage(const Image<T> &actual, const Image<T> &expected, const ImageLimits &limits,
                                     const QString &name = QString())
{
    const ImageDifference d = difference(actual, expected, limits.tolerance);
    if (d.sameSize && d.worst <= limits.worst && d.share <= limits.share)
        return ::testing::AssertionSuccess();
    if (!d.sameSize)
        return ::testing::AssertionFailure() << "size " << actual.width << "x" << actual.height << " instead of "
                                             << expected.width << "x" << expected.height;
    saveImages(name, toQImage(actual), toQImage(expected),
               toQImage(differenceImage(actual, expected), 255.0 / std::max(d.worst, 1e-6), true));
    const auto a = actual.at(d.worstX, d.worstY);
    const auto e = expected.at(d.worstX, d.worstY);
    return ::testing::AssertionFailure() << "worst pixel (" << d.worstX << ", " << d.worstY << ") is off by " << d.worst
                                         << " (limit " << limits.worst << "): (" << +a[0] << ", " << +a[1] << ", "
                                         << +a[2] << ", " << +a[3] << ") instead of (" << +e[0] << ", " << +e[1] << ", "
                                         << +e[2] << ", " << +e[3] << "); " << 100 * d.share << " % differ (limit "
                                         << 100 * limits.share << " %); images in " << qPrintable(testOutputPath(name));
}

/// The image with a block of pixels changed by an amount, for negative controls.
template <typename T>
Image<T> disturbed(Image<T> image, T amount, int size = 4)
{
    for (int y = 0; y < std::min(size, image.height); ++y)
        for (int x = 0; x < std::min(size, image.width); ++x)
            image.at(x, y)[0] = T(image.at(x, y)[0] + amount);
    return image;
}

/// Whether a pixel has this value, each channel within a tolerance.
template <typename T>
::testing::AssertionResult isPixel(const Image<T> &image, int x, int y, std::array<double, 4> expected,
                                   double tolerance)
{
    const auto &pixel = image.at(x, y);
    for (size_t c = 0; c < 4; ++c) {
        if (!(std::abs(double(pixel[c]) - expected[c]) <= tolerance))
            return ::testing::AssertionFailure()
                   << "pixel (" << x << ", " << y << ") is (" << +pixel[0] << ", " << +pixel[1] << ", " << +pixel[2]
                   << ", " << +pixel[3] << ") instead of (" << expected[0] << ", " << expected[1] << ", " << expected[2]
                   << ", " << expected[3] << ")";
    }
    return ::testing::AssertionSuccess();
}

} // namespace Brevane::Kvo::Test
