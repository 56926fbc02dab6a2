#include "support/allocations.h"
#include "support/gltest.h"
#include "support/image.h"
#include "support/messages.h"
#include "support/passes.h"
#include "support/scenes.h"

#include <core/rendercallbacks.h>
#include <core/renderpasshelper.h>
#include <gl/framebufferobject.h>
#include <gl/texture.h>
#include <gl/texturemanager.h>
#include <host/camera.h>

#include <host/passfactory.h>
#include <host/pipeline.h>
#include <host/pipelinefile.h>
#include <host/screentarget.h>
#include <model/gpumodel.h>
#include <renderpasses/modeldeferredpass.h>

#include <QMatrix4x4>
#include <QRect>

#include <epoxy/gl.h>

#include <algorithm>
#include <memory>

using namespace Brevane::Kvo;
using namespace Brevane::Kvo::Test;

namespace {

constexpr int kSize = 32;

QString s(const char *text)
{
    return QString::fromLatin1(text);
}

// Writes down every call of the lifecycle, and what GL's viewport was at start.
class DiaryPass : public RenderPassHelper
{
public:
    DiaryPass(const QString &name, QStringList *diary) : _name(name), _diary(diary)
    {
        addInput(s("Kvo_QRect_Viewport"));
        addInput(s("Kvo_int_Frame"));
        addInput(s("Kvo_float_In"));
        addOutput(s("Kvo_float_Out"));
        addOutput(s("Kvo_QRect_Area"));
    }
    void setup(RenderCallbacks *callbacks) override { note("setup", callbacks); }
    void beginFrame(RenderCallbacks *callbacks) override { note("beginFrame", callbacks); }
    void start(RenderCallbacks *callbacks) override
    {
        note("start", callbacks);
        glGetIntegerv(GL_VIEWPORT, viewport);
        blend = glIsEnabled(GL_BLEND);
        _outputs[0].value = _inputs[2].value.toFloat() + 1.0f;
        _outputs[1].value = QRect(0, 0, 5, 6);
        if (!errors.isEmpty())
            setErrorCode(errors.takeFirst());
    }
    void endFrame(RenderCallbacks *callbacks) override { note("endFrame", callbacks); }
    void teardown(RenderCallbacks *callbacks) override { note("teardown", callbacks); }
    void teardownContextData(RenderCallbacks *callbacks) override { note("teardownContextData", callbacks); }

    QVariant inputValue(int index) { return _inputs[index].value; }
    int users(int index) { return _numOutputUsers[index]; }

    int viewport[4] = {};
    bool blend = false;
    QVector<unsigned int> errors;

private:
    void note(const char *what, RenderCallbacks *callbacks)
    {
        *_diary << _name + QLatin1Char(' ') + QLatin1StringView(what) + (callbacks ? s(" with callbacks") : QString());
    }

    QString _name;
    QStringList *_diary;
};

// Takes a texture from the pool and hands it on by the rules, or breaks one of them.
class PoolPass : public RenderPassHelper
{
public:
    enum class Habit { Good, KeepsInput, ReleasesInputTwice, LeavesTooFew, KeepsHistory, Leaks, ForwardsInput };

    explicit PoolPass(Habit habit = Habit::Good) : _habit(habit)
    {
        addInput(s("Kvo_KvoTexture*_A"));
        addInput(s("Kvo_KvoTexture*_B"));
        addOutput(s("Kvo_KvoTexture*_Frame"));
    }
    ~PoolPass() override
    {
        for (Texture *texture : _held)
            TextureManager::Instance().releaseTempTextureRef(texture, 1);
    }
    void start(RenderCallbacks *) override
    {
        TextureManager &textures = TextureManager::Instance();
        Texture *a = textureFromVariant(_inputs[0].value);
        if (_habit == Habit::ForwardsInput) {
            _outputs[0].value = textureToVariant(a);
            textures.addTempTextureRef(a, _numOutputUsers[0]);
            textures.releaseTempTextureRef(a, 1);
            return;
        }
        Texture *frame = textures.tempTexture(TextureFormat::Color8, kSize, kSize);
        _outputs[0].value = textureToVariant(frame);
        textures.addTempTextureRef(frame, _numOutputUsers[0] - (_habit == Habit::LeavesTooFew ? 1 : 0));
        if (_habit == Habit::KeepsHistory) {
            if (!_held.isEmpty())
                textures.releaseTempTextureRef(_held.takeFirst(), 1);
            _held << frame;
        } else if (_habit == Habit::Leaks) {
            _held << frame;
        } else {
            textures.releaseTempTextureRef(frame, 1);
        }
        if (_habit == Habit::KeepsInput)
            _held << a;
        else
            textures.releaseTempTextureRef(a, _habit == Habit::ReleasesInputTwice ? 2 : 1);
        textures.releaseTempTextureRef(textureFromVariant(_inputs[1].value), 1);
    }
    int users() { return _numOutputUsers[0]; }

private:
    Habit _habit;
    QVector<Texture *> _held;
};

class PipelineFrames : public GLTest
{
protected:
    void TearDown() override
    {
        pipeline.reset();
        GLTest::TearDown();
    }
    DiaryPass *addDiary(const char *name)
    {
        auto pass = std::make_unique<DiaryPass>(s(name), &diary);
        DiaryPass *raw = pass.get();
        EXPECT_TRUE(pipeline->add(s(name), std::move(pass)));
        return raw;
    }
    PoolPass *addPool(const char *name, PoolPass::Habit habit = PoolPass::Habit::Good)
    {
        auto pass = std::make_unique<PoolPass>(habit);
        PoolPass *raw = pass.get();
        EXPECT_TRUE(pipeline->add(s(name), std::move(pass)));
        return raw;
    }
    void link(const char *from, const char *to)
    {
        QString error;
        EXPECT_TRUE(pipeline->connect(s(from), s(to), &error)) << qPrintable(error);
    }
    void render(RenderCallbacks *callbacks = nullptr)
    {
        QString error;
        EXPECT_TRUE(pipeline->render(callbacks, &error)) << qPrintable(error);
    }
    // The faults of the last of some frames, with the warnings that go with them out of the way.
    QStringList faultsAfter(int frames)
    {
        const MessageCapture messages;
        for (int i = 0; i < frames; ++i)
            render();
        return pipeline->faults();
    }

