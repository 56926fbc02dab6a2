#include "support/allocations.h"
#include "support/culling.h"
#include "support/messages.h"
#include "support/passes.h"
#include "support/shaderedit.h"
#include "support/shadowfilters.h"
#include "support/shadowmaps.h"

#include <gl/shaderprogram.h>
#include <model/gpumodel.h>
#include <model/instancedatacollection.h>
#include <model/instancedataplan.h>
#include <model/instancedataregistry.h>
#include <renderpasses/shadowmaprenderpass.h>
#include <renderpasses/shadowmaprenderpass2.h>

#include <QPointer>

#include <functional>

using namespace Brevane::Kvo;
using namespace Brevane::Kvo::Test;

namespace {

enum Input {
    kGeometry,
    kInstanceData,
    kLights,
    kDirty,
    kProjection,
    kCamera,
    kBoundsMin,
    kBoundsMax,
    kFilterType,
    kMapSize
};

// Depth in steps of the depth buffer, interpolated in floats of about 1, doubled on the way back.
constexpr double kDepth = 1e-5;

constexpr int kWidth = 64;
constexpr int kHeight = 48;
const Image<float> kNothing(kWidth, kHeight, {1e9f, 1e9f, 0, 1});

const auto kSun = ShadowMapLight::directional({0.25f, -1, 0.1f});
const auto kSpot = ShadowMapLight::spot({2, 7, 1}, {-0.3f, -1, -0.15f}, 50);

class LayeredPass : public GLTest
{
protected:
    void SetUp() override
    {
        GLTest::SetUp();
        ownedModel = std::make_unique<GPUModel>();
        take(ShadowPath::Batch);
    }
    void TearDown() override
    {
        ownedPass.reset();
        ownedModel.reset();
        GLTest::TearDown();
    }
    /// A fresh pass on a path, with the model, small maps and no filter.
    void take(ShadowPath path)
    {
        ownedPass = makeLayeredPass(path, context());
        pass().setInput(kGeometry, QVariant::fromValue(ownedModel.get()));
        pass().setInput(kMapSize, QSize(kWidth, kHeight));
        pass().setInput(kFilterType, 0);
    }
    void forEachPath(const std::function<void()> &test)
    {
        for (const ShadowPath path : shadowPaths()) {
            SCOPED_TRACE(nameOf(path));
            take(path);
            test();
            if (HasFatalFailure())
                return;
        }
    }
    ShadowMapRenderPass2 &pass() { return *ownedPass; }
    GPUModel &model() { return *ownedModel; }
    ShadowRecord &run()
    {
        runFrame(pass());
        return *recordOf(pass());
    }
    void setLights(const QVariantList &lights) { pass().setInput(kLights, lights); }
    void setLights(std::initializer_list<ShadowMapLight> lights) { setLights(lightList(lights)); }

    std::unique_ptr<GPUModel> ownedModel;
    std::unique_ptr<ShadowMapRenderPass2> ownedPass;
};

// Nine lights of one layer each, from all around.
QVariantList nineLights()
{
    QVariantList lights;
    for (int i = 0; i < 9; ++i) {
        const float angle = 0.7f * float(i);
        lights << QVariant::fromValue(
            i % 2 ? ShadowMapLight::directional({std::cos(angle) * 0.4f, -1, std::sin(angle) * 0.4f})
                  : ShadowMapLight::spot({3 * std::cos(angle), 8, 3 * std::sin(angle)},
                                         {-0.3f * std::cos(angle), -1, -0.3f * std::sin(angle)}, 55));
    }
    return lights;
}

int programsAlive()
{
    return GlCalls::live(GlKind::Program);
}

} // namespace

TEST_F(LayeredPass, SlotsHaveTheirNamesOrderAndDefaults)
{
    MessageCapture messages;
    expectSlots(ShadowMapRenderPass2(),
                {{"Kvo_KvoGPUModel*_Geometry"},
                 {"Kvo_QList_InstanceData"},
                 {"Kvo_QList_KvoShadowMapManagerLight*_Lights"},
                 {"Kvo_bool_Dirty"},
                 {"Kvo_QMatrix4x4_ProjectionMatrix"},
                 {"Kvo_QMatrix4x4_CameraMatrix"},
                 {"Kvo_QVector3D_SceneBoundsMin"},
                 {"Kvo_QVector3D_SceneBoundsMax"},
                 {"Kvo_int_FilterType", 3},
                 {"Kvo_QSize_MapSize", QSize(512, 512)}},
                {"Kvo_QVariant_ShadowMapData"});
}

TEST_F(LayeredPass, TheVendorDecidesOnTheBatchPathWithNoRegardToCaseOrWords)
{
    for (const char *vendor : {"AMD", "Amd Inc.", "ATI Technologies", "Some Corporation", "stations"}) {
        MessageCapture messages;
        const ForcedVendor forced(vendor);
        const ShadowMapRenderPass2 made;
        EXPECT_EQ(messages.containing(QStringLiteral("SMRP2: Using bath 8 layered rendering")), 1) << vendor;
        EXPECT_EQ(messages.all().size(), 1) << vendor;
        EXPECT_TRUE(messages.texts()[0].startsWith(QStringLiteral("[shadowmaprenderpass2.cpp:"))) << vendor;
    }
}

TEST_F(LayeredPass, AVendorThatEndsInTheWordCorporationTakesTheBatchPath)
{
    MessageCapture messages;
    const ForcedVendor forced("Anybody's Corporation");
    const ShadowMapRenderPass2 made;
    EXPECT_EQ(messages.containing(QStringLiteral("SMRP2: Using bath 8 layered rendering")), 1);
}

TEST_F(LayeredPass, OtherVendorsTakeTheViewportLayerPathOrElseThePerLayerPath)
{
    MessageCapture messages;
    const ForcedVendor forced("Nobody");
    const ShadowMapRenderPass2 made;
    const bool has = hasGLExtension("GL_ARB_shader_viewport_layer_array");
    EXPECT_EQ(messages.containing(has ? QStringLiteral("SMRP2: Using GL_ARB_shader_viewport_layer_array layered "
                                                       "rendering")
                                      : QStringLiteral("SMRP2: Using non-Layered rendering")),
              1);
    EXPECT_EQ(messages.all().size(), 1);
}

TEST_F(LayeredPass, WithoutTheExtensionThePathIsPerLayer)
{
    MessageCapture messages;
    {
        const ForcedVendor forced("Nobody");
        const HiddenExtension hidden("GL_ARB_shader_viewport_layer_array");
        GLContext other;
        ASSERT_TRUE(other.makeCurrent());
        const ShadowMapRenderPass2 made;
        OpenGLDeviceContext::releaseCurrent();
    }
    ASSERT_TRUE(context().makeCurrent());
    EXPECT_EQ(messages.containing(QStringLiteral("SMRP2: Using non-Layered rendering")), 1);
}

TEST_F(LayeredPass, ThisSetUpTakesThePathThatItStandsFor)
{
    // of the driver as it is: a set-up that names the vendor AMD has to end up on the batch path
    const QByteArray vendor = QByteArray(reinterpret_cast<const char *>(glGetString(GL_VENDOR))).toLower();
    const bool batch = vendor.contains("amd") || vendor.contains("ati");
    if (qgetenv("force_gl_vendor") == "AMD") {
        EXPECT_TRUE(batch);
    }
    MessageCapture messages;
    const ShadowMapRenderPass2 made;
    EXPECT_EQ(messages.containing(QStringLiteral("SMRP2: Using bath")), batch ? 1 : 0);
}

TEST_F(LayeredPass, MadeWithoutAContextItSaysSoAndTakesThePathThatAlwaysWorks)
{
    GLContext::doneCurrent();
    MessageCapture messages;
    ownedPass = std::make_unique<ShadowMapRenderPass2>();
    EXPECT_EQ(messages.count(QtWarningMsg), 1);
    ASSERT_TRUE(context().makeCurrent());
    ASSERT_TRUE(model().upload(shadowScene()));
    pass().setInput(kGeometry, QVariant::fromValue(&model()));
    pass().setInput(kMapSize, QSize(kWidth, kHeight));
    pass().setInput(kFilterType, 0);
    setLights({kSun});
    const ShadowRecord &record = run();
    EXPECT_EQ(compareWithModel(readLayer(record, 0), castersOfShadowScene(), record.transforms[0]).wrong, 0);
}

TEST_F(LayeredPass, MapsHoldTheMomentsOfTheNearestCasterOnEveryPath)
{
    ASSERT_TRUE(model().upload(shadowScene()));
    forEachPath([&] {
        setLights({kSun, kSpot, ShadowMapLight::directional({-0.2f, -1, 0.3f}, 2)});
        const ShadowRecord &record = run();
        ASSERT_EQ(record.layerCount, 4);
        for (int layer = 0; layer < 4; ++layer) {
            const MapComparison c =
                compareWithModel(readLayer(record, layer), castersOfShadowScene(), record.transforms[layer]);
            EXPECT_GT(c.covered, kWidth * kHeight / 4) << layer;
            EXPECT_GT(c.empty, 20) << layer;
            EXPECT_EQ(c.wrong, 0) << layer;
            EXPECT_LT(c.worst, kDepth) << layer;
        }
    });
}

