#pragma once

#include "options.h"

#include <QByteArray>
#include <QHash>
#include <QJsonObject>
#include <QString>
#include <QVector>

/// One picture of a batch: what a command line of its own would say.
struct BatchJob
{
    int line = 0; ///< Of the job file, from 1.
    int index = 0; ///< Among the pictures of the line, from 0.
    QString model; ///< Empty: none.
    OptionTexts options; ///< By long names, "output" among them.
    QString error; ///< Why the line makes no picture; empty: it does.

    QString output() const { return options.value(QStringLiteral("output")).value(0); }
    /// "line 3", "line 3, picture 5" where the line makes several.
    QString place;
};

/// The files that a picture of these options writes, as they are named there.
QStringList filesOf(const OptionTexts &options);
/// One that it would write twice; empty: none.
QString fileNamedTwice(const OptionTexts &options);

/// A part of the jobs, for one of several processes: the \a index-th of \a count, from 1.
struct Shard
{
    int index = 1;
    int count = 1;

    bool isAll() const { return count == 1; }
    /// "2/4"; false for what is none.
    static bool parse(const QString &text, Shard *shard);
};

/// The jobs of a file. Nothing in here needs OpenGL or looks at models.
///
/// JSON lines: each line is an object whose keys are the long names of options, "model" and "output". The first
/// object may be {"defaults": {...}}, which counts for all lines. A line makes as many pictures as its values have
/// alternatives, multiplied:
/// - a list, for an option that counts once; {"each": [...]} for every option;
/// - {"from": 0, "to": 350, "count": 36}, evenly spaced, both ends included.
/// An option that may be repeated takes a list of all that hold for the picture, or an object, {"Pass.Slot": 4};
/// "camera" takes an object of its settings. "{key}" in the name of a file to write (of "output", "dump", "compare" and
/// "oit-lengths") stands for what the picture has there: the base names of files, "{camera.yaw}" and "{set.Pass.Slot}"
/// for a part, "{n}" for the number within the line, "{line}" for the line; "{n:4}" fills up with zeros.
///
/// CSV: the first line names the columns, with dots for parts ("camera.yaw"), and may give them defaults ("size=64x48").
/// An empty field is not given.
///
/// A few letters can ask for more pictures than memory holds: a line that goes beyond a million in all is a mistake.
class BatchJobs
{
public:
    /// \a defaults hold where neither a line nor its header says something.
    BatchJobs(const QVector<Option> &options, const OptionTexts &defaults) : _options(options), _defaults(defaults) {}

    /// Another limit than a million pictures.
    void setMost(qint64 pictures) { _most = pictures; }

    /// Reads a file by its ending, .jsonl or .csv. False with the reason where nothing of it can be read; a line with a
    /// mistake is a job with an error.
    bool readFile(const QString &path, QString *error);
    bool readLines(const QByteArray &text, QString *error);
    bool readTable(const QByteArray &text, QString *error);
    /// One more line, as an object.
    void add(int line, const QJsonObject &object);
    /// Gives an error to jobs that write a file which an earlier one writes. Call it after the last line.
    void findCollisions();

    const QVector<BatchJob> &jobs() const { return _jobs; }
    /// Those of a shard: neighbours stay together, since they share models. Every job is in exactly one.
    QVector<BatchJob> jobsOf(const Shard &shard) const;

private:
    struct Axis;
    struct Expansion;

    const Option *optionOf(const QString &name) const;
    bool setDefaults(const QJsonObject &object, QString *error);
    bool expand(const QJsonObject &object, Expansion *expansion, QString *error) const;
    QStringList keys() const;
    void addError(int line, const QString &error);

    QVector<Option> _options;
    OptionTexts _defaults;
    QJsonObject _header;
    QVector<BatchJob> _jobs;
    qint64 _most = 1000000;
};

/// Says what a picture depends on, as a digest: all options, the contents of the files that they name, and of those
/// that pipeline, .gltf and .obj files name in turn, and the version of the program.
class JobHasher
{
public:
    explicit JobHasher(const QByteArray &version) : _version(version) {}

    /// \a pipelineFile: what the name of the pipeline stands for. In hexadecimal digits. A file that cannot be read
    /// counts as such, by its name.
    QByteArray hashOf(const BatchJob &job, const QString &pipelineFile);

private:
    QByteArray digestOf(const QString &path);

    QByteArray _version;
    QHash<QString, QByteArray> _digests; ///< By path, size and time.
};
