// G-buffer, deferred shading, camera-space depth, ambient obscurance and average luminance against the
// same draws in bare GL; what a divided obscurance saves; and how long luminance waits for its number.
//
//   bench_screenspace [--benchmark_out=FILE --benchmark_out_format=json]

#include "benchmain.h"
#include "subject.h"

#include "support/antialiasingscenes.h"
#include "support/draw.h"
#include "support/scenes.h"

#include <gl/texture.h>
#include <renderpasses/cameraspacezbufferrenderpass.h>
#include <renderpasses/deferredrenderpass.h>
#include <renderpasses/gbufferrenderpass.h>
#include <renderpasses/luminanceaveragerenderpass.h>
#include <renderpasses/primitivebuilderrenderpass.h>
#include <renderpasses/scalableambientobscurancerenderpass.h>

#include <QMatrix4x4>
#include <QRect>

#include <epoxy/gl.h>

using namespace Brevane::Kvo;
using namespace Brevane::Kvo::Bench;

namespace {

constexpr float kNear = 0.5f;
constexpr float kFar = 20.0f;

/// A field of cubes in front of a wall that fills the picture, and every pass over it, at one size.
class Chain
{
public:
    Chain(int width, int height)
        : image(Test::makeTexture(Test::edgeImage(width, height))), _width(width), _height(height)
    {
        // One cube will do where next to nothing is drawn.
        const int reach = width * height == 1 ? 0 : 5;
        for (int row = -reach; row <= reach; ++row)
            for (int column = -2 * reach; column <= 2 * reach; ++column)
                builder.addCube(0.4f,
                                {0.45f * float(column), 0.45f * float(row), 0.2f * float((row + 2 * column) & 3)});
        builder.addQuad(20, {0, 0, -1});
        frame(builder);
        QMatrix4x4 projection;
        projection.perspective(45, float(width) / float(height), kNear, kFar);
        const QMatrix4x4 camera = Test::cameraAt(5);
        const QRect viewport(0, 0, width, height);

        gbuffer.setInput(0, viewport);
        gbuffer.setInput(1, projection);
        gbuffer.setInput(2, camera);
        gbuffer.setInput(3, builder.output(0));
        frame(gbuffer);
        shading.setInput(0, viewport);
        shading.setInput(1, projection);
        shading.setInput(2, camera);
        shading.setInput(3, gbuffer.output(0));
        shading.setInput(4, gbuffer.output(1));
        shading.setInput(5, gbuffer.output(2));
        unproject.setInput(0, viewport);
        unproject.setInput(1, gbuffer.output(2));
        unproject.setInput(2, projection);
        // Held for good, so that what follows can read it at any time.
        unproject.setNumOutputUsers(0, 1);
        frame(unproject);
        positions = qobject_cast<Texture *>(qvariant_cast<QObject *>(unproject.output(0)));
        unproject.setNumOutputUsers(0, 0);
        for (ScalableAmbientObscuranceRenderPass *pass : {&fromDepth, &fromPositions, &divided}) {
            pass->setInput(0, viewport);
            pass->setInput(1, projection);
            pass->setInput(2, camera);
            pass->setInput(3, kNear);
            pass->setInput(4, kFar);
            pass->setInput(5, gbuffer.output(2));
            pass->setInput(6, 0.3f);
            pass->setInput(7, 0.01f);
        }
        for (ScalableAmbientObscuranceRenderPass *pass : {&fromPositions, &divided}) {
            // A copy in a texture of its own: the passes give back a reference of the pool's each frame.
            pass->setInput(9, textureToVariant(positionCopy()));
            pass->setInput(10, gbuffer.output(0));
        }
        divided.setInput(14, 2.0f);
        luminance.setInput(0, viewport);
        luminance.setInput(1, textureToVariant(image.get()));
    }

    void addTo(std::vector<Subject> &subjects)
    {
        const std::string size = QString::asprintf("/%dx%d", _width, _height).toStdString();
        const auto add = [&](const char *name, RenderPass &pass) {
            subjects.push_back({name + size, &pass, _width, _height});
        };
        add("PrimitiveBuilderRenderPass", builder);
        add("GBufferRenderPass", gbuffer);
        add("DeferredRenderPass", shading);
        add("CameraSpaceZBufferRenderPass", unproject);
        add("ScalableAmbientObscuranceRenderPass depth", fromDepth);
        add("ScalableAmbientObscuranceRenderPass positions", fromPositions);
        add("ScalableAmbientObscuranceRenderPass positions, divider 2", divided);
        add("LuminanceAverageRenderPass", luminance);
    }

