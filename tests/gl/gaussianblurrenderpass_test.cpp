#include "support/blurreference.h"
#include "support/draw.h"
#include "support/gltest.h"
#include "support/image.h"
#include "support/messages.h"
#include "support/passes.h"

#include <gl/guards.h>
#include <gl/opengldevicecontext.h>
#include <gl/texturemanager.h>
#include <renderpasses/gaussianblurrenderpass.h>

#include <QRect>

#include <epoxy/gl.h>

#include <memory>

using namespace Brevane::Kvo;
using namespace Brevane::Kvo::Test;

namespace {

enum Input { kViewport, kInput, kBlurRadius, kResolutionDivider, kStencil, kStencilMaterial };

// What a derived pass can reach of the base.
class KernelProbe : public GaussianBlurRenderPass
{
public:
    using GaussianBlurRenderPass::GaussianBlurRenderPass;
    void setRadius(float radius)
    {
        _blurRadius = radius;
        calculateBlurWeights();
    }
    const QVector<float> &weights() const { return _weights; }
    const QVector<float> &offsets() const { return _offsets; }
    QString fragmentText() { return getBaseFragmentShaderSource(); }
    std::unique_ptr<ShaderProgram> program()
    {
        return std::unique_ptr<ShaderProgram>(makeShaderProgram(getBaseFragmentShaderSource()));
    }
};

// The result is stored twice in half floats of values up to 1, and llvmpipe cuts what does not fit: up
// to 2^-11 each time, and filtering between two half floats adds about half of that again.
constexpr double kHalfFloatTwice = 1.5e-3;

class GaussianBlur : public GLTest
{
protected:
    void SetUp() override
    {
        GLTest::SetUp();
        owned = std::make_unique<GaussianBlurRenderPass>();
    }
    void TearDown() override
    {
        owned.reset();
        GLTest::TearDown();
    }
    void connect(Texture *input, int width, int height, float radius)
    {
        owned->setInput(kViewport, QRect(0, 0, width, height));
        owned->setInput(kInput, textureToVariant(input));
        owned->setInput(kBlurRadius, radius);
        glViewport(0, 0, width, height);
    }
    Image<float> result() { return readTexture<float>(outputTexture(*owned, 0)); }

    std::unique_ptr<GaussianBlurRenderPass> owned;
};

} // namespace

TEST_F(GaussianBlur, SlotsHaveTheirNamesOrderAndDefaults)
{
    expectSlots(GaussianBlurRenderPass(),
                {{"Kvo_QRect_Viewport"},
                 {"Kvo_KvoTexture*_Input"},
                 {"Kvo_float_BlurRadius"},
                 {"Kvo_float_ResolutionDivider", 1.0f},
                 {"Kvo_KvoTexture*_Stencil"},
                 {"Kvo_int_StencilMaterial", -1}},
                {"Kvo_KvoTexture*_Output"});
}

TEST_F(GaussianBlur, KernelsHaveTheDigitsOfTheTable)
{
    struct Row
    {
        float radius;
        std::vector<float> weights;
        std::vector<float> offsets;
    };
    const std::vector<Row> table{
        {0.4f, {1.0f}, {0.0f}},
        {1.0f, {0.402583f, 0.298709f}, {0.0f, 1.18247f}},
        {1.5f, {0.292069f, 0.353965f}, {0.0f, 1.339264f}},
        {2.0f, {0.204155f, 0.304001f, 0.093922f}, {0.0f, 1.407343f, 3.294233f}},
        {2.5f, {0.171577f, 0.282981f, 0.13123f}, {0.0f, 1.440291f, 3.363558f}},
        {3.0f, {0.137019f, 0.239333f, 0.139443f, 0.052715f}, {0.0f, 1.458432f, 3.403991f, 5.351815f}},
        {3.2f, {0.13005f, 0.23083f, 0.143349f, 0.060796f}, {0.0f, 1.463446f, 3.415378f, 5.368868f}},
        {5.0f,
         {0.082717f, 0.157437f, 0.129157f, 0.090435f, 0.054046f, 0.027566f},
         {0.0f, 1.485005f, 3.465058f, 5.445223f, 7.42556f, 9.406131f}},
    };
    KernelProbe probe;
    for (const Row &row : table) {
        probe.setRadius(row.radius);
        ASSERT_EQ(probe.weights().size(), qsizetype(row.weights.size())) << row.radius;
        ASSERT_EQ(probe.offsets().size(), qsizetype(row.offsets.size())) << row.radius;
        for (qsizetype i = 0; i < probe.weights().size(); ++i) {
            EXPECT_NEAR(probe.weights()[i], row.weights[size_t(i)], 0.5e-6) << row.radius << " " << i;
            EXPECT_NEAR(probe.offsets()[i], row.offsets[size_t(i)], 0.6e-6) << row.radius << " " << i;
        }
    }
}

