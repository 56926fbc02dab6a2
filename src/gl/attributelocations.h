#pragma once

#include <QString>
#include <QStringList>

namespace Brevane::Kvo {

/// The attribute that carries the index of a draw (see InstanceDataPlan).
inline constexpr char16_t kDrawIndexAttribute[] = u"va_DrawIndex";

/// Attribute names whose locations all programs of the process agree on; the index is the location.
/// Without this a vertex array that two programs share would feed one of them from the wrong buffers.
const QStringList &sharedAttributeNames();

/// Adds a name, as long as there are locations left.
void shareAttributeName(const QString &name);

} // namespace Brevane::Kvo
