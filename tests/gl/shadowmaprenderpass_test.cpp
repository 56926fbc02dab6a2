#include "support/allocations.h"
#include "support/messages.h"
#include "support/passes.h"
#include "support/shaderedit.h"
#include "support/shadowfilters.h"
#include "support/shadowmaps.h"

#include <gl/shaderprogram.h>
#include <model/gpumodel.h>
#include <model/instancedatacollection.h>
#include <model/instancedataregistry.h>
#include <renderpasses/shadowmaprenderpass.h>

#include <QPointer>

using namespace Brevane::Kvo;
using namespace Brevane::Kvo::Test;

namespace {

enum Input { kGeometry, kInstanceData, kLights, kProjection, kCamera, kBoundsMin, kBoundsMax, kFilterType, kMapSize };

// Depth is interpolated in floats of about 1.
constexpr double kDepth = 1e-5;

const auto kSun = ShadowMapLight::directional({0.25f, -1, 0.1f});
const auto kSpot = ShadowMapLight::spot({2, 7, 1}, {-0.3f, -1, -0.15f}, 50);

class ShadowMapPass : public GLTest
{
protected:
    void SetUp() override
    {
        GLTest::SetUp();
        ownedModel = std::make_unique<GPUModel>();
        ownedPass = std::make_unique<ShadowMapRenderPass>();
        pass().setInput(kGeometry, QVariant::fromValue(ownedModel.get()));
        pass().setInput(kMapSize, QSize(64, 48));
        pass().setInput(kFilterType, 0);
    }
    void TearDown() override
    {
        ownedPass.reset();
        ownedModel.reset();
        GLTest::TearDown();
    }
    ShadowMapRenderPass &pass() { return *ownedPass; }
    GPUModel &model() { return *ownedModel; }
    ShadowRecord &run()
    {
        runFrame(pass());
        return *recordOf(pass());
    }
    void setLights(std::initializer_list<ShadowMapLight> lights) { pass().setInput(kLights, lightList(lights)); }

    /// A scene of one quad per texel of the layer of a light from above, at depths that a function of the
    /// texel gives; below 0 there is none.
    template <typename Depth>
    ModelData sheetOf(const QSize &size, const Depth &depthAt)
    {
        pass().setInput(kBoundsMin, QVector3D(-1, -1, -1));
        pass().setInput(kBoundsMax, QVector3D(1, 1, 1));
        setLights({ShadowMapLight::directional({0, 0, -1})});
        ShadowRecord record;
        const QPair<QVector3D, QVector3D> bounds(QVector3D(-1, -1, -1), QVector3D(1, 1, 1));
        ShadowMapManager::processLights(lightList({ShadowMapLight::directional({0, 0, -1})}), record, nullptr, nullptr,
                                        &bounds);
        const QMatrix4x4 toWorld = matrixOf(record.transforms[0]).inverted();
        ModelData data;
        data.materials << material({1, 1, 1});
        data.meshes << ModelMesh();
        ModelMesh &mesh = data.meshes[0];
        for (int y = 0; y < size.height(); ++y) {
            for (int x = 0; x < size.width(); ++x) {
                const double depth = depthAt(x, y);
                if (depth < 0)
                    continue;
                const auto first = quint32(mesh.positions.size());
                for (const auto &[dx, dy] : {std::pair(0, 0), std::pair(1, 0), std::pair(1, 1), std::pair(0, 1)})
                    mesh.positions << toWorld.map(QVector3D(2 * float(x + dx) / float(size.width()) - 1,
                                                            2 * float(y + dy) / float(size.height()) - 1,
                                                            float(depth)));
                mesh.indices << first << first + 1 << first + 2 << first << first + 2 << first + 3;
            }
        }
        data.items << ModelItem();
        data.items[0].flags = 0x1000000000000000;
        return data;
    }

    std::unique_ptr<GPUModel> ownedModel;
    std::unique_ptr<ShadowMapRenderPass> ownedPass;
};

// Depths with gaps of every kind: single texels, pairs, rows, and casters alone, in pairs and in blocks.
double gappyDepth(int x, int y)
{
    const unsigned mixed = (unsigned(x) * 73856093u) ^ (unsigned(y) * 19349663u);
    const unsigned noise = (mixed >> 7) % 100;
    if (y % 9 < 4 && noise < 55)
        return -1;
    if (y % 9 >= 7 && noise < 12)
        return -1;
    if (x > 24 && y > 26)
        return -1;
    return 0.1 + 0.005 * x + 0.011 * y + 0.002 * double(noise % 10);
}

} // namespace

TEST_F(ShadowMapPass, SlotsHaveTheirNamesOrderAndDefaults)
{
    expectSlots(ShadowMapRenderPass(),
                {{"Kvo_KvoGPUModel*_Geometry"},
                 {"Kvo_QList_InstanceData"},
                 {"Kvo_QList_KvoShadowMapManagerLight*_Lights"},
                 {"Kvo_QMatrix4x4_ProjectionMatrix"},
                 {"Kvo_QMatrix4x4_CameraMatrix"},
                 {"Kvo_QVector3D_SceneBoundsMin"},
                 {"Kvo_QVector3D_SceneBoundsMax"},
                 {"Kvo_int_FilterType", 1},
                 {"Kvo_QSize_MapSize", QSize(512, 512)}},
                {"Kvo_QVariant_ShadowMapData"});
}

TEST_F(ShadowMapPass, ConstructingCopyingAndDestroyingMakesNoGLCallAndNeedsNoContext)
{
    const auto make = [] {
        ShadowMapRenderPass one;
        ShadowMapRenderPass two(one);
        ShadowMapRenderPass three;
        three = two;
    };
    {
        const GlCalls calls;
        make();
        EXPECT_EQ(calls.all().size(), 0u) << qPrintable(calls.toString());
    }
    GLContext::doneCurrent();
    const GlCalls calls;
    make();
    EXPECT_TRUE(calls.all().empty()) << qPrintable(calls.toString());
    ASSERT_TRUE(context().makeCurrent());
}

TEST_F(ShadowMapPass, MapsHoldTheMomentsOfTheNearestCasterOfEveryLight)
{
    ASSERT_TRUE(model().upload(shadowScene()));
    setLights({kSun, kSpot, ShadowMapLight::directional({-0.2f, -1, 0.3f}, 2)});
    const ShadowRecord &record = run();
    ASSERT_EQ(record.layerCount, 4);
    for (int layer = 0; layer < 4; ++layer) {
        const MapComparison c =
            compareWithModel(readLayer(record, layer), castersOfShadowScene(), record.transforms[layer]);
        EXPECT_GT(c.covered, 64 * 48 / 4) << layer;
        EXPECT_GT(c.empty, 20) << layer;
        EXPECT_LT(c.ambiguous, 64 * 48 / 10) << layer;
        EXPECT_EQ(c.wrong, 0) << layer;
        EXPECT_LT(c.worst, kDepth) << layer;
    }
}

