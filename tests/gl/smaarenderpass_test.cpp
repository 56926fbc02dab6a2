#include "support/antialiasingscenes.h"
#include "support/blurreference.h"
#include "support/draw.h"
#include "support/gltest.h"
#include "support/image.h"
#include "support/passes.h"
#include "support/smaareference.h"
#include "support/soiledpool.h"

#include <gl/guards.h>
#include <gl/opengldevicecontext.h>
#include <gl/texturemanager.h>
#include <renderpasses/smaarenderpass.h>

#include <QCryptographicHash>
#include <QMatrix4x4>
#include <QPointF>
#include <QRect>
#include <QVector4D>

#include <epoxy/gl.h>

#include <algorithm>
#include <cmath>
#include <memory>

using namespace Brevane::Kvo;
using namespace Brevane::Kvo::Test;

namespace {

enum Input {
    kViewport,
    kFrame,
    kMode,
    kSupportTransparency,
    kPredicate,
    kDepth,
    kCameraMatrix,
    kProjectionMatrix,
    kJitterIndex
};

// Weights and result are half floats that llvmpipe cuts; the area table is 8-bit, which llvmpipe filters
// in steps of 1/256, and a weight moves a colour by as much at most.
constexpr double kFilteredTables = 0.012;
// Pixels where rounding decides between two ways, ends of searches and ties of corners. There are none at
// powers of two, and about 0.15 % at a size whose coordinates are rounded.
constexpr double kTipped = 0.0;
constexpr double kTippedAtOddSizes = 0.002;
// Most of that frame has no edge: 0.008 % there, and 0.024 % where a trace of a neighbour counts as an edge.
constexpr double kTippedIn1279By717 = 0.00015;

// Matrices that only shift and scale: every depth moves alike, by half the shift in clip space.
const QMatrix4x4 kFlatProjection(0.5f, 0, 0, 0, 0, 0.25f, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1);

Image<float> areaTable;
Image<float> searchTable;

// Catches the tables on their way to GL.
class TableCatcher
{
public:
    TableCatcher()
    {
        _real = epoxy_glTexImage2D;
        epoxy_glTexImage2D = &caught;
        bytes.clear();
    }
    ~TableCatcher() { epoxy_glTexImage2D = _real; }
    TableCatcher(const TableCatcher &) = delete;
    TableCatcher &operator=(const TableCatcher &) = delete;

    static inline QList<QByteArray> bytes;

private:
    static void caught(GLenum target, GLint level, GLint internalFormat, GLsizei width, GLsizei height, GLint border,
                       GLenum format, GLenum type, const void *pixels)
    {
        if (pixels && (internalFormat == GL_RG8 || internalFormat == GL_R8))
            bytes.append(
                QByteArray(static_cast<const char *>(pixels), (internalFormat == GL_RG8 ? 2 : 1) * width * height));
        _real(target, level, internalFormat, width, height, border, format, type, pixels);
    }
    static inline PFNGLTEXIMAGE2DPROC _real = nullptr;
};

// Edges at 45 degrees in both directions, of diamonds with sides from a few pixels to longer than a search.
Image<float> diamonds(int width, int height)
{
    Image<float> image(width, height, {0.125f, 0.25f, 0.375f, 1});
    for (int y = 0; y < height; ++y) {
        for (int x = 0; x < width; ++x) {
            const int size = 6 + 5 * (x / 64 % 8);
            if (std::abs(x % 64 - 32) + std::abs(y % 64 - 32) < size)
                image.at(x, y) = {0.875f, 0.5f, 0.75f, 1};
        }
    }
    return image;
}

class Smaa : public GLTest
{
protected:
    void SetUp() override
    {
        GLTest::SetUp();
        owned = std::make_unique<SMAARenderPass>();
        if (areaTable.pixels.isEmpty())
            readTables();
    }
    void TearDown() override
    {
        finish();
        GLTest::TearDown();
    }
    void finish()
    {
        if (!owned)
            return;
        owned->teardown(nullptr);
        owned.reset();
    }
    static void readTables()
    {
        const TableCatcher catcher;
        SMAARenderPass pass;
        pass.setup(nullptr);
        pass.teardown(nullptr);
        ASSERT_EQ(TableCatcher::bytes.size(), 2);
        areaTable = Image<float>(160, 560);
        for (int i = 0; i < 160 * 560; ++i)
            areaTable.pixels[i] = {float(uchar(TableCatcher::bytes[0][2 * i])) / 255.0f,
                                   float(uchar(TableCatcher::bytes[0][2 * i + 1])) / 255.0f, 0, 0};
        searchTable = Image<float>(64, 16);
        for (int i = 0; i < 64 * 16; ++i)
            searchTable.pixels[i] = {float(uchar(TableCatcher::bytes[1][i])) / 255.0f, 0, 0, 0};
    }
    void connect(Texture *frame, int width, int height, int mode)
    {
        owned->setInput(kViewport, QRect(0, 0, width, height));
        owned->setInput(kFrame, textureToVariant(frame));
        owned->setInput(kMode, mode);
        owned->setInput(kJitterIndex, -1);
    }
    void connectTemporal(Texture *frame, Texture *depth, const QMatrix4x4 &camera, bool transparency)
    {
        connect(frame, stateOf(frame).width, stateOf(frame).height, 1);
        owned->setInput(kSupportTransparency, transparency);
        owned->setInput(kDepth, textureToVariant(depth));
        owned->setInput(kProjectionMatrix, kFlatProjection);
        owned->setInput(kCameraMatrix, camera);
    }
    Image<float> result() { return readTexture<float>(outputTexture(*owned, 0)); }

