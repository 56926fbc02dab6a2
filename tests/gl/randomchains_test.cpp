// Random programs of a host: passes of all classes, wired at random, with right, odd and wrong values, resized, copied,
// destroyed, in two contexts that share their objects. A seed makes the same program again; scripts/trust runs many,
// each block in a process of its own, and reduces one that fails. And two such hosts on two threads that take turns.

#include "support/gltest.h"
#include "support/messages.h"
#include "support/passlives.h"

#include <gl/opengldevicecontext.h>
#include <gl/texturemanager.h>

#include <gtest/gtest.h>

#include <QElapsedTimer>

#include <algorithm>
#include <array>
#include <barrier>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <limits>
#include <memory>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <vector>

namespace Brevane::Kvo {

using namespace Test;

namespace {

constexpr int kPasses = 5;
constexpr int kLargestSide = 256; // what contexts believe to be limited to: odd sizes cost no more
constexpr qint64 kLongestStep = 20000; // ms; no step takes one, also under a sanitizer

QByteArray setting(const char *name, const char *otherwise)
{
    return qEnvironmentVariableIsSet(name) ? qgetenv(name) : QByteArray(otherwise);
}

// What ends a driver, see DriverWithTwoContexts.
bool isDriver(const char *name)
{
    return QByteArray(reinterpret_cast<const char *>(glGetString(GL_RENDERER))).startsWith(name);
}

enum class Kind { Make, Set, Odd, Wire, Resize, Frame, Frames, Copy, Assign, Destroy, Setup, Switch, Trim, Count };

struct Step
{
    Kind kind;
    unsigned int a, b, c, d;
};

/// All numbers are drawn at once, so that leaving steps out changes no other one.
std::vector<Step> stepsOf(unsigned int seed)
{
    std::mt19937 random(seed);
    // What makes and runs passes more often than what ends them.
    constexpr std::array kKinds{Kind::Make,    Kind::Make,  Kind::Make,   Kind::Set,    Kind::Set,  Kind::Odd,
                                Kind::Odd,     Kind::Odd,   Kind::Wire,   Kind::Wire,   Kind::Wire, Kind::Resize,
                                Kind::Frame,   Kind::Frame, Kind::Frame,  Kind::Frames, Kind::Copy, Kind::Assign,
                                Kind::Destroy, Kind::Setup, Kind::Switch, Kind::Switch, Kind::Trim};
    std::vector<Step> steps;
    for (unsigned int i = 0, count = 12 + random() % 30; i < count; ++i) {
        const Kind kind = kKinds[random() % kKinds.size()];
        const unsigned int a = random(), b = random(), c = random(), d = random();
        steps.push_back({kind, a % kPasses, b, c, d});
    }
    return steps;
}

class RandomHost
{
public:
    /// Of a context that there is; null: of contexts of its own, which share nothing with others.
    explicit RandomHost(GLContext *context) : _context(context) {}

    void begin();
    void end();
    /// After each step something else may happen.
    void runProgram(
        unsigned int seed, const QList<int> &leftOut, const std::function<void()> &afterStep = [] {});

private:
    struct Slot
    {
        std::unique_ptr<RenderPassHelper> pass;
        const PassCase *kind = nullptr;
        const PassRow *row = nullptr;
    };

    static const std::vector<PassCase> &cases()
    {
        static const std::vector<PassCase> all = allPassCases();
        return all;
    }

    Home &home() { return _inSecond ? *_second : *_main; }