TEST_F(ShadowMapPass, TheRecordIsHandedOutInObjectFormWithTheTextureOfTheMaps)
{
    ASSERT_TRUE(model().upload(shadowScene()));
    setLights({kSun});
    const ShadowRecord &record = run();
    ASSERT_NE(record.projectionTexture(), nullptr);
    EXPECT_EQ(record.projectionTexture()->target(), unsigned(GL_TEXTURE_2D_ARRAY));
    EXPECT_EQ(recordOf(pass()), &record);
    runFrame(pass());
    EXPECT_EQ(recordOf(pass()), &record) << "the record is the pass's own, frame after frame";
}

TEST_F(ShadowMapPass, TexturesHaveTheirFormatsFiltersWrapAndBorder)
{
    ASSERT_TRUE(model().upload(shadowScene()));
    setLights({kSun, kSpot});
    pass().setInput(kFilterType, 1);
    const GlCalls calls;
    const ShadowRecord &record = run();
    // moments and the filter's array; one depth buffer for all layers
    std::vector<GlCall> arrays = calls.calls("glTexImage3D");
    ASSERT_EQ(arrays.size(), 2u);
    for (const GlCall &call : arrays) {
        EXPECT_EQ(call.args[0], GL_TEXTURE_2D_ARRAY);
        EXPECT_EQ(call.args[1], 0);
        EXPECT_EQ(call.args[2], GL_RG32F);
        EXPECT_EQ(call.args[3], 64);
        EXPECT_EQ(call.args[4], 48);
        EXPECT_EQ(call.args[5], 2);
        EXPECT_EQ(call.args[7], GL_RG);
        EXPECT_EQ(call.args[8], GL_FLOAT);
    }
    const int depth = calls.indexOf(
        "glTexImage2D", {GL_TEXTURE_2D, 0, GL_DEPTH_COMPONENT32F, 64, 48, 0, GL_DEPTH_COMPONENT, GL_FLOAT, 0});
    EXPECT_GE(depth, 0);
    EXPECT_EQ(calls.count("glGenerateMipmap"), 0);

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
    EXPECT_EQ(border[1], 1e9f);
    EXPECT_EQ(border[2], 1e9f);
    EXPECT_EQ(border[3], 1.0f);
    glBindTexture(GL_TEXTURE_2D_ARRAY, 0);
}

TEST_F(ShadowMapPass, LayersAreDrawnOneAfterTheOtherCulledCastersFirst)
{
    ASSERT_TRUE(model().upload(shadowScene()));
    model().setDrawRoad(GPUModel::DrawRoad::Loop);
    setLights({kSun, kSpot});
    run();
    const GlCalls calls;
    const ShadowRecord &record = run();
    const QString layer = QStringLiteral("glFramebufferTextureLayer glDrawBuffers glUniformMatrix4fv glClear glEnable "
                                         "glDrawElements glDrawElements glDrawElements glDrawElements glDisable "
                                         "glDrawElements");
    QStringList found = calls.sequence({"glFramebufferTextureLayer", "glDrawBuffers", "glUniformMatrix4fv", "glClear",
                                        "glEnable", "glDisable", "glDrawElements"});
    // before the layers depth test and clamp on, blending and culling off; after them clamp and test off
    EXPECT_EQ(found.mid(0, 4).join(u' '), QStringLiteral("glEnable glDisable glDisable glEnable"));
    EXPECT_EQ(found.mid(4, 11).join(u' '), layer);
    EXPECT_EQ(found.mid(15, 11).join(u' '), layer);
    EXPECT_EQ(found.mid(26).join(u' '), QStringLiteral("glDisable glDisable"));
    for (int i = 0; i < 2; ++i) {
        EXPECT_GE(
            calls.indexOf("glFramebufferTextureLayer", {GL_FRAMEBUFFER, GL_COLOR_ATTACHMENT0,
                                                        double(record.projectionTexture()->textureID()), 0, double(i)}),
            0);
        const GlCall upload = calls.calls("glUniformMatrix4fv")[size_t(i)];
        EXPECT_EQ(upload.args[1], 1);
        EXPECT_EQ(upload.args[2], GL_FALSE);
        for (size_t k = 0; k < 16; ++k)
            EXPECT_EQ(float(upload.data[k]), record.transforms[i].m[k]);
    }
    EXPECT_EQ(calls.count("glClear", {GL_COLOR_BUFFER_BIT | GL_DEPTH_BUFFER_BIT}), 2);
    EXPECT_EQ(calls.count("glDepthMask", {GL_TRUE}), 1);
    EXPECT_EQ(calls.count("glViewport", {0, 0, 64, 48}), 1);
}

TEST_F(ShadowMapPass, EveryFrameDrawsAllMapsWhateverTheLightsDid)
{
    ASSERT_TRUE(model().upload(shadowScene()));
    setLights({kSun, kSpot});
    run();
    const int draws = [&] {
        const GlCalls calls;
        run();
        return calls.draws();
    }();
    EXPECT_GT(draws, 0);
    const GlCalls calls;
    run();
    EXPECT_EQ(calls.draws(), draws);
}

TEST_F(ShadowMapPass, WithoutLightsTheRecordHasAnEmptyArrayAndNothingIsDrawn)
{
    ASSERT_TRUE(model().upload(shadowScene()));
    pass().setInput(kFilterType, 1);
    run();
    const GlCalls calls;
    const ShadowRecord &record = run();
    EXPECT_EQ(record.layerCount, 0);
    ASSERT_NE(record.projectionTexture(), nullptr);
    EXPECT_EQ(calls.draws(), 0);
    EXPECT_EQ(calls.count("glClear"), 0);
    EXPECT_EQ(calls.count("glFramebufferTextureLayer"), 0);
    glBindTexture(GL_TEXTURE_2D_ARRAY, record.projectionTexture()->textureID());
    GLint layers = -1;
    glGetTexLevelParameteriv(GL_TEXTURE_2D_ARRAY, 0, GL_TEXTURE_DEPTH, &layers);
    EXPECT_EQ(layers, 0);
    glBindTexture(GL_TEXTURE_2D_ARRAY, 0);
}

