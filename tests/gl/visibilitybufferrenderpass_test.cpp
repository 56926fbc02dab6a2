#include "support/allocations.h"
#include "support/hoststates.h"
#include "support/listreadback.h"
#include "support/messages.h"
#include "support/modelpass.h"
#include "support/modelreference.h"
#include "support/passes.h"
#include "support/scenes.h"

#include <gl/glinfo.h>
#include <gl/texture.h>
#include <model/gpumodel.h>
#include <renderpasses/visibilitybufferrenderpass.h>

#include <QRect>

#include <epoxy/gl.h>

#include <algorithm>
#include <memory>

using namespace Brevane::Kvo;
using namespace Brevane::Kvo::Test;

namespace {

enum Output { kHeadPointers, kNodeBuffer, kNodeBufferWidth, kDepth };

constexpr int kNodeSide = 4096;
// Depths go through the matrices in single precision.
constexpr double kDepthTolerance = 2e-6;

bool canBuildLists()
{
    return hasGLExtension("ARB_shader_atomic_counters") && hasGLExtension("ARB_shader_image_load_store")
           && hasGLExtension("ARB_shading_language_420pack");
}

#define KVO_REQUIRE_GL4_MODE()                                                                                         \
    do {                                                                                                               \
        if (!canBuildLists())                                                                                          \
            GTEST_SKIP() << "missing: image stores, for lists of more than one fragment";                              \
    } while (false)
#define KVO_REQUIRE_NON_GL4_MODE()                                                                                     \
    do {                                                                                                               \
        if (canBuildLists())                                                                                           \
            GTEST_SKIP() << "missing: a driver without image stores";                                                  \
    } while (false)

/// Full-screen quads in the given heights above z = 0, seen from +z through flatProjection.
ModelData quadStack(const std::vector<float> &heights)
{
    ModelData data;
    data.meshes << quadMesh();
    data.materials << material({1, 1, 1});
    for (float z : heights) {
        ModelItem item;
        item.transform.translate(0, 0, z);
        data.items << item;
    }
    return data;
}

float depthOfHeight(float z)
{
    return (10.0f - z) / 20.0f;
}

/// Cubes that overlap each other on screen.
ModelData cubes()
{
    ModelData data;
    data.meshes << cubeMesh();
    data.materials << material({1, 1, 1});
    for (int i = 0; i < 5; ++i) {
        ModelItem item;
        item.transform.translate(-0.8f + 0.4f * float(i), 0.3f * float(i % 2), -0.9f * float(i));
        item.transform.rotate(23.0f + 31.0f * float(i), 1, 2, 0.5f);
        item.transform.scale(0.7f);
        item.flags = quint64(1) << i;
        data.items << item;
    }
    return data;
}

class VisibilityBuffer : public ModelPassTest<VisibilityBufferRenderPass>
{
protected:
    ListReadback lists(int rows = 16)
    {
        const int width = pass.output(kNodeBufferWidth).toInt();
        const bool gl4 = canBuildLists();
        EXPECT_EQ(width, gl4 ? kNodeSide : kWidth);
        return {outputTexture(pass, kHeadPointers), outputTexture(pass, kNodeBuffer), width, gl4 ? rows : kHeight,
                !gl4};
    }

    /// Draws so many layers more than the node buffer holds, full-screen on a square; their count.
    int overflow(int side, int more)
    {
        const int count = kNodeSide * kNodeSide / (side * side) + more;
        std::vector<float> heights;
        for (int i = 0; i < count; ++i)
            heights.push_back(-5.0f + 0.1f * float(i));
        EXPECT_TRUE(model.upload(quadStack(heights)));
        useFlatCamera(pass);
        pass.setInput(kViewport, QRect(0, 0, side, side));
        glViewport(0, 0, side, side);
        runFrame(pass);
        return count;
    }

    void useFlatCamera(VisibilityBufferRenderPass &p)
    {
        p.setInput(kProjection, flatProjection());
        p.setInput(kCamera, QMatrix4x4());
    }
};

} // namespace

