#pragma once

#include <QString>
#include <QStringList>

// What the programs say to whoever started them.

enum ExitCode {
    kSuccess = 0,
    kFailure = 1, ///< A file, the driver or the pipeline.
    kUsage = 2, ///< The command line.
    kSome = 3, ///< Of several things, some went well and some did not.
};

/// Names the program, in messages and for --version, and sends warnings of the libraries to complain.
void startMessages(const QString &program);

/// Prints "PROGRAM: message" to stderr.
void complain(const QString &message);

/// Complains of the first ones, and says how many there are more.
void complainOf(const QStringList &warnings);