    static QVariant odd(const InputRow &input, Values &values, unsigned int which)
    {
        constexpr float kNan = std::numeric_limits<float>::quiet_NaN();
        constexpr float kInfinity = std::numeric_limits<float>::infinity();
        constexpr int kMin = std::numeric_limits<int>::min();
        constexpr int kMax = std::numeric_limits<int>::max();
        QMatrix4x4 noMatrix;
        noMatrix.fill(kNan);
        const auto oneOf = [which](std::initializer_list<QVariant> choices) {
            return *(choices.begin() + which % choices.size());
        };
        if (which % 5 == 0)
            return values.wrong()[(which / 5) % 4].value;
        switch (input.type.id()) {
        case QMetaType::Float: return oneOf({kNan, kInfinity, -kInfinity, 0.0f, -1.0f, 1e-4f, 300.0f, 1e9f});
        case QMetaType::Int: return oneOf({0, -1, 2, 3, 300, kMin, kMax});
        case QMetaType::QRect:
            return oneOf({QRect(), QRect(0, 0, 2000000000, 7), QRect(QPoint(kMin, kMin), QPoint(kMax, kMax)),
                          QRect(-5, -5, 3, 3), QRect(0, 0, 1, 1), QRect(3, 4, 0, 0)});
        case QMetaType::QSize: return oneOf({QSize(), QSize(0, 16), QSize(kMax, 1), QSize(-1, -1), QSize(1, 1)});
        case QMetaType::QMatrix4x4: return oneOf({QMatrix4x4(), noMatrix, QMatrix4x4() * 0.0f});
        case QMetaType::QString: return oneOf({text("/no/such/file"), QString(), text(KVO_SOURCE_DIR)});
        case QMetaType::Bool: return oneOf({true, false});
        case QMetaType::QVector2D: return oneOf({QVector2D(kNan, 2), QVector2D(-1, 5)});
        case QMetaType::QVector3D: return oneOf({QVector3D(kNan, 2, 1), QVector3D(0, 0, 0)});
        default: return QVariant();
        }
    }

    /// What a slot takes; images small, since passes come and go.
    static QVariant right(const InputRow &input, Values &values)
    {
        return input.type == QMetaType(QMetaType::QString) ? EveryPassLives::smallImage() : values.right(input);
    }

    void run(const Step &step)
    {
        Slot &slot = _slots[step.a];
        const auto other = [&](unsigned int number) -> Slot & { return _slots[number % kPasses]; };
        const auto inputs = [](const Slot &of) { return std::min(of.pass->numInputs(), int(of.row->inputs.size())); };
        switch (step.kind) {
        case Kind::Make: {
            slot.kind = &cases()[step.b % cases().size()];
            slot.row = &anyRowOf(slot.kind->className);
            slot.pass = slot.kind->make();
            print(step, slot.kind->className);
            if (auto *builder = dynamic_cast<PrimitiveBuilderRenderPass *>(slot.pass.get()))
                builder->addCube(1, {});
            if (auto *outline = dynamic_cast<OutlinePass *>(slot.pass.get()))
                outline->setItems({0});
            for (int i = 0; i < inputs(slot); ++i)
                if (i == 0 || step.c >> (i % 16) & 3)
                    slot.pass->setInput(i, right(slot.row->inputs[size_t(i)], home().values()));
            break;
        }
        case Kind::Set:
        case Kind::Odd:
            if (slot.pass && inputs(slot) > 0) {
                const int input = int(step.b % unsigned(inputs(slot)));
                const InputRow &row = slot.row->inputs[size_t(input)];
                const QVariant value =
                    step.kind == Kind::Set ? right(row, home().values()) : odd(row, home().values(), step.c);
                print(step, QStringLiteral("%1, %2 %3").arg(input).arg(text(value.typeName()), value.toString()));
                slot.pass->setInput(input, value);
            }
            break;
        case Kind::Wire:
            if (Slot &from = other(step.b); slot.pass && from.pass && inputs(slot) > 0 && from.pass->numOutputs() > 0) {
                const int input = int(step.c % unsigned(inputs(slot)));
                const int output = int(step.d % unsigned(from.pass->numOutputs()));
                print(step, QStringLiteral("%1, pass%2->output(%3)").arg(input).arg(step.b % kPasses).arg(output));
                from.pass->setNumOutputUsers(output, 1);
                slot.pass->setInput(input, from.pass->output(output));
            }
            break;
        case Kind::Resize:
            if (slot.pass && inputs(slot) > 0 && slot.row->inputs[0].type == QMetaType(QMetaType::QRect)) {
                const QRect size(0, 0, int(step.b % 70), int(step.c % 50));
                print(step, QStringLiteral("%1 x %2").arg(size.width()).arg(size.height()));
                slot.pass->setInput(0, size);
            }
            break;
        case Kind::Frame:
            print(step);
            frame(slot);
            break;
        case Kind::Frames:
            print(step);
            for (Slot &each : _slots)
                frame(each);
            break;
        case Kind::Copy:
            if (slot.pass && &other(step.b) != &slot) {
                print(step, QStringLiteral("to pass%1").arg(step.b % kPasses));
                Slot &to = other(step.b);
                to.pass = slot.kind->copy(*slot.pass);
                to.kind = slot.kind;
                to.row = slot.row;
            }
            break;
        case Kind::Assign:
            if (Slot &to = other(step.b); slot.pass && to.pass && to.kind == slot.kind) {
                print(step, QStringLiteral("to pass%1").arg(step.b % kPasses));
                slot.kind->assign(*to.pass, *slot.pass);
            }
            break;
        case Kind::Destroy:
            print(step);
            slot.pass.reset();
            break;
        case Kind::Setup:
            if (slot.pass) {
                print(step);
                slot.pass->teardown(nullptr);
                if (step.b % 2)
                    slot.pass->teardownContextData(nullptr);
                slot.pass->setup(nullptr);
            }
            break;
        case Kind::Switch:
            if (!_switches)
                break;
            _inSecond = !_inSecond;
            print(step, _inSecond ? "to the second" : "to the first");
            EXPECT_TRUE(home().enter());
            break;
        case Kind::Trim:
            print(step);
            TextureManager::Instance().advanceFrame();
            TextureManager::Instance().trim(int(step.b % 3) - 1);
            break;
        case Kind::Count: break;
        }
    }