TEST_F(LayeredPass, AllPathsAndTheOtherPassGiveTheSameMaps)
{
    ASSERT_TRUE(model().upload(shadowScene()));
    const auto lights = lightList(
        {kSun, kSpot, ShadowMapLight::point({0.3f, 3.5f, 0.2f}), ShadowMapLight::directional({-0.2f, -1, 0.3f}, 2)});
    std::vector<Image<float>> expected;
    {
        ShadowMapRenderPass other;
        other.setInput(0, QVariant::fromValue(&model()));
        other.setInput(2, lights);
        other.setInput(7, 0);
        other.setInput(8, QSize(kWidth, kHeight));
        runFrame(other);
        for (int layer = 0; layer < 10; ++layer)
            expected.push_back(readLayer(*recordOf(other), layer));
    }
    int covered = 0;
    forEachPath([&] {
        setLights(lights);
        const ShadowRecord &record = run();
        ASSERT_EQ(record.layerCount, 10);
        for (int layer = 0; layer < 10; ++layer) {
            const Image<float> map = readLayer(record, layer);
            int differing = 0;
            for (int y = 0; y < kHeight; ++y) {
                for (int x = 0; x < kWidth; ++x) {
                    const float a = map.at(x, y)[0];
                    const float b = expected[size_t(layer)].at(x, y)[0];
                    covered += b < 1;
                    // An edge may pass through the centre of a texel, to either side. The faces of a point
                    // light have casters across their near plane: depth clamp there, clipping here.
                    const bool bothThere = a < 1 && b < 1;
                    const bool bothEmpty = a == 1e9f && b == 1e9f;
                    if (bothThere) {
                        ASSERT_NEAR(a, b, kDepth) << "layer " << layer << " at " << x << ", " << y;
                    }
                    differing += !bothThere && !bothEmpty;
                }
            }
            EXPECT_LE(differing, 2) << layer;
        }
    });
    EXPECT_GT(covered, 10000);
}

TEST_F(LayeredPass, TexturesHaveTheirFormatsFiltersWrapAndBorder)
{
    ASSERT_TRUE(model().upload(shadowScene()));
    setLights({kSun, kSpot});
    const GlCalls calls;
    const ShadowRecord &record = run();
    const std::vector<GlCall> arrays = calls.calls("glTexImage3D");
    ASSERT_EQ(arrays.size(), 2u);
    for (size_t i = 0; i < 2; ++i) {
        const GlCall &call = arrays[i];
        EXPECT_EQ(call.args[0], GL_TEXTURE_2D_ARRAY);
        EXPECT_EQ(call.args[2], i == 0 ? GL_DEPTH_COMPONENT32F : GL_RG32F);
        EXPECT_EQ(call.args[3], kWidth);
        EXPECT_EQ(call.args[4], kHeight);
        EXPECT_EQ(call.args[5], 2);
        EXPECT_EQ(call.args[7], i == 0 ? GL_DEPTH_COMPONENT : GL_RG);
        EXPECT_EQ(call.args[8], GL_FLOAT);
    }
    EXPECT_EQ(calls.count("glTexImage2D"), 0);
    // depth: nearest, and its wrap goes to the edge for the conversion; moments: linear, with a border
    EXPECT_EQ(calls.count("glTexParameteri", {GL_TEXTURE_2D_ARRAY, GL_TEXTURE_MIN_FILTER, GL_NEAREST}), 1);
    EXPECT_EQ(calls.count("glTexParameteri", {GL_TEXTURE_2D_ARRAY, GL_TEXTURE_WRAP_S, GL_CLAMP_TO_EDGE}), 1);
    EXPECT_EQ(calls.count("glTexParameteri", {GL_TEXTURE_2D_ARRAY, GL_TEXTURE_WRAP_T, GL_CLAMP_TO_EDGE}), 1);
    glBindTexture(GL_TEXTURE_2D_ARRAY, record.projectionTexture()->textureID());
    const auto parameter = [](GLenum name) {
        GLint value = 0;
        glGetTexParameteriv(GL_TEXTURE_2D_ARRAY, name, &value);
        return value;
    };
    EXPECT_EQ(parameter(GL_TEXTURE_MIN_FILTER), GL_LINEAR);
    EXPECT_EQ(parameter(GL_TEXTURE_MAG_FILTER), GL_LINEAR);
    EXPECT_EQ(parameter(GL_TEXTURE_WRAP_S), GL_CLAMP_TO_BORDER);
    EXPECT_EQ(parameter(GL_TEXTURE_WRAP_T), GL_CLAMP_TO_BORDER);
    float border[4] = {};
    glGetTexParameterfv(GL_TEXTURE_2D_ARRAY, GL_TEXTURE_BORDER_COLOR, border);
    EXPECT_EQ(border[0], 1e9f);
    EXPECT_EQ(border[3], 1.0f);
    glBindTexture(GL_TEXTURE_2D_ARRAY, 0);
}

TEST_F(LayeredPass, NineLayersTakeTwoBatchesOfEightAndOne)
{
    ASSERT_TRUE(model().upload(shadowScene()));
    model().setDrawRoad(GPUModel::DrawRoad::Loop);
    setLights(nineLights());
    run();
    const GlCalls calls;
    const ShadowRecord &record = run();
    ASSERT_EQ(record.layerCount, 9);
    // five casters in two batches, and one draw that converts all layers
    EXPECT_EQ(calls.draws(), 2 * 5 + 1);
    EXPECT_EQ(calls.count("glDrawArrays", {GL_POINTS, 0, 9}), 1);
    std::vector<double> values;
    for (const GlCall &call : calls.all())
        if (std::strcmp(call.name, "glUniform1i") == 0)
            values.push_back(call.args[1]);
    const std::vector<double> batches{0, 8, 8, 1};
    EXPECT_NE(std::search(values.begin(), values.end(), batches.begin(), batches.begin() + 2), values.end());
    EXPECT_NE(std::search(values.begin(), values.end(), batches.begin() + 2, batches.end()), values.end());
    // all matrices in one go
    const std::vector<GlCall> uploads = calls.calls("glUniformMatrix4fv");
    ASSERT_EQ(uploads.size(), 1u);
    EXPECT_EQ(uploads[0].args[1], 9);
    EXPECT_EQ(uploads[0].args[2], GL_FALSE);
    for (int layer = 0; layer < 9; ++layer) {
        const MapComparison c =
            compareWithModel(readLayer(record, layer), castersOfShadowScene(), record.transforms[layer]);
        EXPECT_EQ(c.wrong, 0) << layer;
        EXPECT_GT(c.covered, 400) << layer;
        EXPECT_LT(c.worst, kDepth) << layer;
    }
}

TEST_F(LayeredPass, OtherPathsDrawTheSceneOncePerLayer)
{
    ASSERT_TRUE(model().upload(shadowScene()));
    for (const ShadowPath path : shadowPaths()) {
        if (path == ShadowPath::Batch)
            continue;
        take(path);
        model().setDrawRoad(GPUModel::DrawRoad::Loop);
        setLights(nineLights());
        run();
        const GlCalls calls;
        run();
        EXPECT_EQ(calls.draws(), 5 * 9 + 1) << "five casters, " << nameOf(path);
        EXPECT_EQ(calls.count("glUniformMatrix4fv"), 1) << nameOf(path);
        const bool layered = path == ShadowPath::ViewportLayer;
        EXPECT_EQ(calls.count("glFramebufferTextureLayer"), layered ? 0 : 18) << nameOf(path);
        EXPECT_EQ(calls.count("glClear", {GL_DEPTH_BUFFER_BIT}), layered ? 1 : 9) << nameOf(path);
        EXPECT_EQ(calls.count("glFramebufferTexture"), layered ? 0 : 18) << "detached, " << nameOf(path);
    }
}

TEST_F(LayeredPass, LayeredPathsKeepTheirArraysAttached)
{
    ASSERT_TRUE(model().upload(shadowScene()));
    setLights(nineLights());
    {
        const GlCalls calls;
        run();
        // depth and moments to the one framebuffer, moments to the other
        EXPECT_EQ(calls.count("glFramebufferTexture", {GL_FRAMEBUFFER, GL_DEPTH_ATTACHMENT}), 1);
        EXPECT_EQ(calls.count("glFramebufferTexture", {GL_FRAMEBUFFER, GL_COLOR_ATTACHMENT0}), 2);
    }
    const GlCalls calls;
    run();
    EXPECT_EQ(calls.count("glFramebufferTexture"), 0);
    EXPECT_EQ(calls.count("glFramebufferTextureLayer"), 0);
    EXPECT_EQ(calls.count("glClear", {GL_DEPTH_BUFFER_BIT}), 1);
    EXPECT_EQ(calls.count("glClear", {GL_COLOR_BUFFER_BIT}), 1) << "of the conversion";
}

