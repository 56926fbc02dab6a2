#include "modelimport.h"

#include "host/isolatedimport.h"

#include <QMetaObject>
#include <QPointer>

#include <utility>

using namespace Brevane::Kvo;
using namespace Qt::StringLiterals;

// What thread and window share. The thread of a job that was left ends as soon as its process has.
struct ModelImport::Job
{
    std::atomic<bool> isCancelled = false;
    ModelData data;
    ImportReport report;
    std::thread thread;
};

ModelImport::ModelImport(QObject *parent) : QObject(parent) {}

ModelImport::~ModelImport()
{
    cancel();
}

void ModelImport::start(const QString &path, const SceneSettings &settings)
{
    cancel();
    _path = path;
    _job = std::make_shared<Job>();
    _job->thread = std::thread([this, path, settings, job = _job] {
        ImportLimits limits;
        limits.cancelled = &job->isCancelled;
        job->data = importSceneIsolated(path, ImportOptions(), limits, &job->report);
        QString error;
        if (job->report.ok() && !applySettings(&job->data, settings, &error))
            job->report.error = u"--opacity: %1"_s.arg(error);
        // Whoever cancels waits for this thread, so that the object is there.
        QMetaObject::invokeMethod(
            this, [this, job] { end(job); }, Qt::QueuedConnection);
    });
    Q_EMIT started(path);
}

void ModelImport::cancel()
{
    if (!_job)
        return;
    const std::shared_ptr<Job> job = std::exchange(_job, nullptr);
    job->isCancelled = true;
    job->thread.join();
    Q_EMIT failed(tr("the import of '%1' was cancelled").arg(_path));
}

void ModelImport::end(const std::shared_ptr<Job> &job)
{
    // One that was left is of no interest any more.
    if (job != _job)
        return;
    _job = nullptr;
    job->thread.join();
    if (job->report.ok())
        Q_EMIT finished(job->data, job->report.warnings);
    else
        Q_EMIT failed(job->report.error);
}
