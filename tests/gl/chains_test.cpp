#include "support/gltest.h"
#include "support/messages.h"
#include "support/stage.h"

#include <gl/opengldevicecontext.h>
#include <gl/texturemanager.h>
#include <host/pipeline.h>
#include <host/slotname.h>

#include <gtest/gtest-spi.h>

#include <QSharedPointer>
#include <QSize>

#include <algorithm>
#include <memory>

// Every pipeline file of the tree over a hundred frames: the camera goes round the model all the time, and
// the window changes its size in the middle.

using namespace Brevane::Kvo;
using namespace Brevane::Kvo::Test;

namespace {

constexpr int kFrames = 100;
constexpr int kResizeFrame = 50;
constexpr int kFirstLook = 40; // all histories are full, all sizes are known
constexpr int kLastLook = 90; // what the old size left in the pool is long gone
constexpr int kIdleFrames = 10;
// One is the other turned, so that both take the same memory.
const QSize kSize(96, 64);
const QSize kTurned(64, 96);
const QSize kSmallMap(64, 64);
const QRect kSmallImage(0, 0, 64, 32);

QString text(const char *latin1)
{
    return QString::fromLatin1(latin1);
}

// What a chain may not take more and more of.
struct Held
{
    int objects[kGlKindCount] = {};
    int givenUp = 0;
    TexturePoolStatistics pool;

    Held()
    {
        for (int kind = 0; kind < kGlKindCount; ++kind)
            objects[kind] = GlCalls::live(GlKind(kind));
        givenUp = OpenGLDeviceContext::current()->givenUpCount();
        pool = TextureManager::Instance().statistics();
    }
};

void expectNoMore(const Held &before, const Held &after, int mayGiveUp)
{
    const int givenUp = after.givenUp - before.givenUp;
    EXPECT_LE(givenUp, mayGiveUp);
    for (int kind = 0; kind < kGlKindCount; ++kind) {
        const bool isGivenUp = GlKind(kind) == GlKind::Framebuffer || GlKind(kind) == GlKind::Program;
        const int more = after.objects[kind] - before.objects[kind];
        EXPECT_GE(more, 0) << GlCalls::nameOf(GlKind(kind));
        EXPECT_LE(more, isGivenUp ? givenUp : 0) << GlCalls::nameOf(GlKind(kind));
    }
    EXPECT_EQ(after.pool.textures, before.pool.textures);
    EXPECT_EQ(after.pool.inUse, before.pool.inUse);
    EXPECT_EQ(after.pool.bytes, before.pool.bytes);
}

// Shadow maps and painted skies in a size for tests.
void makeSmall(Pipeline *pipeline)
{
    for (const QString &name : pipeline->passNames()) {
        const RenderPass *pass = pipeline->pass(name);
        for (int i = 0; i < pass->numInputs(); ++i) {
            const QString slot = SlotName::parse(pass->inputName(i)).name;
            const bool isMap = slot == text("MapSize");
            if (isMap || (slot == text("Viewport") && pipeline->source(name, slot).isEmpty())) {
                EXPECT_TRUE(pipeline->setValue(name, slot, isMap ? QVariant(kSmallMap) : QVariant(kSmallImage)));
            }
        }
    }
}

// What passes give up at a change of size and leave to the device context: framebuffer and program of the
// last two stages of each SMAA.
int givenUpWithTheSize(const Pipeline &pipeline)
{
    int objects = 0;
    for (const QString &name : pipeline.passNames())
        objects += pipeline.className(name) == text("SMAARenderPass") ? 4 : 0;
    return objects;
}

class Chain : public GLTest, public ::testing::WithParamInterface<QString>
{};

} // namespace

class ChainCheck : public GLTest
{};

TEST_F(ChainCheck, SeesATextureThatStays)
{
    TextureManager &textures = TextureManager::Instance();
    const Held before;
    Texture *kept = textures.tempTexture(TextureFormat::Frame, 5, 7);
    ::testing::TestPartResultArray failures;
    {
        const ::testing::ScopedFakeTestPartResultReporter reporter(&failures);
        expectNoMore(before, Held(), 0);
    }
    EXPECT_EQ(failures.size(), 4) << "the object, and the pool's textures, textures in use and bytes";
    textures.releaseTempTextureRef(kept, 1);
}

// What the pool holds at its peak is what a frame needs at one time, but for textures that differ in format or size
// from those that are free then: 1.7 times at most (the drawings, whose surfaces, lists and SMAA have formats of their
// own), and a frame's texture more where visibility lists or the jitter of SMAA take one for a moment.
TEST_P(Chain, HoldsLittleMoreOfThePoolThanAFrameNeedsAtOneTime)
{
    GLContext alone;
    ASSERT_TRUE(alone.makeCurrent());
    resetGLState();
    {
        const MessageCapture messages;
        Stage stage(GetParam(), threeCubes(0.4f), kSize);
        makeSmall(&stage.pipeline);
        for (int frame = 0; frame < 4; ++frame)
            stage.render();
        const TexturePoolStatistics pool = TextureManager::Instance().statistics();
        const qint64 frame = qint64(kSize.width()) * kSize.height() * 8;
        EXPECT_LE(pool.peakBytes, std::max(pool.peakBytesInUse * 17 / 10, pool.peakBytesInUse + frame));
        EXPECT_GE(pool.peakBytes, pool.peakBytesInUse);
    }
    OpenGLDeviceContext::releaseCurrent();
    ASSERT_TRUE(context().makeCurrent());
}

TEST_P(Chain, TakesNoMoreAfterAHundredFramesAndGivesEverythingBack)
{
    const int inUse = TextureManager::Instance().statistics().inUse;
    const MessageCapture messages;
    {
        Stage stage(GetParam(), threeCubes(0.4f), kSize);
        makeSmall(&stage.pipeline);
        stage.pipeline.setPoolLimits(kIdleFrames, -1);
        std::unique_ptr<Held> before;
        QImage early;
        for (int frame = 0; frame < kFrames; ++frame) {
            if (frame == kResizeFrame)
                stage.resize(kTurned);
            stage.look(3.0f * float(frame), 20.0f + 0.3f * float(frame));
            stage.render();
            ASSERT_EQ(stage.pipeline.faults(), QStringList()) << "frame " << frame;
            if (frame == 0)
                early = stage.screen.image();
            if (frame == kFirstLook) {
                EXPECT_EQ(stage.screen.image() != early, stage.pipeline.uses(text("camera")));
                before = std::make_unique<Held>();
            }
            if (frame == kLastLook)
                expectNoMore(*before, Held(), givenUpWithTheSize(stage.pipeline));
        }
        EXPECT_EQ(stage.screen.image().size(), kTurned);
        stage.pipeline.teardown();
        stage.pipeline.teardownContextData();
    }
    EXPECT_EQ(TextureManager::Instance().leakedReferences(), QStringList());
    EXPECT_EQ(TextureManager::Instance().statistics().inUse, inUse);
    EXPECT_EQ(messages.texts(QtWarningMsg) + messages.texts(QtCriticalMsg), QStringList());
}

INSTANTIATE_TEST_SUITE_P(Files, Chain, ::testing::ValuesIn(pipelineNames()), pipelineTestName);
