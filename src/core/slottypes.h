#pragma once

#include "core/export.h"

#include <QString>
#include <QVariant>

namespace Brevane::Kvo {

struct SlotInfo;

/// What an input of that name takes instead of a value ("rectangle"), for messages; null for a value that the pass can
/// read: nothing, what has the type that the name says, and what QVariant converts to that. \a info is what the pass
/// says of the input; null for one that a host has added, whose type only passes of that host know unless it is an
/// object of ours.
KVO_CORE_EXPORT const char *typeWantedInsteadOf(const QString &slot, const SlotInfo *info, const QVariant &value);

} // namespace Brevane::Kvo
