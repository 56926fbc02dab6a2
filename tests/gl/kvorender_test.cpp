#include "support/kvorender.h"

#include <host/versiondetails.h>

#include <QDir>
#include <QFile>
#include <QImage>
#include <QJsonDocument>
#include <QJsonObject>
#include <QRegularExpression>

// The program as a whole, as people start it: exit codes, messages, files.

using namespace Brevane::Kvo::Test;

namespace {

const QString kModels = QStringLiteral("/usr/share/assimp/models/");
const QString kEngine = kModels + QStringLiteral("glTF2/2CylinderEngine-glTF-Binary/2CylinderEngine.glb");
const QString kBox = kModels + QStringLiteral("glTF2/BoxTextured-glTF-Binary/BoxTextured.glb");

class KvoRender : public KvoRenderTest
{};

// Share of pixels that are not transparent.
double coverage(const QImage &image)
{
    qint64 covered = 0;
    for (int y = 0; y < image.height(); ++y)
        for (int x = 0; x < image.width(); ++x)
            covered += qAlpha(image.pixel(x, y)) > 0;
    return double(covered) / (double(image.width()) * image.height());
}

} // namespace

TEST_F(KvoRender, DrawsAGradientWithoutAModel)
{
    succeed(words("-p gradient --size 33x17 -o out.png"));
    const QImage image(path("out.png"));
    ASSERT_EQ(image.size(), QSize(33, 17));
    EXPECT_NEAR(qRed(image.pixel(16, 0)), 64, 4) << "dark above";
    EXPECT_NEAR(qRed(image.pixel(16, 16)), 153, 4) << "bright below";
}

TEST_F(KvoRender, DrawsAModelThroughBothLitChainsAlike)
{
    succeed(QStringList{kEngine} << words("-p forward -s 96x64 -o forward.png"));
    succeed(QStringList{kEngine} << words("-p deferred-model -s 96x64 -o deferred.png"));
    const QImage forward(path("forward.png")), deferred(path("deferred.png"));
    ASSERT_EQ(forward.size(), QSize(96, 64));
    ASSERT_EQ(deferred.size(), QSize(96, 64));
    EXPECT_GT(coverage(forward), 0.1);
    EXPECT_LT(coverage(forward), 0.9);
    qint64 differing = 0;
    for (int y = 0; y < 64; ++y)
        for (int x = 0; x < 96; ++x)
            differing += std::abs(qGreen(forward.pixel(x, y)) - qGreen(deferred.pixel(x, y))) > 8;
    // The forward pass shades with normals that are not of unit length between vertices.
    EXPECT_LT(double(differing) / (96 * 64), 0.02);
}

TEST_F(KvoRender, ShowsTexturesUpright)
{
    // Seen from the front, the picture on the box has its sky above and its grass below.
    succeed(QStringList{kBox} << words("-s 64x64 -c yaw=0:pitch=0 -o out.png"));
    const QImage image(path("out.png"));
    const QRgb above = image.pixel(32, 12), below = image.pixel(32, 52);
    EXPECT_GT(qBlue(above), qGreen(above));
    EXPECT_GT(qGreen(below), qBlue(below));
}

TEST_F(KvoRender, TakesTheForwardPipelineForAModelAndAnOwnFile)
{
    succeed(QStringList{kBox} << words("-s 16x16 -o out.png -q"));
    EXPECT_GT(coverage(QImage(path("out.png"))), 0.2);
    write("mine.json", R"({ "passes": [
        { "name": "Sky", "class": "GradientRenderPass", "inputs": { "Viewport": "@viewport", "ColorTop": "#ff0000", "ColorBottom": null } },
        { "name": "Show", "class": "TextureToScreenRenderPass",
          "inputs": { "Viewport": "@viewport", "Texture": { "from": "Sky.Frame" }, "FramebufferOut": "@screen" } } ] })");
    succeed(words("-p mine.json -s 4x4 -o out.png"));
    EXPECT_EQ(QImage(path("out.png")).pixel(2, 2), qRgb(255, 0, 0));
    succeed(words("--pipelines . -p mine -s 4x4 -o out.png --set Sky.ColorTop=#00ff00"));
    EXPECT_EQ(QImage(path("out.png")).pixel(2, 2), qRgb(0, 255, 0));
}

