#include <gl/texture.h>
#include <host/passfactory.h>
#include <host/pipeline.h>
#include <host/pipelinefile.h>
#include <host/slotname.h>

#include <renderpasses/gradientrenderpass.h>

#include <QColor>
#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QTemporaryDir>
#include <QVector2D>

#include <gtest/gtest.h>

#include <random>

using namespace Brevane::Kvo;
using namespace Qt::StringLiterals;

namespace {

class Saving : public ::testing::Test
{
protected:
    QString path(const QString &name = u"pipeline.json"_s) const { return folder.filePath(name); }

    void write(const QByteArray &text, const QString &name = u"pipeline.json"_s) const
    {
        QFile file(path(name));
        ASSERT_TRUE(file.open(QIODevice::WriteOnly));
        file.write(text);
    }

    QByteArray written(const QString &name = u"pipeline.json"_s) const
    {
        QFile file(path(name));
        EXPECT_TRUE(file.open(QIODevice::ReadOnly));
        return file.readAll();
    }

    void load(Pipeline *into, const QString &name = u"pipeline.json"_s) const
    {
        QStringList errors;
        EXPECT_TRUE(loadPipeline(path(name), into, &errors)) << qPrintable(errors.join(u'\n'));
    }

    void save(const Pipeline &from, const QString &name = u"pipeline.json"_s) const
    {
        QStringList errors;
        EXPECT_TRUE(savePipeline(from, path(name), &errors)) << qPrintable(errors.join(u'\n'));
    }

    // The files of the tree with what they name.
    void copyPipelines() const
    {
        const QString tree = u"" KVO_SOURCE_DIR "/pipelines/"_s;
        QDirIterator files(tree, QDir::Files, QDirIterator::Subdirectories);
        while (files.hasNext()) {
            const QString name = files.next().mid(tree.size());
            ASSERT_TRUE(QDir(folder.path()).mkpath(QFileInfo(name).path()));
            ASSERT_TRUE(QFile::copy(tree + name, path(name)));
        }
    }

    const QTemporaryDir folder;
    Pipeline pipeline;
};

// Everything that a file says of a pipeline.
QStringList stateOf(const Pipeline &pipeline)
{
    QStringList state;
    for (const QString &name : pipeline.passNames()) {
        state << u"%1 %2 %3"_s.arg(name, pipeline.className(name), pipeline.clearColor(name).name(QColor::HexArgb));
        for (const PassInput &input : pipeline.inputs(name)) {
            QString value;
            QDebug(&value) << input.value;
            state
                << u"%1 %2 %3 %4 %5"_s.arg(input.slot).arg(int(input.kind)).arg(input.source, input.sourcePass, value);
        }
    }
    state.sort();
    return state;
}

const QByteArray kText = R"({
  // Shown in the evening.
  "description": "A glow", /* short */
  "passes": [
    { "name": "Backdrop", "class": "GradientRenderPass",
      "inputs": { "Viewport": "@viewport",
                  "ColorTop": "#204060" } }, // dark
    {
      "name": "Blur",
      "class": "GaussianBlurRenderPass",
      "inputs": {
        "Viewport": "@viewport",
        "Input": { "from": "Backdrop.Frame" },
        "BlurRadius":  4.50 // texels
      }
    }
  ]
}
)";

QByteArray with(const QByteArray &before, const QByteArray &after)
{
    EXPECT_TRUE(kText.contains(before)) << before.constData();
    return QByteArray(kText).replace(before, after);
}

} // namespace

TEST_F(Saving, AFileThatSaysTheSameStaysAsItIs)
{
    copyPipelines();
    for (const PipelineFileInfo &info : listPipelines({folder.path()})) {
        Pipeline one;
        const QString name = info.name + u".json"_s;
        load(&one, name);
        const QByteArray before = written(name);
        save(one, name);
        EXPECT_EQ(written(name).toStdString(), before.toStdString()) << qPrintable(name);
    }
    write(kText);
    load(&pipeline);
    save(pipeline);
    EXPECT_EQ(written().toStdString(), kText.toStdString());
}

