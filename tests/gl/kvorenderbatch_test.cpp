#include "support/kvorender.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QImage>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QSet>

// Batches of kvorender: what is shared between pictures and what must not be, what fails and how it is told.

using namespace Brevane::Kvo::Test;
using namespace Qt::StringLiterals;

namespace {

const QString kModels = u"/usr/share/assimp/models/"_s;
const QString kEngine = kModels + u"glTF2/2CylinderEngine-glTF-Binary/2CylinderEngine.glb"_s;
const QString kBox = kModels + u"glTF2/BoxTextured-glTF-Binary/BoxTextured.glb"_s;

class KvoRenderBatch : public KvoRenderTest
{
protected:
    QByteArray read(const QString &name) const
    {
        QFile file(folder.filePath(name));
        return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
    }

    QVector<QJsonObject> report(const char *name) const
    {
        QVector<QJsonObject> pictures;
        for (const QByteArray &line : read(QString::fromUtf8(name)).split('\n'))
            if (!line.isEmpty() && !line.startsWith("{\"summary\""))
                pictures << QJsonDocument::fromJson(line).object();
        return pictures;
    }

    void writeJobs(const char *name, const QVector<QJsonObject> &jobs) const
    {
        QByteArray text;
        for (const QJsonObject &job : jobs)
            text += QJsonDocument(job).toJson(QJsonDocument::Compact) + '\n';
        write(name, text);
    }

    QStringList files() const { return QDir(folder.path()).entryList(QDir::Files | QDir::Hidden); }
};

QStringList shippedPipelines()
{
    QStringList names;
    for (const QString &file : QDir(QStringLiteral(KVO_SOURCE_DIR "/pipelines")).entryList({u"*.json"_s}))
        names << file.chopped(5);
    return names;
}

void expectSameButForRounding(const QImage &a, const QImage &b, const QString &what)
{
    ASSERT_EQ(a.size(), b.size()) << qPrintable(what);
    int differing = 0;
    for (int y = 0; y < a.height(); ++y) {
        for (int x = 0; x < a.width(); ++x) {
            const QRgb p = a.pixel(x, y), q = b.pixel(x, y);
            differing += p != q;
            for (const int step :
                 {qRed(p) - qRed(q), qGreen(p) - qGreen(q), qBlue(p) - qBlue(q), qAlpha(p) - qAlpha(q)})
                EXPECT_LE(std::abs(step), 1) << qPrintable(what) << " at " << x << ", " << y;
        }
    }
    EXPECT_LE(differing, 3) << qPrintable(what);
}

} // namespace

// Whatever a pass remembers, a pool holds or a driver keeps: a picture is the same alone, first, last and behind
// another view of the same pipeline.
TEST_F(KvoRenderBatch, APictureDoesNotDependOnThoseBeforeIt)
{
    const QStringList pipelines = shippedPipelines();
    ASSERT_GE(pipelines.size(), 25);
    QVector<QJsonObject> jobs;
    const auto add = [&](const QString &pipeline, const char *camera, const char *size, const QString &output,
                         int frames = 1) {
        QJsonObject job{{u"pipeline"_s, pipeline},
                        {u"camera"_s, QString::fromUtf8(camera)},
                        {u"size"_s, QString::fromUtf8(size)},
                        {u"output"_s, output},
                        {u"frames"_s, frames}};
        if (pipeline != "gradient"_L1 && pipeline != "cubes"_L1)
            job[u"model"_s] = kBox;
        jobs << job;
    };
    for (const QString &pipeline : pipelines) {
        add(pipeline, "yaw=30", "40x30", pipeline + u"-1.png"_s);
        add(pipeline, "yaw=200:pitch=-40:zoom=3", "40x30", pipeline + u"-other.png"_s, 2);
        add(pipeline, "yaw=30", "40x30", pipeline + u"-2.png"_s);
        add(pipeline, "yaw=10", "56x20", pipeline + u"-wide.png"_s);
        add(pipeline, "yaw=30", "40x30", pipeline + u"-3.png"_s);
    }
    writeJobs("jobs.jsonl", jobs);
    const Outcome outcome = succeed(words("--batch jobs.jsonl -q"));
    for (const QString &pipeline : pipelines) {
        const QByteArray first = read(pipeline + u"-1.png"_s);
        ASSERT_FALSE(first.isEmpty()) << qPrintable(pipeline) << qPrintable(outcome.err);
        const QString name = pipeline + u"-1.png"_s;
        EXPECT_EQ(read(pipeline + u"-2.png"_s), first) << qPrintable(pipeline) << ": behind another view";
        EXPECT_EQ(read(pipeline + u"-3.png"_s), first) << qPrintable(pipeline) << ": behind another size";
        QStringList arguments = words("-s 40x30 -c yaw=30 -q -o alone.png -p") << pipeline;
        if (pipeline != "gradient"_L1 && pipeline != "cubes"_L1)
            arguments << kBox;
        succeed(arguments);
        // Other pipelines may have put the box's map elsewhere among the maps, where a filter rounds otherwise.
        expectSameButForRounding(QImage(path("alone.png")), QImage(path(name.toUtf8().constData())), pipeline);
    }
}

