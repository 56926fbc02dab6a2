// Order-independent transparency: each pass against the same draws in bare GL on a real model; the cost
// of recording, sorting and shading against layers and resolution; and weighted blending against the forward pass.
//
//   bench_transparency [MODEL] [--plot=FILE.svg] [--benchmark_out=FILE --benchmark_out_format=json]

#include "benchmain.h"
#include "loglogplot.h"
#include "subject.h"

#include "support/scenes.h"

#include <gl/texture.h>
#include <host/camera.h>
#include <host/sceneimport.h>
#include <model/gpumodel.h>
#include <renderpasses/forwardrenderpass.h>
#include <renderpasses/transparencyrenderpass.h>
#include <renderpasses/visibilitybufferrenderpass.h>
#include <renderpasses/visibilitydeferredrenderpass.h>
#include <renderpasses/visibilitysortrenderpass.h>

#include <QMatrix4x4>
#include <QRect>

#include <epoxy/gl.h>

#include <cstring>
#include <utility>

using namespace Brevane::Kvo;
using namespace Brevane::Kvo::Bench;

namespace {

constexpr float kOpacity = 0.4f;
constexpr int kTableRounds = 15;
const QString kBunny = QStringLiteral("/usr/share/glmark2/models/bunny.obj");

struct View
{
    QMatrix4x4 projection;
    QMatrix4x4 camera;
};

/// Both ways to transparency, and the forward pass, on one model at one size.
class Passes
{
public:
    Passes(GPUModel *model, const View &view, int width, int height) : _width(width), _height(height)
    {
        const QVariant geometry = QVariant::fromValue(model);
        const QRect viewport(0, 0, width, height);
        for (RenderPass *pass : std::initializer_list<RenderPass *>{&record, &shade, &weighted, &forward}) {
            pass->setInput(0, viewport);
            pass->setInput(1, view.projection);
            pass->setInput(2, view.camera);
        }
        for (RenderPass *pass : std::initializer_list<RenderPass *>{&record, &weighted, &forward})
            pass->setInput(3, geometry);
        sort.setInput(0, viewport);
        shade.setInput(6, geometry);
        glViewport(0, 0, width, height);
        frame(record);
        for (int i = 0; i < 3; ++i) {
            sort.setInput(1 + i, record.output(i));
            shade.setInput(3 + i, record.output(i));
        }
        frame(sort);
    }

    void addTo(std::vector<Subject> &subjects)
    {
        const std::string size = QString::asprintf("/%dx%d", _width, _height).toStdString();
        const auto add = [&](const char *name, RenderPass &pass) {
            subjects.push_back({name + size, &pass, _width, _height});
        };
        add("VisibilityBufferRenderPass", record);
        add("VisibilitySortRenderPass", sort);
        add("VisibilityDeferredRenderPass", shade);
        add("TransparencyRenderPass", weighted);
    }

