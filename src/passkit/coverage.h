#pragma once

#include "model/gpumodel.h"
#include "renderpasses/export.h"

#include <QRect>

class QMatrix4x4;

namespace Brevane::Kvo {

/// Pixels of the current GL viewport, in window coordinates, that what is drawn within a box of the world may cover;
/// a pixel more on each side, for the rounding of the rasteriser. All of the viewport where a corner of the box lies
/// beside or behind the eye, and where the box or the matrices are not finite.
KVO_RENDERPASSES_EXPORT QRect coveredPixels(const GPUModel::BoundingBox &box, const QMatrix4x4 &projection,
                                            const QMatrix4x4 &camera);

/// Where nothing but a rectangle is cleared and drawn, as long as this lives. The scissor test, which is off before, is
/// off afterwards, and its box is what it was: in a pipeline nobody else would put that back.
class KVO_RENDERPASSES_EXPORT ScissorScope
{
public:
    explicit ScissorScope(const QRect &pixels);
    ~ScissorScope();
    ScissorScope(const ScissorScope &) = delete;
    ScissorScope &operator=(const ScissorScope &) = delete;

private:
    int _before[4] = {};
};

} // namespace Brevane::Kvo