    std::unique_ptr<SMAARenderPass> owned;
};

// Half planes of two greys whose edge climbs by a row in five columns, and the same of a predicate.
Image<float> slanted(float below, float above)
{
    Image<float> image(64, 64);
    for (int y = 0; y < 64; ++y)
        for (int x = 0; x < 64; ++x) {
            const float grey = 5 * y < x + 130 ? below : above;
            image.at(x, y) = {grey, grey, grey, 1};
        }
    return image;
}

// A contrast of colours, and that of the predicate where there is one, just under and just over a threshold.
struct Contrast
{
    const char *name;
    float contrast;
    float predicate; // negative: none
    bool isEdge;
};

class SmaaThresholds : public Smaa, public ::testing::WithParamInterface<Contrast>
{};

} // namespace

TEST_F(Smaa, SlotsHaveTheirNamesOrderAndDefaults)
{
    expectSlots(SMAARenderPass(),
                {{"Kvo_QRect_Viewport"},
                 {"Kvo_KvoTexture*_Frame"},
                 {"Kvo_int_Mode", 1},
                 {"Kvo_bool_SupportTransparency", false},
                 {"Kvo_KvoTexture*_Predicate"},
                 {"Kvo_KvoTexture*_Depth"},
                 {"Kvo_QMatrix4x4_CameraMatrix"},
                 {"Kvo_QMatrix4x4_ProjectionMatrix"},
                 {"Kvo_int_JitterIndex"}},
                {"Kvo_KvoTexture*_Frame"});
}

TEST_F(Smaa, TheTablesAreThePublishedOnes)
{
    const TableCatcher catcher;
    owned->setup(nullptr);
    ASSERT_EQ(TableCatcher::bytes.size(), 2);
    const auto hash = [](const QByteArray &bytes) {
        return QCryptographicHash::hash(bytes, QCryptographicHash::Sha256).toHex();
    };
    EXPECT_EQ(hash(TableCatcher::bytes[0]), "35065cef2a02cabcad711d6bf430239ae64e27d71c4e4fa06f29cce2c992f0d2");
    EXPECT_EQ(hash(TableCatcher::bytes[1]), "3694eae5e9d44b8ebb4415a13f8c7b94dc08a2fc86658434d771c4610fe5744d");
}

TEST_F(Smaa, TheUploadOfTheTablesKeepsTheUnpackAlignment)
{
    glPixelStorei(GL_UNPACK_ALIGNMENT, 8);
    GlCalls calls;
    owned->setup(nullptr);
    EXPECT_EQ(calls.count("glPixelStorei", {GL_UNPACK_ALIGNMENT, 2}), 1);
    EXPECT_EQ(calls.count("glPixelStorei", {GL_UNPACK_ALIGNMENT, 1}), 1);
    GLint alignment = 0;
    glGetIntegerv(GL_UNPACK_ALIGNMENT, &alignment);
    EXPECT_EQ(alignment, 8);
    glPixelStorei(GL_UNPACK_ALIGNMENT, 4);
}

TEST_F(Smaa, ASingleFrameFollowsTheMethodOverWholeImages)
{
    for (const auto &[width, height] : {std::pair{128, 64}, std::pair{64, 128}, std::pair{127, 71}}) {
        const Image<float> image = edgeImage(width, height);
        const auto frame = makeTexture(image);
        connect(frame.get(), width, height, 0);
        runFrame(*owned);
        const SmaaReference reference(image, areaTable, searchTable);
        const Image<float> expected = reference.blended(reference.weights(reference.edges()));
        const double tipped = width % 2 ? kTippedAtOddSizes : kTipped;
        EXPECT_TRUE(sameImage(result(), expected, {1.0, kFilteredTables, tipped})) << width << " by " << height;
        EXPECT_FALSE(isSameImage(result(), image, {1.0, kFilteredTables, 0.04})) << "something is smoothed";
    }
}