TEST_F(ShadowMapPass, AModelWithNothingToDrawClearsAllLayersAndRunsNoFilter)
{
    pass().setInput(kFilterType, 1);
    setLights({kSun, ShadowMapLight::point({0, 4, 0})});
    for (const bool hasItems : {false, true}) {
        // items that cast no shadow are nothing to draw
        if (hasItems) {
            ModelData data = cubeScene({1, 1, 1}, 0x8000000000000000);
            ASSERT_TRUE(model().upload(data));
        }
        pass().setInput(kBoundsMin, QVector3D(-1, -1, -1));
        pass().setInput(kBoundsMax, QVector3D(1, 1, 1));
        const GlCalls calls;
        const ShadowRecord &record = run();
        ASSERT_EQ(record.layerCount, 7);
        EXPECT_EQ(calls.draws(), 0);
        EXPECT_EQ(calls.count("glClear", {GL_COLOR_BUFFER_BIT}), 7);
        EXPECT_EQ(calls.count("glViewport"), 0);
        for (int layer = 0; layer < 7; ++layer)
            EXPECT_TRUE(sameImage(readLayer(record, layer), Image<float>(64, 48, {1e9f, 1e9f, 0, 1}), within(0)));
    }
}

TEST_F(ShadowMapPass, WithoutAModelBothAssertionsAreReportedAndTheMapsAreCleared)
{
    pass().setInput(kGeometry, QVariant());
    pass().setInput(kBoundsMin, QVector3D(-1, -1, -1));
    pass().setInput(kBoundsMax, QVector3D(1, 1, 1));
    setLights({kSun});
    MessageCapture messages;
    const ShadowRecord &record = run();
    EXPECT_EQ(messages.containing(QStringLiteral("[ !! ] Assertion 'false == modelAsQVariant.isNull()' failed: Input "
                                                 "Geometry is NULL")),
              1);
    EXPECT_EQ(messages.containing(QStringLiteral("[ !! ] Assertion 'true == modelAsQVariant.canConvert<GPUModel*>()' "
                                                 "failed: Input Geometry is not a 'GPUModel*', type is ''")),
              1);
    EXPECT_EQ(messages.count(QtCriticalMsg), 2);
    EXPECT_EQ(messages.containing(QStringLiteral("[shadowmaprenderpass.cpp:")), 2);
    EXPECT_TRUE(sameImage(readLayer(record, 0), Image<float>(64, 48, {1e9f, 1e9f, 0, 1}), within(0)));
}

TEST_F(ShadowMapPass, AnotherTypeThanAModelIsReportedWithItsName)
{
    pass().setInput(kGeometry, QVariant(QStringLiteral("engine")));
    setLights({});
    MessageCapture messages;
    run();
    EXPECT_EQ(messages.count(QtCriticalMsg), 1);
    EXPECT_EQ(messages.containing(QStringLiteral("Input Geometry is not a 'GPUModel*', type is 'QString'")), 1);
}

TEST_F(ShadowMapPass, ANullModelIsAModelAndClearsTheMaps)
{
    pass().setInput(kGeometry, QVariant::fromValue(static_cast<GPUModel *>(nullptr)));
    pass().setInput(kBoundsMin, QVector3D(-1, -1, -1));
    pass().setInput(kBoundsMax, QVector3D(1, 1, 1));
    setLights({kSun});
    const ShadowRecord &record = run(); // a message would fail the test
    EXPECT_TRUE(sameImage(readLayer(record, 0), Image<float>(64, 48, {1e9f, 1e9f, 0, 1}), within(0)));
}

TEST_F(ShadowMapPass, BoundsComeFromTheSlotsOrElseFromTheModel)
{
    ASSERT_TRUE(model().upload(shadowScene()));
    setLights({kSun});
    const auto expected = [&](const QVector3D &minimum, const QVector3D &maximum) {
        ShadowRecord record;
        const QPair<QVector3D, QVector3D> bounds(minimum, maximum);
        ShadowMapManager::processLights(lightList({kSun}), record, nullptr, nullptr, &bounds);
        return record.transforms[0];
    };
    const auto isUsed = [&](const QVector3D &minimum, const QVector3D &maximum) {
        const ShadowMapManager::Transform t = expected(minimum, maximum);
        return isSame(run().transforms[0], t);
    };
    const GPUModel::BoundingBox box = model().sceneBounds();
    EXPECT_TRUE(isUsed(box.minimum, box.maximum));
    pass().setInput(kBoundsMin, QVector3D(-5, -6, -7));
    EXPECT_TRUE(isUsed(box.minimum, box.maximum)) << "one corner is no box";
    pass().setInput(kBoundsMax, QVector3D(5, 6, 7));
    EXPECT_TRUE(isUsed({-5, -6, -7}, {5, 6, 7}));
    pass().setInput(kBoundsMax, QRect(0, 0, 1, 1));
    EXPECT_TRUE(isUsed(box.minimum, box.maximum)) << "a rectangle is no corner";
}

TEST_F(ShadowMapPass, CameraMatricesReachTheLightsOnlyWhenTheyAreMatrices)
{
    ASSERT_TRUE(model().upload(shadowScene()));
    pass().setInput(kBoundsMin, QVector3D(-500, -500, -500));
    pass().setInput(kBoundsMax, QVector3D(500, 500, 500));
    setLights({kSun});
    const ShadowMapManager::Transform alone = run().transforms[0];
    const auto changed = [&] { return !isSame(run().transforms[0], alone); };
    pass().setInput(kProjection, perspective());
    EXPECT_FALSE(changed());
    pass().setInput(kCamera, 17);
    EXPECT_FALSE(changed());
    pass().setInput(kCamera, cameraAt(4));
    EXPECT_TRUE(changed());
}

TEST_F(ShadowMapPass, CullingOfTheModelIsTakenBackBeforeItsBoundsAndCastersAreAskedFor)
{
    ASSERT_TRUE(model().upload(shadowScene()));
    setLights({kSun});
    const Image<float> all = readLayer(run(), 0);
    QMatrix4x4 elsewhere;
    elsewhere.ortho(100, 101, 100, 101, -1, 1);
    model().cull(elsewhere);
    ASSERT_TRUE(model().isDrawEmpty(0, 0));
    EXPECT_TRUE(sameImage(readLayer(run(), 0), all, within(0)));
}

TEST_F(ShadowMapPass, AFragmentAtExactlyTheBiasIsDiscardedAndWhatIsBehindTheFarPlaneToo)
{
    // z over w of 0 is a depth of exactly 0.0005, and the front half of the clip range lies below it.
    ASSERT_TRUE(model().upload(sheetOf({8, 8}, [](int, int) { return 0.25; })));
    pass().setInput(kMapSize, QSize(8, 8));
    const QMatrix4x4 toLight = matrixOf(run().transforms[0]);
    const auto texelAt = [&](float z) {
        ModelData data = quadScene({1, 1, 1}, 0x1000000000000000);
        const QMatrix4x4 toWorld = toLight.inverted();
        for (QVector3D &p : data.meshes[0].positions)
            p = toWorld.map(QVector3D(p.x() * 2, p.y() * 2, z));
        EXPECT_TRUE(model().upload(data));
        return readLayer(run(), 0).at(4, 4)[0];
    };
    EXPECT_EQ(texelAt(-0.5f), 1e9f);
    EXPECT_EQ(texelAt(-1.5f), 1e9f) << "depth clamp keeps it, the test drops it";
    EXPECT_NEAR(texelAt(0.001f), 0.0015, kDepth);
    EXPECT_NEAR(texelAt(0.5f), 0.5005, kDepth);
    EXPECT_NEAR(texelAt(0.9990f), 0.9995, kDepth);
    EXPECT_EQ(texelAt(0.9998f), 1e9f) << "with its bias beyond 1";
    EXPECT_EQ(texelAt(1.5f), 1e9f);
}

