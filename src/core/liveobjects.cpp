#include "core/liveobjects.h"

#include <QHash>

namespace Brevane::Kvo {

namespace {

// Never destroyed: objects of static lifetime leave after everything else.
QHash<const void *, LiveKind> &liveObjects()
{
    static auto *objects = new QHash<const void *, LiveKind>;
    return *objects;
}

} // namespace

void enterLiveObject(const void *object, LiveKind kind)
{
    liveObjects().insert(object, kind);
}

void leaveLiveObject(const void *object)
{
    liveObjects().remove(object);
}

LiveKind liveKindOf(const void *object)
{
    return object ? liveObjects().value(object, LiveKind::None) : LiveKind::None;
}

QObject *objectIn(const QVariant &value)
{
    if (value.metaType().flags() & QMetaType::PointerToQObject)
        return *static_cast<QObject *const *>(value.constData());
    return isGuarded(value.metaType()) ? qvariant_cast<QObject *>(value) : nullptr;
}

} // namespace Brevane::Kvo