TEST_F(Smaa, DiagonalsOfEveryLengthFollowTheMethodAtEveryJitterIndex)
{
    for (const auto &[width, height] : {std::pair{512, 64}, std::pair{479, 139}}) {
        const Image<float> image = diamonds(width, height);
        const auto frame = makeTexture(image);
        SmaaReference reference(image, areaTable, searchTable);
        const Image<float> edges = reference.edges();
        for (const int index : {-1, 0, 1}) {
            connect(frame.get(), width, height, 0);
            owned->setInput(kJitterIndex, index);
            runFrame(*owned);
            const float i = float(index + 1);
            reference.setSubsampleIndices({i, i, i, 0});
            EXPECT_TRUE(sameImage(result(), reference.blended(reference.weights(edges)),
                                  {1.0, kFilteredTables, width % 2 ? kTippedAtOddSizes : kTipped}))
                << width << " " << index;
        }
    }
}

TEST_F(Smaa, AFrameOf1279By717IsAsCleanAsAPowerOfTwo)
{
    const Image<float> image = edgeImage(1279, 717);
    const auto frame = makeTexture(image);
    connect(frame.get(), 1279, 717, 0);
    runFrame(*owned);
    const SmaaReference reference(image, areaTable, searchTable);
    EXPECT_TRUE(sameImage(result(), reference.blended(reference.weights(reference.edges())),
                          {1.0, kFilteredTables, kTippedIn1279By717}));
}

TEST_F(Smaa, SubsampleIndicesFollowTheJitterIndex)
{
    const Image<float> image = edgeImage(64, 64);
    const auto frame = makeTexture(image);
    struct Row
    {
        QVariant index;
        std::array<float, 4> indices;
    };
    for (const Row &row : {Row{0, {1, 1, 1, 0}}, Row{1, {2, 2, 2, 0}}, Row{-1, {0, 0, 0, 0}}, Row{7, {0, 0, 0, 0}},
                           Row{QVariant(), {1, 1, 1, 0}}}) {
        connect(frame.get(), 64, 64, 0);
        owned->setInput(kJitterIndex, row.index);
        runFrame(*owned);
        SmaaReference reference(image, areaTable, searchTable);
        reference.setSubsampleIndices(row.indices);
        EXPECT_TRUE(sameImage(result(), reference.blended(reference.weights(reference.edges())),
                              {1.0, kFilteredTables, kTipped}))
            << row.index.toInt();
    }
}

TEST_F(Smaa, APredicateRaisesTheThresholdWhereItIsFlat)
{
    // Contrasts of 0.07: above 0.05 and 0.06, below 0.1.
    Image<float> image(32, 32, {0.5f, 0.5f, 0.5f, 1});
    Image<float> predicate(32, 32, {0.25f, 0, 0, 0});
    for (int y = 0; y < 32; ++y) {
        for (int x = 0; x < 32; ++x) {
            if ((x > 16 + y / 8) != (y > 20 + x / 6))
                image.at(x, y) = {0.57f, 0.57f, 0.57f, 1};
            if (y > 20 + x / 6)
                predicate.at(x, y)[0] = 0.75f;
        }
    }
    const auto frame = makeTexture(image);
    const auto second = makeTexture(predicate);
    connect(frame.get(), 32, 32, 0);
    owned->setInput(kPredicate, textureToVariant(second.get()));
    runFrame(*owned);
    SmaaReference reference(image, areaTable, searchTable);
    reference.setPredicate(&predicate);
    const Image<float> expected = reference.blended(reference.weights(reference.edges()));
    EXPECT_TRUE(sameImage(result(), expected, {0.05, 0.002, kTipped}));
    SmaaReference without(image, areaTable, searchTable);
    EXPECT_FALSE(isSameImage(result(), without.blended(without.weights(without.edges())), {0.05, 0.002, kTipped}));
}

TEST_P(SmaaThresholds, TellEdgesByTheirContrast)
{
    const Contrast row = GetParam();
    const Image<float> image = slanted(0.5f, 0.5f + row.contrast);
    const Image<float> predicate = slanted(0.25f, 0.25f + row.predicate);
    const auto frame = makeTexture(image);
    const auto second = makeTexture(predicate);
    connect(frame.get(), 64, 64, 0);
    if (row.predicate >= 0)
        owned->setInput(kPredicate, textureToVariant(second.get()));
    runFrame(*owned);
    SmaaReference reference(image, areaTable, searchTable);
    reference.setPredicate(row.predicate >= 0 ? &predicate : nullptr);
    EXPECT_TRUE(
        sameImage(result(), reference.blended(reference.weights(reference.edges())), within(kFilteredTables / 10)));
    // A twentieth of the contrast is less than a smoothed pixel takes from its neighbour.
    EXPECT_EQ(isSameImage(result(), image, within(double(row.contrast) / 20)), !row.isEdge);
}

