#pragma once

#include "gl/bindable.h"
#include "gl/export.h"

#include <QMetaType>
#include <QObject>
#include <QVarLengthArray>

#include <memory>

namespace Brevane::Kvo {

class ObjectName;

/// A GL texture. The wrapper starts empty: setTarget first, then bind, which makes the GL object;
/// storage, filter and wrap are set with plain GL calls while it is bound.
///
/// bind puts the texture on a texture unit of its own and makes that unit active, so that several
/// textures can be bound at a time; a texture that is bound twice keeps its unit. unbind gives the
/// unit what it held before and makes the unit active that was active before. A sampler object that
/// a host has bound to the unit is off for as long: the texture's own filters and wraps count.
///
/// Destroying the wrapper deletes the GL texture. This is safe with no context or another context
/// current: the deletion then waits for a context that can do it. A wrapper whose GL texture went with its
/// share group stays harmless, and empty.
class KVO_GL_EXPORT Texture : public QObject, public Bindable
{
    Q_OBJECT

public:
    /// Without a target; GL makes it with the first bind.
    explicit Texture(QObject *parent = nullptr);
    ~Texture() override;
    /// There for operator delete.
    static void *operator new(std::size_t size);
    /// In memory of the caller's.
    static void *operator new(std::size_t, void *where) noexcept { return where; }
    /// Lets the address rest until many others have been used: what still names it must not take the next for it.
    static void operator delete(void *memory);

    /// GL_TEXTURE_2D, GL_TEXTURE_2D_ARRAY, GL_TEXTURE_CUBE_MAP, GL_TEXTURE_BUFFER …; call once, first.
    void setTarget(unsigned int target);
    /// See setTarget.
    unsigned int target() const;

    /// False when there is no usable context, no target, no texture unit left (reported once), or the texture
    /// is bound in another context.
    bool bind() override;
    bool unbind() override;

    /// The unit that the bound texture sits on: the value a sampler uniform needs. -1 when unbound.
    int unit() const;
    /// False where the GL texture belongs to another share group than the current one, or went with its
    /// own; true before the first bind. False without a context.
    bool isUsable() const;
    /// The GL name; 0 before the first bind, and again after the context has been released.
    unsigned int textureID() const;

    /// How the bound texture is sampled (glTexParameteri): GL_NEAREST, GL_LINEAR and, for minification, those with
    /// mip levels. Like all that sets storage and sampling, between bind and unbind or under a StorageBinder.
    void setFilter(unsigned int filter);
    /// The two apart.
    void setFilter(unsigned int minification, unsigned int magnification);
    /// How coordinates outside of the image are taken, in all directions that the target has: GL_CLAMP_TO_EDGE,
    /// GL_REPEAT …
    void setWrap(unsigned int wrap);

    /// Marks a texture whose content comes from a file: the library never writes to it again.
    void setReadOnly();
    /// See setReadOnly.
    bool isReadOnly() const;

    /// Names the texture in debuggers (KHR_debug) and in messages of the TextureManager.
    void setLabel(const QString &label);
    /// See setLabel.
    QString label() const;

private:
    Q_DISABLE_COPY(Texture)
    friend class StorageBinder;
    friend class TextureManager;
    friend class OwnUse;
    friend class TextureKnowledge;

    // What is known of the GL texture, 0 for what is not; see gl/sampling.h.
    struct Known
    {
        unsigned int minification = 0;
        unsigned int magnification = 0;
        unsigned int wrap[2] = {};
        int width = 0;
        int height = 0;
        unsigned int internalFormat = 0;
        unsigned int epoch = 0;
        bool isShown = false;
        bool isNeverKept = false;
    };

    void freeStorage();
    void reuse();
    bool _bind();

    std::unique_ptr<ObjectName> _name;
    unsigned int _target = 0;
    unsigned int _previousTexture = 0;
    unsigned int _previousSampler = 0;
    QVarLengthArray<unsigned int, 2> _previousUnits; // one per bind
    int _unit = -1;
    quint64 _boundIn = 0; // the number of a context
    bool _readOnly = false;
    mutable bool _hadUses = false; // see OwnUse
    unsigned int _boundEpoch = 0;
    mutable Known _known;
};

/// Value of the texture as slots carry it: a QVariant of QObject* (see RenderPassHelper::setInput).
/// The pointer is borrowed.
KVO_GL_EXPORT QVariant textureToVariant(Texture *texture);

/// The texture in a slot value, in either form; null when there is none.
KVO_GL_EXPORT Texture *textureFromVariant(const QVariant &value);

} // namespace Brevane::Kvo

Q_DECLARE_METATYPE(Brevane::Kvo::Texture *)
