#include "listreaders.h"

#include <QHash>

namespace Brevane::Kvo {

namespace {

QHash<QString, ElementReader> &readers()
{
    static QHash<QString, ElementReader> byName;
    return byName;
}

} // namespace

void addListReader(const QString &hostValue, ElementReader reader)
{
    readers().insert(hostValue, reader);
}

ElementReader listReader(const QString &hostValue)
{
    return readers().value(hostValue);
}

} // namespace Brevane::Kvo
