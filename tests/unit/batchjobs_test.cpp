#include "batchjobs.h"
#include "commandline.h"
#include "manifest.h"

#include <QDir>
#include <QFile>
#include <QJsonDocument>
#include <QSet>
#include <QTemporaryDir>

#include <gtest/gtest.h>

// The jobs of a batch: how lines become pictures, what tells pictures apart, and who makes which.

using namespace Qt::StringLiterals;

namespace {

BatchJobs jobsOf(const QByteArray &lines, const OptionTexts &defaults = {})
{
    BatchJobs jobs(CommandLine::options(), defaults);
    QString error;
    EXPECT_TRUE(jobs.readLines(lines, &error)) << qPrintable(error);
    return jobs;
}

BatchJobs tableOf(const QByteArray &text)
{
    BatchJobs jobs(CommandLine::options(), {});
    QString error;
    EXPECT_TRUE(jobs.readTable(text, &error)) << qPrintable(error);
    return jobs;
}

QStringList texts(const BatchJobs &jobs, const QString &option)
{
    QStringList all;
    for (const BatchJob &job : jobs.jobs())
        all << job.options.value(option).join(u'|');
    return all;
}

QStringList outputs(const BatchJobs &jobs)
{
    return texts(jobs, u"output"_s);
}

QString errorOf(const QByteArray &lines)
{
    const BatchJobs jobs = jobsOf(lines);
    return jobs.jobs().isEmpty() ? u"no job"_s : jobs.jobs().last().error;
}

void write(const QString &path, const QByteArray &data)
{
    QFile file(path);
    ASSERT_TRUE(file.open(QIODevice::WriteOnly));
    file.write(data);
}

} // namespace

// Each line may make as many as there may be; all of them together may not.
TEST(BatchJobs, LinesBeyondTheMostPicturesAreMistakes)
{
    BatchJobs jobs(CommandLine::options(), {});
    jobs.setMost(5);
    QString error;
    const QByteArray three = R"({"frames": {"from": 1, "to": 3, "count": 3}, "output": "{line}-{n}.png"})"
                             "\n";
    const QByteArray two = R"({"frames": [1, 2], "output": "{line}-{n}.png"})"
                           "\n";
    ASSERT_TRUE(jobs.readLines(three + three + two, &error)) << qPrintable(error);
    // What stands in for the second line counts as one.
    ASSERT_EQ(jobs.jobs().size(), 5);
    EXPECT_EQ(jobs.jobs()[2].error, QString());
    EXPECT_EQ(jobs.jobs()[3].error, u"with this line the file makes more than 5 pictures"_s);
    EXPECT_EQ(jobs.jobs()[4].error, u"with this line the file makes more than 5 pictures"_s);
}

TEST(BatchJobs, ALineIsACommandLine)
{
    const BatchJobs jobs = jobsOf(
        R"({"model": "a.glb", "pipeline": "glow", "size": "64x48", "frames": 2, "floor": true, "set": ["Glow.BlurRadius=4", "Glow.GlowAmount=0.5"], "output": "a.png"})");
    ASSERT_EQ(jobs.jobs().size(), 1);
    const BatchJob &job = jobs.jobs()[0];
    EXPECT_EQ(job.error, QString());
    EXPECT_EQ(job.model, u"a.glb"_s);
    CommandLine commandLine;
    QString error;
    ASSERT_TRUE(commandLine.read(job, &error)) << qPrintable(error);
    EXPECT_EQ(commandLine.model, u"a.glb"_s);
    EXPECT_EQ(commandLine.pipeline, u"glow"_s);
    EXPECT_EQ(commandLine.size, QSize(64, 48));
    EXPECT_EQ(commandLine.frames, 2);
    EXPECT_TRUE(commandLine.scene.floor);
    ASSERT_EQ(commandLine.settings.values.size(), 2);
    EXPECT_EQ(commandLine.settings.values[1].first.section(u'.', 1), u"GlowAmount"_s);
    EXPECT_EQ(commandLine.output, u"a.png"_s);
}

TEST(BatchJobs, EveryOptionOfAPictureIsAKeyAndThoseOfARunAreNot)
{
    int pictures = 0, runs = 0;
    for (const Option &option : CommandLine::options()) {
        const QByteArray key = option.longName().toUtf8();
        const QString error = errorOf("{\"" + key + "\": \"x\", \"output\": \"a.png\"}");
        const bool isKnown = !error.startsWith(u"there is no option"_s);
        EXPECT_EQ(isKnown, !option.ofRun) << key.constData() << qPrintable(error);
        ++(option.ofRun ? runs : pictures);
    }
    EXPECT_GE(pictures, 18);
    EXPECT_GE(runs, 10);
}

