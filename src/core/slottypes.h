#pragma once

#include "core/export.h"

#include <QMetaType>
#include <QString>
#include <QVariant>

namespace Brevane::Kvo {

struct SlotInfo;

/// Whether a value can be read as a list. Not a text, which to Qt is a list of characters.
KVO_CORE_EXPORT bool isList(const QVariant &value);
/// The elements of a value that is one; none of another.
KVO_CORE_EXPORT QVariantList listIn(const QVariant &value);

/// What is wrong with a value: nothing where it is false.
struct TypeMismatch
{
    const char *wanted = nullptr; ///< What the input takes instead ("rectangle"), for messages.
    QMetaType given; ///< What it got.
    qsizetype element = -1; ///< Which element of a list that is; -1: the value itself.

    explicit operator bool() const { return wanted; }
};

/// Whether a pass can read a value in an input of that name: nothing, what has the type that the name says, what
/// QVariant converts to that, and lists of such where the input takes lists. \a info is what the pass says of the input;
/// null for one that a host has added, whose type only passes of that host know unless it is an object of ours.
KVO_CORE_EXPORT TypeMismatch typeMismatch(const QString &slot, const SlotInfo *info, const QVariant &value);

} // namespace Brevane::Kvo