TEST_F(ShadowMapPass, ADepthOfExactlyOneIsTheLastThatIsKept)
{
    ASSERT_TRUE(model().upload(sheetOf({8, 8}, [](int, int) { return 0.25; })));
    pass().setInput(kMapSize, QSize(8, 8));
    const QByteArray depth("float depth = vo_fragPos.x / vo_fragPos.y + 0.0005;");
    const std::pair<QByteArray, std::array<double, 4>> kCases[] = {
        {"float depth = 1.0;", {1, 1, 0, 1}},
        {"float depth = 1.00000012;", {1e9, 1e9, 0, 1}},
    };
    for (const auto &[text, expected] : kCases) {
        ShadowMapRenderPass own;
        own.setInput(kGeometry, QVariant::fromValue(&model()));
        own.setInput(kMapSize, QSize(8, 8));
        own.setInput(kFilterType, 0);
        own.setInput(kLights, lightList({ShadowMapLight::directional({0, 0, -1})}));
        const ShaderEdit edit({qMakePair(depth, text)});
        runFrame(own);
        EXPECT_TRUE(isPixel(readLayer(*recordOf(own), 0), 4, 4, expected, 0)) << text.constData();
    }
}

// For filters a depth of exactly 1 is an empty texel in the middle, and a caster beside one.
TEST_F(ShadowMapPass, FiltersTakeADepthOfExactlyOneByTheirRules)
{
    namespace F = ShadowFilters;
    pass().setInput(kMapSize, QSize(40, 36));
    ASSERT_TRUE(model().upload(sheetOf({40, 36}, gappyDepth)));
    const QByteArray depth("float depth = vo_fragPos.x / vo_fragPos.y + 0.0005;");
    const ShaderEdit edit({qMakePair(depth, depth
                                                + " if((int(gl_FragCoord.x) * 3 + int(gl_FragCoord.y)) % 7 == 0) "
                                                  "depth = 1.0;")});
    const F::Map raw(readLayer(run(), 0));
    int ones = 0;
    for (int y = 0; y < raw.height; ++y)
        for (int x = 0; x < raw.width; ++x)
            ones += raw.at(x, y).r == 1.0;
    ASSERT_GT(ones, 50);
    F::Branches b;
    pass().setInput(kFilterType, 3);
    EXPECT_TRUE(F::isMap(readLayer(run(), 0),
                         F::gradient(
                             raw, [](double r) { return r >= 1.0; }, &b),
                         1e-5));
    pass().setInput(kFilterType, 2);
    // The first of the two steps, exactly: what comes out of it goes through weights of six digits.
    EXPECT_TRUE(F::isMap(readLayer(run(), 0), F::edgeAwarePass(F::edgeAwarePass(raw, 1, 0, &b), 0, 1, &b), 1e-5));
}

TEST_F(ShadowMapPass, DepthClampIsOnWhileCastersAreDrawn)
{
    ASSERT_TRUE(model().upload(sheetOf({8, 8}, [](int, int) { return 0.25; })));
    pass().setInput(kMapSize, QSize(8, 8));
    const GlCalls calls;
    run();
    EXPECT_EQ(calls.count("glEnable", {GL_DEPTH_CLAMP}), 1);
    EXPECT_EQ(calls.count("glDisable", {GL_DEPTH_CLAMP}), 1);
    EXPECT_LT(calls.indexOf("glEnable", {GL_DEPTH_CLAMP}), calls.indexOf("glClear"));
}

TEST_F(ShadowMapPass, ACasterAtExactlyZeroLeavesNoTrace)
{
    ASSERT_TRUE(model().upload(sheetOf({8, 8}, [](int, int) { return 0.25; })));
    pass().setInput(kMapSize, QSize(8, 8));
    const ShaderEdit atZero({qMakePair(QByteArray("vo_fragPos = position.zw;"),
                                       QByteArray("position.z = 0.0; vo_fragPos = position.zw;"))});
    EXPECT_TRUE(sameImage(readLayer(run(), 0), Image<float>(8, 8, {1e9f, 1e9f, 0, 1}), within(0)));
}

TEST_F(ShadowMapPass, ASheetOfSyntheticDepthIsInTheMapAsItIs)
{
    pass().setInput(kMapSize, QSize(40, 36));
    ASSERT_TRUE(model().upload(sheetOf({40, 36}, gappyDepth)));
    const Image<float> raw = readLayer(run(), 0);
    for (int y = 0; y < 36; ++y) {
        for (int x = 0; x < 40; ++x) {
            const double depth = gappyDepth(x, y) + kShadowBias;
            if (gappyDepth(x, y) < 0)
                ASSERT_TRUE(isPixel(raw, x, y, {1e9, 1e9, 0, 1}, 0));
            else
                ASSERT_TRUE(isPixel(raw, x, y, momentsOf(depth), kDepth));
        }
    }
}

TEST_F(ShadowMapPass, EachFilterIsItsFormulaOverTheRawMoments)
{
    namespace F = ShadowFilters;
    pass().setInput(kMapSize, QSize(40, 36));
    ASSERT_TRUE(model().upload(sheetOf({40, 36}, gappyDepth)));
    const F::Map raw(readLayer(run(), 0));
    // Weights reach the shader with six digits, and sums of a few floats are off by a few parts in 1e7.
    constexpr double kFilter = 1e-5;

    pass().setInput(kFilterType, 1);
    EXPECT_TRUE(F::isMap(readLayer(run(), 0), F::gaussianPass(F::gaussianPass(raw, 1, 0), 0, 1), kFilter));

    F::Branches b;
    pass().setInput(kFilterType, 2);
    EXPECT_TRUE(F::isMap(readLayer(run(), 0), F::edgeAwarePass(F::edgeAwarePass(raw, 1, 0, &b), 0, 1, &b), kFilter));
    EXPECT_GT(b.accumulated, 100);
    EXPECT_GT(b.forward, 10);
    EXPECT_GT(b.forwardSecondOnly, 0);
    EXPECT_GT(b.backOne, b.backOneWithHitAhead);
    EXPECT_GT(b.backOneWithHitAhead, 0);
    EXPECT_GT(b.backTwo, 0);
    EXPECT_GT(b.none, 0);

    b = {};
    pass().setInput(kFilterType, 3);
    EXPECT_TRUE(F::isMap(readLayer(run(), 0),
                         F::gradient(
                             raw, [](double r) { return r >= 1.0; }, &b),
                         kFilter));
    EXPECT_GT(b.accumulated, 100);
    EXPECT_GT(b.extrapolated, 10);
    EXPECT_GT(b.none, 10);

    // and a filter that is off by a texel would be seen
    EXPECT_FALSE(F::isMap(readLayer(run(), 0), raw, kFilter));
}

