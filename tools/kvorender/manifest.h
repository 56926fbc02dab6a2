#pragma once

#include <QFile>
#include <QHash>
#include <QJsonArray>
#include <QString>
#include <QStringList>

/// What a batch has done, as a file that grows by a line with every picture: the job's digest, and path, size and
/// digest of its files. A line that was cut off counts for nothing.
class Manifest
{
public:
    explicit Manifest(const QString &path) : _path(path) {}

    /// Reads what is noted here and in the manifests of other shards, whatever their number.
    void readAll();
    /// Begins a file that holds nothing, or what is known of these jobs. False with the reason.
    bool begin(const QList<QByteArray> &hashes, QString *error);
    /// Notes a picture whose files are there. False with the reason.
    bool note(const QByteArray &hash, const QStringList &files, QString *error);
    /// Whether all files of a job are as they were noted.
    bool isComplete(const QByteArray &hash) const;
    /// Puts the lines in the order of the jobs, so that it does not tell how often a batch was interrupted.
    bool finish(const QList<QByteArray> &hashes, QString *error);
    /// Of all files of a job; 0 for one that is not known.
    qint64 bytesOf(const QByteArray &hash) const;

    /// Of the shard of a job file's name.
    static QString pathOf(const QString &base, int shard, int shards);

private:
    QByteArray line(const QByteArray &hash) const;

    QString _path;
    QHash<QByteArray, QJsonArray> _entries; ///< Files by job.
    QFile _file;
};