INSTANTIATE_TEST_SUITE_P(Contrasts, SmaaThresholds,
                         ::testing::Values(Contrast{"Under", 0.0495f, -1, false}, Contrast{"Over", 0.0505f, -1, true},
                                           Contrast{"UnderTwice", 0.0995f, 0, false},
                                           Contrast{"OverTwice", 0.1005f, 0, true},
                                           Contrast{"OverWherePredicateIsNearlyFlat", 0.0605f, 0.0095f, false},
                                           Contrast{"OverTwiceWherePredicateIsNearlyFlat", 0.1005f, 0.0095f, true},
                                           Contrast{"UnderWherePredicateHasAnEdge", 0.0595f, 0.0105f, false},
                                           Contrast{"OverWherePredicateHasAnEdge", 0.0605f, 0.0105f, true}),
                         [](const auto &test) { return std::string(test.param.name); });

TEST_F(Smaa, TheStencilConfinesTheWeightStageToPixelsWithAnEdge)
{
    const Image<float> image = edgeImage(128, 64);
    const auto frame = makeTexture(image);
    connect(frame.get(), 128, 64, 0);
    runFrame(*owned);
    // An occlusion query around each draw counts the samples that pass.
    static QVector<GLuint> samples;
    static PFNGLDRAWARRAYSPROC real;
    samples.clear();
    real = epoxy_glDrawArrays;
    epoxy_glDrawArrays = [](GLenum mode, GLint first, GLsizei count) {
        GLuint query = 0;
        glGenQueries(1, &query);
        glBeginQuery(GL_SAMPLES_PASSED, query);
        real(mode, first, count);
        glEndQuery(GL_SAMPLES_PASSED);
        GLuint passed = 0;
        glGetQueryObjectuiv(query, GL_QUERY_RESULT, &passed);
        glDeleteQueries(1, &query);
        samples.append(passed);
    };
    runFrame(*owned);
    epoxy_glDrawArrays = real;
    ASSERT_EQ(samples.size(), 3);
    const Image<float> edges = SmaaReference(image, areaTable, searchTable).edges();
    GLuint marked = 0;
    for (int y = 0; y < 64; ++y) {
        for (int x = 0; x < 128; ++x) {
            // Pixels over the threshold are marked also when a bigger contrast beside them wins.
            const auto over = [&](int dx, int dy) {
                const auto a = SmaaReference::texel(image, x, y);
                const auto b = SmaaReference::texel(image, x + dx, y + dy);
                return std::max({std::abs(a[0] - b[0]), std::abs(a[1] - b[1]), std::abs(a[2] - b[2])}) >= 0.05f;
            };
            marked += over(-1, 0) || over(0, -1);
        }
    }
    EXPECT_EQ(samples[0], marked) << "edges: the others are discarded";
    EXPECT_EQ(samples[1], marked) << "weights: only what edges marked";
    EXPECT_EQ(samples[2], 128u * 64u);
    EXPECT_LT(marked, 128u * 64u / 2);
}

TEST_F(Smaa, OnlyModeOneIsTemporal)
{
    const auto frame = makeTexture(edgeImage(32, 32));
    const auto depth = makeSolidTexture(32, 32, {0.5f, 0, 0, 0});
    owned->setInput(kDepth, textureToVariant(depth.get()));
    for (const int mode : {0, 2, -1}) {
        connect(frame.get(), 32, 32, mode);
        GlCalls calls;
        runFrame(*owned);
        EXPECT_EQ(calls.draws(), 3) << mode;
    }
    connect(frame.get(), 32, 32, 1);
    GlCalls calls;
    runFrame(*owned);
    EXPECT_EQ(calls.draws(), 5);
}

TEST_F(Smaa, WithoutDepthTheModeIsSingleFrame)
{
    const auto frame = makeTexture(edgeImage(32, 32));
    connect(frame.get(), 32, 32, 1);
    GlCalls calls;
    runFrame(*owned);
    EXPECT_EQ(calls.draws(), 3);
}

TEST_F(Smaa, AStillViewConvergesToTheMeanOfTwoFrames)
{
    // Flat images have no edges, so that only the resolve acts.
    const auto a = makeSolidTexture(16, 16, {0.25f, 0.5f, 0.75f, 1});
    const auto b = makeSolidTexture(16, 16, {0.75f, 0.25f, 0.5f, 1});
    const auto depth = makeSolidTexture(16, 16, {0.5f, 0, 0, 0});
    QMatrix4x4 projection;
    projection.perspective(45, 1, 0.1f, 10);
    for (int i = 0; i < 6; ++i) {
        connect(i % 2 ? b.get() : a.get(), 16, 16, 1);
        owned->setInput(kDepth, textureToVariant(depth.get()));
        owned->setInput(kProjectionMatrix, projection);
        owned->setInput(kCameraMatrix, QMatrix4x4());
        owned->setInput(kJitterIndex, i % 2);
        runFrame(*owned);
        if (i > 0) {
            EXPECT_TRUE(sameImage(result(), Image<float>(16, 16, {0.5f, 0.375f, 0.625f, 1}), within(2e-3))) << i;
        }
    }
}