TEST(BatchJobs, RangesAndListsMultiplyAndTheLastTurnsFastest)
{
    const BatchJobs jobs = jobsOf(
        R"({"model": ["x/a.glb", "b.obj"], "camera": {"yaw": {"from": 0, "to": 350, "count": 36}, "pitch": [10, 20.5]}, "output": "{model}-{camera.yaw:3}-{camera.pitch}.png"})");
    ASSERT_EQ(jobs.jobs().size(), 2 * 36 * 2);
    const QStringList names = outputs(jobs);
    QSet<QString> different(names.begin(), names.end());
    EXPECT_EQ(different.size(), names.size());
    EXPECT_TRUE(names.contains(u"a-000-10.png"_s));
    EXPECT_TRUE(names.contains(u"b-350-20.5.png"_s));
    EXPECT_EQ(names.first().left(2), u"a-"_s) << "models change least";
    EXPECT_EQ(names.last().left(2), u"b-"_s);
    for (const BatchJob &job : jobs.jobs())
        EXPECT_EQ(job.options[u"camera"_s].size(), 1) << "one text";
    EXPECT_EQ(jobs.jobs()[0].options[u"camera"_s][0], u"pitch=10:yaw=0"_s);
}

// Everything that a picture writes has places for what is its own; and signs stand before the zeros.
TEST(BatchJobs, FilesBesideThePictureAreNamedLikeIt)
{
    const BatchJobs jobs = jobsOf(
        R"({"model": "x/a.glb", "camera": {"yaw": [-5, 5, -1234]}, "output": "{camera.yaw:4}.png", "dump": ["Model.Depth={model}-{n}.exr", "Model.Normal={n}.png"], "compare": "A.B,C.D={line}-{n}.png", "oit-lengths": "l{n:2}.png", "print": "A.{n}"})");
    ASSERT_EQ(jobs.jobs().size(), 3);
    EXPECT_EQ(outputs(jobs), QStringList({u"-005.png"_s, u"0005.png"_s, u"-1234.png"_s}));
    EXPECT_EQ(jobs.jobs()[1].options[u"dump"_s], QStringList({u"Model.Depth=a-1.exr"_s, u"Model.Normal=1.png"_s}));
    EXPECT_EQ(jobs.jobs()[1].options[u"compare"_s], QStringList({u"A.B,C.D=1-1.png"_s}));
    EXPECT_EQ(jobs.jobs()[2].options[u"oit-lengths"_s], QStringList({u"l02.png"_s}));
    EXPECT_EQ(jobs.jobs()[2].options[u"print"_s], QStringList({u"A.{n}"_s})) << "no file";
    EXPECT_EQ(filesOf(jobs.jobs()[0].options),
              QStringList({u"-005.png"_s, u"a-0.exr"_s, u"0.png"_s, u"1-0.png"_s, u"l00.png"_s}));
    for (const BatchJob &job : jobs.jobs())
        EXPECT_EQ(job.error, QString());
    EXPECT_EQ(jobsOf(R"({"dump": "A.B={nobody}.png", "output": "{n}.png"})").jobs()[0].error,
              u"dump 'A.B={nobody}.png': the picture has no 'nobody'"_s);
}

// Three numbers are a place for what takes one, and three numbers for what does not.
TEST(BatchJobs, AListOfThreeNumbersIsAPlaceForPlacesOnly)
{
    const BatchJobs jobs =
        jobsOf(R"({"model": "a.obj", "camera": {"yaw": [0, 120, 240], "target": [1, 2, 3]}, "output": "{n}.png"})");
    ASSERT_EQ(jobs.jobs().size(), 3);
    EXPECT_EQ(texts(jobs, u"camera"_s),
              QStringList({u"target=1,2,3:yaw=0"_s, u"target=1,2,3:yaw=120"_s, u"target=1,2,3:yaw=240"_s}));
}

