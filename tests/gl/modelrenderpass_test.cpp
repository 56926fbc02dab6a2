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
#include <renderpasses/modelrenderpass.h>

#include <QPointer>
#include <QRect>

#include <epoxy/gl.h>

#include <memory>

using namespace Brevane::Kvo;
using namespace Brevane::Kvo::Test;

namespace {

enum Output { kDiffuse, kSpecular, kNormal, kDepth, kId };

// Attributes are interpolated in float between corners that were moved by up to 1/256 pixel; the
// steepest surface here turns by less than 0.1 from one pixel to the next.
constexpr double kInterpolated = 1e-3;
// Depth falls by less than 0.02 from one pixel to the next.
constexpr double kDepthTolerance = 1e-4;

QImage solidMap(const QColor &color)
{
    QImage image(4, 4, QImage::Format_RGBA8888);
    image.fill(color);
    return image;
}

/// Two cubes, turned and squeezed, one in front of the other, each in a material of its own.
ModelData cubesScene()
{
    ModelData data;
    data.meshes << cubeMesh();
    data.materials << material({0.25f, 0.5f, 0.75f}, {0.125f, 0.375f, 1.0f}, 12.5f, 0.625f)
                   << material({1.0f, 0.75f, 0.5f}, {0.5f, 0.25f, 0.0f}, 80.0f, 1.0f);
    ModelItem front;
    front.transform.translate(-0.4f, 0.1f, 0.5f);
    front.transform.rotate(35, 1, 2, 0.5f);
    front.transform.scale(0.8f, 0.4f, 0.6f);
    ModelItem back;
    back.material = 1;
    back.transform.translate(0.5f, -0.2f, -1.5f);
    back.transform.rotate(-50, 0.3f, 1, 0);
    back.transform.scale(1.0f, 1.2f, 0.5f);
    data.items << front << back;
    return data;
}

using ModelPass = ModelPassTest<ModelRenderPass>;

} // namespace

TEST_F(ModelPass, SlotsHaveTheirNamesOrderAndDefaults)
{
    expectSlots(ModelRenderPass(),
                {{"Kvo_QRect_Viewport"},
                 {"Kvo_QMatrix4x4_ProjectionMatrix"},
                 {"Kvo_QMatrix4x4_CameraMatrix"},
                 {"Kvo_KvoGPUModel*_Geometry"}},
                {"Kvo_KvoTexture*_Diffuse", "Kvo_KvoTexture*_Specular", "Kvo_KvoTexture*_Normal",
                 "Kvo_KvoTexture*_Depth", "Kvo_KvoTexture*_Id"});
}

TEST_F(ModelPass, ConstructingCopyingAndDestroyingMakesNoGLCall)
{
    expectNoGLCallBeforeStart<ModelRenderPass>();
}

TEST_F(ModelPass, TargetsHaveTheirFormatsAndNearestFilters)
{
    model.upload(cubesScene());
    GlCalls calls;
    runFrame(pass);
    EXPECT_TRUE(isTarget(outputTexture(pass, kDiffuse), GL_RGBA32F, kWidth, kHeight));
    EXPECT_TRUE(isTarget(outputTexture(pass, kSpecular), GL_RGBA32F, kWidth, kHeight));
    EXPECT_TRUE(isTarget(outputTexture(pass, kNormal), GL_RGB32F, kWidth, kHeight));
    EXPECT_TRUE(isTarget(outputTexture(pass, kDepth), GL_DEPTH_COMPONENT32F, kWidth, kHeight));
    EXPECT_TRUE(isTarget(outputTexture(pass, kId), GL_R32F, kWidth, kHeight));

    // in the order of the attachments: id before depth
    const auto images = calls.calls("glTexImage2D");
    const unsigned formats[] = {GL_RGBA32F, GL_RGBA32F, GL_RGB32F, GL_R32F, GL_DEPTH_COMPONENT32F};
    std::vector<GlCall> targets;
    for (const GlCall &call : images)
        if (call.args[3] == kWidth && call.args[4] == kHeight)
            targets.push_back(call);
    ASSERT_EQ(targets.size(), 5u);
    for (size_t i = 0; i < 5; ++i) {
        EXPECT_EQ(targets[i].args[2], formats[i]) << i;
        EXPECT_EQ(targets[i].args[6], i == 4 ? GL_DEPTH_COMPONENT : GL_BGRA) << i;
        EXPECT_EQ(targets[i].args[7], GL_FLOAT) << i;
        EXPECT_EQ(targets[i].args[8], 0) << i;
    }
}

