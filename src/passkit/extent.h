#pragma once

namespace Brevane::Kvo {

/// Size of a viewport or target in pixels.
struct Extent
{
    int width = 0;
    int height = 0;

    bool operator==(const Extent &) const = default;
    bool isEmpty() const { return width <= 0 || height <= 0; }
};

} // namespace Brevane::Kvo
