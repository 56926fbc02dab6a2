#pragma once

#include "host/sceneimport.h"
#include "scenesettings.h"

#include <QObject>
#include <QString>

#include <atomic>
#include <memory>
#include <thread>

/// Reads a model beside the window, in a thread and a process of its own, and can be told to leave it.
class ModelImport : public QObject
{
    Q_OBJECT

public:
    explicit ModelImport(QObject *parent = nullptr);
    ~ModelImport() override;

    /// Begins; one that is under way is left.
    void start(const QString &path, const SceneSettings &settings);
    void cancel();
    bool isRunning() const { return _job != nullptr; }
    QString path() const { return _path; }

Q_SIGNALS:
    void started(const QString &path);
    /// It is there. Warnings of the importer go with it.
    void finished(const Brevane::Kvo::ModelData &data, const QStringList &warnings);
    void failed(const QString &reason);

private:
    struct Job;
    void end(const std::shared_ptr<Job> &job);

    std::shared_ptr<Job> _job;
    QString _path;
};