TEST_F(KvoRender, PutsThePictureOnABackground)
{
    succeed(QStringList{kBox} << words("-p forward -s 32x32 -o out.png --background #102030"));
    const QImage image(path("out.png"));
    EXPECT_EQ(image.pixel(0, 0), qRgb(0x10, 0x20, 0x30));
    EXPECT_EQ(coverage(image), 1.0);
}

TEST_F(KvoRender, SaysThatNothingShowsOfABackground)
{
    const QString message = QStringLiteral("--background has no effect: the picture is opaque everywhere");
    const QStringList picture = QStringList{kBox} << words("-s 32x24 -o out.png --background #102030 -p");
    EXPECT_TRUE(succeed(QStringList(picture) << QStringLiteral("studio")).err.contains(message));
    EXPECT_FALSE(succeed(QStringList(picture) << QStringLiteral("forward")).err.contains(message));
}

TEST_F(KvoRender, DumpsTextureSlots)
{
    const Outcome outcome =
        succeed(QStringList{kBox} << words("-p deferred-model -s 40x30 -n 2 --dump Model.Depth=depth.png "
                                           "--dump Model.Depth=depth.exr --dump Model.Normal=normal.png "
                                           "--dump Model.Kvo_KvoTexture*_Id=id.png"));
    for (const char *name : {"depth.png", "normal.png", "id.png"})
        EXPECT_EQ(QImage(path(name)).size(), QSize(40, 30)) << name;
    EXPECT_EQ(outcome.err.count(QStringLiteral("wrote ")), 4) << "each once, however many frames";
    const QImage depth(path("depth.png")), normal(path("normal.png"));
    EXPECT_EQ(depth.pixel(0, 0), qRgb(0, 0, 0)) << "nothing is far";
    EXPECT_GT(qRed(depth.pixel(20, 15)), 50);
    EXPECT_EQ(normal.pixel(0, 0), qRgb(128, 128, 128));
    QFile exr(path("depth.exr"));
    ASSERT_TRUE(exr.open(QIODevice::ReadOnly));
    EXPECT_EQ(exr.read(4), QByteArray("\x76\x2f\x31\x01", 4));
}

TEST_F(KvoRender, PrintsTimesPerPass)
{
    const Outcome outcome = succeed(QStringList{kBox} << words("-p deferred-model -s 32x32 -n 6 --timings"));
    const QStringList lines = outcome.out.split(QLatin1Char('\n'), Qt::SkipEmptyParts);
    ASSERT_EQ(lines.size(), 5) << qPrintable(outcome.out);
    EXPECT_TRUE(lines[0].startsWith(QStringLiteral("pass")));
    const QStringList names{QStringLiteral("Model"), QStringLiteral("Shade"), QStringLiteral("Present")};
    for (int i = 0; i < 3; ++i) {
        static const QRegularExpression kRow(QStringLiteral("^(\\w+) +(-|[0-9.]+) +(-|[0-9.]+) +[0-9.]+ +[0-9.]+ +5$"));
        const QRegularExpressionMatch match = kRow.match(lines[i + 1]);
        ASSERT_TRUE(match.hasMatch()) << qPrintable(lines[i + 1]);
        EXPECT_EQ(match.captured(1), names[i]);
    }
}

