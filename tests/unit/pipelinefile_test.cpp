#include <host/pipeline.h>
#include <host/pipelinefile.h>

#include <core/renderpasshelper.h>
#include <host/passfactory.h>

#include <QColor>
#include <QDir>
#include <QFile>
#include <QTemporaryDir>
#include <QVector3D>

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

// Remembers what the file has called.
class CalledPass : public RenderPassHelper
{
public:
    enum Mode { Off, On };
    void take(float f, int i, bool b, const QString &text, const QVector3D &v)
    {
        calls << QStringLiteral("take %1 %2 %3 %4 %5 %6 %7")
                     .arg(f)
                     .arg(i)
                     .arg(b)
                     .arg(text)
                     .arg(v.x())
                     .arg(v.y())
                     .arg(v.z());
    }
    void setMode(Mode mode) { calls << QStringLiteral("setMode %1").arg(int(mode)); }
    void finish() { calls << QStringLiteral("finish"); }
    QStringList calls;
};

class GradientOnly : public RenderPassHelper
{};

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

TEST(PipelineFile, NamesFilesBesideIt)
{
    registerPass<SeenPass>(s("SeenPass"));
    QTemporaryDir folder;
    ASSERT_TRUE(QDir(folder.path()).mkpath(s("images")));
    const auto write = [&](const char *name, const QByteArray &text) {
        QFile file(folder.filePath(s(name)));
        EXPECT_TRUE(file.open(QIODevice::WriteOnly) && file.write(text) == text.size()) << name;
    };
    write("images/sky.png", "no image");
    write("text.txt", "one\ntwo @ \xc3\xa4\n");
    write("chain.json", R"({ "passes": [
        { "name": "A", "class": "SeenPass", "inputs": { "TexturePath": { "file": "images/../images/sky.png" } } },
        { "name": "B", "class": "SeenPass", "inputs": { "TexturePath": { "contentOf": "text.txt" } } } ] })");
    Pipeline pipeline;
    QStringList errors;
    EXPECT_TRUE(loadPipeline(folder.filePath(s("chain.json")), &pipeline, &errors)) << qPrintable(errors.join(u'\n'));
    const auto value = [&](const char *pass) {
        return dynamic_cast<SeenPass *>(pipeline.pass(s(pass)))->inputValue(0).toString();
    };
    EXPECT_EQ(value("A"), folder.filePath(s("images/sky.png")));
    EXPECT_EQ(value("B"), QString::fromUtf8("one\ntwo @ \xc3\xa4\n"));
}

TEST(PipelineFile, SaysWhichFileIsNotThere)
{
    registerPass<SeenPass>(s("SeenPass"));
    const QStringList errors = errorsOf(R"({ "passes": [
    { "name": "P", "class": "SeenPass", "inputs": {
        "TexturePath": { "file": "nowhere.png" },
        "Color": { "file": "nowhere.png", "contentOf": "both" },
        "Radius": { "contentOf": 3 } } } ] })");
    ASSERT_EQ(errors.size(), 3);
    EXPECT_TRUE(errors[0].startsWith(s("test.json:3: there is no file '"))) << qPrintable(errors[0]);
    EXPECT_TRUE(errors[0].endsWith(s("nowhere.png'"))) << qPrintable(errors[0]);
    EXPECT_EQ(errors[1], s("test.json:4: a file is { \"file\": \"path\" } or { \"contentOf\": \"path\" }"));
    EXPECT_EQ(errors[2], s("test.json:5: a file is { \"file\": \"path\" } or { \"contentOf\": \"path\" }"));
}

