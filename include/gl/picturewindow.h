#pragma once

#include "gl/export.h"

namespace Brevane::Kvo {

/// The part of a larger picture that passes draw: with pixels from the picture's lower left. Pictures beyond a driver's
/// textures are made of such parts. A Pipeline says it to its passes, for the length of a frame.
struct KVO_GL_EXPORT PictureWindow
{
    int x = 0; ///< Of the part, from the picture's left.
    int y = 0; ///< Of the part, from the picture's lower end.
    int width = 0; ///< Of the picture.
    int height = 0; ///< Of the picture; 0: what is drawn is all there is.

    /// Whether the picture goes on around it.
    bool isPart() const { return height > 0; }
    /// Whether the driver takes a viewport of the whole picture. What is drawn in it and cut off by the target is drawn
    /// exactly as in the whole.
    bool fitsViewport() const;
    /// Sets GL's viewport for a target of that size: the whole picture's, where this is a part that fits, so that what
    /// fills clip space fills the picture and not the part.
    void setViewport(int targetWidth, int targetHeight) const;

    /// That of this thread.
    static const PictureWindow &current();
};

/// Says the part for as long as it lives.
class KVO_GL_EXPORT PictureWindowScope
{
public:
    /// Until the end of the scope.
    explicit PictureWindowScope(const PictureWindow &window);
    ~PictureWindowScope();
    PictureWindowScope(const PictureWindowScope &) = delete;
    PictureWindowScope &operator=(const PictureWindowScope &) = delete;

private:
    PictureWindow _before;
};

} // namespace Brevane::Kvo
