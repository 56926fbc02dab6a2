// Image filters and antialiasing against the same draws in bare GL; what a change of the blur's radius
// costs; and where the time of SMAA goes.
//
//   bench_filters [--benchmark_out=FILE --benchmark_out_format=json]

#include "benchmain.h"
#include "subject.h"

#include "support/antialiasingscenes.h"
#include "support/draw.h"
#include "support/scenes.h"

#include <gl/texture.h>
#include <renderpasses/blendrenderpass.h>
#include <renderpasses/blurandcombinerenderpass.h>
#include <renderpasses/camerajitterpass.h>
#include <renderpasses/depthoffieldrenderpass.h>
#include <renderpasses/fastapproximateantialiasingrenderpass.h>
#include <renderpasses/gaussianblurrenderpass.h>
#include <renderpasses/smaarenderpass.h>
#include <renderpasses/stencilblurandblendrenderpass.h>
#include <renderpasses/temporalaarenderpass.h>
#include <renderpasses/wireframerenderpass.h>

#include <QMatrix4x4>
#include <QRect>
#include <QVector2D>

#include <epoxy/gl.h>

using namespace Brevane::Kvo;
using namespace Brevane::Kvo::Bench;

namespace {

std::unique_ptr<Texture> halfFloatImage(int width, int height)
{
    const Test::Image<float> image = Test::edgeImage(width, height);
    auto texture = std::make_unique<Texture>();
    texture->setTarget(GL_TEXTURE_2D);
    texture->bind();
    glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_MIN_FILTER, GL_LINEAR);
    glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_WRAP_S, GL_CLAMP_TO_EDGE);
    glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_WRAP_T, GL_CLAMP_TO_EDGE);
    glTexImage2D(GL_TEXTURE_2D, 0, GL_RGBA16F, width, height, 0, GL_RGBA, GL_FLOAT, image.pixels.constData());
    texture->unbind();
    return texture;
}

/// Every filter on one image, at one size.
class Filters
{
public:
    Filters(int width, int height)
        : image(halfFloatImage(width, height)), depth(Test::makeSolidTexture(width, height, {0.98f, 0, 0, 0})),
          _width(width), _height(height)
    {
        const QVariant frame = textureToVariant(image.get());
        for (RenderPass *pass : std::initializer_list<RenderPass *>{&blur, &glow, &masked, &lens, &blend, &wire, &fxaa,
                                                                    &mean, &smaa, &smaaT2x}) {
            pass->setInput(0, QRect(0, 0, width, height));
            pass->setInput(1, frame);
        }
        blur.setInput(2, 3.2f);
        glow.setInput(2, 3.2f);
        glow.setInput(3, 0.6f);
        glow.setInput(4, 1.0f);
        glow.setInput(5, frame);
        masked.setInput(2, 3.2f);
        masked.setInput(3, frame);
        lens.setInput(2, textureToVariant(depth.get()));
        lens.setInput(3, 2.0f);
        lens.setInput(4, 50.0f);
        lens.setInput(5, 1.4f);
        blend.setInput(2, frame);
        blend.setInput(3, int(BlendRenderPass::blendSoftLight));
        mean.setInput(4, false);
        smaa.setInput(2, 0);
        smaa.setInput(8, -1);
        smaaT2x.setInput(2, 1);
        smaaT2x.setInput(5, textureToVariant(depth.get()));
        jitter.setInput(0, QRect(0, 0, width, height));
        jitter.setInput(1, Test::perspective(1.5f));
        jitter.setInput(2, Test::cameraAt(2));
    }
    ~Filters()
    {
        smaa.teardown(nullptr);
        smaaT2x.teardown(nullptr);
    }
    Filters(const Filters &) = delete;
    Filters &operator=(const Filters &) = delete;

    void addTo(std::vector<Subject> &subjects)
    {
        const std::string size = QString::asprintf("/%dx%d", _width, _height).toStdString();
        const auto add = [&](const char *name, RenderPass &pass) {
            subjects.push_back({name + size, &pass, _width, _height});
        };
        add("GaussianBlurRenderPass", blur);
        add("BlurAndCombineRenderPass", glow);
        add("StencilBlurAndBlendRenderPass", masked);
        add("DepthOfFieldRenderPass", lens);
        add("BlendRenderPass", blend);
        add("WireframeRenderPass", wire);
        add("FastApproximateAntiAliasingRenderPass", fxaa);
        add("TemporalAARenderPass", mean);
        add("SMAARenderPass 1x", smaa);
        add("SMAARenderPass T2x", smaaT2x);
        add("CameraJitterPass", jitter);
    }

    std::unique_ptr<Texture> image;
    std::unique_ptr<Texture> depth;
    GaussianBlurRenderPass blur;
    BlurAndCombineRenderPass glow;
    StencilBlurAndBlendRenderPass masked;
    DepthOfFieldRenderPass lens;
    BlendRenderPass blend;
    WireframeRenderPass wire;
    FastApproximateAntiAliasingRenderPass fxaa;
    TemporalAARenderPass mean;
    SMAARenderPass smaa;
    SMAARenderPass smaaT2x;
    CameraJitterPass jitter;

private:
    int _width;
    int _height;
};

// Radii of one number of taps, a new one each frame, against a radius that stays.
void reportRadiusChanges(GaussianBlurRenderPass &blur)
{
    std::vector<double> ratios;
    for (int i = 0; i < kPairs; ++i) {
        blur.setInput(2, 3.2f);
        frame(blur);
        const double steady = secondsOf([&] { frame(blur); });
        blur.setInput(2, 3.05f + 0.4f * float(i % 97) / 97.0f);
        ratios.push_back(secondsOf([&] { frame(blur); }) / steady);
    }
    std::printf("\na new radius with the same number of taps over a steady frame: %.3f (goal 1.5)\n", median(ratios));
}

std::vector<double> drawTimes;
PFNGLDRAWARRAYSPROC realDrawArrays;

void timedDrawArrays(GLenum mode, GLint first, GLsizei count)
{
    drawTimes.push_back(secondsOf([&] { realDrawArrays(mode, first, count); }));
}

void reportStages(SMAARenderPass &smaa)
{
    const char *names[] = {"edges", "weights", "velocity", "blending", "resolve"};
    std::vector<std::vector<double>> times(std::size(names));
    realDrawArrays = epoxy_glDrawArrays;
    epoxy_glDrawArrays = timedDrawArrays;
    for (int i = 0; i < 40; ++i) {
        drawTimes.clear();
        frame(smaa);
        for (std::size_t d = 0; d < drawTimes.size() && d < times.size(); ++d)
            times[d].push_back(drawTimes[d]);
    }
    epoxy_glDrawArrays = realDrawArrays;
    double sum = 0;
    for (const auto &stage : times)
        sum += median(stage);
    std::printf("\nSMAA T2x, share of each stage of its draws (%.1f ms together)\n", sum * 1e3);
    for (std::size_t i = 0; i < times.size(); ++i)
        std::printf("  %-10s %5.1f %%\n", names[i], 100 * median(times[i]) / sum);
}

void run()
{
    std::vector<Subject> subjects;
    Filters large(1280, 720);
    Filters small(1, 1);
    large.addTo(subjects);
    small.addTo(subjects);
    registerAll(subjects);
    benchmark::RunSpecifiedBenchmarks();
    std::printf("\nper steady frame; ");
    printTable(subjects);
    glViewport(0, 0, 1280, 720);
    reportRadiusChanges(large.blur);
    reportStages(large.smaaT2x);
}

} // namespace

int main(int argc, char **argv)
{
    return runInContext(argc, argv, run);
}