TEST_F(LayeredPass, CastersAreDrawnInTheStatedOrderWithColourMasked)
{
    ASSERT_TRUE(model().upload(shadowScene()));
    model().setDrawRoad(GPUModel::DrawRoad::Loop);
    setLights({kSun});
    run();
    const GlCalls calls;
    run();
    // Only the viewport that is drawn with changes, where a context has several.
    QStringList found =
        calls.sequence({"glViewport", "glViewportIndexedf", "glClearColor", "glClear", "glEnable", "glDisable",
                        "glDepthMask", "glColorMask", "glUniformMatrix4fv", "glDrawElements", "glDrawArrays"});
    found.replaceInStrings(QStringLiteral("glViewportIndexedf"), QStringLiteral("glViewport"));
    EXPECT_EQ(found.join(u' '),
              QStringLiteral("glViewport glClearColor glClear " // depth
                             "glEnable glDisable glDisable glDepthMask glDisable glColorMask glUniformMatrix4fv "
                             "glEnable glDrawElements glDrawElements glDrawElements glDrawElements glDisable "
                             "glDrawElements "
                             "glDisable glColorMask glDisable " // clamp, mask, depth test
                             "glClear glDrawArrays glViewport"));
    EXPECT_EQ(calls.count("glColorMask", {GL_FALSE, GL_FALSE, GL_FALSE, GL_FALSE}), 1);
    EXPECT_EQ(calls.count("glColorMask", {GL_TRUE, GL_TRUE, GL_TRUE, GL_TRUE}), 1);
    EXPECT_EQ(calls.count("glDisable", {GL_DEPTH_CLAMP}), 2);
    EXPECT_EQ(calls.count("glEnable", {GL_DEPTH_CLAMP}), 0);
}

TEST_F(LayeredPass, CleanFramesMakeNoGLCallAndKeepTheMaps)
{
    ASSERT_TRUE(model().upload(shadowScene()));
    forEachPath([&] {
        setLights({kSun, kSpot});
        pass().setInput(kFilterType, 3);
        const Texture *maps = run().projectionTexture();
        const Image<float> before = readLayer(*recordOf(pass()), 1);
        pass().setInput(kDirty, false);
        setLights({kSun, kSun, kSun, kSun}); // not looked at
        {
            const GlCalls calls;
            runFrame(pass());
            EXPECT_TRUE(calls.all().empty()) << qPrintable(calls.toString());
        }
        EXPECT_EQ(recordOf(pass())->projectionTexture(), maps);
        EXPECT_EQ(recordOf(pass())->layerCount, 2);
        EXPECT_TRUE(sameImage(readLayer(*recordOf(pass()), 1), before, within(0)));
        pass().setInput(kDirty, true);
        const GlCalls calls;
        EXPECT_EQ(run().layerCount, 4);
        EXPECT_GT(calls.draws(), 0);
    });
}

TEST_F(LayeredPass, DirtyThatIsNotConnectedCountsAsTrueAndWhatIsNoBoolAsFalse)
{
    ASSERT_TRUE(model().upload(shadowScene()));
    setLights({kSun});
    run();
    const auto draws = [&](const QVariant &dirty) {
        pass().setInput(kDirty, dirty);
        const GlCalls calls;
        runFrame(pass());
        return calls.draws() > 0;
    };
    EXPECT_TRUE(draws(QVariant()));
    EXPECT_TRUE(draws(QVariant()));
    EXPECT_TRUE(draws(true));
    EXPECT_TRUE(draws(1));
    EXPECT_FALSE(draws(false));
    EXPECT_FALSE(draws(0));
    EXPECT_FALSE(draws(QRect(0, 0, 1, 1)));
    EXPECT_TRUE(draws(QVariant(QMetaType(QMetaType::Bool)))) << "a null bool is no value";
}

TEST_F(LayeredPass, ACleanFirstFrameHasNoMatricesAndNoOutput)
{
    ASSERT_TRUE(model().upload(shadowScene()));
    forEachPath([&] {
        setLights({kSun});
        pass().setInput(kDirty, false);
        MessageCapture messages;
        runFrame(pass());
        EXPECT_FALSE(pass().output(0).isValid());
        EXPECT_EQ(messages.count(QtDebugMsg), 1) << qPrintable(messages.texts().join(u'\n'));
        EXPECT_EQ(messages.containing(QStringLiteral("failed to compile")), 1);
        // The program stays as it is: later frames are published, with nothing in them.
        pass().setInput(kDirty, true);
        const ShadowRecord &record = run();
        EXPECT_EQ(messages.count(QtDebugMsg), 1);
        EXPECT_TRUE(sameImage(readLayer(record, 0), kNothing, within(0)));
    });
}

TEST_F(LayeredPass, ACleanFrameAfterAChangeOfSizeDrawsWithTheMatricesOfBefore)
{
    ASSERT_TRUE(model().upload(shadowScene()));
    forEachPath([&] {
        setLights({kSun, kSpot});
        run();
        pass().setInput(kDirty, false);
        setLights({ShadowMapLight::directional({1, -1, 1})});
        pass().setInput(kMapSize, QSize(40, 50));
        const ShadowRecord &record = run();
        ASSERT_EQ(record.layerCount, 2);
        for (int layer = 0; layer < 2; ++layer) {
            const Image<float> map = readLayer(record, layer);
            EXPECT_EQ(map.width, 40);
            EXPECT_EQ(map.height, 50);
            const MapComparison c = compareWithModel(map, castersOfShadowScene(), record.transforms[layer]);
            EXPECT_EQ(c.wrong, 0) << layer;
            EXPECT_GT(c.covered, 400) << layer;
        }
    });
}

TEST_F(LayeredPass, LayersBetweenThoseOfTwoLightsAreDrawnToo)
{
    ASSERT_TRUE(model().upload(shadowScene()));
    forEachPath([&] {
        QVariantList lights = nineLights();
        setLights(lights.mid(0, 6));
        ShadowRecord &record = run();
        // A record whose lights own the layers 0 to 1 and 4 to 5. The frame is clean, so nobody lays them out
        // anew, and the size makes it draw.
        record.projectors = {{2, 0}, {2, 4}};
        pass().setInput(kDirty, false);
        pass().setInput(kMapSize, QSize(48, 40));
        run();
        for (int layer = 0; layer < 6; ++layer) {
            const MapComparison c =
                compareWithModel(readLayer(record, layer), castersOfShadowScene(), record.transforms[layer]);
            EXPECT_EQ(c.wrong, 0) << layer;
            EXPECT_GT(c.covered, 300) << layer;
        }
    });
}

TEST_F(LayeredPass, LayersBehindTheLastLightAreNotDrawn)
{
    ASSERT_TRUE(model().upload(shadowScene()));
    ShadowMapLight off = kSpot;
    off.enabled = false;
    take(ShadowPath::PerLayer);
    setLights({kSun, off, kSun, off});
    run();
    const GlCalls calls;
    EXPECT_EQ(run().layerCount, 4);
    EXPECT_EQ(calls.count("glClear", {GL_DEPTH_BUFFER_BIT}), 3) << "up to the last layer that a light owns";
    EXPECT_EQ(calls.count("glDrawArrays", {GL_POINTS, 0, 4}), 1) << "the conversion takes all";
}

TEST_F(LayeredPass, WithItsOnlyLightOffNeitherCastersNorConversionAreDrawn)
{
    ASSERT_TRUE(model().upload(shadowScene()));
    forEachPath([&] {
        ShadowMapLight off = kSun;
        off.enabled = false;
        setLights({off});
        {
            const GlCalls calls;
            EXPECT_EQ(run().layerCount, 1);
            EXPECT_EQ(calls.draws(), 0);
        }
        setLights({kSun});
        const ShadowRecord &record = run();
        EXPECT_EQ(compareWithModel(readLayer(record, 0), castersOfShadowScene(), record.transforms[0]).wrong, 0);
    });
}

TEST_F(LayeredPass, AModelWithNothingToDrawLeavesAllLayersEmptyAndSkipsTheConversion)
{
    ASSERT_TRUE(model().upload(cubeScene({1, 1, 1}, 0x4000000000000000)));
    forEachPath([&] {
        pass().setInput(kFilterType, 3);
        setLights({kSun, ShadowMapLight::point({0, 4, 0})});
        const GlCalls calls;
        const ShadowRecord &record = run();
        ASSERT_EQ(record.layerCount, 7);
        EXPECT_EQ(calls.draws(), 0);
        for (int layer = 0; layer < 7; ++layer)
            EXPECT_TRUE(sameImage(readLayer(record, layer), kNothing, within(0))) << layer;
    });
}

