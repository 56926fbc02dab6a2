#pragma once

#include <QString>
#include <QStringList>
#include <QTemporaryDir>

#include <gtest/gtest.h>

namespace Brevane::Kvo::Test {

/// How a run of a program ended.
struct Outcome
{
    int exitCode = -1; ///< -1: it did not end by itself.
    QString out;
    QString err;
};

/// Fixture of tests that start kvorender as people do, in a folder of the test's own.
class KvoRenderTest : public ::testing::Test
{
protected:
    Outcome run(const QStringList &arguments) const;
    /// Runs, and expects success without OpenGL errors.
    Outcome succeed(const QStringList &arguments) const;
    /// Runs, and expects an exit code and, as the last line on stderr, a message with this text, and no
    /// "out.png".
    void expectFailure(const QStringList &arguments, int exitCode, const char *message) const;
    QString path(const char *name) const;
    void write(const char *name, const QByteArray &data) const;

    const QTemporaryDir folder;
};

/// The words of a text.
QStringList words(const char *text);

} // namespace Brevane::Kvo::Test
