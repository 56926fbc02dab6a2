#include "support/allocations.h"
#include "support/draw.h"
#include "support/gltest.h"
#include "support/imagefiles.h"
#include "support/messages.h"
#include "support/passes.h"
#include "support/soiledpool.h"

#include <gl/guards.h>
#include <gl/texturemanager.h>
#include <renderpasses/backgroundimagerenderpass.h>

#include <QRect>

#include <epoxy/gl.h>

#include <memory>
#include <random>

using namespace Brevane::Kvo;
using namespace Brevane::Kvo::Test;

namespace {

enum Input { kViewport, kFrame, kDepth, kUrl1, kUrl2, kRatio, kRatio2, kNormal, kFloorId, kRatioFloor };

// Half floats up to 4, cut by llvmpipe; the images are 8 bits.
constexpr double kTolerance = 4e-3;
constexpr int kWidth = 12, kHeight = 6;

QString s(const char *text)
{
    return QString::fromLatin1(text);
}

// A frame of every colour, above 1 and with all alphas.
Image<float> frameImage()
{
    std::mt19937 random(5);
    Image<float> image(kWidth, kHeight);
    for (auto &pixel : image.pixels)
        for (float &channel : pixel)
            channel = float(random() % 200) / 128;
    return image;
}

// Normals of no meaning, with an id channel.
Image<float> normalImage()
{
    const float ids[] = {0, 1, -1, 3, -3, 8, -8, 0.4f, -0.7f, 3.9f, 300, -2};
    Image<float> image(kWidth, kHeight, {0.1f, 0.2f, 0.9f, 0});
    for (int y = 0; y < kHeight; ++y)
        for (int x = 0; x < kWidth; ++x)
            image.at(x, y)[3] = ids[(x + 5 * y) % 12];
    return image;
}

struct Ratios
{
    double one = 0, two = 0, floor = 0;
    int floorId = -1;
};

Image<float> reference(const Image<float> &frame, const Image<float> &normal, const Image<float> &one,
                       const Image<float> &two, const Ratios &ratios)
{
    Image<float> out(frame.width, frame.height);
    for (int y = 0; y < frame.height; ++y)
        for (int x = 0; x < frame.width; ++x) {
            const int id = std::abs(int(normal.at(x, y)[3])) - 1;
            for (size_t c = 0; c < 4; ++c) {
                const double color = double(frame.at(x, y)[c]);
                const double background = double(one.at(x, y)[c]) * ratios.one + double(two.at(x, y)[c]) * ratios.two;
                double value = color;
                if (id == -1)
                    value = background;
                else if (id == ratios.floorId)
                    value = color * ratios.floor + (1 - ratios.floor) * background;
                out.at(x, y)[c] = float(value);
            }
        }
    return out;
}

class BackgroundImage : public GLTest
{
protected:
    void SetUp() override
    {
        GLTest::SetUp();
        owned = std::make_unique<BackgroundImageRenderPass>();
        frameTexture = makeTexture(frameImage());
        normalTexture = makeTexture(normalImage());
        files.write("one.png", ImageFiles::pattern(kWidth, kHeight));
        files.write("two.png", ImageFiles::pattern(kWidth, kHeight, 77));
        one = texelsOf(ImageFiles::pattern(kWidth, kHeight), true);
        two = texelsOf(ImageFiles::pattern(kWidth, kHeight, 77), true);
    }
    void TearDown() override
    {
        owned.reset();
        frameTexture.reset();
        normalTexture.reset();
        GLTest::TearDown();
    }
    void connectAll()
    {
        owned->setInput(kViewport, QRect(0, 0, kWidth, kHeight));
        owned->setInput(kFrame, textureToVariant(frameTexture.get()));
        owned->setInput(kNormal, textureToVariant(normalTexture.get()));
        owned->setInput(kUrl1, files.path("one.png"));
        owned->setInput(kUrl2, files.path("two.png"));
    }
    void set(const Ratios &ratios)
    {
        owned->setInput(kRatio, float(ratios.one));
        owned->setInput(kRatio2, float(ratios.two));
        owned->setInput(kRatioFloor, float(ratios.floor));
        owned->setInput(kFloorId, ratios.floorId);
    }
    Image<float> drawn()
    {
        runFrame(*owned);
        return readTexture<float>(outputTexture(*owned, 0));
    }
    Image<float> expected(const Ratios &ratios) const
    {
        return reference(frameImage(), normalImage(), one, two, ratios);
    }

