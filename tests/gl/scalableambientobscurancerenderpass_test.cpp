#include "support/allocations.h"
#include "support/draw.h"
#include "support/gltest.h"
#include "support/image.h"
#include "support/messages.h"
#include "support/obscurance.h"
#include "support/passes.h"
#include "support/shaderedit.h"
#include "support/soiledpool.h"

#include <gl/drawbuffers.h>
#include <gl/guards.h>
#include <gl/opengldevicecontext.h>
#include <gl/texture.h>
#include <gl/texturemanager.h>
#include <gl/vertexarrayobject.h>
#include <renderpasses/cameraspacezbufferrenderpass.h>
#include <renderpasses/scalableambientobscurancerenderpass.h>

#include <QMatrix4x4>
#include <QRect>
#include <QVector3D>

#include <epoxy/gl.h>

#include <algorithm>
#include <cmath>
#include <functional>
#include <memory>
#include <optional>

using namespace Brevane::Kvo;
using namespace Brevane::Kvo::Test;

namespace {

enum Input {
    kViewport,
    kProjection,
    kCamera,
    kNear,
    kFar,
    kDepth,
    kRadius,
    kBias,
    kIntensity,
    kPosition,
    kNormal,
    kSamples,
    kLogMaxOffset,
    kTurns,
    kDivider
};

using Sao = ScalableAmbientObscuranceRenderPass;

using Scene = ObscuranceScene;
using Normals = ObscuranceNormals;

constexpr double kNearPlane = 0.5;
constexpr double kFarPlane = 30;

// Distance along -z that a ray through (x, y, -1) goes, or nothing.
using Surface = std::function<std::optional<double>(double x, double y)>;

std::optional<double> stepEdge(double x, double)
{
    return x < 0.06 ? 2.6 : 2.8;
}

// A floor and a wall.
std::optional<double> corner(double, double y)
{
    return std::min(3.0, y < 0 ? 0.55 / -y : 1e9);
}

// A ball that lies on a floor, with nothing behind.
std::optional<double> ballOnFloor(double x, double y)
{
    const DoubleVector ray{x, y, -1}, centre{0, -0.15, -2.2};
    constexpr double kBall = 0.35;
    const double a = dot(ray, ray), b = dot(ray, centre), c = dot(centre, centre) - kBall * kBall;
    if (b * b >= a * c)
        return (b - std::sqrt(b * b - a * c)) / a;
    if (y < -0.02)
        return 0.5 / -y;
    return std::nullopt;
}

Scene sceneOf(const Surface &surface, int width = 48, int height = 32, float divider = 1)
{
    Scene scene;
    scene.near = kNearPlane;
    scene.far = kFarPlane;
    scene.width = width;
    scene.height = height;
    scene.divider = divider;
    scene.projection.perspective(50, float(width) / float(height), float(kNearPlane), float(kFarPlane));
    scene.camera.rotate(25, 0.3f, 1, 0.2f);
    scene.camera.scale(1.25f);
    scene.depth = Image<float>(width, height, {1, 0, 0, 0});
    for (int y = 0; y < height; ++y) {
        for (int x = 0; x < width; ++x) {
            const double rayX = (2 * (x + 0.5) / width - 1) / double(scene.projection(0, 0));
            const double rayY = (2 * (y + 0.5) / height - 1) / double(scene.projection(1, 1));
            if (const auto distance = surface(rayX, rayY))
                scene.depth.at(x, y)[0] =
                    float((kFarPlane - kFarPlane * kNearPlane / *distance) / (kFarPlane - kNearPlane));
        }
    }
    return scene;
}

/// Normals of their own that are not those of the surface.
void addNormals(Scene &scene, Normals kind)
{
    scene.normals = kind;
    scene.normalImage = Image<float>(scene.width, scene.height);
    for (int y = 0; y < scene.height; ++y)
        for (int x = 0; x < scene.width; ++x)
            // Neither of unit length nor all facing the camera.
            scene.normalImage.at(x, y) = {0.6f * std::sin(0.3f * float(x)), 0.8f, 0.9f - 0.07f * float(y), 0};
}

class Obscurance : public GLTest
{
protected:
    void TearDown() override
    {
        pass.reset();
        depth.reset();
        position.reset();
        normal.reset();
        GLTest::TearDown();
    }

    static std::unique_ptr<Texture> depthTexture(const Image<float> &image, GLenum format = GL_DEPTH_COMPONENT32F)
    {
        QVector<float> values;
        for (const auto &pixel : image.pixels)
            values.append(pixel[0]);
        const bool hasStencil = format == GL_DEPTH24_STENCIL8 || format == GL_DEPTH_STENCIL;
        if (!hasStencil && format != GL_DEPTH_COMPONENT)
            return makeTexture(format, image.width, image.height, values.constData());
        QVector<quint32> packed;
        for (const float value : values)
            packed.append(hasStencil ? quint32(std::lround(double(value) * 0xFFFFFF)) << 8
                                     : quint32(std::llround(double(value) * 0xFFFFFFFF)));
        return makeTexture(format, image.width, image.height, packed.constData());
    }