TEST_F(VisibilityBuffer, SlotsHaveTheirNamesOrderAndDefaults)
{
    expectSlots(VisibilityBufferRenderPass(),
                {{"Kvo_QRect_Viewport"},
                 {"Kvo_QMatrix4x4_ProjectionMatrix"},
                 {"Kvo_QMatrix4x4_CameraMatrix"},
                 {"Kvo_KvoGPUModel*_Geometry"}},
                {"Kvo_KvoTexture*_HeadPointers", "Kvo_KvoTexture*_NodeBuffer", "Kvo_int_NodeBufferWidth",
                 "Kvo_KvoTexture*_Depth"});
}

TEST_F(VisibilityBuffer, ConstructingCopyingAndDestroyingMakesNoGLCall)
{
    expectNoGLCallBeforeStart<VisibilityBufferRenderPass>();
}

TEST_F(VisibilityBuffer, TheModeIsChosenAndLoggedAtTheFirstStartOnly)
{
    const MessageCapture messages;
    runFrame(pass);
    runFrame(pass);
    const QStringList texts = messages.texts(QtDebugMsg);
    ASSERT_EQ(texts.size(), 1);
    const QString wanted = canBuildLists() ? QStringLiteral("Using GL4 mode") : QStringLiteral("Using non-GL4 mode");
    EXPECT_TRUE(texts[0].endsWith(QStringLiteral("] ") + wanted)) << qPrintable(texts[0]);
    EXPECT_TRUE(texts[0].startsWith(QStringLiteral("[visibilitybufferrenderpass.cpp:"))) << qPrintable(texts[0]);
}

TEST_F(VisibilityBuffer, EveryFragmentOfEveryPixelIsListedOnceWithItsIdentity)
{
    KVO_REQUIRE_GL4_MODE();
    const ModelData scene = cubes();
    ASSERT_TRUE(model.upload(scene));
    runFrame(pass);
    const ListReadback read = lists();
    const ModelReference reference(scene, projection, camera, kWidth, kHeight);
    ASSERT_LT(reference.ambiguousCount(), kWidth * kHeight / 3);
    int compared = 0;
    size_t longest = 0;
    for (int y = 0; y < kHeight; ++y) {
        for (int x = 0; x < kWidth; ++x) {
            if (reference.at(x, y).ambiguous)
                continue;
            QVector<ModelFragment> expected = reference.layersAt(x, y);
            std::vector<ListNode> list = read.at(x, y);
            ASSERT_EQ(list.size(), size_t(expected.size())) << x << ", " << y;
            longest = std::max(longest, list.size());
            const auto byIdentity = [](const auto &a, const auto &b) { return a < b; };
            std::sort(expected.begin(), expected.end(), [&](const ModelFragment &a, const ModelFragment &b) {
                return byIdentity(std::pair(a.item, a.triangle), std::pair(b.item, b.triangle));
            });
            std::sort(list.begin(), list.end(), [&](const ListNode &a, const ListNode &b) {
                return byIdentity(std::pair(a.draw, a.primitive), std::pair(b.draw, b.primitive));
            });
            for (size_t i = 0; i < list.size(); ++i) {
                const ModelFragment &f = expected[qsizetype(i)];
                ASSERT_EQ(list[i].draw, quint32(f.item)) << x << ", " << y;
                ASSERT_EQ(list[i].primitive, quint32(f.triangle + 1)) << x << ", " << y;
                ASSERT_NEAR(double(list[i].depth()), f.depth, kDepthTolerance) << x << ", " << y;
                ++compared;
            }
        }
    }
    EXPECT_GT(compared, 1500);
    EXPECT_GE(longest, 6u);
}

