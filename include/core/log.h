#pragma once

#include "core/export.h"

#include <QString>

namespace Brevane::Kvo {

/// Prints "[file:line] [ !! ] Assertion 'condition' failed: message" through qCritical, with the
/// part of \a file after its last '/'. Use KVO_ASSERT instead of calling this.
KVO_CORE_EXPORT void reportFailedAssertion(const char *file, int line, const char *condition, const QString &message);

/// Prints "[file:line] message" through qDebug. Use KVO_LOG instead of calling this.
KVO_CORE_EXPORT void reportMessage(const char *file, int line, const QString &message);

} // namespace Brevane::Kvo

/// Reports a condition that does not hold, with a printf-style message, and carries on. A frame is
/// never given up because of one wrong value.
#define KVO_ASSERT(condition, ...)                                                                                     \
    do {                                                                                                               \
        if (!(condition))                                                                                              \
            ::Brevane::Kvo::reportFailedAssertion(__FILE__, __LINE__, #condition, QString::asprintf(__VA_ARGS__));     \
    } while (false)

/// Logs a printf-style message with its place in the source.
#define KVO_LOG(...) ::Brevane::Kvo::reportMessage(__FILE__, __LINE__, QString::asprintf(__VA_ARGS__))