TEST_F(GaussianBlur, KernelsOfRadiiUpTo40HaveTheStatedLengthAndSumToOne)
{
    KernelProbe probe;
    for (int step = -10; step <= 400; ++step) {
        const float radius = float(step) * 0.1f;
        probe.setRadius(radius);
        int n = 1;
        while (float(n) < 2.0f * radius)
            n += 2;
        ASSERT_EQ(probe.weights().size(), (n + 1) / 2) << radius;
        ASSERT_EQ(probe.offsets().size(), (n + 1) / 2) << radius;
        EXPECT_EQ(probe.offsets()[0], 0.0f);
        double sum = probe.weights()[0];
        for (qsizetype i = 1; i < probe.weights().size(); ++i) {
            sum += 2.0 * double(probe.weights()[i]);
            // Each fetch lies between the two texels it stands for.
            EXPECT_GT(probe.offsets()[i], float(2 * i - 1)) << radius;
            EXPECT_LT(probe.offsets()[i], float(2 * i)) << radius;
        }
        EXPECT_NEAR(sum, 1.0, 2e-6) << radius;
    }
}

TEST_F(GaussianBlur, ARadiusOf0Point6HasThreeTapsAnd2Point5StopsAtFive)
{
    KernelProbe probe;
    probe.setRadius(0.6f);
    EXPECT_EQ(probe.weights().size(), 2);
    probe.setRadius(2.5f);
    EXPECT_EQ(probe.weights().size(), 3);
    probe.setRadius(0.5f);
    EXPECT_EQ(probe.weights(), QVector<float>{1.0f});
    probe.setRadius(-3.0f);
    EXPECT_EQ(probe.weights().size(), 1);
}

TEST_F(GaussianBlur, AProgramMadeBeforeAnyKernelHasOneTap)
{
    KernelProbe probe;
    const auto program = probe.program();
    EXPECT_TRUE(program->isLinked()) << qPrintable(program->log());
    EXPECT_TRUE(program->hasUniform(QStringLiteral("weight")));
    // Whether the offsets, which no round of the loop reads, are left in is the compiler's affair.
    const char *weights = "weight[0]";
    GLuint index = GL_INVALID_INDEX;
    glGetUniformIndices(program->programID(), 1, &weights, &index);
    ASSERT_NE(index, GL_INVALID_INDEX);
    GLint taps = 0;
    glGetActiveUniformsiv(program->programID(), 1, &index, GL_UNIFORM_SIZE, &taps);
    EXPECT_EQ(taps, 1);
}

TEST_F(GaussianBlur, TwoStagesGiveTheDirectTwoDimensionalSum)
{
    const Image<float> source = noiseImage(37, 23);
    const auto input = makeTexture(source);
    for (const float radius : {1.01f, 1.5f, 3.2f, 5.0f}) {
        connect(input.get(), 37, 23, radius);
        runFrame(*owned);
        EXPECT_TRUE(sameImage(result(), directBlur(source, radius), within(kHalfFloatTwice))) << radius;
    }
}

TEST_F(GaussianBlur, AnotherRadiusIsToldApart)
{
    const Image<float> source = noiseImage(37, 23);
    const auto input = makeTexture(source);
    connect(input.get(), 37, 23, 3.0f);
    runFrame(*owned);
    EXPECT_FALSE(isSameImage(result(), directBlur(source, 3.3f), within(kHalfFloatTwice)));
}

TEST_F(GaussianBlur, ARadiusOfExactlyOnePassesTheInputThrough)
{
    const auto input = makeSolidTexture(8, 8, {0.25f, 0.5f, 0.75f, 1.0f});
    connect(input.get(), 8, 8, 1.0f);
    runFrame(*owned);
    EXPECT_EQ(outputTexture(*owned, 0), input.get());
    connect(input.get(), 8, 8, 1.01f);
    runFrame(*owned);
    EXPECT_NE(outputTexture(*owned, 0), input.get());
}

