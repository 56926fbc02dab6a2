#pragma once

#include "support/image.h"

#include <cmath>

namespace Brevane::Kvo::Test {

/// Drawn test images for antialiasing: hard edges of many slopes, corners, thin lines, text-like detail.
/// All values are exact in half floats. Alpha is a matte of its own.
inline Image<float> edgeImage(int width, int height)
{
    Image<float> image(width, height, {0.125f, 0.25f, 0.375f, 1.0f});
    for (int y = 0; y < height; ++y) {
        for (int x = 0; x < width; ++x) {
            auto &p = image.at(x, y);
            const int dx = x - width / 3;
            const int dy = y - height / 2;
            if (dx * dx + dy * dy < height * height / 9)
                p = {0.875f, 0.5f, 0.25f, 1.0f};
            if (7 * (x - width / 2) > 2 * y && 3 * (x - width / 2) < 5 * y && x > width / 2)
                p = {0.25f, 0.75f, 0.5f, 0.5f};
            if (y > height - height / 6 && (x / 3 + y / 2) % 3 == 0)
                p = {1.0f, 0.9375f, 0.5f, 1.0f};
            if (std::abs(x - y) <= 0)
                p = {0.0f, 0.0f, 0.0f, 1.0f};
            if (y == height / 8 + x / 17)
                p = {1.0f, 1.0f, 1.0f, 0.25f};
        }
    }
    return image;
}

/// Bilinear filtering with clamped wrap in float, as llvmpipe and GPUs do it for float textures.
template <size_t Channels>
std::array<float, Channels> filtered(const Image<float> &image, float u, float v)
{
    const float x = u * float(image.width) - 0.5f;
    const float y = v * float(image.height) - 0.5f;
    const float fx = std::floor(x);
    const float fy = std::floor(y);
    const float wx = x - fx;
    const float wy = y - fy;
    const auto texel = [&](int i, int j) -> const std::array<float, 4> & {
        return image.at(std::min(std::max(i, 0), image.width - 1), std::min(std::max(j, 0), image.height - 1));
    };
    const int x0 = int(fx);
    const int y0 = int(fy);
    std::array<float, Channels> out{};
    for (size_t c = 0; c < Channels; ++c) {
        const float bottom = texel(x0, y0)[c] + (texel(x0 + 1, y0)[c] - texel(x0, y0)[c]) * wx;
        const float top = texel(x0, y0 + 1)[c] + (texel(x0 + 1, y0 + 1)[c] - texel(x0, y0 + 1)[c]) * wx;
        out[c] = bottom + (top - bottom) * wy;
    }
    return out;
}

} // namespace Brevane::Kvo::Test
