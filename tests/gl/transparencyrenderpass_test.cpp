#include "support/allocations.h"
#include "support/modelpass.h"
#include "support/modelreference.h"
#include "support/passes.h"
#include "support/scenes.h"

#include <gl/opengldevicecontext.h>
#include <gl/texture.h>
#include <model/gpumodel.h>
#include <model/instancedatacollection.h>
#include <renderpasses/transparencyrenderpass.h>

#include <QRect>

#include <epoxy/gl.h>

#include <algorithm>
#include <cmath>
#include <memory>
#include <random>

using namespace Brevane::Kvo;
using namespace Brevane::Kvo::Test;

namespace {

enum Output { kFrame, kDepth };

using Rgba = std::array<double, 4>;

struct Layer
{
    Vector3 color;
    double alpha;
    double depth;
};

/// What the pass makes of the fragments of a pixel, given the cleared colour.
Rgba composed(const std::vector<Layer> &layers, const Rgba &clear)
{
    Rgba opaque = clear;
    double opaqueDepth = 1;
    for (const Layer &layer : layers) {
        if (layer.alpha >= 1 && layer.depth < opaqueDepth) {
            opaque = {layer.color[0], layer.color[1], layer.color[2], layer.alpha};
            opaqueDepth = layer.depth;
        }
    }
    Vector3 sum{};
    double weights = 0;
    double revealage = 1;
    for (const Layer &layer : layers) {
        if (layer.depth >= opaqueDepth)
            continue;
        const double weight = std::pow(layer.depth, -5);
        for (size_t c = 0; c < 3; ++c)
            sum[c] += layer.color[c] * weight;
        weights += layer.alpha * weight;
        revealage *= 1 - layer.alpha;
    }
    const double divisor = std::clamp(weights, 1e-4, 5e4);
    Rgba out{};
    for (size_t c = 0; c < 3; ++c)
        out[c] = (1 - revealage) * (sum[c] / divisor) + revealage * opaque[c];
    out[3] = (1 - revealage) * revealage + revealage * opaque[3];
    return out;
}

float heightOfDepth(double depth)
{
    return float(10 - 20 * depth);
}

/// Full-screen quads, one material each.
ModelData stack(const std::vector<Layer> &layers)
{
    ModelData data;
    data.meshes << quadMesh();
    for (const Layer &layer : layers) {
        data.materials << material({float(layer.color[0]), float(layer.color[1]), float(layer.color[2])}, {}, 1.0f,
                                   float(layer.alpha));
        ModelItem item;
        item.material = int(data.materials.size()) - 1;
        item.transform.translate(0, 0, heightOfDepth(layer.depth));
        data.items << item;
    }
    return data;
}

/// The layers as they are lit: a quad that faces the viewer.
std::vector<Layer> lit(std::vector<Layer> layers)
{
    for (Layer &layer : layers)
        layer.color = blinnPhong(layer.color, {0, 0, 0}, 1, {0, 0, 1});
    return layers;
}

class Transparency : public ModelPassTest<TransparencyRenderPass>
{
protected:
    void SetUp() override
    {
        ModelPassTest::SetUp();
        pass.setInput(kProjection, flatProjection());
        pass.setInput(kCamera, QMatrix4x4());
    }

    void expectComposed(const std::vector<Layer> &layers, double tolerance, const Rgba &clear = {0, 0, 0, 0})
    {
        ASSERT_TRUE(model.upload(stack(layers)));
        glClearColor(float(clear[0]), float(clear[1]), float(clear[2]), float(clear[3]));
        runFrame(pass);
        const Image<float> frame = read(kFrame);
        const Rgba expected = composed(lit(layers), clear);
        for (int x : {0, kWidth / 2, kWidth - 1})
            ASSERT_TRUE(isPixel(frame, x, x % kHeight, expected, tolerance));
    }
};

constexpr double kSingle = 2e-5; // sums of 60 terms and a fifth power in single precision

} // namespace

TEST_F(Transparency, SlotsHaveTheirNamesOrderAndDefaults)
{
    expectSlots(TransparencyRenderPass(),
                {{"Kvo_QRect_Viewport"},
                 {"Kvo_QMatrix4x4_ProjectionMatrix"},
                 {"Kvo_QMatrix4x4_CameraMatrix"},
                 {"Kvo_KvoGPUModel*_Geometry"},
                 {"Kvo_KvoTexture*_Texture"}},
                {"Kvo_KvoTexture*_Frame", "Kvo_KvoTexture*_Depth"});
}