TEST_F(KvoRender, PrintsTheValueOfAnOutput)
{
    const Outcome outcome = succeed(QStringList{kBox} << words("-p luminance -s 64x64 -n 2 -q "
                                                               "--print Luminance.averageLuminance "
                                                               "--print Luminance.Kvo_KvoTexture*_Frame"));
    const QStringList lines = outcome.out.split(QLatin1Char('\n'), Qt::SkipEmptyParts);
    ASSERT_EQ(lines.size(), 2) << qPrintable(outcome.out);
    static const QRegularExpression kNumber(QStringLiteral("^Luminance.averageLuminance = (0[.][0-9]+)$"));
    const QRegularExpressionMatch match = kNumber.match(lines[0]);
    ASSERT_TRUE(match.hasMatch()) << qPrintable(lines[0]);
    EXPECT_GT(match.captured(1).toDouble(), 0.2) << "of a backdrop around 0.6";
    EXPECT_TRUE(lines[1].startsWith(QStringLiteral("Luminance.Kvo_KvoTexture*_Frame = ")));
    expectFailure(QStringList{kBox} << words("-p luminance -o out.png --print Luminance.averageLumnance"), 2,
                  "did you mean 'averageLuminance'?");
    expectFailure(QStringList{kBox} << words("-p luminance -o out.png --print Luminance"), 2,
                  "--print takes PASS.SLOT, not 'Luminance'");
}

TEST_F(KvoRender, ScalesTheModelForPassesThatCountInUnits)
{
    // The engine is hundreds of units long, and farther away than obscurance looks.
    const auto obscured = [&](const char *scale) {
        succeed(
            QStringList{kEngine} << words("-p ambient-obscurance -s 96x54 --dump Obscurance.Frame=ao.png -q --scale")
                                 << QString::fromLatin1(scale));
        const QImage image(path("ao.png"));
        int count = 0;
        for (int y = 0; y < image.height(); ++y)
            for (int x = 0; x < image.width(); ++x)
                count += qRed(image.pixel(x, y)) < 200;
        return count;
    };
    EXPECT_EQ(obscured("1"), 0);
    EXPECT_GT(obscured("fit"), 100);
    // The picture of a lit model is the same at every size.
    succeed(QStringList{kEngine} << words("-p forward -s 96x54 -o one.png -q"));
    succeed(QStringList{kEngine} << words("-p forward -s 96x54 -o other.png -q --scale 0.25"));
    const QImage one(path("one.png")), other(path("other.png"));
    int differing = 0;
    for (int y = 0; y < one.height(); ++y)
        for (int x = 0; x < one.width(); ++x)
            differing += std::abs(qGreen(one.pixel(x, y)) - qGreen(other.pixel(x, y))) > 8;
    EXPECT_LT(differing, 96 * 54 / 100) << "rounding moves an edge here and there";
    for (const char *scale : {"0", "-1", "fitting", "inf"})
        expectFailure(QStringList{kBox, QStringLiteral("-o"), QStringLiteral("out.png"), QStringLiteral("--scale"),
                                  QString::fromLatin1(scale)},
                      2, "--scale takes a number above 0 or fit");
}

TEST_F(KvoRender, TellsWhatThereIs)
{
    Outcome outcome = run(words("--list"));
    EXPECT_EQ(outcome.exitCode, 0);
    for (const char *text : {"gradient", "forward", "deferred-model", "@viewport", "TextureToScreenRenderPass",
                             "in   Kvo_QColor_ColorTop = #404040", "out  Kvo_KvoTexture*_Depth",
                             "call addCube(float, QVector3D)", "in   Kvo_float_SAORadius = 0.08"})
        EXPECT_TRUE(outcome.out.contains(QLatin1StringView(text))) << text;
    outcome = run(words("--list GaussianBlurRenderPass"));
    EXPECT_EQ(outcome.exitCode, 0);
    for (const char *text : {"GaussianBlurRenderPass: blurs an image",
                             "in   Kvo_float_ResolutionDivider  float        1        0.01 to 64", "0 to 511 texels",
                             "out  Kvo_KvoTexture*_Output"})
        EXPECT_TRUE(outcome.out.contains(QLatin1StringView(text))) << text << "\n" << qPrintable(outcome.out);
    EXPECT_TRUE(run(words("--list BlendRenderPass")).out.contains(QStringLiteral("  18  colorDodge")));
    EXPECT_TRUE(run(words("--list ShaderRenderPass")).out.contains(QStringLiteral("  addInput(QString)")));
    expectFailure(words("--list GaussianBlurPass"), 2,
                  "there is no pass class 'GaussianBlurPass'; did you mean 'GaussianBlurRenderPass'?");
    outcome = run(words("--schema"));
    EXPECT_EQ(outcome.exitCode, 0);
    EXPECT_TRUE(QJsonDocument::fromJson(outcome.out.toUtf8()).object().contains(QStringLiteral("$defs")));
    outcome = run(words("--gl-info"));
    EXPECT_EQ(outcome.exitCode, 0);
    EXPECT_TRUE(outcome.out.contains(QStringLiteral("OpenGL ")));
    EXPECT_TRUE(outcome.out.contains(QStringLiteral("renderer ")));
    outcome = run(words("--help"));
    EXPECT_EQ(outcome.exitCode, 0);
    EXPECT_TRUE(outcome.out.contains(QStringLiteral("Examples")));
    // Words may stand on two lines.
    EXPECT_TRUE(outcome.out.simplified().contains(QStringLiteral("gradient without; may be repeated with --gallery")));
    outcome = run(words("--version"));
    EXPECT_EQ(outcome.exitCode, 0);
    // Its driver is the one of this process, which has the same environment.
    EXPECT_EQ(outcome.out, QStringLiteral("kvorender ") + Brevane::Kvo::versionDetails().text());
}

