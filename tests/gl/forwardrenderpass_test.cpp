#include "support/allocations.h"
#include "support/draw.h"
#include "support/image.h"
#include "support/modelpass.h"
#include "support/modelreference.h"
#include "support/passes.h"
#include "support/scenes.h"

#include <gl/opengldevicecontext.h>
#include <gl/shaderprogram.h>
#include <gl/texture.h>
#include <model/gpumodel.h>
#include <renderpasses/forwardrenderpass.h>

#include <QPointer>
#include <QRect>

#include <epoxy/gl.h>

#include <memory>

using namespace Brevane::Kvo;
using namespace Brevane::Kvo::Test;

namespace {

enum Output { kFrame, kId };

// Half a step of the 8 bits of the target. The specular term raises the interpolation error of a
// normal, 1e-3 at worst, by its exponent, 8 at most in these scenes.
constexpr double kLit = 0.5 / 255 + 8e-3;

ModelData cubesScene()
{
    ModelData data;
    data.meshes << cubeMesh();
    // bent normals, so that interpolated ones are shorter than 1 inside a face
    for (qsizetype i = 0; i < data.meshes[0].normals.size(); ++i)
        data.meshes[0].normals[i] = (data.meshes[0].normals[i] + data.meshes[0].positions[i]).normalized();
    data.materials << material({0.25f, 0.5f, 0.75f}, {0.125f, 0.375f, 0.5f}, 8.0f, 0.625f)
                   << material({0.9f, 0.75f, 0.5f}, {0.5f, 0.25f, 0.0f}, 4.0f, 1.0f);
    ModelItem front;
    front.transform.translate(-0.4f, 0.1f, 0.5f);
    front.transform.rotate(35, 1, 2, 0.5f);
    front.transform.scale(0.8f);
    ModelItem back;
    back.material = 1;
    back.transform.translate(0.5f, -0.2f, -1.5f);
    back.transform.rotate(-50, 0.3f, 1, 0);
    data.items << front << back;
    return data;
}

using ForwardPass = ModelPassTest<ForwardRenderPass>;

} // namespace

TEST_F(ForwardPass, SlotsHaveTheirNamesOrderAndDefaults)
{
    expectSlots(ForwardRenderPass(),
                {{"Kvo_QRect_Viewport"},
                 {"Kvo_QMatrix4x4_ProjectionMatrix"},
                 {"Kvo_QMatrix4x4_CameraMatrix"},
                 {"Kvo_KvoGPUModel*_Geometry"}},
                {"Kvo_KvoTexture*_Frame", "Kvo_KvoTexture*_Id"});
}

TEST_F(ForwardPass, ConstructingCopyingAndDestroyingMakesNoGLCall)
{
    expectNoGLCallBeforeStart<ForwardRenderPass>();
}

TEST_F(ForwardPass, TargetsAreTwoOfEightBitsAndDepthOf32BitFloat)
{
    ASSERT_TRUE(model.upload(cubesScene()));
    const GlCalls calls;
    runFrame(pass);
    std::vector<GlCall> targets;
    for (const GlCall &call : calls.calls("glTexImage2D"))
        if (call.args[3] == kWidth && call.args[4] == kHeight)
            targets.push_back(call);
    ASSERT_EQ(targets.size(), 3u);
    for (size_t i = 0; i < 3; ++i) {
        EXPECT_EQ(targets[i].args[2], i < 2 ? GL_RGBA : GL_DEPTH_COMPONENT32F) << i;
        EXPECT_EQ(targets[i].args[6], i < 2 ? GL_BGRA : GL_DEPTH_COMPONENT) << i;
        EXPECT_EQ(targets[i].args[7], GL_FLOAT) << i;
    }
    for (int output : {kFrame, kId}) {
        const TextureState state = stateOf(outputTexture(pass, output));
        EXPECT_EQ(state.minFilter, unsigned(GL_NEAREST));
        EXPECT_EQ(state.magFilter, unsigned(GL_NEAREST));
        EXPECT_EQ(state.width, kWidth);
        EXPECT_EQ(state.height, kHeight);
    }
}