TEST_F(ModelPass, OutputsAreAttachedInTheOrderDiffuseSpecularNormalId)
{
    model.upload(cubesScene());
    runFrame(pass);
    const int order[] = {kDiffuse, kSpecular, kNormal, kId};
    // the only framebuffer with these textures is the pass's
    int found = 0;
    for (GLuint name = 1; name < 64 && !found; ++name) {
        if (!glIsFramebuffer(name))
            continue;
        glBindFramebuffer(GL_READ_FRAMEBUFFER, name);
        const auto at = [](GLenum attachment) {
            GLint type = 0;
            GLint texture = 0;
            glGetFramebufferAttachmentParameteriv(GL_READ_FRAMEBUFFER, attachment,
                                                  GL_FRAMEBUFFER_ATTACHMENT_OBJECT_TYPE, &type);
            if (type == GL_TEXTURE)
                glGetFramebufferAttachmentParameteriv(GL_READ_FRAMEBUFFER, attachment,
                                                      GL_FRAMEBUFFER_ATTACHMENT_OBJECT_NAME, &texture);
            return unsigned(texture);
        };
        if (at(GL_COLOR_ATTACHMENT0) != outputTexture(pass, kDiffuse)->textureID())
            continue;
        found = 1;
        for (GLenum i = 0; i < 4; ++i)
            EXPECT_EQ(at(GL_COLOR_ATTACHMENT0 + i), outputTexture(pass, order[i])->textureID()) << i;
        EXPECT_EQ(at(GL_DEPTH_ATTACHMENT), outputTexture(pass, kDepth)->textureID());
    }
    glBindFramebuffer(GL_READ_FRAMEBUFFER, 0);
    EXPECT_EQ(found, 1);
}

TEST_F(ModelPass, EveryPixelShowsTheMaterialNormalDepthAndIdOfTheNearestSurface)
{
    const ModelData scene = cubesScene();
    ASSERT_TRUE(model.upload(scene));
    runFrame(pass);
    const ModelReference reference(scene, projection, camera, kWidth, kHeight);
    // the scene covers much of the picture, and little of it is left out
    ASSERT_GT(reference.coveredCount(), kWidth * kHeight / 8);
    ASSERT_LT(reference.ambiguousCount(), kWidth * kHeight / 20);

    const Image<float> diffuse = read(kDiffuse);
    const Image<float> specular = read(kSpecular);
    const Image<float> normal = read(kNormal);
    const Image<float> id = read(kId);
    const Image<float> depth = readDepth(outputTexture(pass, kDepth));
    int checked[2] = {};
    for (int y = 0; y < kHeight; ++y) {
        for (int x = 0; x < kWidth; ++x) {
            const ModelFragment &f = reference.at(x, y);
            if (f.ambiguous)
                continue;
            if (!f.covered) {
                ASSERT_TRUE(isPixel(diffuse, x, y, {0, 0, 0, 0}, 0));
                ASSERT_TRUE(isPixel(specular, x, y, {0, 0, 0, 0}, 0));
                ASSERT_TRUE(isPixel(normal, x, y, {0, 0, 0, 1}, 0));
                ASSERT_EQ(id.at(x, y)[0], 0);
                ASSERT_EQ(depth.at(x, y)[0], 1);
                continue;
            }
            ++checked[f.item];
            const ModelMaterial &m = scene.materials[scene.items[f.item].material];
            ASSERT_TRUE(isPixel(diffuse, x, y, {double(m.Kd.x()), double(m.Kd.y()), double(m.Kd.z()), double(m.D)}, 0));
            ASSERT_TRUE(
                isPixel(specular, x, y, {double(m.Ks.x()), double(m.Ks.y()), double(m.Ks.z()), double(m.Ns)}, 0));
            const Vector3 n = normalized(f.normal);
            ASSERT_TRUE(isPixel(normal, x, y, {n[0], n[1], n[2], 1}, kInterpolated));
            ASSERT_EQ(id.at(x, y)[0], f.triangle + 1) << x << ", " << y;
            ASSERT_NEAR(depth.at(x, y)[0], f.depth, kDepthTolerance) << x << ", " << y;
        }
    }
    EXPECT_GT(checked[0], 100);
    EXPECT_GT(checked[1], 100);
}