TEST_F(LayeredPass, AModelThatBecomesEmptyClearsTheMaps)
{
    forEachPath([&] {
        ASSERT_TRUE(model().upload(shadowScene()));
        setLights({kSun});
        EXPECT_LT(readLayer(run(), 0).at(32, 24)[0], 1.0f);
        pass().setInput(kGeometry, QVariant::fromValue(static_cast<GPUModel *>(nullptr)));
        pass().setInput(kBoundsMin, QVector3D(-1, -1, -1));
        pass().setInput(kBoundsMax, QVector3D(1, 1, 1));
        EXPECT_TRUE(sameImage(readLayer(run(), 0), kNothing, within(0)));
    });
}

TEST_F(LayeredPass, WithoutLayersNothingIsDrawnAndTheRecordHasAnEmptyArray)
{
    ASSERT_TRUE(model().upload(shadowScene()));
    forEachPath([&] {
        setLights({kSun, kSpot});
        run();
        setLights({});
        {
            const GlCalls calls;
            const ShadowRecord &record = run();
            EXPECT_EQ(record.layerCount, 0);
            EXPECT_EQ(calls.draws(), 0);
            EXPECT_EQ(calls.count("glClear"), 0);
            EXPECT_EQ(calls.count("glViewport"), 0);
            ASSERT_NE(record.projectionTexture(), nullptr);
            glBindTexture(GL_TEXTURE_2D_ARRAY, record.projectionTexture()->textureID());
            GLint layers = -1;
            glGetTexLevelParameteriv(GL_TEXTURE_2D_ARRAY, 0, GL_TEXTURE_DEPTH, &layers);
            EXPECT_EQ(layers, 0);
            glBindTexture(GL_TEXTURE_2D_ARRAY, 0);
        }
        setLights({kSpot, kSun});
        const ShadowRecord &record = run();
        EXPECT_EQ(compareWithModel(readLayer(record, 1), castersOfShadowScene(), record.transforms[1]).wrong, 0);
    });
}

TEST_F(LayeredPass, WindowDepthOfExactlyOneHalfGivesTheBias)
{
    // The other pass drops the same value: its test is "not above", this one's a clamp.
    ASSERT_TRUE(model().upload(quadScene({1, 1, 1}, 0x1000000000000000)));
    for (const ShadowPath path : shadowPaths()) {
        take(path);
        setLights({ShadowMapLight::directional({0, 0, -1})});
        const QByteArray position =
            path == ShadowPath::Batch
                ? QByteArray("gl_Position = modelViewProjectionMatrix[layer] * In[i].fragPos;")
                : QByteArray("gl_Position = modelViewProjectionMatrix[u_layerBase] * (getModelMatrix() * "
                             "vec4(va_Vertex, 1.0));");
        const ShaderEdit atZero({qMakePair(position, position + " gl_Position.z = 0.0;")});
        const Image<float> map = readLayer(run(), 0);
        EXPECT_TRUE(isPixel(map, kWidth / 2, kHeight / 2, momentsOf(kShadowBias), 1e-9)) << nameOf(path);
    }
}

TEST_F(LayeredPass, DepthsInFrontOfTheRangeAndAtItsEndAreEmpty)
{
    // The quad of the scene at z 0 stays, others are moved along the light's depth.
    ASSERT_TRUE(model().upload(quadScene({1, 1, 1}, 0x1000000000000000)));
    forEachPath([&] {
        pass().setInput(kMapSize, QSize(16, 16));
        setLights({ShadowMapLight::directional({0, 0, -1})});
        pass().setInput(kBoundsMin, QVector3D(-1, -1, -1));
        pass().setInput(kBoundsMax, QVector3D(1, 1, 1));
        const QMatrix4x4 toWorld = matrixOf(run().transforms[0]).inverted();
        const auto texelAt = [&](float depth) {
            ModelData data = quadScene({1, 1, 1}, 0x1000000000000000);
            for (QVector3D &p : data.meshes[0].positions)
                p = toWorld.map(QVector3D(p.x() * 2, p.y() * 2, depth));
            EXPECT_TRUE(model().upload(data));
            return readLayer(run(), 0).at(8, 8)[0];
        };
        EXPECT_EQ(texelAt(-0.5f), 1e9f);
        EXPECT_EQ(texelAt(-1.5f), 1e9f);
        EXPECT_NEAR(texelAt(0.001f), 0.0015, kDepth);
        EXPECT_NEAR(texelAt(0.5f), 0.5005, kDepth);
        EXPECT_NEAR(texelAt(0.9990f), 0.9995, kDepth);
        EXPECT_EQ(texelAt(0.9998f), 1e9f);
        EXPECT_EQ(texelAt(1.5f), 1e9f);
        ASSERT_TRUE(model().upload(quadScene({1, 1, 1}, 0x1000000000000000)));
    });
}

TEST_F(LayeredPass, ADepthOfExactlyOneIsTheLastThatIsKeptAndNoEmptyTexelForTheFilter)
{
    namespace F = ShadowFilters;
    ASSERT_TRUE(model().upload(shadowScene()));
    const QByteArray biased("d += 0.0005;");
    forEachPath([&] {
        setLights({kSun});
        const ShaderEdit edit({qMakePair(biased, biased
                                                     + " int k = (int(texel.x) * 3 + int(texel.y)) % 7;"
                                                       " if(k == 0) d = 1.0; else if(k == 1) d = 1.00000012;")});
        const F::Map raw(readLayer(run(), 0));
        for (int y = 0; y < kHeight; ++y)
            for (int x = 0; x < kWidth; ++x) {
                const int k = (x * 3 + y) % 7;
                if (k < 2) {
                    ASSERT_EQ(raw.at(x, y).r, k == 0 ? 1.0 : kEmptyTexel) << x << ", " << y;
                }
            }
        pass().setInput(kFilterType, 3);
        F::Branches b;
        EXPECT_TRUE(F::isMap(readLayer(run(), 0),
                             F::gradient(
                                 raw, [](double r) { return r > 1.0; }, &b),
                             2e-6));
    });
}

// Two sheets, one behind the other from a light along -z, at z over w in its frame.
ModelData twoSheets(const ShadowMapManager::Transform &transform, float front, float back)
{
    const QMatrix4x4 toWorld = matrixOf(transform).inverted();
    ModelData data = quadScene({1, 1, 1}, 0x1000000000000000);
    data.meshes << data.meshes[0];
    for (int mesh = 0; mesh < 2; ++mesh)
        for (QVector3D &p : data.meshes[mesh].positions)
            p = toWorld.map(QVector3D(p.x() * 2, p.y() * 2, mesh == 0 ? front : back));
    data.items << data.items[0];
    data.items[1].mesh = 1;
    return data;
}

TEST_F(LayeredPass, WhatIsInFrontOfTheRangeHidesCastersHereAndNotInTheOtherPass)
{
    const auto atZ = ShadowMapLight::directional({0, 0, -1});
    const auto prepare = [&](RenderPass &p, int lights, int minimum) {
        p.setInput(lights, lightList({atZ}));
        p.setInput(minimum, QVector3D(-1, -1, -1));
        p.setInput(minimum + 1, QVector3D(1, 1, 1));
    };
    ASSERT_TRUE(model().upload(quadScene({1, 1, 1}, 0x1000000000000000)));
    ShadowMapRenderPass other;
    other.setInput(0, QVariant::fromValue(&model()));
    other.setInput(7, 0);
    other.setInput(8, QSize(kWidth, kHeight));
    prepare(other, 2, 5);
    runFrame(other);
    const ShadowMapManager::Transform transform = recordOf(other)->transforms[0];
    const struct
    {
        float front;
        bool hides;
    } kFronts[] = {{-1.5f, false}, {-1.01f, false}, {-0.99f, true}, {-0.5f, true}, {-0.01f, true}};
    for (const auto &c : kFronts) {
        ASSERT_TRUE(model().upload(twoSheets(transform, c.front, 0.5f)));
        runFrame(other);
        EXPECT_NEAR(readLayer(*recordOf(other), 0).at(8, 8)[0], 0.5 + kShadowBias, kDepth) << c.front;
        forEachPath([&] {
            prepare(pass(), kLights, kBoundsMin);
            const double depth = double(readLayer(run(), 0).at(8, 8)[0]);
            EXPECT_NEAR(depth, c.hides ? kEmptyTexel : 0.5 + kShadowBias, kDepth) << c.front;
        });
    }
}

