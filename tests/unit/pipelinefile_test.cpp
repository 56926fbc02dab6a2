#include <host/pipeline.h>
#include <host/pipelinefile.h>

#include <core/renderpasshelper.h>
#include <host/passfactory.h>

#include <QColor>
#include <QDir>
#include <QFile>
#include <QTemporaryDir>

#include <gtest/gtest.h>

using namespace Brevane::Kvo;

namespace {

// Lets a test see what the file has put into an input.
class SeenPass : public RenderPassHelper
{
public:
    SeenPass()
    {
        addInput(QStringLiteral("Kvo_QString_TexturePath"));
        addInput(QStringLiteral("Kvo_QColor_Color"), QColor(1, 2, 3));
        addInput(QStringLiteral("Kvo_float_Radius"));
    }
    QVariant inputValue(int index) { return _inputs[index].value; }
};

QString s(const char *text)
{
    return QString::fromLatin1(text);
}

QStringList load(const QByteArray &text, Pipeline *pipeline)
{
    QStringList errors;
    const bool loaded = loadPipelineText(text, s("test.json"), pipeline, &errors);
    EXPECT_EQ(loaded, errors.isEmpty());
    return errors;
}

QStringList errorsOf(const QByteArray &text)
{
    Pipeline pipeline;
    return load(text, &pipeline);
}

} // namespace

TEST(PipelineFile, BuildsPassesLinksAndBindings)
{
    Pipeline pipeline;
    const QStringList errors = load(R"({
  "description": "two passes, the consumer first",
  "passes": [
    { "name": "Present", "class": "TextureToScreenRenderPass",
      "inputs": { "Viewport": "@viewport", "Texture": { "from": "Sky.Kvo_KvoTexture*_Frame" },
                  "Kvo_KvoFramebuffer*_FramebufferOut": "@screen" } },
    { "name": "Sky", "class": "GradientRenderPass", "inputs": { "Viewport": "@viewport" } }
  ]
})",
                                    &pipeline);
    EXPECT_TRUE(errors.isEmpty()) << qPrintable(errors.join(QLatin1Char('\n')));
    EXPECT_EQ(pipeline.order(), (QStringList{s("Sky"), s("Present")}));
    EXPECT_EQ(pipeline.source(s("Present"), s("Texture")), s("Sky.Kvo_KvoTexture*_Frame"));
    EXPECT_EQ(pipeline.source(s("Present"), s("FramebufferOut")), s("@screen"));
    EXPECT_EQ(pipeline.users(s("Sky"), s("Frame")), 1);
}

TEST(PipelineFile, ReadsValuesByTheTypeOfTheSlot)
{
    registerPass<SeenPass>(s("SeenPass"));
    Pipeline pipeline;
    const QStringList errors = load(R"({ "passes": [ { "name": "P", "class": "SeenPass", "inputs": {
        "TexturePath": "@@home \u00e4\n", "Color": null, "Radius": 2 } } ] })",
                                    &pipeline);
    EXPECT_TRUE(errors.isEmpty()) << qPrintable(errors.join(QLatin1Char('\n')));
    auto *pass = dynamic_cast<SeenPass *>(pipeline.pass(s("P")));
    ASSERT_NE(pass, nullptr);
    EXPECT_EQ(pass->inputValue(0).toString(), QString::fromUtf8("@home ä\n"));
    EXPECT_FALSE(pass->inputValue(1).isValid());
    EXPECT_EQ(pass->inputValue(2), QVariant(2.0f));
}

