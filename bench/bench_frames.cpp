// Whole frames: every pipeline of the tree at four sizes, with its GL calls, what the calling thread takes at one
// pixel, and what the pool held at most; and how time grows with triangles, items, lights, layers and maps.
//
//   bench_frames [MODEL] [--pipelines=NAME,…] [--sizes=WxH,…] [--rounds=N] [--no-growth] [--json=FILE]
//                [--plots=FOLDER]
//
// Times are CPU time of the process until GL is done, medians of some frames, of what grows the least of
// them: on a software renderer that is the work of all threads, which other programs on the machine disturb least. A slope of 1 means in proportion; steeper
// ones are marked.

#include "context.h"
#include "glreplay.h"
#include "loglogplot.h"
#include "pairs.h"

#include "support/stage.h"

#include <gl/texturemanager.h>
#include <host/lights.h>
#include <renderpasses/forwardrenderpass.h>
#include <renderpasses/modelrenderpass.h>
#include <renderpasses/shadowmaprenderpass2.h>
#include <renderpasses/visibilitybufferrenderpass.h>
#include <renderpasses/visibilitydeferredrenderpass.h>
#include <renderpasses/visibilitysortrenderpass.h>
#include <shadows/shadowmaplight.h>

#include <QDir>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

#include <cstring>
#include <functional>

using namespace Brevane::Kvo;
using namespace Brevane::Kvo::Bench;
using Test::GlCalls;
using Test::Stage;

