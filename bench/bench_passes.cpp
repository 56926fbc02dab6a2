// The passes against the same draws in bare GL, and what a steady frame of each allocates.
//
//   bench_passes [--benchmark_out=FILE --benchmark_out_format=json]

#include "benchmain.h"
#include "glreplay.h"
#include "pairs.h"

#include "support/allocations.h"
#include "support/scenes.h"

#include <gl/texture.h>
#include <model/gpumodel.h>
#include <renderpasses/forwardrenderpass.h>
#include <renderpasses/gradientrenderpass.h>
#include <renderpasses/modeldeferredpass.h>
#include <renderpasses/modelrenderpass.h>
#include <renderpasses/texturetoscreenrenderpass.h>

#include <QRect>

#include <cstdio>
#include <memory>
#include <string>

using namespace Brevane::Kvo;
using namespace Brevane::Kvo::Bench;

namespace {

/// A pass with its inputs, and what recording one of its steady frames showed.
struct Subject
{
    std::string name;
    RenderPass *pass;
    int width;
    int height;
    std::unique_ptr<GLReplay> bare = nullptr;
    int calls = 0;
    int objects = 0;
    int textureAllocations = 0;
    qint64 heapAllocations = 0;
    double ratio = 0;
    double ours = 0;
    double floor = 0;
};

/// One set of passes wired into each other, at one size.
class Chain
{
public:
    Chain(GPUModel *model, int width, int height) : _width(width), _height(height)
    {
        const QRect viewport(0, 0, width, height);
        const QMatrix4x4 projection = Test::perspective(float(width) / float(height));
        const QMatrix4x4 camera = Test::cameraAt(2);
        for (RenderPass *pass : {static_cast<RenderPass *>(&gradient), static_cast<RenderPass *>(&geometry),
                                 static_cast<RenderPass *>(&lighting), static_cast<RenderPass *>(&forward),
                                 static_cast<RenderPass *>(&screen), static_cast<RenderPass *>(&averaging)})
            pass->setInput(0, viewport);
        for (RenderPass *pass : {static_cast<RenderPass *>(&geometry), static_cast<RenderPass *>(&forward)}) {
            pass->setInput(1, projection);
            pass->setInput(2, camera);
            pass->setInput(3, QVariant::fromValue(model));
        }
        glViewport(0, 0, width, height);
        gradient.start(nullptr);
        geometry.start(nullptr);
        for (int i = 0; i < 3; ++i)
            lighting.setInput(3 + i, geometry.output(i));
        lighting.start(nullptr);

        out = std::make_unique<Texture>();
        out->setTarget(GL_TEXTURE_2D);
        out->bind();
        glTexImage2D(GL_TEXTURE_2D, 0, GL_RGBA8, width, height, 0, GL_RGBA, GL_UNSIGNED_BYTE, nullptr);
        out->unbind();
        for (TextureToScreenRenderPass *pass : {&screen, &averaging}) {
            pass->setInput(1, lighting.output(0));
            pass->setInput(4, textureToVariant(out.get()));
        }
        averaging.setInput(2, true);
    }

    void addTo(std::vector<Subject> &subjects)
    {
        const std::string size = QString::asprintf("/%dx%d", _width, _height).toStdString();
        subjects.push_back({"GradientRenderPass" + size, &gradient, _width, _height});
        subjects.push_back({"ModelRenderPass" + size, &geometry, _width, _height});
        subjects.push_back({"ModelDeferredPass" + size, &lighting, _width, _height});
        subjects.push_back({"ForwardRenderPass" + size, &forward, _width, _height});
        subjects.push_back({"TextureToScreenRenderPass blit" + size, &screen, _width, _height});
        subjects.push_back({"TextureToScreenRenderPass averaging" + size, &averaging, _width, _height});
    }

    GradientRenderPass gradient;
    ModelRenderPass geometry;
    ModelDeferredPass lighting;
    ForwardRenderPass forward;
    TextureToScreenRenderPass screen;
    TextureToScreenRenderPass averaging;
    std::unique_ptr<Texture> out;

private:
    int _width;
    int _height;
};

void frame(RenderPass &pass)
{
    pass.beginFrame(nullptr);
    pass.start(nullptr);
    pass.endFrame(nullptr);
}

void record(Subject &subject)
{
    const RecorderScope recorder;
    glViewport(0, 0, subject.width, subject.height);
    for (int i = 0; i < 3; ++i)
        frame(*subject.pass);
    {
        // apart from the recorder's own bookkeeping
        const Test::AllocationCounter counter;
        frame(*subject.pass);
        subject.heapAllocations = counter.count();
    }
    const Test::GlCalls calls;
    frame(*subject.pass);
    subject.calls = int(calls.all().size());
    subject.objects = calls.created();
    subject.textureAllocations = calls.textureAllocations();
    subject.bare = std::make_unique<GLReplay>(calls);
}

void compare(benchmark::State &state, Subject &subject)
{
    glViewport(0, 0, subject.width, subject.height);
    comparePairs(
        state, [&] { frame(*subject.pass); }, [&] { subject.bare->run(); });
    subject.ratio = state.counters["ratio"];
    subject.ours = state.counters["kvo_us"];
    subject.floor = state.counters["bare_us"];
    state.counters["gl_calls"] = subject.calls;
    state.counters["bare_calls"] = subject.bare->callCount();
    state.counters["gl_objects"] = subject.objects;
    state.counters["texture_allocations"] = subject.textureAllocations;
    state.counters["heap_allocations"] = double(subject.heapAllocations);
}

void run()
{
    std::vector<Subject> subjects;
    {
        GPUModel model;
        model.upload(Test::quadGridScene(32, 32));
        Chain large(&model, 1280, 720);
        // So small that next to nothing is drawn: what is left is the cost of the calls.
        Chain small(&model, 16, 16);
        large.addTo(subjects);
        small.addTo(subjects);
        for (Subject &subject : subjects) {
            record(subject);
            benchmark::RegisterBenchmark(subject.name.c_str(), [&subject](benchmark::State &s) { compare(s, subject); })
                ->UseManualTime()
                ->Iterations(kPairs)
                ->Unit(benchmark::kMicrosecond);
        }
        benchmark::RunSpecifiedBenchmarks();

        std::printf("\nper steady frame, 1024 items where a model is drawn; medians of %d pairs\n", kPairs);
        std::printf("%-46s %10s %10s %7s %9s %10s %8s %9s %6s\n", "pass", "kvo us", "bare us", "ratio", "gl calls",
                    "bare calls", "objects", "tex alloc", "heap");
        for (const Subject &s : subjects)
            std::printf("%-46s %10.1f %10.1f %7.3f %9d %10d %8d %9d %6lld\n", s.name.c_str(), s.ours, s.floor, s.ratio,
                        s.calls, s.bare->callCount(), s.objects, s.textureAllocations, s.heapAllocations);
    }
}

} // namespace

int main(int argc, char **argv)
{
    return runInContext(argc, argv, run);
}