TEST_F(Saving, OnlyWhatDiffersIsChanged)
{
    const auto expectSaved = [&](const QByteArray &expected) {
        save(pipeline);
        EXPECT_EQ(written().toStdString(), expected.toStdString());
        Pipeline again;
        load(&again);
        EXPECT_EQ(stateOf(again), stateOf(pipeline));
        write(kText);
        QStringList errors;
        Pipeline fresh;
    };
    const auto start = [&] {
        for (const QString &name : pipeline.passNames())
            pipeline.remove(name);
        write(kText);
        load(&pipeline);
    };
    start();
    ASSERT_TRUE(pipeline.setValueText(u"Blur"_s, u"BlurRadius"_s, u"8"_s));
    expectSaved(with("4.50", "8"));
    start();
    ASSERT_TRUE(pipeline.setValueText(u"Backdrop"_s, u"ColorTop"_s, u"[1, 0, 0]"_s));
    expectSaved(with("\"#204060\"", "\"#ff0000\""));
    start();
    ASSERT_TRUE(pipeline.reset(u"Blur"_s, u"BlurRadius"_s));
    expectSaved(with("\"from\": \"Backdrop.Frame\" },\n        \"BlurRadius\":  4.50 // texels\n",
                     "\"from\": \"Backdrop.Frame\" }\n"));
    start();
    ASSERT_TRUE(pipeline.reset(u"Blur"_s, u"Viewport"_s));
    expectSaved(with("      \"inputs\": {\n        \"Viewport\": \"@viewport\",\n", "      \"inputs\": {\n"));
    start();
    ASSERT_TRUE(pipeline.setValueText(u"Blur"_s, u"ResolutionDivider"_s, u"2"_s));
    expectSaved(with("4.50 // texels", "4.50, // texels\n        \"ResolutionDivider\": 2"));
    start();
    ASSERT_TRUE(pipeline.setValueText(u"Backdrop"_s, u"ColorBottom"_s, u"null"_s));
    expectSaved(
        with("\"ColorTop\": \"#204060\" }", "\"ColorTop\": \"#204060\",\n                  \"ColorBottom\": null }"));
    start();
    ASSERT_TRUE(pipeline.bind(u"Blur"_s, u"Viewport"_s, u"viewport[0, 0, 0.5, 1]"_s));
    expectSaved(with("        \"Viewport\": \"@viewport\",\n        \"Input\"",
                     "        \"Viewport\": \"@viewport[0, 0, 0.5, 1]\",\n        \"Input\""));
    start();
    ASSERT_TRUE(pipeline.setClearColor(u"Blur"_s, QColor(0, 0, 255)));
    expectSaved(with("4.50 // texels\n      }\n", "4.50 // texels\n      },\n      \"clearColor\": \"#0000ff\"\n"));
    start();
    ASSERT_TRUE(pipeline.remove(u"Blur"_s));
    expectSaved(kText.left(kText.indexOf(", // dark")) + " // dark\n  ]\n}\n");
}

TEST_F(Saving, NewPassesComeBehindTheOthers)
{
    write(kText);
    load(&pipeline);
    ASSERT_TRUE(pipeline.add(u"Mix"_s, u"BlendRenderPass"_s));
    ASSERT_TRUE(pipeline.connect(u"Blur.Output"_s, u"Mix.FrameA"_s));
    ASSERT_TRUE(pipeline.setValueText(u"Mix"_s, u"BlendMode"_s, u"12"_s));
    save(pipeline);
    EXPECT_EQ(written().toStdString(), with("4.50 // texels\n      }\n    }\n", R"(4.50 // texels
      }
    },
    {
      "name": "Mix",
      "class": "BlendRenderPass",
      "inputs": {
        "FrameA": { "from": "Blur.Output" },
        "BlendMode": "add"
      }
    }
)")
                                           .toStdString());
}

