#include "support/draw.h"
#include "support/gltest.h"
#include "support/image.h"
#include "support/messages.h"
#include "support/scenes.h"

#include <gl/framebufferobject.h>
#include <gl/shaderfailurelistener.h>
#include <gl/shaderprogram.h>
#include <gl/texture.h>
#include <gl/texturemanager.h>
#include <host/outlinepass.h>
#include <host/pickpass.h>
#include <host/screentarget.h>
#include <model/gpumodel.h>

#include <epoxy/gl.h>

#include <QColor>

#include <cmath>

using namespace Brevane::Kvo;
using namespace Brevane::Kvo::Test;

namespace {

constexpr int kSide = 48;
const QRect kViewport(0, 0, kSide, kSide);

class PickPassTest : public GLTest
{
protected:
    // 6 by 4 quads that fill the picture, in eight by twelve pixels each.
    void SetUp() override
    {
        GLTest::SetUp();
        ASSERT_TRUE(model.upload(quadGridScene(6, 4)));
        for (RenderPassHelper *pass :
             {static_cast<RenderPassHelper *>(&pick), static_cast<RenderPassHelper *>(&line)}) {
            pass->setInput(0, kViewport);
            pass->setInput(1, flatProjection());
            pass->setInput(2, QMatrix4x4());
            pass->setInput(3, QVariant::fromValue(&model));
        }
    }

    // Before the count of what is left.
    void TearDown() override
    {
        things.reset();
        GLTest::TearDown();
    }

    static int itemAt(int x, int y) { return y / 12 * 6 + x / 8; }

    ShaderFailureListener failures{[](const ShaderFailure &failure) { ADD_FAILURE() << qPrintable(failure.log); }};
    struct Things
    {
        GPUModel model;
        PickPass pick;
        OutlinePass line;
    };
    std::unique_ptr<Things> things = std::make_unique<Things>();
    GPUModel &model = things->model;
    PickPass &pick = things->pick;
    OutlinePass &line = things->line;
};

} // namespace

TEST_F(PickPassTest, NamesItemTriangleAndPlaceOfEveryPixel)
{
    for (const auto road : {GPUModel::DrawRoad::Automatic, GPUModel::DrawRoad::Loop}) {
        model.setDrawRoad(road);
        pick.start(nullptr);
        for (int y = 0; y < kSide; ++y) {
            for (int x = 0; x < kSide; ++x) {
                const Pick found = pick.at({x, y});
                ASSERT_EQ(found.item, itemAt(x, y)) << x << ", " << y;
                ASSERT_TRUE(found.triangle == 0 || found.triangle == 1);
                // The centre of the pixel, in the rounding of rasterised floats.
                EXPECT_NEAR(found.position.x(), (float(x) + 0.5f) / 24 - 1, 1e-5f);
                EXPECT_NEAR(found.position.y(), (float(y) + 0.5f) / 24 - 1, 1e-5f);
                EXPECT_NEAR(found.position.z(), 0.0f, 1e-6f);
            }
        }
    }
}

TEST_F(PickPassTest, AnAreaIsThePartOfThePicture)
{
    for (const QRect &area : {QRect(5, 7, 1, 1), QRect(7, 11, 2, 2), QRect(20, 30, 28, 18), QRect(-5, 40, 10, 50)}) {
        pick.setInput(PickPass::kArea, area);
        pick.start(nullptr);
        const QRect part = area & kViewport;
        Texture *items = textureFromVariant(pick.output(PickPass::kItem));
        const Image<quint32> drawn = readTexture<quint32>(items);
        ASSERT_EQ(QSize(drawn.width, drawn.height), part.size());
        QVector<int> expected;
        for (int y = 0; y < part.height(); ++y) {
            for (int x = 0; x < part.width(); ++x) {
                const int item = itemAt(part.x() + x, part.y() + y);
                EXPECT_EQ(drawn.at(x, y)[0], quint32(item + 1));
                EXPECT_EQ(pick.at(part.topLeft() + QPoint(x, y)).item, item);
                if (!expected.contains(item))
                    expected.append(item);
            }
        }
        std::sort(expected.begin(), expected.end());
        EXPECT_EQ(pick.itemsIn(kViewport), expected);
        EXPECT_FALSE(pick.at(part.bottomRight() + QPoint(1, 0)).isHit()) << "was not drawn";
    }
    pick.setInput(PickPass::kArea, QRect(60, 60, 4, 4));
    pick.start(nullptr);
    EXPECT_FALSE(pick.output(PickPass::kItem).isValid());
    EXPECT_TRUE(pick.itemsIn(kViewport).isEmpty());
}