TEST_F(Transparency, ConstructingCopyingAndDestroyingMakesNoGLCall)
{
    expectNoGLCallBeforeStart<TransparencyRenderPass>();
}

TEST_F(Transparency, RandomStacksOfOneToSixtyLayersAreTheWeightedAverage)
{
    std::mt19937 random(11);
    std::uniform_real_distribution<double> unit(0, 1);
    for (int count : {1, 2, 3, 7, 20, 60}) {
        std::vector<Layer> layers;
        for (int i = 0; i < count; ++i)
            layers.push_back(
                {{unit(random), unit(random), unit(random)}, 0.02 + 0.4 * unit(random), 0.3 + 0.69 * unit(random)});
        ASSERT_NO_FATAL_FAILURE(expectComposed(layers, kSingle, {0.25, 0.5, 0.125, 1})) << count;
    }
}

TEST_F(Transparency, TheOrderOfDrawingDoesNotMatter)
{
    std::vector<Layer> layers{{{1, 0, 0}, 0.5, 0.3}, {{0, 1, 0}, 0.25, 0.5}, {{0, 0, 1}, 0.75, 0.7}};
    ASSERT_TRUE(model.upload(stack(layers)));
    runFrame(pass);
    const Image<float> forwards = read(kFrame);
    std::reverse(layers.begin(), layers.end());
    ASSERT_TRUE(model.upload(stack(layers)));
    glClearColor(0, 0, 0, 0);
    runFrame(pass);
    EXPECT_TRUE(sameImage(read(kFrame), forwards, within(kSingle)));
}

TEST_F(Transparency, APixelWithoutTransparentFragmentsKeepsItsOpaqueColor)
{
    expectComposed({{{0.75, 0.5, 0.25}, 1.0, 0.5}}, 1e-6, {0.1, 0.2, 0.3, 0.4});
    const Image<float> frame = read(kFrame);
    const double l = 1 / std::sqrt(3.0);
    EXPECT_TRUE(isPixel(frame, 5, 5, {0.75 * l, 0.5 * l, 0.25 * l, 1}, 1e-6)) << "alpha is the opaque one";
}

TEST_F(Transparency, WhereNothingIsDrawnTheClearColorStays)
{
    ModelData scene = stack({{{1, 1, 1}, 0.5, 0.5}});
    scene.items[0].transform.translate(1, 0, 0);
    ASSERT_TRUE(model.upload(scene));
    glClearColor(0.1f, 0.2f, 0.3f, 0.4f);
    runFrame(pass);
    EXPECT_TRUE(isPixel(read(kFrame), 2, 2, {0.1, 0.2, 0.3, 0.4}, 1e-6));
}

TEST_F(Transparency, TransparentFragmentsBehindAnOpaqueOneAreHidden)
{
    expectComposed({{{1, 0, 0}, 0.5, 0.7}, {{0.25, 0.5, 0.75}, 1.0, 0.5}, {{0, 1, 0}, 0.5, 0.9}}, 1e-6);
    expectComposed({{{1, 0, 0}, 0.5, 0.3}, {{0.25, 0.5, 0.75}, 1.0, 0.5}, {{0, 1, 0}, 0.25, 0.4}}, kSingle);
}

TEST_F(Transparency, AnOpaqueFragmentEntersNoSumUnderAStrictDepthFunction)
{
    glDepthFunc(GL_LESS);
    expectComposed({{{0.25, 0.5, 0.75}, 1.0, 0.5}}, 1e-6);
}

TEST_F(Transparency, AnOpaqueFragmentEntersTheSumsUnderAFunctionThatIsNotStrict)
{
    const std::vector<Layer> layers{{{0.25, 0.5, 0.75}, 1.0, 0.5}};
    ASSERT_TRUE(model.upload(stack(layers)));
    glDepthFunc(GL_LEQUAL);
    runFrame(pass);
    // Revealage 0: the average of the one fragment, and no alpha.
    const double l = 1 / std::sqrt(3.0);
    EXPECT_TRUE(isPixel(read(kFrame), 5, 5, {0.25 * l, 0.5 * l, 0.75 * l, 0}, kSingle));
}