TEST_F(LayeredPass, LightsThatComeAfterTheFirstFrameAreNamedOnceAndTheirLayersAreEmpty)
{
    ASSERT_TRUE(model().upload(shadowScene()));
    forEachPath([&] {
        setLights({kSun});
        MessageCapture messages;
        run();
        setLights({kSun, kSpot, ShadowMapLight::point({0.3f, 3.5f, 0.2f})});
        for (int frame = 0; frame < 3; ++frame) {
            const ShadowRecord &record = run();
            ASSERT_EQ(record.layerCount, 8);
            EXPECT_EQ(compareWithModel(readLayer(record, 0), castersOfShadowScene(), record.transforms[0]).wrong, 0);
            for (int layer = 1; layer < 8; ++layer)
                EXPECT_TRUE(sameImage(readLayer(record, layer), kNothing, within(0))) << layer;
        }
        EXPECT_EQ(messages.count(QtWarningMsg), 1) << qPrintable(messages.texts().join(u'\n'));
        EXPECT_EQ(messages.containing(QStringLiteral("ShadowMapRenderPass2: "
                                                     "Kvo_QList_KvoShadowMapManagerLight*_Lights has lights that came "
                                                     "after the first frame")),
                  1);
        EXPECT_EQ(messages.containing(QStringLiteral("number 1, 2 (")), 1);
        // Layers that are reserved are no surprise.
        setLights({kSun});
        run();
        EXPECT_EQ(messages.count(QtWarningMsg), 1);
        take(ShadowPath::Batch);
        ShadowMapLight later = kSpot;
        later.enabled = false;
        setLights({kSun, later});
        run();
        later.enabled = true;
        setLights({kSun, later});
        const ShadowRecord &record = run();
        EXPECT_EQ(compareWithModel(readLayer(record, 1), castersOfShadowScene(), record.transforms[1]).wrong, 0);
        EXPECT_EQ(messages.count(QtWarningMsg), 1);
    });
}

TEST_F(LayeredPass, LightsThatComeAfterAFrameWithoutAnyAreNamed)
{
    ASSERT_TRUE(model().upload(shadowScene()));
    MessageCapture messages;
    runFrame(pass());
    setLights({kSun});
    run();
    run();
    EXPECT_EQ(messages.count(QtWarningMsg), 1) << qPrintable(messages.texts().join(u'\n'));
    EXPECT_EQ(messages.containing(QStringLiteral("number 0 (")), 1);
}

// A comb and holes, so that every kind of neighbourhood is there.
ModelData combScene(float size = 1)
{
    ModelData data;
    data.materials << material({1, 1, 1});
    data.meshes << quadMesh();
    for (int i = 0; i < 60; ++i) {
        ModelItem item;
        item.flags = 0x1000000000000000;
        item.transform.translate(float(i * 37 % 100) / 50 - 1, float(i * 61 % 100) / 50 - 1,
                                 float(i * 17 % 20) / 10 - 1);
        item.transform.rotate(float(i * 23), 0.3f, 0.5f, 1);
        item.transform.scale(size * (0.02f + 0.004f * float(i % 20)), size * (0.03f + 0.01f * float(i % 7)), 1);
        data.items << item;
    }
    return data;
}

TEST_F(LayeredPass, NothingBeyondTheMapCountsForTheFilter)
{
    namespace F = ShadowFilters;
    ASSERT_TRUE(model().upload(combScene(2)));
    forEachPath([&] {
        // a part of the scene, so that casters go on beyond the map on all sides
        pass().setInput(kMapSize, QSize(37, 29));
        pass().setInput(kBoundsMin, QVector3D(-0.4f, -0.4f, -1));
        pass().setInput(kBoundsMax, QVector3D(0.4f, 0.4f, 1));
        setLights({ShadowMapLight::directional({0, 0, -1})});
        const ShadowRecord &record = run();
        const F::Map raw(readLayer(record, 0));
        int rim = 0;
        int extrapolatedFromTheRim = 0;
        for (int y = 0; y < raw.height; ++y) {
            rim += raw.at(0, y).r <= 1.0;
            rim += raw.at(raw.width - 1, y).r <= 1.0;
            extrapolatedFromTheRim += raw.at(1, y).r > 1.0 && raw.at(0, y).r <= 1.0;
        }
        ASSERT_GT(rim, 10);
        ASSERT_GT(extrapolatedFromTheRim, 1) << "two texels on there is nothing to fill it from";
        pass().setInput(kFilterType, 3);
        run();
        F::Branches b;
        // a few floats of about 1 are added up
        EXPECT_TRUE(F::isMap(readLayer(record, 0),
                             F::gradient(
                                 raw, [](double r) { return r > 1.0; }, &b),
                             2e-6));
    });
}

TEST_F(LayeredPass, TheFilterIsItsFormulaOverTheUnfilteredMomentsOnEveryPath)
{
    namespace F = ShadowFilters;
    ASSERT_TRUE(model().upload(combScene()));
    forEachPath([&] {
        setLights({ShadowMapLight::directional({0, 0, -1}), ShadowMapLight::directional({0.1f, 0.2f, -1})});
        const ShadowRecord &record = run();
        const F::Map raw[] = {F::Map(readLayer(record, 0)), F::Map(readLayer(record, 1))};
        F::Branches b;
        for (const int type : {3, 1, -7}) {
            pass().setInput(kFilterType, type);
            run();
            for (int layer = 0; layer < 2; ++layer)
                // a few floats of about 1 are added up
                EXPECT_TRUE(F::isMap(readLayer(record, layer),
                                     F::gradient(
                                         raw[layer], [](double r) { return r > 1.0; }, &b),
                                     2e-6))
                    << "type " << type << ", layer " << layer;
        }
        EXPECT_GT(b.accumulated, 1000);
        EXPECT_GT(b.extrapolated, 100);
        EXPECT_GT(b.none, 1000);
        pass().setInput(kFilterType, QStringLiteral("soft"));
        run();
        EXPECT_TRUE(F::isMap(readLayer(record, 0), raw[0], 0)) << "what is no number is no filter";
    });
}

TEST_F(LayeredPass, FilterProgramsAreBuiltOncePerValue)
{
    ASSERT_TRUE(model().upload(shadowScene()));
    setLights({kSun});
    for (const int type : {0, 1, 3, 17}) {
        pass().setInput(kFilterType, type);
        run();
    }
    const GlCalls calls;
    for (const int type : {17, 3, 1, 0}) {
        pass().setInput(kFilterType, type);
        run();
    }
    EXPECT_EQ(calls.created(), 0) << qPrintable(calls.toString());
    EXPECT_EQ(calls.count("glCompileShader"), 0);
}

TEST_F(LayeredPass, CulledAndUnculledGroupsAreDrawnOnlyWhenTheyHaveCasters)
{
    for (const quint64 flags : {quint64(0), quint64(0x1000000000000000)}) {
        ASSERT_TRUE(model().upload(cubeScene({1, 1, 1}, flags)));
        forEachPath([&] {
            setLights({kSun});
            run();
            glEnable(GL_CULL_FACE);
            const GlCalls calls;
            const ShadowRecord &record = run();
            EXPECT_EQ(calls.draws(), 2) << "casters and conversion";
            EXPECT_EQ(calls.count("glEnable", {GL_CULL_FACE}), 1) << "for the casters, or put back";
            EXPECT_EQ(bool(glIsEnabled(GL_CULL_FACE)), flags != 0);
            const MapComparison c = compareWithModel(readLayer(record, 0), cubeScene(), record.transforms[0]);
            EXPECT_EQ(c.wrong, 0);
            EXPECT_GT(c.covered, 100);
        });
    }
}

TEST_F(LayeredPass, BackFacesAreDrawnForItemsWithBit60Only)
{
    for (const quint64 flags : {quint64(0), quint64(0x1000000000000000)}) {
        ASSERT_TRUE(model().upload(quadScene({1, 1, 1}, flags)));
        forEachPath([&] {
            setLights({ShadowMapLight::directional({0, 0, 1})});
            glEnable(GL_CULL_FACE);
            EXPECT_EQ(readLayer(run(), 0).at(32, 24)[0] < 1.0f, flags != 0);
        });
    }
}

TEST_F(LayeredPass, WithoutAModelBothAssertionsAreReportedAndTheMapsAreCleared)
{
    pass().setInput(kGeometry, QVariant());
    pass().setInput(kBoundsMin, QVector3D(-1, -1, -1));
    pass().setInput(kBoundsMax, QVector3D(1, 1, 1));
    setLights({kSun});
    MessageCapture messages;
    const ShadowRecord &record = run();
    EXPECT_EQ(messages.count(QtCriticalMsg), 2);
    EXPECT_EQ(messages.containing(QStringLiteral("[ !! ] Assertion 'false == modelAsQVariant.isNull()' failed: Input "
                                                 "Geometry is NULL")),
              1);
    EXPECT_EQ(messages.containing(QStringLiteral("[ !! ] Assertion 'true == modelAsQVariant.canConvert<GPUModel*>()' "
                                                 "failed: Input Geometry is not a 'GPUModel*', type is ''")),
              1);
    EXPECT_TRUE(sameImage(readLayer(record, 0), kNothing, within(0)));
    pass().setInput(kGeometry, 4);
    messages.clear();
    run();
    EXPECT_EQ(messages.count(QtCriticalMsg), 1);
    EXPECT_EQ(messages.containing(QStringLiteral("Input Geometry is not a 'GPUModel*', type is 'int'")), 1);
}