    /// Connects a scene; the depth texture may have been set by the test.
    void setScene(const Scene &scene)
    {
        if (!depth)
            depth = depthTexture(scene.depth);
        if (scene.positions) {
            position = makeTexture(*scene.positions);
            if (scene.linearPositions) {
                const AutoBinder bound(position.get());
                glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_MAG_FILTER, GL_LINEAR);
                glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_MIN_FILTER, GL_LINEAR);
            }
            pass->setInput(kPosition, textureToVariant(position.get()));
        }
        if (scene.normals != Normals::Calculated) {
            normal = makeTexture(scene.normalImage);
            pass->setInput(kNormal, textureToVariant(normal.get()));
            pass->setNormalProcessing(scene.normals == Normals::World ? Sao::NormalTransposeInvert
                                                                      : Sao::NormalScreenSpace);
        }
        pass->setInput(kViewport, QRect(3, 5, scene.width, scene.height));
        pass->setInput(kProjection, scene.projection);
        pass->setInput(kCamera, scene.camera);
        pass->setInput(kNear, float(kNearPlane));
        pass->setInput(kFar, float(kFarPlane));
        pass->setInput(kDepth, textureToVariant(depth.get()));
        setNumbers(scene);
    }
    void setNumbers(const Scene &scene)
    {
        pass->setInput(kRadius, scene.radius);
        pass->setInput(kBias, scene.bias);
        pass->setInput(kIntensity, scene.intensity);
        pass->setInput(kSamples, scene.samples);
        pass->setInput(kTurns, scene.turns);
        pass->setInput(kDivider, scene.divider);
    }
    Image<float> rendered()
    {
        runFrame(*pass);
        return readTexture<float>(outputTexture(*pass, 0));
    }
    /// Renders a scene and holds it against the reference.
    void expectReference(const Scene &scene, double uncertainShare = 0.25)
    {
        setScene(scene);
        const Image<float> image = rendered();
        const ObscuranceComparison result = compareObscurance(image, scene);
        EXPECT_EQ(result.wrong, 0) << "of " << result.pixels << ", worst by " << result.worst << " at "
                                   << qPrintable(result.where);
        EXPECT_LE(result.uncertain, uncertainShare * result.pixels);
        EXPECT_GT(result.obscured, result.pixels / 50) << "the scene shows nothing";
        RecordProperty("uncertain", result.uncertain);
    }
    static bool isReference(const Image<float> &image, const Scene &scene)
    {
        return compareObscurance(image, scene).wrong <= image.pixels.size() / 100;
    }

    std::unique_ptr<Texture> depth;
    std::unique_ptr<Texture> position;
    std::unique_ptr<Texture> normal;
    std::unique_ptr<Sao> pass = std::make_unique<Sao>();
};

struct Case
{
    const char *name;
    Surface surface;
    Normals normals;
    bool positions;
};

class ObscuranceOfScenes : public Obscurance, public ::testing::WithParamInterface<Case>
{};

std::vector<Case> cases()
{
    std::vector<Case> all;
    const std::pair<const char *, Surface> scenes[] = {
        {"StepEdge", stepEdge}, {"Corner", corner}, {"BallOnFloor", ballOnFloor}};
    for (const auto &[name, surface] : scenes)
        for (const Normals normals : {Normals::Calculated, Normals::World, Normals::CameraSpace})
            for (const bool positions : {false, true})
                all.push_back({name, surface, normals, positions});
    return all;
}

std::string nameOf(const ::testing::TestParamInfo<Case> &test)
{
    const char *const names[] = {"CalculatedNormals", "WorldNormals", "CameraSpaceNormals"};
    return std::string(test.param.name) + names[int(test.param.normals)]
           + (test.param.positions ? "WithPositions" : "FromDepth");
}

/// A multisampled depth texture that a slanted edge was drawn into, and what its first samples hold.
struct MultisampledDepth
{
    std::unique_ptr<Texture> texture;
    Image<float> firstSamples;
};

MultisampledDepth multisampledDepth(const Image<float> &image)
{
    MultisampledDepth result;
    result.texture = std::make_unique<Texture>();
    result.texture->setTarget(GL_TEXTURE_2D_MULTISAMPLE);
    const AutoBinder bound(result.texture.get());
    glTexImage2DMultisample(GL_TEXTURE_2D_MULTISAMPLE, 4, GL_DEPTH_COMPONENT32F, image.width, image.height, GL_TRUE);
    FramebufferObject framebuffer;
    const auto values = makeTexture(image);
    {
        const AutoBinder drawn(&framebuffer);
        framebuffer.attach(result.texture.get(), GL_DEPTH_ATTACHMENT, 0);
        framebuffer.setDrawBuffers();
        glViewport(0, 0, image.width, image.height);
        glClearDepth(1.0);
        glClear(GL_DEPTH_BUFFER_BIT);
        glEnable(GL_DEPTH_TEST);
        glDepthFunc(GL_ALWAYS);
        // The edge leaves samples of the pixels on it at the background.
        const auto program = makeProgram(
            QStringLiteral(
                "#version 150\n"
                "in vec3 va_Vertex;\n"
                "void main() { gl_Position = vec4(va_Vertex.x, va_Vertex.y + 0.7 * va_Vertex.x - 0.6, 0, 1); }\n"),
            QStringLiteral("#version 150\n"
                           "uniform sampler2D u_Depth;\n"
                           "void main() { gl_FragDepth = texelFetch(u_Depth, ivec2(gl_FragCoord.xy), 0).x; }\n"),
            {});
        const AutoBinder used(program.get());
        const AutoBinder sampled(values.get());
        program->setUniform(QStringLiteral("u_Depth"), values->unit());
        const auto quad = OpenGLDeviceContext::current()->screenQuad();
        {
            const AutoBinder vertices(quad->VAO());
            quad->VAO()->enableShaderProgramArrays(program.get());
        }
        const AutoBinder geometry(quad);
        quad->draw();
        glDepthFunc(GL_LESS);
        glDisable(GL_DEPTH_TEST);
        framebuffer.detachAll();
    }
    const Target target(GL_RGBA32F, image.width, image.height);
    const auto reading = makeProgram(
        QStringLiteral("#version 150\n"
                       "uniform sampler2DMS u_Depth;\n"
                       "in vec2 vo_TexCoord;\n"
                       "out vec4 out_Color;\n"
                       "void main() { out_Color = vec4(texelFetch(u_Depth, ivec2(gl_FragCoord.xy), 0).x); }\n"));
    drawScreen(target, reading.get(),
               [&](ShaderProgram *p) { p->setUniform(QStringLiteral("u_Depth"), result.texture->unit()); });
    result.firstSamples = target.read();
    return result;
}