TEST_F(Transparency, WithoutALayerNothingIsComposed)
{
    const std::vector<Layer> opaque{{{0.25, 0.5, 0.75}, 1.0, 0.5}};
    ASSERT_TRUE(model.upload(stack(opaque)));
    runFrame(pass);
    const auto drawsOf = [&] {
        glClearColor(0.5f, 0.25f, 0.125f, 1);
        const GlCalls calls;
        runFrame(pass);
        return calls.draws();
    };
    glDepthFunc(GL_LESS);
    EXPECT_EQ(drawsOf(), 1);
    const Image<float> alone = read(kFrame);
    // What comes under the sums all the same is composed, and is nothing here but the surface itself, hidden.
    glDepthFunc(GL_GREATER);
    EXPECT_EQ(drawsOf(), 3);
    glDepthFunc(GL_LESS);
    ASSERT_TRUE(model.upload(stack({opaque[0], {{1, 0, 0}, 0.5, 0.7}})));
    EXPECT_EQ(drawsOf(), 3);
    EXPECT_EQ(read(kFrame).pixels, alone.pixels) << "the layer is behind the surface: sums of nothing";
}

// The sums are cleared and composed only where a layer can be. With one behind the eye that is everywhere.
TEST_F(Transparency, WhatIsComposedOfAPartOfTheScreenIsWhatIsComposedOfAllOfIt)
{
    std::minstd_rand random(17);
    const auto number = [&](float least, float most) {
        return std::uniform_real_distribution<float>(least, most)(random);
    };
    qint64 fewer = 0;
    GLuint query = 0;
    glGenQueries(1, &query);
    for (int round = 0; round < 40; ++round) {
        SCOPED_TRACE(round);
        ModelData data;
        data.meshes << cubeMesh() << quadMesh();
        for (const float opacity : {1.0f, 0.6f, 0.3f})
            data.materials << material({number(0.2f, 1), number(0.2f, 1), number(0.2f, 1)}, {}, 1, opacity);
        const int count = 1 + round % 4;
        for (int i = 0; i < count; ++i) {
            ModelItem item;
            item.material = i == 0 ? 1 : int(random() % 3);
            item.mesh = int(random() % 2);
            item.transform.translate(number(-2, 2), number(-2, 2), number(-2, 1));
            item.transform.rotate(number(0, 360), number(-1, 1), number(-1, 1), 1);
            item.transform.scale(number(0.005f, 0.4f));
            data.items << item;
        }
        camera = cameraAt(4);
        camera.rotate(number(-30, 30), 1, 0, 0);
        pass.setInput(kCamera, camera);
        pass.setInput(kProjection, projection);
        glViewport(round % 3 * 5, round % 7, kWidth - round % 4, kHeight - 3);
        const auto pictureOf = [&](const ModelData &scene, qint64 *samples) {
            EXPECT_TRUE(model.upload(scene));
            glClearColor(0.25f, 0.5f, 0.75f, 1);
            glBeginQuery(GL_SAMPLES_PASSED, query);
            runFrame(pass);
            glEndQuery(GL_SAMPLES_PASSED);
            GLuint passed = 0;
            glGetQueryObjectuiv(query, GL_QUERY_RESULT, &passed);
            *samples = passed;
            return read(kFrame).pixels;
        };
        qint64 everywhere = 0, here = 0;
        ModelData behind = data;
        ModelItem item;
        item.material = 1;
        item.transform = camera.inverted();
        item.transform.translate(0, 0, 50);
        behind.items << item;
        const auto part = pictureOf(data, &here);
        const auto all = pictureOf(behind, &everywhere);
        EXPECT_EQ(part, all);
        fewer += everywhere - here;
        EXPECT_EQ(pictureOf(data, &here), part) << "after a frame whose sums are everywhere";
    }
    glDeleteQueries(1, &query);
    EXPECT_GT(fewer, 32 * kWidth * kHeight / 2) << "most of the screen was left out";
}

TEST_F(Transparency, OpacityThatAHostChangesLaterIsFollowed)
{
    const std::vector<Layer> layers{{{0.25, 0.5, 0.75}, 1.0, 0.5}};
    ASSERT_TRUE(model.upload(stack(layers)));
    runFrame(pass);
    const double l = 1 / std::sqrt(3.0);
    EXPECT_TRUE(isPixel(read(kFrame), 5, 5, {0.25 * l, 0.5 * l, 0.75 * l, 1}, kSingle));
    QVector<float> data = model.materialData(0)->data();
    data[7] = 0.5f;
    ASSERT_TRUE(model.materialData(0)->setData(data));
    glClearColor(0, 0, 0, 0);
    runFrame(pass);
    std::vector<Layer> changed = layers;
    changed[0].alpha = 0.5;
    const Rgba expected = composed(lit(changed), {0, 0, 0, 0});
    EXPECT_TRUE(isPixel(read(kFrame), 5, 5, expected, kSingle));
}