TEST_F(PickPassTest, NothingIsWhereThereIsNoModel)
{
    pick.setInput(PickPass::kGeometry, QVariant());
    pick.start(nullptr);
    EXPECT_FALSE(pick.at({10, 10}).isHit());
    {
        GPUModel gone;
        gone.upload(quadScene());
        pick.setInput(PickPass::kGeometry, QVariant::fromValue(&gone));
        line.setInput(OutlinePass::kGeometry, QVariant::fromValue(&gone));
    }
    pick.start(nullptr);
    EXPECT_FALSE(pick.at({10, 10}).isHit());
    line.setItems({0});
    line.start(nullptr);
}

TEST_F(PickPassTest, OutputsCarryAReferenceForEachUser)
{
    pick.setNumOutputUsers(PickPass::kItem, 2);
    pick.start(nullptr);
    Texture *items = textureFromVariant(pick.output(PickPass::kItem));
    Texture *positions = textureFromVariant(pick.output(PickPass::kPosition));
    EXPECT_EQ(TextureManager::Instance().tempTextureRefs(items), 2);
    EXPECT_EQ(TextureManager::Instance().tempTextureRefs(positions), 0);
    TextureManager::Instance().releaseTempTextureRef(items, 2);
}

TEST_F(PickPassTest, ASteadyFrameMakesNothing)
{
    pick.start(nullptr);
    line.setItems({3});
    ScreenTarget target;
    ASSERT_TRUE(target.resize({kSide, kSide}));
    line.setInput(OutlinePass::kFramebufferOut, framebufferToVariant(target.framebuffer()));
    line.start(nullptr);
    const GlCalls calls;
    pick.start(nullptr);
    line.start(nullptr);
    EXPECT_EQ(calls.created(), 0);
    EXPECT_EQ(calls.textureAllocations(), 0);
}

TEST_F(PickPassTest, OutlineRunsAroundTheChosenItems)
{
    ScreenTarget target;
    ASSERT_TRUE(target.resize({kSide, kSide}));
    line.setInput(OutlinePass::kFramebufferOut, framebufferToVariant(target.framebuffer()));
    line.setInput(OutlinePass::kColor, QColor(255, 0, 0, 128));
    for (const float width : {1.0f, 2.0f, 3.5f}) {
        line.setInput(OutlinePass::kWidth, width);
        for (const QVector<int> &items : {QVector<int>{8}, QVector<int>{8, 9}, QVector<int>{0, 23}, QVector<int>{}}) {
            target.clear(QColor(0, 0, 255));
            line.setItems(items);
            line.start(nullptr);
            const QImage picture = target.image();
            for (int y = 0; y < kSide; ++y) {
                for (int x = 0; x < kSide; ++x) {
                    double nearest = 1e9;
                    for (int v = 0; v < kSide; ++v)
                        for (int u = 0; u < kSide; ++u)
                            if (items.contains(itemAt(u, v)))
                                nearest = std::min(nearest, std::hypot(u - x, v - y));
                    const double covered =
                        nearest == 0 ? 0 : std::clamp(double(width) + 0.5 - nearest, 0.0, 1.0) * 128 / 255;
                    const QColor color = picture.pixelColor(x, kSide - 1 - y);
                    // Two roundings to 8 bits.
                    ASSERT_NEAR(color.red(), 255 * covered, 1.5) << x << ", " << y << " width " << width;
                    ASSERT_NEAR(color.blue(), 255 * (1 - covered), 1.5) << x << ", " << y;
                }
            }
        }
    }
}

