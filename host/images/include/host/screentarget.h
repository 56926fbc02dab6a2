#pragma once

#include "host/export.h"

#include <QColor>
#include <QImage>
#include <QSize>
#include <QString>

#include <memory>

namespace Brevane::Kvo {

class FramebufferObject;
class Texture;

/// A framebuffer that stands for the window where there is none: 8-bit colour with alpha, depth and
/// stencil. Belongs to the context that is current at resize; destroy it before that context.
class KVO_IMAGES_EXPORT ScreenTarget
{
public:
    ScreenTarget();
    ~ScreenTarget();
    ScreenTarget(const ScreenTarget &) = delete;
    ScreenTarget &operator=(const ScreenTarget &) = delete;

    /// False, with the reason, for a size that the driver does not support.
    bool resize(const QSize &size, QString *error = nullptr);
    /// Empty before resize.
    QSize size() const { return _size; }
    /// What passes draw on; this object's own.
    FramebufferObject *framebuffer() const { return _framebuffer.get(); }
    /// Fills colour, and sets depth to 1 and stencil to 0.
    void clear(const QColor &color = Qt::transparent);
    /// The picture, upright; null, with the reason, on failure.
    QImage image(QString *error = nullptr) const;

private:
    QSize _size;
    std::unique_ptr<FramebufferObject> _framebuffer;
    std::unique_ptr<Texture> _color;
    std::unique_ptr<Texture> _depth;
};

} // namespace Brevane::Kvo
