#include "support/allocations.h"
#include "support/draw.h"
#include "support/gltest.h"
#include "support/image.h"
#include "support/passes.h"
#include "support/scenes.h"

#include <gl/bufferobject.h>
#include <gl/drawbuffers.h>
#include <gl/guards.h>
#include <gl/opengldevicecontext.h>
#include <gl/vertexarrayobject.h>
#include <renderpasses/gbufferrenderpass.h>
#include <renderpasses/primitivebuilderrenderpass.h>

#include <QMatrix4x4>
#include <QPointer>
#include <QRect>
#include <QVector3D>

#include <epoxy/gl.h>

#include <memory>

using namespace Brevane::Kvo;
using namespace Brevane::Kvo::Test;

namespace {

enum Input { kViewport, kProjection, kCamera, kGeometry };
enum Output { kNormal, kTexCoord, kDepth, kId };

constexpr int kWidth = 32;
constexpr int kHeight = 24;

// Interpolation of values up to 8 in float, at positions that the rasteriser rounds to 1/256 of a pixel.
constexpr double kInterpolated = 1e-3;

QVariant objectOf(DrawBuffers *buffers)
{
    return QVariant::fromValue<QObject *>(buffers);
}

/// A rectangle in z = depth of two triangles, with the attributes of its corners: lower left, upper left,
/// lower right, upper right.
std::unique_ptr<DrawBuffers> rectangle(float left, float bottom, float right, float top, float depth,
                                       const std::array<std::array<float, 5>, 4> &attributes)
{
    const float x[] = {left, left, right, right};
    const float y[] = {bottom, top, bottom, top};
    QVector<float> vertices, normals, texCoords;
    for (const size_t i : {0, 1, 2, 1, 2, 3}) {
        const auto &a = attributes[i];
        vertices << x[i] << y[i] << depth;
        normals << a[0] << a[1] << a[2];
        texCoords << a[3] << a[4];
    }
    const auto context = OpenGLDeviceContext::current();
    auto buffers = std::make_unique<DrawBuffers>();
    buffers->setVAO(context->createVertexArrayObject());
    const auto attribute = [&](const char *name, const QVector<float> &data, int components) {
        const auto buffer = context->createBufferObject();
        buffers->VAO()->upload(QString::fromLatin1(name), buffer, components, GL_FLOAT);
        const AutoBinder bound(buffer);
        buffer->upload(data.constData(), int(data.size()), GL_STATIC_DRAW);
    };
    attribute("va_Vertex", vertices, 3);
    attribute("va_Normal", normals, 3);
    attribute("va_TexCoord", texCoords, 2);
    buffers->setPrimitiveType(GL_TRIANGLES);
    buffers->setVertexCount(6);
    return buffers;
}

std::unique_ptr<DrawBuffers> plainRectangle(float left, float right, float depth, float mark)
{
    const std::array<float, 5> corner{mark, 0, 0, mark, mark};
    return rectangle(left, -1, right, 1, depth, {corner, corner, corner, corner});
}

class GBuffer : public GLTest
{
protected:
    void SetUp() override
    {
        GLTest::SetUp();
        pass->setInput(kViewport, QRect(0, 0, kWidth, kHeight));
        pass->setInput(kProjection, flatProjection());
        pass->setInput(kCamera, QMatrix4x4());
    }
    void TearDown() override
    {
        pass.reset();
        GLTest::TearDown();
    }
    Image<float> target(Output output) { return readTexture<float>(outputTexture(*pass, output)); }
    Image<float> depth() { return readDepth(outputTexture(*pass, kDepth)); }
    void draw(const QVariant &geometry)
    {
        pass->setInput(kGeometry, geometry);
        runFrame(*pass);
    }

    std::unique_ptr<GBufferRenderPass> pass = std::make_unique<GBufferRenderPass>();
};

} // namespace

