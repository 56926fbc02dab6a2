#include "support/kvorender.h"

#include <QCoreApplication>
#include <QFile>
#include <QProcess>

namespace Brevane::Kvo::Test {

namespace {

constexpr int kTimeout = 300000; // ms; far more than the longest of these takes.

} // namespace

Outcome KvoRenderTest::run(const QStringList &arguments) const
{
    QProcess process;
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    for (const char *name : {"DISPLAY", "WAYLAND_DISPLAY", "QT_QPA_PLATFORM"})
        environment.remove(QLatin1StringView(name));
    process.setProcessEnvironment(environment);
    process.setWorkingDirectory(folder.path());
    process.start(QCoreApplication::applicationDirPath() + QStringLiteral("/kvorender"), arguments);
    process.closeWriteChannel();
    Outcome outcome;
    if (process.waitForFinished(kTimeout) && process.exitStatus() == QProcess::NormalExit)
        outcome.exitCode = process.exitCode();
    outcome.out = QString::fromUtf8(process.readAllStandardOutput());
    outcome.err = QString::fromUtf8(process.readAllStandardError());
    return outcome;
}

Outcome KvoRenderTest::succeed(const QStringList &arguments) const
{
    const Outcome outcome = run(QStringList(arguments) << QStringLiteral("--gl-debug"));
    EXPECT_EQ(outcome.exitCode, 0) << qPrintable(outcome.err);
    return outcome;
}

void KvoRenderTest::expectFailure(const QStringList &arguments, int exitCode, const char *message) const
{
    const Outcome outcome = run(arguments);
    EXPECT_EQ(outcome.exitCode, exitCode) << qPrintable(arguments.join(QLatin1Char(' '))) << "\n"
                                          << qPrintable(outcome.err);
    const QString last = outcome.err.trimmed().section(QLatin1Char('\n'), -1);
    EXPECT_TRUE(last.startsWith(QStringLiteral("kvorender: ")) && last.contains(QString::fromUtf8(message)))
        << "expected: " << message << "\nfound: " << qPrintable(outcome.err);
    EXPECT_FALSE(QFile::exists(path("out.png"))) << qPrintable(arguments.join(QLatin1Char(' ')));
}

QString KvoRenderTest::path(const char *name) const
{
    return folder.filePath(QLatin1StringView(name));
}

void KvoRenderTest::write(const char *name, const QByteArray &data) const
{
    QFile file(path(name));
    ASSERT_TRUE(file.open(QIODevice::WriteOnly));
    file.write(data);
}

QStringList words(const char *text)
{
    return QString::fromUtf8(text).split(QLatin1Char(' '), Qt::SkipEmptyParts);
}

} // namespace Brevane::Kvo::Test
