#pragma once

#include <QVariant>

#include <array>

class QMatrix4x4;

namespace Brevane::Kvo {

/// Up to four numbers on their way into a uniform.
struct UniformValues
{
    std::array<double, 4> v{};
    int count = 0;
};

/// The numbers of a value: those of numbers, points, sizes, rectangles, vectors and colours. None of others.
UniformValues uniformValuesOf(const QVariant &value);

// These set a uniform of the program that is in use, by its type as GL gives it. False where the value does not
// fit the type; then nothing is set.

/// Numbers into anything but matrices: too few do not fit, what is over is left out.
bool setUniformValues(int location, unsigned int type, const UniformValues &values);
/// A matrix, or its upper left part.
bool setUniformMatrix(int location, unsigned int type, const QMatrix4x4 &value);
/// Elements of an array of floats, vectors or matrices, one after another.
void setUniformArray(int location, unsigned int type, int count, const float *data);
/// Floats of an element of such an array; 0 for other types.
int uniformComponents(unsigned int type);

} // namespace Brevane::Kvo
