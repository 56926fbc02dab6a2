#include "commandline.h"

#include "host/imageoutput.h"

#include <QRegularExpression>

#include <algorithm>

using namespace Qt::StringLiterals;

namespace {

constexpr int kLargestSide = 65536;
constexpr int kMostFrames = 1000000;
constexpr QSize kSize(1280, 720);
constexpr QSize kGallerySize(640, 360);
constexpr int kGalleryFrames = 5;
constexpr int kMostRetries = 100;
constexpr int kMostMegabytes = 1000000;
constexpr int kLeastTile = 16;

const char kNotes[] = R"(Camera settings
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

Batches
  Each line of a .jsonl file is an object: its keys are the long names of options, "model" and "output". A first
  line {"defaults": {...}} holds for all. Lists make a picture for each of their values, and multiply:
    {"model": ["a.glb", "b.glb"], "camera": {"yaw": {"from": 0, "to": 350, "count": 36}, "pitch": 10},
     "output": "out/{model}-{camera.yaw}.png"}
  The first line of a .csv file names its columns: model,output,camera.yaw,set.Glow.BlurRadius,size=640x360

Exit codes
  0 success, 1 failure (file, driver, pipeline), 2 wrong command line; of a batch: 0 all pictures, 1 none, 3 some

Examples
  kvorender bunny.obj -o bunny.png
  kvorender engine.glb -p deferred-model -s 1920x1080 -c yaw=45:pitch=10:zoom=1.2 -o engine.png
  kvorender engine.glb -p deferred-model --dump Model.Normal=normal.png --dump Model.Depth=depth.exr
  kvorender engine.glb -n 100 --timings
  kvorender --gallery out/gallery
  kvorender --batch jobs.jsonl -s 640x360 --resume --report report.jsonl
  kvorender --list GaussianBlurRenderPass
  kvorender --schema > kvo-pipeline.schema.json
  kvorender -p gradient --set 'Gradient.ColorTop=#204060' -o backdrop.png
)";

bool readSize(const QString &text, QSize *size)
{
    static const QRegularExpression kForm(u"^([0-9]{1,6})x([0-9]{1,6})$"_s);
    const QRegularExpressionMatch match = kForm.match(text);
    *size = QSize(match.captured(1).toInt(), match.captured(2).toInt());
    return match.hasMatch() && !size->isEmpty() && size->width() <= kLargestSide && size->height() <= kLargestSide;
}

bool readPixel(const QString &text, QVector<QPoint> *pixels)
{
    static const QRegularExpression kForm(u"^([0-9]{1,6}),([0-9]{1,6})$"_s);
    const QRegularExpressionMatch match = kForm.match(text);
    pixels->append(QPoint(match.captured(1).toInt(), match.captured(2).toInt()));
    return match.hasMatch();
}

bool readComparison(const QString &text, QVector<Comparison> *comparisons)
{
    static const QRegularExpression kForm(u"^([^.=,]+)\\.([^=,]+),([^.=,]+)\\.([^=,]+)(?:=(.+))?$"_s);
    const QRegularExpressionMatch match = kForm.match(text);
    comparisons->append({u"--compare %1"_s.arg(text),
                         {match.captured(1), match.captured(3)},
                         {match.captured(2), match.captured(4)},
                         match.captured(5)});
    return match.hasMatch();
}

// "PASS.SLOT=TEXT", or without a text.
Option::Read into(QVector<SlotArgument> *arguments, const QString &name, bool withText)
{
    return [=](const QString &text, QString *) {
        static const QRegularExpression kWithText(u"^([^.=]+)\\.([^=]+)=(.*)$"_s,
                                                  QRegularExpression::DotMatchesEverythingOption);
        static const QRegularExpression kSlot(u"^([^.]+)\\.([^.]+)()$"_s);
        const QRegularExpressionMatch match = (withText ? kWithText : kSlot).match(text);
        arguments->append({u"--%1 %2"_s.arg(name, text), match.captured(1), match.captured(2), match.captured(3)});
        return match.hasMatch() && (!withText || !match.captured(3).isEmpty());
    };
}

} // namespace

