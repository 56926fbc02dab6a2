#include "support/allocations.h"
#include "support/draw.h"
#include "support/gltest.h"
#include "support/listreadback.h"
#include "support/passes.h"
#include "support/shaderedit.h"

#include <gl/glinfo.h>
#include <gl/shaderprogram.h>
#include <gl/texture.h>
#include <gl/texturemanager.h>
#include <renderpasses/visibilitysortrenderpass.h>

#include <QElapsedTimer>
#include <QRect>

#include <epoxy/gl.h>

#include <algorithm>
#include <iterator>
#include <limits>
#include <memory>
#include <random>

using namespace Brevane::Kvo;
using namespace Brevane::Kvo::Test;

namespace {

enum Input { kViewport, kHeadPointers, kNodeBuffer, kNodeBufferWidth };

constexpr size_t kMaxDepth = 50;

#define KVO_REQUIRE_IMAGE_STORES()                                                                                     \
    KVO_REQUIRE_EXTENSION("ARB_shader_atomic_counters");                                                               \
    KVO_REQUIRE_EXTENSION("ARB_shader_image_load_store");                                                              \
    KVO_REQUIRE_EXTENSION("ARB_shading_language_420pack")

struct Payload
{
    quint32 primitive;
    quint32 draw;
    float depth;
    bool operator==(const Payload &) const = default;
};

/// The steps of the sort, one by one, with an array for each end of the parts.
void quickSort(std::vector<Payload> &fragments)
{
    int beg[16];
    int end[16];
    beg[0] = 0;
    end[0] = int(fragments.size());
    int i = 0;
    while (i >= 0) {
        int L = beg[i];
        int R = end[i] - 1;
        if (L < R) {
            const Payload pivot = fragments[size_t(L)];
            while (L < R) {
                while (fragments[size_t(R)].depth > pivot.depth && L < R)
                    --R;
                if (L < R)
                    fragments[size_t(L++)] = fragments[size_t(R)];
                while (pivot.depth > fragments[size_t(L)].depth && L < R)
                    ++L;
                if (L < R)
                    fragments[size_t(R--)] = fragments[size_t(L)];
            }
            fragments[size_t(L)] = pivot;
            beg[i + 1] = L + 1;
            end[i + 1] = end[i];
            end[i] = L;
            ++i;
            if (end[i] - beg[i] > end[i - 1] - beg[i - 1]) {
                std::swap(beg[i], beg[i - 1]);
                std::swap(end[i], end[i - 1]);
            }
        } else {
            --i;
        }
    }
}

std::vector<Payload> expectedOrder(std::vector<Payload> list)
{
    std::vector<Payload> sorted(list.begin(), list.begin() + long(std::min(list.size(), kMaxDepth)));
    quickSort(sorted);
    std::copy(sorted.begin(), sorted.end(), list.begin());
    return list;
}

/// Lists for every pixel of a small picture, stored with their nodes scattered over the buffer.
class Lists
{
public:
    static constexpr int kNodesWidth = 64;

    Lists(int width, int height, const std::vector<std::vector<Payload>> &perPixel)
        : _width(width), _height(height), _heads(size_t(width) * size_t(height), 0)
    {
        size_t count = 0;
        for (const auto &list : perPixel)
            count += list.size();
        // Free nodes in between show whether anything else is written.
        const size_t capacity = count + count / 4 + 16;
        _rows = int((capacity + kNodesWidth - 1) / kNodesWidth);
        _nodes.resize(size_t(_rows) * kNodesWidth);
        std::vector<quint32> places(_nodes.size());
        for (size_t i = 0; i < places.size(); ++i)
            places[i] = quint32(i) + 1;
        std::mt19937 random(7);
        std::shuffle(places.begin(), places.end(), random);
        size_t next = 0;
        for (size_t pixel = 0; pixel < perPixel.size(); ++pixel) {
            const auto &list = perPixel[pixel];
            for (size_t i = list.size(); i-- > 0;) {
                const quint32 pointer = places[next++];
                _nodes[pointer - 1] = {_heads[pixel], list[i].primitive, bitsOf(list[i].depth), list[i].draw};
                _heads[pixel] = pointer;
            }
        }
        heads = makeIntegerTexture(GL_R32UI, width, height, GL_RED_INTEGER, _heads.data());
        nodes = makeIntegerTexture(GL_RGBA32UI, kNodesWidth, _rows, GL_RGBA_INTEGER, _nodes.data());
    }

