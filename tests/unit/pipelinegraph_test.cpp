#include <core/renderpasshelper.h>
#include <host/pipeline.h>
#include <host/pipelinegraph.h>

#include <QColor>
#include <QRect>
#include <QXmlStreamReader>

#include <gtest/gtest.h>

#include <memory>

// What a pipeline tells of its passes, and its drawing.

using namespace Brevane::Kvo;

namespace {

QString s(const char *text)
{
    return QString::fromLatin1(text);
}

class PlainPass : public RenderPassHelper
{
public:
    PlainPass()
    {
        addInput(s("Kvo_KvoTexture*_Frame"));
        addOutput(s("Kvo_KvoTexture*_Frame"));
    }
    void start(RenderCallbacks *) override {}
};

struct Place
{
    double x = -1, y = -1, width = 0, height = 0;
};

// The boxes of a drawing in the order that they stand in it.
QVector<Place> boxesOf(const QString &svg, QStringList *texts = nullptr)
{
    QVector<Place> boxes;
    QXmlStreamReader xml(svg);
    while (!xml.atEnd()) {
        if (xml.readNext() != QXmlStreamReader::StartElement)
            continue;
        const auto number = [&](const char *name) {
            return xml.attributes().value(QLatin1StringView(name)).toDouble();
        };
        if (xml.name() == QLatin1StringView("rect"))
            boxes << Place{number("x"), number("y"), number("width"), number("height")};
        else if (texts && (xml.name() == QLatin1StringView("text") || xml.name() == QLatin1StringView("title")))
            *texts << xml.readElementText(QXmlStreamReader::SkipChildElements);
    }
    EXPECT_FALSE(xml.hasError()) << qPrintable(xml.errorString());
    return boxes;
}

class PipelineGraph : public ::testing::Test
{
protected:
    void SetUp() override
    {
        for (const char *name : {"Show", "Sky", "Mix"}) {
            const QString className = name == s("Sky")   ? s("GradientRenderPass")
                                      : name == s("Mix") ? s("BlendRenderPass")
                                                         : s("TextureToScreenRenderPass");
            ASSERT_TRUE(pipeline.add(s(name), className));
            ASSERT_TRUE(pipeline.bind(s(name), s("Viewport"), s("viewport")));
        }
        ASSERT_TRUE(pipeline.setValue(s("Sky"), s("ColorTop"), QColor(1, 2, 3)));
        ASSERT_TRUE(pipeline.connect(s("Sky.Frame"), s("Mix.FrameA")));
        ASSERT_TRUE(pipeline.connect(s("Mix.Frame"), s("Show.Texture")));
    }

    Pipeline pipeline;
};

} // namespace

TEST_F(PipelineGraph, InputsTellWhereTheirValuesComeFrom)
{
    const QVector<PassInput> sky = pipeline.inputs(s("Sky"));
    ASSERT_EQ(sky.size(), 3);
    EXPECT_EQ(sky[0].kind, PassInput::Kind::Host);
    EXPECT_EQ(sky[0].slot, s("Kvo_QRect_Viewport"));
    EXPECT_EQ(sky[0].source, s("@viewport"));
    EXPECT_EQ(sky[1].kind, PassInput::Kind::Value);
    EXPECT_EQ(sky[1].value.value<QColor>(), QColor(1, 2, 3));
    EXPECT_EQ(sky[2].kind, PassInput::Kind::Default);
    EXPECT_EQ(sky[2].value, pipeline.pass(s("Sky"))->defaultValue(2));
    const QVector<PassInput> show = pipeline.inputs(s("Show"));
    ASSERT_GT(show.size(), 1);
    EXPECT_EQ(show[1].kind, PassInput::Kind::Link);
    EXPECT_EQ(show[1].sourcePass, s("Mix"));
    EXPECT_EQ(show[1].source, s("Kvo_KvoTexture*_Frame"));
    EXPECT_TRUE(pipeline.inputs(s("None")).isEmpty());
}

TEST_F(PipelineGraph, TheClassIsKnownWhereThePassWasMadeByItsName)
{
    EXPECT_EQ(pipeline.className(s("Mix")), s("BlendRenderPass"));
    EXPECT_EQ(pipeline.className(s("None")), QString());
    ASSERT_TRUE(pipeline.add(s("Own"), std::make_unique<PlainPass>()));
    EXPECT_EQ(pipeline.className(s("Own")), QString());
    ASSERT_TRUE(pipeline.reset(s("Mix"), s("FrameA")));
    ASSERT_TRUE(pipeline.reset(s("Mix"), s("Viewport")));
    ASSERT_TRUE(pipeline.replace(s("Mix"), std::make_unique<PlainPass>())) << "only its output is in use";
    EXPECT_EQ(pipeline.className(s("Mix")), QString());
}

TEST_F(PipelineGraph, DrawsBoxesInTheOrderOfRunningFromLeftToRight)
{
    QStringList texts;
    const QString svg = pipelineGraph(pipeline);
    const QVector<Place> boxes = boxesOf(svg, &texts);
    ASSERT_EQ(boxes.size(), 3);
    for (int i = 1; i < 3; ++i)
        EXPECT_GT(boxes[i].x, boxes[i - 1].x + boxes[i - 1].width);
    for (const char *text : {"1 Sky", "2 Mix", "3 Show", "GradientRenderPass", "@viewport", "FrameA", "Texture",
                             "Sky.Kvo_KvoTexture*_Frame -> Mix.Kvo_KvoTexture*_FrameA"})
        EXPECT_FALSE(texts.filter(s(text)).isEmpty()) << text;
    EXPECT_EQ(svg.count(s("<path ")), 2) << "links";
}

TEST_F(PipelineGraph, BoxesKeepClearOfOneAnother)
{
    // A long link past a column, and a column of many.
    ASSERT_TRUE(pipeline.connect(s("Sky.Frame"), s("Show.TextureOut")));
    for (int i = 0; i < 6; ++i) {
        const QString name = s("Blend%1").arg(i);
        ASSERT_TRUE(pipeline.add(name, s("BlendRenderPass")));
        ASSERT_TRUE(pipeline.connect(s("Mix.Frame"), name + s(".FrameA")));
        ASSERT_TRUE(pipeline.connect(s("Sky.Frame"), name + s(".FrameB")));
    }
    const QVector<Place> boxes = boxesOf(pipelineGraph(pipeline));
    ASSERT_EQ(boxes.size(), 9);
    for (qsizetype i = 0; i < boxes.size(); ++i) {
        EXPECT_GE(boxes[i].x, 0);
        EXPECT_GE(boxes[i].y, 0);
        for (qsizetype j = 0; j < i; ++j) {
            const Place &a = boxes[i], &b = boxes[j];
            const bool apart =
                a.x + a.width < b.x || b.x + b.width < a.x || a.y + a.height < b.y || b.y + b.height < a.y;
            EXPECT_TRUE(apart) << i << " and " << j;
        }
    }
}

TEST_F(PipelineGraph, WithoutPassesThereIsNothingToDraw)
{
    EXPECT_TRUE(pipelineGraph(Pipeline()).isEmpty());
}
