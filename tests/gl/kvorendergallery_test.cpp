#include "support/kvorender.h"

#include <host/pipeline.h>
#include <host/pipelinefile.h>

#include <QDir>
#include <QFile>
#include <QImage>
#include <QRegularExpression>
#include <QSet>
#include <QXmlStreamReader>

// kvorender --gallery: the page, its pictures, and what happens when something is wrong.

using namespace Brevane::Kvo;
using namespace Brevane::Kvo::Test;

namespace {

const QString kBox = QStringLiteral("/usr/share/assimp/models/glTF2/BoxTextured-glTF-Binary/BoxTextured.glb");
const QString kSpider = QStringLiteral("/usr/share/assimp/models/OBJ/spider.obj");
const QString kPipelines = QStringLiteral(KVO_SOURCE_DIR "/pipelines");

class KvoRenderGallery : public KvoRenderTest
{
protected:
    QString page(const char *name = "gallery") const
    {
        QFile file(path(name) + QStringLiteral("/index.html"));
        EXPECT_TRUE(file.open(QIODevice::ReadOnly)) << qPrintable(file.fileName());
        return QString::fromUtf8(file.readAll());
    }
    // The section of a pipeline.
    static QString section(const QString &page, const QString &pipeline)
    {
        const qsizetype from = page.indexOf(QStringLiteral("<section id=\"%1\">").arg(pipeline));
        return from < 0 ? QString() : page.mid(from, page.indexOf(QStringLiteral("</section>"), from) - from);
    }
    static QStringList matches(const QString &text, const char *expression)
    {
        QStringList result;
        QRegularExpressionMatchIterator i = QRegularExpression(QLatin1StringView(expression)).globalMatch(text);
        while (i.hasNext())
            result << i.next().captured(1);
        return result;
    }
    static int colorsOf(const QImage &image)
    {
        QSet<QRgb> colors;
        for (int y = 0; y < image.height(); ++y)
            for (int x = 0; x < image.width(); ++x)
                colors.insert(image.pixel(x, y));
        return int(colors.size());
    }
};

} // namespace

TEST_F(KvoRenderGallery, ShowsEveryPipelineOfTheTreeWithPictureGraphAndSlots)
{
    succeed(QStringList{kBox} << words("--gallery gallery -s 96x54 -n 2 -q"));
    const QString html = page();
    const QVector<PipelineFileInfo> files = listPipelines({kPipelines});
    ASSERT_GE(files.size(), 20);
    QSet<QString> pictures;
    for (const PipelineFileInfo &file : files) {
        const QString part = section(html, file.name);
        ASSERT_FALSE(part.isEmpty()) << qPrintable(file.name);
        EXPECT_TRUE(part.contains(file.description.toHtmlEscaped())) << qPrintable(file.name);
        const QStringList shown = matches(part, "<img [^>]*src=\"([^\"]+)\"");
        EXPECT_EQ(shown.size(), 1) << qPrintable(file.name);
        for (const QString &picture : shown) {
            const QImage image(path("gallery") + QLatin1Char('/') + picture);
            EXPECT_EQ(image.size(), QSize(96, 54)) << qPrintable(picture);
            EXPECT_GT(colorsOf(image), 5) << qPrintable(picture);
            EXPECT_FALSE(pictures.contains(picture)) << qPrintable(picture);
            pictures.insert(picture);
        }
        // The drawing is XML by itself, and names all passes and links; so do the tables, with all slots.
        const QString graph = matches(part, "(?s)(<svg .*</svg>)").value(0);
        QXmlStreamReader xml(graph);
        while (!xml.atEnd())
            xml.readNext();
        EXPECT_FALSE(xml.hasError()) << qPrintable(file.name) << ": " << qPrintable(xml.errorString());
        Pipeline pipeline;
        ASSERT_TRUE(loadPipeline(file.path, &pipeline, nullptr));
        const QStringList order = pipeline.order();
        for (qsizetype i = 0; i < order.size(); ++i) {
            const QString title = QStringLiteral("%1 %2").arg(i + 1).arg(order[i]);
            EXPECT_TRUE(graph.contains(QLatin1Char('>') + title + QLatin1Char('<'))) << qPrintable(title);
            EXPECT_TRUE(part.contains(QStringLiteral("<h3>%1 ").arg(title))) << qPrintable(title);
            for (const PassInput &input : pipeline.inputs(order[i]))
                if (input.kind == PassInput::Kind::Link) {
                    EXPECT_TRUE(graph.contains(
                        QStringLiteral("<title>%1.%2 -&gt; %3.%4</title>")
                            .arg(input.sourcePass, input.source.toHtmlEscaped(), order[i], input.slot.toHtmlEscaped())))
                        << qPrintable(order[i]) << " " << qPrintable(input.slot);
                }
        }
        EXPECT_EQ(graph.count(QStringLiteral("<rect ")), order.size()) << qPrintable(file.name);
        EXPECT_TRUE(part.contains(QStringLiteral("<h3>Times</h3>"))) << qPrintable(file.name);
    }
    EXPECT_EQ(QDir(path("gallery")).entryList(QDir::Files).size(), pictures.size() + 1) << "and the page";
    EXPECT_TRUE(html.contains(QStringLiteral("All of them ran without a fault")));
    // Opens from disk: nothing comes from elsewhere, nothing runs.
    EXPECT_FALSE(html.contains(QStringLiteral("<script")));
    EXPECT_EQ(matches(html, "((?:src|href)=\"(?:https?:|/)[^\"]*)"), QStringList());
}