TEST_F(KvoRenderBatch, WhatDiffersBetweenLinesShowsInTheirPictures)
{
    QVector<QJsonObject> jobs{
        {{u"defaults"_s,
          QJsonObject{
              {u"model"_s, kEngine}, {u"size"_s, u"48x32"_s}, {u"pipeline"_s, u"shadows"_s}, {u"frames"_s, 2}}}}};
    const QVector<QPair<QString, QJsonValue>> changes{
        {u"camera"_s, u"yaw=100"_s},
        {u"light"_s, u"directional:0.9,-1,0.2"_s},
        {u"light"_s, u"directional:0.9,-1,0.2:color=#ff0000"_s},
        {u"set"_s, u"Backdrop.ColorTop=#ff0000"_s},
        {u"set"_s, u"Backdrop.ColorTop=#00ff00"_s},
        {u"opacity"_s, 0.5},
        {u"scale"_s, 3},
        {u"floor"_s, true},
        {u"background"_s, u"#123456"_s},
        {u"pipeline"_s, u"glow"_s},
        {u"size"_s, u"32x32"_s},
    };
    jobs << QJsonObject{{u"output"_s, u"plain.png"_s}};
    for (qsizetype i = 0; i < changes.size(); ++i)
        jobs << QJsonObject{{u"output"_s, u"%1.png"_s.arg(i)}, {changes[i].first, changes[i].second}};
    jobs << QJsonObject{{u"output"_s, u"plain-again.png"_s}};
    writeJobs("jobs.jsonl", jobs);
    succeed(words("--batch jobs.jsonl -q --report report.jsonl"));
    EXPECT_EQ(read(u"plain.png"_s), read(u"plain-again.png"_s));
    const QVector<QJsonObject> pictures = report("report.jsonl");
    ASSERT_EQ(pictures.size(), changes.size() + 2);
    QSet<QString> hashes;
    for (const QJsonObject &picture : pictures)
        hashes << picture[u"job"_s].toString();
    EXPECT_EQ(hashes.size(), pictures.size());
    for (qsizetype i = 0; i < changes.size(); ++i) {
        if (changes[i].first == "opacity"_L1 || changes[i].first == "scale"_L1 || changes[i].first == "background"_L1)
            continue; // shows in other pipelines only
        EXPECT_NE(read(u"%1.png"_s.arg(i)), read(u"plain.png"_s)) << qPrintable(changes[i].first) << " " << i;
    }
    EXPECT_NE(read(u"1.png"_s), read(u"2.png"_s)) << "the colour of a light";
    EXPECT_NE(read(u"3.png"_s), read(u"4.png"_s)) << "the value of a slot";
}