    QStringList diary;
    std::unique_ptr<Pipeline> pipeline = std::make_unique<Pipeline>();
};

// A pipeline of the tree with a model, a camera and a screen.
class PipelineFiles : public GLTest
{
protected:
    void TearDown() override
    {
        pipeline.reset();
        model.reset();
        screen.reset();
        GLTest::TearDown();
    }
    void load(const char *name)
    {
        QStringList errors;
        ASSERT_TRUE(loadPipeline(s(KVO_SOURCE_DIR "/pipelines/") + s(name) + s(".json"), pipeline.get(), &errors))
            << qPrintable(errors.join(QLatin1Char('\n')));
        ASSERT_TRUE(screen->resize(QSize(kSize, kSize)));
        ASSERT_TRUE(model->upload(quadScene({1, 0, 0})));
        pipeline->setViewport(QRect(0, 0, kSize, kSize));
        pipeline->setCamera(QMatrix4x4(), flatProjection(), 1, 10);
        pipeline->setModel(model.get());
        pipeline->setScreen(screen->framebuffer());
    }

    std::unique_ptr<Pipeline> pipeline = std::make_unique<Pipeline>();
    std::unique_ptr<GPUModel> model = std::make_unique<GPUModel>();
    std::unique_ptr<ScreenTarget> screen = std::make_unique<ScreenTarget>();
};

} // namespace

TEST_F(PipelineFrames, SayOnceWhichHostValuesWereNeverSet)
{
    ASSERT_TRUE(pipeline->add(s("Maps"), s("ShadowMapRenderPass")));
    ASSERT_TRUE(pipeline->add(s("A"), s("ForwardRenderPass")));
    ASSERT_TRUE(pipeline->add(s("B"), s("ModelRenderPass")));
    ASSERT_TRUE(pipeline->add(s("Obscurance"), s("ScalableAmbientObscuranceRenderPass")));
    ASSERT_TRUE(pipeline->add(s("Present"), s("TextureToScreenRenderPass")));
    ASSERT_TRUE(pipeline->bind(s("Maps"), s("Lights"), s("lights")));
    ASSERT_TRUE(pipeline->bind(s("Maps"), s("Geometry"), s("opaque")));
    ASSERT_TRUE(pipeline->bind(s("Present"), s("FramebufferOut"), s("screen")));
    pipeline->bindStandard();
    pipeline->setModel(nullptr); // which is an answer
    const auto frame = [&] {
        MessageCapture messages;
        EXPECT_TRUE(pipeline->render());
        QStringList found;
        for (const QString &text : messages.texts())
            if (text.startsWith(s("Pipeline: the host value")))
                found << text;
        found.sort();
        return found;
    };
    EXPECT_EQ(frame(), QStringList({s("Pipeline: the host value 'camera', which pass 'Maps' wants in "
                                      "'Kvo_QMatrix4x4_CameraMatrix', was never set"),
                                    s("Pipeline: the host value 'far', which pass 'Obscurance' wants in "
                                      "'Kvo_float_FarPlane', was never set"),
                                    s("Pipeline: the host value 'near', which pass 'Obscurance' wants in "
                                      "'Kvo_float_NearPlane', was never set"),
                                    s("Pipeline: the host value 'projection', which pass 'Maps' wants in "
                                      "'Kvo_QMatrix4x4_ProjectionMatrix', was never set"),
                                    s("Pipeline: the host value 'viewport', which pass 'A' wants in "
                                      "'Kvo_QRect_Viewport', was never set")}));
    EXPECT_EQ(frame(), QStringList());

    Pipeline other;
    ASSERT_TRUE(other.add(s("A"), s("ForwardRenderPass")));
    other.bindStandard();
    other.setViewport(QRect(0, 0, kSize, kSize));
    other.setCamera(QMatrix4x4(), QMatrix4x4(), 1, 2);
    MessageCapture messages;
    EXPECT_TRUE(other.render());
    EXPECT_EQ(messages.texts(), QStringList(s("Pipeline: the host value 'model', which pass 'A' wants in "
                                              "'Kvo_KvoGPUModel*_Geometry', was never set")));
}