TEST_F(VisibilityBuffer, NodesOfAllPixelsAreDifferentAndFillTheBufferFromItsStart)
{
    KVO_REQUIRE_GL4_MODE();
    ASSERT_TRUE(model.upload(quadStack({1, 2, 3})));
    useFlatCamera(pass);
    runFrame(pass);
    const ListReadback read = lists();
    std::vector<int> used(read.nodes.size(), 0);
    for (int y = 0; y < kHeight; ++y) {
        for (int x = 0; x < kWidth; ++x) {
            quint32 pointer = read.head(x, y);
            for (int i = 0; i < 3; ++i) {
                ASSERT_NE(pointer, 0u);
                ++used[pointer - 1];
                pointer = read.node(pointer).next;
            }
            ASSERT_EQ(pointer, 0u);
        }
    }
    const size_t count = size_t(kWidth) * kHeight * 3;
    EXPECT_TRUE(std::all_of(used.begin(), used.begin() + long(count), [](int n) { return n == 1; }));
    EXPECT_TRUE(std::all_of(used.begin() + long(count), used.end(), [](int n) { return n == 0; }));
    // What was not written reads as all zeros.
    EXPECT_TRUE(std::all_of(read.nodes.begin() + long(count), read.nodes.end(),
                            [](const ListNode &node) { return node == ListNode(); }));
}

TEST_F(VisibilityBuffer, TrianglesThatCoverWholeTilesHideNothingThatWasDrawnBefore)
{
    KVO_REQUIRE_GL4_MODE();
    constexpr int kSide = 192;
    ASSERT_TRUE(model.upload(quadStack({1, 2, 3})));
    useFlatCamera(pass);
    pass.setInput(kViewport, QRect(0, 0, kSide, kSide));
    glViewport(0, 0, kSide, kSide);
    runFrame(pass);
    const ListReadback read = lists(3 * kSide * kSide / kNodeSide + 1);
    for (int y = 0; y < kSide; ++y)
        for (int x = 0; x < kSide; ++x)
            ASSERT_EQ(read.at(x, y).size(), 3u) << x << ", " << y;
}

TEST_F(VisibilityBuffer, TheNewestDrawIsAtTheHead)
{
    KVO_REQUIRE_GL4_MODE();
    ASSERT_TRUE(model.upload(quadStack({2, -3, 5, 0})));
    useFlatCamera(pass);
    runFrame(pass);
    const ListReadback read = lists();
    const float heights[] = {2, -3, 5, 0};
    for (int y = 0; y < kHeight; ++y) {
        for (int x = 0; x < kWidth; ++x) {
            const std::vector<ListNode> list = read.at(x, y);
            ASSERT_EQ(list.size(), 4u);
            for (quint32 i = 0; i < 4; ++i) {
                ASSERT_EQ(list[i].draw, 3 - i);
                ASSERT_NEAR(list[i].depth(), depthOfHeight(heights[3 - i]), 1e-6f);
            }
        }
    }
}

TEST_F(VisibilityBuffer, CoincidentFragmentsAreAllStored)
{
    KVO_REQUIRE_GL4_MODE();
    ASSERT_TRUE(model.upload(quadStack({1, 1, 1, 1})));
    useFlatCamera(pass);
    glDepthFunc(GL_LESS);
    runFrame(pass);
    const std::vector<ListNode> list = lists().at(kWidth / 2, kHeight / 3);
    ASSERT_EQ(list.size(), 4u);
    for (const ListNode &node : list)
        EXPECT_EQ(node.depthBits, list[0].depthBits);
}

TEST_F(VisibilityBuffer, ASecondFrameStartsFromEmptyLists)
{
    ASSERT_TRUE(model.upload(quadStack({1, 2})));
    useFlatCamera(pass);
    runFrame(pass);
    runFrame(pass);
    const ListReadback read = lists();
    const size_t expected = canBuildLists() ? 2 : 1;
    for (int y = 0; y < kHeight; ++y)
        for (int x = 0; x < kWidth; ++x)
            ASSERT_EQ(read.at(x, y).size(), expected);
    pass.setInput(kGeometry, QVariant());
    runFrame(pass);
    const ListReadback empty = lists();
    for (int y = 0; y < kHeight; ++y)
        for (int x = 0; x < kWidth; ++x)
            ASSERT_EQ(empty.head(x, y), 0u);
    EXPECT_TRUE(
        std::all_of(empty.nodes.begin(), empty.nodes.end(), [](const ListNode &node) { return node == ListNode(); }));
}

