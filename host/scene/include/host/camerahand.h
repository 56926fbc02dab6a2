#pragma once

#include "host/export.h"
#include "host/orbitcamera.h"

#include <QPointF>
#include <QSizeF>
#include <QVector>

#include <functional>
#include <optional>

namespace Brevane::Kvo {

/// A hand on a mouse or on a screen that moves a camera: what presses, moves, wheels and fingers mean in every
/// viewport. Knows no toolkit's events. \a surface, where given, says what is seen at a place of the picture, so that
/// it stays under the hand; otherwise the plane of the pivot does.
class KVO_SCENE_EXPORT CameraHand
{
public:
    /// What a drag does.
    enum class Drag { None, Orbit, Pan, Area };
    /// What is seen at a place of the picture, in the world; nothing for nothing.
    using Surface = std::function<std::optional<QVector3D>(const QPointF &at)>;

    /// See above for \a surface.
    explicit CameraHand(Surface surface = {}) : _surface(std::move(surface)) {}

    /// Left turns, with Shift it pans, with Ctrl it draws an area; other buttons pan.
    void press(Qt::MouseButton button, Qt::KeyboardModifiers modifiers, const QPointF &at);
    /// Nothing happens until the hand has moved so far that it means to drag.
    void move(OrbitCamera *camera, const QPointF &at, const QSizeF &picture, double dragDistance);
    /// What has ended, and whether it was a click instead.
    Drag release(bool *wasClick);
    /// A second press makes no click.
    void cancelClick() { _isClick = false; }
    /// What the drag under way does.
    Drag drag() const { return _drag; }
    /// Where the drag began.
    QPointF pressedAt() const { return _pressed; }

    /// Zooms by notches of a wheel.
    void wheel(OrbitCamera *camera, double steps, const QPointF &at, const QSizeF &picture);
    /// The fingers that are down now: one turns, more pan and zoom. With none it ends.
    void touch(OrbitCamera *camera, const QVector<QPointF> &fingers, const QSizeF &picture);

private:
    void take(const QPointF &at);
    static void turn(OrbitCamera *camera, const QPointF &by);

    Surface _surface;
    Drag _drag = Drag::None;
    bool _isClick = false;
    QPointF _pressed;
    QPointF _last;
    std::optional<QVector3D> _held; ///< A place in the world: it stays what it is while it moves on the picture.
    std::optional<QPointF> _wheeledAt;
    qsizetype _touches = 0;
    QPointF _touchCentre;
    double _touchSpread = 0.0;
};

} // namespace Brevane::Kvo