TEST(BatchJobs, RangesTakeInBothEndsAndASingleValueIsTheFirst)
{
    const auto values = [](const char *range) {
        return texts(jobsOf("{\"frames\": " + QByteArray(range) + ", \"output\": \"{n}.png\"}"), u"frames"_s);
    };
    EXPECT_EQ(values(R"({"from": 1, "to": 9, "count": 5})"), QStringList({u"1"_s, u"3"_s, u"5"_s, u"7"_s, u"9"_s}));
    EXPECT_EQ(values(R"({"from": 9, "to": 1, "count": 3})"), QStringList({u"9"_s, u"5"_s, u"1"_s}));
    EXPECT_EQ(values(R"({"from": 4, "to": 9, "count": 1})"), QStringList(u"4"_s));
    EXPECT_EQ(values(R"({"from": 0, "to": 1, "count": 4})"),
              QStringList({u"0"_s, u"0.333333333"_s, u"0.666666667"_s, u"1"_s}));
}

TEST(BatchJobs, OptionsThatRepeatTakeAllOfAListAndEachOfAnother)
{
    const BatchJobs jobs = jobsOf(
        R"({"set": [{"each": ["A.B=1", "A.B=2"]}, "C.D=[1,2,3]"], "light": {"each": [["spot:0,1,0,0,-1,0", "point:1,1,1"], ["point:0,0,0"]]}, "output": "{n}.png"})");
    EXPECT_EQ(texts(jobs, u"set"_s), QStringList({u"A.B=1|C.D=[1,2,3]"_s, u"A.B=1|C.D=[1,2,3]"_s,
                                                  u"A.B=2|C.D=[1,2,3]"_s, u"A.B=2|C.D=[1,2,3]"_s}));
    EXPECT_EQ(texts(jobs, u"light"_s).mid(0, 2), QStringList({u"spot:0,1,0,0,-1,0|point:1,1,1"_s, u"point:0,0,0"_s}));
    const BatchJobs parts = jobsOf(
        R"({"set": {"Glow.BlurRadius": {"from": 2, "to": 6, "count": 3}, "Lens.Focus": [0.5, 0.25]}, "output": "{set.Glow.BlurRadius}.png"})");
    EXPECT_EQ(outputs(parts), QStringList({u"2.png"_s, u"4.png"_s, u"6.png"_s}));
    EXPECT_EQ(texts(parts, u"set"_s)[0], u"Glow.BlurRadius=2|Lens.Focus=[0.5,0.25]"_s);
}

TEST(BatchJobs, PlacesOfACameraAreNoChoice)
{
    const BatchJobs jobs = jobsOf(R"({"camera": {"eye": [1, 2.5, 3], "fov": [30, 40]}, "output": "{n}.png"})");
    EXPECT_EQ(texts(jobs, u"camera"_s), QStringList({u"eye=1,2.5,3:fov=30"_s, u"eye=1,2.5,3:fov=40"_s}));
    const BatchJobs two = jobsOf(R"({"camera": {"eye": [[1, 2, 3], [4, 5, 6]]}, "output": "{n}.png"})");
    EXPECT_EQ(texts(two, u"camera"_s), QStringList({u"eye=1,2,3"_s, u"eye=4,5,6"_s}));
}

TEST(BatchJobs, DefaultsOfTheCommandLineAndTheHeaderGiveWayInTurn)
{
    const BatchJobs jobs =
        jobsOf("{\"defaults\": {\"size\": \"32x32\", \"camera\": {\"yaw\": 5, \"pitch\": 6}, \"floor\": true}}\n"
               "\n"
               "{\"output\": \"a.png\"}\n"
               "{\"output\": \"b.png\", \"size\": \"8x8\", \"camera\": {\"yaw\": 7}, \"floor\": false}\n"
               "{\"output\": \"c.png\", \"camera\": \"fit\", \"size\": null}\n",
               {{u"size"_s, {u"16x16"_s}}, {u"frames"_s, {u"3"_s}}, {u"model"_s, {u"m.glb"_s}}});
    ASSERT_EQ(jobs.jobs().size(), 3);
    EXPECT_EQ(texts(jobs, u"size"_s), QStringList({u"32x32"_s, u"8x8"_s, QString()}));
    EXPECT_EQ(texts(jobs, u"camera"_s), QStringList({u"pitch=6:yaw=5"_s, u"pitch=6:yaw=7"_s, u"fit"_s}));
    EXPECT_EQ(texts(jobs, u"frames"_s), QStringList({u"3"_s, u"3"_s, u"3"_s}));
    EXPECT_TRUE(jobs.jobs()[0].options.contains(u"floor"_s));
    EXPECT_FALSE(jobs.jobs()[1].options.contains(u"floor"_s));
    for (const BatchJob &job : jobs.jobs())
        EXPECT_EQ(job.model, u"m.glb"_s);
    EXPECT_EQ(jobs.jobs()[0].line, 3) << "empty lines count";
}

