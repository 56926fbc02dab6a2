#include "batch.h"

#include "host/pipelinefile.h"
#include "host/versiondetails.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>

#include <cmath>
#include <cstdio>

#include <unistd.h>

using namespace Brevane::Kvo;
using namespace Qt::StringLiterals;

namespace {

constexpr size_t kMostUnderWay = 2;
constexpr double kNanosecondsPerSecond = 1e9;

double secondsOf(const QElapsedTimer &timer)
{
    return double(timer.nsecsElapsed()) / kNanosecondsPerSecond;
}

Renderer::Settings rendererSettings(const BatchSettings &settings)
{
    return {settings.debug, true, true, settings.cacheMegabytes, settings.warn};
}

} // namespace

QJsonObject PictureReport::json() const
{
    static const QString kNames[] = {u"done"_s, u"skipped"_s, u"failed"_s};
    QJsonObject object{{u"line"_s, job.line},
                       {u"index"_s, job.index},
                       {u"status"_s, kNames[int(status)]},
                       {u"job"_s, QString::fromLatin1(hash)},
                       {u"attempts"_s, attempts},
                       {u"seconds"_s, std::round(seconds * 1e6) / 1e6}};
    if (!job.model.isEmpty())
        object[u"model"_s] = job.model;
    if (!job.output().isEmpty())
        object[u"output"_s] = job.output();
    if (!errors.isEmpty())
        object[u"error"_s] = errors.join(u"; "_s);
    else
        object[u"bytes"_s] = bytes;
    return object;
}

Batch::Batch(const BatchSettings &settings, Listener listener)
    : _settings(settings), _listener(std::move(listener)), _hasher(libraryVersion().toUtf8()),
      _manifest(settings.manifest), _renderer(rendererSettings(settings))
{}

Batch::~Batch() = default;

ExitCode Batch::run(const QVector<BatchJob> &jobs)
{
    QVector<PictureReport> reports;
    QList<QByteArray> hashes;
    for (const BatchJob &job : jobs) {
        PictureReport &report = reports.emplaceBack();
        report.job = job;
        identify(&report);
        hashes << report.hash;
    }
    const bool hasManifest = !_settings.manifest.isEmpty();
    if (hasManifest && _settings.resume)
        _manifest.readAll();
    if (hasManifest && !_manifest.begin(hashes, &_error))
        return kFailure;
    for (PictureReport &report : reports) {
        if (_ends)
            break;
        if (hasManifest && _settings.resume && _manifest.isComplete(report.hash)) {
            takeInAll();
            report.status = PictureReport::Status::Skipped;
            report.bytes = _manifest.bytesOf(report.hash);
            tell(report);
            continue;
        }
        attempt(report);
    }
    takeInAll();
    while (!_again.isEmpty() && !_ends) {
        for (const PictureReport &report : std::exchange(_again, {}))
            if (!_ends)
                attempt(report);
        takeInAll();
    }
    if (hasManifest && !_manifest.finish(hashes, &_error))
        return kFailure;
    if (_failed == 0)
        return kSuccess;
    return _done + _skipped > 0 ? kSome : kFailure;
}

void Batch::identify(PictureReport *report)
{
    CommandLine commandLine;
    QString error;
    if (!commandLine.read(report->job, &error))
        return; // as the attempt will say
    report->hash = _hasher.hashOf(
        report->job, findPipeline(commandLine.pipeline, pipelineSearchPath(commandLine.pipelines.folders)));
}

