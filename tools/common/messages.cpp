#include "messages.h"

#include "host/versiondetails.h"

#include <QCoreApplication>

#include <cstdio>

namespace {

constexpr int kMostWarnings = 10;

void onMessage(QtMsgType type, const QMessageLogContext &, const QString &text)
{
    if (type == QtDebugMsg || type == QtInfoMsg)
        return;
    complain((type == QtWarningMsg ? QStringLiteral("warning: ") : QString()) + text);
}

} // namespace

void startMessages(const QString &program)
{
    QCoreApplication::setApplicationName(program);
    QCoreApplication::setApplicationVersion(Brevane::Kvo::libraryVersion());
    qInstallMessageHandler(onMessage);
}

void complain(const QString &message)
{
    std::fprintf(stderr, "%s: %s\n", qPrintable(QCoreApplication::applicationName()), qPrintable(message));
}

void complainOf(const QStringList &warnings)
{
    for (const QString &warning : warnings.mid(0, kMostWarnings))
        complain(QStringLiteral("warning: %1").arg(warning));
    if (warnings.size() > kMostWarnings)
        complain(QStringLiteral("warning: and %1 more").arg(warnings.size() - kMostWarnings));
}
