#include "commandline.h"

#include "host/imageoutput.h"

#include <QCommandLineParser>
#include <QRegularExpression>

#include <cmath>
#include <cstdio>

namespace {

constexpr int kLargestSide = 65536;
constexpr int kMostFrames = 1000000;
constexpr QSize kGallerySize(640, 360);
constexpr int kGalleryFrames = 5;

const char kHelp[] = R"(Usage: kvorender [MODEL] [options]

Renders a 3D model through a pipeline of passes to an image file. Needs neither a display nor a GPU.

What to draw
  MODEL                    a model file: glTF, OBJ, FBX, Collada, STL, PLY, 3DS and more
  -p, --pipeline NAME|FILE a pipeline by name (see --list) or a JSON file;
                           default: forward with a model, gradient without
      --pipelines FOLDER   look for pipelines there first; may be repeated
      --set PASS.SLOT=VALUE
                           give an input a value: 0.5, true, "#ff8000", [0, 0, 640, 480], @viewport;
                           may be repeated
      --path NAME=FILE     a file for pipelines that ask for @paths.NAME
      --opacity [NAME=]VALUE
                           another opacity, 0 to 1, for all materials or those of one name; may be
                           repeated
      --scale FACTOR|fit   another size of the model, for passes that count in units of the scene;
                           fit: its longest side is 2 units
      --light LIGHT        a light, see below; may be repeated; instead of the pipeline's lights
      --floor              put the model on a floor
  -c, --camera SETTINGS    joined by ':', see below; default: fit
  -s, --size WxH           pixels; default: 1280x720
  -n, --frames N           frames to render; the picture is the last; default: 1

What to write
  -o, --output FILE        the picture (PNG)
      --background COLOR   put the picture on a colour; default: transparent
      --dump PASS.SLOT=FILE
                           the texture or the shadow maps of an output, as .png or, with exact values,
                           as .exr; layers of an array lie side by side; may be repeated
      --compare PASS.SLOT,PASS.SLOT[=FILE]
                           how much two outputs differ, to stdout, and a picture of it; may be repeated
      --inspect-oit X,Y    the fragment list of a pixel of the picture (0,0 is its upper left), and how
                           full the lists are, to stdout; may be repeated
      --oit-lengths FILE   a picture of how long the fragment lists are
      --print PASS.SLOT    the value of an output after the last frame, to stdout; may be repeated
      --timings            milliseconds per pass on GPU and CPU, to stdout
      --gallery FOLDER     every pipeline on every model as a page, FOLDER/index.html, with pictures, graphs,
                           slots and times per pass; see below

Information
      --list               pipelines, host values, and all passes with their slots
      --gl-info            what the driver offers
      --gl-debug           report OpenGL errors as they happen, and fail if there are any
  -q, --quiet              no progress on stderr
  -h, --help, -v, --version

Camera settings
  yaw=-30 pitch=20         direction to look from, in degrees; these are the defaults
  zoom=1.5                 nearer than what just fits, or distance=7
  eye=1,2,3                a place to look from, instead of a direction
  target=0,0,0 up=0,1,0    where to look, default the middle of the model; what is up
  fov=45 near=0.1 far=100  vertical opening angle in degrees; clip planes, default around the model

Lights
  directional:dx,dy,dz[,cascades]          parallel light along a direction
  spot:x,y,z,dx,dy,dz[,angle[,range]]      a cone from a place along a direction, angle in degrees
  point:x,y,z[,range]                      light in all directions
  with settings behind them: color=#ffe0c0 intensity=0.5 distance=40, as in
  directional:0.3,-1,0.2,3:color=#ffe0c0:distance=40

The gallery
  takes any number of models, without one those samples of the system that are there, and -p, any number
  of times, for some of the pipelines only. Where no --opacity, --scale or --floor is given, pipelines
  for transparency show the model at an opacity of 0.35, those with ambient obscurance at a size that
  suits it, those with shadows on a floor. Defaults are --size 640x360 and --frames 5. What fails is told
  in the page, the rest is there, and the exit code is 1.

Exit codes
  0 success, 1 failure (file, driver, pipeline), 2 wrong command line

Examples
  kvorender bunny.obj -o bunny.png
  kvorender engine.glb -p deferred-model -s 1920x1080 -c yaw=45:pitch=10:zoom=1.2 -o engine.png
  kvorender engine.glb -p deferred-model --dump Model.Normal=normal.png --dump Model.Depth=depth.exr
  kvorender engine.glb -n 100 --timings
  kvorender --gallery out/gallery
  kvorender -p gradient --set 'Gradient.ColorTop=#204060' -o backdrop.png
)";