    ImageFiles files;
    Image<float> one, two;
    std::unique_ptr<Texture> frameTexture, normalTexture;
    std::unique_ptr<BackgroundImageRenderPass> owned;
};

} // namespace

TEST_F(BackgroundImage, SlotsHaveTheirNamesOrderAndDefaults)
{
    expectSlots(BackgroundImageRenderPass(),
                {{"Kvo_QRect_Viewport"},
                 {"Kvo_KvoTexture*_Frame"},
                 {"Kvo_KvoTexture*_Depth"},
                 {"Kvo_string_FadeImageUrl1"},
                 {"Kvo_string_FadeImageUrl2"},
                 {"Kvo_float_FadeRatio"},
                 {"Kvo_float_FadeRatio2"},
                 {"Kvo_KvoTexture*_Normal"},
                 {"Kvo_int_FloorMaterialId", -1},
                 {"Kvo_float_FadeRatioFloor"}},
                {"Kvo_KvoTexture*_Frame"});
}

TEST_F(BackgroundImage, ConstructingCopyingAndDestroyingMakesNoGLCall)
{
    expectNoGLCallBeforeStart<BackgroundImageRenderPass>();
}

TEST_F(BackgroundImage, EveryPixelFollowsTheFormula)
{
    connectAll();
    for (const Ratios &ratios : {Ratios{0.25, 0.75, 0.5, 2}, Ratios{1, 0, 0, 0}, Ratios{0, 1, 1, 7},
                                 Ratios{0.3, 0.1, 0.25, 299}, Ratios{2, 1.5, 3, 2}, Ratios{-0.5, 0.25, -1, 2}}) {
        set(ratios);
        const Image<float> actual = drawn();
        EXPECT_TRUE(sameImage(actual, expected(ratios), within(kTolerance))) << ratios.one << ' ' << ratios.floor;
        Ratios others = ratios;
        others.one += 0.1;
        EXPECT_FALSE(isSameImage(actual, expected(others), within(kTolerance)));
    }
}

TEST_F(BackgroundImage, RatiosBeyondOneAreTakenAsTheyAre)
{
    connectAll();
    set({2, 3, 0, -1});
    const Image<float> actual = drawn();
    const auto &a = one.at(0, 0), &b = two.at(0, 0);
    EXPECT_TRUE(
        isPixel(actual, 0, 0,
                {2.0 * a[0] + 3.0 * b[0], 2.0 * a[1] + 3.0 * b[1], 2.0 * a[2] + 3.0 * b[2], 2.0 * a[3] + 3.0 * b[3]},
                kTolerance))
        << "not clamped, in any channel";
}

TEST_F(BackgroundImage, RatiosOfZeroOrNoneMakeTheBackgroundTransparentBlack)
{
    connectAll();
    const Image<float> unconnected = drawn();
    EXPECT_TRUE(isPixel(unconnected, 0, 0, {0, 0, 0, 0}, 0));
    EXPECT_TRUE(sameImage(unconnected, expected({}), within(kTolerance))) << "the others keep the frame";
    set({});
    EXPECT_TRUE(sameImage(drawn(), unconnected, within(0)));
}

TEST_F(BackgroundImage, IdsCountWithEitherSign)
{
    connectAll();
    set({1, 0, 0, 2}); // so the floor shows the first image
    const Image<float> actual = drawn(), ids = normalImage();
    int floors = 0;
    for (int y = 0; y < kHeight; ++y)
        for (int x = 0; x < kWidth; ++x)
            if (std::abs(int(ids.at(x, y)[3])) == 3) {
                ++floors;
                const auto &p = one.at(x, y);
                EXPECT_TRUE(isPixel(actual, x, y, {p[0], p[1], p[2], p[3]}, kTolerance)) << ids.at(x, y)[3];
            }
    EXPECT_EQ(floors, 3 * kHeight) << "3, -3 and 3.9 are material 2";
}

TEST_F(BackgroundImage, AFloorOfMinusOneSelectsNoFloor)
{
    connectAll();
    const Ratios ratios{1, 1, 0.5, -1};
    set(ratios);
    const Image<float> none = drawn();
    EXPECT_TRUE(sameImage(none, expected(ratios), within(kTolerance)));
    EXPECT_TRUE(isPixel(none, 0, 0,
                        {double(one.at(0, 0)[0] + two.at(0, 0)[0]), double(one.at(0, 0)[1] + two.at(0, 0)[1]),
                         double(one.at(0, 0)[2] + two.at(0, 0)[2]), double(one.at(0, 0)[3] + two.at(0, 0)[3])},
                        kTolerance))
        << "id 0 is background, not floor";
    const Ratios frameOnFloor{1, 1, 1, -1};
    set(frameOnFloor);
    EXPECT_TRUE(sameImage(drawn(), expected(frameOnFloor), within(kTolerance)));
}

