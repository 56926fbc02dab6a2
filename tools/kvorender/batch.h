#pragma once

#include "batchjobs.h"
#include "manifest.h"
#include "messages.h"
#include "renderer.h"

#include <QJsonObject>

#include <deque>
#include <functional>
#include <future>
#include <memory>

/// What became of a picture of a batch.
struct PictureReport
{
    enum class Status { Done, Skipped, Failed };

    BatchJob job;
    Status status = Status::Failed;
    QStringList errors;
    QByteArray hash;
    int attempts = 0;
    double seconds = 0.0; ///< Of the last attempt, from its options to its files.
    qint64 bytes = 0; ///< Of its files.

    QJsonObject json() const;
};

struct BatchSettings
{
    QString manifest; ///< Empty: none, and nothing to resume.
    bool resume = false;
    int retries = 0;
    int cacheMegabytes = 1024;
    bool debug = false;
    /// Hears what is likely a mistake though the pictures are made, each once.
    std::function<void(const QStringList &)> warn = complainOf;
    /// Encodes and writes a picture while the next one is made.
    bool overlaps = true;
};

/// Makes the pictures of a batch. One that fails does not keep the others from being made.
class Batch
{
public:
    /// \a listener hears of every picture once, when it is done, left out or given up, on the thread of run. It
    /// returns false to end the batch.
    using Listener = std::function<bool(const PictureReport &report)>;

    Batch(const BatchSettings &settings, Listener listener);
    ~Batch();

    /// kSuccess: all pictures are there; kSome; kFailure: none is.
    ExitCode run(const QVector<BatchJob> &jobs);

    int done() const { return _done; }
    int skipped() const { return _skipped; }
    int failed() const { return _failed; }
    /// Why nothing could be begun; empty: it could.
    QString error() const { return _error; }

private:
    struct Attempt
    {
        PictureReport report;
        std::unique_ptr<CommandLine> commandLine; ///< Null where its options are wrong.
        Rendered rendered;
        double seconds = 0.0; ///< Of rendering.
        std::future<double> writing; ///< Seconds.
    };

    void identify(PictureReport *report);
    void attempt(PictureReport report);
    void takeIn(Attempt *attempt);
    void takeInAll();
    void tell(const PictureReport &report);

    BatchSettings _settings;
    Listener _listener;
    JobHasher _hasher;
    Manifest _manifest;
    Renderer _renderer;
    std::deque<std::unique_ptr<Attempt>> _underWay;
    QVector<PictureReport> _again; ///< What failed and may be tried once more.
    QString _error;
    int _done = 0;
    int _skipped = 0;
    int _failed = 0;
    bool _ends = false;
};

/// --batch: reads the jobs, makes the pictures, tells of them.
int runBatch(const CommandLine &commandLine);