TEST_F(PipelineFrames, DrivesThePassesThroughTheirLifecycleInOrder)
{
    addDiary("B");
    addDiary("A");
    link("A.Out", "B.In");
    render();
    EXPECT_EQ(diary, (QStringList{s("A setup"), s("B setup"), s("A beginFrame"), s("B beginFrame"), s("A start"),
                                  s("B start"), s("A endFrame"), s("B endFrame")}));
    diary.clear();
    render();
    EXPECT_EQ(diary.first(), s("A beginFrame")) << "setup runs once";
    diary.clear();
    pipeline->teardown();
    EXPECT_EQ(diary,
              (QStringList{s("A teardown"), s("B teardown"), s("A teardownContextData"), s("B teardownContextData")}));
    diary.clear();
    render();
    EXPECT_EQ(diary.first(), s("A setup")) << "and again after teardown";
}

TEST_F(PipelineFrames, TearsDownOnDestruction)
{
    addDiary("A");
    render();
    diary.clear();
    pipeline.reset();
    EXPECT_EQ(diary, (QStringList{s("A teardown"), s("A teardownContextData")}));
}

TEST_F(PipelineFrames, HandsTheCallbacksToEveryOperation)
{
    addDiary("A");
    RenderCallbacks callbacks;
    render(&callbacks);
    for (const QString &line : diary)
        EXPECT_TRUE(line.endsWith(s("with callbacks"))) << qPrintable(line);
}

TEST_F(PipelineFrames, SetsUpAPassThatComesLater)
{
    addDiary("A");
    render();
    diary.clear();
    addDiary("B");
    render();
    EXPECT_EQ(diary.count(s("B setup")), 1);
    EXPECT_EQ(diary.count(s("A setup")), 0);
}

TEST_F(PipelineFrames, PassesValuesOfThisFrameAlongLinks)
{
    addDiary("C");
    DiaryPass *b = addDiary("B");
    addDiary("A");
    link("A.Out", "B.In");
    link("B.Out", "C.In");
    ASSERT_TRUE(pipeline->setValue(s("A"), s("In"), 10.0f));
    render();
    EXPECT_EQ(b->inputValue(2), QVariant(11.0f));
    EXPECT_EQ(pipeline->output(s("C"), s("Out")), QVariant(13.0f));
    ASSERT_TRUE(pipeline->setValue(s("A"), s("In"), 20.0f));
    render();
    EXPECT_EQ(pipeline->output(s("C"), s("Out")), QVariant(23.0f));
}

TEST_F(PipelineFrames, CountsFramesFromZero)
{
    DiaryPass *pass = addDiary("A");
    ASSERT_TRUE(pipeline->bind(s("A"), s("Frame"), s("frame")));
    for (int frame = 0; frame < 3; ++frame) {
        render();
        EXPECT_EQ(pass->inputValue(1), QVariant(frame));
    }
    EXPECT_EQ(pipeline->frameNumber(), 3);
}

TEST_F(PipelineFrames, EveryPassFindsTheViewportOfItsSlot)
{
    DiaryPass *host = addDiary("Host");
    DiaryPass *value = addDiary("Value");
    DiaryPass *linked = addDiary("Linked");
    DiaryPass *none = addDiary("None");
    pipeline->setViewport(QRect(100, 50, 30, 20));
    ASSERT_TRUE(pipeline->bind(s("Host"), s("Viewport"), s("viewport")));
    ASSERT_TRUE(pipeline->setValue(s("Value"), s("Viewport"), QRect(0, 0, 7, 9)));
    link("Host.Area", "Linked.Viewport");
    render();
    EXPECT_EQ(QVector<int>(host->viewport, host->viewport + 4), (QVector<int>{0, 0, 30, 20})) << "targets begin at 0";
    EXPECT_EQ(QVector<int>(value->viewport, value->viewport + 4), (QVector<int>{0, 0, 7, 9}));
    EXPECT_EQ(QVector<int>(linked->viewport, linked->viewport + 4), (QVector<int>{0, 0, 5, 6}));
    EXPECT_EQ(QVector<int>(none->viewport, none->viewport + 4), (QVector<int>{0, 0, 0, 0}));
}

TEST_F(PipelineFrames, APartOfTheViewportFollowsItsSize)
{
    DiaryPass *half = addDiary("Half");
    pipeline->setViewport(QRect(10, 20, 100, 51));
    ASSERT_TRUE(pipeline->bind(s("Half"), s("Viewport"), s("viewport[0.5, 0, 0.5, 0.5]")));
    render();
    EXPECT_EQ(half->inputValue(0), QVariant(QRect(60, 20, 50, 26))) << "from the corner, edges rounded";
    EXPECT_EQ(QVector<int>(half->viewport, half->viewport + 4), (QVector<int>{0, 0, 50, 26})) << "targets begin at 0";
    pipeline->setViewport(QRect(0, 0, 8, 8));
    render();
    EXPECT_EQ(half->inputValue(0), QVariant(QRect(4, 0, 4, 4)));
}

