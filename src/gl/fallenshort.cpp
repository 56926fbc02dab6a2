#include "gl/fallenshort.h"

#include "gl/contextlookup.h"

#include <QHash>
#include <QMutex>

#include <atomic>

namespace Brevane::Kvo {

namespace {

// By the scope that they were noted in. Nearly always empty, which is all that most questions want to know.
struct Noted
{
    QMutex mutex;
    std::atomic<qsizetype> count{0};
    QHash<const QObject *, unsigned int> scopes;
};

Noted &noted()
{
    static auto *objects = new Noted;
    return *objects;
}

} // namespace

void noteFallenShort(const QObject *object)
{
    Noted &all = noted();
    const QMutexLocker lock(&all.mutex);
    all.scopes.insert(object, threadContext().outermostScope);
    all.count = all.scopes.size();
}

void forgetFallenShort(const QObject *object)
{
    Noted &all = noted();
    if (all.count == 0)
        return;
    const QMutexLocker lock(&all.mutex);
    all.scopes.remove(object);
    all.count = all.scopes.size();
}

bool hasFallenShort(const QObject *object)
{
    Noted &all = noted();
    if (all.count == 0)
        return false;
    const QMutexLocker lock(&all.mutex);
    const auto found = all.scopes.constFind(object);
    return found != all.scopes.cend() && *found != threadContext().outermostScope;
}

bool isFallingShort(const QObject *object)
{
    Noted &all = noted();
    if (all.count == 0)
        return false;
    const QMutexLocker lock(&all.mutex);
    return all.scopes.contains(object);
}

} // namespace Brevane::Kvo
