#include "host/camerahand.h"

#include <cmath>
#include <utility>

namespace Brevane::Kvo {

namespace {

constexpr float kDegreesPerUnit = 0.4f;
constexpr double kZoomPerStep = 1.15;

} // namespace

void CameraHand::take(const QPointF &at)
{
    _held = _surface ? _surface(at) : std::nullopt;
}

void CameraHand::turn(OrbitCamera *camera, const QPointF &by)
{
    camera->orbit(-kDegreesPerUnit * float(by.x()), kDegreesPerUnit * float(by.y()));
}

void CameraHand::press(Qt::MouseButton button, Qt::KeyboardModifiers modifiers, const QPointF &at)
{
    _pressed = _last = at;
    _wheeledAt.reset();
    _isClick = button == Qt::LeftButton;
    if (button == Qt::LeftButton && modifiers.testFlag(Qt::ControlModifier)) {
        _drag = Drag::Area;
    } else if (button == Qt::LeftButton && !modifiers.testFlag(Qt::ShiftModifier)) {
        _drag = Drag::Orbit;
    } else {
        _drag = Drag::Pan;
        take(at);
    }
}

void CameraHand::move(OrbitCamera *camera, const QPointF &at, const QSizeF &picture, double dragDistance)
{
    if (_isClick && (at - _pressed).manhattanLength() < dragDistance)
        return;
    _isClick = false;
    if (_drag == Drag::Orbit)
        turn(camera, at - _last);
    else if (_drag == Drag::Pan)
        camera->pan(_last, at, picture, _held);
    _last = at;
}

CameraHand::Drag CameraHand::release(bool *wasClick)
{
    *wasClick = std::exchange(_isClick, false);
    return std::exchange(_drag, Drag::None);
}

void CameraHand::wheel(OrbitCamera *camera, double steps, const QPointF &at, const QSizeF &picture)
{
    // The surface at the cursor stays there, so that turning on needs no further look.
    if (_wheeledAt != at) {
        take(at);
        _wheeledAt = at;
    }
    camera->zoom(float(std::pow(kZoomPerStep, steps)), at, picture, _held);
}

void CameraHand::touch(OrbitCamera *camera, const QVector<QPointF> &fingers, const QSizeF &picture)
{
    QPointF centre;
    for (const QPointF &finger : fingers)
        centre += finger / double(fingers.size());
    double spread = 0.0;
    for (const QPointF &finger : fingers)
        spread += std::hypot(finger.x() - centre.x(), finger.y() - centre.y()) / double(fingers.size());
    // A finger more or less moves the centre, but not the hand.
    if (fingers.size() != _touches) {
        if (fingers.size() > 1)
            take(centre);
    } else if (fingers.size() == 1) {
        turn(camera, centre - _touchCentre);
    } else if (fingers.size() > 1) {
        camera->pan(_touchCentre, centre, picture, _held);
        if (spread > 0.0 && _touchSpread > 0.0)
            camera->zoom(float(spread / _touchSpread), centre, picture, _held);
    }
    _touches = fingers.size();
    _touchCentre = centre;
    _touchSpread = spread;
}

} // namespace Brevane::Kvo