TEST(PipelineFile, NamesFileLineAndNearestNameOfEveryMistake)
{
    const QStringList errors = errorsOf(R"({
  "passes": [
    { "name": "A",
      "class": "GradientPass" },
    { "name": "B", "class": "TextureToScreenRenderPass",
      "inputs": {
        "Viewprt": "@viewport",
        "Viewport": "@viewprt",
        "LinearFilter":
          3,
        "TextureOut": "@viewport",
        "Texture": { "from": "D.Frame" },
        "Rects": { "form": "B.x" }
      } },
    { "name": "C", "class": "GradientRenderPass", "input": {} }
  ]
})");
    const QStringList expected{
        s("test.json:4: there is no pass class 'GradientPass'; did you mean 'GradientRenderPass'?"),
        s("test.json:15: a pass has no \"input\"; did you mean 'inputs'?"),
        s("test.json:7: pass 'B' has no input 'Viewprt'; did you mean 'Viewport'?"),
        s("test.json:8: there is no host value 'viewprt'; did you mean 'viewport'?"),
        s("test.json:9: pass 'B': 'Kvo_Bool_LinearFilter' takes true or false, not the number 3"),
        s("test.json:11: cannot bind host value 'viewport' (QRect) to 'B.Kvo_KvoTexture*_TextureOut' (KvoTexture*)"),
        s("test.json:12: there is no pass 'D'"),
        s("test.json:13: a link has no \"form\"; did you mean 'from'?"),
        s("test.json:13: a link is { \"from\": \"Pass.Slot\" }"),
    };
    EXPECT_EQ(errors, expected) << qPrintable(errors.join(QLatin1Char('\n')));
}

TEST(PipelineFile, PointsAtTheLinkThatClosesACycle)
{
    const QStringList errors = errorsOf(R"({ "passes": [
  { "name": "A", "class": "ModelDeferredPass",
    "inputs": { "Diffuse": { "from": "B.Frame" } } },
  { "name": "B", "class": "ModelDeferredPass",
    "inputs": { "Normal": { "from": "A.Frame" } } } ] })");
    ASSERT_EQ(errors.size(), 1);
    EXPECT_TRUE(errors[0].startsWith(s("test.json:5: the links form a cycle: "))) << qPrintable(errors[0]);
}

TEST(PipelineFile, RefusesOneSlotUnderTwoNames)
{
    const QStringList errors = errorsOf(R"({ "passes": [ { "name": "A", "class": "GradientRenderPass", "inputs": {
  "Viewport": "@viewport",
  "Kvo_QRect_Viewport": [0, 0, 4, 4] } } ] })");
    EXPECT_EQ(errors, QStringList{s("test.json:3: input 'Kvo_QRect_Viewport' of pass 'A' stands twice")});
}

TEST(PipelineFile, RefusesTwoPassesOfOneName)
{
    const QStringList errors = errorsOf("{ \"passes\": [ { \"name\": \"A\", \"class\": \"GradientRenderPass\" },\n"
                                        "{ \"name\": \"A\", \"class\": \"GradientRenderPass\" } ] }");
    EXPECT_EQ(errors, QStringList{s("test.json:2: there is a pass 'A' already")});
}

struct BrokenText
{
    const char *text;
    const char *error;

    friend std::ostream &operator<<(std::ostream &stream, const BrokenText &broken) { return stream << broken.text; }
};

class PipelineFileSyntax : public ::testing::TestWithParam<BrokenText>
{};

TEST_P(PipelineFileSyntax, IsReportedWithItsLine)
{
    const QStringList errors = errorsOf(GetParam().text);
    ASSERT_FALSE(errors.isEmpty());
    EXPECT_EQ(errors.first(), s(GetParam().error));
}

INSTANTIATE_TEST_SUITE_P(
    Texts, PipelineFileSyntax,
    ::testing::Values(
        BrokenText{"", "test.json:1: expected a value, found the end of the text"},
        BrokenText{"{\n\"passes\": [\n", "test.json:3: expected a value, found the end of the text"},
        BrokenText{"{\n\"passes\" [] }", "test.json:2: expected ':' after a name, found '['"},
        BrokenText{"{\n\n\"passes\": [] \"x\": 1 }", "test.json:3: expected ',' or '}' after a value, found '\"'"},
        BrokenText{"{ \"passes\": [1,] }", "test.json:1: expected a value, found ']'"},
        BrokenText{"{ \"passes\": [] } x", "test.json:1: text after the end of the document"},
        BrokenText{"{ \"pas\nses\": [] }", "test.json:1: a string without its closing quote"},
        BrokenText{"{ \"passes\": [1.2.3] }", "test.json:1: '1.2.3' is not a number"},
        BrokenText{"{ \"passes\": [1e999] }", "test.json:1: '1e999' is not a number"},
        BrokenText{"{ \"a\\x\": 1 }", "test.json:1: unknown escape '\\x'"},
        BrokenText{"{ \"a\\u12\": 1 }", "test.json:1: '\\u' needs four hexadecimal digits"},
        BrokenText{"{ passes: [] }", "test.json:1: expected a name in double quotes, found 'p'"},
        BrokenText{"[]", "test.json:1: a pipeline is an object with \"passes\", not a list of 0"},
        BrokenText{"{}", "test.json:1: \"passes\" is to be a list of passes"},
        BrokenText{"{ \"passes\": 3 }", "test.json:1: \"passes\" is to be a list of passes"},
        BrokenText{"{ \"passes\": [] }", "test.json:1: \"passes\" is empty"},
        BrokenText{"{ \"passes\": [\n3] }",
                   "test.json:2: a pass is an object with \"name\" and \"class\", not the number 3"},
        BrokenText{"{ \"passes\": [ { \"name\": \"A\" } ] }", "test.json:1: a pass needs a \"class\", which is text"},
        BrokenText{"{ \"passes\": [ { \"class\": \"GradientRenderPass\",\n\"name\": 3 } ] }",
                   "test.json:2: a pass needs a \"name\", which is text"},
        BrokenText{"\xff\xfe", "test.json:1: the text is not UTF-8"}));