/// The same in every sample.
std::unique_ptr<Texture> multisampledCopy(const Image<float> &image)
{
    auto texture = std::make_unique<Texture>();
    texture->setTarget(GL_TEXTURE_2D_MULTISAMPLE);
    const AutoBinder bound(texture.get());
    glTexImage2DMultisample(GL_TEXTURE_2D_MULTISAMPLE, 4, GL_RGBA32F, image.width, image.height, GL_TRUE);
    FramebufferObject framebuffer;
    const AutoBinder drawn(&framebuffer);
    framebuffer.attach(texture.get(), GL_COLOR_ATTACHMENT0, 0);
    framebuffer.setDrawBuffers();
    glEnable(GL_SCISSOR_TEST);
    for (int y = 0; y < image.height; ++y) {
        for (int x = 0; x < image.width; ++x) {
            glScissor(x, y, 1, 1);
            glClearBufferfv(GL_COLOR, 0, image.at(x, y).data());
        }
    }
    glDisable(GL_SCISSOR_TEST);
    framebuffer.detachAll();
    return texture;
}

} // namespace

TEST_F(Obscurance, SlotsHaveTheirNamesOrderAndDefaults)
{
    expectSlots(Sao(),
                {{"Kvo_QRect_Viewport"},
                 {"Kvo_QMatrix4x4_ProjectionMatrix"},
                 {"Kvo_QMatrix4x4_CameraMatrix"},
                 {"Kvo_float_NearPlane"},
                 {"Kvo_float_FarPlane"},
                 {"Kvo_KvoTexture*_Depth"},
                 {"Kvo_float_SAORadius", 0.08f},
                 {"Kvo_float_SAOBias", 0.03f},
                 {"Kvo_float_SAOIntensity", 1.0f},
                 {"Kvo_KvoTexture*_CameraSpacePosition"},
                 {"Kvo_KvoTexture*_Normal"},
                 {"Kvo_float_SaoNumSamples", 11.0f},
                 {"Kvo_float_SaoNumLogMaxOffset", 3.0f},
                 {"Kvo_float_SaoNumSpiralTurns", 3.0f},
                 {"Kvo_float_ResolutionDivider", 1.0f}},
                {"Kvo_KvoTexture*_Frame"});
}

TEST_F(Obscurance, ConstructingCopyingAndDestroyingMakesNoGLCall)
{
    expectNoGLCallBeforeStart<Sao>();
}

TEST_P(ObscuranceOfScenes, ThePictureIsTheShadersOnTheCPU)
{
    Scene scene = sceneOf(GetParam().surface);
    if (GetParam().positions)
        addPositions(scene);
    if (GetParam().normals != Normals::Calculated)
        addNormals(scene, GetParam().normals);
    expectReference(scene);
}

INSTANTIATE_TEST_SUITE_P(Scenes, ObscuranceOfScenes, ::testing::ValuesIn(cases()), nameOf);

TEST_F(Obscurance, OtherNumbersFollowTheReferenceAndAreToldApart)
{
    Scene scene = sceneOf(corner);
    addNormals(scene, Normals::CameraSpace);
    setScene(scene);
    const Image<float> image = rendered();
    ASSERT_TRUE(isReference(image, scene));
    const auto changed = [&](auto Scene::*member, auto value) {
        Scene other = scene;
        other.*member = value;
        EXPECT_FALSE(isReference(image, other)) << "the picture of before";
        setNumbers(other);
        const Image<float> after = rendered();
        const ObscuranceComparison result = compareObscurance(after, other);
        EXPECT_EQ(result.wrong, 0) << qPrintable(result.where);
        EXPECT_FALSE(isReference(after, scene)) << "the reference of before";
    };
    changed(&Scene::radius, 0.5f);
    changed(&Scene::bias, 0.1f);
    changed(&Scene::intensity, 2.0f);
    changed(&Scene::samples, 23.0f);
    changed(&Scene::turns, 7.0f);
}

TEST_F(Obscurance, OneTurnIsSixPointTwoEight)
{
    Scene scene = sceneOf(stepEdge);
    addNormals(scene, Normals::CameraSpace);
    scene.turns = 400; // so that the small difference adds up
    setScene(scene);
    const Image<float> image = rendered();
    EXPECT_TRUE(isReference(image, scene));
    scene.turn = 2 * M_PI;
    EXPECT_FALSE(isReference(image, scene));
}

TEST_F(Obscurance, PositionsThroughLinearFiltersFollowTheReferenceToo)
{
    Scene scene = sceneOf(corner);
    addPositions(scene);
    scene.linearPositions = true;
    expectReference(scene);
}