    VisibilityBufferRenderPass record;
    VisibilitySortRenderPass sort;
    VisibilityDeferredRenderPass shade;
    TransparencyRenderPass weighted;
    ForwardRenderPass forward;

private:
    int _width;
    int _height;
};

double medianMilliseconds(const std::function<void()> &function)
{
    std::vector<double> times;
    for (int i = -2; i < kTableRounds; ++i) {
        const double seconds = secondsOf(function);
        if (i >= 0)
            times.push_back(seconds * 1e3);
    }
    return median(times);
}

/// Screen-filling quads one behind the other.
ModelData layers(int count)
{
    ModelData data;
    data.meshes << Test::quadMesh();
    data.materials << Test::material({0.7f, 0.6f, 0.5f}, {0.2f, 0.2f, 0.2f}, 8.0f, 0.05f);
    for (int i = 0; i < count; ++i) {
        ModelItem item;
        // In an order that the sort has work with.
        item.transform.translate(0, 0, -9.0f + 18.0f * float((i * 29) % count) / float(count));
        data.items << item;
    }
    return data;
}

struct Cost
{
    int width;
    int height;
    int layers;
    double record;
    double sort;
    double shade;
};

QVector<Cost> layerTable()
{
    std::printf("\nscreen-filling layers, milliseconds, medians of %d\n", kTableRounds);
    std::printf("%-10s %7s %10s %8s %8s %8s\n", "size", "layers", "record", "sort", "shade", "all");
    QVector<Cost> costs;
    for (const QSize size : {QSize(320, 180), QSize(640, 360), QSize(1280, 720)}) {
        for (int count : {1, 4, 16, 48}) {
            if (qint64(size.width()) * size.height() * count > qint64(4096) * 4096) {
                std::printf("%4dx%-5d %7d more fragments than the node buffer holds\n", size.width(), size.height(),
                            count);
                continue;
            }
            GPUModel model;
            model.upload(layers(count));
            Passes passes(&model, {Test::flatProjection(), QMatrix4x4()}, size.width(), size.height());
            Cost cost{size.width(), size.height(), count, 0, 0, 0};
            cost.record = medianMilliseconds([&] { frame(passes.record); });
            // A sorted list is another load than a fresh one.
            std::vector<double> times;
            for (int i = 0; i < kTableRounds; ++i) {
                frame(passes.record);
                times.push_back(secondsOf([&] { frame(passes.sort); }) * 1e3);
            }
            cost.sort = median(times);
            cost.shade = medianMilliseconds([&] { frame(passes.shade); });
            std::printf("%4dx%-5d %7d %10.1f %8.1f %8.1f %8.1f\n", cost.width, cost.height, count, cost.record,
                        cost.sort, cost.shade, cost.record + cost.sort + cost.shade);
            costs << cost;
        }
    }
    return costs;
}

// Time over layers, a line per size and pass.
void plot(const QVector<Cost> &costs, const char *path)
{
    QVector<PlotTick> layers;
    for (int count : {1, 4, 16, 48})
        layers << PlotTick{double(count), QString::number(count)};
    QVector<PlotTick> times;
    for (double ms : {0.1, 1.0, 10.0, 100.0, 1000.0, 2000.0})
        times << timeTick(ms);
    LogLogPlot out(QStringLiteral("layers"), layers, times);
    const struct
    {
        const char *name;
        const char *color;
        double Cost::*time;
    } passes[] = {
        {"record", "#2b6cb0", &Cost::record}, {"sort", "#c05621", &Cost::sort}, {"shade", "#2f855a", &Cost::shade}};
    const std::pair<int, const char *> dashes[] = {{320, "2 3"}, {640, "6 3"}, {1280, "none"}};
    for (const auto &pass : passes) {
        for (const auto &[width, dash] : dashes) {
            PlotLine line{QStringLiteral("%1, %2 wide").arg(QLatin1String(pass.name)).arg(width), pass.color, dash, {}};
            for (const Cost &cost : costs)
                if (cost.width == width)
                    line.points << QPointF(cost.layers, cost.*pass.time);
            out.add(line);
        }
    }
    out.save(QString::fromLocal8Bit(path));
}

void reportWeightedOverForward(Passes &passes)
{
    std::vector<double> ratios;
    for (int i = 0; i < kPairs; ++i) {
        const double weighted = secondsOf([&] { frame(passes.weighted); });
        ratios.push_back(weighted / secondsOf([&] { frame(passes.forward); }));
    }
    std::printf("\nweighted blending over the forward pass, opaque model: %.2f (goal 2)\n", median(ratios));
}

void run(const QString &modelPath, const char *plotPath)
{
    ImportReport report;
    ModelData data = importScene(modelPath, ImportOptions(), &report);
    if (!report.ok()) {
        std::fprintf(stderr, "bench_transparency: %s\n", qPrintable(report.error));
        return;
    }
    GPUModel opaque;
    opaque.upload(data);
    setOpacity(&data, QString(), kOpacity);
    GPUModel model;
    model.upload(data);
    Camera camera;
    Camera::parse(QString(), model.sceneBounds(), 16.0f / 9.0f, &camera, nullptr);
    const View view{camera.projectionMatrix(16.0f / 9.0f), camera.cameraMatrix()};
    {
        std::vector<Subject> subjects;
        Passes large(&model, view, 1280, 720);
        // A pixel and a quad: next to nothing is drawn, and what is left is the cost of the calls, and the clear.
        GPUModel quad;
        quad.upload(Test::quadGridScene(1, 1));
        Passes small(&quad, view, 1, 1);
        large.addTo(subjects);
        small.addTo(subjects);
        registerAll(subjects);
        benchmark::RunSpecifiedBenchmarks();
        std::printf("\nper steady frame, %s; ", qPrintable(modelPath));
        printTable(subjects);
    }
    {
        Passes passes(&opaque, view, 1280, 720);
        reportWeightedOverForward(passes);
    }
    const QVector<Cost> costs = layerTable();
    if (plotPath)
        plot(costs, plotPath);
}

} // namespace

int main(int argc, char **argv)
{
    const char *plotPath = nullptr;
    QString modelPath = kBunny;
    for (int i = 1; i < argc; ++i) {
        if (std::strncmp(argv[i], "--plot=", 7) == 0)
            plotPath = argv[i] + 7;
        else if (argv[i][0] != '-')
            modelPath = QString::fromLocal8Bit(argv[i]);
    }
    return runInContext(argc, argv, [&] { run(modelPath, plotPath); });
}