TEST_F(BackgroundImage, AFloorRatioOfOneShowsTheFrameAndOfZeroTheBackground)
{
    connectAll();
    const auto at = [](const Image<float> &image) { return image.at(3, 0); }; // id 3
    set({1, 0, 1, 2});
    const auto shown = at(drawn()), color = at(frameImage());
    set({1, 0, 0, 2});
    const auto sunk = at(drawn()), image = at(one);
    for (size_t c = 0; c < 4; ++c) {
        EXPECT_NEAR(shown[c], color[c], kTolerance);
        EXPECT_NEAR(sunk[c], image[c], kTolerance);
    }
}

TEST_F(BackgroundImage, IdsAreExactAlsoThroughALinearFilter)
{
    // A filter would let a neighbour's trace turn a 3 into 2.999.
    Image<float> ids(301, 3, {0, 0, 1, 0});
    for (int y = 0; y < 3; ++y)
        for (int x = 0; x < 301; ++x)
            ids.at(x, y)[3] = x % 2 ? 3.0f : 0.0f;
    const auto texture = makeTexture(ids);
    texture->bind();
    glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_MAG_FILTER, GL_LINEAR);
    glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_MIN_FILTER, GL_LINEAR);
    texture->unbind();
    const auto red = makeSolidTexture(301, 3, {1, 0, 0, 1});
    owned->setInput(kViewport, QRect(0, 0, 301, 3));
    owned->setInput(kFrame, textureToVariant(red.get()));
    owned->setInput(kNormal, textureToVariant(texture.get()));
    set({0, 0, 0.5, 2});
    const Image<float> image = drawn();
    for (int x = 0; x < 301; ++x) {
        const double value = x % 2 ? 0.5 : 0.0;
        ASSERT_TRUE(isPixel(image, x, 1, {value, 0, 0, value}, 0));
    }
}

TEST_F(BackgroundImage, EachImageIsLoadedOnce)
{
    connectAll();
    const Ratios ratios{0.5, 0.5, 0, -1};
    set(ratios);
    drawn();
    owned->setInput(kUrl1, files.path("two.png"));
    owned->setInput(kUrl2, files.path("missing.png"));
    const MessageCapture messages;
    const GlCalls calls;
    EXPECT_TRUE(sameImage(drawn(), expected(ratios), within(kTolerance)));
    EXPECT_EQ(calls.textureAllocations(), 0);
    EXPECT_EQ(messages.texts(), QStringList());
}

TEST_F(BackgroundImage, AnImageThatCannotBeLoadedIsTransparentAndTriedAgain)
{
    connectAll();
    const QString path = files.path("late.png");
    owned->setInput(kUrl1, path);
    const Ratios ratios{1, 0.5, 0, -1};
    set(ratios);
    const MessageCapture messages;
    const Image<float> nothing(kWidth, kHeight);
    for (int i = 0; i < 3; ++i)
        EXPECT_TRUE(
            sameImage(drawn(), reference(frameImage(), normalImage(), nothing, two, ratios), within(kTolerance)));
    EXPECT_EQ(messages.all().size(), 1) << "one message, not one a frame";
    files.write("late.png", ImageFiles::pattern(kWidth, kHeight));
    EXPECT_TRUE(sameImage(drawn(), expected(ratios), within(kTolerance)));
}

TEST_F(BackgroundImage, FilesThatAreNoImagesGiveOneMessageAndNoImage)
{
    connectAll();
    set({1, 0, 0, -1});
    for (const auto &[name, bytes] : ImageFiles::badFiles()) {
        owned->setInput(kUrl1, files.write(name, bytes));
        const MessageCapture messages;
        drawn();
        EXPECT_TRUE(isPixel(drawn(), 0, 0, {0, 0, 0, 0}, 0)) << name;
        EXPECT_EQ(messages.all().size(), 1) << name << '\n' << qPrintable(messages.texts().join(u'\n'));
    }
}

TEST_F(BackgroundImage, TheTextureManagerKeepsTheImagesForOthers)
{
    connectAll();
    drawn();
    owned.reset();
    const GlCalls calls;
    EXPECT_NE(TextureManager::Instance().textureFromFile(files.path("one.png")), nullptr);
    EXPECT_EQ(calls.textureAllocations(), 0);
}