// In the order of the help.
void CommandLine::declare(Options *options)
{
    options->section(u"What to draw"_s);
    addPipelineOptions(options, &pipelines, true);
    addValueOptions(options, &settings);
    addSceneOptions(options, &scene);
    addViewOptions(options, &settings, u"see below"_s);
    options->add({{u"s"_s, u"size"_s},
                  u"WxH"_s,
                  u"pixels; default: 1280x720"_s,
                  u"WIDTHxHEIGHT from 1x1 to %1x%1"_s.arg(kLargestSide),
                  [this](const QString &text, QString *) { return readSize(text, &size); }});
    options->add({{u"tile"_s},
                  u"N"_s,
                  u"make the picture of tiles of N pixels a side; default: only what is too large for the driver, see "
                  u"below"_s,
                  u"a number from %1 to %2"_s.arg(kLeastTile).arg(kLargestSide),
                  into(&tile, kLeastTile, kLargestSide)});
    options->add({{u"n"_s, u"frames"_s},
                  u"N"_s,
                  u"frames to render; the picture is the last; default: 1"_s,
                  u"a number from 1 to %1"_s.arg(kMostFrames),
                  into(&frames, 1, kMostFrames)});

    options->section(u"What to write"_s);
    options->add({{u"o"_s, u"output"_s},
                  u"FILE"_s,
                  u"the picture: PNG, or another kind by its ending"_s,
                  u"a file name"_s,
                  into(&output)});
    addBackgroundOption(options, &settings);
    options->add({{u"dump"_s},
                  u"PASS.SLOT=FILE"_s,
                  u"the texture or the shadow maps of an output, as .png or, with exact values, as .exr; layers of an "
                  u"array lie side by side"_s,
                  u"PASS.SLOT=FILE"_s,
                  into(&dumps, u"dump"_s, true),
                  true});
    options->add({{u"compare"_s},
                  u"PASS.SLOT,PASS.SLOT[=FILE]"_s,
                  u"how much two outputs differ, to stdout, and a picture of it"_s,
                  u"PASS.SLOT,PASS.SLOT or PASS.SLOT,PASS.SLOT=FILE"_s,
                  [this](const QString &text, QString *) { return readComparison(text, &comparisons); },
                  true});
    options->add(
        {{u"inspect-oit"_s},
         u"X,Y"_s,
         u"the fragment list of a pixel of the picture (0,0 is its upper left), and how full the lists are, to "
         u"stdout"_s,
         u"X,Y"_s,
         [this](const QString &text, QString *) { return readPixel(text, &inspected); },
         true});
    options->add({{u"oit-lengths"_s},
                  u"FILE"_s,
                  u"a picture of how long the fragment lists are"_s,
                  u"a file name"_s,
                  into(&listLengths)});
    options->add({{u"print"_s},
                  u"PASS.SLOT"_s,
                  u"the value of an output after the last frame, to stdout"_s,
                  u"PASS.SLOT"_s,
                  into(&prints, u"print"_s, false),
                  true});
    options->add({{u"timings"_s}, {}, u"milliseconds per pass on GPU and CPU, to stdout"_s, {}, into(&timings)});
    options->add({{u"gallery"_s},
                  u"FOLDER"_s,
                  u"every pipeline on every model as a page, FOLDER/index.html, with pictures, graphs, slots and times "
                  u"per pass; see below"_s,
                  u"a folder"_s,
                  into(&gallery),
                  false,
                  // What speaks of the passes of one pipeline, or of one picture.
                  {u"output"_s, u"set"_s, u"path"_s, u"dump"_s, u"compare"_s, u"inspect-oit"_s, u"oit-lengths"_s,
                   u"print"_s, u"timings"_s, u"list"_s, u"schema"_s, u"gl-info"_s}});

    options->section(u"Many pictures"_s);
    const auto ofBatch = [options](Option option) {
        option.ofRun = true;
        options->add(option);
    };
    ofBatch({{u"batch"_s},
             u"FILE"_s,
             u"a picture, or several, for each line of a .jsonl or .csv file, see below; what else is given is the "
             u"default for all of them"_s,
             u"a file name"_s,
             into(&batch),
             false,
             {u"gallery"_s, u"timings"_s, u"list"_s, u"schema"_s, u"gl-info"_s}});
    ofBatch(
        {{u"resume"_s}, {}, u"leave out pictures that are there, complete and of the same job"_s, {}, into(&resume)});
    ofBatch({{u"retries"_s},
             u"N"_s,
             u"how often a picture that failed is tried again; default: 0"_s,
             u"a number from 0 to %1"_s.arg(kMostRetries),
             into(&retries, 0, kMostRetries)});
    ofBatch({{u"shard"_s},
             u"I/N"_s,
             u"only the I-th of N parts of the pictures, for several processes or machines"_s,
             u"I/N with I from 1 to N"_s,
             [this](const QString &text, QString *) { return Shard::parse(text, &shard); }});
    ofBatch({{u"report"_s},
             u"FILE"_s,
             u"a JSON object for each picture, a line each; -: to stdout"_s,
             u"a file name"_s,
             into(&report)});
    ofBatch({{u"manifest"_s},
             u"FILE"_s,
             u"where --resume looks for what is done; default: the job file's name with .manifest, and of each shard "
             u"with its number"_s,
             u"a file name"_s,
             into(&manifest)});
    ofBatch({{u"cache"_s},
             u"MB"_s,
             u"memory for models that stay loaded; default: 1024"_s,
             u"a number from 0 to %1"_s.arg(kMostMegabytes),
             into(&cacheMegabytes, 0, kMostMegabytes)});

    options->section(u"Information"_s);
    options->add({{u"list"_s},
                  {},
                  u"pipelines, host values, and all passes with their slots; in place of the model, the name of a pass "
                  u"for all about its slots"_s,
                  {},
                  into(&list)});
    options->add({{u"schema"_s}, {}, u"a JSON Schema of pipeline files, for editors, to stdout"_s, {}, into(&schema)});
    options->add({{u"gl-info"_s}, {}, u"what the driver offers"_s, {}, into(&glInfo)});
    options->add(
        {{u"gl-debug"_s}, {}, u"report OpenGL errors as they happen, and fail if there are any"_s, {}, into(&debug)});
    options->add({{u"q"_s, u"quiet"_s}, {}, u"no progress on stderr"_s, {}, into(&quiet)});
    options->epilogue(QString::fromUtf8(kNotes));
    for (const char *name : {"gallery", "timings", "list", "schema", "gl-info", "gl-debug", "quiet"})
        options->option(QString::fromLatin1(name))->ofRun = true;
}