TEST_F(ShadowMapPass, ATexelBackAloneFillsAFifthFurtherThanItsDepth)
{
    // One caster in an empty map: ahead of it nothing is found, so the line runs from 0 at -5 to the caster
    // at -1, and reaches five quarters of its moments.
    pass().setInput(kMapSize, QSize(16, 16));
    ASSERT_TRUE(model().upload(sheetOf({16, 16}, [](int x, int y) { return x == 7 && y == 7 ? 0.4 : -1.0; })));
    pass().setInput(kFilterType, 2);
    const Image<float> map = readLayer(run(), 0);
    const double d = 0.4 + kShadowBias;
    EXPECT_TRUE(isPixel(map, 7, 7, momentsOf(d), kDepth));
    EXPECT_TRUE(isPixel(map, 8, 7, {1.25 * d, 1.25 * d * d, 0, 1}, 2 * kDepth));
    EXPECT_TRUE(isPixel(map, 9, 7, {1e9, 1e9, 0, 1}, 0)) << "two back alone is not enough";
    EXPECT_TRUE(isPixel(map, 6, 7, {1e9, 1e9, 0, 1}, 0)) << "nor is one ahead alone";
    EXPECT_TRUE(isPixel(map, 8, 8, {1.5625 * d, 1.5625 * d * d, 0, 1}, 2 * kDepth)) << "the vertical pass fills on";
}

TEST_F(ShadowMapPass, OtherFilterTypesAreTheGaussianWithAProgramOfTheirOwn)
{
    ASSERT_TRUE(model().upload(shadowScene()));
    setLights({kSun});
    pass().setInput(kFilterType, 1);
    const Image<float> gaussian = readLayer(run(), 0);
    for (const int type : {-3, 4, 17}) {
        pass().setInput(kFilterType, type);
        EXPECT_TRUE(sameImage(readLayer(run(), 0), gaussian, within(0))) << type;
    }
    pass().setInput(kFilterType, QStringLiteral("soft"));
    const GlCalls calls;
    run();
    EXPECT_EQ(calls.count("glClear", {GL_COLOR_BUFFER_BIT | GL_DEPTH_BUFFER_BIT}), 1)
        << "what is no number is no filter";
}

TEST_F(ShadowMapPass, FilterProgramsAreBuiltOnceEach)
{
    ASSERT_TRUE(model().upload(shadowScene()));
    setLights({kSun});
    for (const int type : {1, 2, 3, 17}) {
        pass().setInput(kFilterType, type);
        run();
    }
    const GlCalls calls;
    for (const int type : {17, 3, 2, 1, 0}) {
        pass().setInput(kFilterType, type);
        run();
    }
    EXPECT_EQ(calls.created(), 0) << qPrintable(calls.toString());
    EXPECT_EQ(calls.count("glCompileShader"), 0);
}

TEST_F(ShadowMapPass, GaussianFiltersGoOverAllLayersAcrossThenAlong)
{
    ASSERT_TRUE(model().upload(shadowScene()));
    setLights({kSun, kSpot});
    pass().setInput(kFilterType, 1);
    run();
    const GlCalls calls;
    const ShadowRecord &record = run();
    const std::vector<GlCall> attached = calls.calls("glFramebufferTextureLayer");
    ASSERT_EQ(attached.size(), 6u); // casters, then two layers across and two along
    const auto name = double(record.projectionTexture()->textureID());
    for (size_t i = 0; i < 6; ++i)
        EXPECT_EQ(attached[i].args[4], double(i % 2)) << i;
    EXPECT_EQ(attached[0].args[2], name);
    EXPECT_NE(attached[2].args[2], name);
    EXPECT_EQ(attached[2].args[2], attached[3].args[2]);
    EXPECT_EQ(attached[4].args[2], name);
    EXPECT_EQ(attached[5].args[2], name);
    const std::vector<GlCall> steps = calls.calls("glUniform3fv");
    ASSERT_EQ(steps.size(), 2u);
    EXPECT_EQ(steps[0].data, (std::vector<double>{1.0 / 64, 0, 0}));
    EXPECT_EQ(steps[1].data, (std::vector<double>{0, double(1.0f / 48), 0}));
    EXPECT_EQ(calls.count("glDrawArrays", {GL_TRIANGLES, 0, 6}), 4);
}

TEST_F(ShadowMapPass, TheGradientFilterLeavesItsResultInAnotherTextureWithoutDepth)
{
    ASSERT_TRUE(model().upload(shadowScene()));
    setLights({kSun, kSpot});
    const Texture *raw = run().projectionTexture();
    pass().setInput(kFilterType, 1);
    EXPECT_EQ(run().projectionTexture(), raw);
    pass().setInput(kFilterType, 2);
    EXPECT_EQ(run().projectionTexture(), raw);
    pass().setInput(kFilterType, 3);
    const GlCalls calls;
    const Texture *filtered = run().projectionTexture();
    EXPECT_NE(filtered, raw);
    // the filter takes single texels, later readers are to find the array as it was
    glBindTexture(GL_TEXTURE_2D_ARRAY, raw->textureID());
    for (const GLenum filter : {GL_TEXTURE_MIN_FILTER, GL_TEXTURE_MAG_FILTER}) {
        EXPECT_EQ(calls.count("glTexParameteri", {GL_TEXTURE_2D_ARRAY, double(filter), GL_NEAREST}), 1);
        GLint value = 0;
        glGetTexParameteriv(GL_TEXTURE_2D_ARRAY, filter, &value);
        EXPECT_EQ(value, GL_LINEAR);
    }
    glBindTexture(GL_TEXTURE_2D_ARRAY, 0);
    // depth is attached for the casters only
    EXPECT_EQ(calls.count("glFramebufferTexture2D", {GL_FRAMEBUFFER, GL_DEPTH_ATTACHMENT}), 1);
    EXPECT_EQ(calls.count("glDrawArrays", {GL_TRIANGLES, 0, 6}), 2);
}

