// Frames through all pipelines with changes of size, camera, values and model: what a process holds stays what it was.
// The long form is run by scripts/trust.

#include "support/gltest.h"
#include "support/messages.h"
#include "support/resident.h"
#include "support/stage.h"

#include <gl/opengldevicecontext.h>
#include <gl/texturemanager.h>
#include <host/pipeline.h>
#include <host/slotname.h>

#include <gtest/gtest.h>

#include <QElapsedTimer>

#include <algorithm>
#include <array>
#include <cstdio>
#include <vector>

using namespace Brevane::Kvo;
using namespace Brevane::Kvo::Test;

namespace {

constexpr int kFramesOfALife = 4; // of a pipeline, before the next one's turn
constexpr int kWarmRounds = 2; // until caches of the library, of Qt and of the driver have what they hold

std::array<int, kGlKindCount> objects()
{
    OpenGLDeviceContext::current()->freeGivenUp();
    TextureManager::Instance().trim(-1);
    std::array<int, kGlKindCount> counts{};
    for (int kind = 0; kind < kGlKindCount; ++kind)
        counts[size_t(kind)] = GlCalls::live(GlKind(kind));
    return counts;
}

/// Maps and painted skies in a size for tests.
void makeSmall(Pipeline *pipeline)
{
    for (const QString &name : pipeline->passNames()) {
        const RenderPass *pass = pipeline->pass(name);
        for (int i = 0; i < pass->numInputs(); ++i) {
            const QString slot = SlotName::parse(pass->inputName(i)).name;
            if (slot == QStringLiteral("MapSize"))
                pipeline->setValue(name, slot, QSize(32, 32));
            else if (slot == QStringLiteral("Viewport") && pipeline->source(name, slot).isEmpty())
                pipeline->setValue(name, slot, QRect(0, 0, 64, 32));
        }
    }
}

/// A pipeline from its file to its end, with something else in each frame.
void live(const QString &name, int turn)
{
    const QSize sizes[] = {{48, 32}, {32, 48}, {17, 31}};
    Stage stage(name, threeCubes(0.4f), sizes[turn % 3]);
    makeSmall(&stage.pipeline);
    for (int frame = 0; frame < kFramesOfALife; ++frame) {
        stage.look(float(turn * 7 + frame * 31), 20);
        if (frame == 1)
            stage.resize(sizes[(turn + 1) % 3]);
        if (frame == 2) {
            EXPECT_TRUE(stage.model.upload(turn % 2 ? threeCubes() : cubeScene()));
        }
        if (frame == 3) {
            for (const QString &pass : stage.pipeline.passNames())
                stage.pipeline.setValue(pass, QStringLiteral("BlurRadius"), float(turn % 5) + 1);
        }
        stage.render();
    }
    stage.pipeline.teardown();
    stage.pipeline.teardownContextData();
}

class Soak : public GLTest
{};

} // namespace

TEST_F(Soak, HoldsNoMoreAndTakesNoLongerInTheEnd)
{
    const QStringList names = pipelineNames();
    const int framesOfARound = kFramesOfALife * int(names.size());
    const int wanted = qEnvironmentVariableIsSet("KVO_TRUST_FRAMES") ? qgetenv("KVO_TRUST_FRAMES").toInt() : 400;
    const int rounds = std::max(kWarmRounds + 4, (wanted + framesOfARound - 1) / framesOfARound);
    MessageCapture messages;
    std::array<int, kGlKindCount> before{};
    std::vector<double> seconds;
    std::vector<qint64> taken;
    for (int round = 0; round < rounds; ++round) {
        if (round == kWarmRounds) {
            before = objects();
            glFinish();
            taken.push_back(allocatedBytes());
        }
        QElapsedTimer timer;
        timer.start();
        for (const QString &name : names)
            live(name, round);
        seconds.push_back(double(timer.nsecsElapsed()) * 1e-9);
        messages.clear(); // which would count as memory
        if (round >= kWarmRounds) {
            EXPECT_EQ(objects(), before) << "round " << round;
            glFinish();
            taken.push_back(allocatedBytes());
        }
        if (HasFailure())
            break;
    }
    ASSERT_FALSE(taken.empty());
    // What is lost stays; a cache may be full in one round and not in the next.
    const auto leastOfThree = [&taken](qsizetype from) {
        const auto first = taken.cbegin() + std::max<qsizetype>(from, 0);
        return *std::min_element(first, first + std::min<qsizetype>(3, taken.cend() - first));
    };
    const qint64 more = leastOfThree(qsizetype(taken.size()) - 3) - leastOfThree(0);
    const auto median = [](std::vector<double> of) {
        std::nth_element(of.begin(), of.begin() + qsizetype(of.size() / 2), of.end());
        return of[of.size() / 2];
    };
    const auto half = seconds.begin() + kWarmRounds + qsizetype((seconds.size() - kWarmRounds) / 2);
    const double drift = half == seconds.begin() + kWarmRounds
                             ? 1.0
                             : median({half, seconds.end()}) / median({seconds.begin() + kWarmRounds, half});
    std::printf("[ soak     ] frames: %d\n[ soak     ] MiB more than after the warm rounds: %.1f\n"
                "[ soak     ] MiB in all: %.1f\n[ soak     ] time of the second half over the first: %.3f\n",
                rounds * framesOfARound, double(more) / (1 << 20), double(residentBytes()) / (1 << 20), drift);
#ifndef __SANITIZE_ADDRESS__
    // Caches still grow a little; a byte for each pixel of each frame would be more within a few rounds.
    EXPECT_LT(more, qint64(24) << 20);
#endif
}