TEST_F(GaussianBlur, PassingThroughMakesNoGLCall)
{
    const auto input = makeSolidTexture(8, 8, {0.25f, 0.5f, 0.75f, 1.0f});
    const auto stencil = makeTexture(GL_DEPTH24_STENCIL8, 8, 8);
    for (const bool restricted : {false, true}) {
        connect(input.get(), 8, 8, 0.5f);
        owned->setInput(kStencil, restricted ? textureToVariant(stencil.get()) : QVariant());
        owned->setInput(kStencilMaterial, restricted ? 3 : -1);
        runFrame(*owned);
        const GlCalls calls;
        runFrame(*owned);
        EXPECT_TRUE(calls.all().empty()) << qPrintable(calls.toString());
    }
}

TEST_F(GaussianBlur, TheFirstStartBuildsAProgramEvenAtTheInitialRadius)
{
    const GlCalls calls;
    runFrame(*owned);
    EXPECT_EQ(calls.count("glLinkProgram") + calls.count("glCreateProgram"), 2) << qPrintable(calls.toString());
}

TEST_F(GaussianBlur, PassingThroughMovesTheReferencesOfAPoolTexture)
{
    TextureManager &pool = TextureManager::Instance();
    Texture *input = pool.tempTexture(TextureFormat::Frame, 8, 8);
    connect(input, 8, 8, 1.0f);
    owned->setNumOutputUsers(0, 3);
    runFrame(*owned);
    EXPECT_EQ(pool.tempTextureRefs(input), 3);
    pool.releaseTempTextureRef(input, 3);
}

TEST_F(GaussianBlur, DividersScaleTheTarget)
{
    const auto input = makeSolidTexture(8, 8, {0.25f, 0.5f, 0.75f, 1.0f});
    struct Row
    {
        float divider;
        int width;
        int height;
    };
    for (const Row &row : {Row{1.0f, 9, 5}, Row{0.5f, 18, 10}, Row{3.0f, 3, 1}, Row{2.0f, 4, 2}}) {
        connect(input.get(), 9, 5, 2.0f);
        owned->setInput(kResolutionDivider, row.divider);
        runFrame(*owned);
        const Image<float> image = result();
        EXPECT_EQ(image.width, row.width) << row.divider;
        EXPECT_EQ(image.height, row.height) << row.divider;
        EXPECT_TRUE(
            sameImage(image, Image<float>(row.width, row.height, {0.25f, 0.5f, 0.75f, 1.0f}), within(kHalfFloatTwice)));
    }
}

TEST_F(GaussianBlur, DividersBelowAHundredthActAsAHundredth)
{
    const auto input = makeSolidTexture(2, 2, {0.25f, 0.5f, 0.75f, 1.0f});
    for (const QVariant &divider : {QVariant(0.0f), QVariant(0.005f), QVariant(-4.0f), QVariant(QStringLiteral("x"))}) {
        connect(input.get(), 2, 3, 2.0f);
        owned->setInput(kResolutionDivider, divider);
        runFrame(*owned);
        EXPECT_EQ(result().width, 200);
        EXPECT_EQ(result().height, 300);
    }
}

TEST_F(GaussianBlur, AtHalfResolutionTheWholeImageIsShown)
{
    // A ramp stays a ramp under a blur, away from its ends.
    Image<float> ramp(64, 32);
    for (int y = 0; y < 32; ++y)
        for (int x = 0; x < 64; ++x)
            ramp.at(x, y) = {float(x + 0.5) / 64.0f, float(y + 0.5) / 32.0f, 0.0f, 1.0f};
    const auto input = makeTexture(ramp);
    connect(input.get(), 64, 32, 1.5f);
    owned->setInput(kResolutionDivider, 2.0f);
    runFrame(*owned);
    const Image<float> image = result();
    ASSERT_EQ(image.width, 32);
    for (int x = 4; x < 28; ++x)
        EXPECT_TRUE(isPixel(image, x, 8, {(x + 0.5) / 32.0, 8.5 / 16.0, 0.0, 1.0}, kHalfFloatTwice));
}

