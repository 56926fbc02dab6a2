#pragma once

#include "gl/opengldevicecontext.h"

#include <QByteArray>
#include <QHash>
#include <QObject>
#include <QPointer>
#include <QSet>
#include <QSharedPointer>
#include <QVector>
#include <QWeakPointer>

#include <array>
#include <optional>
#include <vector>

namespace Brevane::Kvo {

class OpenGLDeviceContext;
class ShaderProgram;
struct LinkedProgram;

/// Kinds of GL names that the library makes. Contexts of a share group share all but the last two.
enum class NameKind { Texture, Buffer, Program, Framebuffer, VertexArray };

constexpr bool isShared(NameKind kind)
{
    return kind != NameKind::Framebuffer && kind != NameKind::VertexArray;
}

/// Names that live in one place, and those waiting to be deleted there.
class NameStore
{
public:
    unsigned int create(NameKind kind);
    void destroy(NameKind kind, unsigned int name);
    void destroyLater(NameKind kind, unsigned int name);
    void flush();
    void destroyAll();
    /// Forgets all names: their context is gone, and with it the objects.
    void abandon();
    int liveCount(NameKind kind) const { return int(_live[std::size_t(kind)].size()); }

private:
    std::array<QSet<unsigned int>, 5> _live;
    std::vector<std::pair<NameKind, unsigned int>> _pending;
};

/// What contexts share: textures, buffers, programs. Which group a new context belongs to is found by
/// looking for the group's sentinel, a buffer with a content of its own, so that a host need not say
/// how it made its contexts.
class ShareGroup
{
public:
    ShareGroup();

    /// Null for one that is gone.
    static QSharedPointer<ShareGroup> find(quint64 id);

    quint64 id() const { return _id; }
    /// Whether the current context sees this group's objects.
    bool isVisible() const;
    void release();
    /// Forgets everything: the contexts of the group are gone.
    void abandon();

    NameStore names;
    /// Programs that may be shared, by their texts.
    QHash<QByteArray, QWeakPointer<LinkedProgram>> programs;

    /// Keeps an object that its owner let go of, until freeGivenUp or the end of the group.
    void giveUp(QObject *object);
    int givenUpCount() const;
    int freeGivenUp();

private:
    quint64 _id;
    unsigned int _sentinel = 0;
    QVector<QPointer<QObject>> _givenUp;
};

/// A native context of whichever window system interface made it.
struct NativeContext
{
    void *handle = nullptr;
    bool operator==(const NativeContext &) const = default;
    static NativeContext current();
};

/// State of one GL context, found through the context that is current.
class ContextState
{
public:
    ~ContextState();

    /// Null without a context, or with one that is too old.
    static ContextState *current();
    /// Null, too, for a context that the library has not used yet, or not since its release.
    static ContextState *currentIfKnown();
    static QSharedPointer<ContextState> currentShared();
    /// Of all contexts that the library knows.
    static std::vector<ContextState *> all();
    /// By its number; null when it is gone.
    static ContextState *find(quint64 id);
    /// The same, but makes sure that the handle was not reused for another context meanwhile.
    static QSharedPointer<ContextState> currentVerified();
    static void releaseCurrent();

    /// The lowest free texture unit, or -1.
    int takeUnit();
    void giveBackUnit(int unit);
    bool hasFreeUnit() const;
    int unitCount() const { return _unitCount; }

    bool hasExtension(const char *name) const;
    const GLLimits &limits();
    void labelObject(unsigned int identifier, unsigned int name, const QString &label) const;

    const quint64 id;
    QSharedPointer<ShareGroup> group;
    NameStore names;
    QSharedPointer<OpenGLDeviceContext> device;
    ShaderProgram *boundProgram = nullptr;
    int version = 0;
    bool hasSamplerObjects = false;
    quint64 stateValues = 0; ///< The values of host state that there are; 0: not asked yet.

private:
    explicit ContextState(NativeContext native);
    void release(bool contextIsAlive);
    void watchQtContext();

    NativeContext _native;
    QSet<QByteArray> _extensions;
    quint64 _usedUnits = 0;
    int _unitCount = 0;
    std::optional<GLLimits> _limits;
};

/// Undoes the ContextScopes around it for its scope, where code of the host's runs.
class ContextScopePause
{
public:
    ContextScopePause();
    ~ContextScopePause();
    ContextScopePause(const ContextScopePause &) = delete;
    ContextScopePause &operator=(const ContextScopePause &) = delete;

private:
    int _scopes;
};

/// A GL name that knows where it lives. It deletes itself there, at once or, when another context is
/// current, as soon as its own is again; it reads 0 once its context is gone.
class ObjectName
{
public:
    ObjectName() = default;
    ObjectName(ObjectName &&other) noexcept;
    ObjectName &operator=(ObjectName &&other) noexcept;
    ~ObjectName() { reset(); }

    /// Makes a name in the current context, in place of any old one. False without a context.
    bool create(NameKind kind);
    void reset();
    unsigned int id() const;
    /// Whether there ever was a name, also when it went with its contexts.
    bool wasCreated() const { return _id != 0; }
    /// Whether the current context can use the name.
    bool isUsableIn(const ContextState &state) const;

private:
    NameKind _kind = NameKind::Texture;
    unsigned int _id = 0;
    QWeakPointer<ContextState> _context;
    QWeakPointer<ShareGroup> _group;
};

/// One GL name per context for objects that contexts do not share. The revision tells whether the GL
/// object in a context is up to date with its wrapper.
class PerContextNames
{
public:
    explicit PerContextNames(NameKind kind) : _kind(kind) {}

    struct Entry
    {
        QWeakPointer<ContextState> context;
        const ContextState *state = nullptr; ///< That context, to compare with.
        ObjectName name;
        quint64 revision = 0;
    };

    /// The entry of the current context, made when missing; null without a context.
    Entry *current();
    /// The name in the current context, 0 when there is none.
    unsigned int currentId() const;

private:
    NameKind _kind;
    std::vector<Entry> _entries;
};

} // namespace Brevane::Kvo
