#include "pipelineversions.h"

#include <host/pipeline.h>
#include <host/pipelinefile.h>

#include <QDir>
#include <QFile>
#include <QTemporaryDir>

#include <gtest/gtest.h>

// Older files are converted, newer ones are refused. The format has had no change yet, so that the steps of these tests
// are their own.

using namespace Brevane::Kvo;
using namespace Qt::StringLiterals;

namespace {

QByteArray renameGradient(const QByteArray &text)
{
    return QByteArray(text).replace("\"OldGradient\"", "\"GradientRenderPass\"");
}

QByteArray renameInputs(const QByteArray &text)
{
    return QByteArray(text).replace("\"values\"", "\"inputs\"");
}

const QVector<FormatStep> kSteps{renameGradient, renameInputs};

struct Result
{
    bool ok = false;
    QByteArray text;
    int line = 0;
    QString error;
};

Result converted(const QByteArray &text, const QVector<FormatStep> &steps = kSteps)
{
    Result result{.text = text};
    result.ok = bringUpToDate(&result.text, steps, &result.line, &result.error);
    return result;
}

constexpr char kOld[] = R"({
  // from years ago
  "passes": [
    { "name": "A", "class": "OldGradient", "values": { "ColorTop": "#ff0000" } } /* the only one */
  ]
})";
constexpr char kNew[] = R"({ "version": 3,
  // from years ago
  "passes": [
    { "name": "A", "class": "GradientRenderPass", "inputs": { "ColorTop": "#ff0000" } } /* the only one */
  ]
})";

} // namespace

TEST(PipelineVersions, AFileWithoutOneIsTheFirstAndGoesThroughAllSteps)
{
    const Result result = converted(kOld);
    EXPECT_TRUE(result.ok) << qPrintable(result.error);
    EXPECT_EQ(result.text, kNew);
    Pipeline pipeline;
    QStringList errors;
    // In a library that had these steps this would be the newest.
    EXPECT_TRUE(
        loadPipelineText(QByteArray(result.text).replace("\"version\": 3,", ""), u"a.json"_s, &pipeline, &errors))
        << qPrintable(errors.join(u'\n'));
    EXPECT_EQ(pipeline.passNames(), QStringList(u"A"_s));
}

TEST(PipelineVersions, OnlyTheStepsThatAFileLacksAreTaken)
{
    const QByteArray second = QByteArray(kOld).replace("{\n", "{\n  \"version\": 2,\n");
    const Result result = converted(second);
    EXPECT_TRUE(result.ok);
    EXPECT_TRUE(result.text.contains("\"OldGradient\"")) << "of the first step";
    EXPECT_TRUE(result.text.contains("\"inputs\"")) << "of the second step";
    EXPECT_TRUE(result.text.contains("\"version\": 3,\n"));
    EXPECT_EQ(converted(kNew).text, kNew) << "up to date";
    EXPECT_EQ(converted(kOld, {}).text, kOld) << "no steps, no change";
}

TEST(PipelineVersions, LinesStayWhereTheyAre)
{
    EXPECT_EQ(converted(kOld).text.count('\n'), QByteArray(kOld).count('\n'));
}

TEST(PipelineVersions, WhatCannotBeParsedIsLeftToTheReader)
{
    for (const char *text : {"", "{", "[1, 2]", "3", "{ \"version\": }"}) {
        const Result result = converted(text);
        EXPECT_TRUE(result.ok) << text;
        EXPECT_EQ(result.text, text);
    }
    EXPECT_EQ(converted("{}").text, "{ \"version\": 3}");
}

TEST(PipelineVersions, NewerOnesAreRefusedWithTheirLine)
{
    const Result result = converted("{\n  \"passes\": [],\n  \"version\": 4\n}");
    EXPECT_FALSE(result.ok);
    EXPECT_EQ(result.line, 3);
    EXPECT_EQ(result.error,
              u"the file has version 4 of the format, and this library knows up to 3: it takes a newer one"_s);
}

TEST(PipelineVersions, AVersionThatIsNoneIsNamed)
{
    for (const auto &[value, said] : {std::pair("0", "0"), std::pair("-1", "-1"), std::pair("1.5", "1.5")}) {
        const Result result = converted(QByteArray("{ \"version\": ") + value + " }");
        EXPECT_FALSE(result.ok) << value;
        EXPECT_TRUE(result.error.contains(QLatin1StringView(said))) << qPrintable(result.error);
    }
    for (const char *value : {"\"1\"", "null", "true", "[1]", "{}"})
        EXPECT_FALSE(converted(QByteArray("{ \"version\": ") + value + " }").ok) << value;
}

TEST(PipelineVersions, TheLibraryRefusesANewerFileToLoadAndToSaveOver)
{
    const QByteArray newer =
        QByteArray("{ \"version\": %1, \"passes\": [] }").replace("%1", QByteArray::number(newestFormat() + 1));
    const QString expected =
        u"1: the file has version %1 of the format, and this library knows up to %2: it takes a newer one"_s
            .arg(newestFormat() + 1)
            .arg(newestFormat());
    Pipeline pipeline;
    QStringList errors;
    EXPECT_FALSE(loadPipelineText(newer, u"a.json"_s, &pipeline, &errors));
    EXPECT_EQ(errors, QStringList(u"a.json:"_s + expected));

    const QTemporaryDir folder;
    const QString path = folder.filePath(u"a.json"_s);
    QFile file(path);
    ASSERT_TRUE(file.open(QIODevice::WriteOnly));
    file.write(newer);
    file.close();
    errors.clear();
    EXPECT_FALSE(savePipeline(pipeline, path, &errors));
    EXPECT_EQ(errors, QStringList(path + u':' + expected));
    ASSERT_TRUE(file.open(QIODevice::ReadOnly));
    EXPECT_EQ(file.readAll(), newer);
}

TEST(PipelineVersions, ANewFileSaysWhichItIs)
{
    Pipeline pipeline;
    ASSERT_TRUE(pipeline.add(u"A"_s, u"GradientRenderPass"_s));
    QStringList errors;
    const QByteArray text = pipelineText(pipeline, u"a.json"_s, {}, &errors);
    EXPECT_TRUE(text.startsWith("{\n  \"version\": " + QByteArray::number(newestFormat()) + ",\n")) << text.constData();
    Pipeline again;
    EXPECT_TRUE(loadPipelineText(text, u"a.json"_s, &again, &errors)) << qPrintable(errors.join(u'\n'));
}
