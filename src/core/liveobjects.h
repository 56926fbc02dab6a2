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

/// The object that a slot value names: by a pointer to QObject or to a class derived of it, or by one of Qt's guarded or
/// shared pointers, as Qt's own conversion has it. That one would ask the object behind a plain pointer, which may be
/// gone; ask liveKindOf first.
KVO_CORE_EXPORT QObject *objectIn(const QVariant &value);
/// Whether a type is a QPointer, QSharedPointer or QWeakPointer to a QObject.
inline bool isGuarded(QMetaType type)
{
    return type.flags()
           & (QMetaType::TrackingPointerToQObject | QMetaType::SharedPointerToQObject
              | QMetaType::WeakPointerToQObject);
}

/// The same for an object of a class of ours; null when it is none, or gone.
template <typename T>
T *liveObjectIn(const QVariant &value, LiveKind kind)
{
    QObject *object = objectIn(value);
    return liveKindOf(object) == kind ? static_cast<T *>(object) : nullptr;
}

} // namespace Brevane::Kvo