TEST_F(ModelPass, NormalsHaveUnitLengthWhateverTheScaleOfTheItem)
{
    ModelData scene = quadScene();
    for (QVector3D &normal : scene.meshes[0].normals)
        normal *= 3;
    scene.items[0].transform.scale(0.5f, 7, 20);
    ASSERT_TRUE(model.upload(scene));
    runFrame(pass);
    const Image<float> normal = read(kNormal);
    const Image<float> id = read(kId);
    int covered = 0;
    for (int y = 0; y < kHeight; ++y) {
        for (int x = 0; x < kWidth; ++x) {
            if (id.at(x, y)[0] == 0)
                continue;
            ++covered;
            const auto &n = normal.at(x, y);
            ASSERT_NEAR(std::sqrt(n[0] * n[0] + n[1] * n[1] + n[2] * n[2]), 1, 1e-5);
        }
    }
    EXPECT_GT(covered, 100);
}

TEST_F(ModelPass, IdsAreCountedFromOneInEachDrawSoThatTheBackgroundIsZero)
{
    const ModelData scene = quadGridScene(3, 2);
    ASSERT_TRUE(model.upload(scene));
    pass.setInput(kProjection, flatProjection());
    pass.setInput(kCamera, QMatrix4x4());
    runFrame(pass);
    const ModelReference reference(scene, flatProjection(), QMatrix4x4(), kWidth, kHeight);
    const Image<float> id = read(kId);
    int ones = 0;
    int twos = 0;
    for (int y = 0; y < kHeight; ++y) {
        for (int x = 0; x < kWidth; ++x) {
            if (reference.at(x, y).ambiguous)
                continue;
            ASSERT_EQ(id.at(x, y)[0], reference.at(x, y).triangle + 1);
            ++(reference.at(x, y).triangle == 0 ? ones : twos);
        }
    }
    EXPECT_GT(ones, kWidth * kHeight / 3);
    EXPECT_GT(twos, kWidth * kHeight / 3);
}

TEST_F(ModelPass, MapsMultiplyTheDiffuseAndTheSpecularColour)
{
    ModelData scene = quadScene({0.5f, 0.25f, 1.0f});
    scene.materials[0].Ks = {1.0f, 0.5f, 0.25f};
    scene.materials[0].Ns = 3;
    scene.materials[0].D = 0.5f;
    scene.materials[0].map_Kd = solidMap(QColor(51, 102, 153, 40));
    scene.materials[0].map_Ks = solidMap(QColor(255, 204, 0, 255));
    ASSERT_TRUE(model.upload(scene));
    pass.setInput(kProjection, flatProjection());
    pass.setInput(kCamera, QMatrix4x4());
    runFrame(pass);
    // 8 bits of a map, filtered in float
    const Image<float> diffuse(kWidth, kHeight, {0.5f * 0.2f, 0.25f * 0.4f, 0.6f, 0.5f});
    const Image<float> specular(kWidth, kHeight, {1.0f, 0.5f * 0.8f, 0.0f, 3.0f});
    EXPECT_TRUE(sameImage(read(kDiffuse), diffuse, within(1e-5), QStringLiteral("diffuse")));
    EXPECT_TRUE(sameImage(read(kSpecular), specular, within(1e-5), QStringLiteral("specular")));
}

namespace {

/// A quad over the whole screen whose map is opaque on the right and transparent on the left.
ModelData halfTransparentScene()
{
    ModelData scene = quadScene({1, 1, 1});
    QImage map(64, 64, QImage::Format_RGBA8888);
    for (int y = 0; y < 64; ++y)
        for (int x = 0; x < 64; ++x)
            map.setPixelColor(x, y, x < 32 ? QColor(255, 0, 0, 0) : QColor(0, 255, 0, 255));
    scene.materials[0].map_Kd = map;
    return scene;
}

// Columns nearer than this to a change of the map mix both sides.
constexpr int kMixed = 3;

} // namespace