TEST_F(PipelineFrames, PartsThatTouchLeaveNoGap)
{
    DiaryPass *pass = addDiary("A");
    pipeline->setViewport(QRect(0, 0, 10, 7));
    QString error;
    ASSERT_TRUE(pipeline->setValueText(
        s("A"), s("Viewport"),
        s("@viewport[[0, 0, 0.333333, 1], [0.333333, 0, 0.333333, 1], [0.666666, 0, 0.333334, 1]]"), &error))
        << qPrintable(error);
    render();
    const QVariantList parts = pass->inputValue(0).toList();
    ASSERT_EQ(parts.size(), 3);
    EXPECT_EQ(parts[0].toRect(), QRect(0, 0, 3, 7));
    EXPECT_EQ(parts[1].toRect(), QRect(3, 0, 4, 7));
    EXPECT_EQ(parts[2].toRect(), QRect(7, 0, 3, 7));
}

TEST_F(PipelineFrames, BeginsWithDefaultStateAndPutsBindingsBack)
{
    DiaryPass *pass = addDiary("A");
    const HostileGLState hostile;
    GLint drawBefore = 0, readBefore = 0, viewportBefore[4] = {}, draw = 0, read = 0, viewport[4] = {};
    glGetIntegerv(GL_DRAW_FRAMEBUFFER_BINDING, &drawBefore);
    glGetIntegerv(GL_READ_FRAMEBUFFER_BINDING, &readBefore);
    glGetIntegerv(GL_VIEWPORT, viewportBefore);
    render();
    glGetIntegerv(GL_DRAW_FRAMEBUFFER_BINDING, &draw);
    glGetIntegerv(GL_READ_FRAMEBUFFER_BINDING, &read);
    glGetIntegerv(GL_VIEWPORT, viewport);
    EXPECT_FALSE(pass->blend);
    EXPECT_EQ(draw, drawBefore);
    EXPECT_EQ(read, readBefore);
    EXPECT_TRUE(std::equal(viewport, viewport + 4, viewportBefore));
}

TEST_F(PipelineFrames, TellsThePassesTheirNumberOfUsers)
{
    PoolPass *a = addPool("A");
    addPool("B");
    addPool("C");
    link("A.Frame", "B.A");
    link("A.Frame", "C.A");
    link("A.Frame", "C.B");
    render();
    EXPECT_EQ(a->users(), 3);
    ASSERT_TRUE(pipeline->remove(s("B")));
    render();
    EXPECT_EQ(a->users(), 2);
}

TEST_F(PipelineFrames, RunsOnAfterALinkThatWasRefused)
{
    addDiary("A");
    addDiary("B");
    link("A.Out", "B.In");
    EXPECT_FALSE(pipeline->connect(s("B.Out"), s("A.In")));
    render();
    EXPECT_TRUE(diary.contains(s("A start"))) << qPrintable(diary.join(QLatin1Char('\n')));
    EXPECT_LT(diary.indexOf(s("A start")), diary.indexOf(s("B start")));
}

TEST_F(PipelineFrames, FindsNothingWrongWithPassesThatKeepTheRules)
{
    addPool("A");
    addPool("B");
    addPool("Forward", PoolPass::Habit::ForwardsInput);
    addPool("History", PoolPass::Habit::KeepsHistory);
    addPool("End");
    link("A.Frame", "B.A");
    link("A.Frame", "B.B");
    link("B.Frame", "Forward.A");
    link("Forward.Frame", "History.A");
    link("Forward.Frame", "End.A");
    link("History.Frame", "End.B");
    for (int i = 0; i < 10; ++i) {
        render();
        EXPECT_EQ(pipeline->faults(), QStringList()) << "frame " << i;
    }
    EXPECT_EQ(TextureManager::Instance().statistics().inUse, 1) << "the history, and nothing else";
}

TEST_F(PipelineFrames, NamesAPassThatKeepsItsInput)
{
    addPool("A");
    addPool("Greedy", PoolPass::Habit::KeepsInput);
    addPool("C");
    link("A.Frame", "Greedy.A");
    link("A.Frame", "C.A");
    EXPECT_EQ(faultsAfter(1),
              QStringList{s("pass 'Greedy' did not give back the texture of its input 'Kvo_KvoTexture*_A': "
                            "1 reference(s) too many")});
    EXPECT_EQ(faultsAfter(1).size(), 1) << "every frame anew";
}

// GaussianBlurRenderPass gives a stencil texture back only when it has a material to look for.
TEST_F(PipelineFrames, NamesTheBlurThatKeepsAStencilWithANegativeMaterial)
{
    addPool("Image");
    addPool("Stencil");
    ASSERT_TRUE(pipeline->add(s("Blur"), s("GaussianBlurRenderPass")));
    ASSERT_TRUE(pipeline->setValue(s("Blur"), s("Viewport"), QRect(0, 0, kSize, kSize)));
    ASSERT_TRUE(pipeline->setValue(s("Blur"), s("BlurRadius"), 4.0f));
    link("Image.Frame", "Blur.Input");
    EXPECT_EQ(faultsAfter(1), QStringList()) << "without a stencil";
    link("Stencil.Frame", "Blur.Stencil");
    EXPECT_EQ(faultsAfter(1),
              QStringList{s("pass 'Blur' did not give back the texture of its input 'Kvo_KvoTexture*_Stencil': "
                            "1 reference(s) too many")});
    Texture *kept = textureFromVariant(pipeline->output(s("Stencil"), s("Frame")));
    EXPECT_EQ(TextureManager::Instance().tempTextureRefs(kept), 1);
    TextureManager::Instance().releaseTempTextureRef(kept, 1);
}