TEST_F(ShadowMapPass, AfterTheGradientFilterUnfilteredMapsRepeatTheirEdge)
{
    ASSERT_TRUE(model().upload(shadowScene()));
    setLights({kSun});
    const auto wrapOf = [](const Texture *texture) {
        GLint s = 0;
        GLint t = 0;
        glBindTexture(GL_TEXTURE_2D_ARRAY, texture->textureID());
        glGetTexParameteriv(GL_TEXTURE_2D_ARRAY, GL_TEXTURE_WRAP_S, &s);
        glGetTexParameteriv(GL_TEXTURE_2D_ARRAY, GL_TEXTURE_WRAP_T, &t);
        glBindTexture(GL_TEXTURE_2D_ARRAY, 0);
        EXPECT_EQ(s, t);
        return s;
    };
    Texture *raw = run().projectionTexture();
    EXPECT_EQ(wrapOf(raw), GL_CLAMP_TO_BORDER);
    pass().setInput(kFilterType, 3);
    EXPECT_EQ(wrapOf(run().projectionTexture()), GL_CLAMP_TO_BORDER);
    EXPECT_EQ(wrapOf(raw), GL_CLAMP_TO_EDGE);
    pass().setInput(kFilterType, 0);
    EXPECT_EQ(run().projectionTexture(), raw);
    EXPECT_EQ(wrapOf(raw), GL_CLAMP_TO_EDGE);
    pass().setInput(kFilterType, 1);
    EXPECT_EQ(wrapOf(run().projectionTexture()), GL_CLAMP_TO_BORDER);
}

TEST_F(ShadowMapPass, ChangeOfMapSizeReplacesAllTexturesAndChangeOfLayersBothArrays)
{
    ASSERT_TRUE(model().upload(shadowScene()));
    setLights({kSun});
    pass().setInput(kFilterType, 1);
    QPointer<Texture> moments = run().projectionTexture();
    pass().setInput(kMapSize, QSize(32, 32));
    {
        const GlCalls calls;
        run();
        EXPECT_EQ(calls.count("glTexImage2D"), 1);
        EXPECT_EQ(calls.count("glTexImage3D"), 2);
        EXPECT_EQ(calls.created(), 3);
        EXPECT_TRUE(moments.isNull());
    }
    moments = recordOf(pass())->projectionTexture();
    setLights({kSun, kSpot});
    const GlCalls calls;
    run();
    EXPECT_EQ(calls.count("glTexImage2D"), 0) << "the depth buffer serves any number of layers";
    EXPECT_EQ(calls.count("glTexImage3D"), 2);
    EXPECT_TRUE(moments.isNull());
}

TEST_F(ShadowMapPass, SizesAndLayersThatChangeEveryFrameLeakNothing)
{
    ASSERT_TRUE(model().upload(shadowScene()));
    pass().setInput(kFilterType, 2);
    setLights({kSun});
    run();
    const int live = GlCalls::live();
    for (int i = 1; i <= 6; ++i) {
        pass().setInput(kMapSize, QSize(8 + i, 16 - i));
        setLights(i % 2 ? std::initializer_list<ShadowMapLight>{kSun, kSpot}
                        : std::initializer_list<ShadowMapLight>{kSpot});
        run();
        EXPECT_EQ(GlCalls::live(), live) << i;
    }
}

TEST_F(ShadowMapPass, LayersOfALightThatIsOffAreNotTouched)
{
    ASSERT_TRUE(model().upload(shadowScene()));
    ShadowMapLight off = ShadowMapLight::directional({0.2f, -1, 0.3f}, 2);
    off.enabled = false;
    setLights({kSun, off, kSpot});
    run();
    const GlCalls calls;
    const ShadowRecord &record = run();
    EXPECT_EQ(record.layerCount, 4);
    const std::vector<GlCall> attached = calls.calls("glFramebufferTextureLayer");
    ASSERT_EQ(attached.size(), 2u);
    EXPECT_EQ(attached[0].args[4], 0);
    EXPECT_EQ(attached[1].args[4], 3);
    const MapComparison c = compareWithModel(readLayer(record, 3), castersOfShadowScene(), record.transforms[3]);
    EXPECT_EQ(c.wrong, 0);
}

TEST_F(ShadowMapPass, OnlyCulledOrOnlyUnculledCastersTakeOneDrawPerLayer)
{
    setLights({kSun});
    for (const quint64 flags : {quint64(0), quint64(0x1000000000000000)}) {
        ASSERT_TRUE(model().upload(cubeScene({1, 1, 1}, flags)));
        run();
        glEnable(GL_CULL_FACE);
        const GlCalls calls;
        const ShadowRecord &record = run();
        EXPECT_EQ(calls.draws(), 1);
        EXPECT_EQ(calls.count("glEnable", {GL_CULL_FACE}), 1) << "for the casters, or put back";
        EXPECT_EQ(bool(glIsEnabled(GL_CULL_FACE)), flags != 0);
        const MapComparison c = compareWithModel(readLayer(record, 0), cubeScene(), record.transforms[0]);
        EXPECT_EQ(c.wrong, 0);
        EXPECT_GT(c.covered, 100);
    }
}

// Culling is a matter of the casters that are culled: it is off behind those, and as the host has it elsewhere.
TEST_F(ShadowMapPass, TheCullingOfAHostEndsWithCastersThatAreCulledOnly)
{
    for (const quint64 flags : {quint64(0), quint64(0x1000000000000000)})
        for (const bool hasLights : {false, true})
            for (const bool culls : {false, true}) {
                SCOPED_TRACE(::testing::Message() << flags << ", lights " << hasLights << ", culls " << culls);
                ASSERT_TRUE(model().upload(quadScene({1, 1, 1}, flags)));
                setLights({});
                if (hasLights)
                    setLights({kSun});
                culls ? glEnable(GL_CULL_FACE) : glDisable(GL_CULL_FACE);
                runFrame(pass());
                EXPECT_EQ(bool(glIsEnabled(GL_CULL_FACE)), culls && (flags != 0 || !hasLights));
                glDisable(GL_CULL_FACE);
            }
}

TEST_F(ShadowMapPass, BackFacesAreDrawnForItemsWithBit60Only)
{
    setLights({ShadowMapLight::directional({0, 0, 1})}); // sees the back of the quad
    for (const quint64 flags : {quint64(0), quint64(0x1000000000000000)}) {
        ASSERT_TRUE(model().upload(quadScene({1, 1, 1}, flags)));
        glEnable(GL_CULL_FACE);
        const Image<float> map = readLayer(run(), 0);
        EXPECT_EQ(map.at(32, 24)[0] < 1.0f, flags != 0);
    }
}

