#include "support/allocations.h"
#include "support/draw.h"
#include "support/gltest.h"
#include "support/image.h"
#include "support/modelreference.h"
#include "support/passes.h"

#include <gl/opengldevicecontext.h>
#include <gl/texture.h>
#include <gl/texturemanager.h>
#include <renderpasses/modeldeferredpass.h>

#include <QMatrix4x4>
#include <QPointer>
#include <QRect>

#include <epoxy/gl.h>

#include <memory>
#include <random>

using namespace Brevane::Kvo;
using namespace Brevane::Kvo::Test;

namespace {

enum Input { kViewport, kProjection, kCamera, kDiffuse, kSpecular, kNormal, kDepth };

constexpr int kWidth = 33;
constexpr int kHeight = 21;

// Half a step of the 8 bits of the target, and pow in float on top.
constexpr double kEightBits = 0.5 / 255 + 1e-3;

Image<float> randomImage(unsigned seed, float low, float high, float alphaLow, float alphaHigh)
{
    std::mt19937 generator(seed);
    std::uniform_real_distribution<float> color(low, high);
    std::uniform_real_distribution<float> alpha(alphaLow, alphaHigh);
    Image<float> image(kWidth, kHeight);
    for (auto &pixel : image.pixels)
        pixel = {color(generator), color(generator), color(generator), alpha(generator)};
    return image;
}

Image<float> randomNormals(unsigned seed)
{
    std::mt19937 generator(seed);
    std::normal_distribution<double> component;
    Image<float> image(kWidth, kHeight);
    for (auto &pixel : image.pixels) {
        const Vector3 n = normalized({component(generator), component(generator), component(generator)});
        pixel = {float(n[0]), float(n[1]), float(n[2]), 1.0f};
    }
    return image;
}

Image<float> shaded(const Image<float> &diffuse, const Image<float> &specular, const Image<float> &normal)
{
    Image<float> out(kWidth, kHeight);
    for (qsizetype i = 0; i < out.pixels.size(); ++i) {
        const auto &d = diffuse.pixels[i];
        const auto &s = specular.pixels[i];
        const auto &n = normal.pixels[i];
        const Vector3 color =
            blinnPhong({double(d[0]), double(d[1]), double(d[2])}, {double(s[0]), double(s[1]), double(s[2])},
                       double(s[3]), {double(n[0]), double(n[1]), double(n[2])});
        for (size_t c = 0; c < 3; ++c)
            out.pixels[i][c] = float(std::clamp(color[c], 0.0, 1.0));
        out.pixels[i][3] = std::clamp(d[3], 0.0f, 1.0f);
    }
    return out;
}

class DeferredPass : public GLTest
{
protected:
    void SetUp() override
    {
        GLTest::SetUp();
        diffuseImage = randomImage(1, 0, 1, 0, 1);
        specularImage = randomImage(2, 0, 0.5f, 0.5f, 60);
        normalImage = randomNormals(3);
        diffuse = makeTexture(diffuseImage);
        specular = makeTexture(specularImage);
        normal = makeTexture(normalImage);
        setUp(pass);
        glViewport(0, 0, kWidth, kHeight);
    }

    void TearDown() override
    {
        ownedPass.reset();
        diffuse.reset();
        specular.reset();
        normal.reset();
        GLTest::TearDown();
    }

    void setUp(ModelDeferredPass &p)
    {
        p.setInput(kViewport, QRect(0, 0, kWidth, kHeight));
        p.setInput(kDiffuse, textureToVariant(diffuse.get()));
        p.setInput(kSpecular, textureToVariant(specular.get()));
        p.setInput(kNormal, textureToVariant(normal.get()));
    }

    Image<float> frame() { return readTexture<float>(outputTexture(pass, 0)); }
    Image<float> expected() const { return shaded(diffuseImage, specularImage, normalImage); }

    Image<float> diffuseImage;
    Image<float> specularImage;
    Image<float> normalImage;
    std::unique_ptr<Texture> diffuse;
    std::unique_ptr<Texture> specular;
    std::unique_ptr<Texture> normal;
    // Destroyed before the fixture looks for what is left.
    std::unique_ptr<ModelDeferredPass> ownedPass = std::make_unique<ModelDeferredPass>();
    ModelDeferredPass &pass = *ownedPass;
};

} // namespace

