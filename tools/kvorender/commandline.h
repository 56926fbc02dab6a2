#pragma once

#include <QColor>
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
    QVector<QPair<QString, QString>> paths;
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
