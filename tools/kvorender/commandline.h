#pragma once

#include "host/lights.h"
#include "scene.h"

#include <QColor>
#include <QPoint>
#include <QSize>
#include <QString>
#include <QStringList>
#include <QVector>

enum ExitCode {
    kSuccess = 0,
    kFailure = 1, ///< A file, the driver or the pipeline.
    kUsage = 2, ///< The command line.
};

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
    QString pipeline;
    QStringList pipelineFolders;
    QSize size{1280, 720};
    QString camera;
    int frames = 1;
    QString output;
    QColor background; ///< Invalid: transparent.
    QVector<SlotArgument> values;
    QVector<SlotArgument> dumps;
    QVector<Brevane::Kvo::ShadowMapLight> lights;
    SceneSettings scene;
    bool sceneIsGiven = false; ///< Whether any of its settings is.
    QVector<QPair<QString, QString>> paths;
    QVector<QPoint> inspected; ///< Pixels of the picture, counted from its upper left corner.
    QString gallery; ///< The folder; empty: none wanted.
    QStringList galleryModels; ///< Empty: the system's samples.
    QStringList galleryPipelines; ///< Empty: all there are.
    QString listLengths; ///< File for the picture of how long the fragment lists are.
    QVector<Comparison> comparisons;
    QVector<SlotArgument> prints; ///< Outputs whose value is wanted; the text is not used.
    bool timings = false;
    bool quiet = false;
    bool debug = false;
    bool list = false;
    bool glInfo = false;

    /// Reads the program's arguments. False when the program is to end at once, with \a exitCode: after
    /// --help and --version, or after a mistake, which has been printed.
    bool read(const QStringList &arguments, int *exitCode);
};

/// Prints "kvorender: message" to stderr.
void complain(const QString &message);