TEST(BatchJobs, TablesHaveColumnsWithDotsAndDefaultsAndQuotes)
{
    const BatchJobs jobs = tableOf("\"model\", output ,camera.yaw,set.Glow.BlurRadius,size=64x48,light\r\n"
                                   "a.glb,a.png,30,4,,\r\n"
                                   "\r\n"
                                   "\"b, \"\"c\"\".glb\",b.png,,,8x8,\"point:1,2,3\"\n"
                                   "c.glb,c.png,1,2,3x3,,extra");
    ASSERT_EQ(jobs.jobs().size(), 3);
    EXPECT_EQ(jobs.jobs()[0].options, (OptionTexts{{u"output"_s, {u"a.png"_s}},
                                                   {u"camera"_s, {u"yaw=30"_s}},
                                                   {u"set"_s, {u"Glow.BlurRadius=4"_s}},
                                                   {u"size"_s, {u"64x48"_s}}}));
    EXPECT_EQ(jobs.jobs()[1].model, u"b, \"c\".glb"_s);
    EXPECT_EQ(jobs.jobs()[1].options[u"light"_s], QStringList(u"point:1,2,3"_s));
    EXPECT_EQ(jobs.jobs()[1].options[u"size"_s], QStringList(u"8x8"_s));
    EXPECT_EQ(jobs.jobs()[1].line, 4);
    EXPECT_EQ(jobs.jobs()[2].error, u"7 fields for 6 columns"_s);
}

TEST(BatchJobs, AMistakeIsThatOfItsLineAndTheOthersStay)
{
    const BatchJobs jobs =
        jobsOf("{\"output\": \"a.png\"}\nnonsense\n[1]\n{\"pipline\": \"x\"}\n{\"output\": \"b.png\"}\n");
    ASSERT_EQ(jobs.jobs().size(), 5);
    EXPECT_EQ(jobs.jobs()[0].error, QString());
    EXPECT_TRUE(jobs.jobs()[1].error.startsWith(u"not JSON: "_s)) << qPrintable(jobs.jobs()[1].error);
    EXPECT_EQ(jobs.jobs()[2].error, u"not an object"_s);
    EXPECT_EQ(jobs.jobs()[3].error, u"there is no option 'pipline'; did you mean 'pipeline'?"_s);
    EXPECT_EQ(jobs.jobs()[3].place, u"line 4"_s);
    EXPECT_EQ(jobs.jobs()[4].error, QString());
}

TEST(BatchJobs, NamesWhatIsWrongWithAValue)
{
    const std::pair<const char *, const char *> cases[] = {
        {R"({"frames": {"from": 1, "to": 2}})", "a range is"},
        {R"({"frames": {"from": 1, "to": 2, "count": 0}})", "a range is"},
        {R"({"frames": {"from": 1, "to": 2, "count": 1.5}})", "a range is"},
        {R"({"frames": []})", "'frames' has no values"},
        {R"({"frames": {"each": []}})", "takes a list"},
        {R"({"size": {"w": 3}})", "'size' does not take {\"w\":3}"},
        {R"({"floor": "maybe"})", "'floor' is true or false, not maybe"},
        {R"({"output": "{camera.yaw}.png"})", "the picture has no 'camera.yaw'"},
        {R"({"output": "{model}.png"})", "the picture has no 'model'"},
        {R"({"frames": {"from": 1, "to": 2, "count": 1000000}, "size": ["1x1", "2x2"]})", "more than 1000000 pictures"},
        {R"({"frames": {"from": 1, "to": 2, "count": 1e18}})", "more than 1000000 pictures"},
        {R"({"batch": "other.jsonl"})", "there is no option 'batch'"},
    };
    for (const auto &[line, message] : cases)
        EXPECT_TRUE(errorOf(line).contains(QString::fromUtf8(message))) << line << ": " << qPrintable(errorOf(line));
}