TEST_F(ModelPass, TransparentTexelsAreDroppedOnlyWithTheDiscardOption)
{
    ASSERT_TRUE(model.upload(halfTransparentScene()));
    for (bool discard : {false, true}) {
        ModelRenderPass own;
        setUp(own);
        own.setInput(kProjection, flatProjection());
        own.setInput(kCamera, QMatrix4x4());
        own.setDiscardOnDiffuseAlpha(discard);
        runFrame(own);
        const Image<float> diffuse = readTexture<float>(outputTexture(own, kDiffuse));
        const Image<float> depth = readDepth(outputTexture(own, kDepth));
        for (int y = kMixed; y < kHeight - kMixed; ++y) {
            for (int x = kMixed; x < kWidth / 2 - kMixed; ++x) {
                ASSERT_TRUE(isPixel(diffuse, x, y,
                                    discard ? std::array<double, 4>{0, 0, 0, 0} : std::array<double, 4>{1, 0, 0, 1},
                                    1e-5));
                ASSERT_EQ(depth.at(x, y)[0] == 1.0f, discard);
            }
            for (int x = kWidth / 2 + kMixed; x < kWidth - kMixed; ++x)
                ASSERT_TRUE(isPixel(diffuse, x, y, {0, 1, 0, 1}, 1e-5));
        }
    }
}

TEST_F(ModelPass, TexelsAreDroppedUpToAHundredthWhichLiesBetweenTheBytesTwoAndThree)
{
    for (const int alpha : {0, 1, 2, 3, 4}) {
        ModelData scene = quadScene({1, 1, 1});
        QImage map(4, 4, QImage::Format_RGBA8888);
        map.fill(QColor(255, 0, 0, alpha));
        scene.materials[0].map_Kd = map;
        ASSERT_TRUE(model.upload(scene));
        ModelRenderPass own;
        setUp(own);
        own.setInput(kProjection, flatProjection());
        own.setInput(kCamera, QMatrix4x4());
        own.setDiscardOnDiffuseAlpha(true);
        runFrame(own);
        const bool dropped = alpha / 255.0 <= 0.01;
        EXPECT_EQ(readDepth(outputTexture(own, kDepth)).at(kWidth / 2, kHeight / 2)[0] == 1.0f, dropped) << alpha;
        EXPECT_EQ(readTexture<float>(outputTexture(own, kDiffuse)).at(kWidth / 2, kHeight / 2)[0] == 0.0f, dropped)
            << alpha;
    }
}

TEST_F(ModelPass, TheDiscardOptionChangesNothingAfterTheFirstStart)
{
    ASSERT_TRUE(model.upload(halfTransparentScene()));
    pass.setInput(kProjection, flatProjection());
    pass.setInput(kCamera, QMatrix4x4());
    runFrame(pass);
    const Image<float> before = read(kDiffuse);
    pass.setDiscardOnDiffuseAlpha(true);
    const GlCalls calls;
    runFrame(pass);
    EXPECT_EQ(calls.count("glLinkProgram"), 0);
    EXPECT_TRUE(sameImage(read(kDiffuse), before, within(0)));
    EXPECT_TRUE(isPixel(before, kWidth / 4, kHeight / 2, {1, 0, 0, 1}, 1e-5));
}

TEST_F(ModelPass, WithoutAModelTheTargetsAreClearedOnEveryStart)
{
    model.upload(cubesScene());
    runFrame(pass);
    pass.setInput(kGeometry, QVariant::fromValue(static_cast<GPUModel *>(nullptr)));
    glDisable(GL_DEPTH_TEST); // which the frame with a model has left on
    for (int i = 0; i < 2; ++i) {
        GlCalls calls;
        runFrame(pass);
        EXPECT_EQ(calls.count("glClear", {GL_COLOR_BUFFER_BIT | GL_DEPTH_BUFFER_BIT}), 1);
        EXPECT_EQ(calls.draws(), 0);
        EXPECT_EQ(calls.count("glEnable"), 0);
        EXPECT_TRUE(sameImage(read(kDiffuse), Image<float>(kWidth, kHeight), within(0)));
        EXPECT_TRUE(sameImage(read(kSpecular), Image<float>(kWidth, kHeight), within(0)));
        EXPECT_TRUE(sameImage(read(kNormal), Image<float>(kWidth, kHeight, {0, 0, 0, 1}), within(0)));
        EXPECT_TRUE(sameImage(read(kId), Image<float>(kWidth, kHeight, {0, 0, 0, 1}), within(0)));
        EXPECT_TRUE(
            sameImage(readDepth(outputTexture(pass, kDepth)), Image<float>(kWidth, kHeight, {1, 0, 0, 1}), within(0)));
    }
}

