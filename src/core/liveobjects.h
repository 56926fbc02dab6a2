#pragma once

#include "core/export.h"

#include <QMetaType>
#include <QObject>
#include <QVariant>

namespace Brevane::Kvo {

/// Kinds of objects that slots carry by pointer.
enum class LiveKind { None, Texture, DrawBuffers, Framebuffer, Model, Record, InstanceData };

/// Which of the objects that slots carry are alive.
///
/// A slot borrows what it names, and a host keeps values for as long as it likes, so a pointer in a value
/// says nothing about the object behind it. Readers of slots ask here before they follow one; what is not
/// known reads as nothing. Objects enter in their constructor and leave in their destructor, QObjects under
/// their address as a QObject. Like the rest of the library for one thread at a time.
KVO_CORE_EXPORT void enterLiveObject(const void *object, LiveKind kind);
KVO_CORE_EXPORT void leaveLiveObject(const void *object);
/// None for anything that is not alive, and for strangers.
KVO_CORE_EXPORT LiveKind liveKindOf(const void *object);

/// The object of a class in a slot value, by a pointer of its own type or by one to QObject; null when there is none, or
/// it is gone: Qt's own conversion would ask the object.
template <typename T>
T *liveObjectIn(const QVariant &value, LiveKind kind)
{
    QObject *object = nullptr;
    if (value.metaType() == QMetaType::fromType<T *>())
        object = *static_cast<T *const *>(value.constData());
    else if (value.metaType() == QMetaType(QMetaType::QObjectStar))
        object = *static_cast<QObject *const *>(value.constData());
    return liveKindOf(object) == kind ? static_cast<T *>(object) : nullptr;
}

} // namespace Brevane::Kvo
