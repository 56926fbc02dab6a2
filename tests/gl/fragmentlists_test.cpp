#include "support/draw.h"
#include "support/gltest.h"
#include "support/listreadback.h"
#include "support/modelpass.h"

#include <gl/glinfo.h>
#include <gl/guards.h>
#include <gl/shaderprogram.h>
#include <gl/texture.h>
#include <host/fragmentlists.h>
#include <renderpasses/visibilitybufferrenderpass.h>
#include <renderpasses/visibilitydeferredrenderpass.h>
#include <renderpasses/visibilitysortrenderpass.h>

#include <algorithm>
#include <bit>
#include <climits>
#include <cmath>
#include <random>
#include <vector>

using namespace Brevane::Kvo;
using namespace Brevane::Kvo::Test;

namespace {

using FragmentListsOfAPass = ModelPassTest<VisibilityBufferRenderPass>;

bool canBuildLists()
{
    return hasGLExtension("ARB_shader_atomic_counters") && hasGLExtension("ARB_shader_image_load_store");
}

ModelData halfCovered()
{
    ModelData data;
    data.meshes << quadMesh();
    data.materials << material({1, 1, 1});
    for (float z : {-1.0f, 2.0f, 0.0f}) {
        ModelItem item;
        item.transform.translate(1, 0, z);
        data.items << item;
    }
    return data;
}

} // namespace

TEST(FragmentListsOfNothing, HaveNone)
{
    const FragmentLists lists;
    for (const QPoint &place : {QPoint(0, 0), QPoint(-1, 0), QPoint(0, -1), QPoint(INT_MAX, INT_MIN)}) {
        EXPECT_TRUE(lists.at(place.x(), place.y()).isEmpty());
        EXPECT_EQ(lists.lengthAt(place.x(), place.y()), 0);
        EXPECT_FALSE(lists.isCutAt(place.x(), place.y()));
    }
}

TEST_F(FragmentListsOfAPass, AreWalkedCountedAndSortedAsTheyLie)
{
    ASSERT_TRUE(model.upload(halfCovered()));
    pass.setInput(kProjection, flatProjection());
    pass.setInput(kCamera, QMatrix4x4());
    runFrame(pass);
    VisibilitySortRenderPass sort;
    sort.setInput(0, QRect(0, 0, kWidth, kHeight));
    for (int i = 0; i < 3; ++i)
        sort.setInput(1 + i, pass.output(i));
    runFrame(sort);

    FragmentLists lists;
    QString error;
    ASSERT_TRUE(lists.read(textureFromVariant(sort.output(0)), textureFromVariant(sort.output(1)),
                           sort.output(2).toInt(), &error))
        << qPrintable(error);
    const int layers = canBuildLists() ? 3 : 1;
    const int columns = kWidth - kWidth / 2; // the centre of the middle one lies on the edge, which is a left one
    EXPECT_EQ(lists.size(), QSize(kWidth, kHeight));
    EXPECT_EQ(lists.coveredPixels(), qint64(columns) * kHeight);
    EXPECT_EQ(lists.fragmentCount(), qint64(columns) * kHeight * layers);
    EXPECT_EQ(lists.longest(), layers);
    EXPECT_EQ(lists.lostCount(), 0);
    EXPECT_EQ(lists.cutPixels(), 0);
    EXPECT_EQ(lists.hasDraws(), canBuildLists());
    EXPECT_EQ(lists.unsortedPixels(), 0);
    EXPECT_EQ(lists.capacity(), canBuildLists() ? qint64(4096) * 4096 : qint64(kWidth) * kHeight);
    EXPECT_EQ(lists.lengthAt(0, 0), 0);
    const QVector<ListedFragment> list = lists.at(kWidth - 1, kHeight - 1);
    ASSERT_EQ(list.size(), layers);
    const float depths[] = {0.4f, 0.5f, 0.55f};
    const quint32 draws[] = {1, 2, 0};
    for (int i = 0; i < layers; ++i) {
        EXPECT_NEAR(list[i].depth, depths[i], 1e-6f);
        EXPECT_EQ(list[i].draw, canBuildLists() ? draws[i] : 0u);
        EXPECT_LT(list[i].primitive, 2u);
    }
    const QImage image = lists.lengthImage();
    EXPECT_EQ(image.pixelColor(0, 3), QColor(Qt::black));
    EXPECT_GT(image.pixelColor(kWidth - 1, 3).blue(), 200);
}