// Each texture input of each class, fed from the pool: nothing stays taken, and nothing is given back twice.
TEST_F(PipelineFrames, GivesBackForPassesThatTakeNoPartInTheCounting)
{
    int inputs = 0;
    for (const QString &className : passFactory().classNames()) {
        const std::unique_ptr<RenderPass> made = passFactory().make(className);
        for (int i = 0; i < made->numInputs(); ++i) {
            const QString slot = made->inputName(i);
            if (!slot.contains(s("Texture*")))
                continue;
            SCOPED_TRACE(qPrintable(className + u' ' + slot));
            pipeline = std::make_unique<Pipeline>();
            addPool("Image");
            ASSERT_TRUE(pipeline->add(s("Reader"), className));
            pipeline->bindStandard();
            pipeline->setViewport(QRect(0, 0, kSize, kSize));
            ASSERT_TRUE(pipeline->connect(s("Image"), s("Frame"), s("Reader"), slot));
            const MessageCapture messages; // a colour is no depth, say those that want one
            int taken = -1;
            for (int frame = 0; frame < 6; ++frame) {
                render();
                const bool keepsStencil = className == s("GaussianBlurRenderPass") && slot.endsWith(s("_Stencil"));
                const int now = TextureManager::Instance().statistics().inUse;
                if (!keepsStencil) {
                    EXPECT_EQ(pipeline->faults(), QStringList()) << "frame " << frame;
                    EXPECT_TRUE(frame <= 2 || now == taken) << now << " in frame " << frame << ", then " << taken;
                }
                taken = now;
            }
            ++inputs;
        }
    }
    EXPECT_GT(inputs, 40);
    pipeline.reset();
}

TEST_F(PipelineFrames, NamesAPassThatGivesItsInputBackTwice)
{
    addPool("A");
    addPool("Hasty", PoolPass::Habit::ReleasesInputTwice);
    addPool("C");
    link("A.Frame", "Hasty.A");
    link("A.Frame", "C.A");
    EXPECT_EQ(faultsAfter(1),
              QStringList{s("pass 'Hasty' gave back the texture of its input 'Kvo_KvoTexture*_A' more than once: "
                            "1 reference(s) missing")});
}

TEST_F(PipelineFrames, NamesAPassThatLeavesTooFewReferences)
{
    addPool("Mean", PoolPass::Habit::LeavesTooFew);
    addPool("B");
    addPool("C");
    link("Mean.Frame", "B.A");
    link("Mean.Frame", "C.A");
    EXPECT_EQ(faultsAfter(1), QStringList{s("pass 'Mean' left 1 reference(s) on the texture of its output "
                                            "'Kvo_KvoTexture*_Frame', which has 2 user(s)")});
}

TEST_F(PipelineFrames, NamesAPassThatKeepsMoreAndMoreOfItsOutput)
{
    addPool("Leak", PoolPass::Habit::Leaks);
    addPool("B");
    link("Leak.Frame", "B.A");
    EXPECT_EQ(faultsAfter(3), QStringList()) << "as many as a history may hold";
    EXPECT_EQ(faultsAfter(1),
              QStringList{s("pass 'Leak' keeps 4 references on textures of its output 'Kvo_KvoTexture*_Frame', "
                            "and the number grows")});
}

TEST_F(PipelineFrames, NamesWhoTookATextureThatIsStillTaken)
{
    addPool("Maker");
    addPool("Greedy", PoolPass::Habit::KeepsInput);
    link("Maker.Frame", "Greedy.A");
    render();
    TextureManager &manager = TextureManager::Instance();
    const QStringList left = manager.leakedReferences();
    ASSERT_EQ(left.size(), 1);
    EXPECT_TRUE(left.first().contains(s("taken by 'Maker': 1 references"))) << qPrintable(left.first());
    Texture *kept = textureFromVariant(pipeline->output(s("Maker"), s("Frame")));
    manager.setDebug(true);
    const MessageCapture messages;
    manager.releaseTempTextureRef(kept, 2);
    manager.setDebug(false);
    EXPECT_EQ(messages.containing(s("taken by 'Maker', is released 2 times")), 1);
}

TEST_F(PipelineFrames, WarnsOfAFaultOnce)
{
    addPool("A");
    addPool("Greedy", PoolPass::Habit::KeepsInput);
    link("A.Frame", "Greedy.A");
    const MessageCapture messages;
    for (int i = 0; i < 3; ++i)
        render();
    EXPECT_EQ(messages.containing(s("pass 'Greedy' did not give back")), 1);
}

TEST_F(PipelineFrames, ReportsErrorCodesWhenTheyCome)
{
    DiaryPass *pass = addDiary("A");
    pass->errors = {0u, unsigned(-1), unsigned(-1), 0u};
    EXPECT_EQ(faultsAfter(1), QStringList());
    EXPECT_EQ(faultsAfter(1), QStringList{s("pass 'A' reports error -1")});
    EXPECT_EQ(faultsAfter(1), QStringList());
    EXPECT_EQ(faultsAfter(1), QStringList());
}