TEST_F(BackgroundImage, WithoutNormalsNothingCountsAsDrawn)
{
    connectAll();
    const Ratios ratios{0.5, 0.25, 0.5, 2};
    set(ratios);
    owned->setInput(kNormal, QVariant());
    soilPool({TextureFormat::Frame}, kWidth, kHeight);
    TextureManager &pool = TextureManager::Instance();
    const auto before = pool.statistics();
    const Image<float> nothing(kWidth, kHeight);
    EXPECT_TRUE(sameImage(drawn(), reference(frameImage(), nothing, one, two, ratios), within(kTolerance)));
    EXPECT_EQ(pool.statistics().inUse, before.inUse);
}

TEST_F(BackgroundImage, WithoutAFrameItCountsAsTransparentBlack)
{
    connectAll();
    owned->setInput(kFrame, QVariant());
    const Ratios ratios{0.5, 0.25, 0.5, 2};
    set(ratios);
    EXPECT_TRUE(sameImage(drawn(), reference(Image<float>(kWidth, kHeight), normalImage(), one, two, ratios),
                          within(kTolerance)));
}

TEST_F(BackgroundImage, DepthAndStencilHaveNoEffect)
{
    connectAll();
    const Ratios ratios{0.5, 0.25, 0.5, 2};
    set(ratios);
    const std::vector<unsigned int> nearAndMarked(size_t(kWidth * kHeight), 5); // depth 0, stencil 5
    const auto depthStencil = makeTexture(GL_DEPTH24_STENCIL8, kWidth, kHeight, nearAndMarked.data());
    const std::vector<float> nearest(size_t(kWidth * kHeight), 0.0f);
    const auto depth = makeTexture(GL_DEPTH_COMPONENT32F, kWidth, kHeight, nearest.data());
    for (Texture *texture : {depthStencil.get(), depth.get()}) {
        owned->setInput(kDepth, textureToVariant(texture));
        glEnable(GL_DEPTH_TEST);
        glEnable(GL_STENCIL_TEST);
        glStencilFunc(GL_NEVER, 0, 0xff);
        EXPECT_TRUE(sameImage(drawn(), expected(ratios), within(kTolerance)));
    }
    EXPECT_EQ(readStencil(depthStencil.get()).at(1, 1)[0], 5);
    EXPECT_EQ(readDepth(depth.get()).at(1, 1)[0], 0.0f);
}

TEST_F(BackgroundImage, ANewSizeKeepsTheFramebufferAndTakesLargerTextures)
{
    connectAll();
    set({1, 0, 0, -1});
    runFrame(*owned);
    const GlCalls calls;
    owned->setInput(kViewport, QRect(5, 5, 2 * kWidth, 2 * kHeight));
    runFrame(*owned);
    EXPECT_EQ(calls.created(GlKind::Framebuffer), 0);
    EXPECT_EQ(calls.count("glLinkProgram"), 0);
    EXPECT_EQ(calls.count("glViewport", {0, 0, 2 * kWidth, 2 * kHeight}), 1);
    EXPECT_EQ(stateOf(outputTexture(*owned, 0)).width, 2 * kWidth);
    EXPECT_EQ(stateOf(outputTexture(*owned, 0)).internalFormat, unsigned(GL_RGBA16F));
}

TEST_F(BackgroundImage, PoolReferencesBalance)
{
    TextureManager &pool = TextureManager::Instance();
    std::array<Texture *, 3> inputs{};
    for (Texture *&texture : inputs)
        texture = pool.tempTexture(&texture == &inputs[1] ? TextureFormat::DepthStencil : TextureFormat::Frame, 4, 4);
    owned->setInput(kViewport, QRect(0, 0, 4, 4));
    owned->setInput(kFrame, textureToVariant(inputs[0]));
    owned->setInput(kDepth, textureToVariant(inputs[1]));
    owned->setInput(kNormal, textureToVariant(inputs[2]));
    owned->setNumOutputUsers(0, 1);
    runFrame(*owned);
    for (Texture *texture : inputs)
        EXPECT_EQ(pool.tempTextureRefs(texture), 0);
    EXPECT_EQ(pool.tempTextureRefs(outputTexture(*owned, 0)), 1);
    pool.releaseTempTextureRef(outputTexture(*owned, 0), 1);
}

