#pragma once

#include "gl/export.h"
#include "gl/fallenshort.h"
#include "gl/givenup.h"

#include <QPointer>

#include <memory>

namespace Brevane::Kvo {

/// Number of the current context's share group; 0 without a usable context.
KVO_GL_EXPORT quint64 currentShareGroup();

/// How a pass holds an object that it works with (FramebufferObject, ShaderProgram, Texture, DrawBuffers).
///
/// Reads as a plain pointer. Copies of a pass hold the same object and count: the last one that lets go
/// deletes it, where its GL names live (see ObjectName), whichever context is current. An object belongs to
/// the share group in which it was taken over. While another one is current it reads as null, so that a
/// pass that came to another group, or outlived its own, makes its objects anew. An object that somebody
/// else deleted reads as null too, and one of the pass's own that the driver could not make as it was to be, from
/// the next frame on (see noteFallenShort).
template <typename T>
class Held
{
public:
    Held() = default;
    /// Holds nothing.
    Held(std::nullptr_t) {}
    /// Shares what the other one holds, by count.
    Held(const Held &) = default;
    /// Takes what the other one holds.
    Held(Held &&) noexcept = default;
    ~Held() = default;
    /// Lets go of its own and shares what the other one holds.
    Held &operator=(const Held &other)
    {
        if (this != &other && _entry != other._entry) {
            _letGo();
            _entry = other._entry;
        }
        return *this;
    }
    /// Lets go of its own and takes what the other one holds.
    Held &operator=(Held &&other) noexcept
    {
        if (this != &other) {
            _letGo();
            _entry = std::move(other._entry);
        }
        return *this;
    }
    /// Lets go.
    Held &operator=(std::nullptr_t)
    {
        _letGo();
        return *this;
    }
    /// Takes over an object that was just made in the current share group.
    Held &operator=(T *object)
    {
        if (object != any())
            _take(object, currentShareGroup(), Entry::Deletes);
        return *this;
    }
    /// Takes over an object of the host's, in whatever share group: deleted at the end, unless something
    /// else takes its place before. An object of the pass's own that was here is given up.
    void adopt(T *object) { _takeFromHost(object, Entry::DeletesAtEnd); }
    /// The same, but the object stays the host's.
    void borrow(T *object) { _takeFromHost(object, Entry::Keeps); }
    /// Names an object that stays with its share group, the current one.
    void borrowHere(T *object)
    {
        if (object != any())
            _take(object, currentShareGroup(), Entry::Keeps);
    }

    /// The object if the current share group has it.
    T *get() const
    {
        T *const object = any();
        const bool isHere = object && (_entry->group == 0 || _entry->group == currentShareGroup());
        return isHere && !(_entry->end == Entry::Deletes && hasFallenShort(object)) ? object : nullptr;
    }
    /// See get.
    operator T *() const { return get(); }
    /// See get.
    T *operator->() const { return get(); }
    /// The object, whatever context is current.
    T *any() const { return _entry ? _entry->object.data() : nullptr; }
    /// Lets go of an object of the pass's own that is not to be deleted with it, see Kvo::giveUp; while a copy
    /// holds it too, it is left to that.
    void giveUp()
    {
        if (_entry && _entry->end == Entry::Deletes && !isShared()) {
            _entry->end = Entry::Keeps;
            Kvo::giveUp(_entry->object.data(), _entry->group);
        }
        _entry.reset();
    }

    /// The share group of the object; 0 for none, or any.
    quint64 shareGroup() const { return _entry ? _entry->group : 0; }
    /// Whether a copy holds it as well.
    bool isShared() const { return _entry.use_count() > 1; }

private:
    struct Entry
    {
        enum End { Deletes, DeletesAtEnd, Keeps };

        Entry(T *object_, quint64 group_, End end_) : object(object_), group(group_), end(end_) {}
        Entry(const Entry &) = delete;
        Entry &operator=(const Entry &) = delete;
        ~Entry()
        {
            if (end != Keeps)
                delete object.data();
        }

        QPointer<T> object;
        quint64 group;
        End end;
    };

    void _letGo()
    {
        if (_entry && _entry->end == Entry::DeletesAtEnd && !isShared())
            _entry->end = Entry::Keeps;
        _entry.reset();
    }
    void _takeFromHost(T *object, typename Entry::End end)
    {
        if (object == any())
            return;
        if (_entry && _entry->end == Entry::Deletes)
            giveUp();
        _take(object, 0, end);
    }
    void _take(T *object, quint64 group, typename Entry::End end)
    {
        _letGo();
        if (object)
            _entry = std::make_shared<Entry>(object, group, end);
    }

    std::shared_ptr<Entry> _entry;
};

} // namespace Brevane::Kvo
