#pragma once

#include "host/export.h"

#include <QString>
#include <QStringList>

namespace Brevane::Kvo {

/// The name of a slot, taken apart: "Kvo_<type>_<name>".
///
/// "Kvo_QList_KvoShadowMapManagerLight*_Lights" is the type "QList" of elements
/// "KvoShadowMapManagerLight*" under the name "Lights"; "Int_BlendMode" is an "int" under the name
/// "BlendMode". Another name without the prefix is all name, and its
/// type is empty: unknown.
struct KVO_PIPELINE_EXPORT SlotName
{
    QString type; ///< "KvoTexture*", "float" ...; empty where the name has none.
    QString elementType; ///< Of the elements of a list.
    QString name; ///< "BlurRadius".

    /// Takes a full name ("Kvo_float_BlurRadius") to its parts.
    static SlotName parse(const QString &slot);
};

/// Whether a value of one slot fits another, going by the type words of their names. Spellings of one
/// type agree ("float" and "Float", "string" and "QString"); an unknown type and "QVariant" fit all.
KVO_PIPELINE_EXPORT bool slotTypesMatch(const QString &slot, const QString &otherSlot);

/// The candidate that is most like a misspelt name, or an empty string when none is.
KVO_PIPELINE_EXPORT QString nearestName(const QString &name, const QStringList &candidates);

/// "; did you mean 'X'?" with the nearest candidate, or an empty string: the end of an error message.
KVO_PIPELINE_EXPORT QString nearestNameHint(const QString &name, const QStringList &candidates);

} // namespace Brevane::Kvo