    void connect(VisibilitySortRenderPass &pass) const
    {
        pass.setInput(kViewport, QRect(0, 0, _width, _height));
        pass.setInput(kHeadPointers, textureToVariant(heads.get()));
        pass.setInput(kNodeBuffer, textureToVariant(nodes.get()));
        pass.setInput(kNodeBufferWidth, kNodesWidth);
        glViewport(0, 0, _width, _height);
    }

    ListReadback read() const { return {heads.get(), nodes.get(), kNodesWidth, _rows}; }

    /// Payloads in the stated order; heads, links and everything else as they were.
    void expectSorted(const std::vector<std::vector<Payload>> &perPixel) const
    {
        const ListReadback after = read();
        std::vector<ListNode> expected = _nodes;
        for (size_t pixel = 0; pixel < perPixel.size(); ++pixel) {
            quint32 pointer = _heads[pixel];
            for (const Payload &p : expectedOrder(perPixel[pixel])) {
                ListNode &node = expected[pointer - 1];
                node = {node.next, p.primitive, bitsOf(p.depth), p.draw};
                pointer = node.next;
            }
            EXPECT_EQ(pointer, 0u);
        }
        for (size_t i = 0; i < _heads.size(); ++i)
            ASSERT_EQ(after.heads.pixels[qsizetype(i)][0], _heads[i]);
        for (size_t i = 0; i < expected.size(); ++i)
            ASSERT_EQ(after.nodes[i], expected[i]) << "node " << i;
    }

    std::unique_ptr<Texture> heads;
    std::unique_ptr<Texture> nodes;

private:
    int _width;
    int _height;
    int _rows = 0;
    std::vector<quint32> _heads;
    std::vector<ListNode> _nodes;
};

/// A list with random depths; with few \a steps many of them are equal.
std::vector<Payload> randomList(std::mt19937 &random, size_t length, int steps)
{
    std::vector<Payload> list;
    for (size_t i = 0; i < length; ++i)
        list.push_back({quint32(random()), quint32(i), float(int(random() % unsigned(steps)) + 1) / float(steps + 1)});
    return list;
}

class VisibilitySort : public GLTest
{
protected:
    void TearDown() override
    {
        ownedPass.reset();
        GLTest::TearDown();
    }

    void sort(const std::vector<std::vector<Payload>> &perPixel, int width, int height)
    {
        const Lists lists(width, height, perPixel);
        lists.connect(pass);
        runFrame(pass);
        lists.expectSorted(perPixel);
    }

    std::unique_ptr<VisibilitySortRenderPass> ownedPass = std::make_unique<VisibilitySortRenderPass>();
    VisibilitySortRenderPass &pass = *ownedPass;
};

} // namespace

TEST_F(VisibilitySort, SlotsHaveTheirNamesOrderAndDefaults)
{
    expectSlots(VisibilitySortRenderPass(),
                {{"Kvo_QRect_Viewport"},
                 {"Kvo_KvoTexture*_HeadPointers"},
                 {"Kvo_KvoTexture*_NodeBuffer"},
                 {"Kvo_int_NodeBufferWidth"}},
                {"Kvo_KvoTexture*_HeadPointers", "Kvo_KvoTexture*_NodeBuffer", "Kvo_int_NodeBufferWidth"});
}

TEST_F(VisibilitySort, ConstructingCopyingAndDestroyingMakesNoGLCall)
{
    expectNoGLCallBeforeStart<VisibilitySortRenderPass>();
}

TEST_F(VisibilitySort, ListsOfEveryLengthAreSortedByTheStatedSteps)
{
    KVO_REQUIRE_IMAGE_STORES();
    constexpr int kSide = 16;
    std::mt19937 random(1);
    std::vector<std::vector<Payload>> perPixel;
    for (size_t i = 0; i < kSide * kSide; ++i)
        perPixel.push_back(randomList(random, i % 61, 1 << 20));
    QElapsedTimer timer;
    timer.start();
    sort(perPixel, kSide, kSide);
    // A compiler that loses a store of the stack never leaves the loop.
    EXPECT_LT(timer.elapsed(), 5000);
}

TEST_F(VisibilitySort, TiesComeOutAsTheStepsGiveThem)
{
    KVO_REQUIRE_IMAGE_STORES();
    constexpr int kSide = 16;
    std::mt19937 random(2);
    std::vector<std::vector<Payload>> perPixel;
    for (size_t i = 0; i < kSide * kSide; ++i)
        perPixel.push_back(randomList(random, i % 51, 1 + int(i % 7)));
    sort(perPixel, kSide, kSide);
}

