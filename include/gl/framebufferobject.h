#pragma once

#include "gl/bindable.h"
#include "gl/export.h"

#include <QObject>

#include <memory>

namespace Brevane::Kvo {

class Texture;
class FramebufferPrivate;

/// A GL framebuffer and the textures attached to it. It owns none of them: whoever wants an attached
/// texture gone detaches it first and deletes it.
///
/// Framebuffers belong to one GL context. The wrapper remembers its attachments, and makes the GL
/// object again in another context where the textures are shared.
///
/// bind makes it current for drawing and reading; unbind restores both bindings of before.
class KVO_GL_EXPORT FramebufferObject : public QObject, public Bindable
{
    Q_OBJECT

public:
    /// Without attachments; GL makes it when it is bound first.
    explicit FramebufferObject(QObject *parent = nullptr);
    ~FramebufferObject() override;

    /// Wraps a framebuffer that the host made, 0 for the default framebuffer of the window system, or
    /// what a widget toolkit uses in its place (QOpenGLWidget::defaultFramebufferObject()). The host
    /// keeps the GL object. The caller owns the wrapper.
    static FramebufferObject *wrap(unsigned int framebuffer, QObject *parent = nullptr);

    bool bind() override;
    bool unbind() override;

    /// Attaches one level of a texture; all layers of it where it has layers. The framebuffer should
    /// be bound. False for a null texture, one without a GL object, and a view of a buffer.
    bool attach(Texture *texture, unsigned int attachment, int level);
    /// Attaches one layer of an array texture.
    bool attach3D(Texture *texture, unsigned int attachment, int layer, int level);
    /// Attaches all layers of an array texture, for layered drawing.
    bool attachLayers(Texture *texture, unsigned int attachment, int level);
    /// Removes and returns a texture, which stays alive; null when there was none.
    Texture *detach(unsigned int attachment);
    /// Detaches everything, see detach.
    void detachAll();
    /// The attached texture or null. GL_DEPTH_ATTACHMENT, GL_STENCIL_ATTACHMENT and
    /// GL_DEPTH_STENCIL_ATTACHMENT are three different places.
    Texture *attachment(unsigned int attachment) const;
    /// Whether something is attached there.
    bool hasAttachment(unsigned int attachment) const;

    /// Directs drawing to all colour attachments that are present, in the order of their numbers, and reading to
    /// the first of them; both to none when there is none. A wrapped framebuffer keeps the draw buffers that it has.
    void setDrawBuffers();

    /// The GL name; 0 means the default framebuffer (or that the object was never bound).
    unsigned int getFBO() const;

    /// Names the framebuffer in debuggers (KHR_debug).
    void setLabel(const QString &label);
    QString label() const; ///< That setLabel gave.

private:
    Q_DISABLE_COPY(FramebufferObject)

    std::unique_ptr<FramebufferPrivate> d;
};

/// Value of a framebuffer as slots carry it. The pointer is borrowed.
KVO_GL_EXPORT QVariant framebufferToVariant(FramebufferObject *framebuffer);

/// The framebuffer in a slot value, as a QObject * or a FramebufferObject *; null when there is none, or it is gone.
KVO_GL_EXPORT FramebufferObject *framebufferFromVariant(const QVariant &value);

} // namespace Brevane::Kvo