void Batch::attempt(PictureReport report)
{
    auto attempt = std::make_unique<Attempt>();
    attempt->report = std::move(report);
    ++attempt->report.attempts;
    attempt->report.errors.clear();
    QElapsedTimer timer;
    timer.start();
    attempt->commandLine = std::make_unique<CommandLine>();
    QString error;
    if (attempt->commandLine->read(attempt->report.job, &error)) {
        attempt->rendered = _renderer.render(*attempt->commandLine);
    } else {
        attempt->rendered.errors << error;
        attempt->rendered.exitCode = kUsage;
    }
    attempt->seconds = secondsOf(timer);
    Attempt *current = attempt.get();
    const auto policy = _settings.overlaps ? std::launch::async : std::launch::deferred;
    attempt->writing = std::async(policy, [current] {
        QElapsedTimer writing;
        writing.start();
        Renderer::write(&current->rendered, *current->commandLine);
        return secondsOf(writing);
    });
    _underWay.push_back(std::move(attempt));
    while (_underWay.size() >= kMostUnderWay || (!_underWay.empty() && !_settings.overlaps)) {
        takeIn(_underWay.front().get());
        _underWay.pop_front();
    }
}

void Batch::takeInAll()
{
    for (; !_underWay.empty(); _underWay.pop_front())
        takeIn(_underWay.front().get());
}

void Batch::takeIn(Attempt *attempt)
{
    PictureReport &report = attempt->report;
    report.seconds = attempt->seconds + attempt->writing.get();
    report.errors = attempt->rendered.errors;
    if (attempt->rendered.exitCode == kSuccess) {
        report.status = PictureReport::Status::Done;
        for (const QString &file : std::as_const(attempt->rendered.files))
            report.bytes += QFileInfo(file).size();
        QString error;
        // One without files (values to stdout) is made every time.
        if (!_settings.manifest.isEmpty() && !attempt->rendered.files.isEmpty()
            && !_manifest.note(report.hash, attempt->rendered.files, &error)) {
            report.status = PictureReport::Status::Failed;
            report.errors << error;
        }
    } else if (attempt->rendered.exitCode != kUsage && report.attempts <= _settings.retries) {
        _again.append(report);
        return;
    }
    tell(report);
}

void Batch::tell(const PictureReport &report)
{
    switch (report.status) {
    case PictureReport::Status::Done: ++_done; break;
    case PictureReport::Status::Skipped: ++_skipped; break;
    case PictureReport::Status::Failed: ++_failed; break;
    }
    if (!_ends && !_listener(report))
        _ends = true;
}

namespace {

// Where the pictures are, on a terminal in one line that changes; elsewhere now and then.
class Progress
{
public:
    Progress(int total, bool quiet) : _total(total), _quiet(quiet), _isTerminal(isatty(STDERR_FILENO) != 0)
    {
        _sinceStart.start();
        _sinceLine.start();
    }

    void note(const Batch &batch, const PictureReport &report)
    {
        if (report.status == PictureReport::Status::Failed) {
            clear();
            complain(u"%1: %2"_s.arg(report.job.place, report.errors.join(u"; "_s)));
        }
        const qint64 interval = _isTerminal ? kTerminalInterval : kLogInterval;
        if (_quiet || (_sinceLine.elapsed() < interval && !_isFirst))
            return;
        _isFirst = false;
        _sinceLine.restart();
        show(text(batch));
    }

    void end(const Batch &batch)
    {
        clear();
        if (_quiet)
            return;
        const double seconds = secondsOf(_sinceStart);
        complain(u"%1 picture(s) made, %2 left out, %3 failed in %4 s, %5 a second"_s.arg(batch.done())
                     .arg(batch.skipped())
                     .arg(batch.failed())
                     .arg(seconds, 0, 'f', 2)
                     .arg(batch.done() / std::max(seconds, 1e-3), 0, 'f', 1));
    }

private:
    static constexpr qint64 kTerminalInterval = 200; // ms
    static constexpr qint64 kLogInterval = 30000;