namespace {

constexpr double kSteep = 1.15; // beyond it more than the noise of a shared machine
constexpr int kWarm = 3; // longest history of a pipeline
const QString kEngine =
    QStringLiteral("/usr/share/assimp/models/glTF2/2CylinderEngine-glTF-Binary/2CylinderEngine.glb");

struct Options
{
    QString model = kEngine;
    QStringList pipelines;
    QVector<QSize> sizes{{640, 360}, {1280, 720}, {2560, 1440}, {3840, 2160}};
    int rounds = 5;
    bool growth = true;
    QString json;
    QString plots;
};

std::vector<double> timesOf(int rounds, const std::function<void()> &frame)
{
    std::vector<double> times;
    times.reserve(std::size_t(rounds));
    for (int i = 0; i < rounds; ++i)
        times.push_back(costOf(frame).cpu);
    return times;
}

// For lines whose slope counts: what disturbs only adds.
double leastMilliseconds(int rounds, const std::function<void()> &frame)
{
    const std::vector<double> times = timesOf(rounds, frame);
    return *std::min_element(times.begin(), times.end());
}

// Of the steepest step between two neighbours.
double slopeOf(const QVector<QPointF> &points)
{
    double steepest = 0;
    for (qsizetype i = 1; i < points.size(); ++i)
        steepest = std::max(steepest,
                            std::log(points[i].y() / points[i - 1].y()) / std::log(points[i].x() / points[i - 1].x()));
    return steepest;
}

QJsonArray toJson(const QVector<QPointF> &points)
{
    QJsonArray array;
    for (const QPointF &p : points)
        array.append(QJsonArray{p.x(), p.y()});
    return array;
}

struct FrameRow
{
    QString pipeline;
    QVector<QPointF> times; // over pixels
    int calls = 0;
    double issuing = 0; // microseconds at one pixel
    QVector<qint64> pool; // bytes at most, per size
    QVector<PassTiming> passes; // at the second size
};

QVector<PassTiming> dearest(QVector<PassTiming> passes)
{
    std::sort(passes.begin(), passes.end(),
              [](const PassTiming &a, const PassTiming &b) { return a.gpuMinimum > b.gpuMinimum; });
    return passes.first(std::min<qsizetype>(3, passes.size()));
}

// What the calling thread takes where next to nothing is drawn, driver included.
double issuingTime(Stage &stage)
{
    stage.resize({1, 1});
    const auto frame = [&] { stage.render(); };
    for (int i = 0; i < kWarm; ++i)
        frame();
    std::vector<double> times(9);
    for (double &time : times)
        time = issuingMicroseconds(1, frame);
    return Bench::median(times);
}

FrameRow measure(const QString &name, const ModelData &data, const Options &options)
{
    FrameRow row;
    row.pipeline = name;
    for (const QSize &size : options.sizes) {
        // In a share group of its own, so that the pool's high-water mark is of this pipeline.
        inContext([&] {
            Stage stage(name, data, size);
            for (int i = 0; i < kWarm; ++i)
                stage.render();
            const double pixels = double(size.width()) * size.height();
            row.times << QPointF(pixels, Bench::median(timesOf(options.rounds, [&] { stage.render(); })));
            row.pool << TextureManager::Instance().statistics().peakBytes;
            if (row.pool.size() == 2 || options.sizes.size() == 1) {
                {
                    const RecorderScope recorder;
                    const GlCalls calls;
                    stage.render();
                    row.calls = int(calls.all().size());
                }
                stage.pipeline.setTimingEnabled(true);
                for (int i = 0; i < 3; ++i)
                    stage.render();
                row.passes = dearest(stage.pipeline.timings(true));
                stage.pipeline.setTimingEnabled(false);
                row.issuing = issuingTime(stage);
            }
        });
    }
    return row;
}

QVector<FrameRow> frameTable(const ModelData &data, const Options &options)
{
    std::printf("%-20s", "CPU ms of a frame");
    for (const QSize &size : options.sizes)
        std::printf(" %5dx%-4d", size.width(), size.height());
    std::printf(" %6s %6s %7s %9s  %s\n", "slope", "calls", "us at 1", "pool MB", "dearest passes, ms");
    QVector<FrameRow> rows;
    for (const QString &name : options.pipelines) {
        const FrameRow row = measure(name, data, options);
        std::printf("%-20s", qPrintable(name));
        for (const QPointF &p : row.times)
            std::printf(" %10.1f", p.y());
        const double slope = slopeOf(row.times);
        std::printf(" %5.2f%s %6d %7.0f %9.1f ", slope, slope > kSteep ? "!" : " ", row.calls, row.issuing,
                    double(row.pool.value(1, row.pool.value(0))) / 1e6);
        for (const PassTiming &pass : row.passes)
            std::printf(" %s %.1f", qPrintable(pass.pass), pass.gpuMinimum);
        std::printf("\n");
        std::fflush(stdout);
        rows << row;
    }
    return rows;
}

// What grows, and by how much.

struct Growth
{
    QString name; // what is on the axis
    QString work;
    QVector<QPointF> times;
};

ModelData sphereOf(int triangles)
{
    // Rings and twice as many segments: 4 rings^2 triangles.
    const int rings = std::max(2, int(std::sqrt(triangles / 4.0)));
    const int segments = 2 * rings;
    ModelMesh mesh;
    for (int y = 0; y <= rings; ++y) {
        for (int x = 0; x <= segments; ++x) {
            const double theta = 3.14159265358979 * y / rings;
            const double phi = 2 * 3.14159265358979 * x / segments;
            mesh.positions << QVector3D(float(std::sin(theta) * std::cos(phi)), float(std::cos(theta)),
                                        float(-std::sin(theta) * std::sin(phi)));
        }
    }
    mesh.normals = mesh.positions;
    for (int y = 0; y < rings; ++y) {
        for (int x = 0; x < segments; ++x) {
            const auto a = quint32(y * (segments + 1) + x);
            const auto b = a + quint32(segments) + 1;
            mesh.indices << a << b << a + 1 << a + 1 << b << b + 1;
        }
    }
    ModelData data;
    data.meshes << mesh;
    data.materials << Test::material({0.8f, 0.7f, 0.6f}, {0.3f, 0.3f, 0.3f}, 10);
    data.items << ModelItem();
    return data;
}

/// A pass that draws a model, from a camera in front of it.
template <typename Pass>
class Drawn
{
public:
    Drawn(const ModelData &data, const QSize &size) : _size(size)
    {
        model.upload(data);
        Camera camera;
        const float aspect = float(size.width()) / float(size.height());
        camera.fit(model.sceneBounds(), 0, 0, aspect);
        pass.setInput(0, QRect(QPoint(0, 0), size));
        projection = camera.projectionMatrix(aspect);
        view = camera.cameraMatrix();
        pass.setInput(1, projection);
        pass.setInput(2, view);
        pass.setInput(3, QVariant::fromValue(&model));
    }
    double time(int rounds)
    {
        glViewport(0, 0, _size.width(), _size.height());
        const auto frame = [this] { pass.start(nullptr); };
        frame();
        frame();
        return leastMilliseconds(rounds, frame);
    }

