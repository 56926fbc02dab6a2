#pragma once

#include <QColor>
#include <QImage>
#include <QRect>

#include <cstdlib>

namespace Brevane::Kvo::Test {

/// Share of pixels that differ by more than a few steps; all of them for pictures of different sizes.
inline double differing(const QImage &a, const QImage &b)
{
    constexpr int kSteps = 3;
    if (a.size() != b.size())
        return 1;
    int count = 0;
    for (int y = 0; y < a.height(); ++y) {
        for (int x = 0; x < a.width(); ++x) {
            const QColor one = a.pixelColor(x, y), other = b.pixelColor(x, y);
            count += std::abs(one.red() - other.red()) > kSteps || std::abs(one.green() - other.green()) > kSteps
                     || std::abs(one.blue() - other.blue()) > kSteps;
        }
    }
    return double(count) / double(a.width() * a.height());
}

} // namespace Brevane::Kvo::Test
