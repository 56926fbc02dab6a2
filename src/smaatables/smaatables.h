#pragma once

namespace Brevane::Kvo {

/// Size of AreaTex in texels of two bytes.
constexpr int kSmaaAreaWidth = 160;
constexpr int kSmaaAreaHeight = 560;
/// Size of SearchTex in texels of one byte.
constexpr int kSmaaSearchWidth = 64;
constexpr int kSmaaSearchHeight = 16;

/// The published look-up tables of SMAA, row 0 first. generate.cpp computes them when the library is
/// built.
extern const unsigned char kSmaaAreaTable[2 * kSmaaAreaWidth * kSmaaAreaHeight];
extern const unsigned char kSmaaSearchTable[kSmaaSearchWidth * kSmaaSearchHeight];

} // namespace Brevane::Kvo
