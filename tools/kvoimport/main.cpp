// kvo-import MODEL MEGABYTES images|no-images CREASE-ANGLE
//
// Reads a model and writes it to standard output for importSceneIsolated, which starts this program: what ends it, ends
// no host. Not for people.

#include <host/modeltransport.h>
#include <host/sceneimport.h>

#include "options.h"

#include <QCoreApplication>
#include <QFile>

#include <sys/resource.h>
#include <unistd.h>

#ifdef __linux__
#include <sys/prctl.h>
#endif

// Which takes address space by the terabyte.
#if defined(__SANITIZE_ADDRESS__)
#define KVO_HAS_ADDRESS_SANITIZER
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define KVO_HAS_ADDRESS_SANITIZER
#endif
#endif

#include <csignal>
#include <cstdio>
#include <new>

using namespace Brevane::Kvo;

namespace {

void limit(int resource, rlim_t most)
{
    const rlimit both{most, most};
    setrlimit(resource, &both);
}

// Nothing is to be seen of a crash but its message, and nothing is to outlive the host.
void confine([[maybe_unused]] qint64 megabytes)
{
    limit(RLIMIT_CORE, 0);
#ifdef __linux__
    prctl(PR_SET_PDEATHSIG, SIGKILL);
#endif
#ifndef KVO_HAS_ADDRESS_SANITIZER
    if (megabytes > 0)
        limit(RLIMIT_AS, rlim_t(megabytes) << 20);
#endif
    std::set_new_handler([] { _exit(int(ImportExit::NoMemory)); });
}

// --help and the like.
std::optional<ExitCode> tellAboutItself(int argc, char **argv)
{
    if (argc < 2 || argv[1][0] != '-')
        return std::nullopt;
    const QCoreApplication application(argc, argv);
    startMessages(QStringLiteral("kvo-import"));
    Options options(QStringLiteral("Usage: kvo-import MODEL MEGABYTES images|no-images CREASE-ANGLE\n\n"
                                   "Reads a model file for a program of Kvo's. The library starts it, so that a file\n"
                                   "that makes an importer crash, hang or take all memory ends this program and not\n"
                                   "its host. It is not for people."),
                    QStringLiteral("the model file, which is written to standard output in a form of the library's; "
                                   "then the most address space in megabytes, 0 for no bound, whether maps are read "
                                   "too, and the angle in degrees beyond which edges stay sharp"));
    options.section(QStringLiteral("Arguments"));
    return options.read(QCoreApplication::arguments());
}

} // namespace

int main(int argc, char **argv)
{
    if (const std::optional<ExitCode> end = tellAboutItself(argc, argv))
        return *end;
    if (argc != 5) {
        std::fprintf(stderr, "kvo-import is started by the library that reads models\n");
        return int(ImportExit::Usage);
    }
    confine(QByteArray(argv[2]).toLongLong());
    // What an importer prints must not get between the bytes of the model.
    const int output = dup(STDOUT_FILENO);
    dup2(STDERR_FILENO, STDOUT_FILENO);

    ImportOptions options;
    options.loadImages = QByteArray(argv[3]) == "images";
    options.creaseAngle = QByteArray(argv[4]).toFloat();
    ImportReport report;
    const ModelData data = importScene(QFile::decodeName(argv[1]), options, &report);
    QFile file;
    QString error;
    if (!file.open(output, QIODevice::WriteOnly) || !writeModel(&file, data, report, &error) || !file.flush()) {
        std::fprintf(stderr, "the model cannot be handed over: %s\n", qPrintable(error));
        return int(ImportExit::NotWritten);
    }
    // The importer has nothing more to say; taking all down again would only take time.
    file.close();
    _exit(int(ImportExit::Done));
}