TEST_F(KvoRenderBatch, TellsOfEveryPictureAndEndsWithAllSomeOrNone)
{
    write("gone.glb", "x");
    writeJobs("jobs.jsonl", {{{u"output"_s, u"a.png"_s}},
                             {{u"output"_s, u"nowhere/b.png"_s}},
                             {{u"model"_s, u"vanished.glb"_s}, {u"output"_s, u"c.png"_s}},
                             {{u"size"_s, u"0x0"_s}, {u"output"_s, u"d.png"_s}},
                             {{u"pipeline"_s, u"gradent"_s}, {u"output"_s, u"e.png"_s}},
                             {{u"set"_s, u"Gradient.ColorTop=mauve-ish"_s}, {u"output"_s, u"f.png"_s}},
                             {{u"output"_s, u"a.png"_s}},
                             {{u"model"_s, u"gone.glb"_s}, {u"output"_s, u"g.png"_s}},
                             {{u"output"_s, u"z.png"_s}}});
    const Outcome outcome = run(words("--batch jobs.jsonl -s 16x16 --report report.jsonl --retries 2"));
    EXPECT_EQ(outcome.exitCode, 3) << qPrintable(outcome.err);
    const QVector<QJsonObject> pictures = report("report.jsonl");
    ASSERT_EQ(pictures.size(), 9);
    QMap<int, QJsonObject> lines;
    for (const QJsonObject &picture : pictures)
        lines[picture[u"line"_s].toInt()] = picture;
    ASSERT_EQ(lines.size(), 9);
    EXPECT_EQ(lines[1][u"status"_s].toString(), u"done"_s);
    EXPECT_EQ(lines[1][u"bytes"_s].toInteger(), QFileInfo(path("a.png")).size());
    EXPECT_EQ(lines[1][u"attempts"_s].toInt(), 1);
    EXPECT_GT(lines[1][u"seconds"_s].toDouble(), 0.0);
    EXPECT_EQ(lines[9][u"status"_s].toString(), u"done"_s);
    const std::tuple<int, const char *, int> failures[] = {{2, "there is no folder '", 3},
                                                           {3, "vanished.glb", 3},
                                                           {4, "--size takes WIDTHxHEIGHT", 1},
                                                           {5, "did you mean 'gradient'", 3},
                                                           {6, "Gradient.ColorTop", 1},
                                                           {7, "is also written by line 1", 1},
                                                           {8, "gone.glb", 3}};
    for (const auto &[line, text, attempts] : failures) {
        EXPECT_EQ(lines[line][u"status"_s].toString(), u"failed"_s) << line;
        EXPECT_TRUE(lines[line][u"error"_s].toString().contains(QString::fromUtf8(text)))
            << line << ": " << qPrintable(lines[line][u"error"_s].toString());
        EXPECT_EQ(lines[line][u"attempts"_s].toInt(), attempts) << line;
        EXPECT_TRUE(outcome.err.contains(u"kvorender: line %1: "_s.arg(line))) << line;
    }
    EXPECT_TRUE(outcome.err.contains(u"2 picture(s) made, 0 left out, 7 failed in "_s)) << qPrintable(outcome.err);

    writeJobs("none.jsonl", {{{u"model"_s, u"vanished.glb"_s}, {u"output"_s, u"c.png"_s}}});
    EXPECT_EQ(run(words("--batch none.jsonl")).exitCode, 1);
    writeJobs("all.jsonl", {{{u"output"_s, u"a.png"_s}}});
    EXPECT_EQ(run(words("--batch all.jsonl -s 8x8")).exitCode, 0);
    const QStringList left = files();
    for (const QString &file : left)
        EXPECT_FALSE(file.endsWith(".part"_L1)) << qPrintable(file);
}

TEST_F(KvoRenderBatch, RefusesACommandLineThatIsNone)
{
    write("jobs.txt", "{}");
    write("empty.jsonl", "\n\n");
    write("head.jsonl", "{\"defaults\": {\"sise\": \"1x1\"}}\n{}\n");
    write("head.csv", "output,sise\na.png,1x1\n");
    expectFailure(words("--batch nothing.jsonl"), 2, "cannot read 'nothing.jsonl': No such file");
    expectFailure(words("--batch jobs.txt"), 2, "has to end in .jsonl or .csv");
    expectFailure(words("--batch empty.jsonl"), 2, "there are no jobs in 'empty.jsonl'");
    expectFailure(words("--batch head.jsonl"), 2, "line 1: there is no option 'sise'; did you mean 'size'?");
    expectFailure(words("--batch head.csv"), 2, "line 1: there is no option 'sise'; did you mean 'size'?");
    expectFailure(words("--batch a.jsonl --shard 3/2"), 2, "--shard takes I/N with I from 1 to N, not '3/2'");
    expectFailure(words("--batch a.jsonl --timings"), 2, "do not go together");
    for (const char *option : {"--resume", "--retries 1", "--shard 1/2", "--report r", "--manifest m", "--cache 1"})
        expectFailure(words("-o out.png") << words(option), 2, "goes with --batch");
}