TEST_F(KvoRenderGallery, ShowsPipelinesOnEveryModelWithASizeOfTimes)
{
    succeed(QStringList{kBox, kSpider} << words("--gallery deep/gallery -s 48x32 -n 3 -q -p forward -p gradient"));
    const QString html = page("deep/gallery");
    EXPECT_EQ(matches(html, "<section id=\"([^\"]+)\""),
              (QStringList{QStringLiteral("forward"), QStringLiteral("gradient")}));
    EXPECT_EQ(matches(section(html, QStringLiteral("forward")), "<img [^>]*src=\"([^\"]+)\""),
              (QStringList{QStringLiteral("forward-BoxTextured.png"), QStringLiteral("forward-spider.png")}));
    EXPECT_EQ(matches(section(html, QStringLiteral("gradient")), "<img [^>]*src=\"([^\"]+)\""),
              QStringList{QStringLiteral("gradient.png")})
        << "which draws no model";
    // A row per pass and one for all, of a pair of numbers per model; the GPU's are "-" without timers.
    const QString rows = section(html, QStringLiteral("forward")).section(QStringLiteral("<h3>Times</h3>"), 1);
    EXPECT_EQ(
        matches(rows.section(QStringLiteral("</table>"), 0, 0), "<td class=\"n\">([0-9]+[.][0-9]{2}|-)</td>").size(),
        (2 + 1) * 2 * 2);
    EXPECT_TRUE(html.contains(QStringLiteral("2 pipelines at 48x32, frame 3")));
}

TEST_F(KvoRenderGallery, PreparesTheModelForWhatAPipelineIsAbout)
{
    succeed(QStringList{kBox} << words("--gallery own -s 48x32 -n 1 -q -p oit -p oit-weighted -p shadows -p forward"));
    const auto settings = [this](const char *folderName, const char *pipeline) {
        return matches(section(page(folderName), QLatin1StringView(pipeline)), "<figcaption>([^<]*)</figcaption>")
            .value(0);
    };
    EXPECT_EQ(settings("own", "oit"), QStringLiteral("BoxTextured, all at an opacity of 0.35"));
    EXPECT_EQ(settings("own", "oit-weighted"), QStringLiteral("BoxTextured, all at an opacity of 0.35"));
    EXPECT_EQ(settings("own", "shadows"), QStringLiteral("BoxTextured, on a floor"));
    EXPECT_EQ(settings("own", "forward"), QStringLiteral("BoxTextured"));
    succeed(QStringList{kBox} << words("--gallery given -s 48x32 -n 1 -q -p oit -p shadows --opacity 0.5 --scale 2"));
    for (const char *pipeline : {"oit", "shadows"})
        EXPECT_EQ(settings("given", pipeline), QStringLiteral("BoxTextured, all at an opacity of 0.5, scaled by 2"));
    EXPECT_NE(QImage(path("own/oit-BoxTextured.png")), QImage(path("given/oit-BoxTextured.png")));
}

TEST_F(KvoRenderGallery, PicturesAreTheSameAtEveryMaking)
{
    for (const char *name : {"one", "two"})
        succeed(QStringList{kBox} << words("-s 48x32 -n 4 -q -p taa -p smaa-t2x --gallery") << QLatin1StringView(name));
    for (const char *picture : {"taa-BoxTextured.png", "smaa-t2x-BoxTextured.png"}) {
        const QImage one(path("one") + QLatin1Char('/') + QLatin1StringView(picture));
        ASSERT_FALSE(one.isNull()) << picture;
        EXPECT_EQ(one, QImage(path("two") + QLatin1Char('/') + QLatin1StringView(picture))) << picture;
    }
}