TEST_F(GaussianBlur, AnInputOfAnotherSizeIsResampledAtTheSameCoordinates)
{
    Image<float> source(4, 4);
    for (int y = 0; y < 4; ++y)
        for (int x = 0; x < 4; ++x)
            source.at(x, y) = {x < 2 ? 0.0f : 1.0f, 0.0f, 0.0f, 1.0f};
    const auto input = makeTexture(source);
    connect(input.get(), 40, 40, 2.0f);
    runFrame(*owned);
    const Image<float> image = result();
    EXPECT_EQ(image.width, 40);
    EXPECT_TRUE(isPixel(image, 5, 20, {0, 0, 0, 1}, kHalfFloatTwice));
    EXPECT_TRUE(isPixel(image, 34, 20, {1, 0, 0, 1}, kHalfFloatTwice));
    // In the middle between the two texel centres, by symmetry.
    EXPECT_NEAR((image.at(19, 20)[0] + image.at(20, 20)[0]) / 2.0f, 0.5, kHalfFloatTwice);
}

TEST_F(GaussianBlur, NoInputBlursBlack)
{
    connect(nullptr, 8, 8, 3.0f);
    owned->setInput(kInput, QVariant());
    runFrame(*owned);
    EXPECT_TRUE(sameImage(result(), Image<float>(8, 8, {0, 0, 0, 1}), within(0)));
}

TEST_F(GaussianBlur, TheTexelThatStandsForAMissingInputDoesNotSpoilThePool)
{
    owned->setInput(kBlurRadius, 3.0f);
    owned->setInput(kViewport, QRect(0, 0, 4, 4));
    runFrame(*owned);
    TextureManager &pool = TextureManager::Instance();
    Texture *texel = pool.tempTexture(TextureFormat::Frame, 1, 1);
    EXPECT_EQ(stateOf(texel).internalFormat, unsigned(GL_RGBA16F));
    pool.releaseTempTextureRef(texel, 1);
}

TEST_F(GaussianBlur, AStencilRestrictsTheBlurToItsMaterialAndTheRestIsOpaqueBlack)
{
    const Image<float> source = noiseImage(24, 16);
    const auto input = makeTexture(source);
    // Stencil 1 on the left half, 5 on the right: materials 0 and 4.
    QVector<quint32> values(24 * 16);
    for (int i = 0; i < values.size(); ++i)
        values[i] = i % 24 < 12 ? 1 : 5;
    Texture stencil;
    stencil.setTarget(GL_TEXTURE_2D);
    {
        AutoBinder bound(&stencil);
        glTexImage2D(GL_TEXTURE_2D, 0, GL_DEPTH24_STENCIL8, 24, 16, 0, GL_DEPTH_STENCIL, GL_UNSIGNED_INT_24_8,
                     values.constData());
    }
    Texture unsizedStencil;
    unsizedStencil.setTarget(GL_TEXTURE_2D);
    {
        AutoBinder bound(&unsizedStencil);
        glTexImage2D(GL_TEXTURE_2D, 0, GL_DEPTH_STENCIL, 24, 16, 0, GL_DEPTH_STENCIL, GL_UNSIGNED_INT_24_8,
                     values.constData());
    }
    for (const int material : {0, 4}) {
        connect(input.get(), 24, 16, 2.0f);
        owned->setInput(kStencil, textureToVariant(material == 0 ? &stencil : &unsizedStencil));
        owned->setInput(kStencilMaterial, material);
        glClearColor(0, 0, 0, 0);
        const GLStateSnapshot before;
        GlCalls calls;
        runFrame(*owned);
        EXPECT_EQ(calls.count("glStencilFunc", {GL_EQUAL, double(material + 1), 0xff}), 1);
        EXPECT_EQ(calls.count("glStencilOp", {GL_KEEP, GL_KEEP, GL_KEEP}), 1);
        GLint mask = -1;
        glGetIntegerv(GL_STENCIL_WRITEMASK, &mask);
        EXPECT_EQ(mask, 0) << "the write mask stays closed";
        EXPECT_FALSE(glIsEnabled(GL_STENCIL_TEST));
        glStencilMask(~0u);

        const Image<float> image = result();
        const bool left = material == 0;
        const Image<float> whole = directBlur(source, 2.0f);
        for (int y = 0; y < 16; ++y) {
            for (int x = 0; x < 24; ++x) {
                if ((x < 12) != left) {
                    EXPECT_TRUE(isPixel(image, x, y, {0, 0, 0, 1}, 0)) << "outside the material";
                } else if (left ? x < 9 : x >= 15) {
                    // Five taps reach two texels; nearer to the edge they read what the first stage left out.
                    const auto &e = whole.at(x, y);
                    EXPECT_TRUE(isPixel(image, x, y, {e[0], e[1], e[2], e[3]}, kHalfFloatTwice));
                }
            }
        }
    }
}