TEST_F(Saving, FromNothingGivesAFileThatLoadsTheSame)
{
    ASSERT_TRUE(pipeline.add(u"A"_s, u"GradientRenderPass"_s));
    ASSERT_TRUE(pipeline.add(u"B"_s, u"DepthOfFieldRenderPass"_s));
    ASSERT_TRUE(pipeline.add(u"C"_s, u"TextureLoaderRenderPass"_s));
    pipeline.bindStandard();
    ASSERT_TRUE(pipeline.connect(u"A.Frame"_s, u"B.Frame"_s));
    ASSERT_TRUE(pipeline.setValue(u"B"_s, u"Focus"_s, QVector2D(0.1f, 0.3f)));
    ASSERT_TRUE(pipeline.setValue(u"B"_s, u"FStop"_s, 2.8f));
    ASSERT_TRUE(pipeline.setValue(u"B"_s, u"AutoFocus"_s, true));
    ASSERT_TRUE(pipeline.setValue(u"A"_s, u"ColorTop"_s, QColor::fromRgbF(0.1234f, 0.5f, 0.25f, 0.75f)));
    ASSERT_TRUE(pipeline.setValue(u"C"_s, u"TexturePath"_s, u"@odd \"name\"\\.png"_s));
    save(pipeline);
    Pipeline again;
    load(&again);
    EXPECT_EQ(stateOf(again), stateOf(pipeline));
    save(again);
    const QByteArray first = written();
    save(pipeline);
    EXPECT_EQ(written(), first);
}

TEST_F(Saving, WhyAPictureIsInOnePieceIsWritten)
{
    ASSERT_TRUE(pipeline.add(u"A"_s, u"GradientRenderPass"_s));
    for (const QString &reason : {u"its \"paper\" is whole"_s, u"another"_s, QString()}) {
        pipeline.setInOnePiece(reason);
        save(pipeline);
        Pipeline again;
        load(&again);
        EXPECT_EQ(again.inOnePiece(), reason);
        EXPECT_EQ(written().contains("inOnePiece"), !reason.isEmpty());
    }
}

TEST_F(Saving, UnderAnotherNameTakesTheTextThatIsGiven)
{
    write(kText);
    load(&pipeline);
    ASSERT_TRUE(pipeline.setValueText(u"Blur"_s, u"BlurRadius"_s, u"8"_s));
    QStringList errors;
    ASSERT_TRUE(savePipeline(pipeline, path(u"other.json"_s), &errors, kText));
    EXPECT_EQ(written(u"other.json"_s), with("4.50", "8"));
    EXPECT_EQ(written(), kText);
}

TEST_F(Saving, WhatHasNoTextIsNamedAndNothingIsWritten)
{
    write(kText);
    load(&pipeline);
    ASSERT_TRUE(pipeline.add(u"Own"_s, std::make_unique<GradientRenderPass>()));
    QStringList errors;
    EXPECT_FALSE(savePipeline(pipeline, path(), &errors));
    EXPECT_EQ(errors, QStringList{u"pass 'Own' was added as an object: a file could not make it"_s});
    ASSERT_TRUE(pipeline.remove(u"Own"_s));

    errors.clear();
    ASSERT_TRUE(pipeline.add(u"Toon"_s, u"ShaderRenderPass"_s));
    EXPECT_FALSE(savePipeline(pipeline, path(), &errors));
    EXPECT_EQ(errors, QStringList{u"pass 'Toon' is new, and what a ShaderRenderPass was told by calls is not known"_s});
    ASSERT_TRUE(pipeline.remove(u"Toon"_s));

    errors.clear();
    Texture texture;
    ASSERT_TRUE(pipeline.setValue(u"Blur"_s, u"Input"_s, textureToVariant(&texture)));
    EXPECT_FALSE(savePipeline(pipeline, path(), &errors));
    EXPECT_EQ(errors, QStringList{u"input 'Kvo_KvoTexture*_Input' of pass 'Blur' holds a value that has no text"_s});
    EXPECT_EQ(written(), kText);

    errors.clear();
    ASSERT_TRUE(pipeline.reset(u"Blur"_s, u"Input"_s));
    EXPECT_FALSE(savePipeline(pipeline, u"/no/such/folder/p.json"_s, &errors));
    ASSERT_EQ(errors.size(), 1);
    EXPECT_TRUE(errors[0].startsWith(u"cannot write '/no/such/folder/p.json': "_s)) << qPrintable(errors[0]);
}

