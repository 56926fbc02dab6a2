#pragma once

#include "support/glcalls.h"
#include "support/image.h"

#include <QRect>
#include <QStringList>
#include <QVariant>

#include <gtest/gtest.h>

#include <vector>

namespace Brevane::Kvo {
class RenderPass;
class Texture;
} // namespace Brevane::Kvo

namespace Brevane::Kvo::Test {

/// Limits of sameImage that let every channel of every pixel be off by so much.
inline ImageLimits within(double tolerance)
{
    return {tolerance, tolerance, 0};
}

/// A row of the slot table of a pass.
struct SlotRow
{
    const char *name;
    QVariant defaultValue = QVariant();
};

/// Checks names, order, defaults and number of all slots, and that an input starts as its default.
void expectSlots(const RenderPass &pass, const std::vector<SlotRow> &inputs, const std::vector<const char *> &outputs);

/// beginFrame, start, endFrame.
void runFrame(RenderPass &pass);

/// The texture in an output; fails the test when there is none, or in another form than QObject*.
Texture *outputTexture(const RenderPass &pass, int index);

/// How a texture is stored and filtered, as GL says.
struct TextureState
{
    unsigned int internalFormat = 0;
    int width = -1;
    int height = -1;
    unsigned int minFilter = 0;
    unsigned int magFilter = 0;
};
TextureState stateOf(const Texture *texture);
/// Whether a texture is GL_TEXTURE_2D with this storage and nearest filters.
::testing::AssertionResult isTarget(const Texture *texture, unsigned int internalFormat, int width, int height);

/// What a pass may change in GL, as it is now.
class GLStateSnapshot
{
public:
    GLStateSnapshot();
    /// Names of what differs, in a fixed order; bindings included.
    QStringList changedSince(const GLStateSnapshot &before) const;

private:
    struct Entry
    {
        const char *name;
        std::vector<double> value;
    };
    std::vector<Entry> _entries;
};

/// Sets every piece of state to a value that would spoil a picture: all tests on and failing, blending
/// on, faces culled, the scissor box and the viewport small, the colour mask half closed. With
/// framebuffer, program, vertex array and textures of a host bound until the end of the scope.
class HostileGLState
{
public:
    HostileGLState();
    ~HostileGLState();
    HostileGLState(const HostileGLState &) = delete;
    HostileGLState &operator=(const HostileGLState &) = delete;

private:
    unsigned int _framebuffers[2] = {};
    unsigned int _texture = 0;
    unsigned int _vertexArray = 0;
};

/// Starts a pass until nothing is new, and checks that another start makes no GL object, allocates no
/// texture or buffer and moves no data.
void expectSteadyFrameCreatesNothing(RenderPass &pass);

/// Checks that a steady frame takes nothing from the heap, what the driver takes left out. Skips where
/// allocations are not counted; the test includes support/allocations.h, so that they are.
#define KVO_EXPECT_STEADY_FRAME_TAKES_NOTHING_FROM_THE_HEAP(pass)                                                      \
    do {                                                                                                               \
        if (!::Brevane::Kvo::Test::allocationsAreCounted())                                                            \
            GTEST_SKIP() << "allocations are not counted in this build";                                               \
        for (int frame = 0; frame < 3; ++frame)                                                                        \
            ::Brevane::Kvo::Test::runFrame(pass);                                                                      \
        const ::Brevane::Kvo::Test::AllocationCounter allocations;                                                     \
        ::Brevane::Kvo::Test::runFrame(pass);                                                                          \
        EXPECT_EQ(allocations.count(), 0);                                                                             \
    } while (false)

/// Gives input 0 another size before each of several frames and checks that each frame allocates
/// exactly \a targets textures, that the old ones go, and that the number of live GL objects stays.
void expectResizingLeaksNothing(RenderPass &pass, int targets);

/// Checks that teardown, teardownContextData and setup make no GL call, and that the next frame makes
/// nothing and hands out the same textures: so it is with a pass that frees nothing before its end.
void expectTeardownKeepsEverything(RenderPass &pass);

/// Runs viewports without pixels through input 0; the fixture fails on a GL error. Outputs stay there.
void expectEmptyViewportsRaiseNoError(RenderPass &pass);

/// Checks that a pass can be made, copied, assigned and destroyed without a GL call.
template <typename Pass>
void expectNoGLCallBeforeStart()
{
    const GlCalls calls;
    {
        Pass one;
        Pass two(one);
        Pass three;
        three = two;
    }
    EXPECT_TRUE(calls.all().empty()) << qPrintable(calls.toString());
}

/// Calls start twice with one size and checks that only the first allocated, \a targets textures.
void expectSecondStartAllocatesNothing(RenderPass &pass, int targets);

} // namespace Brevane::Kvo::Test