TEST_F(KvoRender, WarnsOfOptionsWithoutEffectAndOfValuesBeyondSense)
{
    const auto warned = [this](const char *options, const char *warning) {
        const Outcome outcome = succeed(words(options) << words("-p gradient -s 8x8 -o out.png"));
        EXPECT_TRUE(outcome.err.contains(QStringLiteral("kvorender: warning: %1\n").arg(QLatin1StringView(warning))))
            << qPrintable(outcome.err);
    };
    write("sky.png", QByteArray());
    warned("--light point:1,2,3", "@lights has no effect: no input is bound to it");
    warned("--path sky=sky.png", "@paths.sky has no effect: no input is bound to it");
    warned("--camera yaw=20", "--camera has no effect: the pipeline asks for no camera");
    warned("--scale fit", "--scale, --floor and --opacity have no effect without a model");
    const Outcome outcome = succeed(QStringList{kBox} << words("-p gradient -s 8x8 -o out.png"));
    EXPECT_TRUE(outcome.err.contains(QStringLiteral("warning: the model has no effect: the pipeline draws none\n")))
        << qPrintable(outcome.err);
}

TEST_F(KvoRender, KeepsQuietWhenTold)
{
    // The driver may have something to say all the same.
    EXPECT_FALSE(succeed(words("-q -p gradient -s 8x8 -o out.png")).err.contains(QStringLiteral("kvorender: ")));
    EXPECT_TRUE(
        succeed(words("-p gradient -s 8x8 -o out.png")).err.contains(QStringLiteral("kvorender: wrote out.png")));
}

// Options are declared once: what the help shows is what is read, and each refuses what is no value of it.
TEST_F(KvoRender, EveryOptionOfTheHelpNamesItselfWhenItsValueIsWrong)
{
    static const QRegularExpression kOption(QStringLiteral("^  (?:-[a-z], |    )--([a-z-]+)(?: (\\S+))?"),
                                            QRegularExpression::MultilineOption);
    const QString help = run(words("--help")).out;
    int taken = 0;
    for (auto match = kOption.globalMatch(help); match.hasNext();) {
        const QRegularExpressionMatch option = match.next();
        const QString name = option.captured(1);
        if (option.captured(2).isEmpty() || name == QStringLiteral("camera")) // whose default is empty
            continue;
        const Outcome outcome = run({QStringLiteral("--%1=").arg(name), QStringLiteral("--gl-info")});
        EXPECT_EQ(outcome.exitCode, 2) << qPrintable(name);
        EXPECT_TRUE(outcome.err.startsWith(QStringLiteral("kvorender: --%1 ").arg(name))) << qPrintable(outcome.err);
        EXPECT_TRUE(outcome.err.endsWith(QStringLiteral("(see kvorender --help)\n"))) << qPrintable(outcome.err);
        ++taken;
    }
    EXPECT_EQ(taken, 24);
}

