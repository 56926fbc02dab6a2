#include "gl/framebufferobject.h"

#include "core/liveobjects.h"
#include "gl/contextstate.h"
#include "gl/fallenshort.h"
#include "gl/sampling.h"
#include "gl/texture.h"

#include <QVarLengthArray>
#include <QVariant>

#include <epoxy/gl.h>

#include <algorithm>
#include <optional>

namespace Brevane::Kvo {

namespace {

enum class Layers { One, All, Flat };

struct Attachment
{
    GLenum point;
    QPointer<Texture> texture;
    Layers layers;
    int layer;
    int level;
};

// Names of another share group's textures mean something else in this context, or nothing.
bool isUsableHere(const Texture *texture)
{
    return texture && nameOf(*texture) && texture->isUsable();
}

bool isColor(GLenum point)
{
    return point >= GL_COLOR_ATTACHMENT0 && point <= GL_COLOR_ATTACHMENT31;
}

void applyToBound(const Attachment &a)
{
    const GLuint name = isUsableHere(a.texture) ? nameOf(*a.texture) : 0;
    if (a.layers == Layers::One)
        glFramebufferTextureLayer(GL_FRAMEBUFFER, a.point, name, a.level, a.layer);
    else if (a.layers == Layers::Flat && name)
        glFramebufferTexture2D(GL_FRAMEBUFFER, a.point, a.texture->target(), name, a.level);
    else
        glFramebufferTexture(GL_FRAMEBUFFER, a.point, name, a.level);
}

} // namespace

class FramebufferPrivate
{
public:
    GLuint idHere() const { return external ? *external : names.currentId(); }
    bool isBoundForDrawing() const
    {
        if (previous.isEmpty() || previous.last().isNothing)
            return false;
        ContextState *state = ContextState::current();
        return state && state->bindings.bound(BindingPoint::DrawFramebuffer) == idHere();
    }
    auto find(GLenum point) const
    {
        return std::find_if(attachments.cbegin(), attachments.cend(),
                            [point](const Attachment &a) { return a.point == point; });
    }