TEST_F(VisibilitySort, OneTieAtAnyPlaceIsSeen)
{
    KVO_REQUIRE_IMAGE_STORES();
    // Every pair of places in lists of up to 12, in every way that the two can come.
    constexpr size_t kLongest = 12;
    std::mt19937 random(8);
    std::vector<std::vector<Payload>> perPixel;
    for (size_t length = 2; length <= kLongest; ++length) {
        for (size_t a = 0; a < length; ++a) {
            for (size_t b = a + 1; b < length; ++b) {
                std::vector<Payload> list = randomList(random, length, 1 << 20);
                list[b].depth = list[a].depth;
                perPixel.push_back(list);
            }
        }
    }
    sort(perPixel, int(perPixel.size()), 1);
}

TEST_F(VisibilitySort, DepthsThatNoRasteriserGivesAreSortedByTheSameSteps)
{
    KVO_REQUIRE_IMAGE_STORES();
    const float inf = std::numeric_limits<float>::infinity();
    const float values[] = {0.0f, -0.0f, -1.0f, 2.0f, inf, -inf, std::numeric_limits<float>::quiet_NaN(), 0.5f};
    std::mt19937 random(9);
    std::vector<std::vector<Payload>> perPixel;
    for (int i = 0; i < 400; ++i) {
        std::vector<Payload> list;
        for (int n = int(random() % 9); n > 0; --n)
            list.push_back({quint32(n), quint32(i), values[random() % std::size(values)]});
        perPixel.push_back(list);
    }
    sort(perPixel, 20, 20);
}

TEST_F(VisibilitySort, TwoFragmentsOfEqualDepthChangePlaces)
{
    KVO_REQUIRE_IMAGE_STORES();
    const Payload a{11, 1, 0.25f};
    const Payload b{22, 2, 0.25f};
    const Lists lists(1, 1, {{a, b}});
    lists.connect(pass);
    runFrame(pass);
    const std::vector<ListNode> list = lists.read().at(0, 0);
    ASSERT_EQ(list.size(), 2u);
    EXPECT_EQ(list[0].draw, 2u);
    EXPECT_EQ(list[1].draw, 1u);
}

TEST_F(VisibilitySort, TheNearestFragmentComesToTheHeadWithTheLinksUntouched)
{
    KVO_REQUIRE_IMAGE_STORES();
    sort({{{1, 0, 0.9f}, {2, 1, 0.1f}, {3, 2, 0.5f}}, {}, {{7, 0, 0.3f}, {8, 1, 0.2f}}, {{9, 9, 0.4f}}}, 2, 2);
}

TEST_F(VisibilitySort, AnEmptyListTouchesNoNode)
{
    KVO_REQUIRE_IMAGE_STORES();
    sort({{}, {}, {}, {}}, 2, 2);
}

TEST_F(VisibilitySort, OneFragmentIsStoredBackAsItWas)
{
    KVO_REQUIRE_IMAGE_STORES();
    sort({{{0xFFFFFFFF, 0x80000001, 1.0f}}}, 1, 1);
}

TEST_F(VisibilitySort, FortyNineAndFiftyFragmentsAreSortedWhole)
{
    KVO_REQUIRE_IMAGE_STORES();
    std::mt19937 random(3);
    for (size_t length : {size_t(49), size_t(50)}) {
        const std::vector<Payload> list = randomList(random, length, 1 << 20);
        const Lists lists(1, 1, {list});
        lists.connect(pass);
        runFrame(pass);
        lists.expectSorted({list});
        const std::vector<ListNode> sorted = lists.read().at(0, 0);
        ASSERT_EQ(sorted.size(), length);
        for (size_t i = 1; i < length; ++i)
            EXPECT_LE(sorted[i - 1].depth(), sorted[i].depth());
    }
}

TEST_F(VisibilitySort, BeyondFiftyFragmentsTheRestKeepsItsOrderBehindTheSorted)
{
    KVO_REQUIRE_IMAGE_STORES();
    std::mt19937 random(4);
    for (size_t length : {size_t(51), size_t(200)}) {
        const std::vector<Payload> list = randomList(random, length, 1 << 20);
        const Lists lists(1, 1, {list});
        lists.connect(pass);
        runFrame(pass);
        lists.expectSorted({list});
        const std::vector<ListNode> after = lists.read().at(0, 0);
        ASSERT_EQ(after.size(), length) << "the list stays whole";
        for (size_t i = kMaxDepth; i < length; ++i)
            EXPECT_EQ(after[i].draw, list[i].draw);
    }
}

