#include "support/glcalls.h"
#include "support/gltest.h"
#include "support/image.h"
#include "support/messages.h"
#include "support/passes.h"

#include <gl/texture.h>
#include <host/environmentpass.h>
#include <host/imageoutput.h>

#include <QMatrix4x4>
#include <QTemporaryDir>
#include <QVector4D>

#include <cmath>
#include <limits>

using namespace Brevane::Kvo;
using namespace Brevane::Kvo::Test;

namespace {

using EnvironmentLight = GLTest;

QMatrix4x4 matrixOf(const EnvironmentPass &pass, int output)
{
    return qvariant_cast<QMatrix4x4>(pass.output(output));
}

double irradiance(const EnvironmentPass &pass, const QVector3D &normal, int channel)
{
    const QVector4D n(normal, 1.0f);
    return double(QVector4D::dotProduct(n, matrixOf(pass, EnvironmentPass::OutIrradianceRed + channel) * n));
}

ShadowMapLight keyOf(const EnvironmentPass &pass)
{
    const QVariantList lights = pass.output(EnvironmentPass::OutLights).toList();
    EXPECT_EQ(lights.size(), 1);
    const auto *light = qvariant_cast<ShadowMapLight *>(lights.value(0));
    return light ? *light : qvariant_cast<ShadowMapLight>(lights.value(0));
}

// The harmonics themselves; constants as written out in the literature.
double harmonicsAt(const Environment &environment, const QVector3D &n, int channel)
{
    const double x = double(n.x());
    const double y = double(n.y());
    const double z = double(n.z());
    const double basis[] = {0.282095,
                            0.488603 * y,
                            0.488603 * z,
                            0.488603 * x,
                            1.092548 * x * y,
                            1.092548 * y * z,
                            0.315392 * (3 * z * z - 1),
                            1.092548 * x * z,
                            0.546274 * (x * x - y * y)};
    double sum = 0;
    for (size_t i = 0; i < 9; ++i)
        sum += basis[i] * double(environment.irradiance[i][channel]);
    return sum;
}

} // namespace

TEST_F(EnvironmentLight, SlotsHaveTheirNamesOrderAndDefaults)
{
    expectSlots(
        EnvironmentPass(),
        {{"Kvo_QString_Source", QString("studio")}, {"Kvo_float_Rotation", 0.0f}, {"Kvo_float_Intensity", 1.0f}},
        {"Kvo_KvoTexture*_Radiance", "Kvo_KvoTexture*_Specular", "Kvo_KvoTexture*_Table", "Kvo_QMatrix4x4_Rotation",
         "Kvo_QMatrix4x4_IrradianceRed", "Kvo_QMatrix4x4_IrradianceGreen", "Kvo_QMatrix4x4_IrradianceBlue",
         "Kvo_float_Intensity", "Kvo_QList_Lights"});
}

TEST_F(EnvironmentLight, TexturesHoldWhatIsComputed)
{
    EnvironmentPass pass;
    pass.setInput(EnvironmentPass::InSource, "sun");
    runFrame(pass);
    const Environment sun = *environmentNamed("sun");
    const auto expectTexels = [&](int output, int width, int height, const QVector<qfloat16> &expected) {
        const Image<float> image = readTexture<float>(textureFromVariant(pass.output(output)));
        ASSERT_EQ(image.width, width);
        ASSERT_EQ(image.height, height);
        for (int i = 0; i < width * height; i += 97)
            for (int c = 0; c < 3; ++c)
                ASSERT_EQ(image.at(i % width, i / width)[size_t(c)], float(expected[4 * i + c])) << i;
    };
    expectTexels(EnvironmentPass::OutRadiance, sun.width, sun.height, sun.radiance);
    expectTexels(EnvironmentPass::OutSpecular, Environment::kAtlasWidth, Environment::kAtlasHeight, sun.specular);
    const QVector<float> table = specularTable(32);
    const Image<float> image = readTexture<float>(textureFromVariant(pass.output(EnvironmentPass::OutTable)));
    for (int i = 0; i < 32 * 32; i += 7)
        for (int c = 0; c < 4; ++c) // half floats up to 1
            ASSERT_NEAR(image.at(i % 32, i / 32)[size_t(c)], table[4 * i + c], 0.0005f) << i;
}