TEST_F(GBuffer, SlotsHaveTheirNamesAndOrder)
{
    expectSlots(GBufferRenderPass(),
                {{"Kvo_QRect_Viewport"},
                 {"Kvo_QMatrix4x4_ProjectionMatrix"},
                 {"Kvo_QMatrix4x4_CameraMatrix"},
                 {"Kvo_KvoDrawBuffers*_Geometry"}},
                {"Kvo_KvoTexture*_Normal", "Kvo_KvoTexture*_TexCoord", "Kvo_KvoTexture*_Depth", "Kvo_KvoTexture*_Id"});
}

TEST_F(GBuffer, ConstructingCopyingAndDestroyingMakesNoGLCall)
{
    expectNoGLCallBeforeStart<GBufferRenderPass>();
}

TEST_F(GBuffer, TargetsHaveTheirFormats)
{
    const GlCalls calls;
    runFrame(*pass);
    EXPECT_TRUE(isTarget(outputTexture(*pass, kNormal), GL_RGB32F, kWidth, kHeight));
    EXPECT_TRUE(isTarget(outputTexture(*pass, kTexCoord), GL_RG32F, kWidth, kHeight));
    EXPECT_TRUE(isTarget(outputTexture(*pass, kDepth), GL_DEPTH_COMPONENT32F, kWidth, kHeight));
    EXPECT_TRUE(isTarget(outputTexture(*pass, kId), GL_R32F, kWidth, kHeight));
    for (const GLenum format : {GL_RGB32F, GL_RG32F, GL_R32F})
        EXPECT_EQ(
            calls.count("glTexImage2D", {GL_TEXTURE_2D, 0, double(format), kWidth, kHeight, 0, GL_BGRA, GL_FLOAT, 0}),
            1);
    EXPECT_EQ(calls.count("glTexImage2D", {GL_TEXTURE_2D, 0, GL_DEPTH_COMPONENT32F, kWidth, kHeight, 0,
                                           GL_DEPTH_COMPONENT, GL_FLOAT, 0}),
              1);
}

TEST_F(GBuffer, TheViewportIsSetBeforeAnythingElse)
{
    pass->setInput(kViewport, QRect(5, 7, kWidth, kHeight));
    const GlCalls calls;
    runFrame(*pass);
    ASSERT_FALSE(calls.all().empty());
    EXPECT_STREQ(calls.all().front().name, "glViewport");
    EXPECT_EQ(calls.all().front().args, (std::vector<double>{0, 0, kWidth, kHeight}));
}

TEST_F(GBuffer, TargetsHoldTheInterpolatedAttributesTheTriangleAndTheDepth)
{
    // Normals of other lengths than 1, which stay as they are.
    const std::array<std::array<float, 5>, 4> corners{
        {{2, 0, 1, 0, 0}, {2, 4, 1, 0, 3}, {-2, 0, 1, 5, 0}, {-2, 4, 1, 5, 3}}};
    const auto geometry = rectangle(-1, -1, 1, 1, -5, corners);
    draw(objectOf(geometry.get()));
    const Image<float> normals = target(kNormal);
    const Image<float> texCoords = target(kTexCoord);
    const Image<float> ids = target(kId);
    const Image<float> depths = depth();
    for (int y = 0; y < kHeight; ++y) {
        for (int x = 0; x < kWidth; ++x) {
            const double u = (x + 0.5) / kWidth;
            const double v = (y + 0.5) / kHeight;
            ASSERT_TRUE(isPixel(normals, x, y, {2 - 4 * u, 4 * v, 1, 1}, kInterpolated));
            ASSERT_TRUE(isPixel(texCoords, x, y, {5 * u, 3 * v, 0, 1}, kInterpolated));
            // z from -10 to 10 in front of the camera.
            ASSERT_NEAR(depths.at(x, y)[0], 0.75, 1e-6);
            // The first triangle lies below the diagonal from the upper left to the lower right.
            if (std::abs(u + v - 1) > 0.05) {
                ASSERT_EQ(ids.at(x, y)[0], u + v < 1 ? 1 : 2) << x << ", " << y;
            }
        }
    }
}