TEST(PipelineFile, CallsBuildAProgrammablePass)
{
    Pipeline pipeline;
    const QStringList errors = load(R"({ "passes": [ { "name": "Tint", "class": "ShaderRenderPass",
        "calls": [ { "addInput": ["Kvo_KvoTexture*_Image"] }, { "addInput": ["Kvo_float_Gain"] },
                   { "addOutput": ["Kvo_KvoTexture*_Frame"] }, { "setBlend": [2] }, { "setClear": [false] },
                   { "setFragmentShaderSource": ["text"] } ],
        "inputs": { "Viewport": "@viewport", "Gain": 2 } },
      { "name": "Present", "class": "TextureToScreenRenderPass",
        "inputs": { "Texture": { "from": "Tint.Frame" } } } ] })",
                                    &pipeline);
    EXPECT_TRUE(errors.isEmpty()) << qPrintable(errors.join(u'\n'));
    const RenderPass &pass = *pipeline.pass(s("Tint"));
    ASSERT_EQ(pass.numInputs(), 3);
    EXPECT_EQ(pass.inputName(1), s("Kvo_KvoTexture*_Image"));
    EXPECT_EQ(pass.inputName(2), s("Kvo_float_Gain"));
    ASSERT_EQ(pass.numOutputs(), 1);
    EXPECT_EQ(pass.outputName(0), s("Kvo_KvoTexture*_Frame"));
    EXPECT_EQ(pipeline.users(s("Tint"), s("Frame")), 1);
}

TEST(PipelineFile, CallsReachOperationsInTheirOrderWithArgumentsOfTheirTypes)
{
    registerPass<CalledPass>(s("CalledPass"));
    passFactory().addOperation(s("CalledPass"), passOperation<&CalledPass::take>(s("take")));
    passFactory().addOperation(s("CalledPass"), passOperation<&CalledPass::setMode>(s("setMode")));
    passFactory().addOperation(s("CalledPass"), passOperation<&CalledPass::finish>(s("finish")));
    EXPECT_FALSE(passFactory().addOperation(s("CalledPass"), passOperation<&CalledPass::finish>(s("take"))));
    EXPECT_FALSE(passFactory().addOperation(s("NoSuchPass"), passOperation<&CalledPass::finish>(s("finish"))));
    ASSERT_EQ(passFactory().operations(s("CalledPass")).size(), 3);
    EXPECT_EQ(passFactory().operations(s("CalledPass"))[0].argumentTypes,
              QStringList({s("float"), s("int"), s("bool"), s("QString"), s("QVector3D")}));

    Pipeline pipeline;
    const QStringList errors = load(R"({ "passes": [ { "name": "A", "class": "CalledPass",
        "calls": [ { "take": [0.5, 3, true, "text", [1, 2, 3]] }, { "setMode": [1] }, { "finish": [] },
                   { "take": [2, -1, false, "", [0, 0, 0.5]] } ] } ] })",
                                    &pipeline);
    EXPECT_TRUE(errors.isEmpty()) << qPrintable(errors.join(u'\n'));
    EXPECT_EQ(static_cast<CalledPass *>(pipeline.pass(s("A")))->calls,
              QStringList({s("take 0.5 3 1 text 1 2 3"), s("setMode 1"), s("finish"), s("take 2 -1 0  0 0 0.5")}));
    GradientOnly other;
    EXPECT_FALSE(passFactory().operations(s("CalledPass"))[2].call(other, {}));
}

TEST(PipelineFile, NamesEveryMistakeInACall)
{
    const QStringList errors = errorsOf(R"({ "passes": [ { "name": "A", "class": "PrimitiveBuilderRenderPass",
"calls": [
 { "addCub": [1, [0, 0, 0]] },
 { "addCube": [1] },
 { "addCube": ["big", [0, 0, 0]] },
 { "addQuad": [1, [0, 0]] },
 { "addQuad": [null, [0, 0, 0]] },
 "addQuad",
 { "addQuad": 1 }
] },
{ "name": "B", "class": "PrimitiveBuilderRenderPass",
"calls": 7 } ] })");
    const QStringList expected{
        s("test.json:3: PrimitiveBuilderRenderPass has no operation 'addCub'; did you mean 'addCube'?"),
        s("test.json:4: 'addCube' takes (float, QVector3D), not 1 argument(s)"),
        s("test.json:5: argument 1 of 'addCube' is a float, not the text \"big\""),
        s("test.json:6: argument 2 of 'addQuad' is a QVector3D, not a list of 2"),
        s("test.json:7: argument 1 of 'addQuad' is a float, not null"),
        s("test.json:8: a call is { \"operation\": [arguments] }"),
        s("test.json:9: a call is { \"operation\": [arguments] }"),
        s("test.json:12: \"calls\" is a list of operations, not the number 7"),
    };
    EXPECT_EQ(errors, expected) << qPrintable(errors.join(QLatin1Char('\n')));
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
        s("test.json:12: there is no pass 'D'; there are B, C"),
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
    EXPECT_EQ(errors[0],
              s("test.json:5: cannot link 'A.Kvo_KvoTexture*_Frame' to 'B.Kvo_KvoTexture*_Normal': the links "
                "would form a cycle: B -> A -> B"));
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