TEST_F(PipelineFrames, CountsFramesOfThePoolAndTrimsIt)
{
    addPool("A");
    pipeline->setPoolLimits(2, -1);
    render();
    EXPECT_GE(TextureManager::Instance().statistics().textures, 1);
    ASSERT_TRUE(pipeline->remove(s("A")));
    for (int i = 0; i < 4; ++i)
        render();
    EXPECT_EQ(TextureManager::Instance().statistics().textures, 0) << "what nobody took for more than two frames goes";
}

TEST_F(PipelineFrames, ShowsAnObserverEachPassRightAfterItsStart)
{
    addPool("A");
    addPool("B");
    link("A.Frame", "B.A");
    QStringList seen;
    QVector<int> refs;
    pipeline->setPassObserver([&](const QString &name, RenderPass *pass) {
        seen << name;
        refs << TextureManager::Instance().tempTextureRefs(textureFromVariant(pass->output(0)));
    });
    render();
    EXPECT_EQ(seen, (QStringList{s("A"), s("B")}));
    EXPECT_EQ(refs, (QVector<int>{1, 0}));
}

TEST_F(PipelineFrames, LetsAnObserverSetAnotherOneOrNone)
{
    addPool("A");
    addPool("B");
    QStringList seen;
    const QByteArray kept(64, 'x'); // more than a function holds without memory of its own
    pipeline->setPassObserver([&seen, this, kept](const QString &name, RenderPass *) {
        pipeline->setPassObserver({});
        seen << name + QString::fromLatin1(kept.first(1));
    });
    render();
    render();
    EXPECT_EQ(seen, QStringList{s("Ax")});
}

// What is being called, or will be in this frame, cannot go.
TEST_F(PipelineFrames, KeepsItsPassesWhileItRuns)
{
    addPool("A");
    addPool("B");
    render();
    QStringList seen;
    QStringList reasons;
    const MessageCapture messages;
    pipeline->setPassObserver([&](const QString &name, RenderPass *) {
        seen << name;
        QString error;
        EXPECT_FALSE(pipeline->remove(s("A"), &error));
        reasons << error;
        EXPECT_FALSE(pipeline->remove(s("B"), &error));
        EXPECT_FALSE(pipeline->replace(s("B"), s("GradientRenderPass"), &error));
        reasons << error;
        EXPECT_FALSE(pipeline->setup(nullptr, &error));
        EXPECT_FALSE(pipeline->render(nullptr, &error));
        reasons << error;
        pipeline->teardown();
        pipeline->teardownContextData();
    });
    render();
    EXPECT_EQ(seen, (QStringList{s("A"), s("B")}));
    EXPECT_EQ(reasons.mid(0, 3), (QStringList{s("pass 'A' cannot be removed while a frame runs"),
                                              s("pass 'B' cannot be replaced while a frame runs"),
                                              s("a frame of this pipeline is running")}));
    EXPECT_EQ(messages.containing(s("nothing is torn down while a frame runs")), 4);
    pipeline->setPassObserver({});
    render();
    EXPECT_TRUE(pipeline->remove(s("A")));
    pipeline->teardown();
}

TEST_F(PipelineFrames, PutsEachPassIntoADebugGroupOfItsName)
{
    KVO_REQUIRE_EXTENSION("GL_KHR_debug");
    addDiary("A");
    addDiary("B");
    render();
    const GlCalls calls;
    render();
    EXPECT_EQ(calls.count("glPushDebugGroup"), 2);
    EXPECT_EQ(calls.count("glPopDebugGroup"), 2);
}

TEST_F(PipelineFiles, MeasuresEveryPassOnCpuAndGpu)
{
    load("deferred-model");
    pipeline->setTimingEnabled(true);
    pipeline->setTimingHistory(16);
    QString error;
    for (int i = 0; i < 8; ++i)
        ASSERT_TRUE(pipeline->render(nullptr, &error)) << qPrintable(error);
    const QVector<PassTiming> timings = pipeline->timings(true);
    ASSERT_EQ(timings.size(), 3);
    EXPECT_EQ(timings[0].pass, s("Model"));
    EXPECT_EQ(timings[2].pass, s("Present"));
    for (const PassTiming &timing : timings) {
        EXPECT_EQ(timing.cpuSamples, 8);
        EXPECT_GT(timing.cpuMinimum, 0.0);
        EXPECT_GE(timing.cpuMedian, timing.cpuMinimum);
    }
    const bool hasTimers = epoxy_gl_version() >= 33 || hasGLExtension("GL_ARB_timer_query");
    for (const PassTiming &timing : timings) {
        // A result that has not arrived when its queries are needed again is given up.
        EXPECT_GE(timing.gpuSamples, hasTimers ? 3 : 0);
        EXPECT_LE(timing.gpuSamples, hasTimers ? 8 : 0);
        EXPECT_GE(timing.gpuMedian, timing.gpuMinimum);
    }
}