TEST_F(KvoRender, RefusesAWrongCommandLine)
{
    expectFailure({}, 2, "nothing to do");
    expectFailure(words("--frobnicate"), 2, "frobnicate");
    expectFailure(words("-p forward -p oit -o out.png"), 2, "one pipeline at a time, not 'forward' and 'oit'");
    expectFailure(words("a.obj b.obj -o out.png"), 2, "one model at a time, not 'a.obj' and 'b.obj'");
    for (const char *size : {"0x5", "5", "5x", "-1x5", "axb", "99999999x1", "65537x1"})
        expectFailure(words("-o out.png") << QStringLiteral("--size=") + QLatin1StringView(size), 2, size);
    for (const char *frames : {"0", "-3", "many"})
        expectFailure(words("-o out.png") << QStringLiteral("--frames=") + QLatin1StringView(frames), 2, frames);
    expectFailure(words("-o out.png --background nocolour"), 2, "nocolour");
    expectFailure(words("-o out.png --camera yow=3"), 2, "there is no setting 'yow'; did you mean 'yaw'?");
    expectFailure(words("-p forward -o out.png"), 2, "pipeline 'forward' draws a model: name a model file");
}

TEST_F(KvoRender, NamesWrongSlots)
{
    expectFailure(words("-o out.png --set Gradient.ColorTp=red"), 2,
                  "pass 'Gradient' has no input 'ColorTp'; did you mean 'ColorTop'?");
    expectFailure(words("-o out.png --set Gradent.ColorTop=red"), 2,
                  "there is no pass 'Gradent'; did you mean 'Gradient'?");
    expectFailure(words("-o out.png --set Gradient.ColorTop=12"), 2, "'Kvo_QColor_ColorTop' takes");
    expectFailure(
        words("-p taa -o out.png --set Jitter.JitterMode=1.5"), 2,
        "--set Jitter.JitterMode=1.5: pass 'Jitter': 'Kvo_int_JitterMode' takes one of none, randomAfterChange, alternating, random, or a whole number, not the number 1.5");
    expectFailure(words("-p fxaa -o out.png --set Scene.Int_BlendMode=over"), 2,
                  "multiplyKeepAlpha, or a whole number, not the text \"over\"");
    expectFailure(words("-o out.png --set Present.ViewportOut=@viewport[0,0]"), 2, "'[0,0]' is no part of a rectangle");
    expectFailure(words("-o out.png --set ColorTop"), 2, "--set takes PASS.SLOT=VALUE, not 'ColorTop'");
    expectFailure(words("-o out.png --dump Gradient.Viewport=a.png"), 2,
                  "'Viewport' of pass 'Gradient' is not an output");
    expectFailure(words("-o out.png --dump Gradient.Frame"), 2, "--dump takes PASS.SLOT=FILE, not 'Gradient.Frame'");
    expectFailure(words("-o out.png --path sky=/no/such.png"), 1, "there is no file '/no/such.png'");
}

TEST_F(KvoRender, NamesModelsThatCannotBeRead)
{
    expectFailure(words("missing.obj -o out.png"), 1, "cannot read model 'missing.obj': there is no such file");
    write("empty.obj", "");
    expectFailure(words("empty.obj -o out.png"), 1, "cannot read model 'empty.obj': the file is empty");
    write("broken.glb", "glTF but not really");
    expectFailure(words("broken.glb -o out.png"), 1, "cannot read model 'broken.glb': ");
    write("points.obj", "v 0 0 0\nv 1 0 0\nv 0 1 0\np 1 2 3\n");
    expectFailure(words("points.obj -o out.png"), 1, "cannot read model 'points.obj': it holds no triangles");
}

