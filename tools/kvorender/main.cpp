#include "commandline.h"
#include "gallery.h"
#include "host/headlesscontext.h"
#include "host/pipelinefile.h"
#include "renderer.h"
#include "report.h"

#include <QCoreApplication>

#include <cstdio>

using namespace Brevane::Kvo;

namespace {

void onMessage(QtMsgType type, const QMessageLogContext &, const QString &text)
{
    if (type == QtDebugMsg || type == QtInfoMsg)
        return;
    complain((type == QtWarningMsg ? QStringLiteral("warning: ") : QString()) + text);
}

int inform(const CommandLine &commandLine)
{
    // Some passes look at the context when they are made, so it comes first, where there is one.
    QString error;
    const std::unique_ptr<HeadlessContext> context = HeadlessContext::create(&error);
    if (commandLine.list)
        printList(pipelineSearchPath(commandLine.pipelineFolders));
    if (!commandLine.glInfo)
        return kSuccess;
    if (!context) {
        complain(error);
        return kFailure;
    }
    printGlInfo(*context);
    return kSuccess;
}

} // namespace

int main(int argc, char *argv[])
{
    const QCoreApplication application(argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("kvorender"));
    qInstallMessageHandler(onMessage);
    CommandLine commandLine;
    int exitCode = kSuccess;
    if (!commandLine.read(QCoreApplication::arguments(), &exitCode))
        return exitCode;
    if (commandLine.list || commandLine.glInfo)
        return inform(commandLine);
    return commandLine.gallery.isEmpty() ? Renderer(commandLine).run() : Gallery(commandLine).run();
}
