#include "host/imagecomparison.h"

#include "failure.h"
#include "host/imageoutput.h"
#include "wholepixels.h"

#include <algorithm>
#include <cmath>

namespace Brevane::Kvo {

namespace {

constexpr double kPictureGain = 4.0;

} // namespace

QString ImageComparison::summary() const
{
    return QStringLiteral("mean error %1, RMS %2, worst %3 at (%4, %5), %6 % of the pixels differ by more than 1/255")
        .arg(meanError, 0, 'g', 4)
        .arg(rmsError, 0, 'g', 4)
        .arg(worstError, 0, 'g', 4)
        .arg(worstX)
        .arg(worstY)
        .arg(100.0 * differingShare, 0, 'f', 2);
}

bool comparePixels(const TexturePixels &p, const TexturePixels &q, ImageComparison *comparison, QString *error)
{
    if (p.width != q.width || p.height != q.height)
        return fail(
            error,
            QStringLiteral("one is %1x%2, the other %3x%4").arg(p.width).arg(p.height).arg(q.width).arg(q.height));
    if (p.kind == TexturePixels::Kind::Integer || q.kind == TexturePixels::Kind::Integer || p.channels != q.channels)
        return fail(error, QStringLiteral("only pictures with the same channels can be compared"));
    if (!areWhole(p, error) || !areWhole(q, error))
        return false;

    *comparison = ImageComparison();
    comparison->picture = QImage(p.width, p.height, QImage::Format_RGB32);
    const int channels = std::min(p.channels, 3);
    double sum = 0.0;
    double squares = 0.0;
    qint64 differing = 0;
    for (int y = 0; y < p.height; ++y) {
        for (int x = 0; x < p.width; ++x) {
            const qsizetype first = (qsizetype(y) * p.width + x) * p.channels;
            double worst = 0.0;
            int shown[3] = {};
            for (int c = 0; c < channels; ++c) {
                const double difference = std::abs(double(p.values[first + c]) - double(q.values[first + c]));
                sum += difference;
                squares += difference * difference;
                worst = std::max(worst, difference);
                shown[c] = int(std::lround(std::clamp(kPictureGain * difference, 0.0, 1.0) * 255.0));
            }
            comparison->picture.setPixel(x, p.height - 1 - y, qRgb(shown[0], shown[1], shown[2]));
            differing += worst > 1.0 / 255.0;
            if (worst > comparison->worstError) {
                comparison->worstError = worst;
                comparison->worstX = x;
                comparison->worstY = y;
            }
        }
    }
    const double count = double(p.width) * p.height;
    comparison->meanError = sum / (count * channels);
    comparison->rmsError = std::sqrt(squares / (count * channels));
    comparison->differingShare = double(differing) / count;
    return true;
}

} // namespace Brevane::Kvo
