// The entry points of libFuzzer around one target, KVO_FUZZ_TARGET.

#include "fuzz/targets.h"

#include <QCoreApplication>

#include <cstdint>
#include <cstdio>
#include <cstdlib>

namespace {

// The same text a million times tells nothing.
void ignore(QtMsgType, const QMessageLogContext &, const QString &) {}

} // namespace

void Fuzz::promise(bool kept, const char *what)
{
    if (kept)
        return;
    std::fprintf(stderr, "broken promise: %s\n", what);
    std::abort();
}

extern "C" int LLVMFuzzerInitialize(int *argc, char ***argv)
{
    qputenv("QT_QPA_PLATFORM", "offscreen");
    static QCoreApplication application(*argc, *argv);
    qInstallMessageHandler(ignore);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    Fuzz::KVO_FUZZ_TARGET(QByteArray(reinterpret_cast<const char *>(data), qsizetype(size)));
    return 0;
}