TEST_F(GaussianBlur, ANullStencilOrANegativeMaterialTurnsTheRestrictionOff)
{
    const Image<float> source = noiseImage(16, 16);
    const auto input = makeTexture(source);
    const MessageCapture messages;
    connect(input.get(), 16, 16, 2.0f);
    owned->setInput(kStencilMaterial, 3);
    GlCalls calls;
    runFrame(*owned);
    EXPECT_EQ(calls.count("glStencilFunc"), 0);
    EXPECT_TRUE(sameImage(result(), directBlur(source, 2.0f), within(kHalfFloatTwice)));
    EXPECT_TRUE(messages.all().isEmpty());
}

TEST_F(GaussianBlur, AStencilWiredWithANegativeMaterialKeepsItsReference)
{
    expectLeakedReferences();
    TextureManager &pool = TextureManager::Instance();
    Texture *stencil = pool.tempTexture(TextureFormat::DepthStencil, 8, 8);
    const auto input = makeSolidTexture(8, 8, {1, 1, 1, 1});
    connect(input.get(), 8, 8, 2.0f);
    owned->setInput(kStencil, textureToVariant(stencil));
    owned->setInput(kStencilMaterial, -1);
    runFrame(*owned);
    EXPECT_EQ(pool.tempTextureRefs(stencil), 1);
    pool.releaseTempTextureRef(stencil, 1);

    stencil = pool.tempTexture(TextureFormat::DepthStencil, 8, 8);
    owned->setInput(kStencil, textureToVariant(stencil));
    owned->setInput(kStencilMaterial, 0);
    runFrame(*owned);
    EXPECT_EQ(pool.tempTextureRefs(stencil), 0) << "with a material it is given back";
    glStencilMask(~0u);
}

TEST_F(GaussianBlur, PoolReferencesBalanceOnEveryPath)
{
    TextureManager &pool = TextureManager::Instance();
    for (const float radius : {0.0f, 1.0f, 4.0f}) {
        for (const bool connected : {false, true}) {
            Texture *input = connected ? pool.tempTexture(TextureFormat::Frame, 8, 8) : nullptr;
            Texture *stencil = connected ? pool.tempTexture(TextureFormat::DepthStencil, 8, 8) : nullptr;
            connect(input, 8, 8, radius);
            owned->setInput(kStencil, textureToVariant(stencil));
            // Where nothing is blurred, the material does not count.
            owned->setInput(kStencilMaterial, radius > 0.5f ? 0 : -1);
            owned->setNumOutputUsers(0, 2);
            runFrame(*owned);
            Texture *output = textureFromVariant(owned->output(0));
            if (output) {
                EXPECT_EQ(pool.tempTextureRefs(output), 2);
                pool.releaseTempTextureRef(output, 2);
            }
            if (stencil) {
                EXPECT_EQ(pool.tempTextureRefs(stencil), 0) << radius;
            }
            EXPECT_TRUE(pool.leakedReferences().isEmpty()) << qPrintable(pool.leakedReferences().join(u'\n'));
        }
    }
    glStencilMask(~0u);
}

TEST_F(GaussianBlur, WithNoUsersTheResultGoesBackAtOnceAndTheSlotStillNamesIt)
{
    const auto input = makeSolidTexture(8, 8, {1, 0, 0, 1});
    connect(input.get(), 8, 8, 2.0f);
    runFrame(*owned);
    EXPECT_EQ(TextureManager::Instance().tempTextureRefs(outputTexture(*owned, 0)), 0);
}