TEST_F(Transparency, AWeightSumBelowTheClampIsDividedByTheClamp)
{
    // 1e-6 * 0.99^-5 is about 1e-6: two decimal places below 1e-4.
    const std::vector<Layer> layers{{{0.5, 0.5, 0.5}, 1e-6, 0.99}};
    ASSERT_LT(1e-6 * std::pow(0.99, -5), 1e-4);
    expectComposed(layers, 1e-3, {0, 0, 0, 1});
    const double unclamped = 0.5 / std::sqrt(3.0) / 1e-6 * 1e-6;
    EXPECT_GT(std::abs(composed(lit(layers), {0, 0, 0, 1})[0] - unclamped), 0.1);
}

TEST_F(Transparency, AWeightSumAboveTheClampIsDividedByTheClamp)
{
    // Next to the near plane the weight grows without bound.
    const std::vector<Layer> layers{{{0.5, 0.25, 0.125}, 0.5, 0.05}};
    ASSERT_GT(0.5 * std::pow(0.05, -5), 5e4);
    ASSERT_TRUE(model.upload(stack(layers)));
    runFrame(pass);
    const Rgba expected = composed(lit(layers), {0, 0, 0, 0});
    EXPECT_GT(expected[0], 1) << "the clamp bounds the divisor and not the result";
    // The height of the quad has 24 bits, of which the depth keeps 20; the fifth power does the rest.
    EXPECT_TRUE(isPixel(read(kFrame), 9, 9, expected, 1e-4 * expected[0]));
}

TEST_F(Transparency, ANullModelClearsTheTargetsAndComposesNothing)
{
    pass.setInput(kGeometry, QVariant());
    runFrame(pass);
    glClearColor(0.5f, 0.25f, 0.125f, 1);
    const GlCalls calls;
    runFrame(pass);
    EXPECT_EQ(calls.draws(), 0);
    EXPECT_EQ(calls.count("glClear", {GL_COLOR_BUFFER_BIT | GL_DEPTH_BUFFER_BIT}), 1);
    EXPECT_EQ(calls.count("glClear", {GL_COLOR_BUFFER_BIT}), 1);
    EXPECT_LT(calls.indexOf("glClearColor", {0, 0, 0, 1}), calls.indexOf("glClear", {GL_COLOR_BUFFER_BIT}));
    EXPECT_TRUE(isPixel(read(kFrame), 5, 5, {0.5, 0.25, 0.125, 1}, 1e-6));
    EXPECT_EQ(readDepth(outputTexture(pass, kDepth)).at(5, 5)[0], 1.0f);
    EXPECT_FALSE(glIsEnabled(GL_BLEND));
}

TEST_F(Transparency, DepthIsThatOfTheOpaqueFragments)
{
    ASSERT_TRUE(model.upload(stack({{{1, 1, 1}, 0.5, 0.25}, {{1, 1, 1}, 1.0, 0.625}, {{1, 1, 1}, 1.0, 0.75}})));
    runFrame(pass);
    const Image<float> depth = readDepth(outputTexture(pass, kDepth));
    EXPECT_NEAR(depth.at(20, 20)[0], 0.625f, 1e-6f);
    EXPECT_TRUE(isTarget(outputTexture(pass, kDepth), GL_DEPTH_COMPONENT32F, kWidth, kHeight));
    EXPECT_TRUE(isTarget(outputTexture(pass, kFrame), GL_RGBA32F, kWidth, kHeight));
}

TEST_F(Transparency, TargetsHaveTheStatedFormatsAndAResizeReplacesAllFour)
{
    ASSERT_TRUE(model.upload(stack({{{1, 1, 1}, 0.5, 0.5}})));
    runFrame(pass);
    pass.setInput(kViewport, QRect(0, 0, 40, 30));
    glViewport(0, 0, 40, 30);
    const GlCalls calls;
    runFrame(pass);
    std::vector<std::array<double, 3>> formats;
    for (const GlCall &call : calls.calls("glTexImage2D")) {
        EXPECT_EQ(call.args[3], 40);
        EXPECT_EQ(call.args[4], 30);
        formats.push_back({call.args[2], call.args[6], call.args[7]});
    }
    const std::vector<std::array<double, 3>> expected{{GL_RGBA32F, GL_BGRA, GL_FLOAT},
                                                      {GL_DEPTH_COMPONENT32F, GL_DEPTH_COMPONENT, GL_FLOAT},
                                                      {GL_RGBA32F, GL_BGRA, GL_FLOAT},
                                                      {GL_R32F, GL_BGRA, GL_FLOAT}};
    EXPECT_EQ(formats, expected);
    // The depth texture of the sums is the new one: transparent fragments are still hidden.
    glClearColor(0, 0, 0, 0);
    ASSERT_TRUE(model.upload(stack({{{1, 0, 0}, 0.5, 0.7}, {{0.25, 0.5, 0.75}, 1.0, 0.5}})));
    runFrame(pass);
    const double l = 1 / std::sqrt(3.0);
    EXPECT_TRUE(isPixel(read(kFrame), 5, 5, {0.25 * l, 0.5 * l, 0.75 * l, 1}, 1e-6));
    int depthAttachments = 0;
    const double depth = outputTexture(pass, kDepth)->textureID();
    for (const char *name : {"glFramebufferTexture", "glFramebufferTexture2D"})
        for (const GlCall &call : calls.calls(name))
            depthAttachments += call.args[1] == GL_DEPTH_ATTACHMENT
                                && std::find(call.args.begin(), call.args.end(), depth) != call.args.end();
    EXPECT_EQ(depthAttachments, 2);
}