TEST_F(EnvironmentLight, MatricesAreTheHarmonics)
{
    EnvironmentPass pass;
    pass.setInput(EnvironmentPass::InIntensity, 2.0f);
    runFrame(pass);
    const Environment studio = *environmentNamed("studio");
    for (int i = 0; i < 30; ++i) {
        const QVector3D n = octahedralDirection({(i + 0.5) / 30, std::fmod(i * 0.618, 1.0)});
        for (int channel = 0; channel < 3; ++channel)
            EXPECT_NEAR(irradiance(pass, n, channel), 2 * harmonicsAt(studio, n, channel), 1e-4) << i;
    }
    EXPECT_EQ(pass.output(EnvironmentPass::OutIntensity).toFloat(), 2.0f);
    EXPECT_EQ(keyOf(pass).color, 2.0f * studio.key.color);
}

// Turned by 90 degrees about +y, what came from +z comes from +x.
TEST_F(EnvironmentLight, RotationTurnsMapsMatricesAndKeyTogether)
{
    EnvironmentPass still;
    EnvironmentPass turned;
    for (EnvironmentPass *pass : {&still, &turned})
        pass->setInput(EnvironmentPass::InSource, "sun");
    turned.setInput(EnvironmentPass::InRotation, 90.0f);
    runFrame(still);
    runFrame(turned);
    EXPECT_NEAR(irradiance(turned, {1, 0, 0}, 0), irradiance(still, {0, 0, 1}, 0), 1e-5);
    EXPECT_NEAR(irradiance(turned, {0, 1, 0}, 0), irradiance(still, {0, 1, 0}, 0), 1e-5);
    EXPECT_GT(std::abs(irradiance(still, {1, 0, 0}, 0) - irradiance(still, {0, 0, 1}, 0)), 0.05);
    const QVector3D inMap = matrixOf(turned, EnvironmentPass::OutRotation).mapVector({1, 0, 0});
    EXPECT_NEAR((inMap - QVector3D(0, 0, 1)).length(), 0.0f, 1e-6f);
    const QVector3D before = keyOf(still).direction;
    EXPECT_NEAR((keyOf(turned).direction - QVector3D(before.z(), before.y(), -before.x())).length(), 0.0f, 1e-5f);
}

TEST_F(EnvironmentLight, AfterTheFirstFrameNothingIsMadeOrUploaded)
{
    EnvironmentPass pass;
    runFrame(pass);
    const QVariant specular = pass.output(EnvironmentPass::OutSpecular);
    {
        const GlCalls calls;
        pass.setInput(EnvironmentPass::InRotation, 10.0f);
        runFrame(pass);
        EXPECT_TRUE(calls.all().empty());
    }
    EXPECT_EQ(pass.output(EnvironmentPass::OutSpecular), specular);
    const GlCalls calls;
    pass.setInput(EnvironmentPass::InSource, "overcast");
    runFrame(pass);
    EXPECT_EQ(calls.count("glTexImage2D"), 2);
    EXPECT_EQ(calls.count("glGenTextures"), calls.count("glDeleteTextures"));
}