TEST_F(ModelPass, AModelInAnotherFormThanTypedIsNotDrawn)
{
    ASSERT_TRUE(model.upload(cubesScene()));
    for (const QVariant &value : {QVariant(), QVariant(7), QVariant(QStringLiteral("engine"))}) {
        pass.setInput(kGeometry, value);
        const GlCalls calls;
        runFrame(pass);
        EXPECT_EQ(calls.draws(), 0);
    }
}

TEST_F(ModelPass, ClearsToZeroWhateverTheClearColourWasAndLeavesItAtZero)
{
    glClearColor(1, 1, 1, 1);
    pass.setInput(kGeometry, QVariant());
    runFrame(pass);
    GLfloat color[4] = {1, 1, 1, 1};
    glGetFloatv(GL_COLOR_CLEAR_VALUE, color);
    EXPECT_EQ(std::vector<float>(color, color + 4), (std::vector<float>{0, 0, 0, 0}));
    EXPECT_TRUE(sameImage(read(kDiffuse), Image<float>(kWidth, kHeight), within(0)));
}

TEST_F(ModelPass, DepthTestIsOnAfterADrawAndUntouchedWithoutAModel)
{
    ASSERT_TRUE(model.upload(cubesScene()));
    runFrame(pass);
    EXPECT_TRUE(glIsEnabled(GL_DEPTH_TEST));
    glDisable(GL_DEPTH_TEST);
    pass.setInput(kGeometry, QVariant());
    runFrame(pass);
    EXPECT_FALSE(glIsEnabled(GL_DEPTH_TEST));
}

TEST_F(ModelPass, ChangesOnlyWhatItSays)
{
    ASSERT_TRUE(model.upload(cubesScene()));
    runFrame(pass);
    const HostileGLState hostile;
    glDisable(GL_DEPTH_TEST);
    const GLStateSnapshot before;
    runFrame(pass);
    EXPECT_EQ(GLStateSnapshot().changedSince(before).join(QStringLiteral(", ")),
              QStringLiteral("clear colour, depth test"));
}

TEST_F(ModelPass, DrawsWithTheViewportThatIsCurrent)
{
    const ModelData scene = quadScene({1, 0, 0});
    ASSERT_TRUE(model.upload(scene));
    pass.setInput(kProjection, flatProjection());
    pass.setInput(kCamera, QMatrix4x4());
    glViewport(7, 5, 20, 11);
    const GlCalls calls;
    runFrame(pass);
    EXPECT_EQ(calls.count("glViewport"), 0);
    Image<float> expected(kWidth, kHeight);
    for (int y = 5; y < 16; ++y)
        for (int x = 7; x < 27; ++x)
            expected.at(x, y) = {1, 0, 0, 1};
    EXPECT_TRUE(sameImage(read(kDiffuse), expected, within(1e-6)));
}

TEST_F(ModelPass, ClearsThenEnablesDepthThenDraws)
{
    ASSERT_TRUE(model.upload(cubesScene()));
    model.setDrawRoad(GPUModel::DrawRoad::Loop);
    runFrame(pass);
    GlCalls calls;
    runFrame(pass);
    EXPECT_EQ(calls.sequence({"glClearColor", "glClear", "glEnable"}).join(u' '),
              QStringLiteral("glClearColor glClear glEnable"));
    EXPECT_EQ(calls.calls("glEnable").front().args[0], GL_DEPTH_TEST);
    EXPECT_EQ(calls.count("glClearColor", {0, 0, 0, 0}), 1);
    EXPECT_EQ(calls.draws(), 2);
    EXPECT_EQ(calls.count("glUniformMatrix4fv"), 3);
}

