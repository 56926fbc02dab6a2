#include "support/gltest.h"

#include <gl/guards.h>
#include <gl/opengldevicecontext.h>
#include <gl/texture.h>

#include <epoxy/gl.h>

#include <optional>

namespace Brevane::Kvo {

using namespace Test;

namespace {

struct CountingBindable : Bindable
{
    bool bind() override
    {
        ++binds;
        return works;
    }
    bool unbind() override
    {
        ++unbinds;
        return works;
    }
    bool works = true;
    int binds = 0;
    int unbinds = 0;
};

} // namespace

class GuardsTest : public GLTest
{};

TEST_F(GuardsTest, AutoBinderBindsForItsScope)
{
    CountingBindable bindable;
    {
        const AutoBinder guard(&bindable);
        EXPECT_TRUE(guard.isBound());
        EXPECT_EQ(bindable.binds, 1);
        EXPECT_EQ(bindable.unbinds, 0);
    }
    EXPECT_EQ(bindable.binds, 1);
    EXPECT_EQ(bindable.unbinds, 1);
}

TEST_F(GuardsTest, AutoBinderOfANullPointerDoesNothing)
{
    GlCalls calls;
    {
        const AutoBinder raw(static_cast<Bindable *>(nullptr));
        const AutoBinder texture(static_cast<Texture *>(nullptr));
        const AutoBinder shared{QSharedPointer<Bindable>()};
        EXPECT_FALSE(raw.isBound());
        EXPECT_FALSE(texture.isBound());
        EXPECT_FALSE(shared.isBound());
    }
    EXPECT_EQ(calls.all().size(), 0u) << qPrintable(calls.toString());
}

TEST_F(GuardsTest, SharedFormKeepsTheObjectAliveForTheScope)
{
    auto shared = QSharedPointer<CountingBindable>::create();
    const QWeakPointer<CountingBindable> weak = shared;
    {
        const AutoBinder guard(shared);
        shared.reset();
        ASSERT_TRUE(weak.toStrongRef());
        EXPECT_EQ(weak.toStrongRef()->binds, 1);
    }
    EXPECT_FALSE(weak.toStrongRef());
}

TEST_F(GuardsTest, AutoBinderSaysWhetherTheBindWorked)
{
    CountingBindable broken;
    broken.works = false;
    const AutoBinder guard(&broken);
    EXPECT_FALSE(guard.isBound());
}

TEST_F(GuardsTest, AutoEnablerEnablesAndPutsBackWhatItFound)
{
    for (const bool before : {false, true}) {
        before ? glEnable(GL_DEPTH_TEST) : glDisable(GL_DEPTH_TEST);
        {
            const AutoEnabler guard(GL_DEPTH_TEST);
            EXPECT_TRUE(glIsEnabled(GL_DEPTH_TEST));
        }
        EXPECT_EQ(bool(glIsEnabled(GL_DEPTH_TEST)), before);
    }
}

TEST_F(GuardsTest, AutoDisablerDisablesAndPutsBackWhatItFound)
{
    for (const bool before : {false, true}) {
        before ? glEnable(GL_BLEND) : glDisable(GL_BLEND);
        {
            const AutoDisabler guard(GL_BLEND);
            EXPECT_FALSE(glIsEnabled(GL_BLEND));
        }
        EXPECT_EQ(bool(glIsEnabled(GL_BLEND)), before);
    }
}

TEST_F(GuardsTest, CapabilityGuardsNest)
{
    {
        const AutoEnabler outer(GL_CULL_FACE);
        {
            const AutoDisabler middle(GL_CULL_FACE);
            {
                const AutoEnabler inner(GL_CULL_FACE);
                EXPECT_TRUE(glIsEnabled(GL_CULL_FACE));
            }
            EXPECT_FALSE(glIsEnabled(GL_CULL_FACE));
        }
        EXPECT_TRUE(glIsEnabled(GL_CULL_FACE));
    }
    EXPECT_FALSE(glIsEnabled(GL_CULL_FACE));
}

TEST_F(GuardsTest, CapabilityGuardPutsBackWhatItFoundAlsoWhenChangedInside)
{
    {
        const AutoEnabler guard(GL_SCISSOR_TEST);
        glDisable(GL_SCISSOR_TEST);
    }
    EXPECT_FALSE(glIsEnabled(GL_SCISSOR_TEST));
    {
        const AutoDisabler guard(GL_SCISSOR_TEST);
        glEnable(GL_SCISSOR_TEST);
    }
    EXPECT_FALSE(glIsEnabled(GL_SCISSOR_TEST));
}

// Blending is a switch per draw buffer, the scissor test one per viewport where a context has several.
TEST_F(GuardsTest, CapabilityGuardsPutBackEverySwitchOfACapability)
{
    const bool hasViewports = epoxy_gl_version() >= 41 || epoxy_has_gl_extension("GL_ARB_viewport_array");
    for (const GLenum capability : {GLenum(GL_BLEND), GLenum(GL_SCISSOR_TEST)}) {
        const GLuint count = capability == GL_BLEND ? 8 : hasViewports ? 16 : 1;
        for (const unsigned bits : {0u, 1u, 4u, 0x80u, 0xfeu, 0xffffu}) {
            const auto wanted = [&](GLuint i) { return bool(bits >> i & 1u); };
            const auto set = [&] {
                for (GLuint i = 0; i < count; ++i) {
                    if (capability == GL_SCISSOR_TEST && !hasViewports)
                        wanted(0) ? glEnable(capability) : glDisable(capability);
                    else
                        wanted(i) ? glEnablei(capability, i) : glDisablei(capability, i);
                }
            };
            const auto is = [&](GLuint i) {
                return bool(count == 1 ? glIsEnabled(capability) : glIsEnabledi(capability, i));
            };
            for (const bool enables : {true, false}) {
                set();
                std::optional<AutoEnabler> on;
                std::optional<AutoDisabler> off;
                if (enables)
                    on.emplace(capability);
                else
                    off.emplace(capability);
                for (GLuint i = 0; i < count; ++i)
                    EXPECT_EQ(is(i), enables) << std::hex << capability << ", " << bits << ", " << i;
                on.reset();
                off.reset();
                for (GLuint i = 0; i < count; ++i)
                    EXPECT_EQ(is(i), wanted(i)) << std::hex << capability << ", " << bits << ", " << i;
            }
        }
        glDisable(capability);
    }
    EXPECT_EQ(glGetError(), GLenum(GL_NO_ERROR));
}

} // namespace Brevane::Kvo
