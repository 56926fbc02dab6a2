// Every GL call that can fail fails once, in every pass: it says so, shows nothing wrong, leaves nothing behind, and
// shows what it always shows as soon as the driver gives again.

#include "support/glfaults.h"
#include "support/messages.h"
#include "support/passlives.h"

#include <gl/opengldevicecontext.h>
#include <gl/shaderfailurelistener.h>
#include <gl/shaderprogram.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <memory>
#include <string>

namespace Brevane::Kvo {

using namespace Test;

namespace {

// How many faults of a pass are tried: all of them on demand, see scripts/trust.
int mostFaults()
{
    const char *all = std::getenv("KVO_TRUST_FAULTS");
    return all ? std::atoi(all) : 3;
}

/// What is said while it lives, by messages and by shaders that fail.
class Reports
{
public:
    QStringList texts() const { return _messages.texts() + _shaders; }

private:
    MessageCapture _messages;
    QStringList _shaders;
    ShaderFailureListener _listener{[this](const ShaderFailure &failure) { _shaders += failure.label; }};
};

class EveryPassFails : public EveryPassLives
{
protected:
    void start(RenderPassHelper &pass) const { start(pass, *main); }
    void start(RenderPassHelper &pass, Home &home) const
    {
        if (is("TextureToScreenRenderPass"))
            home.values().screen.clear({0, 0, 0, 0});
        resetGLState();
        glViewport(0, 0, kWidth, kHeight);
        runFrame(pass);
    }

    bool hasViewport() const { return !row.inputs.empty() && row.inputs[0].type == QMetaType(QMetaType::QRect); }

    /// Makes passes, and lets calls fail in the frames that a test asks about, evenly spread where they are many.
    /// \a tryOne gets a pass that is ready for the frame, and the number of the call.
    template <typename Ready, typename TryOne>
    void forSomeCalls(Ready &&ready, TryOne &&tryOne)
    {
        int most = 0;
        {
            const auto pass = ready();
            const GlFaults counts;
            start(*pass);
            most = counts.calls();
        }
        const int step = std::max(1, most / mostFaults());
        for (int nth = 0; nth < most; nth += step) {
            const std::string what = "call " + std::to_string(nth) + " of " + std::to_string(most);
            const testing::ScopedTrace trace(__FILE__, __LINE__, what);
            settledObjects();
            auto pass = ready();
            tryOne(*pass, nth);
            end(*pass);
            pass.reset();
            EXPECT_EQ(settledObjects(), before);
        }
    }

    /// What a frame behind one with a fault shows: what the pass shows in its first frames, or what it shows when it
    /// goes on, where frames are mixed.
    void expectItselfAgain(RenderPassHelper &pass, const Picture &later) const
    {
        const Reports told;
        const Picture next = frame(pass, *main);
        EXPECT_EQ(next, next == later ? later : want);
    }
};

const auto kClassName = [](const auto &pass) { return std::string(pass.param.className); };

INSTANTIATE_TEST_SUITE_P(Passes, EveryPassFails, ::testing::ValuesIn(passCases()), kClassName);

} // namespace

TEST_P(EveryPassFails, OnceAndIsItselfInTheNextFrame)
{
    const auto ready = [this] { return make(*main); };
    auto faultless = ready();
    start(*faultless);
    const Picture first = pictureOf(*faultless, *main);
    const Picture later = frame(*faultless, *main);
    faultless.reset();
    forSomeCalls(ready, [&](RenderPassHelper &pass, int nth) {
        QStringList reports;
        std::string failed;
        {
            const Reports told;
            const GlFaults fault(nth);
            start(pass);
            reports = told.texts();
            ASSERT_TRUE(fault.failed());
            failed = fault.failed();
        }
        SCOPED_TRACE(failed);
        EXPECT_EQ(glGetError(), GLenum(GL_NO_ERROR)) << "is left";
        // What has another way says nothing where it shows the same.
        EXPECT_TRUE(!reports.isEmpty() || pictureOf(pass, *main) == first) << "nothing is said";
        expectItselfAgain(pass, later);
    });
}

// A driver that is out of memory stays so for a while. Targets without any storage cannot be drawn to, which is an
// error that GL has no other way to say.
TEST_P(EveryPassFails, FromACallOnAndIsItselfWhenTheDriverGivesAgain)
{
    const auto ready = [this] { return make(*main); };
    auto faultless = ready();
    start(*faultless);
    start(*faultless);
    const Picture second = pictureOf(*faultless, *main);
    const Picture later = frame(*faultless, *main);
    faultless.reset();
    forSomeCalls(ready, [&](RenderPassHelper &pass, int nth) {
        {
            const Reports told;
            const ExpectedGLErrors errors;
            {
                const GlFaults faults = GlFaults::from(nth);
                start(pass);
                start(pass);
            }
            EXPECT_TRUE(!told.texts().isEmpty() || pictureOf(pass, *main) == second) << "nothing is said";
        }
        expectItselfAgain(pass, later);
    });
}

TEST_P(EveryPassFails, WhileItChangesItsSizeAndIsItselfInTheOldOne)
{
    if (!hasViewport())
        return;
    // One that begins anew with each size shows what a new one does.
    const auto ready = [this] {
        auto pass = make(*main);
        start(*pass);
        pass->setInput(0, QRect(0, 0, kWidth + 3, kHeight + 2));
        return pass;
    };
    auto faultless = ready();
    start(*faultless);
    faultless->setInput(0, kViewport);
    const Picture later = frame(*faultless, *main);
    faultless.reset();
    forSomeCalls(ready, [&](RenderPassHelper &pass, int nth) {
        {
            const Reports told;
            const GlFaults fault(nth);
            start(pass);
        }
        EXPECT_EQ(glGetError(), GLenum(GL_NO_ERROR)) << "is left";
        pass.setInput(0, kViewport);
        expectItselfAgain(pass, later);
    });
}

TEST_P(EveryPassFails, WithItsContextAndIsItselfInAnother)
{
    const int tries = std::clamp(mostFaults() / 3, 2, 8);
    for (int i = 0; i < tries; ++i) {
        SCOPED_TRACE("try " + std::to_string(i) + " of " + std::to_string(tries));
        const Reports told;
        std::unique_ptr<RenderPassHelper> pass;
        {
            const GlCalls::DyingContexts dying;
            Home home;
            ASSERT_TRUE(home.enter());
            home.values().recorded(0);
            int calls = 0;
            {
                const auto other = make(home);
                const LostContext counts(-1);
                start(*other, home);
                calls = counts.calls();
            }
            settledObjects(); // else the next one finds programs built
            pass = make(home);
            const LostContext lost(i * calls / tries);
            start(*pass, home);
            start(*pass, home);
            EXPECT_TRUE(lost.isLost() || calls == 0);
            end(*pass);
            home.abandon();
        }
        ASSERT_TRUE(main->enter());
        connect(*pass, *main);
        pass->setup(nullptr);
        EXPECT_EQ(frame(*pass, *main), want);
        end(*pass);
    }
}

} // namespace Brevane::Kvo
