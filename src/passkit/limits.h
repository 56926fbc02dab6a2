#pragma once

#include "passkit/extent.h"

#include <QRect>
#include <QSize>

#include <span>

namespace Brevane::Kvo {

class RenderPassHelper;

// What sizes targets, loops and memory is read from its slot here. A value in range is used as it is;
// what is used instead of another one is said once, with the names of pass and slot. What is not a
// number counts as the value that a slot starts with.

/// Most fetches on one side of a blur's centre, the centre included. A driver with few uniforms has room
/// for less.
inline constexpr int kMostBlurTaps = 512;
/// Most taps of the ambient obscurance per pixel.
inline constexpr int kMostObscuranceTaps = 1024;
/// Most turns of the spiral that they lie on; beyond, an angle has too few digits to tell them apart.
inline constexpr int kMostSpiralTurns = 65536;
/// What the width of a node buffer is bounded by, so that the shaders' products with it fit.
inline constexpr int kWidestNodeBuffer = 1 << 16;
/// Most texels of a target whose size had to be cut because a side is longer than the driver's limit.
inline constexpr int kMostTexelsOfACut = 1 << 22;

/// Width and height of the viewport in a slot; 0 by 0 when there is none. A side beyond the driver's limit is
/// cut.
Extent extentOf(RenderPassHelper &pass, int slot);

/// A viewport divided by the divider of a slot, as the pass reads it, without fractions; cut as viewports are.
/// Less than nothing is nothing.
Extent dividedExtent(RenderPassHelper &pass, int slot, const Extent &viewport, float divider);

/// The size of maps in a slot; empty for a value that is no size, cut as viewports are.
QSize mapSizeOf(RenderPassHelper &pass, int slot);

/// The radius of a blur in a slot: at most as large as there are taps for.
float blurRadiusOf(RenderPassHelper &pass, int slot);
/// The largest of them in the current context.
float largestBlurRadius();

/// A number in a slot between two ends.
float numberOf(RenderPassHelper &pass, int slot, float least, float most, float ifNotANumber);
/// The same without its fraction, as QVariant rounds it.
int integerOf(RenderPassHelper &pass, int slot, int least, int most, int ifNotANumber);

/// Moves the corners of the rectangles of a slot to where GL can add them up.
void boundCorners(RenderPassHelper &pass, int slot, std::span<QRect> rectangles);

/// A material that a stencil of 8 bits is compared with, which holds it plus 1; negative: none.
int stencilMaterialOf(RenderPassHelper &pass, int slot);
/// The width of a node buffer in a slot; 0: none.
int nodeBufferWidthOf(RenderPassHelper &pass, int slot);

/// How many 4 by 4 matrices the vertex and geometry stages have room for, with some left for other uniforms.
int largestMatrixArray();

} // namespace Brevane::Kvo
