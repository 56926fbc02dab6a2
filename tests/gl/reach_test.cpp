#include "support/draw.h"
#include "support/gltest.h"
#include "support/image.h"
#include "support/passes.h"

#include <core/renderpasshelper.h>
#include <gl/texturemanager.h>
#include <host/passfactory.h>

#include <QRect>

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <random>

// How far around a pixel the passes read, as they say it: a texel that changes is seen no further away.

using namespace Brevane::Kvo;
using namespace Brevane::Kvo::Test;

namespace {

constexpr int kWidth = 96;
constexpr int kHeight = 80;
constexpr int kX = 50;
constexpr int kY = 37;

struct Number
{
    const char *slot;
    float value;
};

struct ReachCase
{
    const char *name;
    const char *className;
    const char *input; ///< Whose texel changes.
    std::vector<const char *> others; ///< Textures that stay.
    std::vector<Number> numbers;
};

class ReachTest : public GLTest, public ::testing::WithParamInterface<ReachCase>
{
protected:
    void TearDown() override
    {
        plain.reset();
        changed.reset();
        GLTest::TearDown();
    }

    static Image<float> noise()
    {
        std::mt19937 random(5);
        Image<float> image(kWidth, kHeight);
        for (int y = 0; y < kHeight; ++y)
            for (int x = 0; x < kWidth; ++x)
                image.at(x, y) = {float(random() % 100) / 100.0f, float(random() % 100) / 100.0f, float(random() % 2),
                                  1};
        return image;
    }

    static std::unique_ptr<RenderPassHelper> makePass()
    {
        std::unique_ptr<RenderPass> pass = passFactory().make(QString::fromLatin1(GetParam().className));
        return std::unique_ptr<RenderPassHelper>(dynamic_cast<RenderPassHelper *>(pass.release()));
    }

    static int slotOf(const RenderPassHelper &pass, const char *name)
    {
        const int slot = pass.findInput(QString::fromLatin1(name));
        EXPECT_GE(slot, 0) << name;
        return slot;
    }

    Image<float> pictureOf(Texture *input)
    {
        const std::unique_ptr<RenderPassHelper> pass = makePass();
        pass->setInput(0, QRect(0, 0, kWidth, kHeight));
        for (const char *name : GetParam().others)
            pass->setInput(slotOf(*pass, name), textureToVariant(plain.get()));
        pass->setInput(slotOf(*pass, GetParam().input), textureToVariant(input));
        for (const Number &number : GetParam().numbers) {
            const int slot = slotOf(*pass, number.slot);
            const bool isChoice = pass->inputInfo(slot)->kind == SlotKind::Choice;
            pass->setInput(slot, isChoice ? QVariant(int(number.value)) : QVariant(number.value));
        }
        pass->setNumOutputUsers(0, 1);
        runFrame(*pass);
        Texture *picture = textureFromVariant(pass->output(0));
        Image<float> image = readTexture<float>(picture);
        TextureManager::Instance().releaseTempTextureRef(picture, 1);
        return image;
    }

    // In texels of the input.
    static double reachOf(const RenderPassHelper &pass)
    {
        const auto valueOf = [&](const char *slot) {
            for (const Number &number : GetParam().numbers)
                if (qstrcmp(number.slot, slot) == 0)
                    return double(number.value);
            return pass.defaultValue(slotOf(pass, slot)).toDouble();
        };
        const Reach &reach = pass.passInfo()->reach;
        EXPECT_FALSE(reach.isWholeFrame);
        const double sum = reach.fixed + (reach.slot ? reach.perUnit * valueOf(reach.slot) : 0.0);
        return reach.times ? sum * std::max(1.0, valueOf(reach.times)) : sum;
    }

    std::unique_ptr<Texture> plain;
    std::unique_ptr<Texture> changed;
};

const ReachCase kCases[] = {
    {"Blend", "BlendRenderPass", "Kvo_KvoTexture*_FrameA", {"Kvo_KvoTexture*_FrameB"}, {{"Int_BlendMode", 12}}},
    {"Wireframe", "WireframeRenderPass", "Kvo_KvoTexture*_Id", {}, {}},
    {"Fxaa", "FastApproximateAntiAliasingRenderPass", "Kvo_KvoTexture*_Frame", {}, {{"Kvo_float_RcpFrameQuality", 1}}},
    {"CameraSpaceZBuffer", "CameraSpaceZBufferRenderPass", "Kvo_KvoTexture*_Depth", {}, {}},
    {"Blur", "GaussianBlurRenderPass", "Kvo_KvoTexture*_Input", {}, {{"Kvo_float_BlurRadius", 3.3f}}},
    {"BlurOfAHalf",
     "GaussianBlurRenderPass",
     "Kvo_KvoTexture*_Input",
     {},
     {{"Kvo_float_BlurRadius", 3.3f}, {"Kvo_float_ResolutionDivider", 2}}},
    {"Glow",
     "BlurAndCombineRenderPass",
     "Kvo_KvoTexture*_BlurFrame",
     {"Kvo_KvoTexture*_NormalFrame"},
     {{"Kvo_float_BlurRadius", 4.6f}, {"Kvo_float_GlowAmount", 1}}},
    {"MaskedBlur",
     "StencilBlurAndBlendRenderPass",
     "Kvo_KvoTexture*_BlurFrame",
     {"Kvo_KvoTexture*_NormalFrame"},
     {{"Kvo_float_BlurRadius", 2.1f}}},
};

INSTANTIATE_TEST_SUITE_P(Passes, ReachTest, ::testing::ValuesIn(kCases),
                         [](const auto &c) { return std::string(c.param.name); });

} // namespace

TEST_P(ReachTest, ATexelIsSeenNoFurtherAwayThanThePassSays)
{
    Image<float> image = noise();
    plain = makeTexture(image);
    auto &texel = image.at(kX, kY);
    for (int c = 0; c < 3; ++c)
        texel[std::size_t(c)] = texel[std::size_t(c)] > 0.5f ? 0.0f : 1.0f;
    changed = makeTexture(image);
    const Image<float> before = pictureOf(plain.get());
    const Image<float> after = pictureOf(changed.get());
    ASSERT_EQ(before.width, after.width);

    const double scale = double(kWidth) / before.width;
    double farthest = -1;
    for (int y = 0; y < before.height; ++y)
        for (int x = 0; x < before.width; ++x)
            if (before.at(x, y) != after.at(x, y)) {
                // Of the nearest part of a larger pixel.
                const double dx = std::max({0.0, kX - ((x + 1) * scale - 1), x * scale - kX});
                const double dy = std::max({0.0, kY - ((y + 1) * scale - 1), y * scale - kY});
                farthest = std::max({farthest, dx, dy});
            }
    EXPECT_GE(farthest, 0.0) << "the texel is seen nowhere";
    EXPECT_LE(farthest, reachOf(*makePass()));
}
