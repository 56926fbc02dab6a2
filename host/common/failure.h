#pragma once

#include <QString>

namespace Brevane::Kvo {

/// Puts the reason where the caller asked for it. False, for the caller to return.
inline bool fail(QString *error, const QString &message)
{
    if (error)
        *error = message;
    return false;
}

} // namespace Brevane::Kvo