TEST_F(Smaa, TheFirstTemporalFrameTakesNothingFromThePool)
{
    for (const bool transparency : {false, true}) {
        // The second one starts with the other history index, and with a camera that has moved.
        for (const int width : {64, 32, 64}) {
            soilPool({TextureFormat::Result, TextureFormat::Velocity}, width, 64); // as much as what was at rest
            const Image<float> image = edgeImage(width, 64);
            const auto frame = makeTexture(image);
            const auto depth = makeSolidTexture(width, 64, {0.5f, 0, 0, 0});
            QMatrix4x4 camera;
            camera.translate(0.5f * float(width), 0, 0);
            connectTemporal(frame.get(), depth.get(), camera, transparency);
            runFrame(*owned);
            const SmaaReference reference(image, areaTable, searchTable);
            Image<float> expected = reference.blended(reference.weights(reference.edges()));
            for (auto &pixel : expected.pixels)
                pixel[3] = transparency ? pixel[3] : 1.0f;
            EXPECT_TRUE(sameImage(result(), expected, {1.0, kFilteredTables, kTipped})) << width;
            owned->setInput(kFrame, QVariant());
            owned->setInput(kDepth, QVariant());
        }
    }
}

// A gradient, too flat for edges, with a level that alternates: what the resolve takes of the frame before, and
// from where, shows in every pixel.
TEST_F(Smaa, AMovingGradientIsResolvedAgainstWhereItWas)
{
    constexpr int kWidth = 512, kHeight = 256;
    constexpr double kSlopeX = 0.04, kSlopeY = -0.03; // under the threshold of 0.05
    // Values of up to 16 are stored in half floats that llvmpipe cuts; they lie around 0 where they are compared,
    // and there are three of them one after the other, and the velocities.
    constexpr double kStored = 2e-4;
    const auto level = [](int i) { return i % 2 ? 0.05 : -0.05; };
    const auto value = [&](int i, double x, double y) {
        return kSlopeX * (x - kWidth / 2.0) + kSlopeY * (y - kHeight / 2.0) + level(i);
    };
    const auto depth = makeSolidTexture(kWidth, kHeight, {0.5f, 0, 0, 0});
    // Speeds of 0.3 to 1.05 thousandths of the image, an even number of frames: beyond 1.11 the frame before counts
    // nothing.
    const QVector<QPointF> steps{{0, 0},      {0.0008, 0.0004}, {0.0008, 0.0004}, {-0.0006, 0.0003}, {-0.0003, 0},
                                 {0, 0.0006}, {0.001, -0.0003}, {0.0002, -0.001}, {0.001, 0.0003},   {-0.0004, 0.0009}};
    for (const bool transparency : {false, true}) {
        QPointF at;
        QPointF speedBefore;
        for (int i = 0; i < steps.size(); ++i) {
            Image<float> image(kWidth, kHeight);
            for (int y = 0; y < kHeight; ++y)
                for (int x = 0; x < kWidth; ++x) {
                    const auto v = float(value(i, x + 0.5, y + 0.5));
                    image.at(x, y) = {v, v, v, 0.25f};
                }
            const auto frame = makeTexture(image);
            at += steps[i];
            QMatrix4x4 camera; // clip space is two images wide, and the projection shrinks it
            camera.translate(float(2 * at.x() / 0.5), float(2 * at.y() / 0.25), 0);
            connectTemporal(frame.get(), depth.get(), camera, transparency);
            runFrame(*owned);
            // Frames that start with history index 0 see no motion.
            const QPointF speed = i % 2 ? steps[i] : QPointF();
            if (i > 0) {
                const double delta =
                    std::abs(std::hypot(speed.x(), speed.y()) - std::hypot(speedBefore.x(), speedBefore.y()));
                const double share = 0.5 * std::clamp(1 - std::sqrt(delta) * 30, 0.0, 1.0);
                EXPECT_GT(share, 0.005) << "something is to be seen";
                const Image<float> resolved = result();
                for (const auto &[x, y] : {std::pair(256, 128), std::pair(257, 129), std::pair(253, 124)}) {
                    const double u = x + 0.5, v = y + 0.5;
                    const double was = value(i - 1, u - kWidth * speed.x(), v - kHeight * speed.y());
                    EXPECT_NEAR(double(resolved.at(x, y)[0]), (1 - share) * value(i, u, v) + share * was, kStored)
                        << "frame " << i << " at " << x << ", " << y;
                    EXPECT_NEAR(double(resolved.at(x, y)[3]), transparency ? 0.25 : 1.0, kStored);
                }
            }
            speedBefore = speed;
            owned->setInput(kFrame, QVariant());
        }
    }
}