TEST_F(EnvironmentLight, AFileIsReadWithItsFloats)
{
    QImage picture(16, 8, QImage::Format_RGBX32FPx4);
    for (int y = 0; y < 8; ++y)
        for (int x = 0; x < 16; ++x) {
            float *texel = reinterpret_cast<float *>(picture.scanLine(y)) + 4 * x;
            texel[0] = 3.0f, texel[1] = 1.5f, texel[2] = 0.75f, texel[3] = 1.0f;
        }
    static QImage given;
    given = picture;
    EnvironmentPass::setImageReader(
        [](const QString &path, QString *) { return path == "sky.hdr" ? given : QImage(); });
    EnvironmentPass pass;
    pass.setInput(EnvironmentPass::InSource, "sky.hdr");
    runFrame(pass);
    EnvironmentPass::setImageReader(nullptr);
    EXPECT_NEAR(irradiance(pass, {0, 0, 1}, 0), 3.0, 0.03);
    EXPECT_NEAR(irradiance(pass, {0, 0, 1}, 1), 1.5, 0.015);
    EXPECT_NEAR(irradiance(pass, {0, 0, 1}, 2), 0.75, 0.0075);
}

TEST_F(EnvironmentLight, AFileThatIsNotThereIsToldOnceByNameAndTheStudioTakesItsPlace)
{
    EnvironmentPass pass;
    pass.setInput(EnvironmentPass::InSource, "missing/sky.hdr");
    const MessageCapture messages;
    runFrame(pass);
    runFrame(pass);
    EXPECT_EQ(messages.containing("missing/sky.hdr"), 1);
    EXPECT_EQ(messages.containing("EnvironmentPass: Kvo_QString_Source"), 1);
    EXPECT_NEAR(irradiance(pass, {0, 1, 0}, 0), harmonicsAt(*environmentNamed("studio"), {0, 1, 0}, 0), 1e-4);
    pass.setInput(EnvironmentPass::InSource, "missing/other.hdr");
    runFrame(pass);
    EXPECT_EQ(messages.containing("missing/other.hdr"), 1);
    pass.setInput(EnvironmentPass::InSource, "sun");
    runFrame(pass);
    EXPECT_EQ(messages.all().size(), 2);
}

TEST_F(EnvironmentLight, NumbersThatAreNotFiniteCountAsTheDefault)
{
    EnvironmentPass pass;
    pass.setInput(EnvironmentPass::InIntensity, std::numeric_limits<float>::quiet_NaN());
    pass.setInput(EnvironmentPass::InRotation, std::numeric_limits<float>::infinity());
    const MessageCapture messages;
    runFrame(pass);
    runFrame(pass);
    EXPECT_EQ(messages.all().size(), 2);
    EXPECT_EQ(pass.output(EnvironmentPass::OutIntensity).toFloat(), 1.0f);
    EXPECT_TRUE(matrixOf(pass, EnvironmentPass::OutRotation).isIdentity());
    pass.setInput(EnvironmentPass::InIntensity, -3.0f);
    runFrame(pass);
    EXPECT_EQ(pass.output(EnvironmentPass::OutIntensity).toFloat(), 0.0f);
}

TEST_F(EnvironmentLight, ACopyHoldsTheSameTextures)
{
    auto pass = std::make_unique<EnvironmentPass>();
    runFrame(*pass);
    EnvironmentPass copy(*pass);
    pass.reset();
    const GlCalls calls;
    runFrame(copy);
    EXPECT_TRUE(calls.all().empty());
    EXPECT_NE(textureFromVariant(copy.output(EnvironmentPass::OutSpecular)), nullptr);
}

TEST_F(EnvironmentLight, AnotherEnvironmentOfACopyLeavesThatOfTheFirst)
{
    EnvironmentPass pass;
    runFrame(pass);
    EnvironmentPass copy(pass);
    const auto radianceOf = [](const EnvironmentPass &of) {
        return readTexture<float>(textureFromVariant(of.output(EnvironmentPass::OutRadiance)));
    };
    const Image<float> before = radianceOf(pass);
    copy.setInput(EnvironmentPass::InSource, QStringLiteral("overcast"));
    runFrame(copy);
    runFrame(pass);
    EXPECT_TRUE(sameImage(radianceOf(pass), before, within(0)));
    EXPECT_FALSE(sameImage(radianceOf(copy), before, within(0.01)));
}