bool splitSlot(const QString &option, const QString &text, const QString &what, SlotArgument *argument, QString *error)
{
    static const QRegularExpression kForm(QStringLiteral("^([^.=]+)\\.([^=]+)=(.*)$"),
                                          QRegularExpression::DotMatchesEverythingOption);
    const QRegularExpressionMatch match = kForm.match(text);
    if (!match.hasMatch() || (match.captured(3).isEmpty() && option == QLatin1StringView("--dump"))) {
        *error = QStringLiteral("%1 takes PASS.SLOT=%2, not '%3'").arg(option, what, text);
        return false;
    }
    *argument = {QStringLiteral("%1 %2").arg(option, text), match.captured(1), match.captured(2), match.captured(3)};
    return true;
}

bool readSize(const QString &text, QSize *size, QString *error)
{
    static const QRegularExpression kForm(QStringLiteral("^([0-9]{1,6})x([0-9]{1,6})$"));
    const QRegularExpressionMatch match = kForm.match(text);
    *size = QSize(match.captured(1).toInt(), match.captured(2).toInt());
    if (match.hasMatch() && !size->isEmpty() && size->width() <= kLargestSide && size->height() <= kLargestSide)
        return true;
    *error = QStringLiteral("--size takes WIDTHxHEIGHT from 1x1 to %1x%1, not '%2'").arg(kLargestSide).arg(text);
    return false;
}

bool readOpacity(const QString &text, QPair<QString, float> *opacity, QString *error)
{
    const qsizetype equals = text.lastIndexOf(QLatin1Char('='));
    bool ok = false;
    *opacity = {text.left(std::max(equals, qsizetype(0))), text.mid(equals + 1).toFloat(&ok)};
    if (ok && opacity->second >= 0.0f && opacity->second <= 1.0f && equals != 0)
        return true;
    *error = QStringLiteral("--opacity takes VALUE or MATERIAL=VALUE, with a value from 0 to 1, not '%1'").arg(text);
    return false;
}

bool readComparison(const QString &text, Comparison *comparison, QString *error)
{
    static const QRegularExpression kForm(QStringLiteral("^([^.=,]+)\\.([^=,]+),([^.=,]+)\\.([^=,]+)(?:=(.+))?$"));
    const QRegularExpressionMatch match = kForm.match(text);
    if (!match.hasMatch()) {
        *error = QStringLiteral("--compare takes PASS.SLOT,PASS.SLOT or PASS.SLOT,PASS.SLOT=FILE, not '%1'").arg(text);
        return false;
    }
    *comparison = {QStringLiteral("--compare %1").arg(text),
                   {match.captured(1), match.captured(3)},
                   {match.captured(2), match.captured(4)},
                   match.captured(5)};
    return true;
}

bool readPixel(const QString &text, const QSize &size, QPoint *pixel, QString *error)
{
    static const QRegularExpression kForm(QStringLiteral("^([0-9]{1,6}),([0-9]{1,6})$"));
    const QRegularExpressionMatch match = kForm.match(text);
    *pixel = QPoint(match.captured(1).toInt(), match.captured(2).toInt());
    if (match.hasMatch() && pixel->x() < size.width() && pixel->y() < size.height())
        return true;
    *error = QStringLiteral("--inspect-oit takes X,Y inside the picture of %1x%2, not '%3'")
                 .arg(size.width())
                 .arg(size.height())
                 .arg(text);
    return false;
}

bool readScale(const QString &text, float *scale, QString *error)
{
    if (text == QLatin1StringView("fit")) {
        *scale = SceneSettings::kScaleToFit;
        return true;
    }
    bool ok = false;
    *scale = text.toFloat(&ok);
    if (ok && *scale > 0.0f && std::isfinite(*scale))
        return true;
    *error = QStringLiteral("--scale takes a number above 0 or fit, not '%1'").arg(text);
    return false;
}