TEST_F(GBuffer, TheCameraMovesVerticesAndLeavesNormalsInObjectSpace)
{
    QMatrix4x4 camera;
    camera.rotate(90, 0, 0, 1);
    pass->setInput(kCamera, camera);
    const auto geometry = plainRectangle(0, 1, 0, 3);
    draw(objectOf(geometry.get()));
    const Image<float> normals = target(kNormal);
    // The right half has become the upper one.
    EXPECT_TRUE(isPixel(normals, 3, kHeight - 3, {3, 0, 0, 1}, kInterpolated));
    EXPECT_TRUE(isPixel(normals, kWidth - 3, kHeight - 3, {3, 0, 0, 1}, kInterpolated));
    EXPECT_TRUE(isPixel(normals, kWidth - 3, 3, {0, 0, 0, 1}, 0));
}

TEST_F(GBuffer, TheProjectionComesAfterTheCamera)
{
    QMatrix4x4 camera;
    camera.translate(0, 0, -3);
    const QMatrix4x4 projection = perspective(float(kWidth) / kHeight);
    pass->setInput(kCamera, camera);
    pass->setInput(kProjection, projection);
    const auto geometry = plainRectangle(-8, 8, 0, 1);
    draw(objectOf(geometry.get()));
    const QVector4D clip = projection * camera * QVector4D(0, 0, 0, 1);
    EXPECT_NEAR(depth().at(kWidth / 2, kHeight / 2)[0], double(clip.z() / clip.w()) * 0.5 + 0.5, 1e-6);
}

TEST_F(GBuffer, AListIsDrawnInItsOrderIntoTheSameTargetsWithDepthTest)
{
    const auto left = plainRectangle(-1, 0.25f, 0, 1);
    const auto right = plainRectangle(-0.25f, 1, 2, 2); // nearer
    for (const bool nearLast : {true, false}) {
        QVariantList list{objectOf(left.get()), objectOf(right.get())};
        if (!nearLast)
            list.swapItemsAt(0, 1);
        const GlCalls calls;
        draw(list);
        EXPECT_EQ(calls.draws(), 2);
        EXPECT_EQ(calls.count("glClear"), 1);
        const Image<float> normals = target(kNormal);
        EXPECT_TRUE(isPixel(normals, 2, 5, {1, 0, 0, 1}, kInterpolated));
        EXPECT_TRUE(isPixel(normals, kWidth / 2, 5, {2, 0, 0, 1}, kInterpolated)) << "the nearer one";
        EXPECT_TRUE(isPixel(normals, kWidth - 3, 5, {2, 0, 0, 1}, kInterpolated));
        // Triangles are counted anew in each.
        EXPECT_EQ(target(kId).at(2, 2)[0], 1);
        EXPECT_EQ(target(kId).at(kWidth - 3, kHeight - 3)[0], 2);
    }
    // At one depth the first one stays.
    const auto first = plainRectangle(-1, 1, 0, 5);
    draw(QVariantList{objectOf(first.get()), objectOf(left.get())});
    EXPECT_TRUE(isPixel(target(kNormal), 2, 5, {5, 0, 0, 1}, kInterpolated));
    draw(QVariantList{objectOf(left.get()), objectOf(first.get())});
    EXPECT_TRUE(isPixel(target(kNormal), 2, 5, {1, 0, 0, 1}, kInterpolated));
}

TEST_F(GBuffer, GeometryMayChangeFromFrameToFrame)
{
    const auto one = plainRectangle(-1, 1, 0, 1);
    const auto other = plainRectangle(-1, 1, 0, 2);
    draw(objectOf(one.get()));
    EXPECT_TRUE(isPixel(target(kNormal), 5, 5, {1, 0, 0, 1}, kInterpolated));
    draw(objectOf(other.get()));
    EXPECT_TRUE(isPixel(target(kNormal), 5, 5, {2, 0, 0, 1}, kInterpolated));
}

