#include "textureview.h"

#include <QKeyEvent>
#include <QMouseEvent>
#include <QPainter>
#include <QWheelEvent>

#include <algorithm>
#include <cmath>

namespace {

constexpr double kLeastZoom = 1.0 / 64.0;
constexpr double kMostZoom = 128.0;
constexpr double kStep = 1.25;
constexpr double kGridFrom = 12.0; // screen pixels per texel
constexpr double kGrip = 5.0;

} // namespace

TextureView::TextureView(QWidget *parent) : QWidget(parent)
{
    setMouseTracking(true);
    setFocusPolicy(Qt::StrongFocus);
    setMinimumSize(120, 90);
    setAccessibleName(tr("Picture of the texture"));
    setToolTip(tr("Wheel: zoom; drag: move; double click: all of it; arrows: the next texel"));
}

void TextureView::setPicture(const QImage &picture)
{
    const bool isOther = picture.size() != _picture.size();
    _picture = picture;
    if (isOther || _isFitted)
        fit();
    update();
}

void TextureView::setOther(const QImage &other)
{
    _other = other;
    update();
}

void TextureView::setWipe(double wipe)
{
    _wipe = std::clamp(wipe, 0.0, 1.0);
    update();
}

void TextureView::fit()
{
    _isFitted = true;
    if (_picture.isNull())
        return;
    _zoom = std::clamp(std::min(double(width()) / _picture.width(), double(height()) / _picture.height()), kLeastZoom,
                       kMostZoom);
    _origin = QPointF(width() - _picture.width() * _zoom, height() - _picture.height() * _zoom) / 2;
    update();
}

void TextureView::setZoom(double zoom)
{
    zoomAt(QPointF(width(), height()) / 2, zoom / _zoom);
}

void TextureView::zoomAt(const QPointF &position, double factor)
{
    const double zoom = std::clamp(_zoom * factor, kLeastZoom, kMostZoom);
    _origin = position - (position - _origin) * (zoom / _zoom);
    _zoom = zoom;
    _isFitted = false;
    update();
}

std::optional<QPoint> TextureView::texelAt(const QPointF &position) const
{
    const QPointF place = (position - _origin) / _zoom;
    const QPoint texel(int(std::floor(place.x())), int(std::floor(place.y())));
    return QRect(QPoint(), _picture.size()).contains(texel) ? std::optional(texel) : std::nullopt;
}

QPointF TextureView::positionOf(const QPoint &texel) const
{
    return _origin + (QPointF(texel) + QPointF(0.5, 0.5)) * _zoom;
}

void TextureView::setHovered(const std::optional<QPoint> &texel)
{
    if (texel == _hovered)
        return;
    _hovered = texel;
    update();
    Q_EMIT hoveredChanged();
}

void TextureView::paintEvent(QPaintEvent *)
{
    QPainter painter(this);
    painter.fillRect(rect(), palette().color(QPalette::Dark));
    if (_picture.isNull()) {
        painter.drawText(rect(), Qt::AlignCenter, tr("no texture"));
        return;
    }
    const QRectF area(_origin, QSizeF(_picture.size()) * _zoom);
    painter.setRenderHint(QPainter::SmoothPixmapTransform, _zoom < 1.0);
    painter.drawImage(area, _picture);
    if (!_other.isNull()) {
        const double line = area.left() + area.width() * _wipe;
        painter.save();
        painter.setClipRect(QRectF(line, area.top(), area.right() - line, area.height()));
        painter.drawImage(area, _other);
        painter.restore();
        painter.setPen(QPen(palette().color(QPalette::Highlight), 2));
        painter.drawLine(QPointF(line, area.top()), QPointF(line, area.bottom()));
    }
    if (_zoom >= kGridFrom) {
        painter.setPen(QColor(128, 128, 128, 90));
        const QRectF seen = area.intersected(rect());
        for (double x = area.left() + std::floor((seen.left() - area.left()) / _zoom) * _zoom; x <= seen.right();
             x += _zoom)
            painter.drawLine(QPointF(x, seen.top()), QPointF(x, seen.bottom()));
        for (double y = area.top() + std::floor((seen.top() - area.top()) / _zoom) * _zoom; y <= seen.bottom();
             y += _zoom)
            painter.drawLine(QPointF(seen.left(), y), QPointF(seen.right(), y));
    }
    if (_hovered && _zoom >= 4.0) {
        painter.setPen(QPen(palette().color(QPalette::Highlight), 1));
        painter.drawRect(QRectF(_origin + QPointF(*_hovered) * _zoom, QSizeF(_zoom, _zoom)));
    }
    if (hasFocus()) {
        painter.setPen(palette().color(QPalette::Highlight));
        painter.drawRect(rect().adjusted(0, 0, -1, -1));
    }
}

void TextureView::wheelEvent(QWheelEvent *event)
{
    zoomAt(event->position(), std::pow(kStep, event->angleDelta().y() / 120.0));
    event->accept();
}

bool TextureView::isAtWipe(const QPointF &position) const
{
    const double line = _origin.x() + _picture.width() * _zoom * _wipe;
    return !_other.isNull() && std::abs(position.x() - line) <= kGrip;
}

void TextureView::mousePressEvent(QMouseEvent *event)
{
    _isWiping = isAtWipe(event->position());
    _grip = event->position();
}

void TextureView::mouseMoveEvent(QMouseEvent *event)
{
    if (_grip && _isWiping) {
        setWipe((event->position().x() - _origin.x()) / (_picture.width() * _zoom));
    } else if (_grip) {
        _origin += event->position() - *_grip;
        _grip = event->position();
        _isFitted = false;
        update();
    }
    setCursor(isAtWipe(event->position()) ? Qt::SplitHCursor : Qt::CrossCursor);
    setHovered(texelAt(event->position()));
}

void TextureView::mouseReleaseEvent(QMouseEvent *)
{
    _grip.reset();
    _isWiping = false;
}

void TextureView::mouseDoubleClickEvent(QMouseEvent *)
{
    fit();
}

void TextureView::leaveEvent(QEvent *)
{
    if (!hasFocus())
        setHovered(std::nullopt);
}

void TextureView::keyPressEvent(QKeyEvent *event)
{
    QPoint step;
    switch (event->key()) {
    case Qt::Key_Left: step = {-1, 0}; break;
    case Qt::Key_Right: step = {1, 0}; break;
    case Qt::Key_Up: step = {0, -1}; break;
    case Qt::Key_Down: step = {0, 1}; break;
    case Qt::Key_Plus: zoomAt(QPointF(width(), height()) / 2, kStep); return;
    case Qt::Key_Minus: zoomAt(QPointF(width(), height()) / 2, 1.0 / kStep); return;
    case Qt::Key_F: fit(); return;
    default: QWidget::keyPressEvent(event); return;
    }
    const QPoint from = _hovered.value_or(QPoint(_picture.width() / 2, _picture.height() / 2));
    const QPoint to = from + step;
    if (QRect(QPoint(), _picture.size()).contains(to))
        setHovered(to);
}

void TextureView::resizeEvent(QResizeEvent *)
{
    if (_isFitted)
        fit();
}
