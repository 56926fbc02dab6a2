#include "host/isolatedimport.h"

#include "failure.h"
#include "host/modeltransport.h"
#include "libraryfolder.h"
#include "unaskedreport.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <memory>
#include <time.h>
#include <vector>

extern char **environ;

namespace Brevane::Kvo {

namespace {

constexpr char kProgram[] = "kvo-import";
constexpr char kVariable[] = "KVO_IMPORT_PROGRAM";
// Of what the process says: the last lines tell.
constexpr qint64 kMostWords = 1000;

struct CloseFile
{
    void operator()(std::FILE *file) const { std::fclose(file); }
};
using File = std::unique_ptr<std::FILE, CloseFile>;

// Of a file, and none of the three that the new process replaces, also in a host that has closed those.
class SpareDescriptor
{
public:
    explicit SpareDescriptor(std::FILE *file) : _number(fcntl(fileno(file), F_DUPFD_CLOEXEC, 3)) {}
    ~SpareDescriptor() { close(_number); }
    SpareDescriptor(const SpareDescriptor &) = delete;
    SpareDescriptor &operator=(const SpareDescriptor &) = delete;
    int number() const { return _number; }

private:
    int _number;
};

QString folderOfProcess()
{
    return QFileInfo(QFile::symLinkTarget(QStringLiteral("/proc/self/exe"))).path();
}

bool isProgram(const QString &path)
{
    const QFileInfo info(path);
    return info.isFile() && info.isExecutable();
}

// How a process ended: by itself with a code, by a signal, or because its time was over.
struct Ending
{
    int code = -1;
    int signal = 0;
    bool isLate = false;
    bool isCancelled = false;
};

qint64 milliseconds()
{
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return qint64(now.tv_sec) * 1000 + now.tv_nsec / 1'000'000;
}

// By asking now and then, since the signal that would tell belongs to the host.
Ending waitFor(pid_t process, const ImportLimits &limits)
{
    Ending ending;
    const qint64 begin = milliseconds();
    useconds_t pause = 500;
    for (;;) {
        int status = 0;
        const pid_t ended = waitpid(process, &status, WNOHANG);
        if (ended == process) {
            ending.code = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
            ending.signal = WIFSIGNALED(status) ? WTERMSIG(status) : 0;
            return ending;
        }
        // A host that reaps all children itself has the status: what was written tells.
        if (ended < 0 && errno != EINTR) {
            ending.code = 0;
            return ending;
        }
        if (!ending.isLate && limits.seconds > 0 && milliseconds() - begin > qint64(limits.seconds) * 1000) {
            ending.isLate = true;
            kill(process, SIGKILL);
        }
        if (!ending.isCancelled && limits.cancelled && *limits.cancelled) {
            ending.isCancelled = true;
            kill(process, SIGKILL);
        }
        usleep(pause);
        pause = std::min<useconds_t>(pause * 2, 10'000);
    }
}

bool start(const QString &program, const std::vector<QByteArray> &arguments, int output, int words, pid_t *process,
           QString *error)
{
    std::vector<char *> argv;
    argv.reserve(arguments.size() + 1);
    for (const QByteArray &argument : arguments)
        argv.push_back(const_cast<char *>(argument.constData()));
    argv.push_back(nullptr);
    posix_spawn_file_actions_t files;
    posix_spawn_file_actions_init(&files);
    posix_spawn_file_actions_addopen(&files, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_adddup2(&files, output, STDOUT_FILENO);
    posix_spawn_file_actions_adddup2(&files, words, STDERR_FILENO);
    // As a new process has them, whatever the host does with signals.
    posix_spawnattr_t attributes;
    posix_spawnattr_init(&attributes);
    sigset_t none, all;
    sigemptyset(&none);
    sigfillset(&all);
    posix_spawnattr_setsigmask(&attributes, &none);
    posix_spawnattr_setsigdefault(&attributes, &all);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
    const int failure =
        posix_spawn(process, QFile::encodeName(program).constData(), &files, &attributes, argv.data(), environ);
    posix_spawn_file_actions_destroy(&files);
    posix_spawnattr_destroy(&attributes);
    return failure == 0
           || fail(error,
                   QStringLiteral("'%1' does not start: %2").arg(program, QString::fromLocal8Bit(strerror(failure))));
}

// The last line, which for an assertion is the assertion.
QString lastWords(std::FILE *file)
{
    QFile reader;
    if (!reader.open(file, QIODevice::ReadOnly) || !reader.seek(std::max<qint64>(0, reader.size() - kMostWords)))
        return QString();
    const QByteArray words = reader.readAll().trimmed();
    return QString::fromLocal8Bit(words.mid(words.lastIndexOf('\n') + 1));
}

qint64 megabytesOfMachine()
{
    return qint64(sysconf(_SC_PHYS_PAGES)) * sysconf(_SC_PAGESIZE) / (1 << 20) * 3 / 4;
}

// Why there is no model; empty if there is one.
QString reasonOf(const Ending &ending, const ImportLimits &limits, qint64 megabytes, std::FILE *words)
{
    if (ending.isCancelled)
        return QStringLiteral("the import was cancelled");
    if (ending.isLate)
        return QStringLiteral("the import took more than %1 seconds").arg(limits.seconds);
    if (ending.code == int(ImportExit::NoMemory))
        return QStringLiteral("the import takes more than %1 megabytes of memory").arg(megabytes);
    if (ending.signal == 0 && ending.code == 0)
        return QString();
    const QString last = lastWords(words);
    const QString how =
        ending.signal != 0
            ? QStringLiteral("the importer crashed (%1)").arg(QString::fromLocal8Bit(strsignal(ending.signal)))
            : QStringLiteral("the importer ended with code %1").arg(ending.code);
    return last.isEmpty() ? how : QStringLiteral("%1: %2").arg(how, last);
}

bool importInProcess(const QString &path, const ImportOptions &options, const ImportLimits &limits, ModelData *data,
                     ImportReport *report, QString *error)
{
    const QString program = findImportProgram(error);
    if (program.isEmpty())
        return false;
    // Files without a name: nothing of them is left, however this ends.
    const File output(std::tmpfile()), words(std::tmpfile());
    if (!output || !words)
        return fail(
            error,
            QStringLiteral("there is no room for a temporary file: %1").arg(QString::fromLocal8Bit(strerror(errno))));
    for (const File *file : {&output, &words})
        fcntl(fileno(file->get()), F_SETFD, FD_CLOEXEC);
    const qint64 megabytes = limits.megabytes > 0 ? limits.megabytes : megabytesOfMachine();
    const std::vector<QByteArray> arguments{kProgram, QFile::encodeName(path), QByteArray::number(megabytes),
                                            options.loadImages ? "images" : "no-images",
                                            QByteArray::number(double(options.creaseAngle), 'g', 9)};
    pid_t process = 0;
    {
        const SpareDescriptor childOutput(output.get()), childWords(words.get());
        if (!start(program, arguments, childOutput.number(), childWords.number(), &process, error))
            return false;
    }
    const Ending ending = waitFor(process, limits);
    if (const QString reason = reasonOf(ending, limits, megabytes, words.get()); !reason.isEmpty())
        return fail(error, reason);
    QFile file;
    const bool isOpen = file.open(output.get(), QIODevice::ReadOnly);
    const uchar *const bytes = isOpen ? file.map(0, file.size()) : nullptr;
    QString reason;
    return readModel(QByteArray::fromRawData(reinterpret_cast<const char *>(bytes), bytes ? file.size() : 0), data,
                     report, &reason)
           || fail(error, QStringLiteral("what '%1' hands over is damaged: %2").arg(program, reason));
}

} // namespace

QString findImportProgram(QString *error)
{
    const QString name = QLatin1StringView(kProgram);
    if (const QString named = qEnvironmentVariable(kVariable); !named.isEmpty()) {
        if (isProgram(named))
            return named;
        fail(error,
             QStringLiteral("the program '%1' that %2 names cannot be run").arg(named, QLatin1StringView(kVariable)));
        return QString();
    }
    QStringList folders{folderOfProcess()};
    if (const QString library = folderOfLibrary(reinterpret_cast<const void *>(&importSceneIsolated));
        !library.isEmpty())
        folders << QDir::cleanPath(library + u'/' + QLatin1StringView(KVO_LIBRARIES_TO_LIBEXEC));
    for (const QString &folder : std::as_const(folders)) {
        const QString program = folder + u'/' + name;
        if (isProgram(program))
            return program;
    }
    fail(error, QStringLiteral("there is no program '%1', which imports models in a process of its own, in '%2'; the "
                               "environment variable %3 may name one")
                    .arg(name, folders.join(QStringLiteral("' or '")), QLatin1StringView(kVariable)));
    return QString();
}

ModelData importSceneIsolated(const QString &path, const ImportOptions &options, const ImportLimits &limits,
                              ImportReport *report)
{
    const UnaskedReport unasked(&report);
    *report = ImportReport();
    ModelData data;
    QString error;
    if (!importInProcess(path, options, limits, &data, report, &error))
        report->error = QStringLiteral("cannot read model '%1': %2").arg(path, error);
    return data;
}

} // namespace Brevane::Kvo