// Whatever is changed, and wherever comments stand: the file loads as the pipeline is, and a value that changes takes
// no comment with it.
TEST_F(Saving, LoadsAsItIsThroughRandomChangesAmongComments)
{
    copyPipelines();
    std::mt19937 random(7);
    const auto below = [&](qsizetype count) { return qsizetype(random() % unsigned(count)); };
    int changes = 0;
    for (const PipelineFileInfo &info : listPipelines({folder.path()})) {
        const QString name = info.name + u".json"_s;
        QByteArray text;
        bool isInText = false;
        for (const char c : written(name)) {
            text += c;
            isInText = isInText != (c == '"');
            if (!isInText && (c == ',' || c == '{' || c == '[') && below(3) == 0)
                text += below(2) ? " /* in, { \"between\" */ " : " // to the, end }\n";
        }
        write(text, name);
        Pipeline one;
        load(&one, name);
        for (int round = 0; round < 6; ++round) {
            const QStringList names = one.passNames();
            const QString pass = names[below(names.size())];
            const QVector<PassInput> inputs = one.inputs(pass);
            if (inputs.isEmpty())
                continue;
            const PassInput input = inputs[below(inputs.size())];
            const QString type = SlotName::parse(input.slot).type;
            const auto comments = [&] { return written(name).count("/* in") + written(name).count("// to"); };
            const qsizetype before = comments();
            const bool takesOut = below(2) == 0;
            if (takesOut && below(4) == 0 && names.size() > 1)
                one.remove(pass);
            else if (takesOut)
                one.reset(pass, input.slot);
            else if (type == u"float" || type == u"Float")
                one.setValue(pass, input.slot, float(below(100)) / 7.0f);
            else if (type == u"QColor")
                one.setValue(pass, input.slot, QColor(int(below(256)), 3, 4));
            // Not a rectangle in numbers: what stands between those goes with them.
            else if (type == u"QRect" && input.kind == PassInput::Kind::Host)
                one.bind(pass, input.slot, u"viewport[0, 0, 0.5, 0.5]"_s);
            ++changes;
            save(one, name);
            if (!takesOut) {
                EXPECT_EQ(comments(), before) << qPrintable(name);
            }
            Pipeline again;
            load(&again, name);
            EXPECT_EQ(stateOf(again), stateOf(one)) << qPrintable(name) << "\n" << written(name).constData();
        }
    }
    EXPECT_GT(changes, 100);
}

TEST_F(Saving, TheTextIsWhatIsWritten)
{
    write(R"({ // kept
  "passes": [ { "name": "A", "class": "GradientRenderPass", "inputs": { "Viewport": "@viewport" } } ] })");
    load(&pipeline);
    ASSERT_TRUE(pipeline.setValue(u"A"_s, u"ColorTop"_s, QColor(Qt::red)));
    QStringList errors;
    const QByteArray text = pipelineText(pipeline, path(), written(), &errors);
    EXPECT_TRUE(errors.isEmpty());
    EXPECT_NE(text, written()) << "nothing is written";
    EXPECT_TRUE(text.contains("// kept"));
    save(pipeline);
    EXPECT_EQ(text, written());
    ASSERT_TRUE(pipeline.add(u"B"_s, std::make_unique<GradientRenderPass>()));
    EXPECT_TRUE(pipelineText(pipeline, path(), written(), &errors).isEmpty());
    EXPECT_EQ(errors.size(), 1);
}

TEST_F(Saving, ANameChangesWhereItStandsAndInLinks)
{
    const QByteArray text = R"({ "description": "A", // A
  "passes": [ { "name": "A", "class": "GradientRenderPass", "inputs": { "Viewport": "@viewport" } },
    { "name": "AB", "class": "TextureToScreenRenderPass",
      "inputs": { "Texture": { "from": "A.Frame" }, "Viewport": "@viewport" } } ] })";
    EXPECT_EQ(withPassRenamed(text, u"A"_s, u"Sky"_s),
              QByteArray(text).replace("\"name\": \"A\"", "\"name\": \"Sky\"").replace("\"A.Frame\"", "\"Sky.Frame\""));
    EXPECT_EQ(withPassRenamed(text, u"C"_s, u"D"_s), text);
    EXPECT_EQ(withPassRenamed("{", u"C"_s, u"D"_s), "{");
}

TEST_F(Saving, FilesThatAFileNamesAreFound)
{
    const QString shader = QDir::cleanPath(folder.filePath(u"shaders/a.frag"_s));
    EXPECT_EQ(filesOf(R"({ "passes": [ { "calls": [ { "f": [{ "contentOf": "shaders/a.frag" }] } ],
                           "inputs": { "X": { "file": "/x.png" }, "Y": { "file": "shaders/../shaders/a.frag" } } } ] })",
                      path()),
              (QStringList{shader, u"/x.png"_s}));
    EXPECT_TRUE(filesOf("[", path()).isEmpty());
}
