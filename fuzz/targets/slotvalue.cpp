#include "fuzz/targets.h"

#include <core/passslot.h>
#include <host/slotvalue.h>

// A value for a slot, read by the type that the first byte chooses.

using namespace Brevane::Kvo;
using namespace Qt::StringLiterals;

void Fuzz::slotvalue(const QByteArray &bytes)
{
    static const char *const kTypes[] = {"float",     "int",       "bool",  "QColor", "QVector2D",  "QVector3D",
                                         "QVector4D", "QSize",     "QPoint", "QRect", "QMatrix4x4", "QString",
                                         "QList",     "QVariant",  "Texture", "string"};
    if (bytes.isEmpty())
        return;
    const QString slot = u"Kvo_%1_Value"_s.arg(QLatin1StringView(kTypes[uchar(bytes[0]) % std::size(kTypes)]));
    const QString text = QString::fromUtf8(bytes.mid(1));
    QVariant value;
    QString error;
    const bool read = parseSlotValue(slot, text, &value, &error);
    promise(read || !error.isEmpty(), "a value that is not read has a reason");
    const QString described = describeSlotValue(value);
    promise(!described.isEmpty() || value.toString().isEmpty(), "a value is described");
}