TEST_F(ForwardPass, EveryPixelIsBlinnPhongOfTheNearestSurfaceWithItsInterpolatedNormal)
{
    const ModelData scene = cubesScene();
    ASSERT_TRUE(model.upload(scene));
    runFrame(pass);
    const ModelReference reference(scene, projection, camera, kWidth, kHeight);
    ASSERT_GT(reference.coveredCount(), kWidth * kHeight / 5);
    ASSERT_LT(reference.ambiguousCount(), kWidth * kHeight / 20);
    const Image<float> frame = read(kFrame);
    const Image<float> id = read(kId);
    double furthestFromUnitNormals = 0;
    for (int y = 0; y < kHeight; ++y) {
        for (int x = 0; x < kWidth; ++x) {
            const ModelFragment &f = reference.at(x, y);
            if (f.ambiguous)
                continue;
            if (!f.covered) {
                ASSERT_TRUE(isPixel(frame, x, y, {0, 0, 0, 0}, 0));
                ASSERT_TRUE(isPixel(id, x, y, {0, 0, 0, 0}, 0));
                continue;
            }
            const ModelMaterial &m = scene.materials[scene.items[f.item].material];
            const Vector3 Kd{double(m.Kd.x()), double(m.Kd.y()), double(m.Kd.z())};
            const Vector3 Ks{double(m.Ks.x()), double(m.Ks.y()), double(m.Ks.z())};
            const Vector3 lit = blinnPhong(Kd, Ks, double(m.Ns), f.normal);
            ASSERT_TRUE(isPixel(
                frame, x, y, {std::min(1.0, lit[0]), std::min(1.0, lit[1]), std::min(1.0, lit[2]), double(m.D)}, kLit));
            // ids begin at 1 and the format ends there
            ASSERT_TRUE(isPixel(id, x, y, {1, 1, 1, 1}, 0));
            const Vector3 unit = blinnPhong(Kd, Ks, double(m.Ns), normalized(f.normal));
            for (size_t c = 0; c < 3; ++c)
                furthestFromUnitNormals = std::max(furthestFromUnitNormals, std::abs(unit[c] - lit[c]));
        }
    }
    EXPECT_GT(furthestFromUnitNormals, 4 * kLit) << "normals made unit length would pass this test";
}

TEST_F(ForwardPass, NormalsFollowItemsThatAreScaledUnevenly)
{
    // The normal of a face is scaled by the inverse of the scale, and not made unit length.
    ModelData scene = quadScene({1, 1, 1});
    scene.items[0].transform.scale(1, 1, 2);
    ASSERT_TRUE(model.upload(scene));
    pass.setInput(kProjection, flatProjection());
    pass.setInput(kCamera, QMatrix4x4());
    runFrame(pass);
    const float lit = float(0.5 / std::sqrt(3.0));
    EXPECT_TRUE(sameImage(read(kFrame), Image<float>(kWidth, kHeight, {lit, lit, lit, 1}), within(kLit)));
}

TEST_F(ForwardPass, MapsMultiplyTheDiffuseAndTheSpecularColour)
{
    ModelData scene = quadScene({0.5f, 1.0f, 0.25f});
    scene.materials[0].Ks = {0.5f, 0.0f, 1.0f};
    scene.materials[0].Ns = 2;
    QImage map(4, 4, QImage::Format_RGBA8888);
    map.fill(QColor(51, 102, 204));
    scene.materials[0].map_Kd = map;
    map.fill(QColor(153, 255, 102));
    scene.materials[0].map_Ks = map;
    ASSERT_TRUE(model.upload(scene));
    pass.setInput(kProjection, flatProjection());
    pass.setInput(kCamera, QMatrix4x4());
    runFrame(pass);
    const Vector3 lit = blinnPhong({0.5 * 0.2, 0.4, 0.25 * 0.8}, {0.5 * 0.6, 0, 0.4}, 2, {0, 0, 1});
    EXPECT_TRUE(sameImage(read(kFrame), Image<float>(kWidth, kHeight, {float(lit[0]), float(lit[1]), float(lit[2]), 1}),
                          within(0.5 / 255 + 1e-4)));
}