TEST_F(DeferredPass, SlotsHaveTheirNamesOrderAndDefaults)
{
    expectSlots(ModelDeferredPass(),
                {{"Kvo_QRect_Viewport"},
                 {"Kvo_QMatrix4x4_ProjectionMatrix"},
                 {"Kvo_QMatrix4x4_CameraMatrix"},
                 {"Kvo_KvoTexture*_Diffuse"},
                 {"Kvo_KvoTexture*_Specular"},
                 {"Kvo_KvoTexture*_Normal"},
                 {"Kvo_KvoTexture*_Depth"}},
                {"Kvo_KvoTexture*_Frame"});
}

TEST_F(DeferredPass, ConstructingCopyingAndDestroyingMakesNoGLCall)
{
    expectNoGLCallBeforeStart<ModelDeferredPass>();
}

TEST_F(DeferredPass, TargetHasEightBitsAndNearestFilters)
{
    const GlCalls calls;
    runFrame(pass);
    EXPECT_EQ(
        calls.count("glTexImage2D", {GL_TEXTURE_2D, 0, GL_RGBA, kWidth, kHeight, 0, GL_BGRA, GL_UNSIGNED_BYTE, 0}), 1);
    const TextureState state = stateOf(outputTexture(pass, 0));
    EXPECT_TRUE(state.internalFormat == GL_RGBA || state.internalFormat == GL_RGBA8) << state.internalFormat;
    EXPECT_EQ(state.width, kWidth);
    EXPECT_EQ(state.height, kHeight);
    EXPECT_EQ(state.minFilter, unsigned(GL_NEAREST));
    EXPECT_EQ(state.magFilter, unsigned(GL_NEAREST));
}

TEST_F(DeferredPass, EveryPixelIsBlinnPhongOfTheThreeTextures)
{
    runFrame(pass);
    EXPECT_TRUE(sameImage(frame(), expected(), within(kEightBits)));
}

TEST_F(DeferredPass, AnotherExponentIsToldApart)
{
    for (auto &pixel : specularImage.pixels)
        pixel[3] *= 1.5f;
    runFrame(pass);
    EXPECT_FALSE(isSameImage(frame(), expected(), within(kEightBits)));
}

TEST_F(DeferredPass, OpacityGoesFromTheDiffuseAlphaIntoTheFrame)
{
    runFrame(pass);
    const Image<float> out = frame();
    for (int y = 0; y < kHeight; ++y)
        for (int x = 0; x < kWidth; ++x)
            ASSERT_NEAR(out.at(x, y)[3], diffuseImage.at(x, y)[3], kEightBits);
}

TEST_F(DeferredPass, AnExponentOfZeroMakesTheSpecularTermKsItself)
{
    for (auto &pixel : specularImage.pixels)
        pixel[3] = 0;
    // every normal within the half space of the halfway vector, so that the base of pow is positive
    for (auto &pixel : normalImage.pixels) {
        for (size_t c = 0; c < 3; ++c)
            pixel[c] = std::abs(pixel[c]);
    }
    specular = makeTexture(specularImage);
    normal = makeTexture(normalImage);
    setUp(pass);
    runFrame(pass);
    Image<float> image(kWidth, kHeight);
    const Vector3 L = normalized({1, 1, 1});
    for (qsizetype i = 0; i < image.pixels.size(); ++i) {
        const auto &n = normalImage.pixels[i];
        const double nDotL = double(n[0]) * L[0] + double(n[1]) * L[1] + double(n[2]) * L[2];
        for (size_t c = 0; c < 3; ++c)
            image.pixels[i][c] =
                float(std::min(1.0, nDotL * double(diffuseImage.pixels[i][c]) + double(specularImage.pixels[i][c])));
        image.pixels[i][3] = diffuseImage.pixels[i][3];
    }
    EXPECT_TRUE(sameImage(frame(), image, within(kEightBits)));
}

TEST_F(DeferredPass, SurfacesThatFaceAwayFromTheLightAreBlack)
{
    const auto away = makeSolidTexture(kWidth, kHeight, {-0.57735f, -0.57735f, -0.57735f, 1});
    pass.setInput(kNormal, textureToVariant(away.get()));
    runFrame(pass);
    const Image<float> out = frame();
    for (int y = 0; y < kHeight; ++y)
        for (int x = 0; x < kWidth; ++x)
            ASSERT_TRUE(isPixel(out, x, y, {0, 0, 0, double(diffuseImage.at(x, y)[3])}, kEightBits));
}