TEST_F(FragmentListsOfAPass, WhatASortingProgramOfAHostStoresIsGoneInTheNextFrame)
{
    KVO_REQUIRE_EXTENSION("ARB_shader_image_load_store");
    ASSERT_TRUE(model.upload(halfCovered()));
    pass.setInput(kProjection, flatProjection());
    pass.setInput(kCamera, QMatrix4x4());
    VisibilitySortRenderPass sort;
    sort.setInput(0, QRect(0, 0, kWidth, kHeight));
    auto *program = new ShaderProgram; // the pass's from now on
    program->addShader(GL_VERTEX_SHADER, screenVertexText());
    program->addShader(GL_FRAGMENT_SHADER,
                       QStringLiteral("#version 150\n#extension GL_ARB_shader_image_load_store : require\n"
                                      "#extension GL_ARB_shading_language_420pack : require\n"
                                      "layout(rgba32ui) uniform uimage2D u_NodeBufferImage;\n"
                                      "void main() { imageStore(u_NodeBufferImage, ivec2(4000), uvec4(7u)); }\n"));
    ASSERT_TRUE(program->compile() && program->link()) << qPrintable(program->log());
    sort.setShaderProgram(program);
    for (int frame = 0; frame < 2; ++frame) {
        runFrame(pass);
        for (int i = 0; i < 3; ++i)
            sort.setInput(1 + i, pass.output(i));
        runFrame(sort);
    }
    pass.setInput(kGeometry, QVariant());
    runFrame(pass);
    const ListReadback read(outputTexture(pass, 0), outputTexture(pass, 1), 4096, 4096);
    EXPECT_TRUE(
        std::all_of(read.nodes.begin(), read.nodes.end(), [](const ListNode &node) { return node == ListNode(); }));
}

TEST_F(FragmentListsOfAPass, ThePassesThemselvesAreNoReasonToClearEverything)
{
    KVO_REQUIRE_EXTENSION("ARB_shader_image_load_store");
    ASSERT_TRUE(model.upload(halfCovered()));
    VisibilitySortRenderPass sort;
    VisibilityDeferredRenderPass shade;
    sort.setInput(0, QRect(0, 0, kWidth, kHeight));
    shade.setInput(0, QRect(0, 0, kWidth, kHeight));
    shade.setInput(1, projection);
    shade.setInput(2, camera);
    shade.setInput(6, QVariant::fromValue(&model));
    for (int frame = 0; frame < 3; ++frame) {
        const GlCalls calls;
        runFrame(pass);
        for (int i = 0; i < 3; ++i) {
            sort.setInput(1 + i, pass.output(i));
            shade.setInput(3 + i, pass.output(i));
        }
        runFrame(sort);
        runFrame(shade);
        EXPECT_EQ(calls.count("glClearBufferuiv"), frame == 0 ? 2 : 1);
    }
}

TEST_F(FragmentListsOfAPass, NodesLieWhereDivisionPutsThem)
{
    constexpr int kPointers = 1024;
    // The last pointer that a buffer of this width can hold, and those around the ends of rows.
    const auto program = makeProgram(QStringLiteral("#version 150\n#include \"VisibilityNodes.glslh\"\n"
                                                    "uniform usampler2D u_Pointers;\nuniform int u_Width;\n"
                                                    "out ivec4 out_Color;\nvoid main() { uint p = "
                                                    "texelFetch(u_Pointers, ivec2(gl_FragCoord.xy), 0).r;\n"
                                                    "out_Color = ivec4(kvo_nodeTexel(p, u_Width), 0, 0); }\n"));
    ASSERT_TRUE(program);
    std::mt19937 random(11);
    for (const qint64 width : {1, 2, 3, 7, 61, 64, 1000, 1023, 1280, 4095, 4096, 4097, 16384, 65535, 65536}) {
        const qint64 capacity = std::min(width * 16384, qint64(1) << 30);
        std::vector<quint32> pointers;
        for (int i = 0; i < kPointers / 4; ++i) {
            const qint64 row = qint64(random() % quint32(capacity / width));
            for (const qint64 node :
                 {row * width, row * width + width - 1, qint64(random() % quint32(capacity)), capacity - 1 - i % 8})
                pointers.push_back(quint32(std::clamp(node, qint64(0), capacity - 1) + 1));
        }
        const auto texture = makeIntegerTexture(GL_R32UI, kPointers, 1, GL_RED_INTEGER, pointers.data());
        const Target target(GL_RGBA32I, kPointers, 1);
        drawScreen(target, program.get(), [&](ShaderProgram *bound) {
            texture->bind();
            bound->setUniform(QStringLiteral("u_Pointers"), texture->unit());
            bound->setUniform(QStringLiteral("u_Width"), int(width));
        });
        texture->unbind();
        const Image<qint32> texels = readTexture<qint32>(target.color());
        for (int i = 0; i < kPointers; ++i) {
            const qint64 node = qint64(pointers[size_t(i)]) - 1;
            ASSERT_EQ(texels.pixels[i][0], node % width) << "node " << node << " of rows of " << width;
            ASSERT_EQ(texels.pixels[i][1], node / width) << "node " << node << " of rows of " << width;
        }
    }
}