TEST_F(VisibilityBuffer, ListsAreClearedWhateverTheClearColorIs)
{
    glClearColor(1, 2, 3, 4);
    runFrame(pass);
    const ListReadback read = lists();
    EXPECT_TRUE(
        std::all_of(read.heads.pixels.begin(), read.heads.pixels.end(), [](const auto &p) { return p[0] == 0; }));
    EXPECT_TRUE(
        std::all_of(read.nodes.begin(), read.nodes.end(), [](const ListNode &node) { return node == ListNode(); }));
}

TEST_F(VisibilityBuffer, APixelWithoutFragmentsHasAnEmptyList)
{
    ModelData scene = quadStack({0});
    scene.items[0].transform.scale(0.5f);
    ASSERT_TRUE(model.upload(scene));
    useFlatCamera(pass);
    runFrame(pass);
    const ListReadback read = lists();
    EXPECT_EQ(read.head(0, 0), 0u);
    EXPECT_EQ(read.head(kWidth - 1, kHeight - 1), 0u);
    EXPECT_NE(read.head(kWidth / 2, kHeight / 2), 0u);
}

TEST_F(VisibilityBuffer, OneNodePerPixelLeadsFromTheHeadToThePixelItself)
{
    KVO_REQUIRE_NON_GL4_MODE();
    const ModelData scene = cubes();
    ASSERT_TRUE(model.upload(scene));
    runFrame(pass);
    const ListReadback read = lists();
    const ModelReference reference(scene, projection, camera, kWidth, kHeight);
    int covered = 0;
    for (int y = 0; y < kHeight; ++y) {
        for (int x = 0; x < kWidth; ++x) {
            const ModelFragment &f = reference.at(x, y);
            if (f.ambiguous)
                continue;
            ASSERT_EQ(read.head(x, y), f.covered ? quint32(x + y * kWidth + 1) : 0u);
            const ListNode &node = read.nodes[size_t(y) * kWidth + size_t(x)];
            if (!f.covered) {
                ASSERT_EQ(node, ListNode());
                continue;
            }
            ++covered;
            ASSERT_EQ(node.next, 0u);
            ASSERT_EQ(node.primitive, quint32(f.triangle + 1));
            ASSERT_EQ(node.draw, 0u) << "no draw index is stored in this mode";
            ASSERT_NEAR(double(node.depth()), f.depth, kDepthTolerance);
        }
    }
    EXPECT_GT(covered, 300);
}

TEST_F(VisibilityBuffer, TheDepthFunctionDecidesWhichFragmentStaysWhereOneDoes)
{
    KVO_REQUIRE_NON_GL4_MODE();
    ASSERT_TRUE(model.upload(quadStack({1, 4, 2})));
    useFlatCamera(pass);
    glDepthFunc(GL_LESS);
    runFrame(pass);
    EXPECT_NEAR(lists().at(7, 9)[0].depth(), depthOfHeight(4), 1e-6f);
    glDepthFunc(GL_ALWAYS);
    runFrame(pass);
    const std::vector<ListNode> list = lists().at(7, 9);
    ASSERT_EQ(list.size(), 1u) << "the pointer stays 0";
    EXPECT_NEAR(list[0].depth(), depthOfHeight(2), 1e-6f);
}

TEST_F(VisibilityBuffer, TexturesHaveTheFormatsAndSizesOfTheirMode)
{
    runFrame(pass);
    EXPECT_TRUE(isTarget(outputTexture(pass, kHeadPointers), GL_R32UI, kWidth, kHeight));
    if (canBuildLists())
        EXPECT_TRUE(isTarget(outputTexture(pass, kNodeBuffer), GL_RGBA32UI, kNodeSide, kNodeSide));
    else
        EXPECT_TRUE(isTarget(outputTexture(pass, kNodeBuffer), GL_RGBA32I, kWidth, kHeight));
}