TEST_F(DeferredPass, TheNormalIsUsedAsItIsWithoutMakingItUnitLength)
{
    const auto half = makeSolidTexture(kWidth, kHeight, {0, 0, 0.5f, 1});
    const auto white = makeSolidTexture(kWidth, kHeight, {1, 1, 1, 1});
    const auto black = makeSolidTexture(kWidth, kHeight, {0, 0, 0, 1});
    pass.setInput(kDiffuse, textureToVariant(white.get()));
    pass.setInput(kSpecular, textureToVariant(black.get()));
    pass.setInput(kNormal, textureToVariant(half.get()));
    runFrame(pass);
    const double lit = 0.5 / std::sqrt(3.0);
    EXPECT_TRUE(isPixel(frame(), 3, 4, {lit, lit, lit, 1}, kEightBits));
}

TEST_F(DeferredPass, MatricesAndDepthChangeNothing)
{
    runFrame(pass);
    const Image<float> before = frame();
    QMatrix4x4 turned;
    turned.rotate(70, 1, 1, 0);
    pass.setInput(kProjection, turned);
    pass.setInput(kCamera, turned);
    pass.setInput(kDepth, textureToVariant(diffuse.get()));
    runFrame(pass);
    EXPECT_TRUE(sameImage(frame(), before, within(0)));
}

TEST_F(DeferredPass, TexturesInTypedFormWorkToo)
{
    pass.setInput(kDiffuse, QVariant::fromValue(diffuse.get()));
    pass.setInput(kSpecular, QVariant::fromValue(specular.get()));
    pass.setInput(kNormal, QVariant::fromValue(normal.get()));
    runFrame(pass);
    EXPECT_TRUE(sameImage(frame(), expected(), within(kEightBits)));
}

TEST_F(DeferredPass, AMissingTextureClearsTheFrameToTheClearColourAndRaisesNoError)
{
    for (int missing : {kDiffuse, kSpecular, kNormal}) {
        for (const QVariant &value : {QVariant(), QVariant::fromValue(static_cast<QObject *>(nullptr)), QVariant(17)}) {
            setUp(pass);
            runFrame(pass);
            pass.setInput(missing, value);
            glClearColor(0.2f, 0.4f, 0.6f, 0.8f);
            runFrame(pass);
            EXPECT_TRUE(sameImage(frame(), Image<float>(kWidth, kHeight, {0.2f, 0.4f, 0.6f, 0.8f}), within(kEightBits)))
                << "input " << missing;
        }
    }
}

TEST_F(DeferredPass, DrawsWithTheViewportThatIsCurrentOverTheCurrentClearColour)
{
    glClearColor(1, 0, 1, 1);
    glViewport(5, 4, kWidth, kHeight);
    const GlCalls calls;
    runFrame(pass);
    EXPECT_EQ(calls.count("glViewport"), 0);
    EXPECT_EQ(calls.count("glClearColor"), 0);
    EXPECT_EQ(calls.count("glClear", {GL_COLOR_BUFFER_BIT}), 1);
    const Image<float> inPlace = expected();
    Image<float> image(kWidth, kHeight, {1, 0, 1, 1});
    for (int y = 4; y < kHeight; ++y)
        for (int x = 5; x < kWidth; ++x)
            image.at(x, y) = inPlace.at(x - 5, y - 4);
    EXPECT_TRUE(sameImage(frame(), image, within(kEightBits)));
}

TEST_F(DeferredPass, DepthTestIsOffAfterwardsAndNothingElseChanges)
{
    runFrame(pass);
    const HostileGLState hostile;
    const GLStateSnapshot before;
    runFrame(pass);
    EXPECT_EQ(GLStateSnapshot().changedSince(before).join(QStringLiteral(", ")), QStringLiteral("depth test"));
    EXPECT_FALSE(glIsEnabled(GL_DEPTH_TEST));
}

TEST_F(DeferredPass, SwitchesTheDepthTestOffThenClearsThenSetsThreeSamplersThenDraws)
{
    runFrame(pass);
    const GlCalls calls;
    runFrame(pass);
    EXPECT_EQ(calls.sequence({"glDisable", "glClear", "glUniform1i", "glDrawArrays"}).join(u' '),
              QStringLiteral("glDisable glClear glUniform1i glUniform1i glUniform1i glDrawArrays"));
    std::vector<double> units;
    for (const GlCall &call : calls.calls("glUniform1i"))
        units.push_back(call.args[1]);
    EXPECT_EQ(units.size(), 3u);
    std::sort(units.begin(), units.end());
    EXPECT_TRUE(std::unique(units.begin(), units.end()) == units.end()) << "every texture has a unit of its own";
}

