#pragma once

#include <QString>
#include <QVariant>

namespace Brevane::Kvo {

struct Json;

/// As parseSlotValue, from parsed JSON.
bool slotValueFromJson(const QString &slot, const Json &json, QVariant *value, QString *error,
                       const QVariant &hint = QVariant());

} // namespace Brevane::Kvo
