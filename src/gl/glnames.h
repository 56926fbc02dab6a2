#pragma once

#include <QSet>
#include <QWeakPointer>

#include <array>
#include <utility>
#include <vector>

namespace Brevane::Kvo {

class ContextState;
class ShareGroup;

/// Kinds of GL names that the library makes. Contexts of a share group share all but framebuffers and vertex arrays.
enum class NameKind { Texture, Buffer, Program, Shader, Framebuffer, VertexArray };

constexpr bool isShared(NameKind kind)
{
    return kind != NameKind::Framebuffer && kind != NameKind::VertexArray;
}

/// Names that live in one place, and those waiting to be deleted there.
class NameStore
{
public:
    unsigned int create(NameKind kind);
    void adopt(NameKind kind, unsigned int name);
    void destroy(NameKind kind, unsigned int name);
    void destroyLater(NameKind kind, unsigned int name);
    void flush();
    void destroyAll();
    /// Forgets all names: their context is gone, and with it the objects.
    void abandon();
    int liveCount(NameKind kind) const { return int(_live[std::size_t(kind)].size()); }

private:
    std::array<QSet<unsigned int>, 6> _live;
    std::vector<std::pair<NameKind, unsigned int>> _pending;
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
    /// Takes a name that was just made in the current context, in place of any old one: of a shader, whose stage create
    /// does not know. False without a context, and for 0.
    bool take(NameKind kind, unsigned int name);
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