bool readCount(const QString &text, int *count, QString *error)
{
    bool ok = false;
    *count = text.toInt(&ok);
    if (ok && *count >= 1 && *count <= kMostFrames)
        return true;
    *error = QStringLiteral("--frames takes a number from 1 to %1, not '%2'").arg(kMostFrames).arg(text);
    return false;
}

} // namespace

void complain(const QString &message)
{
    std::fprintf(stderr, "kvorender: %s\n", qPrintable(message));
}

bool CommandLine::read(const QStringList &arguments, int *exitCode)
{
    QCommandLineParser parser;
    const auto add = [&parser](const QStringList &names, const char *value = nullptr) {
        parser.addOption(QCommandLineOption(names, QString(), value ? QString::fromLatin1(value) : QString()));
    };
    add({QStringLiteral("p"), QStringLiteral("pipeline")}, "name");
    add({QStringLiteral("pipelines")}, "folder");
    add({QStringLiteral("set")}, "value");
    add({QStringLiteral("path")}, "path");
    add({QStringLiteral("c"), QStringLiteral("camera")}, "settings");
    add({QStringLiteral("s"), QStringLiteral("size")}, "size");
    add({QStringLiteral("n"), QStringLiteral("frames")}, "count");
    add({QStringLiteral("o"), QStringLiteral("output")}, "file");
    add({QStringLiteral("background")}, "color");
    add({QStringLiteral("light")}, "light");
    add({QStringLiteral("floor")});
    add({QStringLiteral("dump")}, "dump");
    add({QStringLiteral("opacity")}, "opacity");
    add({QStringLiteral("compare")}, "outputs");
    add({QStringLiteral("inspect-oit")}, "pixel");
    add({QStringLiteral("oit-lengths")}, "file");
    add({QStringLiteral("scale")}, "factor");
    add({QStringLiteral("print")}, "output");
    add({QStringLiteral("timings")});
    add({QStringLiteral("gallery")}, "folder");
    add({QStringLiteral("list")});
    add({QStringLiteral("gl-info")});
    add({QStringLiteral("gl-debug")});
    add({QStringLiteral("q"), QStringLiteral("quiet")});
    add({QStringLiteral("h"), QStringLiteral("help")});
    add({QStringLiteral("v"), QStringLiteral("version")});

    QString error;
    const auto mistake = [&](const QString &message) {
        complain(QStringLiteral("%1 (see kvorender --help)").arg(message));
        *exitCode = kUsage;
        return false;
    };
    if (!parser.parse(arguments))
        return mistake(parser.errorText());
    *exitCode = kSuccess;
    if (parser.isSet(QStringLiteral("help"))) {
        std::fputs(kHelp, stdout);
        return false;
    }
    if (parser.isSet(QStringLiteral("version"))) {
        std::puts("kvorender " KVO_VERSION);
        return false;
    }
    timings = parser.isSet(QStringLiteral("timings"));
    quiet = parser.isSet(QStringLiteral("quiet"));
    debug = parser.isSet(QStringLiteral("gl-debug"));
    list = parser.isSet(QStringLiteral("list"));
    glInfo = parser.isSet(QStringLiteral("gl-info"));
    pipelineFolders = parser.values(QStringLiteral("pipelines"));
    pipeline = parser.value(QStringLiteral("pipeline"));
    camera = parser.value(QStringLiteral("camera"));
    output = parser.value(QStringLiteral("output"));

    const QStringList files = parser.positionalArguments();
    gallery = parser.value(QStringLiteral("gallery"));
    if (parser.isSet(QStringLiteral("gallery"))) {
        if (gallery.isEmpty())
            return mistake(QStringLiteral("--gallery takes a folder"));
        // What speaks of the passes of one pipeline, or of one picture.
        for (const char *option : {"output", "set", "path", "dump", "compare", "inspect-oit", "oit-lengths", "print",
                                   "timings", "list", "gl-info"})
            if (parser.isSet(QLatin1StringView(option)))
                return mistake(QStringLiteral("--gallery and --%1 do not go together").arg(QLatin1StringView(option)));
        size = kGallerySize;
        frames = kGalleryFrames;
        galleryModels = files;
        galleryPipelines = parser.values(QStringLiteral("pipeline"));
    } else if (files.size() > 1)
        return mistake(QStringLiteral("one model at a time, not '%1' and '%2'").arg(files[0], files[1]));
    model = files.value(0);
    if (parser.isSet(QStringLiteral("size")) && !readSize(parser.value(QStringLiteral("size")), &size, &error))
        return mistake(error);
    if (parser.isSet(QStringLiteral("frames")) && !readCount(parser.value(QStringLiteral("frames")), &frames, &error))
        return mistake(error);
    if (parser.isSet(QStringLiteral("background"))) {
        background = QColor(parser.value(QStringLiteral("background")));
        if (!background.isValid())
            return mistake(QStringLiteral("--background takes \"#rrggbb\" or a colour name, not '%1'")
                               .arg(parser.value(QStringLiteral("background"))));
    }
    if (parser.isSet(QStringLiteral("scale"))
        && !readScale(parser.value(QStringLiteral("scale")), &scene.scale, &error))
        return mistake(error);
    for (const QString &text : parser.values(QStringLiteral("print"))) {
        const QStringList parts = text.split(QLatin1Char('.'));
        if (parts.size() != 2 || parts[0].isEmpty() || parts[1].isEmpty())
            return mistake(QStringLiteral("--print takes PASS.SLOT, not '%1'").arg(text));
        prints.append({QStringLiteral("--print %1").arg(text), parts[0], parts[1], QString()});
    }
    scene.floor = parser.isSet(QStringLiteral("floor"));
    for (const QString &text : parser.values(QStringLiteral("light"))) {
        if (!Brevane::Kvo::parseLight(text, &lights.emplaceBack(), &error))
            return mistake(QStringLiteral("--light %1: %2").arg(text, error));
    }
    for (const QString &text : parser.values(QStringLiteral("set"))) {
        if (!splitSlot(QStringLiteral("--set"), text, QStringLiteral("VALUE"), &values.emplaceBack(), &error))
            return mistake(error);
    }
    for (const QString &text : parser.values(QStringLiteral("dump"))) {
        if (!splitSlot(QStringLiteral("--dump"), text, QStringLiteral("FILE"), &dumps.emplaceBack(), &error))
            return mistake(error);
    }
    for (const QString &text : parser.values(QStringLiteral("path"))) {
        const qsizetype equals = text.indexOf(QLatin1Char('='));
        if (equals < 1)
            return mistake(QStringLiteral("--path takes NAME=FILE, not '%1'").arg(text));
        paths << qMakePair(text.left(equals), text.mid(equals + 1));
    }
    for (const QString &text : parser.values(QStringLiteral("opacity"))) {
        if (!readOpacity(text, &scene.opacities.emplaceBack(), &error))
            return mistake(error);
    }
    for (const QString &text : parser.values(QStringLiteral("compare"))) {
        if (!readComparison(text, &comparisons.emplaceBack(), &error))
            return mistake(error);
    }
    for (const QString &text : parser.values(QStringLiteral("inspect-oit"))) {
        if (!readPixel(text, size, &inspected.emplaceBack(), &error))
            return mistake(error);
    }
    listLengths = parser.value(QStringLiteral("oit-lengths"));
    if (parser.isSet(QStringLiteral("output")) && output.isEmpty())
        return mistake(QStringLiteral("--output takes a file name"));
    sceneIsGiven = scene != SceneSettings();
    if (gallery.isEmpty() && !list && !glInfo && output.isEmpty() && dumps.isEmpty() && !timings
        && comparisons.isEmpty() && inspected.isEmpty() && listLengths.isEmpty() && prints.isEmpty())
        return mistake(QStringLiteral("nothing to do: give --output FILE, --dump, --compare, --inspect-oit, "
                                      "--oit-lengths, --print, --timings, --gallery, --list or --gl-info"));
    if (pipeline.isEmpty())
        pipeline = model.isEmpty() ? QStringLiteral("gradient") : QStringLiteral("forward");
    return true;
}