TEST_F(ModelPass, NormalMatrixIsTheInverseTransposeOfTheCamera)
{
    ASSERT_TRUE(model.upload(quadScene()));
    QMatrix4x4 squeezed;
    squeezed.scale(1, 2, 4);
    squeezed.translate(0.25f, 0, -1);
    pass.setInput(kCamera, squeezed);
    runFrame(pass);
    GlCalls calls;
    runFrame(pass);
    const QMatrix4x4 expected = squeezed.inverted().transposed();
    bool found = false;
    for (const GlCall &call : calls.calls("glUniformMatrix4fv")) {
        ASSERT_EQ(call.data.size(), 16u);
        bool same = true;
        for (int i = 0; i < 16; ++i)
            same = same && std::abs(call.data[size_t(i)] - double(expected.constData()[i])) < 1e-6;
        found = found || same;
    }
    EXPECT_TRUE(found);
}

TEST_F(ModelPass, AProgramSetBeforeTheFirstStartIsUsedInPlaceOfItsOwnAndDeletedWithThePass)
{
    ASSERT_TRUE(model.upload(quadScene()));
    const QString vertex = QStringLiteral("#version 150\n"
                                          "uniform mat4 u_ProjectionMatrix;\n"
                                          "in vec3 va_Vertex;\n"
                                          "void main() { gl_Position = u_ProjectionMatrix * vec4(va_Vertex, 1.0); }\n");
    const QString fragment =
        QStringLiteral("#version 150\n"
                       "out vec4 out_Kd;\n"
                       "out vec4 out_Ks;\n"
                       "void main() { out_Kd = vec4(0.5, 0.25, 0.125, 1.0); out_Ks = vec4(2.0); }\n");
    QPointer<ShaderProgram> program =
        makeProgram(vertex, fragment, {QStringLiteral("out_Kd"), QStringLiteral("out_Ks")}).release();
    {
        ModelRenderPass own;
        setUp(own);
        own.setInput(kProjection, flatProjection());
        own.setShaderProgram(program);
        const GlCalls calls;
        runFrame(own);
        EXPECT_EQ(calls.created(GlKind::Program), 0);
        EXPECT_TRUE(sameImage(readTexture<float>(outputTexture(own, kDiffuse)),
                              Image<float>(kWidth, kHeight, {0.5f, 0.25f, 0.125f, 1.0f}), within(0)));
        EXPECT_TRUE(sameImage(readTexture<float>(outputTexture(own, kSpecular)),
                              Image<float>(kWidth, kHeight, {2, 2, 2, 2}), within(0)));
        EXPECT_FALSE(program.isNull());
    }
    EXPECT_TRUE(program.isNull());
}

TEST_F(ModelPass, AProgramSetAfterTheFirstStartIsUsedAndTheOldOneIsLeftToTheContext)
{
    ASSERT_TRUE(model.upload(quadScene()));
    pass.setInput(kProjection, flatProjection());
    pass.setInput(kCamera, QMatrix4x4());
    runFrame(pass);
    const int programs = GlCalls::live(GlKind::Program);
    auto *program =
        makeProgram(
            QStringLiteral("#version 150\nin vec3 va_Vertex;\n"
                           "void main() { gl_Position = vec4(va_Vertex, 1.0); }\n"),
            QStringLiteral("#version 150\nout vec4 out_Kd;\nvoid main() { out_Kd = vec4(0.0, 1.0, 0.0, 1.0); }\n"),
            {QStringLiteral("out_Kd")})
            .release();
    pass.setShaderProgram(program);
    runFrame(pass);
    EXPECT_TRUE(sameImage(read(kDiffuse), Image<float>(kWidth, kHeight, {0, 1, 0, 1}), within(0)));
    EXPECT_EQ(GlCalls::live(GlKind::Program), programs + 1) << "the first program is not deleted";
}

TEST_F(ModelPass, ChangeOfSizeReplacesAllTargets)
{
    model.upload(cubesScene());
    runFrame(pass);
    QVector<QPointer<Texture>> before;
    for (int output = 0; output < 5; ++output)
        before.append(outputTexture(pass, output));
    pass.setInput(kViewport, QRect(0, 0, 16, 8));
    runFrame(pass);
    for (int output = 0; output < 5; ++output) {
        EXPECT_TRUE(before[output].isNull()) << output;
        EXPECT_EQ(stateOf(outputTexture(pass, output)).width, 16) << output;
        EXPECT_EQ(stateOf(outputTexture(pass, output)).height, 8) << output;
    }
}