TEST_F(VisibilitySort, SortedReversedAndEqualListsAreNoTrap)
{
    KVO_REQUIRE_IMAGE_STORES();
    std::vector<std::vector<Payload>> perPixel(4);
    for (quint32 i = 0; i < 50; ++i) {
        perPixel[0].push_back({i, i, float(i) / 64});
        perPixel[1].push_back({i, i, float(50 - i) / 64});
        perPixel[2].push_back({i, i, 0.5f});
        perPixel[3].push_back({i, i, float(i % 2)});
    }
    sort(perPixel, 2, 2);
}

TEST_F(VisibilitySort, TheLargerPartWaitsSoThatTheStackStaysAsDeepAsTheLogarithm)
{
    KVO_REQUIRE_IMAGE_STORES();
    // Parts get half as long from level to level: 50 fragments never come beyond level 5. Lists without ties take
    // the same way here.
    const QList<QPair<QByteArray, QByteArray>> marks{
        {"      ++i;\n", "      ++i;\n      if(i > 5) fragments[0].x = 0xFFFFFFFFu;\n"},
        {"hasTies = !gatherSorted(head, count);", "hasTies = gatherSorted(head, count) || true;"}};
    const ShaderEdit edit(marks);
    std::mt19937 random(6);
    std::vector<std::vector<Payload>> perPixel(4);
    for (quint32 i = 0; i < 50; ++i) {
        perPixel[0].push_back({i, i, float(i) / 64});
        perPixel[1].push_back({i, i, float(50 - i) / 64});
        perPixel[2].push_back({i, i, 0.5f});
    }
    perPixel[3] = randomList(random, 50, 1 << 20);
    sort(perPixel, 2, 2);
}

TEST_F(VisibilitySort, ANodeThatWasNeverStoredEndsTheGathering)
{
    KVO_REQUIRE_IMAGE_STORES();
    Lists lists(1, 1, {{{1, 1, 0.5f}, {2, 2, 0.25f}}});
    const ListReadback before = lists.read();
    // A head beyond the buffer, as after an overflow.
    const quint32 beyond = quint32(before.nodes.size()) + 5;
    lists.heads->bind();
    glTexSubImage2D(GL_TEXTURE_2D, 0, 0, 0, 1, 1, GL_RED_INTEGER, GL_UNSIGNED_INT, &beyond);
    lists.heads->unbind();
    lists.connect(pass);
    runFrame(pass);
    EXPECT_EQ(lists.read().nodes, before.nodes);
}

TEST_F(VisibilitySort, OutputsAreTheInputsInBothModesAlsoWhenTheyAreInvalid)
{
    runFrame(pass);
    for (int i = 0; i < 3; ++i)
        EXPECT_FALSE(pass.output(i).isValid());
    auto texture = makeTexture(GL_RGBA8, 2, 2);
    pass.setInput(kViewport, QRect(0, 0, 2, 2));
    pass.setInput(kHeadPointers, textureToVariant(texture.get()));
    pass.setInput(kNodeBufferWidth, 17);
    runFrame(pass);
    EXPECT_EQ(textureFromVariant(pass.output(0)), texture.get());
    EXPECT_FALSE(pass.output(1).isValid());
    EXPECT_EQ(pass.output(2).toInt(), 17);
}

TEST_F(VisibilitySort, WithoutImageStoresNoGLCallIsMade)
{
    if (hasGLExtension("ARB_shader_image_load_store"))
        GTEST_SKIP() << "missing: a driver without image stores";
    const Lists lists(2, 2, {{{1, 0, 0.9f}}, {}, {}, {}});
    lists.connect(pass);
    runFrame(pass); // asks for the extensions
    const GlCalls calls;
    runFrame(pass);
    EXPECT_TRUE(calls.all().empty()) << qPrintable(calls.toString());
    EXPECT_EQ(textureFromVariant(pass.output(0)), lists.heads.get());
    EXPECT_EQ(textureFromVariant(pass.output(1)), lists.nodes.get());
    EXPECT_EQ(pass.output(2).toInt(), Lists::kNodesWidth);
}