    QString text(const Batch &batch) const
    {
        const int handled = batch.done() + batch.skipped() + batch.failed();
        const double rate = (batch.done() + batch.failed()) / std::max(secondsOf(_sinceStart), 1e-3);
        QString line = u"%1 of %2, %3 a second"_s.arg(handled).arg(_total).arg(rate, 0, 'f', 1);
        if (rate > 0.0)
            line += u", %1 s left"_s.arg((_total - handled) / rate, 0, 'f', 0);
        if (batch.failed() > 0)
            line += u", %1 failed"_s.arg(batch.failed());
        return line;
    }

    void show(const QString &line)
    {
        if (!_isTerminal) {
            complain(line);
            return;
        }
        std::fprintf(stderr, "\r%s\033[K", qPrintable(line));
        _isShown = true;
    }

    void clear()
    {
        if (std::exchange(_isShown, false))
            std::fputs("\r\033[K", stderr);
    }

    int _total;
    bool _quiet;
    bool _isTerminal;
    bool _isFirst = true;
    bool _isShown = false;
    QElapsedTimer _sinceStart, _sinceLine;
};

// JSON lines, each written when its picture is done.
class Report
{
public:
    bool open(const QString &path, QString *error)
    {
        if (path.isEmpty())
            return true;
        _file.setFileName(path);
        const bool opened = path == "-"_L1 ? _file.open(stdout, QIODevice::WriteOnly | QIODevice::Unbuffered)
                                           : _file.open(QIODevice::WriteOnly | QIODevice::Unbuffered);
        if (!opened)
            *error = u"cannot write the report '%1': %2"_s.arg(path, _file.errorString());
        return opened;
    }

    void add(const PictureReport &report) { addLine(report.json()); }

    // Without it a batch did not come to its end.
    void end(const Batch &batch)
    {
        addLine(
            {{u"summary"_s,
              QJsonObject{{u"done"_s, batch.done()}, {u"skipped"_s, batch.skipped()}, {u"failed"_s, batch.failed()}}}});
    }

    bool isBroken() const { return _isBroken; }

private:
    void addLine(const QJsonObject &object)
    {
        if (!_file.isOpen() || _isBroken)
            return;
        const QByteArray line = QJsonDocument(object).toJson(QJsonDocument::Compact) + '\n';
        _isBroken = _file.write(line) != line.size();
        if (_isBroken)
            complain(u"cannot write the report '%1': %2"_s.arg(_file.fileName(), _file.errorString()));
    }

    QFile _file;
    bool _isBroken = false;
};

} // namespace

int runBatch(const CommandLine &commandLine)
{
    BatchJobs jobs(CommandLine::options(), commandLine.defaults);
    QString error;
    if (!jobs.readFile(commandLine.batch, &error)) {
        complain(error);
        return kUsage;
    }
    if (jobs.jobs().isEmpty()) {
        complain(u"there are no jobs in '%1'"_s.arg(commandLine.batch));
        return kUsage;
    }
    Report report;
    if (!report.open(commandLine.report, &error)) {
        complain(error);
        return kUsage;
    }
    const QVector<BatchJob> mine = jobs.jobsOf(commandLine.shard);
    const QString base = commandLine.manifest.isEmpty() ? commandLine.batch + u".manifest"_s : commandLine.manifest;
    BatchSettings settings;
    settings.manifest = Manifest::pathOf(base, commandLine.shard.index, commandLine.shard.count);
    settings.resume = commandLine.resume;
    settings.retries = commandLine.retries;
    settings.cacheMegabytes = commandLine.cacheMegabytes;
    settings.debug = commandLine.debug;
    Progress progress(int(mine.size()), commandLine.quiet);
    const Batch *current = nullptr;
    Batch batch(settings, [&](const PictureReport &picture) {
        report.add(picture);
        progress.note(*current, picture);
        return true;
    });
    current = &batch;
    const ExitCode exitCode = batch.run(mine);
    progress.end(batch);
    if (batch.error().isEmpty())
        report.end(batch);
    if (!batch.error().isEmpty())
        complain(batch.error());
    return report.isBroken() && exitCode == kSuccess ? kFailure : exitCode;
}
