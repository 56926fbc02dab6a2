#include "support/kvorender.h"

#include <QCoreApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QMap>
#include <QProcess>

#include <cstdlib>
#include <random>

// A batch that is killed, at any moment and any number of times, ends with the files of one that was not.

using namespace Brevane::Kvo::Test;
using namespace Qt::StringLiterals;

namespace {

constexpr int kKills = 200;
constexpr int kTimeout = 60000; // ms
constexpr int kMostRuns = 60; // of one round: each makes at least some progress, most of them much

class KvoRenderResume : public KvoRenderTest
{
protected:
    QMap<QString, QByteArray> contents() const
    {
        QMap<QString, QByteArray> all;
        for (const QString &name : QDir(folder.path()).entryList(QDir::Files | QDir::Hidden)) {
            QFile file(folder.filePath(name));
            if (file.open(QIODevice::ReadOnly))
                all[name] = file.readAll();
        }
        return all;
    }

    void clean() const
    {
        for (const QString &name : QDir(folder.path()).entryList(QDir::Files | QDir::Hidden))
            if (!name.startsWith("jobs.jsonl"_L1) || name.contains("manifest"_L1))
                QFile::remove(folder.filePath(name));
    }
};

} // namespace

TEST_F(KvoRenderResume, KillsLeaveTheSameFilesByteForByte)
{
    write(
        "jobs.jsonl",
        R"({"pipeline": ["gradient", "cubes"], "size": ["40x30", "300x200", "64x64"], "frames": [1, 2], "camera": {"yaw": [10, 20]}, "output": "{pipeline}-{size}-{frames}-{camera.yaw}.png"}
)");
    const QString program = QCoreApplication::applicationDirPath() + u"/kvorender"_s;
    const QStringList arguments = words("--batch jobs.jsonl -q --resume");
    QElapsedTimer timer;
    timer.start();
    ASSERT_EQ(run(arguments).exitCode, 0);
    const int whole = int(timer.elapsed());
    const QMap<QString, QByteArray> straight = contents();
    ASSERT_EQ(straight.size(), 24 + 2) << "pictures, jobs and manifest";

    const unsigned seed = std::random_device()();
    std::mt19937 random(seed);
    const auto below = [&](int most) { return int(random() % unsigned(std::max(most, 1))); };
    int kills = 0, rounds = 0, midway = 0;
    while (kills < kKills) {
        clean();
        ++rounds;
        for (int runs = 0;; ++runs) {
            ASSERT_LT(runs, kMostRuns) << "no progress; seed " << seed;
            QProcess process;
            process.setWorkingDirectory(folder.path());
            process.start(program, arguments);
            ASSERT_TRUE(process.waitForStarted());
            // Half of them at any time, half among the pictures: behind one that is just there.
            const qsizetype before = contents().size();
            if (kills < kKills && below(2) == 0) {
                process.waitForFinished(below(whole));
            } else if (kills < kKills) {
                while (process.state() != QProcess::NotRunning && contents().size() <= before + below(3))
                    process.waitForFinished(1);
                process.waitForFinished(below(4));
            } else {
                process.waitForFinished(kTimeout);
            }
            if (process.state() == QProcess::NotRunning) {
                ASSERT_EQ(process.exitCode(), 0) << "seed " << seed << process.readAllStandardError().constData();
                break;
            }
            process.kill();
            ASSERT_TRUE(process.waitForFinished(kTimeout));
            midway += process.exitStatus() == QProcess::CrashExit && contents().size() > 2;
            ++kills;
        }
        const QMap<QString, QByteArray> now = contents();
        ASSERT_EQ(now.keys(), straight.keys()) << "seed " << seed;
        for (auto file = straight.cbegin(); file != straight.cend(); ++file)
            ASSERT_EQ(now[file.key()], *file) << qPrintable(file.key()) << ", seed " << seed;
    }
    std::printf("%d kills in %d rounds, %d of them among the pictures; seed %u\n", kills, rounds, midway, seed);
    EXPECT_GT(midway, kKills / 4) << "they have to hit something";
}