TEST(BatchJobs, TwoPicturesOfOneFileAreAMistakeOfTheSecond)
{
    const BatchJobs jobs = jobsOf(
        "{\"output\": \"x/a.png\"}\n{\"output\": \"x/../x/a.png\"}\n{\"frames\": [1, 2], \"output\": \"b.png\"}\n");
    EXPECT_EQ(jobs.jobs()[0].error, QString());
    EXPECT_EQ(jobs.jobs()[1].error, u"'x/../x/a.png' is also written by line 1"_s);
    EXPECT_EQ(jobs.jobs()[2].error, QString());
    EXPECT_EQ(jobs.jobs()[3].error, u"'b.png' is also written by line 3, picture 1"_s);
    // Whatever it is that writes it.
    const BatchJobs beside = jobsOf("{\"output\": \"a.png\", \"dump\": \"A.B=x.exr\"}\n"
                                    "{\"output\": \"b.png\", \"dump\": \"A.B=./x.exr\"}\n"
                                    "{\"output\": \"c.png\", \"oit-lengths\": \"a.png\"}\n"
                                    "{\"output\": \"d.png\", \"compare\": \"A.B,A.C\"}\n"
                                    "{\"output\": \"e.png\", \"compare\": \"A.B,A.C\"}\n");
    EXPECT_EQ(beside.jobs()[0].error, QString());
    EXPECT_EQ(beside.jobs()[1].error, u"'./x.exr' is also written by line 1"_s);
    EXPECT_EQ(beside.jobs()[2].error, u"'a.png' is also written by line 1"_s);
    EXPECT_EQ(beside.jobs()[3].error, QString());
    EXPECT_EQ(beside.jobs()[4].error, QString());
}

TEST(BatchShards, EveryPictureIsInExactlyOne)
{
    for (const int total : {0, 1, 2, 7, 36, 200}) {
        QByteArray lines;
        for (int i = 0; i < total; ++i)
            lines += "{\"output\": \"" + QByteArray::number(i) + ".png\"}\n";
        const BatchJobs jobs = jobsOf(lines);
        for (const int count : {1, 2, 3, 4, 7, 13, 300}) {
            QStringList all;
            qsizetype least = total, most = 0;
            for (int index = 1; index <= count; ++index) {
                const QVector<BatchJob> mine = jobs.jobsOf({index, count});
                least = std::min(least, mine.size());
                most = std::max(most, mine.size());
                for (const BatchJob &job : mine)
                    all << job.output();
            }
            EXPECT_EQ(all, outputs(jobs)) << total << " over " << count;
            EXPECT_LE(most - least, 1) << total << " over " << count;
        }
    }
}

TEST(BatchShards, AreReadAndNamed)
{
    Shard shard;
    EXPECT_TRUE(Shard::parse(u"2/4"_s, &shard));
    EXPECT_EQ(shard.index, 2);
    EXPECT_EQ(shard.count, 4);
    for (const char *wrong : {"0/4", "5/4", "1", "1/", "/1", "-1/4", "a/b", "1/0", " 1/2"})
        EXPECT_FALSE(Shard::parse(QString::fromUtf8(wrong), &shard)) << wrong;
}

namespace {

/// A folder with all that a picture can depend on.
class JobHashes : public ::testing::Test
{
protected:
    JobHashes()
    {
        write(path("m.gltf"), R"({"buffers": [{"uri": "m.bin"}]})");
        write(path("m.bin"), "12345678");
        write(path("p.json"), R"({"calls": [{"setFragmentShaderSource": [{"contentOf": "p.frag"}]}]})");
        write(path("p.frag"), "void main() {}");
        write(path("tex.png"), "png");
        job.model = path("m.gltf");
        job.options = {{u"output"_s, {u"a.png"_s}}, {u"path"_s, {u"t="_s + path("tex.png")}}};
    }

    QString path(const char *name) const { return folder.filePath(QString::fromUtf8(name)); }
    QByteArray hash(const QByteArray &version = "1") const { return JobHasher(version).hashOf(job, path("p.json")); }

    const QTemporaryDir folder;
    BatchJob job;
};

} // namespace

TEST_F(JobHashes, EveryOptionCounts)
{
    QSet<QByteArray> seen{hash()};
    int count = 1;
    for (const Option &option : CommandLine::options()) {
        if (option.ofRun)
            continue;
        const OptionTexts before = job.options;
        for (const QStringList &values : {QStringList{u"1"_s}, QStringList{u"2"_s}, QStringList{u"1"_s, u"2"_s}}) {
            job.options[option.longName()] = values;
            seen.insert(hash());
            ++count;
        }
        job.options = before;
    }
    EXPECT_EQ(seen.size(), count);
    job.model = path("m.bin");
    EXPECT_FALSE(seen.contains(hash())) << "the model counts";
}

