#pragma once

#include <QString>
#include <QVariant>

namespace Brevane::Kvo {

/// One input or output of a pass. The name is given when the slot is declared and stays; the value
/// is what the host or the pass stored last. Pointers in a value are borrowed: a slot owns nothing.
struct PassSlot
{
    QString name; ///< "Kvo_TYPE_NAME".
    QVariant value; ///< What it holds now.
};

} // namespace Brevane::Kvo