TEST_F(DeferredPass, PoolTexturesInItsInputsAreNotGivenBack)
{
    TextureManager &manager = TextureManager::Instance();
    Texture *pooled = manager.tempTexture(TextureFormat::Position, kWidth, kHeight);
    pass.setInput(kDiffuse, textureToVariant(pooled));
    pass.setInput(kSpecular, textureToVariant(pooled));
    pass.setInput(kNormal, textureToVariant(pooled));
    runFrame(pass);
    EXPECT_EQ(manager.tempTextureRefs(pooled), 1);
    manager.releaseTempTextureRef(pooled, 1);
}

TEST_F(DeferredPass, ChangeOfSizeReplacesTheTextureObject)
{
    runFrame(pass);
    const QPointer<Texture> before = outputTexture(pass, 0);
    pass.setInput(kViewport, QRect(0, 0, 7, 9));
    runFrame(pass);
    EXPECT_TRUE(before.isNull());
    EXPECT_EQ(stateOf(outputTexture(pass, 0)).width, 7);
    EXPECT_EQ(stateOf(outputTexture(pass, 0)).height, 9);
}

TEST_F(DeferredPass, TwoStartsAtOneSizeAllocateOnce)
{
    expectSecondStartAllocatesNothing(pass, 1);
}

TEST_F(DeferredPass, AViewportThatChangesEveryFrameRebuildsTheTargetAndLeaksNothing)
{
    expectResizingLeaksNothing(pass, 1);
}

TEST_F(DeferredPass, SteadyFrameCreatesNothing)
{
    expectSteadyFrameCreatesNothing(pass);
}

TEST_F(DeferredPass, SteadyFrameTakesNothingFromTheHeap)
{
    KVO_EXPECT_STEADY_FRAME_TAKES_NOTHING_FROM_THE_HEAP(pass);
}

TEST_F(DeferredPass, WithNothingConnectedTheTargetHasNoPixelsAndNoErrorOccurs)
{
    ModelDeferredPass unconnected;
    const GlCalls calls;
    runFrame(unconnected);
    EXPECT_EQ(calls.textureAllocations(), 1);
    EXPECT_EQ(stateOf(outputTexture(unconnected, 0)).width, 0);
}

TEST_F(DeferredPass, AnEmptyViewportRaisesNoGLError)
{
    expectEmptyViewportsRaiseNoError(pass);
}

TEST_F(DeferredPass, ACopyOfAnUnstartedPassIsIndependent)
{
    ModelDeferredPass copy(pass);
    ModelDeferredPass assigned;
    assigned = pass;
    assigned.setInput(kViewport, QRect(0, 0, 5, 5));
    runFrame(pass);
    runFrame(copy);
    runFrame(assigned);
    EXPECT_NE(outputTexture(pass, 0), outputTexture(copy, 0));
    EXPECT_TRUE(sameImage(frame(), expected(), within(kEightBits)));
    EXPECT_TRUE(sameImage(readTexture<float>(outputTexture(copy, 0)), expected(), within(kEightBits)));
    EXPECT_EQ(stateOf(outputTexture(assigned, 0)).width, 5);
}

TEST_F(DeferredPass, TeardownKeepsEverythingAndTheNextStartWorks)
{
    expectTeardownKeepsEverything(pass);
}

TEST_F(DeferredPass, DestructionFreesFramebufferProgramAndTarget)
{
    const int programs = GlCalls::live(GlKind::Program);
    const int framebuffers = GlCalls::live(GlKind::Framebuffer);
    QPointer<Texture> target;
    {
        ModelDeferredPass own;
        setUp(own);
        runFrame(own);
        target = outputTexture(own, 0);
        EXPECT_EQ(GlCalls::live(GlKind::Program), programs + 1);
        EXPECT_EQ(GlCalls::live(GlKind::Framebuffer), framebuffers + 1);
    }
    EXPECT_TRUE(target.isNull());
    EXPECT_EQ(GlCalls::live(GlKind::Program), programs);
    EXPECT_EQ(GlCalls::live(GlKind::Framebuffer), framebuffers);
}