TEST_F(Smaa, FramesThatStartWithIndexZeroSeeNoCameraMotion)
{
    // A camera that moves by a lot each frame: with its velocity the previous frame counts nothing of a
    // pixel that was still before, without it the two mix.
    const auto depth = makeSolidTexture(16, 16, {0.9f, 0, 0, 0});
    QMatrix4x4 projection;
    projection.perspective(45, 1, 0.1f, 10);
    QVector<double> reds;
    for (int i = 0; i < 6; ++i) {
        const auto v = float(i % 2);
        const auto frame = makeSolidTexture(16, 16, {v, v, v, 1});
        QMatrix4x4 camera;
        camera.translate(0.05f * float(i), 0, 0);
        connect(frame.get(), 16, 16, 1);
        owned->setInput(kDepth, textureToVariant(depth.get()));
        owned->setInput(kProjectionMatrix, projection);
        owned->setInput(kCameraMatrix, camera);
        runFrame(*owned);
        owned->setInput(kFrame, QVariant());
        reds.append(double(result().at(8, 8)[0]));
    }
    // Speeds alternate between 0 (index 0 at the start) and the true one, so every frame differs in
    // speed from the one before, and the resolve takes the current frame alone.
    for (int i = 1; i < 6; ++i)
        EXPECT_NEAR(reds[i], double(i % 2), 2e-3) << i;
}

TEST_F(Smaa, VelocityIsTheMotionOfTheCameraInLengthsOfTheImage)
{
    // Read off the packed velocity, which transparency keeps in an image of its own.
    const auto frame = makeSolidTexture(16, 16, {0.5f, 0.5f, 0.5f, 0.5f});
    const float depthValue = 0.9f;
    const auto depth = makeSolidTexture(16, 16, {depthValue, 0, 0, 0});
    QMatrix4x4 projection;
    projection.perspective(45, 1, 0.1f, 10);
    GlCalls calls;
    QVector<Texture *> packed;
    for (int i = 0; i < 2; ++i) {
        QMatrix4x4 camera;
        camera.translate(0.01f * float(i), 0.004f * float(i), 0);
        connect(frame.get(), 16, 16, 1);
        owned->setInput(kSupportTransparency, true);
        owned->setInput(kDepth, textureToVariant(depth.get()));
        owned->setInput(kProjectionMatrix, projection);
        owned->setInput(kCameraMatrix, camera);
        calls.clear();
        runFrame(*owned);
    }
    // The second attachment of the blend stage.
    GLuint name = 0;
    for (const GlCall &call : calls.calls("glFramebufferTexture2D"))
        if (call.args[1] == GL_COLOR_ATTACHMENT1 && call.args[3] > 0)
            name = GLuint(call.args[3]);
    ASSERT_NE(name, 0u);
    const Image<float> image = readTexture<float>(name, GL_TEXTURE_2D);
    // The second frame starts with index 1: true velocities. At the centre of the image, in double.
    const double ndc = 2 * double(depthValue) - 1;
    const double n = 0.1, f = 10;
    const double z = 2 * f * n / (ndc * (f - n) - (f + n));
    const double scale = 1 / std::tan(22.5 * 3.14159265358979 / 180) / -z / 2;
    const double expected = std::sqrt(5 * std::hypot(0.01 * scale, 0.004 * scale));
    EXPECT_NEAR(double(image.at(8, 8)[0]), expected, 5e-3 * expected);
}

TEST_F(Smaa, TheTemporalResultIsOpaqueUnlessTransparencyIsOn)
{
    const auto frame = makeSolidTexture(16, 16, {0.5f, 0.5f, 0.5f, 0.25f});
    const auto depth = makeSolidTexture(16, 16, {0.5f, 0, 0, 0});
    for (const bool transparency : {false, true}) {
        for (int i = 0; i < 3; ++i) {
            connect(frame.get(), 16, 16, 1);
            owned->setInput(kSupportTransparency, transparency);
            owned->setInput(kDepth, textureToVariant(depth.get()));
            runFrame(*owned);
        }
        EXPECT_NEAR(result().at(5, 5)[3], transparency ? 0.25 : 1.0, 1e-3);
    }
}

