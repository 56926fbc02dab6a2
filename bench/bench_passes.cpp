// The passes against the same draws in bare GL, and what a steady frame of each allocates.
//
//   bench_passes [--benchmark_out=FILE --benchmark_out_format=json]

#include "benchmain.h"
#include "subject.h"

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

void run()
{
    std::vector<Subject> subjects;
    {
        GPUModel model;
        model.upload(Test::quadGridScene(32, 32));
        Chain large(&model, 1280, 720);
        // A pixel and a quad: next to nothing is drawn, and what is left is the cost of the calls.
        GPUModel quad;
        quad.upload(Test::quadGridScene(1, 1));
        Chain small(&quad, 1, 1);
        large.addTo(subjects);
        small.addTo(subjects);
        registerAll(subjects);
        benchmark::RunSpecifiedBenchmarks();

        std::printf("\nper steady frame, 1024 items where a model is drawn, one for a single pixel; ");
        printTable(subjects);
    }
}

} // namespace

int main(int argc, char **argv)
{
    return runInContext(argc, argv, run);
}
