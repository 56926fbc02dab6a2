#pragma once

#include <QImage>
#include <QPoint>
#include <QPointF>
#include <QWidget>

#include <optional>

/// Shows a picture from far away down to its single pixels: the wheel zooms to the cursor, dragging moves, a second
/// picture can lie beside a line that the hand draws. Knows nothing of textures.
class TextureView : public QWidget
{
    Q_OBJECT

public:
    explicit TextureView(QWidget *parent = nullptr);

    /// A picture of the same size keeps the place.
    void setPicture(const QImage &picture);
    QImage picture() const { return _picture; }
    /// What lies to the right of the line; null: no line.
    void setOther(const QImage &other);
    /// Of the width of the picture, from 0 to 1.
    void setWipe(double wipe);

    void fit();
    /// Screen pixels per texel.
    void setZoom(double zoom);
    double zoom() const { return _zoom; }
    /// The texel at a position of the widget; nothing outside of the picture.
    std::optional<QPoint> texelAt(const QPointF &position) const;
    /// The middle of a texel.
    QPointF positionOf(const QPoint &texel) const;
    std::optional<QPoint> hovered() const { return _hovered; }
    /// Moves the place that is told of by keys as well as by the cursor.
    void setHovered(const std::optional<QPoint> &texel);
    QSize sizeHint() const override { return {360, 240}; }

Q_SIGNALS:
    /// Another texel is under the cursor, or none.
    void hoveredChanged();

protected:
    void paintEvent(QPaintEvent *event) override;
    void wheelEvent(QWheelEvent *event) override;
    void mousePressEvent(QMouseEvent *event) override;
    void mouseMoveEvent(QMouseEvent *event) override;
    void mouseReleaseEvent(QMouseEvent *event) override;
    void mouseDoubleClickEvent(QMouseEvent *event) override;
    void leaveEvent(QEvent *event) override;
    void keyPressEvent(QKeyEvent *event) override;
    void resizeEvent(QResizeEvent *event) override;

private:
    void zoomAt(const QPointF &position, double factor);
    bool isAtWipe(const QPointF &position) const;

    QImage _picture;
    QImage _other;
    double _wipe = 0.5;
    double _zoom = 1.0;
    QPointF _origin; ///< Where the picture's corner is.
    bool _isFitted = true;
    bool _isWiping = false;
    std::optional<QPointF> _grip;
    std::optional<QPoint> _hovered;
};