TEST_F(VisibilityBuffer, DepthIsNeverPublished)
{
    ASSERT_TRUE(model.upload(cubes()));
    runFrame(pass);
    EXPECT_FALSE(pass.output(kDepth).isValid());
}

TEST_F(VisibilityBuffer, ANullModelLeavesEmptyListsAndWritesItsOutputs)
{
    pass.setInput(kGeometry, QVariant());
    runFrame(pass);
    const ListReadback read = lists();
    EXPECT_TRUE(
        std::all_of(read.heads.pixels.begin(), read.heads.pixels.end(), [](const auto &p) { return p[0] == 0; }));
    EXPECT_GT(pass.output(kNodeBufferWidth).toInt(), 0);
}

TEST_F(VisibilityBuffer, TheDepthTestStaysOnAfterAModelAndIsNotTouchedWithoutOne)
{
    pass.setInput(kGeometry, QVariant());
    glDisable(GL_DEPTH_TEST);
    runFrame(pass);
    EXPECT_FALSE(glIsEnabled(GL_DEPTH_TEST));
    ASSERT_TRUE(model.upload(cubes()));
    pass.setInput(kGeometry, QVariant::fromValue(&model));
    runFrame(pass);
    EXPECT_TRUE(glIsEnabled(GL_DEPTH_TEST));
    pass.setInput(kGeometry, QVariant());
    runFrame(pass);
    EXPECT_TRUE(glIsEnabled(GL_DEPTH_TEST));
}

TEST_F(VisibilityBuffer, NothingElseOfGLsStateChangesButTheClearColor)
{
    ASSERT_TRUE(model.upload(cubes()));
    runFrame(pass);
    glClearColor(0.1f, 0.2f, 0.3f, 0.4f);
    glEnable(GL_CULL_FACE);
    const GLStateSnapshot before;
    runFrame(pass);
    const QStringList changed = GLStateSnapshot().changedSince(before);
    EXPECT_EQ(changed.join(QLatin1Char(' ')).toStdString(), "clear colour");
    float color[4];
    glGetFloatv(GL_COLOR_CLEAR_VALUE, color);
    for (float c : color)
        EXPECT_EQ(c, 0);
    EXPECT_TRUE(glIsEnabled(GL_CULL_FACE));
}

TEST_F(VisibilityBuffer, ImagesAreBoundWithTheStatedAccessAndUnboundBehindOneBarrier)
{
    KVO_REQUIRE_GL4_MODE();
    ASSERT_TRUE(model.upload(cubes()));
    runFrame(pass);
    const double heads = outputTexture(pass, kHeadPointers)->textureID();
    const double nodes = outputTexture(pass, kNodeBuffer)->textureID();
    const GlCalls calls;
    runFrame(pass);
    EXPECT_EQ(calls.count("glBindImageTexture"), 4);
    const int bindHeads = calls.indexOf("glBindImageTexture", {0, heads, 0, GL_FALSE, 0, GL_WRITE_ONLY, GL_R32UI});
    const int bindNodes = calls.indexOf("glBindImageTexture", {1, nodes, 0, GL_FALSE, 0, GL_READ_WRITE, GL_RGBA32UI});
    const int unbindHeads = calls.indexOf("glBindImageTexture", {0, 0, 0, GL_FALSE, 0, GL_READ_WRITE, GL_R32UI});
    const int unbindNodes = calls.indexOf("glBindImageTexture", {1, 0, 0, GL_FALSE, 0, GL_READ_WRITE, GL_RGBA32UI});
    const int barrier = calls.indexOf("glMemoryBarrier", {double(kListReads)});
    ASSERT_GE(bindHeads, 0);
    EXPECT_LT(bindHeads, bindNodes);
    EXPECT_LT(bindNodes, calls.indexOf("glDrawElements"));
    EXPECT_LT(calls.indexOf("glDrawElements", {}, 4), unbindHeads);
    EXPECT_LT(unbindHeads, unbindNodes);
    EXPECT_LT(unbindNodes, barrier);
    EXPECT_EQ(calls.count("glMemoryBarrier"), 1);
    EXPECT_GE(calls.count("glBindBufferRange", {GL_ATOMIC_COUNTER_BUFFER, 0}), 1);
    // The counter is never read back.
    EXPECT_EQ(calls.count("glGetBufferSubData") + calls.count("glMapBuffer") + calls.count("glMapBufferRange"), 0);
}

