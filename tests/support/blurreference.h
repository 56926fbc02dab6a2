#pragma once

#include "support/image.h"

#include <algorithm>
#include <cmath>
#include <random>
#include <vector>

namespace Brevane::Kvo::Test {

/// Pixels of independent values between 0 and 1, the same in every run; alpha between 0.5 and 1.
inline Image<float> noiseImage(int width, int height, unsigned seed = 7)
{
    std::mt19937 random(seed);
    Image<float> image(width, height);
    const auto next = [&random] { return float(random() % 1024) / 1023.0f; };
    for (auto &pixel : image.pixels)
        pixel = {next(), next(), next(), 0.5f + 0.5f * next()};
    return image;
}

/// Weights of a Gaussian of that sigma on whole texels, cut at the smallest odd number of entries that
/// is not below twice the radius, and normalised with every entry but the first on both sides.
inline std::vector<double> gaussianTaps(double radius)
{
    int n = 1;
    while (n < 2 * radius)
        n += 2;
    const double sigma = radius + 0.0001;
    std::vector<double> taps;
    double sum = 0;
    for (int i = 0; i < n; ++i) {
        taps.push_back(std::exp(-double(i) * i / (2 * sigma * sigma)));
        sum += i == 0 ? taps.back() : 2 * taps.back();
    }
    for (double &tap : taps)
        tap /= sum;
    return taps;
}

inline std::array<float, 4> clampedTexel(const Image<float> &image, int x, int y)
{
    return image.at(std::clamp(x, 0, image.width - 1), std::clamp(y, 0, image.height - 1));
}

/// One stage over texels, along (dx, dy).
inline Image<float> blurStage(const Image<float> &source, double radius, int dx, int dy)
{
    const std::vector<double> taps = gaussianTaps(radius);
    Image<float> out(source.width, source.height);
    for (int y = 0; y < source.height; ++y) {
        for (int x = 0; x < source.width; ++x) {
            std::array<double, 4> sum{};
            for (int i = 1 - int(taps.size()); i < int(taps.size()); ++i) {
                const auto texel = clampedTexel(source, x + i * dx, y + i * dy);
                for (size_t c = 0; c < 4; ++c)
                    sum[c] += taps[size_t(std::abs(i))] * double(texel[c]);
            }
            for (size_t c = 0; c < 4; ++c)
                out.at(x, y)[c] = float(sum[c]);
        }
    }
    return out;
}

/// One stage in which texels with alpha 0 stay as they are.
inline Image<float> maskedStage(const Image<float> &source, double radius, int dx, int dy)
{
    Image<float> out = blurStage(source, radius, dx, dy);
    for (qsizetype i = 0; i < out.pixels.size(); ++i) {
        if (!(source.pixels[i][3] > 0.0f))
            out.pixels[i] = source.pixels[i];
    }
    return out;
}

/// The blur as one sum over a square of texels, in double precision.
inline Image<float> directBlur(const Image<float> &source, double radius)
{
    const std::vector<double> taps = gaussianTaps(radius);
    const int reach = int(taps.size()) - 1;
    Image<float> out(source.width, source.height);
    for (int y = 0; y < source.height; ++y) {
        for (int x = 0; x < source.width; ++x) {
            std::array<double, 4> sum{};
            for (int j = -reach; j <= reach; ++j) {
                for (int i = -reach; i <= reach; ++i) {
                    const auto texel = clampedTexel(source, x + i, y + j);
                    const double weight = taps[size_t(std::abs(i))] * taps[size_t(std::abs(j))];
                    for (size_t c = 0; c < 4; ++c)
                        sum[c] += weight * double(texel[c]);
                }
            }
            for (size_t c = 0; c < 4; ++c)
                out.at(x, y)[c] = float(sum[c]);
        }
    }
    return out;
}

} // namespace Brevane::Kvo::Test