TEST_F(GBuffer, WithNothingConnectedTheProgramIsBoundAndNothingDrawn)
{
    runFrame(*pass);
    glDisable(GL_DEPTH_TEST);
    const GlCalls calls;
    draw(QVariant());
    EXPECT_EQ(calls.draws(), 0);
    EXPECT_EQ(calls.count("glEnable", {GL_DEPTH_TEST}), 1) << "an empty value is a list of one";
    const auto uses = calls.calls("glUseProgram");
    ASSERT_EQ(uses.size(), 2u);
    EXPECT_NE(uses[0].args[0], 0);
}

TEST_F(GBuffer, ANullPointerIsPassedOver)
{
    const GlCalls calls;
    draw(objectOf(nullptr));
    EXPECT_EQ(calls.draws(), 0);
}

TEST_F(GBuffer, AListGoesOnBehindElementsThatAreNoGeometry)
{
    const auto geometry = plainRectangle(-1, 1, 0, 1);
    DrawBuffers withoutVertices;
    const auto texture = makeSolidTexture(2, 2, {1, 1, 1, 1});
    const GlCalls calls;
    draw(QVariantList{QVariant(), objectOf(nullptr), QVariant(7), objectOf(&withoutVertices),
                      textureToVariant(texture.get()), objectOf(geometry.get())});
    EXPECT_EQ(calls.draws(), 1);
    EXPECT_TRUE(isPixel(target(kNormal), 5, 5, {1, 0, 0, 1}, kInterpolated));
}

TEST_F(GBuffer, AnEmptyListClearsAndLeavesTheDepthTestAlone)
{
    runFrame(*pass);
    glDisable(GL_DEPTH_TEST);
    const GlCalls calls;
    draw(QVariantList());
    EXPECT_EQ(calls.count("glClear", {GL_COLOR_BUFFER_BIT | GL_DEPTH_BUFFER_BIT}), 1);
    EXPECT_EQ(calls.count("glUseProgram"), 0);
    EXPECT_EQ(calls.count("glEnable"), 0);
}

TEST_F(GBuffer, GeometryInTypedFormIsDrawnToo)
{
    const auto geometry = plainRectangle(-1, 1, 0, 1);
    draw(QVariant::fromValue(geometry.get()));
    EXPECT_TRUE(isPixel(target(kNormal), 5, 5, {1, 0, 0, 1}, kInterpolated));
}

TEST_F(GBuffer, TargetsAreClearedWithTheClearColourOfTheMoment)
{
    glClearColor(0.25f, 0.5f, 0.75f, 1.0f);
    const GlCalls calls;
    draw(QVariant());
    EXPECT_EQ(calls.count("glClearColor"), 0);
    EXPECT_TRUE(isPixel(target(kNormal), 3, 3, {0.25, 0.5, 0.75, 1}, 0));
    EXPECT_TRUE(isPixel(target(kTexCoord), 3, 3, {0.25, 0.5, 0, 1}, 0));
    EXPECT_TRUE(isPixel(target(kId), 3, 3, {0.25, 0, 0, 1}, 0));
    EXPECT_EQ(depth().at(3, 3)[0], 1);
}

TEST_F(GBuffer, DrawsWhatThePrimitiveBuilderMakes)
{
    PrimitiveBuilderRenderPass builder;
    builder.addQuad(1, {0, 0, 0});
    builder.addQuad(0.5f, {0, 0, 4});
    runFrame(builder);
    draw(builder.output(0));
    const Image<float> normals = target(kNormal);
    EXPECT_TRUE(isPixel(normals, 2, 2, {0, 0, -1, 1}, kInterpolated));
    EXPECT_NEAR(depth().at(2, 2)[0], 0.5, 1e-6);
    EXPECT_NEAR(depth().at(kWidth / 2, kHeight / 2)[0], 0.3, 1e-6);
    EXPECT_EQ(target(kId).at(2, 2)[0], 1);
    EXPECT_EQ(target(kId).at(kWidth / 2 - 3, kHeight / 2 - 3)[0], 3) << "one draw, so the numbers go on";
    EXPECT_TRUE(isPixel(target(kTexCoord), kWidth / 2, kHeight / 2, {0.5 + 1.0 / kWidth, 0.5 + 1.0 / kHeight, 0, 1},
                        kInterpolated));
}