    static bool storesToImages(const Slot &slot)
    {
        return slot.row->className == QByteArray("VisibilityBufferRenderPass")
               || slot.row->className == QByteArray("VisibilitySortRenderPass");
    }

    void frame(const Slot &slot)
    {
        if (!slot.pass || (!_stores && storesToImages(slot)))
            return;
        resetGLState();
        glViewport(0, 0, kWidth, kHeight);
        runFrame(*slot.pass);
    }

    /// As a line that a reader can make a test of.
    void print(const Step &step, const QString &rest = QString()) const
    {
        static constexpr const char *kNames[] = {"make",  "setInput", "setInput", "setInput", "resize",
                                                 "frame", "frames",   "copy",     "assign",   "destroy",
                                                 "setup", "switch",   "trim"};
        if (_isPrinted) {
            std::printf("[ program  ] %2d: pass%u.%s(%s);\n", _number, step.a, kNames[int(step.kind)],
                        qPrintable(rest));
            std::fflush(stdout);
        }
    }
    void print(const Step &step, const char *rest) const { print(step, QString::fromLatin1(rest)); }

    std::vector<std::unique_ptr<RenderPassHelper>> _keepers;
    std::array<Slot, kPasses> _slots;
    GLContext *_context;
    std::unique_ptr<Home> _main;
    std::unique_ptr<Home> _second;
    bool _switches = setting("KVO_TRUST_SWITCH", isDriver("llvmpipe") ? "0" : "1") == "1";
    bool _stores = setting("KVO_TRUST_STORE", isDriver("zink") && _switches ? "0" : "1") == "1";
    bool _inSecond = false;
    bool _isPrinted = setting("KVO_TRUST_PRINT", "0") == "1";
    int _number = 0;
};

// What all programs have: two contexts, values of theirs, and a pass of each class that keeps its programs built.
void RandomHost::begin()
{
    const GlCalls::ForcedInteger side(GL_MAX_VIEWPORT_DIMS, kLargestSide);
    _main = _context ? std::make_unique<Home>(*_context) : std::make_unique<Home>();
    ASSERT_TRUE(_main->enter());
    _main->values().recorded(0);
    _second = std::make_unique<Home>(*_main);
    ASSERT_TRUE(_second->enter());
    ASSERT_TRUE(_main->enter());
    for (const PassCase &each : cases()) {
        _keepers.push_back(each.make());
        const PassRow &row = anyRowOf(each.className);
        for (int i = 0; i < std::min(_keepers.back()->numInputs(), int(row.inputs.size())); ++i)
            _keepers.back()->setInput(i, right(row.inputs[size_t(i)], _main->values()));
        resetGLState();
        runFrame(*_keepers.back());
    }
}

// After it nothing is left.
void RandomHost::end()
{
    const GlCalls::ForcedInteger side(GL_MAX_VIEWPORT_DIMS, kLargestSide);
    ASSERT_TRUE(_main->enter());
    _keepers.clear();
    ASSERT_TRUE(_second->enter());
    settledObjects();
    OpenGLDeviceContext::releaseCurrent();
    _second->forget();
    _second.reset();
    ASSERT_TRUE(_main->enter());
    _main.reset();
}

void RandomHost::runProgram(unsigned int seed, const QList<int> &leftOut, const std::function<void()> &afterStep)
{
    const GlCalls::ForcedInteger side(GL_MAX_VIEWPORT_DIMS, kLargestSide);
    ASSERT_TRUE(_main->enter());
    _inSecond = false;
    const std::vector<Step> steps = stepsOf(seed);
    for (_number = 0; _number < int(steps.size()) && !::testing::Test::HasFailure(); ++_number) {
        if (leftOut.contains(_number))
            continue;
        const testing::ScopedTrace trace(__FILE__, __LINE__,
                                         "seed " + std::to_string(seed) + ", step " + std::to_string(_number));
        QElapsedTimer timer;
        timer.start();
        run(steps[size_t(_number)]);
        EXPECT_LT(timer.elapsed(), kLongestStep);
        EXPECT_EQ(glGetError(), GLenum(GL_NO_ERROR));
        afterStep();
    }
    for (Slot &slot : _slots)
        slot.pass.reset();
    // Where a driver ends in draws after deletions by the other context, that one deletes nothing.
    if (_switches) {
        ASSERT_TRUE(_second->enter());
        settledObjects();
    }
    ASSERT_TRUE(_main->enter());
    settledObjects();
}

class RandomChains : public GLTest
{
protected:
    void SetUp() override
    {
        GLTest::SetUp();
        const GlCalls::ForcedInteger side(GL_MAX_VIEWPORT_DIMS, kLargestSide);
        ASSERT_EQ(OpenGLDeviceContext::current()->limits().targetWidth, kLargestSide);
        expectLeakedReferences(); // a wiring at random counts no users
    }