TEST_F(KvoRenderGallery, TakesTheSamplesOfTheSystemWhereNoModelIsGiven)
{
    QStringList present;
    for (const char *sample : {"/usr/share/assimp/models/glTF2/2CylinderEngine-glTF-Binary/2CylinderEngine.glb",
                               "/usr/share/assimp/models/OBJ/spider.obj", "/usr/share/glmark2/models/bunny.obj"})
        if (QFile::exists(QLatin1StringView(sample)))
            present << QFileInfo(QLatin1StringView(sample)).completeBaseName();
    if (present.isEmpty()) {
        expectFailure(words("--gallery gallery -s 48x32 -n 1 -q -p forward"), 1, "none of the sample models is there");
        return;
    }
    const Outcome outcome = succeed(words("--gallery gallery -s 48x32 -n 1 -p forward"));
    EXPECT_EQ(outcome.err.count(QStringLiteral("so it is left out")), 3 - present.size());
    for (const QString &model : std::as_const(present))
        EXPECT_FALSE(QImage(path("gallery") + QStringLiteral("/forward-%1.png").arg(model)).isNull())
            << qPrintable(model);
}

TEST_F(KvoRenderGallery, TellsInThePageWhatFailsAndShowsTheRest)
{
    ASSERT_TRUE(QDir(folder.path()).mkdir(QStringLiteral("mine")));
    write("mine/a-wrong-class.json", R"({ "passes": [ { "name": "A", "class": "GradientPass" } ] })");
    write("mine/b-wrong-shader.json", R"({ "description": "Less < more & \"so\" on", "passes": [
        { "name": "Draw", "class": "ShaderRenderPass",
          "calls": [ { "addOutput": ["Kvo_KvoTexture*_Frame"] }, { "setFragmentShaderSource": ["no shader"] } ],
          "inputs": { "Viewport": "@viewport" } },
        { "name": "Show", "class": "TextureToScreenRenderPass",
          "inputs": { "Viewport": "@viewport", "Texture": { "from": "Draw.Frame" }, "FramebufferOut": "@screen" } } ] })");
    write("mine/c-no-picture.json", R"({ "passes": [
        { "name": "A", "class": "GradientRenderPass", "inputs": { "Viewport": "@viewport" } } ] })");
    const Outcome outcome =
        run(QStringList{kBox} << words("--pipelines mine --gallery gallery -s 48x32 -n 2 -q -p a-wrong-class "
                                       "-p b-wrong-shader -p c-no-picture -p forward"));
    EXPECT_EQ(outcome.exitCode, 1) << qPrintable(outcome.err);
    const QString html = page();
    EXPECT_TRUE(html.contains(QStringLiteral("3 failed")));
    const auto failures = [&](const char *pipeline) {
        return matches(section(html, QLatin1StringView(pipeline)), "(?s)<p class=\"failure\">(.*?)</p>")
            .join(QLatin1Char('\n'));
    };
    EXPECT_TRUE(failures("a-wrong-class").contains(QStringLiteral("did you mean 'GradientRenderPass'?")));
    EXPECT_TRUE(failures("b-wrong-shader").contains(QStringLiteral("shader program 'Draw' failed")))
        << qPrintable(failures("b-wrong-shader"));
    EXPECT_TRUE(section(html, QStringLiteral("b-wrong-shader"))
                    .contains(QStringLiteral("Less &lt; more &amp; &quot;so&quot; on")));
    EXPECT_TRUE(failures("c-no-picture").contains(QStringLiteral("makes no picture")));
    EXPECT_EQ(failures("forward"), QString());
    EXPECT_FALSE(QImage(path("gallery/forward-BoxTextured.png")).isNull());
    for (const char *text : {"did you mean 'GradientRenderPass'?", "makes no picture", "pipeline 'b-wrong-shader'"})
        EXPECT_TRUE(outcome.err.contains(QLatin1StringView(text))) << text;
}

TEST_F(KvoRenderGallery, RefusesWhatDoesNotGoWithIt)
{
    write("file", "not a folder");
    expectFailure(QStringList{kBox} << words("--gallery file"), 1,
                  "cannot write a gallery to 'file': it is not a folder");
    expectFailure(QStringList{kBox} << words("--gallery file/gallery"), 1,
                  "cannot write a gallery to 'file/gallery': the folder cannot be made");
    expectFailure(QStringList{kBox} << words("--gallery g -o out.png"), 2, "--gallery and --output do not go together");
    expectFailure(QStringList{kBox} << words("--gallery g --set A.B=1"), 2, "--gallery and --set do not go together");
    expectFailure(QStringList{kBox} << words("--gallery="), 2, "--gallery takes a folder");
    expectFailure(QStringList{kBox} << words("--gallery g -p forwrd"), 1, "did you mean 'forward'?");
    expectFailure(words("missing.obj --gallery g -p forward -q"), 1, "cannot read model 'missing.obj'");
    EXPECT_FALSE(QFile::exists(path("g/index.html")));
}