TEST_F(ForwardPass, WithoutAModelTheOutputsHoldClearedTargets)
{
    ASSERT_TRUE(model.upload(cubesScene()));
    runFrame(pass);
    glClearColor(1, 1, 1, 1);
    pass.setInput(kGeometry, QVariant());
    for (int i = 0; i < 2; ++i) {
        const GlCalls calls;
        runFrame(pass);
        EXPECT_EQ(calls.count("glClear", {GL_COLOR_BUFFER_BIT | GL_DEPTH_BUFFER_BIT}), 1);
        EXPECT_EQ(calls.draws(), 0);
        EXPECT_TRUE(sameImage(read(kFrame), Image<float>(kWidth, kHeight), within(0)));
        EXPECT_TRUE(sameImage(read(kId), Image<float>(kWidth, kHeight), within(0)));
    }
}

TEST_F(ForwardPass, AModelInAnotherFormThanTypedIsNotDrawn)
{
    ASSERT_TRUE(model.upload(cubesScene()));
    for (const QVariant &value : {QVariant(), QVariant(7), QVariant(QStringLiteral("engine"))}) {
        pass.setInput(kGeometry, value);
        const GlCalls calls;
        runFrame(pass);
        EXPECT_EQ(calls.draws(), 0);
    }
}

TEST_F(ForwardPass, DepthTestIsAsItWasAfterStart)
{
    ASSERT_TRUE(model.upload(cubesScene()));
    glDisable(GL_DEPTH_TEST);
    runFrame(pass);
    EXPECT_FALSE(glIsEnabled(GL_DEPTH_TEST));
    const Image<float> frame = read(kFrame);
    glEnable(GL_DEPTH_TEST);
    runFrame(pass);
    EXPECT_TRUE(glIsEnabled(GL_DEPTH_TEST));
    EXPECT_TRUE(sameImage(read(kFrame), frame, within(0))) << "the test is on while the pass draws";
}

TEST_F(ForwardPass, ChangesOnlyTheClearColour)
{
    ASSERT_TRUE(model.upload(cubesScene()));
    runFrame(pass);
    const HostileGLState hostile;
    glDisable(GL_DEPTH_TEST);
    const GLStateSnapshot before;
    runFrame(pass);
    EXPECT_EQ(GLStateSnapshot().changedSince(before).join(QStringLiteral(", ")), QStringLiteral("clear colour"));
}

TEST_F(ForwardPass, DrawsWithTheViewportThatIsCurrent)
{
    ASSERT_TRUE(model.upload(quadScene({1, 1, 1})));
    pass.setInput(kProjection, flatProjection());
    pass.setInput(kCamera, QMatrix4x4());
    glViewport(7, 5, 20, 11);
    const GlCalls calls;
    runFrame(pass);
    EXPECT_EQ(calls.count("glViewport"), 0);
    Image<float> expected(kWidth, kHeight);
    for (int y = 5; y < 16; ++y)
        for (int x = 7; x < 27; ++x)
            expected.at(x, y) = {1, 1, 1, 1};
    EXPECT_TRUE(sameImage(read(kId), expected, within(0)));
}

TEST_F(ForwardPass, ClearsThenEnablesDepthThenDrawsThenDisablesDepth)
{
    ASSERT_TRUE(model.upload(cubesScene()));
    model.setDrawRoad(GPUModel::DrawRoad::Loop);
    runFrame(pass);
    const GlCalls calls;
    runFrame(pass);
    EXPECT_EQ(calls.sequence({"glClearColor", "glClear", "glEnable", "glDisable"}).join(u' '),
              QStringLiteral("glClearColor glClear glEnable glDisable"));
    EXPECT_EQ(calls.count("glClearColor", {0, 0, 0, 0}), 1);
    EXPECT_EQ(calls.draws(), 2);
    EXPECT_EQ(calls.count("glUniformMatrix4fv"), 2);
}

