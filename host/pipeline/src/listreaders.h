#pragma once

#include "host/export.h"

#include <QString>
#include <QVariant>

namespace Brevane::Kvo {

struct Json;

/// Reads one element of a list in a pipeline file. On failure gives false, with line and reason.
using ElementReader = bool (*)(const Json &json, QVariant *element, int *line, QString *error);

/// Lets pipeline files give a host value as a list under its name, with a reader for what stands in it: "lights"
/// is KvoScene's.
KVO_PIPELINE_EXPORT void addListReader(const QString &hostValue, ElementReader reader);
/// Null for a name that nobody reads.
ElementReader listReader(const QString &hostValue);

} // namespace Brevane::Kvo
