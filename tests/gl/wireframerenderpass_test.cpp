#include "support/draw.h"
#include "support/gltest.h"
#include "support/image.h"
#include "support/passes.h"

#include <gl/texturemanager.h>
#include <renderpasses/wireframerenderpass.h>

#include <QColor>
#include <QRect>

#include <epoxy/gl.h>

#include <algorithm>
#include <memory>
#include <random>

using namespace Brevane::Kvo;
using namespace Brevane::Kvo::Test;

namespace {

enum Input { kViewport, kId, kWireColor };

// A half float of a value up to 1, cut by llvmpipe.
constexpr double kHalfFloat = 1e-3;

Image<float> idImage(int width, int height)
{
    std::mt19937 random(3);
    Image<float> ids(width, height);
    for (int y = 0; y < height; ++y) {
        for (int x = 0; x < width; ++x) {
            const float primitive = float(1 + x / 5 + 10 * (y / 4));
            const float triangle = float((x + y) / 3 % 2);
            // Green and alpha are noise, red and blue a little off whole numbers.
            ids.at(x, y) = {primitive - 0.00001f, float(random() % 100), triangle + 0.05f, float(random() % 100)};
        }
    }
    for (int i = 0; i < 12; ++i)
        ids.at(int(random() % unsigned(width)), int(random() % unsigned(height)))[0] = float(200 + i);
    return ids;
}

Image<float> counted(const Image<float> &ids, const std::array<double, 4> &color)
{
    const auto whole = [](float value) { return int(std::floor(double(value) + 0.1)); };
    Image<float> out(ids.width, ids.height);
    for (int y = 0; y < ids.height; ++y) {
        for (int x = 0; x < ids.width; ++x) {
            const auto &centre = ids.at(x, y);
            double alpha = 0;
            for (int dy = -1; dy <= 1; ++dy) {
                for (int dx = -1; dx <= 1; ++dx) {
                    const auto &other =
                        ids.at(std::clamp(x + dx, 0, ids.width - 1), std::clamp(y + dy, 0, ids.height - 1));
                    if (whole(other[0]) != whole(centre[0]))
                        alpha += 1;
                    else if (whole(other[2]) != whole(centre[2]))
                        alpha += 0.33;
                }
            }
            for (size_t c = 0; c < 4; ++c)
                out.at(x, y)[c] = float(color[c] * alpha / 8);
        }
    }
    return out;
}

class Wireframe : public GLTest
{
protected:
    void SetUp() override
    {
        GLTest::SetUp();
        owned = std::make_unique<WireframeRenderPass>();
    }
    void TearDown() override
    {
        owned.reset();
        GLTest::TearDown();
    }
    Image<float> result() { return readTexture<float>(outputTexture(*owned, 0)); }
    Image<float> drawn(const Image<float> &ids, const QVariant &color)
    {
        const auto texture = makeTexture(ids);
        owned->setInput(kViewport, QRect(0, 0, ids.width, ids.height));
        owned->setInput(kId, textureToVariant(texture.get()));
        owned->setInput(kWireColor, color);
        runFrame(*owned);
        return result();
    }

    std::unique_ptr<WireframeRenderPass> owned;
};

Image<float> surrounded(std::array<float, 4> centre, std::array<float, 4> around)
{
    Image<float> ids(3, 3, around);
    ids.at(1, 1) = centre;
    return ids;
}

} // namespace

TEST_F(Wireframe, SlotsHaveTheirNamesOrderAndDefaults)
{
    expectSlots(WireframeRenderPass(), {{"Kvo_QRect_Viewport"}, {"Kvo_KvoTexture*_Id"}, {"Kvo_QColor_WireColor"}},
                {"Kvo_KvoTexture*_Frame"});
}

TEST_F(Wireframe, EdgesAreABruteForceCountOfNeighbours)
{
    const Image<float> ids = idImage(41, 29);
    const QColor color(255, 102, 51, 204);
    EXPECT_TRUE(sameImage(drawn(ids, color), counted(ids, {1.0, 0.4, 0.2, 0.8}), within(kHalfFloat)));
    EXPECT_FALSE(isSameImage(drawn(ids, color), counted(ids, {1.0, 0.4, 0.2, 0.7}), within(kHalfFloat)));
}

TEST_F(Wireframe, WithNoColourTheWireIsOpaqueBlack)
{
    const Image<float> ids = idImage(20, 12);
    EXPECT_TRUE(sameImage(drawn(ids, QVariant()), counted(ids, {0, 0, 0, 1}), within(kHalfFloat)));
}

// The switch that pipelines have: no colour, no wires, and no look at nine ids for every pixel.
TEST_F(Wireframe, AColourOfNothingDrawsNothing)
{
    const Image<float> ids = idImage(41, 29);
    glClearColor(0.5f, 0.25f, 1.0f, 1.0f);
    const GlCalls calls;
    EXPECT_TRUE(sameImage(drawn(ids, QColor(0, 0, 0, 0)), Image<float>(41, 29), within(0)));
    EXPECT_EQ(calls.draws(), 0);
    // Alpha alone does not say so: all channels are scaled alike.
    EXPECT_TRUE(sameImage(drawn(ids, QColor(255, 0, 0, 0)), counted(ids, {1, 0, 0, 0}), within(kHalfFloat)));
    EXPECT_EQ(calls.draws(), 1);
    glClearColor(0, 0, 0, 0);
}

TEST_F(Wireframe, InsideOneTriangleTheOutputIsZero)
{
    const Image<float> image = drawn(Image<float>(3, 3, {7, 0, 2, 0}), QColor(Qt::white));
    EXPECT_TRUE(sameImage(image, Image<float>(3, 3), within(0)));
}