TEST_F(VisibilityBuffer, NoImageIsBoundInTheOtherMode)
{
    KVO_REQUIRE_NON_GL4_MODE();
    ASSERT_TRUE(model.upload(cubes()));
    const GlCalls calls;
    runFrame(pass);
    EXPECT_EQ(calls.count("glBindImageTexture"), 0);
    EXPECT_EQ(calls.count("glMemoryBarrier"), 0);
}

TEST_F(VisibilityBuffer, AResizeReplacesTheHeadPointersAndInListModeKeepsTheNodes)
{
    ASSERT_TRUE(model.upload(cubes()));
    runFrame(pass);
    Texture *nodes = outputTexture(pass, kNodeBuffer);
    pass.setInput(kViewport, QRect(0, 0, 40, 30));
    glViewport(0, 0, 40, 30);
    const GlCalls calls;
    runFrame(pass);
    EXPECT_EQ(stateOf(outputTexture(pass, kHeadPointers)).width, 40);
    EXPECT_EQ(stateOf(outputTexture(pass, kHeadPointers)).height, 30);
    if (canBuildLists()) {
        EXPECT_EQ(outputTexture(pass, kNodeBuffer), nodes);
        EXPECT_EQ(pass.output(kNodeBufferWidth).toInt(), kNodeSide);
        EXPECT_EQ(calls.textureAllocations(), 2) << "head pointers, and a pool texture for the size";
    } else {
        EXPECT_TRUE(isTarget(outputTexture(pass, kNodeBuffer), GL_RGBA32I, 40, 30));
        EXPECT_EQ(pass.output(kNodeBufferWidth).toInt(), 40);
        EXPECT_EQ(calls.textureAllocations(), 3) << "two targets and depth";
    }
}

TEST_F(VisibilityBuffer, FlagsChooseTheItemsThatAreRecorded)
{
    ASSERT_TRUE(model.upload(cubes()));
    ownedPass = std::make_unique<VisibilityBufferRenderPass>(quint64(8), quint64(8));
    VisibilityBufferRenderPass &chosen = *ownedPass;
    setUp(chosen);
    runFrame(chosen);
    const bool gl4 = canBuildLists();
    const ListReadback read(outputTexture(chosen, kHeadPointers), outputTexture(chosen, kNodeBuffer),
                            gl4 ? kNodeSide : kWidth, gl4 ? 4 : kHeight, !gl4);
    int fragments = 0;
    for (int y = 0; y < kHeight; ++y) {
        for (int x = 0; x < kWidth; ++x) {
            for (const ListNode &node : read.at(x, y)) {
                ASSERT_EQ(node.draw, gl4 ? 3u : 0u);
                ++fragments;
            }
        }
    }
    EXPECT_GT(fragments, 50);
}

TEST_F(VisibilityBuffer, AnOverflowingBufferEndsListsWhereNodesWereNotStored)
{
    KVO_REQUIRE_GL4_MODE();
    constexpr int kSide = 512;
    const int layers = overflow(kSide, 2);
    const Image<quint32> heads = readTexture<quint32>(outputTexture(pass, kHeadPointers));
    constexpr quint32 kCapacity = quint32(kNodeSide) * kNodeSide;
    // Pointers run on beyond the capacity, and the heads of the last pixels to be drawn are there.
    quint32 last = 0;
    int beyond = 0;
    for (const auto &pixel : heads.pixels) {
        last = std::max(last, pixel[0]);
        beyond += pixel[0] > kCapacity;
    }
    EXPECT_EQ(last, quint32(kSide * kSide * layers));
    EXPECT_GT(beyond, 0);
}