TEST_F(ShadowMapPass, InstanceDataIsBoundWhileCastersAreDrawn)
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
    pass().setInput(kInstanceData, QVariantList{QVariant::fromValue(static_cast<QObject *>(&data))});
    EXPECT_EQ(binds(), without + 2);
    pass().setInput(kInstanceData,
                    QVariantList{QVariant(3), QVariant(), QVariant::fromValue(static_cast<QObject *>(&data)),
                                 QVariant::fromValue(static_cast<QObject *>(nullptr))});
    EXPECT_EQ(binds(), without + 2) << "what is no instance data counts as none";
    pass().setInput(kInstanceData, 5);
    EXPECT_EQ(binds(), without);
}

TEST_F(ShadowMapPass, TheInstanceDataPlanIsTheOneSetBeforeTheFirstStart)
{
    ASSERT_TRUE(model().upload(shadowScene()));
    setLights({kSun});
    const Image<float> expected = readLayer(run(), 0);
    ShadowMapRenderPass named;
    for (int i = 0; i < pass().numInputs(); ++i)
        named.setInput(i, QVariant());
    named.setInput(kGeometry, QVariant::fromValue(&model()));
    named.setInput(kLights, lightList({kSun}));
    named.setInput(kMapSize, QSize(64, 48));
    named.setInstanceDataPlanName(QStringLiteral("InstanceInfo"));
    {
        MessageCapture messages;
        runFrame(named);
        EXPECT_TRUE(messages.all().isEmpty());
    }
    EXPECT_TRUE(sameImage(readLayer(*recordOf(named), 0), expected, within(0)));
    named.setInstanceDataPlanName(QStringLiteral("NoSuchPlan"));
    const GlCalls calls;
    runFrame(named);
    EXPECT_EQ(calls.count("glCompileShader"), 0) << "the program is built once";
    EXPECT_TRUE(sameImage(readLayer(*recordOf(named), 0), expected, within(0)));
}

TEST_F(ShadowMapPass, AnUnknownPlanIsNamedAndTheProgramDoesNotBuild)
{
    ASSERT_TRUE(model().upload(shadowScene()));
    setLights({kSun});
    pass().setInstanceDataPlanName(QStringLiteral("NoSuchPlan"));
    MessageCapture messages;
    runFrame(pass());
    EXPECT_GE(messages.containing(QStringLiteral("NoSuchPlan")), 1);
    EXPECT_FALSE(pass().output(0).isValid());
}

TEST_F(ShadowMapPass, ACasterProgramThatDoesNotBuildIsLoggedOnceAndCostsTheFirstOutput)
{
    ASSERT_TRUE(model().upload(shadowScene()));
    setLights({kSun});
    pass().setInput(kFilterType, 1);
    {
        const ShaderEdit broken(
            {qMakePair(QByteArray("vo_fragPos = position.zw;"), QByteArray("vo_fragPos = nonsense;"))});
        MessageCapture messages;
        runFrame(pass());
        EXPECT_EQ(messages.count(QtDebugMsg), 1);
        EXPECT_EQ(messages.containing(QStringLiteral("nonsense")), 1);
        EXPECT_TRUE(messages.texts()[0].startsWith(QStringLiteral("[shadowmaprenderpass.cpp:")));
    }
    EXPECT_FALSE(pass().output(0).isValid());
    EXPECT_EQ(pass().errorCode(), 0u);
    // later frames go on with it as it is: cleared maps, and no second attempt
    MessageCapture messages;
    const GlCalls calls;
    const ShadowRecord &record = run();
    EXPECT_EQ(calls.count("glCompileShader"), 2) << "the filter's, and nothing else";
    EXPECT_EQ(messages.count(QtDebugMsg), 0);
    EXPECT_EQ(readLayer(record, 0).at(30, 20)[0], 1e9f);
}

TEST_F(ShadowMapPass, AFilterProgramThatDoesNotBuildLeavesTheFirstFrameUnfiltered)
{
    ASSERT_TRUE(model().upload(shadowScene()));
    setLights({kSun});
    const Image<float> raw = readLayer(run(), 0);
    pass().setInput(kFilterType, 1);
    {
        const ShaderEdit broken({qMakePair(QByteArray("// SimpleGaussianBlur"), QByteArray("nonsense"))});
        MessageCapture messages;
        EXPECT_TRUE(sameImage(readLayer(run(), 0), raw, within(0)));
        EXPECT_EQ(messages.count(QtDebugMsg), 1);
        EXPECT_EQ(messages.containing(QStringLiteral("failed to compile")), 1);
    }
    const GlCalls calls;
    const ShadowRecord &record = run();
    EXPECT_EQ(calls.count("glCompileShader"), 0);
    EXPECT_TRUE(sameImage(readLayer(record, 0), Image<float>(64, 48, {1e9f, 1e9f, 0, 1}), within(0)))
        << "the filter's targets are cleared, and nothing is drawn into them";
}

TEST_F(ShadowMapPass, LeavesViewportClearColourBlendingCullingAndDepthMaskChanged)
{
    ASSERT_TRUE(model().upload(shadowScene()));
    setLights({kSun, kSpot});
    for (const int filter : {0, 1, 3}) {
        pass().setInput(kFilterType, filter);
        run();
        const HostileGLState hostile;
        glDepthMask(GL_FALSE);
        glEnable(GL_DEPTH_CLAMP);
        const GLStateSnapshot before;
        run();
        EXPECT_EQ(GLStateSnapshot().changedSince(before).join(QStringLiteral(", ")),
                  QStringLiteral("viewport, clear colour, blending, face culling, depth mask"))
            << filter;
        EXPECT_FALSE(glIsEnabled(GL_DEPTH_CLAMP));
        EXPECT_TRUE(glIsEnabled(GL_DEPTH_TEST)) << "put back";
        resetGLState();
    }
    GLint viewport[4] = {};
    run();
    glGetIntegerv(GL_VIEWPORT, viewport);
    EXPECT_EQ(viewport[2], 64);
    EXPECT_EQ(viewport[3], 48);
    EXPECT_FALSE(glIsEnabled(GL_DEPTH_TEST)) << "put back";
}

TEST_F(ShadowMapPass, WithNothingToDrawOnlyTheClearColourChanges)
{
    pass().setInput(kBoundsMin, QVector3D(-1, -1, -1));
    pass().setInput(kBoundsMax, QVector3D(1, 1, 1));
    setLights({kSun});
    run();
    const HostileGLState hostile;
    const GLStateSnapshot before;
    run();
    EXPECT_EQ(GLStateSnapshot().changedSince(before).join(QStringLiteral(", ")), QStringLiteral("clear colour"));
}

