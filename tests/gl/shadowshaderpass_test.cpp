#include "support/gltest.h"
#include "support/image.h"
#include "support/messages.h"
#include "support/passes.h"
#include "support/scenes.h"
#include "support/shadowmaps.h"

#include <gl/texture.h>
#include <gl/texturemanager.h>
#include <host/shadowshaderpass.h>
#include <model/gpumodel.h>
#include <renderpasses/shadowmaprenderpass.h>

#include <QRect>

#include <limits>

using namespace Brevane::Kvo;
using namespace Brevane::Kvo::Test;
using namespace Qt::StringLiterals;

namespace {

// Of three places at the height 0, from left to right: how much light they get, and how many lights there are.
const QString kShader = uR"(#version 150
#include "ShadowMap.glslc"
out vec4 o_Frame;
void main()
{
  float x = floor(gl_FragCoord.x) - 1.0;
  vec3 toLight;
  vec3 color = kvo_shadowLightColor(0, vec3(x, 0.0, 0.0), toLight);
  o_Frame = vec4(kvo_shadowVisibility(0, vec3(x, 0.0, 0.0)), float(kvo_shadowLightCount()), toLight.y, color.b);
}
)"_s;

class ShadowShader : public GLTest
{
protected:
    void SetUp() override
    {
        GLTest::SetUp();
        // A plate of half a unit above the middle.
        ModelData data;
        data.meshes << quadMesh();
        data.materials << material({0.5f, 0.5f, 0.5f});
        ModelItem plate;
        plate.transform.translate(0, 1, 0);
        plate.transform.rotate(-90, 1, 0, 0);
        plate.transform.scale(0.5f);
        ModelItem floor;
        floor.transform.rotate(-90, 1, 0, 0);
        floor.transform.scale(4);
        data.items << plate << floor;
        model = std::make_unique<GPUModel>();
        ASSERT_TRUE(model->upload(data));
        maps = std::make_unique<ShadowMapRenderPass>();
        maps->setInput(0, QVariant::fromValue(model.get()));
        maps->setInput(7, 0);
        pass = std::make_unique<ShadowShaderPass>();
        pass->setInput(0, QRect(0, 0, 3, 1));
        record = pass->addInput(u"Kvo_QVariant_ShadowMapData"_s);
        pass->addOutput(u"Kvo_KvoTexture*_Frame"_s);
        pass->setNumOutputUsers(0, 1);
        pass->setFragmentShaderSource(kShader);
    }
    void TearDown() override
    {
        pass.reset();
        maps.reset();
        model.reset();
        GLTest::TearDown();
    }
    Image<float> picture(bool withRecord)
    {
        ShadowMapLight light = ShadowMapLight::directional({0, -1, 0});
        light.color = {1, 1, 0.25f};
        maps->setInput(2, lightList({light}));
        runFrame(*maps);
        pass->setInput(record, withRecord ? maps->output(0) : QVariant());
        runFrame(*pass);
        Texture *frame = textureFromVariant(pass->output(0));
        const Image<float> image = readTexture<float>(frame);
        TextureManager::Instance().releaseTempTextureRef(frame, 1);
        return image;
    }

    std::unique_ptr<GPUModel> model;
    std::unique_ptr<ShadowMapRenderPass> maps;
    std::unique_ptr<ShadowShaderPass> pass;
    int record = -1;
};

} // namespace

TEST_F(ShadowShader, AShaderOfTheHostsSeesLightsAndTheirShadows)
{
    const Image<float> image = picture(true);
    EXPECT_NEAR(image.at(0, 0)[0], 1.0f, 0.01f);
    EXPECT_NEAR(image.at(1, 0)[0], 0.0f, 0.01f);
    EXPECT_NEAR(image.at(2, 0)[0], 1.0f, 0.01f);
    for (int x = 0; x < 3; ++x) {
        EXPECT_EQ(image.at(x, 0)[1], 1.0f);
        EXPECT_EQ(image.at(x, 0)[2], 1.0f);
        EXPECT_EQ(image.at(x, 0)[3], 0.25f);
    }
}

TEST_F(ShadowShader, WithoutARecordThereIsNoLight)
{
    const Image<float> image = picture(false);
    for (int x = 0; x < 3; ++x)
        EXPECT_EQ(image.at(x, 0)[1], 0.0f);
}

TEST_F(ShadowShader, NumbersOutOfTheirBoundsAreToldOnce)
{
    const int bleeding = pass->addInput(u"Kvo_float_LightBleeding"_s, 0.2f);
    const int variance = pass->addInput(u"Kvo_float_MinimumVariance"_s, 1e-6f);
    pass->setInput(bleeding, 7.0f);
    pass->setInput(variance, std::numeric_limits<float>::quiet_NaN());
    const MessageCapture messages;
    picture(true);
    picture(true);
    EXPECT_EQ(messages.containing(u"Kvo_float_LightBleeding"_s), 1);
    EXPECT_EQ(messages.containing(u"Kvo_float_MinimumVariance"_s), 1);
}