TEST_F(PipelineFiles, TimingMakesNothingInASteadyFrameAndDeletesItsQueries)
{
    load("forward");
    pipeline->setTimingEnabled(true);
    const int before = GlCalls::live(GlKind::Query);
    for (int i = 0; i < 4; ++i)
        ASSERT_TRUE(pipeline->render());
    {
        const GlCalls calls;
        ASSERT_TRUE(pipeline->render());
        EXPECT_EQ(calls.created(), 0) << qPrintable(calls.toString());
    }
    pipeline->teardown();
    EXPECT_EQ(GlCalls::live(GlKind::Query), before);
}

TEST_F(PipelineFiles, GradientFillsTheScreen)
{
    load("gradient");
    ASSERT_TRUE(pipeline->render());
    const QImage image = screen->image();
    // Half a step of 8 bits, and the half pixel from the edge.
    EXPECT_NEAR(qRed(image.pixel(kSize / 2, 0)), 64, 3);
    EXPECT_NEAR(qRed(image.pixel(kSize / 2, kSize - 1)), 153, 3);
    EXPECT_EQ(qAlpha(image.pixel(0, 0)), 255);
}

TEST_F(PipelineFiles, ForwardAndDeferredShowTheSameLitQuad)
{
    for (const char *name : {"forward", "deferred-model"}) {
        pipeline = std::make_unique<Pipeline>();
        load(name);
        ASSERT_TRUE(pipeline->render());
        const QImage image = screen->image();
        // A red surface that faces the eye, lit from normalize(1, 1, 1): 1 / sqrt(3) of 255.
        EXPECT_NEAR(qRed(image.pixel(kSize / 2, kSize / 2)), 147, 1) << name;
        EXPECT_EQ(qGreen(image.pixel(kSize / 2, kSize / 2)), 0) << name;
        EXPECT_EQ(pipeline->faults(), QStringList()) << name;
    }
}

TEST_F(PipelineFiles, ASteadyFrameMakesNoGLObjectAndAllocatesNoTexture)
{
    for (const char *name : {"gradient", "forward", "deferred-model"}) {
        pipeline = std::make_unique<Pipeline>();
        load(name);
        for (int i = 0; i < 3; ++i)
            ASSERT_TRUE(pipeline->render());
        const GlCalls calls;
        ASSERT_TRUE(pipeline->render());
        EXPECT_EQ(calls.created(), 0) << name;
        EXPECT_EQ(calls.textureAllocations(), 0) << name;
        EXPECT_EQ(calls.bufferAllocations(), 0) << name;
    }
}

TEST_F(PipelineFiles, ASteadyFrameTakesNothingFromTheHeap)
{
    if (!allocationsAreCounted())
        GTEST_SKIP() << "allocations are not counted in this build";
    for (const char *name : {"gradient", "forward", "deferred-model", "blend-modes"}) {
        pipeline = std::make_unique<Pipeline>();
        load(name);
        pipeline->setTimingEnabled(true);
        const GlCalls calls;
        for (int i = 0; i < 4; ++i)
            ASSERT_TRUE(pipeline->render());
        const AllocationCounter allocations(4);
        const bool rendered = pipeline->render();
        EXPECT_EQ(allocations.count(), 0) << name;
        EXPECT_TRUE(rendered);
    }
}

TEST_F(PipelineFiles, ChangesOfSizeLeaveNoObjectsBehind)
{
    load("deferred-model");
    int live = -1;
    for (int i = 0; i < 5; ++i) {
        const int size = 16 + 8 * i;
        ASSERT_TRUE(screen->resize(QSize(size, size)));
        pipeline->setViewport(QRect(0, 0, size, size));
        ASSERT_TRUE(pipeline->render());
        EXPECT_EQ(screen->image().size(), QSize(size, size));
        if (live >= 0) {
            EXPECT_EQ(GlCalls::live(), live) << "frame " << i;
        }
        live = GlCalls::live();
    }
}

TEST_F(PipelineFiles, ReplacingAPassKeepsThePicture)
{
    load("deferred-model");
    ASSERT_TRUE(pipeline->render());
    const QImage before = screen->image();
    QString error;
    ASSERT_TRUE(pipeline->replace(s("Shade"), std::make_unique<ModelDeferredPass>(), &error)) << qPrintable(error);
    screen->clear();
    ASSERT_TRUE(pipeline->render());
    EXPECT_EQ(screen->image(), before);
}

