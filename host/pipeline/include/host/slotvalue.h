#pragma once

#include "host/export.h"

#include <QString>
#include <QVariant>

namespace Brevane::Kvo {

struct SlotInfo;

/// A value for a slot from its text, read by the type word of the slot:
///
/// | Type                    | Text                                                                 |
/// |-------------------------|----------------------------------------------------------------------|
/// | float, int, bool        | 0.5, 3, true                                                         |
/// | QColor                  | "#rrggbb", "#rrggbbaa", a colour name, or [r, g, b] and [r, g, b, a] from 0 to 1 |
/// | QVector2D, 3D, 4D       | [x, y], [x, y, z], [x, y, z, w]                                      |
/// | QSize, QPoint           | [width, height], [x, y]                                              |
/// | QRect                   | [x, y, width, height], or a list of these                            |
/// | QMatrix4x4              | 16 numbers, row by row                                               |
/// | QString, string         | text                                                                 |
/// | QList                   | a list                                                               |
/// | QVariant, unknown       | a number, true or false, text; four numbers are a QRect              |
///
/// null is an empty value for every type. Quotes around text may be left out. \a hint stands in for the
/// type of a slot whose name has none: pass the default value of the slot. \a info, where the pass says it,
/// lets one of a number of choices go by its name ("colorDodge"). Models, textures and
/// framebuffers have no text form. False, with the reason, for a text that does not fit.
KVO_PIPELINE_EXPORT bool parseSlotValue(const QString &slot, const QString &text, QVariant *value, QString *error,
                                        const QVariant &hint = QVariant(), const SlotInfo *info = nullptr);

/// A slot value for people: "[0, 0, 640, 480]", "#40404080", "none" …
KVO_PIPELINE_EXPORT QString describeSlotValue(const QVariant &value);

} // namespace Brevane::Kvo