TEST_F(VisibilitySort, AMissingTextureOrWidthDrawsNothingAndTakesNoTexture)
{
    const Lists lists(2, 2, {{{1, 0, 0.9f}}, {}, {}, {}});
    for (Input missing : {kHeadPointers, kNodeBuffer, kNodeBufferWidth}) {
        VisibilitySortRenderPass incomplete;
        lists.connect(incomplete);
        incomplete.setInput(missing, missing == kNodeBufferWidth ? QVariant(0) : QVariant());
        const TexturePoolStatistics before = TextureManager::Instance().statistics();
        const GlCalls calls;
        runFrame(incomplete);
        EXPECT_EQ(calls.draws(), 0);
        EXPECT_EQ(calls.created(), 0);
        const TexturePoolStatistics after = TextureManager::Instance().statistics();
        EXPECT_EQ(after.hits + after.misses, before.hits + before.misses);
        EXPECT_EQ(incomplete.errorCode(), 0u);
    }
}

TEST_F(VisibilitySort, AReplacementProgramIsUsedAsItIs)
{
    KVO_REQUIRE_IMAGE_STORES();
    const std::vector<Payload> list{{1, 0, 0.9f}, {2, 1, 0.1f}};
    const Lists lists(1, 1, {list});
    lists.connect(pass);
    auto *program = new ShaderProgram; // the pass's from now on
    program->addShader(GL_VERTEX_SHADER, screenVertexText());
    program->addShader(
        GL_FRAGMENT_SHADER,
        QStringLiteral("#version 150\nuniform usampler2D u_SamplerHeadPointer;\nout vec4 c;\nvoid main() "
                       "{ c = vec4(texelFetch(u_SamplerHeadPointer, ivec2(0), 0)); }\n"));
    ASSERT_TRUE(program->compile() && program->link()) << qPrintable(program->log());
    pass.setShaderProgram(program);
    const ListReadback before = lists.read();
    const GlCalls calls;
    runFrame(pass);
    EXPECT_EQ(calls.draws(), 1);
    EXPECT_EQ(calls.created(GlKind::Program), 0) << "none is built beside it";
    EXPECT_EQ(lists.read().nodes, before.nodes) << "it sorts nothing, and lacks u_NodeBufferImage";
}

TEST_F(VisibilitySort, AReplacementRunsForAllPixelsAlsoBehindFramesOfThePassesOwnProgramAndGivesWay)
{
    KVO_REQUIRE_IMAGE_STORES();
    constexpr int kSide = 6;
    // A list in one pixel only: no stencil, and no depth that came with it, may keep the others out.
    std::vector<std::vector<Payload>> perPixel(size_t(kSide * kSide));
    perPixel[8] = {{1, 0, 0.9f}, {2, 1, 0.1f}};
    const Lists own(kSide, kSide, perPixel);
    own.connect(pass);
    runFrame(pass);
    own.expectSorted(perPixel);

    auto *program = new ShaderProgram; // the pass's from now on
    program->addShader(GL_VERTEX_SHADER, screenVertexText());
    program->addShader(GL_FRAGMENT_SHADER,
                       QStringLiteral("#version 150\n#extension GL_ARB_shader_image_load_store : require\n"
                                      "#extension GL_ARB_shading_language_420pack : require\n"
                                      "layout(early_fragment_tests) in;\n"
                                      "layout(rgba32ui) uniform uimage2D u_NodeBufferImage;\nvoid main() { "
                                      "imageStore(u_NodeBufferImage, ivec2(gl_FragCoord.xy), uvec4(7u)); }\n"));
    ASSERT_TRUE(program->compile() && program->link()) << qPrintable(program->log());
    pass.setShaderProgram(program);
    const std::vector<ListNode> empty(size_t(16 * kSide));
    const auto heads = makeIntegerTexture(GL_R32UI, kSide, kSide, GL_RED_INTEGER, empty.data());
    const auto nodes = makeIntegerTexture(GL_RGBA32UI, 16, kSide, GL_RGBA_INTEGER, empty.data());
    pass.setInput(kHeadPointers, textureToVariant(heads.get()));
    pass.setInput(kNodeBuffer, textureToVariant(nodes.get()));
    pass.setInput(kNodeBufferWidth, 16);
    for (int frame = 0; frame < 2; ++frame)
        runFrame(pass);
    const ListReadback read(heads.get(), nodes.get(), 16, kSide);
    for (int y = 0; y < kSide; ++y)
        for (int x = 0; x < 16; ++x)
            EXPECT_EQ(read.nodes[size_t(y * 16 + x)].primitive, x < kSide ? 7u : 0u) << x << ", " << y;

    pass.setShaderProgram(nullptr);
    delete program;
    const Lists again(kSide, kSide, perPixel);
    again.connect(pass);
    runFrame(pass);
    again.expectSorted(perPixel);
}

