#pragma once

#include <QString>
#include <QVariant>

namespace Brevane::Kvo {

struct Json;
struct SlotInfo;

/// As parseSlotValue, from parsed JSON.
bool slotValueFromJson(const QString &slot, const Json &json, QVariant *value, QString *error,
                       const QVariant &hint = QVariant(), const SlotInfo *info = nullptr);

/// A value as slotValueFromJson reads it back, in JSON. False for what has none: pointers, numbers
/// that are not finite.
bool slotValueToJson(const QVariant &value, QString *text);

} // namespace Brevane::Kvo