TEST_F(Smaa, APredicateThatIsNullButConnectedBuildsForPredicationAndLeavesItsSamplerAlone)
{
    const auto frame = makeTexture(edgeImage(32, 32));
    connect(frame.get(), 32, 32, 0);
    runFrame(*owned);
    GlCalls calls;
    owned->setInput(kPredicate, textureToVariant(nullptr));
    runFrame(*owned);
    EXPECT_GT(calls.count("glShaderSource"), 0) << "rebuilt";
    calls.clear();
    runFrame(*owned);
    EXPECT_EQ(calls.draws(), 3);
}

TEST_F(Smaa, WithoutAFrameTheOutputIsInvalidAndOtherInputsAreGivenBack)
{
    TextureManager &pool = TextureManager::Instance();
    Texture *predicate = pool.tempTexture(TextureFormat::Result, 8, 8);
    Texture *depth = pool.tempTexture(TextureFormat::Scalar32, 8, 8);
    owned->setInput(kViewport, QRect(0, 0, 8, 8));
    owned->setInput(kPredicate, textureToVariant(predicate));
    owned->setInput(kDepth, textureToVariant(depth));
    runFrame(*owned);
    EXPECT_FALSE(owned->output(0).isValid());
    EXPECT_EQ(pool.tempTextureRefs(predicate), 0);
    EXPECT_EQ(pool.tempTextureRefs(depth), 0);
}

TEST_F(Smaa, PoolReferencesBalanceInBothModes)
{
    TextureManager &pool = TextureManager::Instance();
    for (const int mode : {0, 1}) {
        for (int i = 0; i < 3; ++i) {
            Texture *frame = pool.tempTexture(TextureFormat::Frame, 16, 16);
            Texture *depth = pool.tempTexture(TextureFormat::Scalar32, 16, 16);
            connect(frame, 16, 16, mode);
            owned->setInput(kDepth, textureToVariant(depth));
            owned->setNumOutputUsers(0, 1);
            runFrame(*owned);
            EXPECT_EQ(pool.tempTextureRefs(frame), 0);
            EXPECT_EQ(pool.tempTextureRefs(depth), 0);
            EXPECT_EQ(pool.tempTextureRefs(outputTexture(*owned, 0)), 1);
            pool.releaseTempTextureRef(outputTexture(*owned, 0), 1);
            EXPECT_EQ(pool.leakedReferences().size(), mode == 1 ? 2 : 0) << "the history";
        }
    }
    finish();
    EXPECT_TRUE(pool.leakedReferences().isEmpty());
}

TEST_F(Smaa, AThousandFramesOfChangesGrowOnlyWhatIsGivenUp)
{
    TextureManager &pool = TextureManager::Instance();
    const auto device = OpenGLDeviceContext::current();
    const auto frame = makeSolidTexture(16, 16, {1, 1, 1, 1});
    const auto depth = makeSolidTexture(16, 16, {0.5f, 0, 0, 0});
    const auto run = [&](int frames) {
        for (int i = 0; i < frames; ++i) {
            connect(frame.get(), 8 + i % 3, 8, 1);
            owned->setInput(kDepth, i % 2 ? textureToVariant(depth.get()) : QVariant());
            owned->setInput(kPredicate, i % 5 == 0 ? textureToVariant(frame.get()) : QVariant());
            owned->setInput(kSupportTransparency, i % 7 == 0);
            runFrame(*owned);
            pool.advanceFrame();
        }
    };
    run(250);
    // Framebuffers are given up, and there are as many as rebuilds; everything else stays.
    const GLObjectCounts before = device->liveObjects();
    const int givenUp = device->givenUpCount();
    run(750);
    const GLObjectCounts after = device->liveObjects();
    EXPECT_EQ(after.textures, before.textures);
    EXPECT_EQ(after.buffers, before.buffers);
    EXPECT_EQ(after.programs, before.programs) << "programs of the same text are shared";
    EXPECT_EQ(after.vertexArrays, before.vertexArrays);
    EXPECT_LE(after.framebuffers - before.framebuffers, device->givenUpCount() - givenUp);
    finish();
    EXPECT_TRUE(pool.leakedReferences().isEmpty());
}

TEST_F(Smaa, RebuildsOnEveryKindOfChangeAndOnNothingElse)
{
    const auto frame = makeTexture(edgeImage(32, 32));
    const auto depth = makeSolidTexture(32, 32, {0.5f, 0, 0, 0});
    connect(frame.get(), 32, 32, 1);
    owned->setInput(kDepth, textureToVariant(depth.get()));
    runFrame(*owned);
    const auto rebuilds = [&] {
        GlCalls calls;
        runFrame(*owned);
        return calls.count("glPixelStorei", {GL_UNPACK_ALIGNMENT, 2}) == 1;
    };
    EXPECT_FALSE(rebuilds());
    owned->setInput(kDepth, QVariant());
    EXPECT_TRUE(rebuilds());
    owned->setInput(kDepth, textureToVariant(depth.get()));
    EXPECT_TRUE(rebuilds());
    owned->setInput(kSupportTransparency, true);
    EXPECT_TRUE(rebuilds());
    owned->setInput(kPredicate, textureToVariant(frame.get()));
    EXPECT_TRUE(rebuilds());
    owned->setInput(kViewport, QRect(0, 0, 31, 32));
    EXPECT_TRUE(rebuilds());
    owned->setInput(kViewport, QRect(5, 6, 31, 32));
    EXPECT_FALSE(rebuilds());
}