TEST_F(VisibilitySort, TheDepthTestStaysOnAndNothingElseChanges)
{
    KVO_REQUIRE_IMAGE_STORES();
    const Lists lists(2, 2, {{{1, 0, 0.9f}, {2, 1, 0.4f}}, {}, {}, {}});
    lists.connect(pass);
    runFrame(pass);
    glDisable(GL_DEPTH_TEST);
    const GLStateSnapshot before;
    runFrame(pass);
    EXPECT_TRUE(glIsEnabled(GL_DEPTH_TEST));
    EXPECT_EQ(GLStateSnapshot().changedSince(before).join(QLatin1Char(' ')).toStdString(), "depth test");
}

TEST_F(VisibilitySort, TheImageIsBoundForTheDrawAndABarrierFollows)
{
    KVO_REQUIRE_IMAGE_STORES();
    const Lists lists(2, 2, {{{1, 0, 0.9f}, {2, 1, 0.4f}}, {}, {}, {}});
    lists.connect(pass);
    runFrame(pass);
    const GlCalls calls;
    runFrame(pass);
    const double nodes = lists.nodes->textureID();
    const int bind = calls.indexOf("glBindImageTexture", {1, nodes, 0, GL_FALSE, 0, GL_READ_WRITE, GL_RGBA32UI});
    const int draw = calls.indexOf("glDrawArrays");
    const int unbind = calls.indexOf("glBindImageTexture", {1, 0, 0, GL_FALSE, 0, GL_READ_WRITE, GL_RGBA32UI});
    const int barrier = calls.indexOf("glMemoryBarrier", {double(kListReads)});
    ASSERT_GE(bind, 0);
    EXPECT_LT(bind, draw);
    EXPECT_LT(draw, unbind);
    EXPECT_LT(unbind, barrier);
    EXPECT_EQ(calls.count("glStencilMaskSeparate"), 0) << "the stencil of a clean context is taken for what it is";
    EXPECT_EQ(calls.count("glStencilFuncSeparate"), 2) << "the function comes back as it was, front and back";
    EXPECT_EQ(calls.count("glClear"), 1) << "of the stencil that tells pixels with a list";
    EXPECT_EQ(calls.draws(), 2) << "one that marks them, and one that sorts";
    const int maskClosed = calls.indexOf("glColorMask", {0, 0, 0, 0});
    const int maskOpened = calls.indexOf("glColorMask", {1, 1, 1, 1});
    EXPECT_TRUE(bind < maskClosed && maskClosed < draw && draw < maskOpened) << "marking writes no colour";
    EXPECT_LT(maskOpened, calls.indexOf("glDrawArrays", {}, 1));
}

TEST_F(VisibilitySort, ASteadyFrameCreatesNothingAndTakesNothingFromTheHeap)
{
    const Lists lists(2, 2, {{{1, 0, 0.9f}, {2, 1, 0.4f}}, {}, {}, {}});
    lists.connect(pass);
    for (int frame = 0; frame < 2; ++frame)
        runFrame(pass);
    {
        const GlCalls calls;
        runFrame(pass);
        EXPECT_EQ(calls.created(), 0);
        EXPECT_EQ(calls.textureAllocations() + calls.bufferAllocations(), 0);
    }
    KVO_EXPECT_STEADY_FRAME_TAKES_NOTHING_FROM_THE_HEAP(pass);
}

TEST_F(VisibilitySort, EmptyViewportsRaiseNoError)
{
    const Lists lists(2, 2, {{{1, 0, 0.9f}}, {}, {}, {}});
    lists.connect(pass);
    for (const QRect &viewport : {QRect(), QRect(0, 0, 0, 5), QRect(0, 0, -2, 3)}) {
        pass.setInput(kViewport, viewport);
        const GlCalls calls;
        runFrame(pass);
        EXPECT_EQ(calls.draws(), 0);
        EXPECT_EQ(textureFromVariant(pass.output(0)), lists.heads.get());
    }
}