TEST_F(VisibilityBuffer, TheRowsThatAFrameUsedAreClearedInTheNextAndNoOthers)
{
    KVO_REQUIRE_GL4_MODE();
    constexpr int kSide = 192;
    pass.setInput(kViewport, QRect(0, 0, kSide, kSide));
    glViewport(0, 0, kSide, kSide);
    useFlatCamera(pass);
    GPUModel three;
    ASSERT_TRUE(three.upload(quadStack({1, 2, 3})));
    GPUModel one;
    ASSERT_TRUE(one.upload(quadStack({1})));
    const auto clearsOf = [&](GPUModel *drawn) {
        pass.setInput(kGeometry, drawn ? QVariant::fromValue(drawn) : QVariant());
        const GlCalls calls;
        runFrame(pass);
        return calls.count("glClearBufferuiv");
    };
    const auto expectOnly = [&](int fragments) {
        const ListReadback read(outputTexture(pass, kHeadPointers), outputTexture(pass, kNodeBuffer), kNodeSide,
                                kNodeSide);
        const auto isEmpty = [](const ListNode &node) { return node == ListNode(); };
        EXPECT_TRUE(std::none_of(read.nodes.begin(), read.nodes.begin() + fragments, isEmpty));
        EXPECT_TRUE(std::all_of(read.nodes.begin() + fragments, read.nodes.end(), isEmpty));
    };
    EXPECT_EQ(clearsOf(&three), 2) << "heads, and once the whole node buffer";
    EXPECT_EQ(clearsOf(&three), 1);
    EXPECT_EQ(clearsOf(&one), 1);
    // The same is drawn behind three layers and behind one: what is between is the rows that were in use.
    const auto samplesOfOne = [&] {
        pass.setInput(kGeometry, QVariant::fromValue(&one));
        GLuint query = 0, samples = 0;
        glGenQueries(1, &query);
        glBeginQuery(GL_SAMPLES_PASSED, query);
        runFrame(pass);
        glEndQuery(GL_SAMPLES_PASSED);
        glGetQueryObjectuiv(query, GL_QUERY_RESULT, &samples);
        glDeleteQueries(1, &query);
        return int(samples);
    };
    clearsOf(&three);
    const int behindThree = samplesOfOne();
    const auto rowsOf = [](int layers) { return layers * kSide * kSide / kNodeSide + 1; };
    EXPECT_EQ(behindThree - samplesOfOne(), (rowsOf(3) - rowsOf(1)) * kNodeSide);
    expectOnly(kSide * kSide);
    // From here on somebody else knows the texture, and may have written to it.
    EXPECT_EQ(clearsOf(nullptr), 2);
    expectOnly(0);
    EXPECT_EQ(clearsOf(&one), 2);
}

TEST_F(VisibilityBuffer, AllRowsAreClearedAfterAFrameThatOverflowed)
{
    KVO_REQUIRE_GL4_MODE();
    overflow(512, 1);
    pass.setInput(kGeometry, QVariant());
    {
        const GlCalls calls;
        runFrame(pass);
        EXPECT_EQ(calls.count("glClearBufferuiv"), 1);
    }
    const ListReadback read = lists(kNodeSide);
    EXPECT_TRUE(
        std::all_of(read.nodes.begin(), read.nodes.end(), [](const ListNode &node) { return node == ListNode(); }));
}