TEST_F(KvoRenderBatch, ResumeMakesWhatIsMissingDamagedOrAskedForOtherwise)
{
    const auto jobs = [&](const char *color) {
        writeJobs("jobs.jsonl", {{{u"size"_s, QJsonArray{u"8x8"_s, u"9x9"_s, u"10x10"_s, u"11x11"_s}},
                                  {u"set"_s, u"Gradient.ColorTop=%1"_s.arg(QString::fromUtf8(color))},
                                  {u"output"_s, u"{size}.png"_s}}});
    };
    const auto made = [&](const char *more) {
        const Outcome outcome = run(words("--batch jobs.jsonl --report r.jsonl --resume -q") << words(more));
        EXPECT_EQ(outcome.exitCode, 0) << qPrintable(outcome.err);
        QStringList names;
        for (const QJsonObject &picture : report("r.jsonl"))
            if (picture[u"status"_s].toString() == "done"_L1)
                names << picture[u"output"_s].toString();
        return names;
    };
    jobs("#ff0000");
    EXPECT_EQ(made("").size(), 4);
    EXPECT_EQ(made("").size(), 0);
    const QByteArray before = read(u"9x9.png"_s);
    QFile::remove(path("8x8.png"));
    // Of the same size, but not the same.
    QByteArray damaged = before;
    damaged[damaged.size() / 2] = char(damaged[damaged.size() / 2] ^ 1);
    write("9x9.png", damaged);
    write("10x10.png", read(u"10x10.png"_s).chopped(1));
    EXPECT_EQ(made(""), QStringList({u"8x8.png"_s, u"9x9.png"_s, u"10x10.png"_s}));
    EXPECT_EQ(read(u"9x9.png"_s), before);
    jobs("#00ff00");
    EXPECT_EQ(made("").size(), 4) << "another job of the same files";
    EXPECT_NE(read(u"9x9.png"_s), before);
    // In other parts than before.
    EXPECT_EQ(made("--shard 2/3").size(), 0);
    QFile::remove(path("11x11.png"));
    EXPECT_EQ(made("--shard 1/2").size(), 0);
    EXPECT_EQ(made("--shard 2/2"), QStringList(u"11x11.png"_s));
    EXPECT_EQ(run(words("--batch jobs.jsonl -q")).exitCode, 0);
}

TEST_F(KvoRenderBatch, ShardsTogetherMakeWhatOneRunMakes)
{
    writeJobs("jobs.jsonl", {{{u"pipeline"_s, QJsonArray{u"gradient"_s, u"cubes"_s}},
                              {u"frames"_s, QJsonArray{1, 2, 3}},
                              {u"output"_s, u"{pipeline}-{frames}.png"_s}}});
    EXPECT_EQ(run(words("--batch jobs.jsonl -s 12x10 -q")).exitCode, 0);
    QMap<QString, QByteArray> straight;
    for (const QString &file : files())
        if (file.endsWith(".png"_L1)) {
            straight[file] = read(file);
            QFile::remove(folder.filePath(file));
        }
    ASSERT_EQ(straight.size(), 6);
    int pictures = 0;
    for (const char *shard : {"1/4", "2/4", "3/4", "4/4"}) {
        EXPECT_EQ(
            run(words("--batch jobs.jsonl -s 12x10 -q --report r.jsonl --shard") << QString::fromUtf8(shard)).exitCode,
            0);
        pictures += int(report("r.jsonl").size());
    }
    EXPECT_EQ(pictures, 6);
    for (auto file = straight.cbegin(); file != straight.cend(); ++file)
        EXPECT_EQ(read(file.key()), *file) << qPrintable(file.key());
    EXPECT_EQ(run(words("--batch jobs.jsonl -s 12x10 -q --shard 9/9")).exitCode, 0);
    EXPECT_EQ(run(words("--batch jobs.jsonl -s 12x10 -q --shard 1/9")).exitCode, 0) << "an empty part is done";
}

TEST_F(KvoRenderBatch, NamesAFileThatMayNotBecomeLarger)
{
    writeJobs("jobs.jsonl", {{{u"size"_s, QJsonArray{u"8x8"_s, u"512x512"_s, u"9x9"_s}},
                              {u"pipeline"_s, u"cubes"_s},
                              {u"output"_s, u"{size}.png"_s}}});
    const QString program = QCoreApplication::applicationDirPath() + u"/kvorender"_s;
    QProcess process;
    process.setWorkingDirectory(folder.path());
    process.start(u"bash"_s,
                  {u"-c"_s, u"ulimit -f 2; exec '%1' --batch jobs.jsonl -q --report /dev/stdout"_s.arg(program)});
    ASSERT_TRUE(process.waitForFinished(60000));
    EXPECT_EQ(process.exitCode(), 3) << process.readAllStandardError().constData();
    EXPECT_TRUE(process.readAllStandardOutput().contains("cannot write '512x512.png': File too large"));
    EXPECT_TRUE(QFile::exists(path("9x9.png"))) << "the rest goes on";
    EXPECT_FALSE(QFile::exists(path("512x512.png")));
    EXPECT_FALSE(QFile::exists(path(".512x512.png.part")));
}