    std::unique_ptr<Texture> image;
    PrimitiveBuilderRenderPass builder;
    GBufferRenderPass gbuffer;
    DeferredRenderPass shading;
    CameraSpaceZBufferRenderPass unproject;
    Texture *positions = nullptr;
    ScalableAmbientObscuranceRenderPass fromDepth;
    ScalableAmbientObscuranceRenderPass fromPositions;
    ScalableAmbientObscuranceRenderPass divided;
    LuminanceAverageRenderPass luminance;

private:
    Texture *positionCopy()
    {
        if (!_positionCopy) {
            const Test::Image<float> pixels = Test::readTexture<float>(positions);
            _positionCopy = Test::makeTexture(pixels);
            _positionCopy->bind();
            glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_MAG_FILTER, GL_LINEAR);
            glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_MIN_FILTER, GL_LINEAR);
            _positionCopy->unbind();
        }
        return _positionCopy.get();
    }

    std::unique_ptr<Texture> _positionCopy;
    int _width;
    int _height;
};

void reportDivider(Chain &chain)
{
    std::vector<double> ratios;
    std::vector<double> whole;
    for (int i = -kWarmUp; i < kPairs; ++i) {
        const double one = secondsOf([&] { frame(chain.fromPositions); });
        const double two = secondsOf([&] { frame(chain.divided); });
        if (i < 0)
            continue;
        ratios.push_back(two / one);
        whole.push_back(one);
    }
    std::printf("\nobscurance with a divider of 2 over that of 1: %.3f (goal 0.35; %.1f ms with 1)\n", median(ratios),
                1e3 * median(whole));
}

PFNGLREADPIXELSPROC realReadPixels;
std::vector<double> waits;
std::vector<double> copies;

void splitReadPixels(GLint x, GLint y, GLsizei width, GLsizei height, GLenum format, GLenum type, void *pixels)
{
    const auto now = std::chrono::steady_clock::now;
    const auto start = now();
    glFinish();
    const auto idle = now();
    realReadPixels(x, y, width, height, format, type, pixels);
    waits.push_back(std::chrono::duration<double>(idle - start).count());
    copies.push_back(std::chrono::duration<double>(now() - idle).count());
}

// How long the host waits for the GPU to be done with the two steps, and what the copy itself takes.
void reportReadBack(LuminanceAverageRenderPass &luminance)
{
    std::vector<double> totals;
    totals.reserve(kPairs);
    realReadPixels = epoxy_glReadPixels;
    epoxy_glReadPixels = splitReadPixels;
    for (int i = 0; i < kPairs; ++i)
        totals.push_back(secondsOf([&] { frame(luminance); }));
    epoxy_glReadPixels = realReadPixels;
    std::printf("luminance: %.3f ms, of which the host waits %.3f ms for the GPU and copies for %.3f ms\n",
                1e3 * median(totals), 1e3 * median(waits), 1e3 * median(copies));
}

void reportBuilder()
{
    PrimitiveBuilderRenderPass builder;
    for (int i = 0; i < 1000; ++i)
        builder.addCube(1, {float(i), 0, 0});
    std::vector<double> rebuilds;
    std::vector<double> steady;
    for (int i = 0; i < kPairs; ++i) {
        builder.setUseIndirectDrawCommands(true);
        rebuilds.push_back(secondsOf([&] { frame(builder); }));
        steady.push_back(secondsOf([&] { frame(builder); }));
    }
    std::printf("primitive builder, 1000 cubes: %.3f ms to build, %.4f ms in a steady frame\n", 1e3 * median(rebuilds),
                1e3 * median(steady));
}

void run()
{
    std::vector<Subject> subjects;
    Chain large(1280, 720);
    // So small that next to nothing is drawn: what is left is the cost of the calls.
    Chain small(1, 1);
    large.addTo(subjects);
    small.addTo(subjects);
    registerAll(subjects);
    benchmark::RunSpecifiedBenchmarks();
    std::printf("\nper steady frame; ");
    printTable(subjects);
    glViewport(0, 0, 1280, 720);
    reportDivider(large);
    reportReadBack(large.luminance);
    reportBuilder();
}

} // namespace

int main(int argc, char **argv)
{
    return runInContext(argc, argv, run);
}
