#pragma once

#include "support/image.h"

#include <algorithm>
#include <cmath>
#include <vector>

namespace Brevane::Kvo::Test {

/// The filters of shadow maps in double precision, each written from its rule.
namespace ShadowFilters {

struct Moments
{
    double r = 0;
    double g = 0;
    Moments operator+(const Moments &o) const { return {r + o.r, g + o.g}; }
    Moments operator-(const Moments &o) const { return {r - o.r, g - o.g}; }
    Moments operator*(double f) const { return {r * f, g * f}; }
};

/// Which rules were at work, so that tests can tell that they reached them.
struct Branches
{
    int accumulated = 0;
    int forward = 0; ///< Filled from one and two texels ahead.
    int forwardSecondOnly = 0; ///< Two texels ahead are there, one is not.
    int backOne = 0; ///< Filled from one texel back, and whatever was found ahead.
    int backOneWithHitAhead = 0; ///< The same with a caster one texel ahead, but none at two.
    int backTwo = 0; ///< Only two texels back there is one: stays empty.
    int none = 0;
    int extrapolated = 0; ///< Gradient filter: filled along one of four directions.
};

class Map
{
public:
    Map() = default;
    Map(int w, int h) : width(w), height(h), _texels(size_t(w) * size_t(h)) {}
    explicit Map(const Image<float> &image) : Map(image.width, image.height)
    {
        for (int y = 0; y < height; ++y)
            for (int x = 0; x < width; ++x)
                at(x, y) = {double(image.at(x, y)[0]), double(image.at(x, y)[1])};
    }
    Moments &at(int x, int y) { return _texels[size_t(y) * size_t(width) + size_t(x)]; }
    const Moments &at(int x, int y) const { return _texels[size_t(y) * size_t(width) + size_t(x)]; }
    /// The edge goes on.
    const Moments &clamped(int x, int y) const { return at(std::clamp(x, 0, width - 1), std::clamp(y, 0, height - 1)); }
    /// Nothing is beyond the edge.
    Moments bordered(int x, int y) const
    {
        return x < 0 || y < 0 || x >= width || y >= height ? Moments{1e9, 1e9} : at(x, y);
    }
    int width = 0;
    int height = 0;

private:
    std::vector<Moments> _texels;
};

inline double weight(int distance)
{
    constexpr double kSigma = 4.5;
    return std::exp(-distance * distance / (2 * kSigma * kSigma));
}

inline Map gaussianPass(const Map &in, int dx, int dy)
{
    Map out(in.width, in.height);
    for (int y = 0; y < in.height; ++y) {
        for (int x = 0; x < in.width; ++x) {
            Moments sum;
            double weights = 0;
            for (int i = -3; i <= 3; ++i) {
                sum = sum + in.clamped(x + i * dx, y + i * dy) * weight(i);
                weights += weight(i);
            }
            out.at(x, y) = sum * (1 / weights);
        }
    }
    return out;
}

inline Map edgeAwarePass(const Map &in, int dx, int dy, Branches *branches)
{
    Map out(in.width, in.height);
    const auto isThere = [](const Moments &m) { return m.r < 1.0; };
    for (int y = 0; y < in.height; ++y) {
        for (int x = 0; x < in.width; ++x) {
            const auto tap = [&](int i) { return in.clamped(x + i * dx, y + i * dy); };
            const Moments own = tap(0);
            Moments &result = out.at(x, y);
            if (own.r < 1.0) {
                ++branches->accumulated;
                Moments sum = own;
                double weights = 1;
                for (int i = 1; i <= 3; ++i) {
                    for (const int side : {-i, i}) {
                        if (tap(side).r <= 1.0) {
                            sum = sum + tap(side) * weight(i);
                            weights += weight(i);
                        }
                    }
                }
                result = sum * (1 / weights);
                continue;
            }
            const bool one = isThere(tap(1));
            const bool two = one && isThere(tap(2)); // two is looked at only when one is there
            if (one && two) {
                ++branches->forward;
                const Moments m = tap(2) - tap(1);
                result = tap(1) - m;
            } else if (isThere(tap(-1))) {
                ++branches->backOne;
                branches->backOneWithHitAhead += one;
                // the line from what was found ahead, placed at -5, to the texel at -1
                const Moments a = one ? tap(1) : Moments();
                const Moments m = (tap(-1) - a) * (1.0 / 4);
                result = a + m * 5;
            } else {
                branches->forwardSecondOnly += !one && isThere(tap(2));
                ++(isThere(tap(-2)) ? branches->backTwo : branches->none);
                result = own;
            }
        }
    }
    return out;
}

/// \a isEmpty tells the mark of an empty centre or neighbour on a line: "1 or more" or "above 1".
template <typename IsEmpty>
Map gradient(const Map &in, const IsEmpty &isEmpty, Branches *branches)
{
    Map out(in.width, in.height);
    for (int y = 0; y < in.height; ++y) {
        for (int x = 0; x < in.width; ++x) {
            const Moments own = in.at(x, y);
            Moments &result = out.at(x, y);
            if (!isEmpty(own.r)) {
                ++branches->accumulated;
                Moments sum = own;
                double count = 1;
                for (int dy = -1; dy <= 1; ++dy) {
                    for (int dx = -1; dx <= 1; ++dx) {
                        const Moments t = in.bordered(x + dx, y + dy);
                        if ((dx != 0 || dy != 0) && t.r <= 1.0) {
                            sum = sum + t;
                            ++count;
                        }
                    }
                }
                result = sum * (1 / count);
                continue;
            }
            result = own;
            bool found = false;
            for (const auto &[dx, dy] : {std::pair(1, 0), std::pair(-1, 0), std::pair(0, 1), std::pair(0, -1)}) {
                const Moments a = in.bordered(x + dx, y + dy);
                const Moments b = in.bordered(x + 2 * dx, y + 2 * dy);
                if (found || isEmpty(a.r) || isEmpty(b.r))
                    continue;
                found = true;
                result = a - (b - a);
            }
            ++(found ? branches->extrapolated : branches->none);
        }
    }
    return out;
}

/// Whether a map of the GPU is that of a filter, within a tolerance relative to what is there.
inline ::testing::AssertionResult isMap(const Image<float> &actual, const Map &expected, double tolerance)
{
    if (actual.width != expected.width || actual.height != expected.height)
        return ::testing::AssertionFailure() << "another size";
    for (int y = 0; y < actual.height; ++y) {
        for (int x = 0; x < actual.width; ++x) {
            const Moments &e = expected.at(x, y);
            const double values[] = {e.r, e.g};
            for (size_t c = 0; c < 2; ++c) {
                const double a = double(actual.at(x, y)[c]);
                if (!(std::abs(a - values[c]) <= tolerance * std::max(1.0, std::abs(values[c]))))
                    return ::testing::AssertionFailure() << "texel (" << x << ", " << y << ") channel " << c << " is "
                                                         << a << " instead of " << values[c];
            }
        }
    }
    return ::testing::AssertionSuccess();
}

} // namespace ShadowFilters

} // namespace Brevane::Kvo::Test