TEST_F(Transparency, BlendDepthMaskAndClearColorAreLeftAsStated)
{
    ASSERT_TRUE(model.upload(stack({{{1, 1, 1}, 0.5, 0.5}})));
    runFrame(pass);
    resetGLState();
    glViewport(0, 0, kWidth, kHeight);
    glClearColor(1, 1, 1, 1);
    glDepthMask(GL_TRUE);
    const GLStateSnapshot before;
    const GlCalls calls;
    runFrame(pass);
    EXPECT_EQ(GLStateSnapshot().changedSince(before).join(QLatin1Char(' ')).toStdString(),
              "clear colour blend source blend destination blend source alpha blend destination alpha");
    EXPECT_FALSE(glIsEnabled(GL_BLEND));
    EXPECT_FALSE(glIsEnabled(GL_DEPTH_TEST));
    float color[4];
    glGetFloatv(GL_COLOR_CLEAR_VALUE, color);
    for (float c : color)
        EXPECT_EQ(c, 0);
    EXPECT_LT(calls.indexOf("glBlendFuncSeparate", {GL_ONE, GL_ONE, GL_ZERO, GL_ONE_MINUS_SRC_ALPHA}),
              calls.indexOf("glBlendFunc", {GL_ONE_MINUS_SRC_ALPHA, GL_SRC_ALPHA}));
    EXPECT_LT(calls.indexOf("glDepthMask", {GL_FALSE}), calls.indexOf("glDepthMask", {GL_TRUE}));
}

TEST_F(Transparency, AWhiteTextureIsMadeOnceAndUsedByNothing)
{
    ASSERT_TRUE(model.upload(stack({{{1, 1, 1}, 0.5, 0.5}})));
    const GlCalls calls;
    runFrame(pass);
    int white = 0;
    for (const GlCall &call : calls.calls("glTexImage2D"))
        white += call.args[3] == 1 && call.args[4] == 1 && call.args[2] == GL_RGBA && call.args[6] == GL_BGRA
                 && call.args[7] == GL_UNSIGNED_BYTE;
    EXPECT_EQ(white, 1);
}

TEST_F(Transparency, TwoProgramsOutliveThePassAndGoWithTheContext)
{
    ASSERT_TRUE(model.upload(stack({{{1, 1, 1}, 0.5, 0.5}})));
    runFrame(pass);
    const int before = OpenGLDeviceContext::current()->givenUpCount();
    ownedPass.reset();
    EXPECT_EQ(OpenGLDeviceContext::current()->givenUpCount(), before + 2);
}

TEST_F(Transparency, ASteadyFrameCreatesNothing)
{
    ASSERT_TRUE(model.upload(stack({{{1, 1, 1}, 0.5, 0.5}})));
    expectSteadyFrameCreatesNothing(pass);
}

TEST_F(Transparency, ASteadyFrameTakesNothingFromTheHeap)
{
    ASSERT_TRUE(model.upload(stack({{{1, 1, 1}, 0.5, 0.5}})));
    KVO_EXPECT_STEADY_FRAME_TAKES_NOTHING_FROM_THE_HEAP(pass);
}

TEST_F(Transparency, ResizingLeaksNothing)
{
    expectResizingLeaksNothing(pass, 4);
}

TEST_F(Transparency, EmptyViewportsRaiseNoError)
{
    ASSERT_TRUE(model.upload(stack({{{1, 1, 1}, 0.5, 0.5}})));
    expectEmptyViewportsRaiseNoError(pass);
}

TEST_F(Transparency, TeardownKeepsEverything)
{
    expectTeardownKeepsEverything(pass);
}