TEST_F(Obscurance, PositionsOfTheCameraSpacePassServeAsThose)
{
    Scene scene = sceneOf(corner);
    addNormals(scene, Normals::CameraSpace);
    setScene(scene);
    CameraSpaceZBufferRenderPass unproject;
    unproject.setInput(0, QRect(0, 0, scene.width, scene.height));
    unproject.setInput(1, textureToVariant(depth.get()));
    unproject.setInput(2, scene.projection);
    unproject.setNumOutputUsers(0, 1);
    runFrame(unproject);
    pass->setInput(kPosition, unproject.output(0));
    addPositions(scene);
    scene.linearPositions = true; // as the pool has them
    const ObscuranceComparison result = compareObscurance(rendered(), scene);
    EXPECT_EQ(result.wrong, 0) << qPrintable(result.where);
    EXPECT_EQ(TextureManager::Instance().statistics().inUse, 0) << "the reference was given back";
}

TEST_F(Obscurance, TheDividerDividesTheSizeAndRoundsDown)
{
    const struct
    {
        float divider;
        int width, height;
    } kSizes[] = {{0, 101, 50}, {1, 101, 50}, {2, 50, 25}, {1.5f, 67, 33}, {3.7f, 27, 13}};
    pass->setInput(kViewport, QRect(0, 0, 101, 50));
    for (const auto &[divider, width, height] : kSizes) {
        pass->setInput(kDivider, divider);
        runFrame(*pass);
        const TextureState state = stateOf(outputTexture(*pass, 0));
        EXPECT_EQ(state.width, width) << divider;
        EXPECT_EQ(state.height, height) << divider;
        EXPECT_EQ(state.internalFormat, unsigned(GL_RGBA16F));
    }
}

TEST_F(Obscurance, ADividerOfZeroActsAsOne)
{
    Scene scene = sceneOf(corner);
    scene.divider = 0;
    expectReference(scene);
}

TEST_F(Obscurance, WithADividerPositionsAreReadInProportion)
{
    for (const float divider : {1.5f, 2.0f}) {
        Scene scene = sceneOf(ballOnFloor, 96, 64, divider);
        addPositions(scene);
        scene.linearPositions = true; // with a divider of 2 pixels lie between the texels
        addNormals(scene, Normals::World);
        pass = std::make_unique<Sao>();
        depth.reset();
        expectReference(scene);
    }
}

TEST_F(Obscurance, WithADividerTheDepthIsReadTexelByTexelFromItsCorner)
{
    for (const float divider : {1.5f, 2.0f}) {
        pass = std::make_unique<Sao>();
        depth.reset();
        Scene scene = sceneOf(corner, 96, 64, divider);
        addNormals(scene, Normals::CameraSpace);
        expectReference(scene);
    }
}

TEST_F(Obscurance, DividersWithoutAPictureRaiseNoError)
{
    setScene(sceneOf(corner));
    for (const float divider :
         {-1.0f, 1e-30f, 1e30f, std::numeric_limits<float>::infinity(), std::numeric_limits<float>::quiet_NaN()}) {
        pass->setInput(kDivider, divider);
        runFrame(*pass);
        EXPECT_NE(outputTexture(*pass, 0), nullptr);
    }
}

TEST_F(Obscurance, TheSampleCountGoesToTheShaderWithoutItsFraction)
{
    Scene scene = sceneOf(corner);
    scene.samples = 11.9f;
    scene.turns = 3.9f;
    expectReference(scene);
    const Image<float> image = rendered();
    pass->setInput(kSamples, 11.0f);
    pass->setInput(kTurns, 3.0f);
    EXPECT_TRUE(sameImage(rendered(), image, within(0)));
}

TEST_F(Obscurance, WithNoSamplesNothingIsObscuredOrThePixelIsNotANumber)
{
    setScene(sceneOf(corner));
    pass->setInput(kSamples, 0.0f);
    // The sum is empty and its scale infinite: 0 times infinity, which max() may turn into 0.
    const Image<float> image = rendered();
    for (const auto &pixel : image.pixels)
        ASSERT_TRUE(std::isnan(pixel[0]) || pixel[0] == 0 || pixel[0] == 1) << pixel[0];
}

TEST_F(Obscurance, TheBackgroundStaysWhite)
{
    Scene scene = sceneOf(ballOnFloor);
    setScene(scene);
    const Image<float> image = rendered();
    int background = 0;
    for (int y = 0; y < scene.height; ++y)
        for (int x = 0; x < scene.width; ++x)
            if (scene.depth.at(x, y)[0] == 1) {
                ++background;
                ASSERT_EQ(image.at(x, y)[0], 1);
            }
    EXPECT_GT(background, 200);
}

TEST_F(Obscurance, OneTapOnTheBackgroundEndsTheWholePixel)
{
    Scene scene = sceneOf(corner);
    addNormals(scene, Normals::CameraSpace);
    setScene(scene);
    const Image<float> whole = rendered();
    // A few holes: every pixel that has one of them under a tap turns white.
    for (const auto &[x, y] : {std::pair(24, 12), std::pair(25, 12), std::pair(24, 13), std::pair(25, 13)})
        scene.depth.at(x, y)[0] = 1;
    depth = depthTexture(scene.depth);
    pass->setInput(kDepth, textureToVariant(depth.get()));
    const Image<float> pierced = rendered();
    const ObscuranceComparison result = compareObscurance(pierced, scene);
    EXPECT_EQ(result.wrong, 0) << qPrintable(result.where);
    int turned = 0;
    for (int y = 0; y < scene.height; ++y)
        for (int x = 0; x < scene.width; ++x) {
            const bool isHole = scene.depth.at(x, y)[0] == 1;
            turned += !isHole && whole.at(x, y)[0] < 1 && pierced.at(x, y)[0] == 1;
        }
    EXPECT_GE(turned, 8);
}

