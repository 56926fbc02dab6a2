#pragma once

#include "batchjobs.h"
#include "messages.h"
#include "pipelinesettings.h"
#include "scenesettings.h"

#include <QPoint>
#include <QSize>
#include <QString>
#include <QStringList>
#include <QVector>

#include <optional>

/// "Pass.Slot=text" of the command line.
struct SlotArgument
{
    QString option; ///< As it was given, for messages.
    QString pass;
    QString slot;
    QString text;
};

/// "Pass.Slot,Pass.Slot=file": two outputs whose textures are compared.
struct Comparison
{
    QString option;
    QString pass[2];
    QString slot[2];
    QString file; ///< For the picture of the differences; may be empty.
};

struct CommandLine
{
    QString model;
    QString pipeline; ///< The one to render.
    PipelineChoice pipelines; ///< As given; a gallery takes all of them.
    QSize size;
    int frames = 1;
    QString output;
    PipelineSettings settings;
    QVector<SlotArgument> dumps;
    SceneSettings scene;
    bool sceneIsGiven = false; ///< Whether any of its settings is.
    QVector<QPoint> inspected; ///< Pixels of the picture, counted from its upper left corner.
    QString gallery; ///< The folder; empty: none wanted. It takes all pipelines where none is given.
    QStringList galleryModels; ///< Empty: the system's samples.
    QString listLengths; ///< File for the picture of how long the fragment lists are.
    QVector<Comparison> comparisons;
    QVector<SlotArgument> prints; ///< Outputs whose value is wanted; the text is not used.
    int tile = 0; ///< Side of the tiles that the picture is made of; 0: as needed.
    bool timings = false;
    bool quiet = false;
    bool debug = false;
    bool list = false; ///< Of the pass class that is named in place of a model, or of everything.
    bool schema = false;
    bool glInfo = false;
    QString batch; ///< File of jobs; empty: none.
    QString report;
    QString manifest; ///< Empty: beside the jobs.
    Shard shard;
    int retries = 0;
    int cacheMegabytes = 1024;
    bool resume = false;
    OptionTexts given; ///< What was read.
    OptionTexts defaults; ///< For the jobs: what was given beside them. The model as "model".

    /// Reads the program's arguments. An exit code when the program is to end at once: after --help and --version,
    /// and after a mistake, which has been printed.
    std::optional<ExitCode> read(const QStringList &arguments);
    /// Reads one picture of a batch. False with the reason.
    bool read(const BatchJob &job, QString *error);
    /// All options, for what they are called and what they take.
    static QVector<Option> options();

private:
    void declare(Options *options);
    /// What is left to default and to check, whoever gave the options.
    bool complete(const Options &options, QString *error);
};