    PerContextNames names{NameKind::Framebuffer};
    std::optional<GLuint> external;
    std::vector<Attachment> attachments; // by rising attachment point
    quint64 revision = 1;
    struct Previous
    {
        FramebufferPair names;
        bool endsDiscard = false;
        bool isNothing = false; ///< There was nothing to bind.
    };
    QVarLengthArray<Previous, 4> previous;
    QString label;
};

FramebufferObject::FramebufferObject(QObject *parent) : QObject(parent), d(std::make_unique<FramebufferPrivate>())
{
    enterLiveObject(static_cast<QObject *>(this), LiveKind::Framebuffer);
}

FramebufferObject::~FramebufferObject()
{
    leaveLiveObject(static_cast<QObject *>(this));
    forgetFallenShort(this);
    while (!d->previous.isEmpty())
        FramebufferObject::unbind();
}

FramebufferObject *FramebufferObject::wrap(unsigned int framebuffer, QObject *parent)
{
    auto *wrapper = new FramebufferObject(parent);
    wrapper->d->external = framebuffer;
    return wrapper;
}

bool FramebufferObject::bind()
{
    ContextState *state = ContextState::current();
    if (!state)
        return false;
    PerContextNames::Entry *entry = d->external ? nullptr : d->names.current();
    if (!d->external && !entry) {
        // What is drawn until unbind would go where somebody else wants it least.
        const bool endsDiscard = !glIsEnabled(GL_RASTERIZER_DISCARD);
        glEnable(GL_RASTERIZER_DISCARD);
        d->previous.append({{}, endsDiscard, true});
        return false;
    }

    d->previous.append({state->bindings.takeFramebuffer(entry ? entry->name.id() : *d->external)});
    if (entry && entry->revision != d->revision) {
        // Made in this context just now, or changed while another context was current.
        if (entry->revision == 0)
            state->labelObject(GL_FRAMEBUFFER, entry->name.id(), d->label);
        for (const Attachment &a : d->attachments)
            applyToBound(a);
        entry->revision = d->revision;
    }
    return true;
}

bool FramebufferObject::unbind()
{
    if (d->previous.isEmpty())
        return false;
    const FramebufferPrivate::Previous before = d->previous.last();
    d->previous.removeLast();
    ContextState *state = ContextState::current();
    if (state && before.endsDiscard)
        glDisable(GL_RASTERIZER_DISCARD);
    if (state && !before.isNothing)
        state->bindings.giveBackFramebuffer(before.names);
    return true;
}

namespace {

bool attachTo(FramebufferObject *fbo, FramebufferPrivate *d, const Attachment &attachment)
{
    // A texture that the driver could not make keeps its place, which readers of the framebuffer count on, and so does
    // any in a framebuffer that it could not make.
    const bool isThere = isUsableHere(attachment.texture);
    if (attachment.texture && attachment.texture->target() == GL_TEXTURE_BUFFER)
        return false; // a view of a buffer, which nothing is drawn to
    if (d->external || !(isThere || (attachment.texture && isFallingShort(attachment.texture))))
        return false;
    const bool mustBind = !d->isBoundForDrawing();
    const bool isBound = !mustBind || fbo->bind();
    const auto at = std::lower_bound(d->attachments.begin(), d->attachments.end(), attachment.point,
                                     [](const Attachment &a, GLenum point) { return a.point < point; });
    if (at != d->attachments.end() && at->point == attachment.point)
        *at = attachment;
    else
        d->attachments.insert(at, attachment);
    ++d->revision;
    if (isBound) {
        applyToBound(attachment);
        d->names.current()->revision = d->revision;
    }
    if (mustBind)
        fbo->unbind();
    return isThere && isBound;
}

} // namespace

bool FramebufferObject::attach(Texture *texture, unsigned int attachment, int level)
{
    const bool flat = texture && texture->target() == GL_TEXTURE_2D;
    return attachTo(this, d.get(), {attachment, texture, flat ? Layers::Flat : Layers::All, 0, level});
}

bool FramebufferObject::attach3D(Texture *texture, unsigned int attachment, int layer, int level)
{
    return attachTo(this, d.get(), {attachment, texture, Layers::One, layer, level});
}

bool FramebufferObject::attachLayers(Texture *texture, unsigned int attachment, int level)
{
    return attachTo(this, d.get(), {attachment, texture, Layers::All, 0, level});
}

Texture *FramebufferObject::detach(unsigned int attachment)
{
    const auto found = d->find(attachment);
    if (found == d->attachments.cend())
        return nullptr;
    Texture *texture = found->texture;
    const bool mustBind = !d->isBoundForDrawing();
    const bool bound = !mustBind || bind();
    d->attachments.erase(found);
    ++d->revision;
    if (bound) {
        glFramebufferTexture(GL_FRAMEBUFFER, attachment, 0, 0);
        d->names.current()->revision = d->revision;
    }
    if (mustBind)
        unbind();
    return texture;
}

void FramebufferObject::detachAll()
{
    while (!d->attachments.empty())
        detach(d->attachments.back().point);
}

Texture *FramebufferObject::attachment(unsigned int attachment) const
{
    const auto found = d->find(attachment);
    return found == d->attachments.cend() ? nullptr : found->texture.data();
}

bool FramebufferObject::hasAttachment(unsigned int attachment) const
{
    return this->attachment(attachment) != nullptr;
}

void FramebufferObject::setDrawBuffers()
{
    if (d->external)
        return;
    QVarLengthArray<GLenum, 8> buffers;
    for (const Attachment &a : d->attachments) {
        if (isColor(a.point) && a.texture)
            buffers.append(a.point);
    }
    if (buffers.isEmpty()) {
        // Before OpenGL 4.1 a read buffer without an attachment makes the framebuffer incomplete.
        glDrawBuffer(GL_NONE);
        glReadBuffer(GL_NONE);
        return;
    }
    glDrawBuffers(GLsizei(buffers.size()), buffers.constData());
    glReadBuffer(buffers.first());
}

unsigned int FramebufferObject::getFBO() const
{
    return d->idHere();
}

void FramebufferObject::setLabel(const QString &label)
{
    d->label = label;
    if (const ContextState *state = ContextState::current(); state && !d->external)
        state->labelObject(GL_FRAMEBUFFER, d->names.currentId(), label);
}

QString FramebufferObject::label() const
{
    return d->label;
}

QVariant framebufferToVariant(FramebufferObject *framebuffer)
{
    return QVariant::fromValue(static_cast<QObject *>(framebuffer));
}

FramebufferObject *framebufferFromVariant(const QVariant &value)
{
    return liveObjectIn<FramebufferObject>(value, LiveKind::Framebuffer);
}

} // namespace Brevane::Kvo
