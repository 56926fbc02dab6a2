#pragma once

#include "gl/held.h"
#include "host/export.h"

#include <QColor>
#include <QSize>
#include <QVector3D>

class QMatrix4x4;

namespace Brevane::Kvo {

class FramebufferObject;
class ShaderProgram;

/// What shows behind a picture, where it lets light through.
struct Backdrop
{
    QColor top; ///< Invalid: the picture stays as it is, alpha included.
    QColor bottom; ///< Invalid: top.
    bool grid = false; ///< On the ground, a square a power of ten wide, each tenth line stronger.
    bool axes = false; ///< x red, y green, z blue, from the origin.

    /// Whether it shows anything.
    bool isVisible() const { return top.isValid() || grid || axes; }
    /// Whether they show the same.
    bool operator==(const Backdrop &) const = default;
};

/// Draws a backdrop behind what a framebuffer holds already, by its alpha (which is not multiplied into its colours),
/// as if the picture had been laid on it. All of it is opaque then. Grid and axes without a colour lie on black.
///
/// Nothing of it is hidden by the picture's depth: what the picture draws is in front.
class KVO_SCENE_EXPORT BackdropPainter
{
public:
    /// \a up is the axis that points up, \a side the longest side of the scene.
    void draw(FramebufferObject *target, const QSize &size, const Backdrop &backdrop, const QMatrix4x4 &camera,
              const QMatrix4x4 &projection, const QVector3D &up, float side);

private:
    Held<ShaderProgram> _program;
};

} // namespace Brevane::Kvo