TEST_F(ModelPass, TwoStartsAtOneSizeAllocateOnce)
{
    expectSecondStartAllocatesNothing(pass, 5);
}

TEST_F(ModelPass, AViewportThatChangesEveryFrameRebuildsTheTargetsAndLeaksNothing)
{
    model.upload(cubesScene());
    expectResizingLeaksNothing(pass, 5);
}

TEST_F(ModelPass, SteadyFrameCreatesNothing)
{
    model.upload(cubesScene());
    expectSteadyFrameCreatesNothing(pass);
}

TEST_F(ModelPass, SteadyFrameTakesNothingFromTheHeap)
{
    model.upload(cubesScene());
    KVO_EXPECT_STEADY_FRAME_TAKES_NOTHING_FROM_THE_HEAP(pass);
}

TEST_F(ModelPass, WithNothingConnectedTheTargetsHaveNoPixelsAndNoErrorOccurs)
{
    ModelRenderPass unconnected;
    const GlCalls calls;
    runFrame(unconnected);
    EXPECT_EQ(calls.textureAllocations(), 5);
    for (int output = 0; output < 5; ++output)
        EXPECT_EQ(stateOf(outputTexture(unconnected, output)).width, 0) << output;
    EXPECT_EQ(calls.draws(), 0);
}

TEST_F(ModelPass, AnEmptyViewportRaisesNoGLErrorWithAModel)
{
    ASSERT_TRUE(model.upload(cubesScene()));
    expectEmptyViewportsRaiseNoError(pass);
}

TEST_F(ModelPass, ACopyOfAnUnstartedPassIsIndependent)
{
    model.upload(quadScene({1, 0, 0}));
    pass.setInput(kProjection, flatProjection());
    pass.setInput(kCamera, QMatrix4x4());
    ModelRenderPass copy(pass);
    ModelRenderPass assigned;
    assigned = pass;
    assigned.setInput(kGeometry, QVariant());
    runFrame(pass);
    runFrame(copy);
    runFrame(assigned);
    for (int output = 0; output < 5; ++output)
        EXPECT_NE(outputTexture(pass, output), outputTexture(copy, output));
    const Image<float> red(kWidth, kHeight, {1, 0, 0, 1});
    EXPECT_TRUE(sameImage(read(kDiffuse), red, within(1e-6)));
    EXPECT_TRUE(sameImage(readTexture<float>(outputTexture(copy, kDiffuse)), red, within(1e-6)));
    EXPECT_TRUE(
        sameImage(readTexture<float>(outputTexture(assigned, kDiffuse)), Image<float>(kWidth, kHeight), within(0)));
}

TEST_F(ModelPass, TeardownKeepsEverythingAndTheNextStartWorks)
{
    ASSERT_TRUE(model.upload(cubesScene()));
    expectTeardownKeepsEverything(pass);
}

TEST_F(ModelPass, DestructionFreesFramebufferAndProgramAndLeavesTheFiveTargetsToTheContext)
{
    model.upload(cubesScene());
    const auto device = OpenGLDeviceContext::current();
    const int givenUp = device->givenUpCount();
    const int programs = GlCalls::live(GlKind::Program);
    const int framebuffers = GlCalls::live(GlKind::Framebuffer);
    QVector<QPointer<Texture>> targets;
    {
        ModelRenderPass own;
        setUp(own);
        runFrame(own);
        for (int output = 0; output < 5; ++output)
            targets.append(outputTexture(own, output));
        EXPECT_EQ(device->givenUpCount(), givenUp);
    }
    EXPECT_EQ(GlCalls::live(GlKind::Program), programs);
    EXPECT_EQ(GlCalls::live(GlKind::Framebuffer), framebuffers);
    EXPECT_EQ(device->givenUpCount(), givenUp + 5);
    for (const auto &target : targets) {
        ASSERT_FALSE(target.isNull()) << "a consumer may still hold the texture";
        EXPECT_NE(target->textureID(), 0u);
    }
}