TEST_F(KvoRenderBatch, NamesADiskThatIsFullAndAFolderThatIsNotWritable)
{
    writeJobs("jobs.jsonl", {{{u"size"_s, QJsonArray{u"8x8"_s, u"900x900"_s, u"9x9"_s}},
                              {u"pipeline"_s, u"cubes"_s},
                              {u"output"_s, u"disk/{size}.png"_s}}});
    QDir(folder.path()).mkdir(u"disk"_s);
    const QString program = QCoreApplication::applicationDirPath() + u"/kvorender"_s;
    const auto inNamespace = [&](const char *mount) {
        QProcess process;
        process.setWorkingDirectory(folder.path());
        process.start(
            u"unshare"_s,
            {u"-rm"_s, u"bash"_s, u"-c"_s,
             u"%1 || exit 99; '%2' --batch jobs.jsonl -q --report /dev/stdout; code=$?; ls -A disk >&2; exit $code"_s
                 .arg(QString::fromUtf8(mount), program)});
        Outcome outcome;
        if (process.waitForFinished(60000) && process.exitStatus() == QProcess::NormalExit)
            outcome.exitCode = process.exitCode();
        outcome.out = QString::fromUtf8(process.readAllStandardOutput());
        outcome.err = QString::fromUtf8(process.readAllStandardError());
        return outcome;
    };
    const Outcome full = inNamespace("mount -t tmpfs -o size=16k tmpfs disk");
    if (full.exitCode == 99 || full.exitCode == -1 || full.exitCode == 1)
        GTEST_SKIP() << "no mount namespaces here: " << qPrintable(full.err);
    EXPECT_EQ(full.exitCode, 3) << qPrintable(full.err);
    EXPECT_TRUE(full.out.contains(u"cannot write 'disk/900x900.png': No space left on device"_s))
        << qPrintable(full.out);
    EXPECT_TRUE(full.err.contains(u"9x9.png"_s)) << "the rest goes on";
    EXPECT_FALSE(full.err.contains(u".part"_s)) << "and finds room";
    const Outcome readOnly = inNamespace("mount -t tmpfs -o ro tmpfs disk");
    EXPECT_EQ(readOnly.exitCode, 1) << qPrintable(readOnly.err);
    EXPECT_EQ(readOnly.out.count(u"the folder is not writable"_s), 3) << qPrintable(readOnly.out);
}

TEST_F(KvoRenderBatch, ModelsBeyondTheCacheAreReadAgain)
{
    QVector<QJsonObject> jobs;
    for (int i = 0; i < 6; ++i)
        jobs << QJsonObject{{u"model"_s, i % 2 ? kEngine : kBox}, {u"output"_s, u"%1.png"_s.arg(i)}};
    writeJobs("jobs.jsonl", jobs);
    for (const char *cache : {"0", "1024"}) {
        EXPECT_EQ(run(words("--batch jobs.jsonl -s 24x16 -q --cache") << QString::fromUtf8(cache)).exitCode, 0);
        for (int i = 2; i < 6; ++i)
            EXPECT_EQ(read(u"%1.png"_s.arg(i)), read(u"%1.png"_s.arg(i % 2))) << cache << " " << i;
    }
    // A model that changes under a batch is another one.
    write("m.glb", [] {
        QFile f(kBox);
        return f.open(QIODevice::ReadOnly) ? f.readAll() : QByteArray();
    }());
    writeJobs("jobs.jsonl", {{{u"model"_s, u"m.glb"_s}, {u"output"_s, u"m.png"_s}}});
    EXPECT_EQ(run(words("--batch jobs.jsonl -s 24x16 -q")).exitCode, 0);
    EXPECT_EQ(read(u"m.png"_s), read(u"0.png"_s));
    write("m.glb", [] {
        QFile f(kEngine);
        return f.open(QIODevice::ReadOnly) ? f.readAll() : QByteArray();
    }());
    EXPECT_EQ(run(words("--batch jobs.jsonl -s 24x16 -q --resume")).exitCode, 0);
    EXPECT_EQ(read(u"m.png"_s), read(u"1.png"_s));
}