TEST_F(Obscurance, WithPositionsTheBackgroundUnderATapDoesNotCount)
{
    Scene scene = sceneOf(ballOnFloor);
    addPositions(scene);
    addNormals(scene, Normals::CameraSpace);
    expectReference(scene, 0.25);
    // The far plane lies at 30 units, which is no sky: not even background pixels are discarded.
    EXPECT_FALSE(obscuranceRanges(scene)[qsizetype(scene.height - 2) * scene.outputWidth() + 2].mayBeWhite);
}

TEST_F(Obscurance, WhatIsFartherThanFiftyUnitsIsSkyWhateverTheFarPlaneIs)
{
    Scene scene = sceneOf(corner);
    addPositions(scene);
    addNormals(scene, Normals::CameraSpace);
    for (auto &pixel : scene.positions->pixels)
        for (size_t c = 0; c < 3; ++c)
            pixel[c] *= 20; // the wall at 3 units comes to lie at 60
    scene.radius *= 20;
    scene.bias *= 20;
    scene.intensity /= 20; // a term grows with the scene
    pass->setInput(kFar, 1000.0f);
    expectReference(scene);
    const Image<float> image = rendered();
    bool obscuredNear = false;
    for (int y = 0; y < scene.height; ++y)
        for (int x = 0; x < scene.width; ++x) {
            if (scene.positions->at(x, y)[2] < -50)
                ASSERT_EQ(image.at(x, y)[0], 1);
            else
                obscuredNear = obscuredNear || image.at(x, y)[0] < 0.9f;
        }
    EXPECT_TRUE(obscuredNear);
}

TEST_F(Obscurance, AMultisampledDepthIsReadAtItsFirstSample)
{
    Scene scene = sceneOf(corner);
    MultisampledDepth multisampled = multisampledDepth(scene.depth);
    int background = 0;
    for (const auto &pixel : multisampled.firstSamples.pixels)
        background += pixel[0] == 1;
    ASSERT_GT(background, 20) << "the edge cuts the picture";
    scene.depth = multisampled.firstSamples;
    depth = std::move(multisampled.texture);
    setScene(scene);
    const GlCalls calls;
    const Image<float> image = rendered();
    const ObscuranceComparison result = compareObscurance(image, scene);
    EXPECT_EQ(result.wrong, 0) << qPrintable(result.where);
    EXPECT_GT(result.obscured, 20);
    EXPECT_EQ(calls.count("glFramebufferTexture2D", {GL_FRAMEBUFFER, GL_DEPTH_ATTACHMENT}), 0) << "not attached";
    EXPECT_EQ(calls.count("glGetTexLevelParameteriv"), 0);
}

TEST_F(Obscurance, NormalsHaveSamplesWhereTheDepthHas)
{
    for (const Normals kind : {Normals::World, Normals::CameraSpace}) {
        pass = std::make_unique<Sao>();
        Scene scene = sceneOf(corner);
        MultisampledDepth multisampled = multisampledDepth(scene.depth);
        scene.depth = multisampled.firstSamples;
        depth = std::move(multisampled.texture);
        addNormals(scene, kind);
        setScene(scene);
        normal = multisampledCopy(scene.normalImage);
        pass->setInput(kNormal, textureToVariant(normal.get()));
        const MessageCapture messages;
        const ObscuranceComparison result = compareObscurance(rendered(), scene);
        EXPECT_EQ(messages.texts(), QStringList());
        EXPECT_EQ(result.wrong, 0) << qPrintable(result.where);
        EXPECT_GT(result.obscured, 20);
    }
}

// They are left out, which is said, and the normals are those of the positions.
TEST_F(Obscurance, NormalsWithSamplesAndADepthWithoutOrTheOtherWayRoundDoNotFit)
{
    for (const bool isDepthPlain : {true, false}) {
        pass = std::make_unique<Sao>();
        Scene scene = sceneOf(corner);
        depth.reset();
        if (!isDepthPlain) {
            MultisampledDepth multisampled = multisampledDepth(scene.depth);
            scene.depth = multisampled.firstSamples;
            depth = std::move(multisampled.texture);
        }
        setScene(scene);
        addNormals(scene, Normals::CameraSpace);
        normal = isDepthPlain ? multisampledCopy(scene.normalImage) : makeTexture(scene.normalImage);
        scene.normals = Normals::Calculated;
        pass->setInput(kNormal, textureToVariant(normal.get()));
        const MessageCapture messages;
        const ObscuranceComparison result = compareObscurance(rendered(), scene);
        rendered();
        EXPECT_EQ(messages.containing(QStringLiteral("Kvo_KvoTexture*_Normal is a texture of GL target")), 1);
        EXPECT_EQ(result.wrong, 0) << qPrintable(result.where);
    }
}

TEST_F(Obscurance, AMultisampledDepthWithPositionsDrawsNothingAndReportsNothing)
{
    Scene scene = sceneOf(corner);
    MultisampledDepth multisampled = multisampledDepth(scene.depth);
    depth = std::move(multisampled.texture);
    addPositions(scene);
    int failures = 0;
    ShaderProgram::setFailureHandler([&](const ShaderFailure &) { ++failures; });
    setScene(scene);
    EXPECT_TRUE(sameImage(rendered(), Image<float>(scene.width, scene.height, {1, 1, 1, 1}), within(0)));
    ShaderProgram::setFailureHandler({});
    EXPECT_EQ(failures, 0);
}

