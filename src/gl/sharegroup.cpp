#include "gl/sharegroup.h"

#include "gl/contextstate.h"
#include "gl/held.h"
#include "gl/texturemanager.h"

#include <epoxy/gl.h>

#include <algorithm>
#include <array>

namespace Brevane::Kvo {

namespace {

// Never destroyed: objects of static lifetime look for theirs after everything else.
std::vector<QWeakPointer<ShareGroup>> &shareGroups()
{
    static auto *groups = new std::vector<QWeakPointer<ShareGroup>>;
    return *groups;
}

/// Binds a buffer for its scope; the copy targets are their own query.
class BoundForCopy
{
public:
    BoundForCopy(GLenum target, GLuint buffer) : _target(target)
    {
        glGetIntegerv(target, &_previous);
        glBindBuffer(target, buffer);
    }
    ~BoundForCopy() { glBindBuffer(_target, GLuint(_previous)); }
    BoundForCopy(const BoundForCopy &) = delete;
    BoundForCopy &operator=(const BoundForCopy &) = delete;

private:
    GLenum _target;
    GLint _previous = 0;
};

} // namespace

quint64 currentShareGroup()
{
    const ContextState *state = ContextState::current();
    return state ? state->group->id() : 0;
}

ShareGroup::ShareGroup()
{
    static quint64 counter = 0;
    _id = ++counter;
    glGenBuffers(1, &_sentinel);
    const BoundForCopy bound(GL_COPY_WRITE_BUFFER, _sentinel);
    const std::array<quint64, 2> content{_id, quint64(reinterpret_cast<quintptr>(this))};
    glBufferData(GL_COPY_WRITE_BUFFER, sizeof content, content.data(), GL_STATIC_DRAW);
}

bool ShareGroup::isVisible() const
{
    if (!glIsBuffer(_sentinel))
        return false;
    const BoundForCopy bound(GL_COPY_READ_BUFFER, _sentinel);
    GLint size = 0;
    glGetBufferParameteriv(GL_COPY_READ_BUFFER, GL_BUFFER_SIZE, &size);
    std::array<quint64, 2> content{};
    const bool sizeFits = size == GLint(sizeof content);
    if (sizeFits)
        glGetBufferSubData(GL_COPY_READ_BUFFER, 0, sizeof content, content.data());
    return sizeFits && content[0] == _id && content[1] == quint64(reinterpret_cast<quintptr>(this));
}

QSharedPointer<ShareGroup> ShareGroup::find(quint64 id)
{
    for (const QWeakPointer<ShareGroup> &weak : shareGroups()) {
        if (const QSharedPointer<ShareGroup> group = weak.toStrongRef(); group && group->id() == id)
            return group;
    }
    return nullptr;
}

QSharedPointer<ShareGroup> ShareGroup::ofNewContext()
{
    auto &groups = shareGroups();
    std::erase_if(groups, [](const QWeakPointer<ShareGroup> &g) { return g.isNull(); });
    for (const QWeakPointer<ShareGroup> &weak : groups) {
        const QSharedPointer<ShareGroup> candidate = weak.toStrongRef();
        if (candidate && candidate->isVisible())
            return candidate;
    }
    const QSharedPointer<ShareGroup> made = QSharedPointer<ShareGroup>::create();
    groups.push_back(made);
    return made;
}

void ShareGroup::giveUp(QObject *object)
{
    // Those that somebody deleted since only take room.
    if (_givenUp.size() >= 64 && _givenUp.size() == _givenUp.capacity())
        _givenUp.removeIf([](const QPointer<QObject> &known) { return known.isNull(); });
    if (object && !_givenUp.contains(object))
        _givenUp.append(object);
}

int ShareGroup::givenUpCount() const
{
    return int(std::count_if(_givenUp.cbegin(), _givenUp.cend(),
                             [](const QPointer<QObject> &object) { return !object.isNull(); }));
}

int ShareGroup::freeGivenUp()
{
    int freed = 0;
    for (const QPointer<QObject> &object : std::exchange(_givenUp, {})) {
        freed += object ? 1 : 0;
        delete object.data();
    }
    return freed;
}

void ShareGroup::release()
{
    TextureManager::Instance().dropShareGroup(_id);
    names.destroyAll();
    glDeleteBuffers(1, &_sentinel);
    _sentinel = 0;
}

void ShareGroup::abandon()
{
    names.abandon();
    _sentinel = 0;
}

} // namespace Brevane::Kvo