TEST_F(KvoRender, NamesPipelinesThatCannotBeUsed)
{
    expectFailure(words("-p gradiant -o out.png"), 1, "there is no pipeline 'gradiant'; did you mean 'gradient'?");
    expectFailure(words("-p no/such.json -o out.png"), 1, "there is no pipeline file 'no/such.json'");
    write("broken.json", "{\n \"passes\": [\n {");
    expectFailure(words("-p broken.json -o out.png"), 1, "broken.json:3: expected a name in double quotes");
    write("wrong.json", "{ \"passes\": [\n { \"name\": \"A\",\n \"class\": \"GradientPass\" } ] }");
    expectFailure(words("-p wrong.json -o out.png"), 1,
                  "wrong.json:3: there is no pass class 'GradientPass'; did you mean 'GradientRenderPass'?");
    write(
        "nowhere.json",
        "{ \"passes\": [ { \"name\": \"A\", \"class\": \"GradientRenderPass\", \"inputs\": { \"Viewport\": \"@viewport\" } } ] }");
    expectFailure(words("-p nowhere.json -o out.png"), 1, "none of its inputs is bound to @screen");
}

TEST_F(KvoRender, NamesFilesThatCannotBeWritten)
{
    expectFailure(words("-p gradient -o /no/such/out.png"), 1,
                  "cannot write '/no/such/out.png': there is no folder '/no/such'");
    for (const char *line : {"-p gradient -o picture.doc", "-p gradient --dump Gradient.Frame=picture.doc",
                             "-p gradient --compare Gradient.Frame,Gradient.Frame=picture.doc",
                             "-p oit --oit-lengths picture.doc", "-p gradient -o picture.doc -s 30000x30000"})
        expectFailure(words(line), 2, "cannot write 'picture.doc': its name has to end in .png");
    for (const char *line : {"-p gradient -o a.png --dump Gradient.Frame=./a.png",
                             "-p gradient --dump Gradient.Frame=a.png --dump Gradient.Frame=x/../a.png",
                             "-p gradient --compare Gradient.Frame,Gradient.Frame=a.png --oit-lengths a.png"})
        expectFailure(words(line), 2, "a.png' is named twice");
    expectFailure(words("-p gradient --dump Gradient.Frame=/no/such/a.exr"), 1, "cannot write '/no/such/a.exr'");
    ASSERT_TRUE(QDir(folder.path()).mkdir(QStringLiteral("folder.png")));
    expectFailure(words("-p gradient -o folder.png"), 1, "cannot write 'folder.png': it is a folder");
    expectFailure(words("-p gradient -s 30000x30000 -o out.bmp"), 2, "a picture in tiles has to end in .png");
}

TEST_F(KvoRender, DrawsAModelOnAFloorWithShadowsOfTheLightsGiven)
{
    const QStringList common{kBox,
                             QStringLiteral("-p"),
                             QStringLiteral("shadows"),
                             QStringLiteral("--floor"),
                             QStringLiteral("-s"),
                             QStringLiteral("96x64"),
                             QStringLiteral("-o")};
    succeed(QStringList(common) << QStringLiteral("sun.png"));
    succeed(QStringList(common) << QStringLiteral("lamps.png") << QStringLiteral("--light")
                                << QStringLiteral("spot:0,4,0,0,-1,0,60:color=#ff8000") << QStringLiteral("--light")
                                << QStringLiteral("point:2,2,2") << QStringLiteral("--dump")
                                << QStringLiteral("Shadows.ShadowMapData=maps.png") << QStringLiteral("--dump")
                                << QStringLiteral("Shadows.ShadowMapData=maps.exr") << QStringLiteral("--set")
                                << QStringLiteral("Shadows.MapSize=[32, 32]"));
    const QImage sun(folder.filePath(QStringLiteral("sun.png")));
    const QImage lamps(folder.filePath(QStringLiteral("lamps.png")));
    ASSERT_FALSE(sun.isNull());
    EXPECT_NE(sun, lamps);
    // one layer of the spot light and six of the point light, three in a row
    EXPECT_EQ(QImage(folder.filePath(QStringLiteral("maps.png"))).size(), QSize(3 * 32 + 2 * 2, 3 * 32 + 2 * 2));
    EXPECT_TRUE(QFile::exists(folder.filePath(QStringLiteral("maps.exr"))));
}

TEST_F(KvoRender, ALightWithAMistakeIsNamed)
{
    expectFailure({kBox, QStringLiteral("-p"), QStringLiteral("shadows"), QStringLiteral("-o"), QStringLiteral("a.png"),
                   QStringLiteral("--light"), QStringLiteral("spt:0,4,0")},
                  2, "did you mean 'spot'?");
}