TEST_F(Obscurance, TheDepthIsAttachedWhereItsFormatBelongsAndTakenOffAgain)
{
    const struct
    {
        GLenum format, attachment;
    } kFormats[] = {{GL_DEPTH_COMPONENT32F, GL_DEPTH_ATTACHMENT},
                    {GL_DEPTH_COMPONENT16, GL_DEPTH_ATTACHMENT},
                    {GL_DEPTH_COMPONENT, GL_DEPTH_ATTACHMENT},
                    {GL_DEPTH24_STENCIL8, GL_DEPTH_STENCIL_ATTACHMENT},
                    {GL_DEPTH_STENCIL, GL_DEPTH_STENCIL_ATTACHMENT}};
    for (const auto &[format, attachment] : kFormats) {
        Scene scene = sceneOf(corner);
        addNormals(scene, Normals::CameraSpace);
        pass = std::make_unique<Sao>();
        if (format == GL_DEPTH_COMPONENT16) {
            QVector<quint16> values;
            for (auto &pixel : scene.depth.pixels) {
                values.append(quint16(std::lround(double(pixel[0]) * 0xFFFF)));
                pixel[0] = float(values.last() / 65535.0);
            }
            depth = makeTexture(format, scene.width, scene.height, values.constData());
        } else {
            depth = depthTexture(scene.depth, format);
        }
        setScene(scene);
        const GlCalls calls;
        const ObscuranceComparison result = compareObscurance(rendered(), scene);
        EXPECT_EQ(result.wrong, 0) << qPrintable(result.where);
        const int attached = calls.indexOf("glFramebufferTexture2D", {GL_FRAMEBUFFER, double(attachment), GL_TEXTURE_2D,
                                                                      double(depth->textureID()), 0});
        const int drawn = calls.indexOf("glDrawArrays");
        const int detached = calls.indexOf("glFramebufferTexture", {GL_FRAMEBUFFER, double(attachment), 0, 0});
        EXPECT_GE(attached, 0);
        EXPECT_GT(drawn, attached);
        EXPECT_GT(detached, drawn);
    }
}

TEST_F(Obscurance, AnUnknownDepthFormatIsReportedAtEveryStartAndDrawnWithoutAnAttachment)
{
    Scene scene = sceneOf(corner);
    addNormals(scene, Normals::CameraSpace);
    depth = depthTexture(scene.depth, GL_R32F);
    setScene(scene);
    for (int frame = 0; frame < 2; ++frame) {
        const MessageCapture messages;
        const GlCalls calls;
        const ObscuranceComparison result = compareObscurance(rendered(), scene);
        EXPECT_EQ(result.wrong, 0) << qPrintable(result.where);
        const QStringList texts = messages.texts(QtCriticalMsg);
        ASSERT_EQ(texts.size(), 1);
        EXPECT_TRUE(texts[0].startsWith(QStringLiteral("[scalableambientobscurancerenderpass.cpp:")))
            << qPrintable(texts[0]);
        EXPECT_TRUE(texts[0].endsWith(QStringLiteral("[ !! ] Assertion 'false' failed: Unhandled depth format")))
            << qPrintable(texts[0]);
        EXPECT_EQ(calls.count("glFramebufferTexture2D"), 1) << "the colour alone";
    }
}

TEST_F(Obscurance, NormalProcessingAfterTheFirstStartIsReportedTwiceAndChangesNothing)
{
    Scene scene = sceneOf(corner);
    addNormals(scene, Normals::World);
    setScene(scene);
    const Image<float> before = rendered();
    const MessageCapture messages;
    pass->setNormalProcessing(Sao::NormalScreenSpace);
    const QStringList texts = messages.texts(QtCriticalMsg);
    ASSERT_EQ(texts.size(), 2);
    const QString reason = QStringLiteral("Do not set the normal processing once a shader has been created.");
    EXPECT_TRUE(texts[0].endsWith(QStringLiteral("[ !! ] Assertion 'NULL == _shaderProgramSS' failed: ") + reason));
    EXPECT_TRUE(texts[1].endsWith(QStringLiteral("[ !! ] Assertion 'NULL == _shaderProgramMS' failed: ") + reason));
    EXPECT_TRUE(sameImage(rendered(), before, within(0)));
}

TEST_F(Obscurance, NormalProcessingBeforeTheFirstStartIsSilent)
{
    const MessageCapture messages;
    pass->setNormalProcessing(Sao::NormalScreenSpace);
    EXPECT_EQ(messages.texts(), QStringList());
}

TEST_F(Obscurance, AnUnknownNormalProcessingDoesNotCompileAndLeavesThePictureWhite)
{
    Scene scene = sceneOf(corner);
    addNormals(scene, Normals::World);
    setScene(scene);
    pass->setNormalProcessing(Sao::NormalProcessing(7));
    QStringList logs;
    ShaderProgram::setFailureHandler([&](const ShaderFailure &failure) { logs << failure.log; });
    const Image<float> image = rendered();
    ShaderProgram::setFailureHandler({});
    ASSERT_EQ(logs.size(), 2) << "one for each program";
    EXPECT_TRUE(logs[0].contains(QStringLiteral("Not know Normal processing")));
    EXPECT_TRUE(sameImage(image, Image<float>(scene.width, scene.height, {1, 1, 1, 1}), within(0)));
}