TEST_F(FragmentListsOfAPass, OverflowAndLongListsAreTold)
{
    KVO_REQUIRE_EXTENSION("ARB_shader_image_load_store");
    // Six pixels: 60 nodes; one node and a link beyond the buffer; a head beyond the buffer; the last node; a node
    // without identity, as the sort moves it there, and a fragment behind it; none.
    constexpr int kNodesWidth = 8;
    std::vector<quint32> nodes(kNodesWidth * 8 * 4, 0);
    for (quint32 i = 0; i < 64; ++i)
        nodes[i * 4 + 1] = i + 1;
    for (quint32 i = 0; i < 60; ++i)
        nodes[i * 4] = i == 59 ? 0 : i + 2;
    nodes[60 * 4] = 70;
    nodes[61 * 4] = 63;
    nodes[61 * 4 + 1] = 0;
    nodes[62 * 4] = 66;
    const quint32 heads[6] = {1, 61, 65, 64, 62, 0};
    const auto headTexture = makeIntegerTexture(GL_R32UI, 6, 1, GL_RED_INTEGER, heads);
    const auto nodeTexture = makeIntegerTexture(GL_RGBA32UI, kNodesWidth, 8, GL_RGBA_INTEGER, nodes.data());
    FragmentLists lists;
    ASSERT_TRUE(lists.read(headTexture.get(), nodeTexture.get(), kNodesWidth));
    EXPECT_EQ(lists.capacity(), 64);
    EXPECT_EQ(lists.fragmentCount(), 70);
    EXPECT_EQ(lists.lostCount(), 6);
    EXPECT_EQ(lists.longest(), 60);
    EXPECT_EQ(lists.unsortedPixels(), 1);
    EXPECT_EQ(lists.lengthAt(1, 0), 1);
    EXPECT_EQ(lists.lengthAt(2, 0), 0);
    EXPECT_EQ(lists.lengthAt(3, 0), 1) << "the last node is one";
    EXPECT_EQ(lists.at(3, 0).value(0).primitive, 63u);
    ASSERT_EQ(lists.lengthAt(4, 0), 1) << "what has no identity is no fragment";
    EXPECT_EQ(lists.at(4, 0)[0].primitive, 62u);
    const bool cuts[6] = {false, true, true, false, true, false};
    for (int x = 0; x < 6; ++x)
        EXPECT_EQ(lists.isCutAt(x, 0), cuts[x]) << x;
    EXPECT_EQ(lists.cutPixels(), 3);
    EXPECT_EQ(lists.coveredPixels(), 4);
    EXPECT_EQ(lists.lengthImage().pixelColor(0, 0), QColor(Qt::white));
    EXPECT_EQ(lists.lengthImage().pixelColor(2, 0), QColor(Qt::magenta)) << "all of it is lost";
    EXPECT_EQ(lists.lengthImage().pixelColor(5, 0), QColor(Qt::black));
    EXPECT_TRUE(lists.summary().last().contains(QStringLiteral("6 fragments are lost")));
    QString error;
    EXPECT_FALSE(lists.read(headTexture.get(), nodeTexture.get(), 9, &error));
    EXPECT_FALSE(lists.read(nullptr, nodeTexture.get(), 8, &error));
    EXPECT_FALSE(lists.read(nodeTexture.get(), nodeTexture.get(), 8, &error));
    EXPECT_TRUE(error.contains(QStringLiteral("head pointers"))) << qPrintable(error);
}

// Where a driver has no function for the bits of a float they are computed. Powers of two and their neighbours are where
// a logarithm that is not exact gives the wrong exponent.
TEST_F(FragmentListsOfAPass, BitsOfFloatsAreThoseOfTheFormat)
{
    std::vector<float> values{0.0f};
    for (int exponent = -40; exponent <= 2; ++exponent) {
        const float power = std::ldexp(1.0f, exponent);
        values.insert(values.end(), {power, std::nextafter(power, 0.0f), std::nextafter(power, 8.0f), power * 1.5f});
    }
    std::mt19937 random(3);
    while (values.size() < 512)
        values.push_back(std::uniform_real_distribution<float>(0.0f, 1.0f)(random));
    const int count = int(values.size());
    const auto texture = makeTexture(GL_R32F, count, 1, values.data());
    const AutoBinder bound(texture.get()); // on unit 0, which a sampler reads that nobody sets
    for (const char *way : {"", "#define KVO_SOFTWARE_BIT_ENCODING\n"}) {
        const auto program = makeProgram(
            screenVertexText(),
            QStringLiteral("#version 150\n%1#include \"ShaderBitEncoding.glslh\"\nuniform sampler2D values;\n"
                           "out vec4 out_Color;\nvoid main()\n{\n"
                           "  uint bits = floatBitsToUint(texelFetch(values, ivec2(gl_FragCoord.x, 0), 0).r);\n"
                           "  out_Color = vec4(float(bits >> 16), float(bits & 0xFFFFu), uintBitsToFloat(bits), 1.0);\n"
                           "}\n")
                .arg(QLatin1String(way)));
        const Target target(GL_RGBA32F, count, 1);
        drawScreen(target, program.get());
        const Image<float> picture = target.read();
        for (int i = 0; i < count; ++i) {
            const auto bits = std::bit_cast<quint32>(values[size_t(i)]);
            const auto texel = picture.at(i, 0);
            EXPECT_EQ(texel[0], float(bits >> 16)) << way << "high half of " << values[size_t(i)];
            EXPECT_EQ(texel[1], float(bits & 0xFFFF)) << way << "low half of " << values[size_t(i)];
            EXPECT_EQ(texel[2], values[size_t(i)]) << way;
        }
    }
}