TEST_F(Smaa, ChangesOnlyTheStateThatItSays)
{
    const auto frame = makeTexture(edgeImage(32, 32));
    connect(frame.get(), 32, 32, 0);
    runFrame(*owned);
    resetGLState();
    glEnable(GL_DEPTH_TEST);
    glEnable(GL_BLEND);
    const GLStateSnapshot before;
    runFrame(*owned);
    GLint mask = -1;
    glGetIntegerv(GL_STENCIL_WRITEMASK, &mask);
    EXPECT_EQ(mask, 0);
    EXPECT_FALSE(glIsEnabled(GL_STENCIL_TEST));
    EXPECT_FALSE(glIsEnabled(GL_DEPTH_TEST));
    EXPECT_FALSE(glIsEnabled(GL_BLEND));
    EXPECT_EQ(stateOf(frame.get()).minFilter, unsigned(GL_LINEAR));
    GLint framebuffer = -1;
    glGetIntegerv(GL_FRAMEBUFFER_BINDING, &framebuffer);
    EXPECT_EQ(framebuffer, 0);
    resetGLState();
}

TEST_F(Smaa, SteadyFrameCreatesNothing)
{
    const auto frame = makeTexture(edgeImage(32, 32));
    const auto depth = makeSolidTexture(32, 32, {0.5f, 0, 0, 0});
    for (const int mode : {0, 1}) {
        connect(frame.get(), 32, 32, mode);
        owned->setInput(kDepth, textureToVariant(depth.get()));
        expectSteadyFrameCreatesNothing(*owned);
    }
    resetGLState();
}

TEST_F(Smaa, AnEmptyViewportDrawsNothingAndWritesTheOutput)
{
    const auto frame = makeTexture(edgeImage(32, 32));
    const auto depth = makeSolidTexture(32, 32, {0.5f, 0, 0, 0});
    for (const int mode : {0, 1}) {
        connect(frame.get(), 0, 0, mode);
        owned->setInput(kViewport, QRect());
        owned->setInput(kDepth, textureToVariant(depth.get()));
        GlCalls calls;
        runFrame(*owned);
        EXPECT_EQ(calls.draws(), 0);
        EXPECT_NE(textureFromVariant(owned->output(0)), nullptr);
    }
}

TEST_F(Smaa, ObjectsLeftWithoutTeardownGoToTheContext)
{
    const auto frame = makeTexture(edgeImage(32, 32));
    const auto device = OpenGLDeviceContext::current();
    connect(frame.get(), 32, 32, 0);
    runFrame(*owned);
    const int before = device->givenUpCount();
    owned.reset();
    EXPECT_EQ(device->givenUpCount(), before + 12);
    EXPECT_TRUE(TextureManager::Instance().leakedReferences().isEmpty());
    resetGLState();
}

// A host's shader that has the uniform and defines nothing else.
TEST_F(Smaa, TheLibrarysFunctionsReadTheMetricsFromTheirUniform)
{
    const auto program = makeProgram(QStringLiteral("#version 150\nuniform vec4 u_SmaaMetrics;\nin vec2 vo_TexCoord;\n"
                                                    "out vec4 out_Color;\n#include \"SMAA.glslh\"\nvoid main()\n{\n"
                                                    "  vec4 offset;\n"
                                                    "  SMAANeighborhoodBlendingVS(vo_TexCoord, offset);\n"
                                                    "  out_Color = offset;\n}\n"));
    ASSERT_TRUE(program->bind());
    program->setUniform(QStringLiteral("u_SmaaMetrics"), QVector4D(0.25f, 0.5f, 4, 2));
    program->unbind();
    Target target(GL_RGBA32F, 4, 2);
    drawScreen(target, program.get());
    // The right and the upper neighbour of a pixel, in texture coordinates.
    const Image<float> neighbours = target.read();
    for (int y = 0; y < 2; ++y) {
        for (int x = 0; x < 4; ++x) {
            const double u = (x + 0.5) / 4;
            const double v = (y + 0.5) / 2;
            EXPECT_TRUE(isPixel(neighbours, x, y, {u + 0.25, v, u, v + 0.5}, 1e-6));
        }
    }
}