TEST_F(ShadowMapPass, BlendingOfAHostDoesNotReachTheMaps)
{
    ASSERT_TRUE(model().upload(shadowScene()));
    setLights({kSun});
    pass().setInput(kFilterType, 2);
    const Image<float> expected = readLayer(run(), 0);
    glEnable(GL_BLEND);
    glBlendFunc(GL_ONE, GL_ONE);
    glEnable(GL_CULL_FACE);
    glDepthMask(GL_FALSE);
    glDisable(GL_DEPTH_TEST);
    glClearColor(0, 0, 0, 0);
    EXPECT_TRUE(sameImage(readLayer(run(), 0), expected, within(0)));
}

TEST_F(ShadowMapPass, TeardownContextDataFreesFramebufferAndQuadAndTheNextFrameIsTheSame)
{
    ASSERT_TRUE(model().upload(shadowScene()));
    setLights({kSun});
    pass().setInput(kFilterType, 1);
    const Image<float> expected = readLayer(run(), 0);
    const int framebuffers = GlCalls::live(GlKind::Framebuffer);
    const int arrays = GlCalls::live(GlKind::VertexArray);
    const int buffers = GlCalls::live(GlKind::Buffer);
    const int textures = GlCalls::live(GlKind::Texture);
    pass().teardownContextData(nullptr);
    EXPECT_EQ(GlCalls::live(GlKind::Framebuffer), framebuffers - 1);
    EXPECT_EQ(GlCalls::live(GlKind::VertexArray), arrays - 1);
    EXPECT_EQ(GlCalls::live(GlKind::Buffer), buffers - 2);
    EXPECT_EQ(GlCalls::live(GlKind::Texture), textures);
    pass().teardownContextData(nullptr);
    const GlCalls calls;
    const ShadowRecord &record = run();
    EXPECT_EQ(calls.created(GlKind::Framebuffer), 1);
    EXPECT_EQ(calls.created(GlKind::VertexArray), 1);
    EXPECT_EQ(calls.created(GlKind::Buffer), 2);
    EXPECT_EQ(calls.created(), 4);
    EXPECT_TRUE(sameImage(readLayer(record, 0), expected, within(0)));
}

TEST_F(ShadowMapPass, AQuadMadeForOneFilterServesTheOthers)
{
    ASSERT_TRUE(model().upload(shadowScene()));
    setLights({kSun});
    pass().setInput(kFilterType, 1);
    const Image<float> gaussian = readLayer(run(), 0);
    pass().teardownContextData(nullptr);
    pass().setInput(kFilterType, 3);
    run();
    pass().setInput(kFilterType, 1);
    EXPECT_TRUE(sameImage(readLayer(run(), 0), gaussian, within(0)));
}

TEST_F(ShadowMapPass, SteadyFrameCreatesNothing)
{
    ASSERT_TRUE(model().upload(shadowScene()));
    setLights({kSun, kSpot, ShadowMapLight::point({0, 3, 0})});
    for (const int filter : {0, 1, 2, 3}) {
        pass().setInput(kFilterType, filter);
        expectSteadyFrameCreatesNothing(pass());
    }
}

TEST_F(ShadowMapPass, SteadyFrameTakesNothingFromTheHeap)
{
    ASSERT_TRUE(model().upload(shadowScene()));
    setLights({kSun, kSpot, ShadowMapLight::point({0, 3, 0})});
    pass().setInput(kProjection, perspective());
    pass().setInput(kCamera, cameraAt(4));
    pass().setInput(kFilterType, 1);
    KVO_EXPECT_STEADY_FRAME_TAKES_NOTHING_FROM_THE_HEAP(pass());
}

TEST_F(ShadowMapPass, DestructionFreesEverythingAndTheRecordGoesWithThePass)
{
    ASSERT_TRUE(model().upload(shadowScene()));
    setLights({kSun});
    run(); // the model makes what it draws with on its first draw
    const int live = GlCalls::live();
    QPointer<Texture> moments;
    {
        ShadowMapRenderPass own;
        own.setInput(kGeometry, QVariant::fromValue(&model()));
        own.setInput(kLights, lightList({kSun}));
        for (const int filter : {1, 2, 3}) {
            own.setInput(kFilterType, filter);
            runFrame(own);
        }
        moments = recordOf(own)->projectionTexture();
        ASSERT_FALSE(moments.isNull());
    }
    EXPECT_TRUE(moments.isNull());
    EXPECT_EQ(GlCalls::live(), live);
}

TEST_F(ShadowMapPass, ACopyOfAnUnstartedPassIsIndependent)
{
    ASSERT_TRUE(model().upload(shadowScene()));
    setLights({kSun});
    ShadowMapRenderPass copy(pass());
    ShadowMapRenderPass assigned;
    assigned = pass();
    assigned.setInput(kLights, QVariantList());
    ShadowMapRenderPass &self = assigned;
    assigned = self;
    EXPECT_EQ(run().layerCount, 1);
    runFrame(copy);
    runFrame(assigned);
    EXPECT_NE(recordOf(copy), recordOf(pass()));
    EXPECT_NE(recordOf(copy)->projectionTexture(), recordOf(pass())->projectionTexture());
    EXPECT_TRUE(sameImage(readLayer(*recordOf(copy), 0), readLayer(*recordOf(pass()), 0), within(0)));
    EXPECT_EQ(recordOf(assigned)->layerCount, 0);
}

TEST_F(ShadowMapPass, APixelBufferOfTheHostIsLeftAlone)
{
    ASSERT_TRUE(model().upload(shadowScene()));
    setLights({kSun});
    GLuint buffer = 0;
    glGenBuffers(1, &buffer);
    glBindBuffer(GL_PIXEL_UNPACK_BUFFER, buffer);
    run();
    GLint bound = 0;
    glGetIntegerv(GL_PIXEL_UNPACK_BUFFER_BINDING, &bound);
    EXPECT_EQ(GLuint(bound), buffer);
    glBindBuffer(GL_PIXEL_UNPACK_BUFFER, 0);
    glDeleteBuffers(1, &buffer);
    const MapComparison c =
        compareWithModel(readLayer(*recordOf(pass()), 0), castersOfShadowScene(), recordOf(pass())->transforms[0]);
    EXPECT_EQ(c.wrong, 0);
}

TEST_F(ShadowMapPass, MoreLayersThanTheDriverAllowsAreLeftOutWithAMessage)
{
    ASSERT_TRUE(model().upload(shadowScene()));
    setLights({kSun, ShadowMapLight::point({0, 3, 0}), kSpot});
    MessageCapture messages;
    const GlCalls::ForcedInteger limit(GL_MAX_ARRAY_TEXTURE_LAYERS, 4);
    const ShadowRecord &record = run();
    EXPECT_EQ(record.layerCount, 2);
    EXPECT_EQ(record.projectors[1].layerCount, 0);
    EXPECT_EQ(record.projectors[2].layerCount, 1);
    EXPECT_EQ(messages.containing(QStringLiteral("there would be 7, and this context's textures have 4 at most")), 1);
}