namespace {

Options newOptions()
{
    return Options(u"Usage: kvorender [MODEL] [options]\n\nRenders a 3D model through a pipeline of passes to an image "
                   u"file. Needs neither a display nor a GPU."_s,
                   u"a model file: glTF, OBJ, FBX, Collada, STL, PLY, 3DS and more"_s);
}

bool fails(QString *error, const QString &reason)
{
    *error = reason;
    return false;
}

} // namespace

QVector<Option> CommandLine::options()
{
    Options options = newOptions();
    CommandLine nobody;
    nobody.declare(&options);
    return options.all();
}

std::optional<ExitCode> CommandLine::read(const QStringList &arguments)
{
    Options options = newOptions();
    declare(&options);
    if (const std::optional<ExitCode> end = options.read(arguments))
        return end;

    const QStringList files = options.files();
    const bool isGallery = options.isSet(u"gallery"_s);
    if (!isGallery && files.size() > 1)
        return Options::mistake(u"one model at a time, not '%1' and '%2'"_s.arg(files[0], files[1]));
    model = files.value(0);
    if (isGallery)
        galleryModels = files;
    QString error;
    if (options.isSet(u"batch"_s)) {
        for (const Option &option : options.all())
            if (!option.ofRun && options.isSet(option.longName()))
                defaults[option.longName()] = options.given()[option.longName()];
        if (!model.isEmpty())
            defaults[u"model"_s] = {model};
        return std::nullopt;
    }
    for (const char *name : {"resume", "retries", "shard", "report", "manifest", "cache"})
        if (options.isSet(QLatin1StringView(name)))
            return Options::mistake(u"--%1 goes with --batch"_s.arg(QLatin1StringView(name)));
    if (!complete(options, &error))
        return Options::mistake(error);
    return std::nullopt;
}

bool CommandLine::read(const BatchJob &job, QString *error)
{
    if (!job.error.isEmpty())
        return fails(error, job.error);
    Options options = newOptions();
    declare(&options);
    model = job.model;
    return options.read(job.options, error) && complete(options, error);
}

bool CommandLine::complete(const Options &options, QString *error)
{
    given = options.given();
    const bool isGallery = options.isSet(u"gallery"_s);
    if (!isGallery && pipelines.names.size() > 1)
        return fails(error, u"one pipeline at a time, not '%1' and '%2'"_s.arg(pipelines.names[0], pipelines.names[1]));
    if (!options.isSet(u"size"_s))
        size = isGallery ? kGallerySize : kSize;
    if (isGallery && !options.isSet(u"frames"_s))
        frames = kGalleryFrames;
    sceneIsGiven = scene != SceneSettings();
    pipeline = pipelines.nameFor(model);

    const auto isOutside = [&](const QPoint &p) { return p.x() >= size.width() || p.y() >= size.height(); };
    const auto outside = std::find_if(inspected.cbegin(), inspected.cend(), isOutside);
    if (outside != inspected.cend())
        return fails(error, u"--inspect-oit takes X,Y inside the picture of %1x%2, not '%3,%4'"_s.arg(size.width())
                                .arg(size.height())
                                .arg(outside->x())
                                .arg(outside->y()));
    const auto isImage = [error](const QString &file, bool isTexture = false) {
        return file.isEmpty() || Brevane::Kvo::hasImageEnding(file, isTexture, error);
    };
    if (!isImage(output) || !isImage(listLengths)
        || !std::all_of(dumps.cbegin(), dumps.cend(), [&](const SlotArgument &d) { return isImage(d.text, true); })
        || !std::all_of(comparisons.cbegin(), comparisons.cend(), [&](const Comparison &c) { return isImage(c.file); }))
        return false;
    if (const QString file = fileNamedTwice(given); !file.isEmpty())
        return fails(error,
                     u"'%1' is named twice: each of --output, --dump, --compare and --oit-lengths writes a file of "
                     u"its own"_s.arg(file));
    // Each of these asks for something to be written.
    const QStringList results{u"output"_s,  u"dump"_s,    u"compare"_s, u"inspect-oit"_s, u"oit-lengths"_s, u"print"_s,
                              u"timings"_s, u"gallery"_s, u"list"_s,    u"gl-info"_s,     u"schema"_s,      u"batch"_s};
    if (std::none_of(results.begin(), results.end(), [&](const QString &name) { return options.isSet(name); }))
        return fails(error, u"nothing to do: give one of --%1"_s.arg(results.join(u", --"_s)));
    return true;
}