TEST_F(GaussianBlur, WithTheMaskSwitchTransparentTexelsPassUnblurred)
{
    Image<float> source = noiseImage(20, 12);
    for (int y = 0; y < 12; ++y)
        for (int x = 0; x < 10; ++x)
            source.at(x, y)[3] = 0.0f;
    const auto input = makeTexture(source);
    owned = std::make_unique<GaussianBlurRenderPass>(1.0f);
    connect(input.get(), 20, 12, 2.0f);
    runFrame(*owned);
    const Image<float> expected = maskedStage(maskedStage(source, 2.0f, 1, 0), 2.0f, 0, 1);
    EXPECT_TRUE(sameImage(result(), expected, within(kHalfFloatTwice)));
    EXPECT_TRUE(
        isPixel(result(), 3, 5, {source.at(3, 5)[0], source.at(3, 5)[1], source.at(3, 5)[2], 0.0}, kHalfFloatTwice));
}

TEST_F(GaussianBlur, ChangesOnlyTheStateThatItSays)
{
    const auto input = makeSolidTexture(8, 8, {1, 0, 0, 1});
    connect(input.get(), 8, 8, 2.0f);
    runFrame(*owned);
    glEnable(GL_DEPTH_TEST);
    glDepthMask(GL_TRUE);
    glClearColor(0.5f, 0.5f, 0.5f, 0.5f);
    glViewport(1, 2, 3, 4);
    const GLStateSnapshot before;
    runFrame(*owned);
    EXPECT_EQ(GLStateSnapshot().changedSince(before).join(QStringLiteral(", ")),
              QStringLiteral("clear colour, depth test, depth mask"));
}

TEST_F(GaussianBlur, SetsFilterAndWrapOfItsInput)
{
    const auto input = makeSolidTexture(8, 8, {1, 0, 0, 1});
    connect(input.get(), 8, 8, 2.0f);
    runFrame(*owned);
    EXPECT_EQ(stateOf(input.get()).minFilter, unsigned(GL_LINEAR));
    EXPECT_EQ(stateOf(input.get()).magFilter, unsigned(GL_LINEAR));
}

TEST_F(GaussianBlur, ProgramsOfEarlierRadiiAreGivenUpToTheContext)
{
    const auto input = makeSolidTexture(8, 8, {1, 0, 0, 1});
    const auto device = OpenGLDeviceContext::current();
    connect(input.get(), 8, 8, 2.0f);
    runFrame(*owned);
    const int before = device->givenUpCount();
    for (const float radius : {3.0f, 4.0f, 5.0f}) {
        owned->setInput(kBlurRadius, radius);
        runFrame(*owned);
    }
    EXPECT_EQ(device->givenUpCount(), before + 3);
}

TEST_F(GaussianBlur, ARadiusWithTheSameTapsCompilesNothing)
{
    const auto input = makeSolidTexture(8, 8, {1, 0, 0, 1});
    connect(input.get(), 8, 8, 3.2f);
    runFrame(*owned);
    owned->setInput(kBlurRadius, 3.4f);
    GlCalls calls;
    runFrame(*owned);
    EXPECT_EQ(calls.count("glCompileShader"), 0);
    EXPECT_EQ(calls.count("glLinkProgram"), 0);
}

TEST_F(GaussianBlur, SteadyFrameCreatesNothing)
{
    const auto input = makeSolidTexture(8, 8, {1, 0, 0, 1});
    connect(input.get(), 8, 8, 2.0f);
    expectSteadyFrameCreatesNothing(*owned);
}

TEST_F(GaussianBlur, AnEmptyViewportDrawsNothingAndWritesTheOutput)
{
    const auto input = makeSolidTexture(8, 8, {1, 0, 0, 1});
    connect(input.get(), 0, 0, 2.0f);
    owned->setInput(kViewport, QVariant());
    GlCalls calls;
    runFrame(*owned);
    EXPECT_EQ(calls.draws(), 0);
    EXPECT_NE(textureFromVariant(owned->output(0)), nullptr);
}

TEST_F(GaussianBlur, ACopyOfAnUnstartedPassIsIndependent)
{
    const auto input = makeSolidTexture(8, 8, {1, 0, 0, 1});
    connect(input.get(), 8, 8, 2.0f);
    GaussianBlurRenderPass copy(*owned);
    runFrame(*owned);
    runFrame(copy);
    EXPECT_TRUE(sameImage(readTexture<float>(outputTexture(copy, 0)), result(), within(0)));
}