TEST_F(JobHashes, EveryFileAPictureIsMadeOfCounts)
{
    const QByteArray before = hash();
    EXPECT_EQ(hash(), before) << "the same again";
    for (const char *name : {"m.gltf", "m.bin", "p.json", "p.frag", "tex.png"}) {
        QFile file(path(name));
        ASSERT_TRUE(file.open(QIODevice::ReadWrite));
        const QByteArray content = file.readAll();
        file.seek(0);
        QByteArray other = content;
        other[other.size() - 1] = other.endsWith(' ') ? 'x' : char(other.back() ^ 1);
        file.write(other); // of the same size
        file.close();
        EXPECT_NE(hash(), before) << name;
        write(path(name), content);
        EXPECT_EQ(hash(), before) << name << ": contents count, and not times";
        QFile::rename(path(name), path("elsewhere"));
        EXPECT_NE(hash(), before) << name << " is gone";
        QFile::rename(path("elsewhere"), path(name));
    }
    EXPECT_NE(hash("2"), before) << "another version";
}

TEST_F(JobHashes, FilesThatNameOneAnotherEnd)
{
    write(path("p.json"), R"(["q.json"])");
    write(path("q.json"), R"(["p.json", "q.json"])");
    EXPECT_EQ(hash().size(), 64);
}

TEST(Manifests, TellWhatIsThereAndAsItWas)
{
    const QTemporaryDir folder;
    const auto path = [&](const char *name) { return folder.filePath(QString::fromUtf8(name)); };
    QString error;
    write(path("a.png"), "first");
    write(path("b.png"), "second");
    {
        Manifest manifest(path("done"));
        ASSERT_TRUE(manifest.begin({}, &error)) << qPrintable(error);
        ASSERT_TRUE(manifest.note("aa", {path("a.png")}, &error));
        ASSERT_TRUE(manifest.note("bb", {path("b.png"), path("a.png")}, &error));
    }
    const auto complete = [&](const char *hash) {
        Manifest manifest(path("done-3of7"));
        manifest.readAll();
        return manifest.isComplete(hash);
    };
    EXPECT_TRUE(complete("aa")) << "of another shard";
    EXPECT_TRUE(complete("bb"));
    EXPECT_FALSE(complete("cc")) << "another job";
    write(path("b.png"), "Second");
    EXPECT_FALSE(complete("bb")) << "the size is not enough";
    write(path("b.png"), "second!");
    EXPECT_FALSE(complete("bb"));
    QFile::remove(path("b.png"));
    EXPECT_FALSE(complete("bb"));
    EXPECT_TRUE(complete("aa"));
}

TEST(Manifests, ALineThatWasCutOffIsNone)
{
    const QTemporaryDir folder;
    const QString done = folder.filePath(u"done"_s);
    const QString picture = folder.filePath(u"a.png"_s);
    write(picture, "first");
    QString error;
    QByteArray whole;
    {
        Manifest manifest(done);
        ASSERT_TRUE(manifest.begin({}, &error));
        ASSERT_TRUE(manifest.note("aa", {picture}, &error));
        QFile file(done);
        ASSERT_TRUE(file.open(QIODevice::ReadOnly));
        whole = file.readAll();
    }
    for (qsizetype size = 0; size < whole.size() - 1; ++size) {
        write(done, whole.left(size));
        Manifest manifest(done);
        manifest.readAll();
        EXPECT_FALSE(manifest.isComplete("aa")) << size;
        ASSERT_TRUE(manifest.begin({"aa"}, &error));
        ASSERT_TRUE(manifest.note("aa", {picture}, &error)) << "and does not hurt the next";
        EXPECT_TRUE(manifest.isComplete("aa"));
    }
}

TEST(Manifests, DoNotTellHowOftenABatchWasInterrupted)
{
    const QTemporaryDir folder;
    const QString done = folder.filePath(u"done"_s);
    for (const char *name : {"a", "b", "c"})
        write(folder.filePath(QString::fromUtf8(name)), name);
    const auto read = [&] {
        QFile file(done);
        return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
    };
    QString error;
    QByteArray straight;
    for (const QList<QByteArray> &order : {QList<QByteArray>{"a", "b", "c"}, QList<QByteArray>{"c", "a", "b", "a"}}) {
        QFile::remove(done);
        for (const QByteArray &hash : order) {
            Manifest manifest(done);
            manifest.readAll();
            ASSERT_TRUE(manifest.begin({"a", "b", "c"}, &error));
            ASSERT_TRUE(manifest.note(hash, {folder.filePath(QString::fromUtf8(hash))}, &error));
            ASSERT_TRUE(manifest.finish({"a", "b", "c"}, &error));
        }
        EXPECT_EQ(read().count('\n'), 3);
        if (straight.isEmpty())
            straight = read();
        EXPECT_EQ(read(), straight);
    }
}
