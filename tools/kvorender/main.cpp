#include "batch.h"
#include "commandline.h"
#include "gallery.h"
#include "host/headlesscontext.h"
#include "host/pipelinefile.h"
#include "host/pipelineschema.h"
#include "renderer.h"
#include "report.h"

#include <QCoreApplication>

#include <csignal>
#include <cstdio>

using namespace Brevane::Kvo;

namespace {

int inform(const CommandLine &commandLine)
{
    // Some passes look at the context when they are made, so it comes first, where there is one.
    QString error;
    const std::unique_ptr<HeadlessContext> context = HeadlessContext::create(&error);
    if (commandLine.schema)
        std::fputs(pipelineSchema().constData(), stdout);
    if (commandLine.list && !commandLine.model.isEmpty()) {
        if (!printPassTable(commandLine.model, &error)) {
            complain(error);
            return kUsage;
        }
    } else if (commandLine.list)
        printList(pipelineSearchPath(commandLine.pipelines.folders));
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
    // What is too large for a file is an error of the file, and does not end the program.
    std::signal(SIGXFSZ, SIG_IGN);
    const QCoreApplication application(argc, argv);
    startMessages(QStringLiteral("kvorender"));
    CommandLine commandLine;
    if (const std::optional<ExitCode> end = commandLine.read(QCoreApplication::arguments()))
        return *end;
    if (commandLine.list || commandLine.glInfo || commandLine.schema)
        return inform(commandLine);
    if (!commandLine.gallery.isEmpty())
        return Gallery(commandLine).run();
    if (!commandLine.batch.isEmpty())
        return runBatch(commandLine);
    return Renderer({commandLine.debug, commandLine.quiet}).run(commandLine);
}