TEST_F(BackgroundImage, TexturesAreBoundInTheirOrder)
{
    connectAll();
    const auto depth = makeTexture(GL_DEPTH24_STENCIL8, kWidth, kHeight);
    owned->setInput(kDepth, textureToVariant(depth.get()));
    runFrame(*owned);
    const GlCalls calls;
    runFrame(*owned);
    const int frameAt = calls.indexOf("glBindTexture", {GL_TEXTURE_2D, double(frameTexture->textureID())});
    const int normalAt = calls.indexOf("glBindTexture", {GL_TEXTURE_2D, double(normalTexture->textureID())});
    // The first bind of the depth texture asks for its format.
    const int depthAt = calls.indexOf("glBindTexture", {GL_TEXTURE_2D, double(depth->textureID())}, 1);
    const int programAt = calls.indexOf("glUseProgram");
    ASSERT_GE(programAt, 0);
    EXPECT_LT(programAt, depthAt);
    EXPECT_LT(depthAt, normalAt);
    EXPECT_LT(normalAt, frameAt);
}

TEST_F(BackgroundImage, ChangesOnlyTheStateThatItSaysAndRestoresNoneOfIt)
{
    connectAll();
    runFrame(*owned);
    glEnable(GL_DEPTH_TEST);
    glDepthMask(GL_TRUE);
    glEnable(GL_STENCIL_TEST);
    glStencilMask(0x3f);
    glStencilFunc(GL_NEVER, 3, 0x1f);
    glViewport(1, 2, 3, 4);
    const GLStateSnapshot before;
    const GlCalls calls;
    runFrame(*owned);
    EXPECT_EQ(GLStateSnapshot().changedSince(before).join(s(", ")).toStdString(),
              "viewport, depth test, stencil test, depth mask, stencil mask, stencil function, stencil value mask");
    EXPECT_EQ(calls.count("glStencilFunc", {GL_EQUAL, 0, 0xff}), 1);
    EXPECT_EQ(calls.count("glStencilOp", {GL_KEEP, GL_KEEP, GL_KEEP}), 1);
    EXPECT_EQ(calls.count("glStencilMask", {0}), 1);
    EXPECT_EQ(calls.count("glDepthMask", {GL_FALSE}), 1);
    EXPECT_EQ(calls.count("glClear"), 0);
}

TEST_F(BackgroundImage, SetupMakesANewFramebufferEachTimeAndTeardownFreesNothing)
{
    connectAll();
    set({1, 0, 0, -1});
    GlCalls calls;
    owned->setup(nullptr);
    EXPECT_EQ(calls.count("glLinkProgram"), 1);
    runFrame(*owned);
    EXPECT_EQ(calls.created(GlKind::Framebuffer), 1) << "start makes none when setup has";
    calls.clear();
    owned->teardown(nullptr);
    owned->teardownContextData(nullptr);
    EXPECT_TRUE(calls.all().empty());
    owned->setup(nullptr);
    EXPECT_EQ(calls.count("glLinkProgram"), 0);
    EXPECT_TRUE(sameImage(drawn(), expected({1, 0, 0, -1}), within(kTolerance)));
    EXPECT_EQ(calls.created(GlKind::Framebuffer), 1);
}

TEST_F(BackgroundImage, EmptyViewportsRaiseNoError)
{
    connectAll();
    expectEmptyViewportsRaiseNoError(*owned);
}

TEST_F(BackgroundImage, WithNothingConnectedItRunsWithoutAWord)
{
    const MessageCapture messages;
    runFrame(*owned);
    owned->setInput(kViewport, QRect(0, 0, 4, 4));
    runFrame(*owned);
    EXPECT_EQ(messages.texts(), QStringList());
    for (int input = 1; input < owned->numInputs(); ++input)
        owned->setInput(input, QVariant::fromValue(QRect(1, 2, 3, 4)));
    runFrame(*owned);
    EXPECT_NE(outputTexture(*owned, 0), nullptr);
    EXPECT_EQ(messages.containing(QStringLiteral("a value of type 'QRect' is none")), owned->numInputs() - 1);
    EXPECT_EQ(messages.texts().size(), owned->numInputs() - 1);
}

TEST_F(BackgroundImage, SteadyFrameCreatesNothing)
{
    connectAll();
    expectSteadyFrameCreatesNothing(*owned);
}

TEST_F(BackgroundImage, SteadyFrameTakesNothingFromTheHeap)
{
    connectAll();
    set({0.5, 0.5, 0.5, 2});
    KVO_EXPECT_STEADY_FRAME_TAKES_NOTHING_FROM_THE_HEAP(*owned);
}