TEST_F(GBuffer, AProgramOfTheHostReplacesThePasss)
{
    auto program =
        makeProgram(QStringLiteral("#version 150\n"
                                   "in vec3 va_Vertex;\n"
                                   "void main() { gl_Position = vec4(va_Vertex.xy, 0.0, 1.0); }\n"),
                    QStringLiteral("#version 150\n"
                                   "out vec3 out_Normal;\nout vec2 out_TexCoord;\nout vec4 out_Id;\n"
                                   "void main() { out_Normal = vec3(7.0); out_TexCoord = vec2(8.0); out_Id = "
                                   "vec4(9.0); }\n"),
                    {QStringLiteral("out_Normal"), QStringLiteral("out_TexCoord"), QStringLiteral("out_Id")});
    const QPointer<ShaderProgram> watched(program.get());
    pass->setShaderProgram(program.release());
    const auto geometry = plainRectangle(-1, 1, 0, 1);
    draw(objectOf(geometry.get()));
    EXPECT_TRUE(isPixel(target(kNormal), 3, 3, {7, 7, 7, 1}, 0));
    EXPECT_TRUE(isPixel(target(kTexCoord), 3, 3, {8, 8, 0, 1}, 0));
    EXPECT_TRUE(isPixel(target(kId), 3, 3, {9, 0, 0, 1}, 0));
    pass.reset();
    EXPECT_TRUE(watched.isNull()) << "the pass deletes it";
}

TEST_F(GBuffer, TargetsOutliveThePass)
{
    runFrame(*pass);
    const QPointer<Texture> normal(outputTexture(*pass, kNormal));
    const QPointer<Texture> depthTexture(outputTexture(*pass, kDepth));
    pass.reset();
    EXPECT_FALSE(normal.isNull());
    EXPECT_FALSE(depthTexture.isNull());
}

TEST_F(GBuffer, ChangesOnlyTheStateThatItSays)
{
    const auto geometry = plainRectangle(-1, 1, 0, 1);
    draw(objectOf(geometry.get()));
    glDisable(GL_DEPTH_TEST);
    glViewport(1, 2, 3, 4);
    const GLStateSnapshot before;
    runFrame(*pass);
    EXPECT_EQ(GLStateSnapshot().changedSince(before).join(QStringLiteral(", ")),
              QStringLiteral("viewport, depth test"));
}

TEST_F(GBuffer, SteadyFrameCreatesNothing)
{
    const auto geometry = plainRectangle(-1, 1, 0, 1);
    pass->setInput(kGeometry, objectOf(geometry.get()));
    expectSteadyFrameCreatesNothing(*pass);
    expectTeardownKeepsEverything(*pass);
    KVO_EXPECT_STEADY_FRAME_TAKES_NOTHING_FROM_THE_HEAP(*pass);
}

TEST_F(GBuffer, ASteadyFrameOfAListTakesNothingFromTheHeap)
{
    const auto one = plainRectangle(-1, 1, 0, 1);
    const auto other = plainRectangle(-1, 1, 0, 1);
    pass->setInput(kGeometry, QVariantList{objectOf(one.get()), objectOf(other.get())});
    KVO_EXPECT_STEADY_FRAME_TAKES_NOTHING_FROM_THE_HEAP(*pass);
}

TEST_F(GBuffer, ResizingReplacesTheTargetsAndLeaksNothing)
{
    expectResizingLeaksNothing(*pass, 4);
}

TEST_F(GBuffer, EmptyViewportsRaiseNoError)
{
    const auto geometry = plainRectangle(-1, 1, 0, 1);
    pass->setInput(kGeometry, objectOf(geometry.get()));
    glDisable(GL_DEPTH_TEST);
    expectEmptyViewportsRaiseNoError(*pass);
    EXPECT_TRUE(glIsEnabled(GL_DEPTH_TEST)) << "is left on whatever the size";
}