TEST_F(KvoRender, DrawsAPictureWithNumbersBeyondAllSenseAndSaysWhatItUsed)
{
    const std::pair<const char *, const char *> table[] = {
        {"--set Glow.BlurRadius=1e9",
         "kvorender: warning: BlurAndCombineRenderPass: Kvo_float_BlurRadius 1e+09 is beyond 512 taps; 511 is used"},
        {"--set Glow.BlurRadius=1e300", "Kvo_float_BlurRadius inf is beyond 512 taps; 511 is used"},
        {"--set Glow.Viewport=[0,0,2000000000,4]", "Kvo_QRect_Viewport asks for 2000000000x4 pixels"},
        {"--set Glow.Viewport=[-2000000000,-2000000000,2000000000,2000000000]",
         "Kvo_QRect_Viewport asks for 2000000000x2000000000 pixels"},
    };
    for (const auto &[options, said] : table) {
        QFile::remove(path("out.png"));
        const Outcome outcome = succeed(QStringList{kBox} << words("-p glow -s 32x24 -q -o out.png") << words(options));
        EXPECT_EQ(outcome.err.count(QLatin1StringView(said)), 1) << options << "\n" << qPrintable(outcome.err);
        EXPECT_EQ(QImage(path("out.png")).size(), QSize(32, 24)) << options;
    }
}

TEST_F(KvoRender, RefusesNumbersThatAreNoneAndPicturesBeyondTheDriver)
{
    for (const char *number : {"inf", "nan", "-inf"})
        expectFailure(QStringList{kBox} << words("-p glow -o out.png --set")
                                        << QStringLiteral("Glow.BlurRadius=") + QLatin1StringView(number),
                      2, "takes a number");
    expectFailure(QStringList{kBox} << words("-p glow -o out.png --size 2000000000x10"), 2, "2000000000x10");
    expectFailure(QStringList{kBox} << words("-p background-image -o out.png --size 60000x60000"), 1,
                  "a picture of 60000x60000 cannot be put together from tiles: pass 'Background'");
}

// A blur gives a stencil texture back only when it has a material to look for: the count stays open.
TEST_F(KvoRender, AFaultInTheChainIsAFailureAndThePictureThereAllTheSame)
{
    write("leak.json", R"({ "passes": [
        { "name": "A", "class": "ShaderRenderPass", "calls": [{ "addOutput": ["Kvo_KvoTexture*_Frame"] },
          { "setFragmentShaderSource": ["#version 150\nout vec4 o_Frame;\nvoid main() { o_Frame = vec4(1.0); }"] }],
          "inputs": { "Viewport": "@viewport" } },
        { "name": "B", "class": "ShaderRenderPass", "calls": [{ "addOutput": ["Kvo_KvoTexture*_Frame"] },
          { "setFragmentShaderSource": ["#version 150\nout vec4 o_Frame;\nvoid main() { o_Frame = vec4(1.0); }"] }],
          "inputs": { "Viewport": "@viewport" } },
        { "name": "Soft", "class": "GaussianBlurRenderPass",
          "inputs": { "Viewport": "@viewport", "BlurRadius": 2, "Input": { "from": "A.Frame" },
                      "Stencil": { "from": "B.Frame" } } },
        { "name": "Present", "class": "TextureToScreenRenderPass",
          "inputs": { "Viewport": "@viewport", "Texture": { "from": "Soft.Output" }, "FramebufferOut": "@screen" } }
    ] })");
    const Outcome outcome = run(words("-p leak.json -s 8x8 -o out.png"));
    EXPECT_EQ(outcome.exitCode, 1);
    EXPECT_TRUE(outcome.err.contains(QStringLiteral("pass 'Soft' did not give back"))) << qPrintable(outcome.err);
    EXPECT_TRUE(outcome.err.contains(QStringLiteral("1 fault(s) in pipeline"))) << qPrintable(outcome.err);
    EXPECT_EQ(QImage(path("out.png")).size(), QSize(8, 8));
}
