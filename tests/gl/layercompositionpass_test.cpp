#include "support/draw.h"
#include "support/gltest.h"
#include "support/passes.h"

#include <gl/texture.h>
#include <gl/texturemanager.h>
#include <host/layercompositionpass.h>
#include <host/passfactory.h>

#include <QRect>

#include <epoxy/gl.h>

#include <array>
#include <memory>
#include <vector>

namespace Brevane::Kvo {

using namespace Test;

namespace {

constexpr int kWidth = 5;
constexpr int kHeight = 3;

using Texels = std::vector<std::array<float, 4>>;

class LayerComposition : public GLTest
{
protected:
    void TearDown() override
    {
        ownedPass.reset();
        GLTest::TearDown();
    }

    static std::unique_ptr<Texture> textureOf(const Texels &texels)
    {
        return makeTexture(GL_RGBA32F, kWidth, kHeight, texels.data());
    }

    // Colours beyond 1 too, and all from nothing to everything that comes through.
    static Texels ramp(int seed)
    {
        Texels texels;
        for (int i = 0; i < kWidth * kHeight; ++i) {
            const auto value = [&](int channel) { return float((i * 7 + channel * 5 + seed) % 16) / 8.0f; };
            texels.push_back({value(0), value(1), value(2), float(i) / (kWidth * kHeight - 1)});
        }
        return texels;
    }

    void expect(const Texels &layers, const Texels &backdrop)
    {
        pass.setInput(LayerCompositionPass::InViewport, QRect(0, 0, kWidth, kHeight));
        pass.setNumOutputUsers(LayerCompositionPass::OutFrame, 1);
        pass.setup(nullptr);
        runFrame(pass);
        Texture *frame = textureFromVariant(pass.output(LayerCompositionPass::OutFrame));
        ASSERT_TRUE(frame);
        Texels drawn(kWidth * kHeight);
        frame->bind();
        glGetTexImage(GL_TEXTURE_2D, 0, GL_RGBA, GL_FLOAT, drawn.data());
        frame->unbind();
        for (std::size_t i = 0; i < drawn.size(); ++i) {
            for (std::size_t c = 0; c < 3; ++c) {
                const double wanted = double(layers[i][c]) + double(layers[i][3]) * double(backdrop[i][c]);
                // The target keeps half floats, of 11 bits, and values go to 4.
                EXPECT_NEAR(drawn[i][c], wanted, 4.0 / 2048) << i << " channel " << c;
            }
            EXPECT_EQ(drawn[i][3], 1.0f);
        }
        TextureManager::Instance().releaseTempTextureRef(frame, 1);
    }

    // Destroyed before the fixture looks for what is left.
    std::unique_ptr<LayerCompositionPass> ownedPass = std::make_unique<LayerCompositionPass>();
    LayerCompositionPass &pass = *ownedPass;
};

} // namespace

TEST_F(LayerComposition, LetsThroughWhatTheLayersLetThrough)
{
    const Texels front = ramp(0), back = ramp(3);
    const auto layers = textureOf(front), backdrop = textureOf(back);
    pass.setInput(LayerCompositionPass::InLayers, textureToVariant(layers.get()));
    pass.setInput(LayerCompositionPass::InBackdrop, textureToVariant(backdrop.get()));
    expect(front, back);
}

TEST_F(LayerComposition, WithoutLayersShowsTheBackdropAndWithoutABackdropTheLayers)
{
    const Texels image = ramp(5), nothing(kWidth * kHeight), clear(kWidth * kHeight, {0, 0, 0, 1});
    const auto texture = textureOf(image);
    pass.setInput(LayerCompositionPass::InBackdrop, textureToVariant(texture.get()));
    expect(clear, image);
    pass.setInput(LayerCompositionPass::InBackdrop, QVariant());
    pass.setInput(LayerCompositionPass::InLayers, textureToVariant(texture.get()));
    expect(image, nothing);
}

TEST_F(LayerComposition, IsAClassThatPipelinesKnow)
{
    const std::unique_ptr<RenderPass> made = passFactory().make(QStringLiteral("LayerCompositionPass"));
    ASSERT_TRUE(dynamic_cast<LayerCompositionPass *>(made.get()));
    EXPECT_EQ(made->inputName(LayerCompositionPass::InLayers), QStringLiteral("Kvo_KvoTexture*_Layers"));
    EXPECT_EQ(made->inputName(LayerCompositionPass::InBackdrop), QStringLiteral("Kvo_KvoTexture*_Backdrop"));
    EXPECT_EQ(made->outputName(LayerCompositionPass::OutFrame), QStringLiteral("Kvo_KvoTexture*_Frame"));
}

} // namespace Brevane::Kvo