TEST_F(PipelineFrames, FramesGoPastAPassThatIsOff)
{
    addDiary("A");
    DiaryPass *b = addDiary("B");
    DiaryPass *c = addDiary("C");
    link("A.Out", "B.In");
    link("B.Out", "C.In");
    render();
    EXPECT_EQ(c->inputValue(2).toFloat(), 2.0f);
    EXPECT_EQ(pipeline->bypassSlot(s("B"), s("Out")), s("Kvo_float_In"));
    diary.clear();
    ASSERT_TRUE(pipeline->setEnabled(s("B"), false));
    EXPECT_FALSE(pipeline->isEnabled(s("B")));
    EXPECT_EQ(pipeline->users(s("A"), s("Out")), 1) << "it is C that reads it now";
    EXPECT_EQ(pipeline->users(s("B"), s("Out")), 0);
    render();
    EXPECT_TRUE(diary.filter(s("B ")).isEmpty()) << qPrintable(diary.join(u'\n'));
    EXPECT_EQ(c->inputValue(2).toFloat(), 1.0f);
    EXPECT_EQ(pipeline->source(s("C"), s("In")), s("B.Kvo_float_Out")) << "links stay";

    // A value and a host value in the place of the link that is passed by; then nothing at all.
    ASSERT_TRUE(pipeline->setValue(s("B"), s("In"), 7.5f));
    render();
    EXPECT_EQ(c->inputValue(2).toFloat(), 7.5f);
    ASSERT_TRUE(pipeline->setHostValue(s("near"), 0.25f));
    ASSERT_TRUE(pipeline->bind(s("B"), s("In"), s("near")));
    render();
    EXPECT_EQ(c->inputValue(2).toFloat(), 0.25f);
    ASSERT_TRUE(pipeline->reset(s("B"), s("In")));
    c->setDefaultValue(2, 3.0f);
    render();
    EXPECT_EQ(c->inputValue(2).toFloat(), 3.0f) << "the reader's own default";

    link("A.Out", "B.In");
    ASSERT_TRUE(pipeline->setEnabled(s("B"), true));
    render();
    EXPECT_EQ(b->inputValue(2).toFloat(), 1.0f);
    EXPECT_EQ(c->inputValue(2).toFloat(), 2.0f);

    // Two in a row.
    ASSERT_TRUE(pipeline->setEnabled(s("B"), false));
    ASSERT_TRUE(pipeline->setEnabled(s("A"), false));
    render();
    EXPECT_EQ(c->inputValue(2).toFloat(), 3.0f);
    QString error;
    EXPECT_FALSE(pipeline->setEnabled(s("D"), false, &error));
    EXPECT_TRUE(error.contains(s("'D'"))) << qPrintable(error);
}

// Counts of pool textures hold however often a pass goes, and the picture is the one before when it is back.
TEST_F(PipelineFiles, EveryPassOfEveryPipelineGoesAndComesBack)
{
    int off = 0;
    for (const PipelineFileInfo &info : listPipelines({s(KVO_SOURCE_DIR "/pipelines")})) {
        SCOPED_TRACE(qPrintable(info.name));
        pipeline = std::make_unique<Pipeline>();
        const MessageCapture messages;
        load(qPrintable(info.name));
        const auto draw = [this] {
            screen->clear();
            EXPECT_TRUE(pipeline->render());
        };
        // Accumulating chains go on for some frames.
        for (int i = 0; i < 3; ++i)
            draw();
        const QImage before = screen->image();
        // The longest chain twice: what was missing once is there from then on.
        QVector<int> textures;
        for (int round = 0; round < (info.name == s("viewport") ? 2 : 1); ++round) {
            for (const QString &pass : pipeline->passNames()) {
                ASSERT_TRUE(pipeline->setEnabled(pass, false));
                draw();
                EXPECT_EQ(pipeline->faults(), QStringList()) << "without " << qPrintable(pass);
                ASSERT_TRUE(pipeline->setEnabled(pass, true));
                draw();
                EXPECT_EQ(pipeline->faults(), QStringList()) << "with " << qPrintable(pass);
                ++off;
            }
            textures << TextureManager::Instance().statistics().textures;
        }
        EXPECT_LE(textures.last(), textures.first());
        // Some show two or more frames together, and begin anew.
        const bool isSteady =
            !pipeline->uses(s("frame")) && !QStringList{s("taa"), s("smaa-t2x"), s("antialiasing")}.contains(info.name);
        if (isSteady) {
            EXPECT_EQ(screen->image(), before);
        }
    }
    EXPECT_GT(off, 100);
}

TEST_F(PipelineFiles, ClassesByNameTakeThePlaceOfOthers)
{
    load("fxaa");
    QString error;
    const QString to = pipeline->order().last();
    EXPECT_FALSE(pipeline->insert(s("Soft"), s("GaussianBlurPass"), to, s("Texture"), s("Input"), s("Output"), &error));
    EXPECT_TRUE(error.contains(s("GaussianBlurRenderPass"))) << qPrintable(error);
    ASSERT_TRUE(
        pipeline->insert(s("Soft"), s("GaussianBlurRenderPass"), to, s("Texture"), s("Input"), s("Output"), &error))
        << qPrintable(error);
    EXPECT_EQ(pipeline->className(s("Soft")), s("GaussianBlurRenderPass"));
    EXPECT_EQ(pipeline->outputs(s("Soft")), QStringList{s("Kvo_KvoTexture*_Output")});
    EXPECT_FALSE(pipeline->replace(s("Soft"), s("GradientRenderPass"), &error)) << "it has no such input";
    EXPECT_EQ(pipeline->className(s("Soft")), s("GaussianBlurRenderPass"));
    EXPECT_TRUE(pipeline->replace(s("Soft"), s("GaussianBlurRenderPass"), &error)) << qPrintable(error);
    EXPECT_EQ(pipeline->className(s("Soft")), s("GaussianBlurRenderPass"));
    ASSERT_NE(pipeline->outputInfo(s("Soft"), s("Output")), nullptr);
}