TEST_F(PickPassTest, AFramebufferThatIsGoneIsNone)
{
    auto gone = std::make_unique<FramebufferObject>();
    line.setItems({0});
    line.setInput(OutlinePass::kFramebufferOut, QVariant::fromValue(gone.get()));
    gone.reset();
    line.start(nullptr);
    EXPECT_EQ(glGetError(), GLenum(GL_NO_ERROR));
}

TEST_F(PickPassTest, APictureBeyondTheDriversRoomShowsNothingAndTakesNoMemory)
{
    const MessageCapture messages;
    for (const QRect &area : {QRect(), QRect(0, 0, 1 << 30, 1 << 30)}) {
        pick.setInput(PickPass::kViewport, QRect(0, 0, 1 << 30, 1 << 30));
        pick.setInput(PickPass::kArea, area);
        pick.start(nullptr);
        EXPECT_EQ(textureFromVariant(pick.output(PickPass::kItem)), nullptr);
        EXPECT_FALSE(pick.at({3, 3}).isHit());
        EXPECT_TRUE(pick.itemsIn(QRect(0, 0, 1 << 30, 1 << 30)).isEmpty());
    }
    EXPECT_GT(messages.containing(QStringLiteral("more than the driver has room for")), 0);
}

TEST_F(PickPassTest, LeavesTheHostsState)
{
    ScreenTarget target;
    ASSERT_TRUE(target.resize({kSide, kSide}));
    line.setInput(OutlinePass::kFramebufferOut, framebufferToVariant(target.framebuffer()));
    line.setItems({2});
    pick.start(nullptr);
    line.start(nullptr);
    glEnable(GL_SCISSOR_TEST);
    glScissor(1, 2, 3, 4);
    glColorMask(GL_FALSE, GL_TRUE, GL_FALSE, GL_TRUE);
    glEnable(GL_BLEND);
    glBlendFunc(GL_ONE, GL_ONE);
    glDepthFunc(GL_NEVER);
    glViewport(5, 6, 7, 8);
    glEnable(GL_CULL_FACE);
    glCullFace(GL_FRONT_AND_BACK);
    target.clear(Qt::black);
    pick.start(nullptr);
    line.start(nullptr);
    GLint box[4], viewport[4], source, depth, face;
    GLboolean mask[4];
    glGetIntegerv(GL_SCISSOR_BOX, box);
    glGetIntegerv(GL_VIEWPORT, viewport);
    glGetIntegerv(GL_BLEND_SRC_RGB, &source);
    glGetIntegerv(GL_DEPTH_FUNC, &depth);
    glGetIntegerv(GL_CULL_FACE_MODE, &face);
    glGetBooleanv(GL_COLOR_WRITEMASK, mask);
    EXPECT_EQ(box[2], 3);
    EXPECT_EQ(viewport[0], 5);
    EXPECT_EQ(viewport[3], 8);
    EXPECT_EQ(source, GL_ONE);
    EXPECT_EQ(depth, GL_NEVER);
    EXPECT_EQ(face, GL_FRONT_AND_BACK);
    EXPECT_FALSE(mask[0]);
    EXPECT_TRUE(glIsEnabled(GL_SCISSOR_TEST) && glIsEnabled(GL_BLEND) && glIsEnabled(GL_CULL_FACE));
    // And it did not count.
    EXPECT_EQ(pick.at({20, 20}).item, itemAt(20, 20));
    EXPECT_GT(target.image().pixelColor(15, kSide - 1 - 5).red(), 200);
    resetGLState();
}