TEST(PipelineFile, SurvivesDeepNesting)
{
    const QStringList errors = errorsOf(QByteArray(100000, '['));
    EXPECT_EQ(errors, QStringList{s("test.json:1: nested more than 64 deep")});
}

TEST(PipelineFile, SurvivesEveryPrefixOfAFile)
{
    QFile file(s(KVO_SOURCE_DIR "/pipelines/deferred-model.json"));
    ASSERT_TRUE(file.open(QIODevice::ReadOnly));
    const QByteArray text = file.readAll().trimmed();
    for (qsizetype length = 0; length < text.size(); ++length)
        EXPECT_EQ(errorsOf(text.left(length)).size(), 1) << length;
}

TEST(PipelineFile, NamesAFileThatCannotBeRead)
{
    Pipeline pipeline;
    QStringList errors;
    EXPECT_FALSE(loadPipeline(s("/no/such/file.json"), &pipeline, &errors));
    ASSERT_EQ(errors.size(), 1);
    EXPECT_TRUE(errors[0].startsWith(s("cannot read pipeline '/no/such/file.json': "))) << qPrintable(errors[0]);
}

TEST(Pipelines, OfTheTreeLoadAndEndOnTheScreen)
{
    const QVector<PipelineFileInfo> pipelines = listPipelines({s(KVO_SOURCE_DIR "/pipelines")});
    EXPECT_GE(pipelines.size(), 3);
    for (const PipelineFileInfo &info : pipelines) {
        Pipeline pipeline;
        QStringList errors;
        EXPECT_TRUE(loadPipeline(info.path, &pipeline, &errors)) << qPrintable(errors.join(QLatin1Char('\n')));
        EXPECT_FALSE(info.description.isEmpty()) << qPrintable(info.path);
        EXPECT_TRUE(pipeline.uses(s("screen"))) << qPrintable(info.path);
        EXPECT_TRUE(pipeline.warnings().isEmpty()) << qPrintable(info.path);
    }
}

TEST(Pipelines, AreFoundByNameInTheFirstFolderThatHasThem)
{
    QTemporaryDir folder;
    const QString mine = folder.filePath(s("forward.json"));
    QFile file(mine);
    ASSERT_TRUE(file.open(QIODevice::WriteOnly));
    file.close();
    const QStringList path = pipelineSearchPath({folder.path()});
    EXPECT_EQ(findPipeline(s("forward"), path), mine);
    EXPECT_EQ(QFileInfo(findPipeline(s("gradient"), path)).fileName(), s("gradient.json"));
    EXPECT_EQ(findPipeline(mine, {}), mine);
}

TEST(Pipelines, ThatDoNotExistAreReportedWithTheNearestName)
{
    QString error;
    const QStringList path{s(KVO_SOURCE_DIR "/pipelines")};
    EXPECT_EQ(findPipeline(s("forwrad"), path, &error), QString());
    EXPECT_TRUE(error.startsWith(s("there is no pipeline 'forwrad'; did you mean 'forward'?"))) << qPrintable(error);
    EXPECT_EQ(findPipeline(s("no/such.json"), path, &error), QString());
    EXPECT_EQ(error, s("there is no pipeline file 'no/such.json'"));
}