TEST_F(LayeredPass, InstanceDataIsBoundWhileCastersAreDrawn)
{
    ASSERT_TRUE(model().upload(shadowScene()));
    setLights({kSun});
    InstanceDataCollection data(InstanceDataRegistry::Instance().getPlan(QStringLiteral("OBJMaterial")));
    ASSERT_TRUE(data.setData(QVector<float>(12, 1.0f)));
    const auto binds = [&] {
        run();
        const GlCalls calls;
        run();
        return calls.count("glBindTexture", {GL_TEXTURE_BUFFER});
    };
    const int without = binds();
    pass().setInput(kInstanceData, QVariantList{QVariant(3), QVariant::fromValue(static_cast<QObject *>(&data))});
    EXPECT_EQ(binds(), without + 2);
}

TEST_F(LayeredPass, TheInstanceDataPlanIsTheOneSetBeforeTheFirstStart)
{
    ASSERT_TRUE(model().upload(shadowScene()));
    forEachPath([&] {
        setLights({kSun});
        pass().setInstanceDataPlanName(QStringLiteral("InstanceInfo"));
        const Image<float> map = readLayer(run(), 0);
        EXPECT_LT(map.at(32, 24)[0], 1.0f);
        pass().setInstanceDataPlanName(QStringLiteral("NoSuchPlan"));
        EXPECT_TRUE(sameImage(readLayer(run(), 0), map, within(0)));
    });
}

TEST_F(LayeredPass, ChangeOfSizeOrLayersReplacesBothArraysOnly)
{
    ASSERT_TRUE(model().upload(shadowScene()));
    forEachPath([&] {
        setLights({kSun, kSpot, kSun});
        const QPointer<Texture> first = run().projectionTexture();
        pass().setInput(kMapSize, QSize(32, 32));
        {
            const GlCalls calls;
            run();
            EXPECT_EQ(calls.created(), 2);
            EXPECT_EQ(calls.count("glTexImage3D"), 2);
            EXPECT_EQ(calls.count("glCompileShader"), 0);
        }
        EXPECT_TRUE(first.isNull());
        setLights({kSun, kSpot});
        const GlCalls calls;
        const ShadowRecord &record = run();
        EXPECT_EQ(calls.created(), 2);
        EXPECT_EQ(calls.count("glCompileShader"), 0) << "the program keeps its number of matrices";
        for (int layer = 0; layer < 2; ++layer)
            EXPECT_EQ(
                compareWithModel(readLayer(record, layer), castersOfShadowScene(), record.transforms[layer]).wrong, 0);
    });
}

TEST_F(LayeredPass, SizesThatChangeEveryFrameLeakNothing)
{
    ASSERT_TRUE(model().upload(shadowScene()));
    forEachPath([&] {
        setLights({kSun, kSpot});
        run();
        const int live = GlCalls::live();
        for (int i = 1; i <= 5; ++i) {
            pass().setInput(kMapSize, QSize(8 + i, 16 - i));
            run();
            EXPECT_EQ(GlCalls::live(), live) << i;
        }
    });
}

TEST_F(LayeredPass, ACasterProgramThatDoesNotBuildIsLoggedOnceAndCostsTheFirstOutput)
{
    ASSERT_TRUE(model().upload(shadowScene()));
    setLights({kSun});
    {
        const ShaderEdit broken({qMakePair(QByteArray("out_fragDepth = vec4(1,1,0,0);"), QByteArray("nonsense"))});
        MessageCapture messages;
        runFrame(pass());
        EXPECT_EQ(messages.count(QtDebugMsg), 1);
        EXPECT_TRUE(messages.texts()[0].startsWith(QStringLiteral("[shadowmaprenderpass2.cpp:")));
    }
    EXPECT_FALSE(pass().output(0).isValid());
    EXPECT_EQ(pass().errorCode(), 0u);
    const int programs = programsAlive();
    EXPECT_TRUE(sameImage(readLayer(run(), 0), kNothing, within(0)));
    EXPECT_EQ(programsAlive(), programs + 1) << "the conversion's, and no second attempt at the other";
}

TEST_F(LayeredPass, AConversionProgramThatDoesNotBuildLeavesTheArrayUnconverted)
{
    ASSERT_TRUE(model().upload(shadowScene()));
    setLights({kSun});
    {
        const ShaderEdit broken({qMakePair(QByteArray("gl_Layer = In[0].layer;"), QByteArray("nonsense"))});
        MessageCapture messages;
        const GlCalls calls;
        run();
        EXPECT_EQ(messages.count(QtDebugMsg), 1);
        EXPECT_EQ(calls.count("glDrawArrays"), 0);
        EXPECT_EQ(calls.count("glClear", {GL_COLOR_BUFFER_BIT}), 0);
    }
    ASSERT_NE(recordOf(pass())->projectionTexture(), nullptr);
    const GlCalls calls;
    EXPECT_TRUE(sameImage(readLayer(run(), 0), kNothing, within(0)));
    EXPECT_EQ(calls.count("glCompileShader"), 0);
}

TEST_F(LayeredPass, LeavesClearColourBlendingCullingMasksAndClampChangedAndPutsTheViewportBack)
{
    ASSERT_TRUE(model().upload(shadowScene()));
    forEachPath([&] {
        setLights({kSun, kSpot});
        run();
        {
            const HostileGLState hostile;
            glDepthMask(GL_FALSE);
            glEnable(GL_DEPTH_CLAMP);
            const GLStateSnapshot before;
            run();
            EXPECT_EQ(GLStateSnapshot().changedSince(before).join(QStringLiteral(", ")),
                      QStringLiteral("clear colour, blending, face culling, colour mask, depth mask"));
            EXPECT_FALSE(glIsEnabled(GL_DEPTH_CLAMP));
        }
        resetGLState();
        glViewport(3, 4, 5, 6);
        run();
        GLint viewport[4] = {};
        glGetIntegerv(GL_VIEWPORT, viewport);
        EXPECT_EQ(viewport[0], 3);
        EXPECT_EQ(viewport[1], 4);
        EXPECT_EQ(viewport[2], 5);
        EXPECT_EQ(viewport[3], 6);
        EXPECT_FALSE(glIsEnabled(GL_DEPTH_TEST));
    });
}

TEST_F(LayeredPass, WithNothingToDrawOnlyTheClearColourChanges)
{
    forEachPath([&] {
        pass().setInput(kGeometry, QVariant::fromValue(static_cast<GPUModel *>(nullptr)));
        pass().setInput(kBoundsMin, QVector3D(-1, -1, -1));
        pass().setInput(kBoundsMax, QVector3D(1, 1, 1));
        setLights({kSun});
        run();
        const HostileGLState hostile;
        const GLStateSnapshot before;
        run();
        EXPECT_EQ(GLStateSnapshot().changedSince(before).join(QStringLiteral(", ")), QStringLiteral("clear colour"));
    });
}

TEST_F(LayeredPass, StateOfAHostDoesNotReachTheMaps)
{
    ASSERT_TRUE(model().upload(shadowScene()));
    forEachPath([&] {
        setLights({kSun, kSpot});
        pass().setInput(kFilterType, 3);
        const Image<float> expected = readLayer(run(), 1);
        glEnable(GL_BLEND);
        glBlendFunc(GL_ONE, GL_ONE);
        glEnable(GL_CULL_FACE);
        glEnable(GL_DEPTH_CLAMP);
        glDepthMask(GL_FALSE);
        glDisable(GL_DEPTH_TEST);
        glClearColor(0, 0, 0, 0);
        glViewport(0, 0, 3, 3);
        // depth is cleared before the mask is opened: a host that closed it keeps what was there
        glDepthMask(GL_TRUE);
        EXPECT_TRUE(sameImage(readLayer(run(), 1), expected, within(0)));
        resetGLState();
    });
}

TEST_F(LayeredPass, TeardownContextDataFreesFramebuffersAndPoints)
{
    ASSERT_TRUE(model().upload(shadowScene()));
    forEachPath([&] {
        setLights({kSun, kSpot});
        run();
        const int framebuffers = GlCalls::live(GlKind::Framebuffer);
        const int arrays = GlCalls::live(GlKind::VertexArray);
        const int textures = GlCalls::live(GlKind::Texture);
        {
            const GlCalls calls;
            pass().teardownContextData(nullptr);
            // bound, detached, deleted: two attachments of the one and one of the other
            EXPECT_EQ(calls.count("glFramebufferTexture"), 3);
        }
        EXPECT_EQ(GlCalls::live(GlKind::Framebuffer), framebuffers - 2);
        EXPECT_EQ(GlCalls::live(GlKind::VertexArray), arrays - 1);
        EXPECT_EQ(GlCalls::live(GlKind::Texture), textures);
        pass().teardownContextData(nullptr);
        EXPECT_EQ(GlCalls::live(GlKind::Framebuffer), framebuffers - 2);
    });
}