    GPUModel model;
    Pass pass;
    QMatrix4x4 projection;
    QMatrix4x4 view;

private:
    QSize _size;
};

double triangles(int count, int rounds)
{
    return Drawn<ForwardRenderPass>(sphereOf(count), {640, 360}).time(rounds);
}

double items(int count, int rounds)
{
    const int side = int(std::ceil(std::sqrt(count)));
    ModelData data = Test::cubeScene();
    data.items.clear();
    for (int i = 0; i < count; ++i) {
        ModelItem item;
        const int row = i / side;
        item.transform.translate(float(i % side), float(row), 0);
        item.transform.scale(0.4f);
        data.items << item;
    }
    return Drawn<ForwardRenderPass>(data, {640, 360}).time(rounds);
}

double uploads(int count, int rounds)
{
    const ModelData data = sphereOf(count);
    return leastMilliseconds(rounds, [&] {
        GPUModel model;
        model.upload(data);
    });
}

double lights(int count, int rounds)
{
    QVector<ShadowMapLight> kept;
    for (int i = 0; i < count; ++i) {
        ShadowMapLight light;
        light.type = ShadowMapLight::Type::Spot;
        light.position = {2.0f * float(std::cos(i)), 3.0f, 2.0f * float(std::sin(i))};
        light.direction = -light.position;
        kept << light;
    }
    Drawn<ModelRenderPass> scene(sphereOf(10000), {64, 64});
    ShadowMapRenderPass2 pass;
    Camera camera;
    camera.fit(scene.model.sceneBounds(), 0, 0, 1);
    for (int i = 0; i < pass.numInputs(); ++i) {
        const QString name = pass.inputName(i);
        if (name.endsWith(QLatin1String("Geometry")))
            pass.setInput(i, QVariant::fromValue(&scene.model));
        else if (name.endsWith(QLatin1String("Lights")))
            pass.setInput(i, lightsToVariant(kept));
        else if (name.endsWith(QLatin1String("ProjectionMatrix")))
            pass.setInput(i, camera.projectionMatrix(1));
        else if (name.endsWith(QLatin1String("CameraMatrix")))
            pass.setInput(i, camera.cameraMatrix());
        else if (name.endsWith(QLatin1String("MapSize")))
            pass.setInput(i, QVariant::fromValue(QSize(256, 256)));
    }
    const auto frame = [&] { pass.start(nullptr); };
    frame();
    frame();
    return leastMilliseconds(rounds, frame);
}

double layers(int count, int rounds)
{
    ModelData data;
    data.meshes << Test::quadMesh();
    data.materials << Test::material({0.7f, 0.6f, 0.5f}, {0.2f, 0.2f, 0.2f}, 8.0f, 0.05f);
    for (int i = 0; i < count; ++i) {
        ModelItem item;
        item.transform.translate(0, 0, -0.5f + float((i * 29) % count) / float(count));
        data.items << item;
    }
    const QSize size(320, 180);
    Drawn<VisibilityBufferRenderPass> record(data, size);
    VisibilitySortRenderPass sort;
    VisibilityDeferredRenderPass shade;
    sort.setInput(0, QRect(QPoint(0, 0), size));
    shade.setInput(0, QRect(QPoint(0, 0), size));
    shade.setInput(1, record.projection);
    shade.setInput(2, record.view);
    shade.setInput(6, QVariant::fromValue(&record.model));
    glViewport(0, 0, size.width(), size.height());
    const auto frame = [&] {
        record.pass.start(nullptr);
        for (int i = 0; i < 3; ++i) {
            sort.setInput(1 + i, record.pass.output(i));
            shade.setInput(3 + i, record.pass.output(i));
        }
        sort.start(nullptr);
        shade.start(nullptr);
    };
    frame();
    frame();
    return leastMilliseconds(rounds, frame);
}

double maps(int count, int rounds)
{
    ModelData data = Test::quadScene();
    data.items.clear();
    data.materials.clear();
    const int side = int(std::ceil(std::sqrt(count)));
    for (int i = 0; i < count; ++i) {
        QImage image(32, 32, QImage::Format_RGBA8888);
        image.fill(QColor::fromHsv(i * 7 % 360, 200, 200));
        image.setPixel(i % 32, i / 32, 0xff000000u); // no two alike
        ModelMaterial material = Test::material({1, 1, 1});
        material.map_Kd = image;
        data.materials << material;
        ModelItem item;
        item.material = i;
        const int row = i / side;
        item.transform.translate(2.0f * float(i % side), 2.0f * float(row), 0);
        data.items << item;
    }
    return leastMilliseconds(rounds, [&] {
        GPUModel model;
        model.upload(data);
    });
}

QVector<Growth> growthTable(const Options &options)
{
    const struct
    {
        const char *axis;
        const char *work;
        QVector<int> counts;
        double (*time)(int, int);
    } lines[] = {
        {"triangles", "forward pass", {10000, 30000, 100000, 300000, 1000000, 2000000}, triangles},
        {"triangles", "upload", {10000, 30000, 100000, 300000, 1000000, 2000000}, uploads},
        {"items", "forward pass", {1, 10, 100, 1000, 5000, 20000}, items},
        {"lights", "layered shadow maps", {1, 2, 4, 8, 16}, lights},
        {"layers", "fragment lists", {1, 2, 4, 8, 16, 32, 48}, layers},
        {"maps", "upload", {1, 10, 100, 300, 1000}, maps},
    };
    std::printf("\nCPU ms over what grows\n");
    QVector<Growth> all;
    for (const auto &line : lines) {
        Growth growth{QLatin1String(line.axis), QLatin1String(line.work), {}};
        for (int count : line.counts)
            inContext([&] { growth.times << QPointF(count, line.time(count, options.rounds)); });
        const double slope = slopeOf(growth.times);
        std::printf("%-10s %-20s slope %.2f%s ", line.axis, line.work, slope, slope > kSteep ? "!" : " ");
        for (const QPointF &p : growth.times)
            std::printf(" %g: %.2f", p.x(), p.y());
        std::printf("\n");
        std::fflush(stdout);
        all << growth;
    }
    return all;
}

const char *const kColors[] = {"#2b6cb0", "#c05621", "#2f855a", "#805ad5", "#b83280", "#718096"};

QVector<PlotTick> timeTicks()
{
    QVector<PlotTick> ticks;
    for (double ms : {0.1, 1.0, 10.0, 100.0, 1000.0, 10000.0})
        ticks << timeTick(ms);
    return ticks;
}

void plotFrames(const QVector<FrameRow> &rows, const Options &options)
{
    QVector<PlotTick> sizes;
    for (const QSize &size : options.sizes)
        sizes << PlotTick{double(size.width()) * size.height(),
                          QStringLiteral("%1x%2").arg(size.width()).arg(size.height())};
    LogLogPlot plot(QStringLiteral("pixels"), sizes, timeTicks());
    // The dearest, and a few that everybody has.
    QVector<FrameRow> shown = rows;
    std::sort(shown.begin(), shown.end(),
              [](const FrameRow &a, const FrameRow &b) { return a.times.last().y() > b.times.last().y(); });
    const qsizetype step = std::max<qsizetype>(1, shown.size() / 10);
    int color = 0;
    for (qsizetype i = 0; i < shown.size(); i += step, ++color)
        plot.add({shown[i].pipeline, kColors[color % 6], color < 6 ? "none" : "5 3", shown[i].times});
    plot.save(options.plots + QStringLiteral("/frame-cost.svg"));
}

void plotGrowth(const QVector<Growth> &all, const Options &options)
{
    QVector<PlotTick> counts;
    for (double count : {1.0, 10.0, 100.0, 1000.0, 10000.0, 100000.0, 2000000.0})
        counts << PlotTick{count, count < 1000  ? QString::number(count)
                                  : count < 1e6 ? QStringLiteral("%1k").arg(count / 1000)
                                                : QStringLiteral("%1M").arg(count / 1e6)};
    LogLogPlot plot(QStringLiteral("triangles, items, lights, layers, maps"), counts, timeTicks());
    int color = 0;
    for (const Growth &growth : all)
        plot.add({growth.name + QStringLiteral(": ") + growth.work, kColors[color++ % 6], "none", growth.times});
    plot.save(options.plots + QStringLiteral("/growth.svg"));
}

bool writeJson(const QVector<FrameRow> &rows, const QVector<Growth> &growth, const QString &path)
{
    QJsonArray frames;
    for (const FrameRow &row : rows) {
        QJsonArray pool;
        for (qint64 bytes : row.pool)
            pool.append(bytes);
        frames.append(QJsonObject{{QStringLiteral("pipeline"), row.pipeline},
                                  {QStringLiteral("millisecondsOverPixels"), toJson(row.times)},
                                  {QStringLiteral("slope"), slopeOf(row.times)},
                                  {QStringLiteral("calls"), row.calls},
                                  {QStringLiteral("microsecondsAtOnePixel"), row.issuing},
                                  {QStringLiteral("poolBytes"), pool}});
    }
    QJsonArray lines;
    for (const Growth &g : growth)
        lines.append(QJsonObject{{QStringLiteral("over"), g.name},
                                 {QStringLiteral("work"), g.work},
                                 {QStringLiteral("milliseconds"), toJson(g.times)},
                                 {QStringLiteral("slope"), slopeOf(g.times)}});
    QFile file(path);
    const QJsonObject all{{QStringLiteral("frames"), frames}, {QStringLiteral("growth"), lines}};
    if (file.open(QIODevice::WriteOnly) && file.write(QJsonDocument(all).toJson()) >= 0)
        return true;
    std::fprintf(stderr, "cannot write %s\n", qPrintable(path));
    return false;
}

bool parse(int argc, char **argv, Options *options)
{
    for (int i = 1; i < argc; ++i) {
        const QString argument = QString::fromLocal8Bit(argv[i]);
        const QString value = argument.section(QLatin1Char('='), 1);
        if (argument.startsWith(QLatin1String("--pipelines="))) {
            options->pipelines = value.split(QLatin1Char(','));
        } else if (argument.startsWith(QLatin1String("--sizes="))) {
            options->sizes.clear();
            for (const QString &size : value.split(QLatin1Char(',')))
                options->sizes << QSize(size.section(QLatin1Char('x'), 0, 0).toInt(),
                                        size.section(QLatin1Char('x'), 1).toInt());
        } else if (argument.startsWith(QLatin1String("--rounds="))) {
            options->rounds = value.toInt();
        } else if (argument == QLatin1String("--no-growth")) {
            options->growth = false;
        } else if (argument.startsWith(QLatin1String("--json="))) {
            options->json = value;
        } else if (argument.startsWith(QLatin1String("--plots="))) {
            options->plots = value;
        } else if (!argument.startsWith(QLatin1Char('-'))) {
            options->model = argument;
        } else {
            std::fprintf(stderr, "bench_frames: unknown option %s\n", qPrintable(argument));
            return false;
        }
    }
    for (const QSize &size : std::as_const(options->sizes)) {
        if (size.width() < 1 || size.height() < 1) {
            std::fprintf(stderr, "bench_frames: --sizes wants WxH,WxH\n");
            return false;
        }
    }
    if (options->rounds < 1 || options->sizes.isEmpty()) {
        std::fprintf(stderr, "bench_frames: --rounds and --sizes want at least one\n");
        return false;
    }
    if (options->pipelines.isEmpty())
        options->pipelines = Test::pipelineNames();
    return true;
}

} // namespace

int main(int argc, char **argv)
{
    Options options;
    if (!parse(argc, argv, &options))
        return 2;
    ImportReport report;
    ModelData data = importScene(options.model, ImportOptions(), &report);
    if (!report.ok()) {
        std::fprintf(stderr, "bench_frames: %s: three cubes instead\n", qPrintable(report.error));
        data = Test::threeCubes(0.5f);
    }
    const QVector<FrameRow> rows = frameTable(data, options);
    const QVector<Growth> growth = options.growth ? growthTable(options) : QVector<Growth>();
    if (!options.plots.isEmpty()) {
        plotFrames(rows, options);
        if (options.growth)
            plotGrowth(growth, options);
    }
    return options.json.isEmpty() || writeJson(rows, growth, options.json) ? 0 : 1;
}