TEST(PipelineFile, MayHaveComments)
{
    Pipeline pipeline;
    EXPECT_EQ(load(R"(// A file
{ /* of one
     pass */ "passes": [ // here
    { "name": "A//B", "class" /**/ : "GradientRenderPass" } /* "x": [ */ ] } // done)",
                   &pipeline),
              QStringList{s("test.json:4: 'A//B' is no name for a pass: use letters, digits, '_' and '-'")});
    EXPECT_EQ(errorsOf("{ /* one\ntwo\nthree */ \"pases\": [] }")[0],
              s("test.json:3: a pipeline has no \"pases\"; did you mean 'passes'?"));
    EXPECT_EQ(errorsOf("{ \"passes\": [\n /* open"), QStringList{s("test.json:2: a comment without its closing '*/'")});
    EXPECT_EQ(errorsOf("{ \"passes\": [] } /* open"),
              QStringList{s("test.json:1: a comment without its closing '*/'")});
    EXPECT_EQ(errorsOf("{ / }").size(), 1);
}

TEST(PipelineFile, TakesChoicesByName)
{
    Pipeline pipeline;
    EXPECT_EQ(load(R"({ "passes": [ { "name": "A", "class": "BlendRenderPass",
                                      "inputs": { "BlendMode": "colorDodge" } } ] })",
                   &pipeline),
              QStringList());
    EXPECT_EQ(pipeline.inputs(s("A"))[3].value, QVariant(18));
    EXPECT_EQ(pipeline.inputs(s("A"))[3].slot, s("Int_BlendMode"));
    EXPECT_TRUE(pipeline.setValueText(s("A"), s("Int_BlendMode"), s("softLight")));
    EXPECT_EQ(pipeline.inputs(s("A"))[3].value, QVariant(21));
    const QStringList errors = errorsOf(R"({ "passes": [ { "name": "A", "class": "CameraJitterPass",
 "inputs": { "JitterMode": "alternatin" } } ] })");
    EXPECT_EQ(errors, QStringList{s("test.json:2: pass 'A': 'Kvo_int_JitterMode' takes one of none, "
                                    "randomAfterChange, alternating, random, or a whole number, not the text "
                                    "\"alternatin\"; did you mean 'alternating'?")});
}

namespace {

// What is said about one pass that is given one input.
QStringList warningsOf(const char *className, const QByteArray &inputs)
{
    Pipeline pipeline;
    EXPECT_EQ(load("{ \"passes\": [ { \"name\": \"A\", \"class\": \"" + QByteArray(className)
                       + "\", \"inputs\": { \"Viewport\": \"@viewport\", " + inputs + " } } ] }",
                   &pipeline),
              QStringList());
    QStringList warnings = pipeline.warnings();
    warnings.removeIf([](const QString &warning) { return warning.startsWith(s("pass 'A' has no image")); });
    return warnings;
}

} // namespace

TEST(PipelineWarnings, NameValuesBeyondWhatMakesSense)
{
    EXPECT_EQ(warningsOf("GaussianBlurRenderPass", "\"BlurRadius\": 511"), QStringList());
    EXPECT_EQ(
        warningsOf("GaussianBlurRenderPass", "\"BlurRadius\": 900"),
        QStringList{s("input 'Kvo_float_BlurRadius' of pass 'A' is 900, beyond what makes sense: 0 to 511 texels")});
    EXPECT_EQ(warningsOf("DepthOfFieldRenderPass", "\"Focus\": [0.5, 1.5]"),
              QStringList{s("input 'Kvo_QVector2D_Focus' of pass 'A' is [0.5, 1.5], beyond what makes sense: 0 to 1 "
                            "of the image")});
    EXPECT_EQ(warningsOf("ScalableAmbientObscuranceRenderPass", "\"NearPlane\": -1"),
              QStringList{s("input 'Kvo_float_NearPlane' of pass 'A' is -1, beyond what makes sense: at least 0 units "
                            "of the scene")});
    EXPECT_EQ(warningsOf("SMAARenderPass", "\"Mode\": 2"),
              QStringList{s("input 'Kvo_int_Mode' of pass 'A' is 2, which is none of 0 singleFrame, 1 temporal")});
}

