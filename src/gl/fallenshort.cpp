#include "gl/fallenshort.h"

#include "gl/contextlookup.h"

#include <QHash>

namespace Brevane::Kvo {

namespace {

// By the scope that they were noted in. Nearly always empty.
QHash<const QObject *, unsigned int> &noted()
{
    static auto *objects = new QHash<const QObject *, unsigned int>;
    return *objects;
}

} // namespace

void noteFallenShort(const QObject *object)
{
    noted().insert(object, threadContext().outermostScope);
}

void forgetFallenShort(const QObject *object)
{
    if (!noted().isEmpty())
        noted().remove(object);
}

bool hasFallenShort(const QObject *object)
{
    if (noted().isEmpty())
        return false;
    const auto found = noted().constFind(object);
    return found != noted().cend() && *found != threadContext().outermostScope;
}

bool isFallingShort(const QObject *object)
{
    return noted().contains(object);
}

} // namespace Brevane::Kvo