TEST_F(Wireframe, APixelWhoseNeighboursAllShowOtherPrimitivesTakesTheWholeColour)
{
    const Image<float> image = drawn(surrounded({1, 0, 0, 0}, {2, 0, 0, 0}), QColor(255, 0, 255, 255));
    EXPECT_TRUE(isPixel(image, 1, 1, {1, 0, 1, 1}, 0));
}

TEST_F(Wireframe, APixelWhoseNeighboursAllShowOtherTrianglesOfThePrimitiveTakesAThird)
{
    const Image<float> image = drawn(surrounded({1, 0, 4, 0}, {1, 0, 5, 0}), QColor(Qt::white));
    EXPECT_TRUE(isPixel(image, 1, 1, {0.33, 0.33, 0.33, 0.33}, kHalfFloat));
}

TEST_F(Wireframe, GreenAndAlphaOfTheIdsHaveNoEffect)
{
    const Image<float> image = drawn(surrounded({1, 5, 4, 6}, {1, 7, 4, 8}), QColor(Qt::white));
    EXPECT_TRUE(sameImage(image, Image<float>(3, 3), within(0)));
}

TEST_F(Wireframe, ValuesALittleBelowAWholeNumberCountAsIt)
{
    const Image<float> image = drawn(surrounded({0.99999f, 0, 0.95f, 0}, {1, 0, 1, 0}), QColor(Qt::white));
    EXPECT_TRUE(isPixel(image, 1, 1, {0, 0, 0, 0}, 0));
}

TEST_F(Wireframe, AtTheBorderNeighboursFollowTheWrapOfTheIdTexture)
{
    Image<float> ids(4, 4, {1, 0, 0, 0});
    for (int y = 0; y < 4; ++y)
        ids.at(3, y)[0] = 2;
    const auto texture = makeTexture(ids);
    texture->bind();
    glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_WRAP_S, GL_REPEAT);
    texture->unbind();
    owned->setInput(kViewport, QRect(0, 0, 4, 4));
    owned->setInput(kId, textureToVariant(texture.get()));
    owned->setInput(kWireColor, QColor(Qt::white));
    runFrame(*owned);
    EXPECT_TRUE(isPixel(result(), 0, 1, {0.375, 0.375, 0.375, 0.375}, kHalfFloat)) << "three neighbours across";
    EXPECT_TRUE(isPixel(result(), 1, 1, {0, 0, 0, 0}, 0));
}

TEST_F(Wireframe, WithoutAnIdTextureTheOutputIsNullAndNoPoolTextureIsTaken)
{
    drawn(idImage(8, 8), QVariant());
    const auto before = TextureManager::Instance().statistics();
    owned->setInput(kId, QVariant());
    GlCalls calls;
    runFrame(*owned);
    EXPECT_FALSE(owned->output(0).isValid());
    EXPECT_TRUE(calls.all().empty());
    const auto after = TextureManager::Instance().statistics();
    EXPECT_EQ(after.hits + after.misses, before.hits + before.misses);
}

TEST_F(Wireframe, TheViewportTakesTheOriginOfTheRectangle)
{
    const auto texture = makeTexture(idImage(8, 8));
    owned->setInput(kViewport, QRect(2, 3, 8, 8));
    owned->setInput(kId, textureToVariant(texture.get()));
    GlCalls calls;
    runFrame(*owned);
    EXPECT_EQ(calls.count("glViewport", {2, 3, 8, 8}), 1);
    EXPECT_EQ(stateOf(outputTexture(*owned, 0)).internalFormat, unsigned(GL_RGBA16F));
}

TEST_F(Wireframe, PoolReferencesBalance)
{
    TextureManager &pool = TextureManager::Instance();
    Texture *ids = pool.tempTexture(TextureFormat::Result, 4, 4);
    owned->setInput(kViewport, QRect(0, 0, 4, 4));
    owned->setInput(kId, textureToVariant(ids));
    owned->setNumOutputUsers(0, 1);
    runFrame(*owned);
    EXPECT_EQ(pool.tempTextureRefs(ids), 0);
    EXPECT_EQ(pool.tempTextureRefs(outputTexture(*owned, 0)), 1);
    pool.releaseTempTextureRef(outputTexture(*owned, 0), 1);
}

TEST_F(Wireframe, ChangesOnlyTheStateThatItSays)
{
    const auto texture = makeTexture(idImage(8, 8));
    owned->setInput(kViewport, QRect(0, 0, 8, 8));
    owned->setInput(kId, textureToVariant(texture.get()));
    runFrame(*owned);
    glEnable(GL_DEPTH_TEST);
    glViewport(1, 2, 3, 4);
    const GLStateSnapshot before;
    runFrame(*owned);
    EXPECT_EQ(GLStateSnapshot().changedSince(before).join(QStringLiteral(", ")),
              QStringLiteral("viewport, depth test"));
}

TEST_F(Wireframe, SteadyFrameCreatesNothing)
{
    const auto texture = makeTexture(idImage(8, 8));
    owned->setInput(kViewport, QRect(0, 0, 8, 8));
    owned->setInput(kId, textureToVariant(texture.get()));
    expectSteadyFrameCreatesNothing(*owned);
}

TEST_F(Wireframe, AnEmptyViewportDrawsNothingAndWritesTheOutput)
{
    const auto texture = makeTexture(idImage(8, 8));
    owned->setInput(kId, textureToVariant(texture.get()));
    GlCalls calls;
    runFrame(*owned);
    EXPECT_EQ(calls.draws(), 0);
    EXPECT_NE(outputTexture(*owned, 0), nullptr);
}