TEST_F(Obscurance, OptionalInputsThatComeLateDoNotChangeThePrograms)
{
    Scene scene = sceneOf(corner);
    setScene(scene);
    runFrame(*pass);
    Scene later = scene;
    addNormals(later, Normals::World);
    const auto late = makeTexture(later.normalImage);
    pass->setInput(kNormal, textureToVariant(late.get()));
    const GlCalls calls;
    const ObscuranceComparison result = compareObscurance(rendered(), scene);
    EXPECT_EQ(result.wrong, 0) << "still face normals: " << qPrintable(result.where);
    EXPECT_EQ(calls.created(GlKind::Program), 0);
}

TEST_F(Obscurance, ADriverThatRefusesTheSecondTextDoesWithoutIt)
{
    Scene scene = sceneOf(corner);
    addNormals(scene, Normals::CameraSpace);
    int failures = 0;
    ShaderProgram::setFailureHandler([&](const ShaderFailure &) { ++failures; });
    {
        const QPair<QByteArray, QByteArray> refusal{"vec4 positionFromDepth(",
                                                    "#error version\nvec4 positionFromDepth("};
        const ShaderEdit refused({refusal});
        expectReference(scene);
    }
    ShaderProgram::setFailureHandler({});
    EXPECT_EQ(failures, 0) << "nobody need know";
}

TEST_F(Obscurance, TheTextAsksForTheVersionThatTheContextHas)
{
    Scene scene = sceneOf(corner);
    addNormals(scene, Normals::CameraSpace);
    const bool has400 = OpenGLDeviceContext::current()->version() >= 40;
    const QByteArray first = has400 ? "#version 400\n" : "#version 150\n";
    const QPair<QByteArray, QByteArray> same{first, first};
    const ShaderEdit edit({same}); // fails when no text has it
    expectReference(scene);
}

TEST_F(Obscurance, UniformsAreSetInTheirOrderToTheirValues)
{
    Scene scene = sceneOf(corner);
    scene.samples = 9.7f;
    scene.turns = 4.6f;
    addNormals(scene, Normals::World);
    setScene(scene);
    pass->setInput(kLogMaxOffset, 2.0f);
    runFrame(*pass);
    const GlCalls calls;
    runFrame(*pass);
    const auto program = GLuint(calls.calls("glUseProgram").front().args[0]);
    QStringList names;
    QHash<QString, std::vector<double>> values;
    for (const GlCall &call : calls.all()) {
        if (QByteArrayView(call.name).startsWith("glUniform")) {
            for (const char *name :
                 {"CS_Z_buffer", "u_Normals", "u_Camera", "projScale", "radius", "radius2", "invRadius2", "bias",
                  "intensity", "u_ClipInfo", "u_ProjInfo", "u_NumSamples", "u_LogMaxOffset", "u_NumSpiralTurns"}) {
                if (glGetUniformLocation(program, name) == GLint(call.args[0])) {
                    names << QString::fromLatin1(name);
                    values[names.last()] = call.data.empty() ? std::vector<double>{call.args.back()} : call.data;
                }
            }
        }
    }
    // radius2 is not used, so a compiler drops it.
    names.removeAll(QStringLiteral("radius2"));
    EXPECT_EQ(names.join(QLatin1Char(' ')),
              QStringLiteral("CS_Z_buffer u_Normals u_Camera projScale radius invRadius2 bias intensity u_ClipInfo "
                             "u_ProjInfo u_NumSamples u_LogMaxOffset u_NumSpiralTurns"));
    const double p00 = double(scene.projection(0, 0)), p11 = double(scene.projection(1, 1));
    const auto is = [&](const char *name, const std::vector<double> &expected) {
        const auto actual = values.value(QString::fromLatin1(name));
        ASSERT_EQ(actual.size(), expected.size()) << name;
        for (size_t i = 0; i < expected.size(); ++i)
            EXPECT_NEAR(actual[i], expected[i], 1e-6 * std::max(1.0, std::abs(expected[i]))) << name << " " << i;
    };
    is("projScale", {scene.height * p11 * 0.5});
    is("radius", {double(scene.radius)});
    is("invRadius2", {1 / (double(scene.radius) * double(scene.radius))});
    is("bias", {double(scene.bias)});
    is("intensity", {1});
    is("u_ClipInfo", {kFarPlane * kNearPlane, kNearPlane - kFarPlane, kFarPlane});
    is("u_ProjInfo", {-2 / (scene.width * p00), -2 / (scene.height * p11), 1 / p00, 1 / p11});
    is("u_NumSamples", {9});
    is("u_LogMaxOffset", {2});
    is("u_NumSpiralTurns", {4});
}

TEST_F(Obscurance, AnAsymmetricProjectionEntersThePositions)
{
    Scene scene = sceneOf(corner);
    scene.projection.setToIdentity();
    scene.projection.frustum(-0.3f, 0.5f, -0.2f, 0.3f, float(kNearPlane), float(kFarPlane));
    // The reference and the pass read the off-centre entries with these signs, whatever a renderer has.
    addNormals(scene, Normals::CameraSpace);
    expectReference(scene);
}