    /// Outputs were wired that nobody read afterwards.
    static void releaseReferences()
    {
        TextureManager &textures = TextureManager::Instance();
        for (const PoolTexture &pooled : textures.poolTextures())
            textures.releaseTempTextureRef(const_cast<Texture *>(pooled.texture), pooled.references);
    }

    void endAll(RandomHost &host)
    {
        host.end();
        releaseReferences();
        ASSERT_TRUE(context().makeCurrent());
    }
};

/// The library serves one thread at a time: threads get it in turn, a step each.
class Turns
{
public:
    void take(int thread)
    {
        std::unique_lock lock(_mutex);
        _isIn[thread] = true;
        _changed.wait(lock, [&] { return _now == thread || !_isIn[1 - thread]; });
        _now = thread;
    }
    void pass(int thread)
    {
        {
            const std::lock_guard lock(_mutex);
            _now = 1 - thread;
        }
        _changed.notify_all();
    }
    /// Until it takes one again.
    void leave(int thread)
    {
        {
            const std::lock_guard lock(_mutex);
            _isIn[thread] = false;
            _now = 1 - thread;
        }
        _changed.notify_all();
    }

private:
    std::mutex _mutex;
    std::condition_variable _changed;
    std::array<bool, 2> _isIn{};
    int _now = 0;
};

} // namespace

// KVO_TRUST_SEED: the first program; KVO_TRUST_COUNT: how many; KVO_TRUST_WITHOUT: steps to leave out, by commas.
TEST_F(RandomChains, LeaveNothingBehindAndRaiseNoError)
{
    const unsigned int first = setting("KVO_TRUST_SEED", "1").toUInt();
    const unsigned int count = setting("KVO_TRUST_COUNT", "25").toUInt();
    QList<int> leftOut;
    for (const QByteArray &number : setting("KVO_TRUST_WITHOUT", "").split(','))
        leftOut.append(number.isEmpty() ? -1 : number.toInt());
    const MessageCapture messages;
    RandomHost host(&context());
    // What the library keeps on purpose is there afterwards.
    host.begin();
    endAll(host);
    const std::vector<int> before = leftOver();
    host.begin();
    for (unsigned int seed = first; seed < first + count && !HasFailure(); ++seed) {
        std::printf("[ seed     ] %u\n", seed);
        std::fflush(stdout);
        host.runProgram(seed, leftOut);
    }
    endAll(host);
    EXPECT_EQ(leftOver(), before) << qPrintable(GlCalls::liveObjects().join(u'\n'));
}

// KVO_TRUST_THREADS: how many programs each of them runs. After each one they exchange their contexts.
TEST_F(RandomChains, OfTwoThreadsThatShareNothingAndTakeTurnsLeaveNothingBehind)
{
    const unsigned int first = setting("KVO_TRUST_SEED", "1").toUInt();
    const unsigned int count = setting("KVO_TRUST_THREADS", "8").toUInt();
    const MessageCapture messages;
    const std::vector<int> before = leftOver();
    std::array<RandomHost, 2> hosts{RandomHost(nullptr), RandomHost(nullptr)}; // which ask what the driver is
    GLContext::doneCurrent();
    Turns turns;
    std::barrier both(2);
    const auto live = [&](int thread) {
        turns.take(thread);
        hosts[size_t(thread)].begin();
        GLContext::doneCurrent();
        turns.leave(thread);
        both.arrive_and_wait();
        for (unsigned int i = 0; i < count; ++i) {
            turns.take(thread);
            hosts[(unsigned(thread) + i) % 2].runProgram(first + 2 * i + unsigned(thread), {}, [&] {
                turns.pass(thread);
                turns.take(thread);
            });
            GLContext::doneCurrent();
            turns.leave(thread);
            both.arrive_and_wait();
        }
        turns.take(thread);
        hosts[size_t(thread)].end();
        turns.leave(thread);
    };
    std::thread other(live, 1);
    live(0);
    other.join();
    releaseReferences();
    ASSERT_TRUE(context().makeCurrent());
    EXPECT_EQ(leftOver(), before) << qPrintable(GlCalls::liveObjects().join(u'\n'));
}

namespace {

/// A program of nothing but GL.
GLuint linked(const QByteArray &vertexText, const QByteArray &fragmentText)
{
    const GLuint program = glCreateProgram();
    for (const GLenum stage : {GL_VERTEX_SHADER, GL_FRAGMENT_SHADER}) {
        const char *source = (stage == GL_VERTEX_SHADER ? vertexText : fragmentText).constData();
        const GLuint shader = glCreateShader(stage);
        glShaderSource(shader, 1, &source, nullptr);
        glCompileShader(shader);
        glAttachShader(program, shader);
        glDeleteShader(shader);
    }
    glLinkProgram(program);
    return program;
}

} // namespace

// Nothing of the library: two contexts that share, programs deleted in one that the other has drawn with. Mesa 22.3.6
// with llvmpipe ends in the next draw with another program; by zink it does not. With
// --gtest_also_run_disabled_tests a driver says which it is.
TEST(DriverWithTwoContexts, DISABLED_DrawsAfterTheOtherHasDeletedAProgram)
{
    GLContext first;
    GLContext::Options options;
    options.share = &first;
    GLContext second(options);
    GLContext *const contexts[] = {&first, &second};
    std::array<GLuint, 2> arrays{}, framebuffers{};
    GLuint texture = 0;
    std::mt19937 random(1);
    std::vector<GLuint> programs;
    size_t current = 0;
    for (int step = 0; step < 5000; ++step) {
        if (step == 0 || random() % 5 == 0)
            current = step < 2 ? size_t(step) : 1 - current;
        ASSERT_TRUE(contexts[current]->makeCurrent());
        if (!arrays[current]) {
            glGenVertexArrays(1, &arrays[current]);
            glGenFramebuffers(1, &framebuffers[current]);
            if (!texture) {
                glGenTextures(1, &texture);
                glBindTexture(GL_TEXTURE_2D, texture);
                glTexImage2D(GL_TEXTURE_2D, 0, GL_RGBA8, 8, 8, 0, GL_RGBA, GL_UNSIGNED_BYTE, nullptr);
            }
            glBindVertexArray(arrays[current]);
            glBindFramebuffer(GL_FRAMEBUFFER, framebuffers[current]);
            glFramebufferTexture2D(GL_FRAMEBUFFER, GL_COLOR_ATTACHMENT0, GL_TEXTURE_2D, texture, 0);
        }
        if (programs.empty() || random() % 5 == 0) {
            const QByteArray number = QByteArray::number(1 + random() % 200) + ".0";
            programs.push_back(linked("#version 150\nvoid main() { gl_Position = vec4(float(gl_VertexID & 1) * "
                                          + number + ", float(gl_VertexID >> 1), 0.0, 1.0); }",
                                      "#version 150\nout vec4 o;\nvoid main() { o = vec4(" + number + "); }"));
        }
        const size_t chosen = random() % programs.size();
        if (programs.size() > 1 && random() % 4 == 0) {
            glDeleteProgram(programs[chosen]);
            programs.erase(programs.begin() + qsizetype(chosen));
        } else {
            glUseProgram(programs[chosen]);
            glDrawArrays(GL_TRIANGLE_STRIP, 0, 4);
            glUseProgram(0);
        }
    }
    for (const GLuint program : programs)
        glDeleteProgram(program);
    glDeleteTextures(1, &texture);
    for (size_t i : {size_t(0), size_t(1)}) {
        ASSERT_TRUE(contexts[i]->makeCurrent());
        glDeleteVertexArrays(1, &arrays[i]);
        glDeleteFramebuffers(1, &framebuffers[i]);
    }
}

// Nothing of the library: a texture that one context has sampled is an image in the other one. Mesa 22.3.6 by zink ends
// in the draw there, although the texture was taken off its unit, unless another draw without textures follows that.
// With llvmpipe alone it does not.
TEST(DriverWithTwoContexts, DISABLED_StoresToATextureThatTheOtherHasSampled)
{
    GLContext first;
    GLContext::Options options;
    options.major = 4;
    options.minor = 2;
    options.share = &first;
    GLContext second(options);
    ASSERT_TRUE(first.makeCurrent());
    GLuint texture = 0, target = 0;
    for (GLuint *each : {&texture, &target}) {
        glGenTextures(1, each);
        glBindTexture(GL_TEXTURE_2D, *each);
        glTexImage2D(GL_TEXTURE_2D, 0, GL_RGBA32UI, 8, 8, 0, GL_RGBA_INTEGER, GL_UNSIGNED_INT, nullptr);
        glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_MIN_FILTER, GL_NEAREST);
        glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_MAG_FILTER, GL_NEAREST);
    }
    glBindTexture(GL_TEXTURE_2D, 0);
    const QByteArray vertex =
        "#version 420\nvoid main() { gl_Position = vec4(float(gl_VertexID & 1), float(gl_VertexID >> 1), 0.0, 1.0); }";
    const GLuint samples = linked(vertex, "#version 420\nuniform usampler2D u_From;\nout uvec4 o;\n"
                                          "void main() { o = texelFetch(u_From, ivec2(gl_FragCoord.xy), 0); }");
    const GLuint stores = linked(vertex, "#version 420\nlayout(rgba32ui) uniform uimage2D u_To;\nout uvec4 o;\n"
                                         "void main() { o = uvec4(1); imageStore(u_To, ivec2(0), uvec4(2)); }");
    for (int step = 0; step < 8; ++step) {
        ASSERT_TRUE((step % 2 ? first : second).makeCurrent());
        GLuint array = 0, framebuffer = 0;
        glGenVertexArrays(1, &array);
        glBindVertexArray(array);
        glGenFramebuffers(1, &framebuffer);
        glBindFramebuffer(GL_FRAMEBUFFER, framebuffer);
        glFramebufferTexture2D(GL_FRAMEBUFFER, GL_COLOR_ATTACHMENT0, GL_TEXTURE_2D, target, 0);
        ASSERT_EQ(glCheckFramebufferStatus(GL_FRAMEBUFFER), GLenum(GL_FRAMEBUFFER_COMPLETE));
        if (step % 2) {
            glUseProgram(stores);
            glBindImageTexture(0, texture, 0, GL_FALSE, 0, GL_READ_WRITE, GL_RGBA32UI);
        } else {
            glUseProgram(samples);
            glBindTexture(GL_TEXTURE_2D, texture);
        }
        glDrawArrays(GL_TRIANGLE_STRIP, 0, 4);
        glBindImageTexture(0, 0, 0, GL_FALSE, 0, GL_READ_ONLY, GL_RGBA32UI);
        glBindTexture(GL_TEXTURE_2D, 0);
        glUseProgram(0);
        glBindFramebuffer(GL_FRAMEBUFFER, 0);
        glDeleteFramebuffers(1, &framebuffer);
        glBindVertexArray(0);
        glDeleteVertexArrays(1, &array);
        glFinish();
        EXPECT_EQ(glGetError(), GLenum(GL_NO_ERROR));
    }
    ASSERT_TRUE(first.makeCurrent());
    glDeleteProgram(samples);
    glDeleteProgram(stores);
    glDeleteTextures(1, &texture);
    glDeleteTextures(1, &target);
}

} // namespace Brevane::Kvo