TEST_F(LayeredPass, AfterTeardownTheMapsStayAsTheyAreUntilTheArraysAreMadeAgain)
{
    ASSERT_TRUE(model().upload(shadowScene()));
    forEachPath([&] {
        setLights({kSun, kSpot});
        const Image<float> before = readLayer(run(), 0);
        pass().teardownContextData(nullptr);
        setLights({ShadowMapLight::directional({-0.5f, -1, 0.3f}), kSpot});
        const ShadowRecord &record = run(); // a GL error would fail the test
        EXPECT_TRUE(sameImage(readLayer(record, 0), before, within(0)));
        run();
        EXPECT_TRUE(sameImage(readLayer(record, 0), before, within(0)));
        pass().setInput(kMapSize, QSize(40, 40));
        run();
        const MapComparison c = compareWithModel(readLayer(record, 0), castersOfShadowScene(), record.transforms[0]);
        EXPECT_EQ(c.wrong, 0);
        EXPECT_GT(c.covered, 400);
    });
}

namespace {

/// A plan with the getters of "InstanceInfo" in another text, so that the pass cannot know where casters are.
QString otherPlan(const QString &name, const char *before = "", const char *after = "")
{
    InstanceDataRegistry &registry = InstanceDataRegistry::Instance();
    if (!registry.hasPlan(name)) {
        const InstanceDataPlan *known = registry.getPlan(QStringLiteral("InstanceInfo"));
        QString text = known->glslc() + QStringLiteral("\n// Where casters are is not to be known.\n");
        if (*before) {
            EXPECT_TRUE(text.contains(QLatin1String(before)));
            text.replace(QLatin1String(before), QLatin1String(after));
        }
        registry.addPlan(
            new InstanceDataPlan(name, known->samplerName(), known->texelsPerDraw(), known->glslh(), text));
    }
    return name;
}

QString uncullablePlan()
{
    return otherPlan(QStringLiteral("Uncullable"));
}

/// Streets of houses on a floor, each fifth with both faces; and a tower beside the view of the camera, whose
/// shadow falls into it.
ModelData town()
{
    ModelData data;
    data.meshes << cubeMesh() << quadMesh();
    data.materials << material({1, 1, 1});
    const auto add = [&](const QVector3D &place, const QVector3D &scale, float angle, quint64 flags) {
        ModelItem item;
        item.flags = flags;
        item.transform.translate(place);
        item.transform.rotate(angle, 0, 1, 0);
        item.transform.scale(scale);
        data.items << item;
    };
    for (int i = 0; i < 144; ++i) {
        const float height = 0.4f + 0.15f * float(i * 7 % 11);
        add({4.0f * float(i % 12) - 22, height, 4.0f * float(i / 12) - 22}, {1, height, 0.7f}, float(i * 13),
            i % 5 ? 0 : 0x1000000000000000);
    }
    add({-12, 9, 19}, {1, 9, 1}, 10, 0);
    add({0, 3, 12}, {1, 1, 1}, 0, 0x4000000000000000); // no caster
    ModelItem floor;
    floor.mesh = 1;
    floor.transform.rotate(-90, 1, 0, 0);
    floor.transform.scale(26);
    data.items << floor;
    return data;
}

constexpr quint64 kNoCasterFlags = 0xC000000000000000;

/// Draws of casters that layers need, from the fewest to the most: where floats decide there are both.
std::pair<int, int> drawsOf(const ModelData &data, const ShadowRecord &record, int first, int count)
{
    std::pair<int, int> draws{0, 0};
    for (const ModelItem &item : data.items) {
        if (item.flags & kNoCasterFlags)
            continue;
        Seen seen = Seen::No;
        for (int layer = first; layer < first + count; ++layer)
            seen = std::max(seen, seenIn(matrixOf(record.transforms[layer]), data.meshes[item.mesh], item.transform));
        draws.first += seen == Seen::Yes;
        draws.second += seen != Seen::No;
    }
    return draws;
}

} // namespace

class LayeredPassCulling : public LayeredPass
{
protected:
    /// Cascades of a camera in a street, a spot light and a point light in the middle of the town.
    void connectTown(ShadowMapRenderPass2 &p, GPUModel &casters)
    {
        p.setInput(kGeometry, QVariant::fromValue(&casters));
        p.setInput(kMapSize, QSize(kWidth, kHeight));
        p.setInput(kFilterType, 0);
        p.setInput(kCamera, camera);
        p.setInput(kProjection, projection);
        p.setInput(kBoundsMin, boundsMin);
        p.setInput(kBoundsMax, boundsMax);
        p.setInput(kLights, lightList({ShadowMapLight::directional({0.9f, -1, 0.1f}, 4),
                                       ShadowMapLight::spot({6, 7, 4}, {-0.3f, -1, -0.15f}, 50),
                                       ShadowMapLight::point({1.2f, 3, -2}, 8)}));
    }
    /// Draws with the pass and without any culling, and compares each layer.
    void expectSameMaps(GPUModel &casters, int *covered)
    {
        const bool batch = path == ShadowPath::Batch;
        const std::unique_ptr<ShadowMapRenderPass2> reference = makeLayeredPass(path, context());
        connectTown(*reference, casters);
        reference->setInstanceDataPlanName(uncullablePlan());
        runFrame(*reference);
        ShadowRecord &record = run();
        const int layers = record.layerCount;
        ASSERT_EQ(layers, 11);
        {
            const GlCalls calls;
            runFrame(*reference);
            EXPECT_EQ(calls.count("glDrawElements"), (batch ? 2 : layers) * 146) << "all of them, each time";
        }
        for (int layer = 0; layer < layers; ++layer) {
            const Image<float> map = readLayer(record, layer);
            EXPECT_TRUE(sameImage(map, readLayer(*recordOf(*reference), layer), within(0))) << "layer " << layer;
            for (int y = 0; y < kHeight; ++y)
                for (int x = 0; x < kWidth; ++x)
                    *covered += map.at(x, y)[0] <= 1.0f;
        }
    }
    /// Draws of casters in each layer, or batch of layers, against those that the boxes of the items call for.
    void expectDrawsOf(const ModelData &data, int *draws)
    {
        const int step = path == ShadowPath::Batch ? 8 : 1;
        const GlCalls calls;
        const ShadowRecord &record = run();
        std::vector<int> found;
        if (path == ShadowPath::PerLayer) {
            for (const QString &call : calls.sequence({"glFramebufferTextureLayer", "glDrawElements"})) {
                if (call == QStringLiteral("glFramebufferTextureLayer"))
                    found.push_back(0);
                else
                    ++found.back();
            }
            ASSERT_EQ(found.size(), 22u) << "moments and depth of each layer";
            for (int layer = 0; layer < 11; ++layer) {
                EXPECT_EQ(found[std::size_t(2 * layer)], 0);
                found[std::size_t(layer)] = found[std::size_t(2 * layer + 1)];
            }
            found.resize(11);
        }
        std::pair<int, int> sum{0, 0};
        for (int first = 0; first < 11; first += step) {
            const std::pair<int, int> wanted = drawsOf(data, record, first, std::min(step, 11 - first));
            sum.first += wanted.first;
            sum.second += wanted.second;
            if (path == ShadowPath::PerLayer) {
                EXPECT_GE(found[std::size_t(first)], wanted.first) << "layer " << first;
                EXPECT_LE(found[std::size_t(first)], wanted.second) << "layer " << first;
            }
        }
        *draws = calls.count("glDrawElements");
        EXPECT_GE(*draws, sum.first);
        EXPECT_LE(*draws, sum.second);
    }
    void forEachPathWith(GPUModel &casters, const std::function<void()> &test)
    {
        for (const ShadowPath each : shadowPaths()) {
            SCOPED_TRACE(nameOf(each));
            path = each;
            take(each);
            connectTown(pass(), casters);
            test();
            if (HasFatalFailure())
                return;
        }
    }

    void SetUp() override
    {
        LayeredPass::SetUp();
        camera.lookAt({-2, 1.5f, 21}, {3, 1, 8}, {0, 1, 0});
        projection.perspective(45, 1.5f, 0.3f, 28);
    }

    QMatrix4x4 camera;
    QMatrix4x4 projection;
    QVariant boundsMin; ///< The model's, unless a test sets them.
    QVariant boundsMax;
    ShadowPath path = ShadowPath::Batch;
};

TEST_F(LayeredPassCulling, EachLayerDrawsWhatItSeesAndItsMapIsThatOfDrawingAll)
{
    const ModelData data = town();
    ASSERT_TRUE(model().upload(data));
    model().setDrawRoad(GPUModel::DrawRoad::Loop);
    forEachPathWith(model(), [&] {
        int covered = 0;
        expectSameMaps(model(), &covered);
        EXPECT_GT(covered, 11 * kWidth * kHeight / 3);
        int draws = 0;
        expectDrawsOf(data, &draws);
        if (path != ShadowPath::Batch) {
            EXPECT_LT(draws, 11 * 146 / 2);
        }
        EXPECT_GT(draws, 11);
        // the tower is in no view of the camera, and in the map of a cascade
        EXPECT_EQ(seenIn(projection * camera, data.meshes[0], data.items[144].transform), Seen::No);
        EXPECT_EQ(seenIn(matrixOf(recordOf(pass())->transforms[1]), data.meshes[0], data.items[144].transform),
                  Seen::Yes);
        for (const quint64 flags : {quint64(0), quint64(0x1000000000000000), quint64(0x4000000000000000)})
            EXPECT_FALSE(model().isDrawEmpty(flags, kNoCasterFlags | 0x1000000000000000))
                << "the culling is taken back";
        model().cull(matrixOf(recordOf(pass())->transforms[5]));
        int again = 0;
        expectDrawsOf(data, &again);
        EXPECT_EQ(again, draws) << "whatever a host had culled";
    });
}