TEST_F(Obscurance, WithoutADepthNothingIsObscured)
{
    soilPool({TextureFormat::Result}, 8, 8);
    TextureManager &pool = TextureManager::Instance();
    Texture *pooled = pool.tempTexture(TextureFormat::Position, 8, 8);
    pass->setInput(kViewport, QRect(0, 0, 8, 8));
    pass->setInput(kPosition, textureToVariant(pooled));
    pass->setNumOutputUsers(0, 1);
    const GlCalls calls;
    runFrame(*pass);
    EXPECT_EQ(calls.draws(), 0);
    EXPECT_TRUE(sameImage(readTexture<float>(outputTexture(*pass, 0)), Image<float>(8, 8, {1, 1, 1, 1}), within(0)));
    EXPECT_EQ(pool.tempTextureRefs(pooled), 0) << "given back all the same";
    EXPECT_EQ(pool.tempTextureRefs(outputTexture(*pass, 0)), 1);
    pool.releaseTempTextureRef(outputTexture(*pass, 0), 1);
}

TEST_F(Obscurance, EveryTextureInputLosesOneReferenceAndEveryUserHasOne)
{
    TextureManager &pool = TextureManager::Instance();
    Texture *inputs[] = {pool.tempTexture(TextureFormat::Depth32, 8, 8),
                         pool.tempTexture(TextureFormat::Position, 8, 8),
                         pool.tempTexture(TextureFormat::Result, 8, 8)};
    pass->setInput(kViewport, QRect(0, 0, 8, 8));
    const Input slots[] = {kDepth, kPosition, kNormal};
    for (size_t i = 0; i < 3; ++i) {
        pool.addTempTextureRef(inputs[i], 1);
        // Either form will do.
        pass->setInput(slots[i], i == 1 ? QVariant::fromValue(inputs[i]) : textureToVariant(inputs[i]));
    }
    pass->setNumOutputUsers(0, 3);
    runFrame(*pass);
    for (Texture *input : inputs) {
        EXPECT_EQ(pool.tempTextureRefs(input), 1);
        pool.releaseTempTextureRef(input, 1);
    }
    Texture *output = outputTexture(*pass, 0);
    EXPECT_EQ(pool.tempTextureRefs(output), 3);
    pool.releaseTempTextureRef(output, 3);
    pass->setNumOutputUsers(0, 0);
    for (const Input slot : slots)
        pass->setInput(slot, QVariant());
    runFrame(*pass);
    EXPECT_EQ(pool.tempTextureRefs(outputTexture(*pass, 0)), 0);
}

TEST_F(Obscurance, ChangesOnlyTheStateThatItSays)
{
    setScene(sceneOf(corner));
    runFrame(*pass);
    glEnable(GL_DEPTH_TEST);
    glEnable(GL_STENCIL_TEST);
    glDepthMask(GL_TRUE);
    glViewport(1, 2, 3, 4);
    glClearColor(0.1f, 0.2f, 0.3f, 0.4f);
    glStencilMask(0xF0);
    glStencilFunc(GL_ALWAYS, 9, 0x0F);
    glStencilOp(GL_INCR, GL_INCR, GL_INCR);
    const GLStateSnapshot before;
    runFrame(*pass);
    // The reference value reads as 0 here, where the framebuffer has no stencil.
    EXPECT_EQ(GLStateSnapshot().changedSince(before).join(QStringLiteral(", ")).toStdString(),
              "viewport, clear colour, stencil test, depth mask, stencil mask, stencil function, stencil value mask");
    EXPECT_TRUE(glIsEnabled(GL_DEPTH_TEST)) << "put back";

    resetGLState();
    const GlCalls calls;
    runFrame(*pass);
    EXPECT_EQ(
        calls
            .sequence({"glDisable", "glDepthMask", "glStencilFunc", "glStencilOp", "glStencilMask", "glDrawArrays",
                       "glEnable"})
            .join(QLatin1Char(' '))
            .toStdString(),
        "glDisable glDisable glDepthMask glDisable glStencilFunc glStencilOp glStencilMask glDrawArrays glDisable");
    EXPECT_EQ(calls.count("glStencilFunc", {GL_EQUAL, 1, 0xff}), 1);
    const auto integer = [](GLenum query) {
        GLint value = -1;
        glGetIntegerv(query, &value);
        return value;
    };
    EXPECT_EQ(integer(GL_STENCIL_FUNC), GL_EQUAL);
    EXPECT_EQ(integer(GL_STENCIL_VALUE_MASK), 0xff);
    EXPECT_EQ(integer(GL_STENCIL_FAIL), GL_KEEP);
    EXPECT_EQ(integer(GL_STENCIL_PASS_DEPTH_FAIL), GL_KEEP);
    EXPECT_EQ(integer(GL_STENCIL_PASS_DEPTH_PASS), GL_KEEP);
    EXPECT_EQ(integer(GL_STENCIL_WRITEMASK), 0);
    EXPECT_EQ(integer(GL_DEPTH_WRITEMASK), GL_FALSE);
    GLfloat clear[4] = {1, 1, 1, 1};
    glGetFloatv(GL_COLOR_CLEAR_VALUE, clear);
    for (const GLfloat c : clear)
        EXPECT_EQ(c, 0);
    glStencilMask(0xFF);
}

TEST_F(Obscurance, SteadyFrameCreatesNothing)
{
    Scene scene = sceneOf(corner);
    addPositions(scene);
    addNormals(scene, Normals::World);
    setScene(scene);
    expectSteadyFrameCreatesNothing(*pass);
    KVO_EXPECT_STEADY_FRAME_TAKES_NOTHING_FROM_THE_HEAP(*pass);
}

TEST_F(Obscurance, EmptyViewportsRaiseNoError)
{
    setScene(sceneOf(corner));
    expectEmptyViewportsRaiseNoError(*pass);
}