TEST_F(ForwardPass, AProgramSetBeforeTheFirstStartIsUsedAndNotDeletedWithThePass)
{
    ASSERT_TRUE(model.upload(quadScene()));
    const QPointer<ShaderProgram> program =
        makeProgram(QStringLiteral("#version 150\nin vec3 va_Vertex;\n"
                                   "void main() { gl_Position = vec4(va_Vertex, 1.0); }\n"),
                    QStringLiteral("#version 150\nout vec4 out_FragColor;\nout vec4 out_Id;\n"
                                   "void main() { out_FragColor = vec4(0.0, 1.0, 0.0, 1.0); out_Id = vec4(1.0); }\n"),
                    {QStringLiteral("out_FragColor"), QStringLiteral("out_Id")})
            .release();
    {
        ForwardRenderPass own;
        setUp(own);
        own.setShaderProgram(program);
        const GlCalls calls;
        runFrame(own);
        EXPECT_EQ(calls.created(GlKind::Program), 0);
        EXPECT_TRUE(sameImage(readTexture<float>(outputTexture(own, kFrame)),
                              Image<float>(kWidth, kHeight, {0, 1, 0, 1}), within(0)));
    }
    EXPECT_FALSE(program.isNull());
}

TEST_F(ForwardPass, DestructionFreesNothingAndTellsTheContextWhatItLeaves)
{
    ASSERT_TRUE(model.upload(cubesScene()));
    const auto device = OpenGLDeviceContext::current();
    const int givenUp = device->givenUpCount();
    QPointer<Texture> frame;
    QPointer<Texture> id;
    {
        const GlCalls calls;
        {
            ForwardRenderPass own;
            setUp(own);
            runFrame(own);
            frame = outputTexture(own, kFrame);
            id = outputTexture(own, kId);
        }
        for (const char *name : {"glDeleteTextures", "glDeleteFramebuffers", "glDeleteProgram"})
            EXPECT_EQ(calls.count(name), 0) << name;
    }
    // framebuffer, program and three targets
    EXPECT_EQ(device->givenUpCount(), givenUp + 5);
    ASSERT_FALSE(frame.isNull());
    ASSERT_FALSE(id.isNull());
    EXPECT_NE(frame->textureID(), 0u);
}

TEST_F(ForwardPass, ACopyOfAPassThatHasStartedIsHarmless)
{
    ASSERT_TRUE(model.upload(cubesScene()));
    const auto device = OpenGLDeviceContext::current();
    const int givenUp = device->givenUpCount();
    Image<float> first;
    {
        ForwardRenderPass own;
        setUp(own);
        runFrame(own);
        first = readTexture<float>(outputTexture(own, kFrame));
        ForwardRenderPass copy(own);
        runFrame(copy);
        EXPECT_EQ(outputTexture(copy, kFrame), outputTexture(own, kFrame));
    }
    EXPECT_EQ(device->givenUpCount(), givenUp + 5) << "what is given up twice counts once";
    runFrame(pass);
    EXPECT_TRUE(sameImage(read(kFrame), first, within(0)));
}

TEST_F(ForwardPass, ACopyOfAnUnstartedPassIsIndependent)
{
    ASSERT_TRUE(model.upload(cubesScene()));
    ForwardRenderPass copy(pass);
    ForwardRenderPass assigned;
    assigned = pass;
    assigned.setInput(kGeometry, QVariant());
    runFrame(pass);
    runFrame(copy);
    runFrame(assigned);
    EXPECT_NE(outputTexture(pass, kFrame), outputTexture(copy, kFrame));
    EXPECT_TRUE(sameImage(readTexture<float>(outputTexture(copy, kFrame)), read(kFrame), within(0)));
    EXPECT_TRUE(
        sameImage(readTexture<float>(outputTexture(assigned, kFrame)), Image<float>(kWidth, kHeight), within(0)));
}

