// Every GL call that can fail fails once, in every pass and in whole pipelines: it says so, shows nothing wrong, leaves
// nothing behind, and shows what it always shows as soon as the driver gives again.

#include "support/glfaults.h"
#include "support/messages.h"
#include "support/passlives.h"
#include "support/stage.h"

#include <gl/opengldevicecontext.h>
#include <gl/shaderfailurelistener.h>
#include <gl/shaderprogram.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

namespace Brevane::Kvo {

using namespace Test;

namespace {

// How many faults of a pass are tried: all of them on demand, see scripts/trust.
int mostFaults()
{
    const char *all = std::getenv("KVO_TRUST_FAULTS");
    return all ? std::atoi(all) : 3;
}

// The same of a pipeline, whose lives are long.
int mostFaultsOfPipelines()
{
    return std::max(mostFaults(), 6);
}

/// What is said while it lives, by messages and by shaders that fail.
class Reports
{
public:
    QStringList texts() const { return _messages.texts() + _shaders; }
    /// The labels of shaders that failed.
    const QStringList &shaders() const { return _shaders; }

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
        if (drawsToScreen())
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

INSTANTIATE_TEST_SUITE_P(Passes, EveryPassFails, ::testing::ValuesIn(allPassCases()), kClassName);

constexpr int kFramesToSettle = 12; // of a pipeline after a fault: more than any history of one has

/// A pipeline of the tree, small, in frames that are all alike.
class PipelineFails : public GLTest, public ::testing::WithParamInterface<QString>
{
protected:
    std::unique_ptr<Stage> make() const
    {
        auto stage = std::make_unique<Stage>(GetParam(), threeCubes(0.4f), QSize(32, 24));
        for (const QString &name : stage->pipeline.passNames()) {
            QString whyNot; // those that have such an input
            stage->pipeline.setValue(name, text("JitterMode"), 0, &whyNot); // frames that are alike
            stage->pipeline.setValue(name, text("MapSize"), QSize(32, 32), &whyNot);
        }
        return stage;
    }

    /// By which messages name passes: as the file does, or by class, in front of which part of it.
    static QStringList namesIn(const Pipeline &pipeline)
    {
        QStringList names = pipeline.passNames();
        for (const QString &name : pipeline.passNames())
            names << pipeline.className(name).section(text("RenderPass"), 0, 0);
        return names;
    }
    static bool namesOneOf(const QStringList &reports, const QStringList &names)
    {
        return std::any_of(names.begin(), names.end(), [&](const QString &name) {
            return std::any_of(reports.begin(), reports.end(),
                               [&](const QString &report) { return report.contains(name); });
        });
    }

    static void end(Stage &stage)
    {
        stage.pipeline.teardown();
        stage.pipeline.teardownContextData();
    }
};

INSTANTIATE_TEST_SUITE_P(Pipelines, PipelineFails,
                         ::testing::Values(text("viewport"), text("studio"), text("oit"), text("shadows"), text("smaa"),
                                           text("taa"), text("ambient-obscurance")),
                         pipelineTestName);

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
            for (const QString &label : told.shaders())
                EXPECT_TRUE(label.contains(text(row.className).section(text("RenderPass"), 0, 0))) << qPrintable(label);
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
    int tries = 2;
    for (int i = 0; i < tries; ++i) {
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
            // Of a pass that looks for its context more often than others, more places.
            const int least = is("DepthPeelingPass") ? 8 : 2;
            tries = std::clamp(mostFaults() / 3, least, std::max(least, calls));
            SCOPED_TRACE("try " + std::to_string(i) + " of " + std::to_string(tries));
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

namespace {

class ProgramFails : public GLTest
{};

} // namespace

// Also between the number of its uniforms and their names. Sanitizers see most of what may go wrong.
TEST_F(ProgramFails, WithItsContextBehindAnyCallOfALink)
{
    const Reports told;
    int calls = 1;
    for (int lostBehind = -1; lostBehind < calls; ++lostBehind) {
        SCOPED_TRACE("call " + std::to_string(lostBehind) + " of " + std::to_string(calls));
        const GlCalls::DyingContexts dying;
        Home home;
        ASSERT_TRUE(home.enter());
        {
            ShaderProgram program;
            program.addShader(GL_VERTEX_SHADER, text("#version 150\nin vec3 va_Vertex;\nvoid main() { gl_Position = "
                                                     "vec4(va_Vertex, 1.0); }\n"));
            program.addShader(GL_FRAGMENT_SHADER,
                              text("#version 150\nuniform vec4 u_A[3];\nuniform float u_B;\nout vec4 "
                                   "o_Color;\nvoid main() { o_Color = u_A[1] + u_A[2] * u_B; }\n"));
            const LostContext lost(lostBehind);
            program.compile();
            program.link();
            EXPECT_FALSE(program.hasUniform(QString()));
            // As many as could be asked for.
            const bool hasFirst = program.hasUniform(text("u_A"));
            const bool hasSecond = program.hasUniform(text("u_B"));
            if (lostBehind < 0) {
                calls = lost.calls();
                EXPECT_TRUE(hasFirst && hasSecond);
                EXPECT_GT(calls, 20);
            }
        }
        home.abandon();
    }
}

// What is promised about the frame with the fault: it is right, or something is said that names a pass.
TEST_P(PipelineFails, OnceAndIsItselfAfterwards)
{
    QImage first, settled;
    QStringList names;
    std::vector<int> before;
    int most = 0;
    for (int life = 0; life < 2; ++life) {
        {
            const auto stage = make();
            names = namesIn(stage->pipeline);
            const GlFaults counts;
            stage->render();
            most = counts.calls();
            first = stage->screen.image();
            settled = stage->picture(kFramesToSettle);
            EXPECT_EQ(stage->picture(1), settled) << "frames are not alike";
            end(*stage);
        }
        before = leftOver();
    }
    const int step = std::max(1, most / mostFaultsOfPipelines());
    for (int nth = 0; nth < most; nth += step) {
        SCOPED_TRACE("call " + std::to_string(nth) + " of " + std::to_string(most));
        {
            const auto stage = make();
            QStringList reports;
            std::string failed;
            {
                const Reports told;
                const GlFaults fault(nth);
                stage->render();
                ASSERT_TRUE(fault.failed());
                failed = fault.failed();
                reports = told.texts();
            }
            SCOPED_TRACE(failed);
            EXPECT_EQ(glGetError(), GLenum(GL_NO_ERROR)) << "is left";
            EXPECT_TRUE(namesOneOf(reports, names) || stage->screen.image() == first)
                << "wrong, and it does not say where: " << qPrintable(reports.join(u'\n'));
            for (const QString &fault : stage->pipeline.faults())
                EXPECT_TRUE(fault.contains(text("reports error"))) << qPrintable(fault);
            const Reports later;
            EXPECT_EQ(stage->picture(kFramesToSettle), settled);
            end(*stage);
        }
        EXPECT_EQ(leftOver(), before) << qPrintable(GlCalls::liveObjects().join(u'\n'));
    }
}

} // namespace Brevane::Kvo