TEST_F(VisibilityBuffer, RowsAreClearedUnderAnyStateOfAHost)
{
    KVO_REQUIRE_GL4_MODE();
    useFlatCamera(pass);
    ASSERT_TRUE(model.upload(quadStack({1, 2, 3})));
    GLuint name = 0;
    const auto record = [&] {
        pass.setInput(kGeometry, QVariant::fromValue(&model));
        glViewport(0, 0, kWidth, kHeight);
        const GlCalls calls;
        runFrame(pass);
        name = GLuint(calls.calls("glBindImageTexture").at(1).args.at(1));
        pass.setInput(kGeometry, QVariant());
    };
    // Asking the wrapper for the name would have all rows cleared from then on.
    const auto storedNodes = [&] {
        GLuint framebuffer = 0;
        glGenFramebuffers(1, &framebuffer);
        glBindFramebuffer(GL_READ_FRAMEBUFFER, framebuffer);
        glFramebufferTexture2D(GL_READ_FRAMEBUFFER, GL_COLOR_ATTACHMENT0, GL_TEXTURE_2D, name, 0);
        std::vector<ListNode> nodes(size_t(kNodeSide) * 4);
        glReadPixels(0, 0, kNodeSide, 4, GL_RGBA_INTEGER, GL_UNSIGNED_INT, nodes.data());
        glDeleteFramebuffers(1, &framebuffer);
        return nodes.size() - size_t(std::count(nodes.begin(), nodes.end(), ListNode()));
    };
    for (const HostState &state : hostStates()) {
        // What no pass can keep out.
        if (state.piece == StatePiece::ConditionalRendering)
            continue;
        cleanContext();
        record();
        ASSERT_EQ(storedNodes(), size_t(3 * kWidth * kHeight)) << state.name;
        cleanContext();
        {
            const auto set = state.set();
            const GlCalls calls;
            runFrame(pass);
            EXPECT_EQ(calls.count("glClearBufferuiv"), 1) << state.name;
        }
        cleanContext();
        EXPECT_EQ(storedNodes(), 0u) << state.name;
    }
}

TEST_F(VisibilityBuffer, AHostsStateDoesNotReachTheLists)
{
    ASSERT_TRUE(model.upload(quadStack({1})));
    useFlatCamera(pass);
    // Blending does not apply to integer targets.
    glEnable(GL_BLEND);
    glBlendFunc(GL_ZERO, GL_ZERO);
    runFrame(pass);
    const ListReadback read = lists();
    for (int y = 0; y < kHeight; ++y)
        for (int x = 0; x < kWidth; ++x)
            ASSERT_EQ(read.at(x, y).size(), 1u);
}

TEST_F(VisibilityBuffer, ASteadyFrameCreatesNothing)
{
    ASSERT_TRUE(model.upload(cubes()));
    for (int frame = 0; frame < 2; ++frame)
        runFrame(pass);
    const GlCalls calls;
    runFrame(pass);
    EXPECT_EQ(calls.created(), 0);
    EXPECT_EQ(calls.textureAllocations(), 0);
    EXPECT_EQ(calls.bufferAllocations(), 0);
}

TEST_F(VisibilityBuffer, ASteadyFrameTakesNothingFromTheHeap)
{
    ASSERT_TRUE(model.upload(cubes()));
    KVO_EXPECT_STEADY_FRAME_TAKES_NOTHING_FROM_THE_HEAP(pass);
}

TEST_F(VisibilityBuffer, EmptyViewportsRaiseNoError)
{
    ASSERT_TRUE(model.upload(cubes()));
    for (const QRect &viewport : {QRect(), QRect(0, 0, 0, 5), QRect(0, 0, 5, 0), QRect(0, 0, -2, 3)}) {
        pass.setInput(kViewport, viewport);
        runFrame(pass);
        EXPECT_NE(outputTexture(pass, kHeadPointers), nullptr);
        EXPECT_NE(outputTexture(pass, kNodeBuffer), nullptr);
    }
}

TEST_F(VisibilityBuffer, TeardownKeepsEverything)
{
    ASSERT_TRUE(model.upload(cubes()));
    expectTeardownKeepsEverything(pass);
}

TEST_F(VisibilityBuffer, AnEmptyModelLeavesEmptyLists)
{
    runFrame(pass); // nothing was uploaded
    const ListReadback read = lists();
    EXPECT_TRUE(
        std::all_of(read.heads.pixels.begin(), read.heads.pixels.end(), [](const auto &p) { return p[0] == 0; }));
}