TEST_F(ForwardPass, ChangeOfSizeReplacesBothTextures)
{
    runFrame(pass);
    const QPointer<Texture> frame = outputTexture(pass, kFrame);
    const QPointer<Texture> id = outputTexture(pass, kId);
    pass.setInput(kViewport, QRect(0, 0, 9, 4));
    runFrame(pass);
    EXPECT_TRUE(frame.isNull());
    EXPECT_TRUE(id.isNull());
    EXPECT_EQ(stateOf(outputTexture(pass, kFrame)).width, 9);
    EXPECT_EQ(stateOf(outputTexture(pass, kId)).height, 4);
}

TEST_F(ForwardPass, TwoStartsAtOneSizeAllocateOnce)
{
    expectSecondStartAllocatesNothing(pass, 3);
}

TEST_F(ForwardPass, AViewportThatChangesEveryFrameRebuildsTheTargetsAndLeaksNothing)
{
    ASSERT_TRUE(model.upload(cubesScene()));
    expectResizingLeaksNothing(pass, 3);
}

TEST_F(ForwardPass, SteadyFrameCreatesNothing)
{
    ASSERT_TRUE(model.upload(cubesScene()));
    expectSteadyFrameCreatesNothing(pass);
}

TEST_F(ForwardPass, SteadyFrameTakesNothingFromTheHeap)
{
    ASSERT_TRUE(model.upload(cubesScene()));
    KVO_EXPECT_STEADY_FRAME_TAKES_NOTHING_FROM_THE_HEAP(pass);
}

TEST_F(ForwardPass, WithNothingConnectedTheTargetsHaveNoPixelsAndNoErrorOccurs)
{
    ForwardRenderPass unconnected;
    const GlCalls calls;
    runFrame(unconnected);
    EXPECT_EQ(calls.textureAllocations(), 3);
    EXPECT_EQ(stateOf(outputTexture(unconnected, kFrame)).width, 0);
    EXPECT_EQ(stateOf(outputTexture(unconnected, kId)).width, 0);
}

TEST_F(ForwardPass, AnEmptyViewportRaisesNoGLErrorWithAModel)
{
    ASSERT_TRUE(model.upload(cubesScene()));
    expectEmptyViewportsRaiseNoError(pass);
}

TEST_F(ForwardPass, TeardownKeepsEverythingAndTheNextStartWorks)
{
    ASSERT_TRUE(model.upload(cubesScene()));
    expectTeardownKeepsEverything(pass);
}

TEST_F(ForwardPass, MapsThatComeAfterTheFirstFrameAreSeen)
{
    // Programs are built for the maps there are; the first ones, and larger ones, come later.
    pass.setInput(kProjection, flatProjection());
    pass.setInput(kCamera, QMatrix4x4());
    ModelData scene = quadScene({1, 1, 1});
    ASSERT_TRUE(model.upload(scene));
    runFrame(pass);
    const double l = 1 / std::sqrt(3.0);
    EXPECT_TRUE(isPixel(read(kFrame), 30, 20, {l, l, l, 1}, kLit));
    for (int side : {16, 1500, 3000}) {
        QImage map(side, 4, QImage::Format_RGBA8888);
        map.fill(QColor(255, side % 255, 51));
        scene.materials[0].map_Kd = map;
        ASSERT_TRUE(model.upload(scene));
        runFrame(pass);
        EXPECT_TRUE(isPixel(read(kFrame), 30, 20, {l, side % 255 / 255.0 * l, 0.2 * l, 1}, kLit)) << side;
    }
    const GlCalls calls;
    runFrame(pass);
    EXPECT_EQ(calls.created(), 0);
}
