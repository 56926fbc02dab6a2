#pragma once

#include <QVector3D>

#include <cmath>

namespace Brevane::Kvo {

/// A vector of length 1 that points where \a vector does, however short or long that is; null where it points
/// nowhere, being null or not finite. QVector3D::normalized gives up below a length of 1e-5, which is what the
/// normal of a triangle with edges of some thousandths has, and the squares of floats leave the range of floats.
inline QVector3D directionOf(const QVector3D &vector)
{
    const double x = double(vector.x()), y = double(vector.y()), z = double(vector.z());
    const double length = std::sqrt(x * x + y * y + z * z);
    if (!(length > 0.0) || !std::isfinite(length))
        return {};
    return {float(x / length), float(y / length), float(z / length)};
}

} // namespace Brevane::Kvo