TEST_F(LayeredPassCulling, OnTheRoadOfIndirectDrawsTheMapsAreTheSame)
{
    ASSERT_TRUE(model().upload(town()));
    forEachPathWith(model(), [&] {
        std::vector<Image<float>> maps;
        for (const auto road : {GPUModel::DrawRoad::Loop, GPUModel::DrawRoad::Automatic}) {
            model().setDrawRoad(road);
            const ShadowRecord &record = run();
            for (int layer = 0; layer < record.layerCount; ++layer)
                maps.push_back(readLayer(record, layer));
        }
        for (std::size_t i = 0; i < maps.size() / 2; ++i)
            EXPECT_TRUE(sameImage(maps[i], maps[i + maps.size() / 2], within(0))) << i;
    });
}

TEST_F(LayeredPassCulling, ItemsThatAreMovedAndOtherModelsAreFollowed)
{
    ModelData data = town();
    ASSERT_TRUE(model().upload(data));
    model().setDrawRoad(GPUModel::DrawRoad::Loop);
    GPUModel other;
    ModelData otherData = town();
    for (ModelItem &item : otherData.items)
        item.transform.rotate(20, 0, 1, 0);
    ASSERT_TRUE(other.upload(otherData));
    other.setDrawRoad(GPUModel::DrawRoad::Loop);
    // what casters are framed by stays, so that only the places differ
    boundsMin = QVector3D(-27, 0, -27);
    boundsMax = QVector3D(27, 18, 27);
    forEachPathWith(model(), [&] {
        run();
        for (int round = 0; round < 3; ++round) {
            for (qsizetype i = 0; i < data.items.size() - 1; ++i) {
                QMatrix4x4 turned;
                turned.rotate(40, 0, 1, 0);
                data.items[i].transform = turned * data.items[i].transform;
            }
            ASSERT_TRUE(model().objectData(0)->setData(placesOf(data)));
            int draws = 0;
            int covered = 0;
            expectDrawsOf(data, &draws);
            expectSameMaps(model(), &covered);
            pass().setInput(kGeometry, QVariant::fromValue(&other));
            expectDrawsOf(otherData, &draws);
            expectSameMaps(other, &covered);
            pass().setInput(kGeometry, QVariant::fromValue(&model()));
            EXPECT_GT(covered, 11 * kWidth * kHeight / 2);
        }
    });
}

TEST_F(LayeredPassCulling, WhatStandsInFrontOfARangeOrAcrossItIsAsGLClipsIt)
{
    ASSERT_TRUE(model().upload(town()));
    model().setDrawRoad(GPUModel::DrawRoad::Loop);
    boundsMin = QVector3D(-9, 0.2f, -9);
    boundsMax = QVector3D(9, 1.1f, 9);
    forEachPathWith(model(), [&] {
        int covered = 0;
        expectSameMaps(model(), &covered);
        EXPECT_GT(covered, 5000);
        int draws = 0;
        expectDrawsOf(town(), &draws);
    });
}

TEST_F(LayeredPassCulling, CastersThatAPlanPlacesElsewhereAreNotLeftOut)
{
    ModelData data = town();
    ASSERT_TRUE(model().upload(data));
    const QString moved =
        otherPlan(QStringLiteral("Moved"), "return kvo_instanceMatrix(KVO_CURRENT_DRAW * 8);",
                  "mat4 m = kvo_instanceMatrix(KVO_CURRENT_DRAW * 8); m[3].xz += vec2(16.0, 8.0); return m;");
    GPUModel there;
    for (ModelItem &item : data.items) {
        QMatrix4x4 shift;
        shift.translate(16, 0, 8);
        item.transform = shift * item.transform;
    }
    ASSERT_TRUE(there.upload(data));
    boundsMin = QVector3D(-27, 0, -27);
    boundsMax = QVector3D(43, 18, 35);
    forEachPathWith(there, [&] {
        const std::unique_ptr<ShadowMapRenderPass2> placing = makeLayeredPass(path, context());
        connectTown(*placing, model());
        placing->setInstanceDataPlanName(moved);
        runFrame(*placing);
        const ShadowRecord &record = run();
        for (int layer = 0; layer < record.layerCount; ++layer)
            EXPECT_TRUE(sameImage(readLayer(*recordOf(*placing), layer), readLayer(record, layer), within(kDepth)))
                << layer;
    });
}

TEST_F(LayeredPassCulling, CopiesAndPassesThatShareAModelDrawTheSame)
{
    ASSERT_TRUE(model().upload(town()));
    model().setDrawRoad(GPUModel::DrawRoad::Loop);
    forEachPathWith(model(), [&] {
        run();
        int draws = 0;
        expectDrawsOf(town(), &draws);
        ShadowMapRenderPass2 copy(pass());
        ShadowMapRenderPass2 assigned;
        assigned = pass();
        for (ShadowMapRenderPass2 *each : {&copy, &assigned}) {
            const GlCalls calls;
            runFrame(*each);
            EXPECT_EQ(calls.count("glDrawElements"), draws);
            for (int layer = 0; layer < 11; ++layer)
                EXPECT_TRUE(
                    sameImage(readLayer(*recordOf(*each), layer), readLayer(*recordOf(pass()), layer), within(0)));
        }
    });
}

TEST_F(LayeredPassCulling, SteadyDirtyFramesWithCascadesTakeNothing)
{
    ASSERT_TRUE(model().upload(town()));
    forEachPathWith(model(), [&] {
        expectSteadyFrameCreatesNothing(pass());
        {
            run();
            const GlCalls calls;
            run();
            EXPECT_EQ(calls.count("glBufferData"), 0);
        }
        if (!allocationsAreCounted())
            return;
        const GlCalls brackets;
        run();
        const AllocationCounter allocations;
        runFrame(pass());
        EXPECT_EQ(allocations.count(), 0);
    });
}

TEST_F(LayeredPass, SteadyDirtyFrameCreatesNothing)
{
    ASSERT_TRUE(model().upload(shadowScene()));
    forEachPath([&] {
        setLights(nineLights());
        pass().setInput(kFilterType, 3);
        expectSteadyFrameCreatesNothing(pass());
    });
}

TEST_F(LayeredPass, SteadyDirtyFrameTakesNothingFromTheHeap)
{
    ASSERT_TRUE(model().upload(shadowScene()));
    for (const ShadowPath path : shadowPaths()) {
        take(path);
        setLights(nineLights());
        pass().setInput(kFilterType, 3);
        KVO_EXPECT_STEADY_FRAME_TAKES_NOTHING_FROM_THE_HEAP(pass());
    }
}

TEST_F(LayeredPass, DestructionFreesEverything)
{
    ASSERT_TRUE(model().upload(shadowScene()));
    setLights({kSun});
    run();
    const int live = GlCalls::live();
    for (const ShadowPath path : shadowPaths()) {
        auto own = makeLayeredPass(path, context());
        own->setInput(kGeometry, QVariant::fromValue(&model()));
        own->setInput(kLights, lightList({kSun, kSpot}));
        for (const int filter : {0, 1, 3}) {
            own->setInput(kFilterType, filter);
            runFrame(*own);
        }
        own.reset();
        EXPECT_EQ(GlCalls::live(), live) << nameOf(path);
    }
}

TEST_F(LayeredPass, ACopyOfAnUnstartedPassIsIndependentAndOnTheSamePath)
{
    ASSERT_TRUE(model().upload(shadowScene()));
    model().setDrawRoad(GPUModel::DrawRoad::Loop);
    setLights(nineLights());
    ShadowMapRenderPass2 copy(pass());
    MessageCapture messages;
    ShadowMapRenderPass2 assigned;
    assigned = pass();
    const Image<float> expected = readLayer(run(), 8);
    for (ShadowMapRenderPass2 *other : {&copy, &assigned}) {
        runFrame(*other);
        const GlCalls calls;
        runFrame(*other);
        EXPECT_EQ(calls.draws(), 2 * 5 + 1) << "the batch path";
        EXPECT_NE(recordOf(*other)->projectionTexture(), recordOf(pass())->projectionTexture());
        EXPECT_TRUE(sameImage(readLayer(*recordOf(*other), 8), expected, within(0)));
    }
}

TEST_F(LayeredPass, SetupAndTeardownDoNothing)
{
    ASSERT_TRUE(model().upload(shadowScene()));
    setLights({kSun});
    const Texture *maps = run().projectionTexture();
    const GlCalls calls;
    pass().teardown(nullptr);
    pass().setup(nullptr);
    EXPECT_TRUE(calls.all().empty());
    EXPECT_EQ(recordOf(pass())->projectionTexture(), maps);
}