TEST(PipelineWarnings, NameNullWhereANumberBelongs)
{
    EXPECT_EQ(
        warningsOf("GaussianBlurRenderPass", "\"ResolutionDivider\": null"),
        QStringList{s("input 'Kvo_float_ResolutionDivider' of pass 'A' is null; leave it out for its default, 1")});
    // None is a value of a colour.
    EXPECT_EQ(warningsOf("GradientRenderPass", "\"ColorBottom\": null"), QStringList());
}

TEST(PipelineWarnings, NameFilesThatAreNotThere)
{
    Pipeline pipeline;
    ASSERT_TRUE(pipeline.add(s("A"), s("TextureLoaderRenderPass")));
    ASSERT_TRUE(pipeline.setValueText(s("A"), s("TexturePath"), s("/no/such.png")));
    EXPECT_EQ(pipeline.warnings(),
              QStringList{s("input 'Kvo_QString_TexturePath' of pass 'A' is \"/no/such.png\": there is no such file")});
    ASSERT_TRUE(pipeline.setValueText(s("A"), s("TexturePath"), s(KVO_SOURCE_DIR "/pipelines/images/matcap.png")));
    EXPECT_EQ(pipeline.warnings(), QStringList());
    ASSERT_TRUE(pipeline.setValueText(s("A"), s("TexturePath"), s("@paths.sky")));
    EXPECT_EQ(pipeline.warnings(),
              QStringList{s("input 'Kvo_QString_TexturePath' of pass 'A' is bound to @paths.sky, which is not given")});
}

TEST(PipelineWarnings, NameLinksThatNothingReads)
{
    Pipeline pipeline;
    ASSERT_TRUE(pipeline.add(s("Model"), s("ModelRenderPass")));
    ASSERT_TRUE(pipeline.add(s("Shade"), s("ModelDeferredPass")));
    ASSERT_TRUE(pipeline.add(s("Lists"), s("VisibilityBufferRenderPass")));
    pipeline.bindStandard();
    ASSERT_TRUE(pipeline.connect(s("Model.Diffuse"), s("Shade.Diffuse")));
    EXPECT_EQ(pipeline.warnings(), QStringList()) << "what the host gives to all passes alike is no mistake";
    ASSERT_TRUE(pipeline.connect(s("Model.Depth"), s("Shade.Depth")));
    ASSERT_TRUE(pipeline.connect(s("Lists.Depth"), s("Shade.Normal")));
    EXPECT_EQ(pipeline.warnings(),
              QStringList({s("input 'Kvo_KvoTexture*_Normal' of pass 'Shade' is linked to "
                             "'Lists.Kvo_KvoTexture*_Depth', which is never written"),
                           s("input 'Kvo_KvoTexture*_Depth' of pass 'Shade' is not read: the link from "
                             "'Model.Kvo_KvoTexture*_Depth' has no effect")}));
}

TEST(PipelineWarnings, NameLightsAndPathsThatNoInputIsBoundTo)
{
    Pipeline pipeline;
    EXPECT_EQ(load(R"({ "lights": [ { "type": "point", "position": [1, 2, 3] } ],
                       "passes": [ { "name": "A", "class": "TextureLoaderRenderPass" } ] })",
                   &pipeline),
              QStringList());
    ASSERT_TRUE(pipeline.setHostValue(s("paths.sky"), s("sky.png")));
    EXPECT_EQ(pipeline.warnings(), QStringList({s("@lights has no effect: no input is bound to it"),
                                                s("@paths.sky has no effect: no input is bound to it")}));
    ASSERT_TRUE(pipeline.bind(s("A"), s("TexturePath"), s("paths.sky")));
    EXPECT_EQ(pipeline.warnings(), QStringList{s("@lights has no effect: no input is bound to it")});
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
        EXPECT_EQ(pipeline.warnings(), QStringList()) << qPrintable(info.path);
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
