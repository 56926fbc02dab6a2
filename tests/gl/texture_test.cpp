#include "support/draw.h"
#include "support/gltest.h"
#include "support/messages.h"

#include <gl/guards.h>
#include <gl/opengldevicecontext.h>
#include <gl/texture.h>

#include <epoxy/gl.h>

#include <memory>
#include <thread>
#include <vector>

namespace Brevane::Kvo {

using namespace Test;

namespace {

GLint activeUnit()
{
    GLint unit = 0;
    glGetIntegerv(GL_ACTIVE_TEXTURE, &unit);
    return unit - GL_TEXTURE0;
}

GLuint boundAt(int unit, GLenum query = GL_TEXTURE_BINDING_2D)
{
    const GLint before = activeUnit();
    GLint name = 0;
    glActiveTexture(GLenum(GL_TEXTURE0 + unit));
    glGetIntegerv(query, &name);
    glActiveTexture(GLenum(GL_TEXTURE0 + before));
    return GLuint(name);
}

std::unique_ptr<Texture> emptyTexture(GLenum target = GL_TEXTURE_2D)
{
    auto texture = std::make_unique<Texture>();
    texture->setTarget(target);
    return texture;
}

/// A texture that the host made and bound with plain GL.
struct HostTexture
{
    explicit HostTexture(int unit)
    {
        glGenTextures(1, &name);
        glActiveTexture(GLenum(GL_TEXTURE0 + unit));
        glBindTexture(GL_TEXTURE_2D, name);
    }
    ~HostTexture() { glDeleteTextures(1, &name); }
    GLuint name = 0;
};

} // namespace

class TextureTest : public GLTest
{};

TEST_F(TextureTest, WrapperStartsEmptyAndHasItsNameFromTheFirstBindOn)
{
    Texture texture;
    EXPECT_EQ(texture.textureID(), 0u);
    EXPECT_EQ(texture.unit(), -1);
    EXPECT_EQ(texture.target(), 0u);
    texture.setTarget(GL_TEXTURE_2D_ARRAY);
    EXPECT_EQ(texture.target(), GLenum(GL_TEXTURE_2D_ARRAY));
    ASSERT_TRUE(texture.bind());
    EXPECT_NE(texture.textureID(), 0u);
    EXPECT_EQ(boundAt(texture.unit(), GL_TEXTURE_BINDING_2D_ARRAY), texture.textureID());
    EXPECT_TRUE(texture.unbind());
    EXPECT_EQ(texture.unit(), -1);
    EXPECT_NE(texture.textureID(), 0u);
}

TEST_F(TextureTest, BindWithoutATargetFails)
{
    Texture texture;
    EXPECT_FALSE(texture.bind());
    EXPECT_FALSE(texture.unbind());
    EXPECT_EQ(texture.textureID(), 0u);
}

TEST_F(TextureTest, BindWithoutAContextFails)
{
    Texture texture;
    texture.setTarget(GL_TEXTURE_2D);
    GLContext::doneCurrent();
    EXPECT_FALSE(texture.bind());
    EXPECT_EQ(texture.unit(), -1);
}

TEST_F(TextureTest, EachBoundTextureHasAUnitOfItsOwnWhichIsActive)
{
    std::vector<std::unique_ptr<Texture>> textures;
    for (int i = 0; i < 6; ++i) {
        textures.push_back(emptyTexture());
        ASSERT_TRUE(textures.back()->bind());
        EXPECT_EQ(activeUnit(), textures.back()->unit());
    }
    for (const auto &texture : textures)
        EXPECT_EQ(boundAt(texture->unit()), texture->textureID());
    for (auto at = textures.rbegin(); at != textures.rend(); ++at)
        (*at)->unbind();
}

TEST_F(TextureTest, UnbindGivesBackWhatTheHostHadOnTheUnitAndItsActiveUnit)
{
    const HostTexture host0(0);
    const HostTexture host1(1);
    const HostTexture host5(5);
    ASSERT_EQ(activeUnit(), 5);
    {
        const auto a = emptyTexture();
        const auto b = emptyTexture();
        const AutoBinder boundA(a.get());
        const AutoBinder boundB(b.get());
        EXPECT_NE(a->unit(), b->unit());
    }
    EXPECT_EQ(activeUnit(), 5);
    EXPECT_EQ(boundAt(0), host0.name);
    EXPECT_EQ(boundAt(1), host1.name);
    EXPECT_EQ(boundAt(5), host5.name);
}

TEST_F(TextureTest, UnbindGivesBackWhatTheHostHadInEveryTarget)
{
    struct Place
    {
        GLenum target;
        GLenum query;
        bool isThere = true;
    };
    const int version = epoxy_gl_version();
    const bool hasCubeArrays = version >= 40 || epoxy_has_gl_extension("GL_ARB_texture_cube_map_array");
    const Place places[]{{GL_TEXTURE_1D, GL_TEXTURE_BINDING_1D},
                         {GL_TEXTURE_2D, GL_TEXTURE_BINDING_2D},
                         {GL_TEXTURE_3D, GL_TEXTURE_BINDING_3D},
                         {GL_TEXTURE_1D_ARRAY, GL_TEXTURE_BINDING_1D_ARRAY},
                         {GL_TEXTURE_2D_ARRAY, GL_TEXTURE_BINDING_2D_ARRAY},
                         {GL_TEXTURE_CUBE_MAP, GL_TEXTURE_BINDING_CUBE_MAP},
                         {GL_TEXTURE_CUBE_MAP_ARRAY, GL_TEXTURE_BINDING_CUBE_MAP_ARRAY, hasCubeArrays},
                         {GL_TEXTURE_BUFFER, GL_TEXTURE_BINDING_BUFFER},
                         {GL_TEXTURE_RECTANGLE, GL_TEXTURE_BINDING_RECTANGLE},
                         {GL_TEXTURE_2D_MULTISAMPLE, GL_TEXTURE_BINDING_2D_MULTISAMPLE},
                         {GL_TEXTURE_2D_MULTISAMPLE_ARRAY, GL_TEXTURE_BINDING_2D_MULTISAMPLE_ARRAY}};
    int unit = 0;
    {
        const auto any = emptyTexture();
        any->bind();
        unit = any->unit();
        any->unbind();
    }
    // One of the host's in each of them, all on the unit that is taken first.
    std::vector<GLuint> names;
    glActiveTexture(GLenum(GL_TEXTURE0 + unit));
    for (const Place &place : places) {
        glGenTextures(1, &names.emplace_back());
        if (place.isThere)
            glBindTexture(place.target, names.back());
    }
    for (const Place &place : places) {
        if (!place.isThere)
            continue;
        const auto texture = emptyTexture(place.target);
        ASSERT_TRUE(texture->bind());
        EXPECT_EQ(texture->unit(), unit);
        EXPECT_EQ(boundAt(unit, place.query), texture->textureID());
        texture->unbind();
        EXPECT_EQ(glGetError(), GLenum(GL_NO_ERROR)) << std::hex << place.target;
        for (std::size_t i = 0; i < names.size(); ++i)
            if (places[i].isThere) {
                EXPECT_EQ(boundAt(unit, places[i].query), names[i])
                    << std::hex << place.target << ", " << places[i].target;
            }
    }
    glDeleteTextures(GLsizei(names.size()), names.data());
}

TEST_F(TextureTest, BoundTwiceKeepsItsUnitUntilBothAreUndone)
{
    const HostTexture host(0);
    const auto texture = emptyTexture();
    ASSERT_TRUE(texture->bind());
    const int unit = texture->unit();
    const auto between = emptyTexture();
    ASSERT_TRUE(between->bind());
    ASSERT_TRUE(texture->bind());
    EXPECT_EQ(texture->unit(), unit);
    EXPECT_EQ(activeUnit(), unit) << "a bound texture is the current one of the active unit";
    EXPECT_TRUE(texture->unbind());
    EXPECT_EQ(texture->unit(), unit);
    EXPECT_EQ(boundAt(unit), texture->textureID());
    EXPECT_TRUE(between->unbind());
    EXPECT_TRUE(texture->unbind());
    EXPECT_EQ(texture->unit(), -1);
    EXPECT_EQ(boundAt(0), host.name);
    EXPECT_EQ(activeUnit(), 0);
    EXPECT_FALSE(texture->unbind()) << "there is no bind left to undo";
}

TEST_F(TextureTest, NestedBindOfABoundTextureGivesTheActiveUnitBack)
{
    const auto a = emptyTexture();
    const auto b = emptyTexture();
    const AutoBinder boundA(a.get());
    const AutoBinder boundB(b.get());
    {
        const AutoBinder again(a.get());
        EXPECT_EQ(activeUnit(), a->unit());
    }
    EXPECT_EQ(activeUnit(), b->unit());
}

TEST_F(TextureTest, UnbindingInTheOrderOfBindingLeavesTheHostsStateToo)
{
    const HostTexture host0(0);
    const HostTexture host1(1);
    const HostTexture host7(7);
    const auto a = emptyTexture();
    const auto b = emptyTexture();
    a->bind();
    b->bind();
    a->unbind();
    b->unbind();
    EXPECT_EQ(boundAt(0), host0.name);
    EXPECT_EQ(boundAt(1), host1.name);
    EXPECT_EQ(boundAt(7), host7.name);
}

TEST_F(TextureTest, OutOfUnitsTheBindFailsAndTheOthersStayBound)
{
    GLint units = 0;
    glGetIntegerv(GL_MAX_TEXTURE_IMAGE_UNITS, &units);
    ASSERT_GE(units, 16);
    std::vector<std::unique_ptr<Texture>> textures;
    for (int i = 0; i < std::min(units, 64); ++i) {
        textures.push_back(emptyTexture());
        ASSERT_TRUE(textures.back()->bind()) << i;
    }
    const auto oneTooMany = emptyTexture();
    {
        MessageCapture messages;
        EXPECT_FALSE(oneTooMany->bind());
        EXPECT_FALSE(oneTooMany->bind());
        EXPECT_EQ(messages.count(QtCriticalMsg), 1) << "reported once";
    }
    EXPECT_EQ(oneTooMany->unit(), -1);
    EXPECT_FALSE(oneTooMany->unbind());
    for (const auto &texture : textures)
        EXPECT_EQ(boundAt(texture->unit()), texture->textureID());
    textures.back()->unbind();
    EXPECT_TRUE(oneTooMany->bind()) << "a unit is free again";
    oneTooMany->unbind();
    for (const auto &texture : textures)
        texture->unbind();
}

TEST_F(TextureTest, SameTextureFeedsTwoSamplers)
{
    const auto texture = makeSolidTexture(2, 2, {0.25f, 0.5f, 0, 1});
    const auto program = makeProgram(QStringLiteral("#version 150\n"
                                                    "uniform sampler2D u_A;\n"
                                                    "uniform sampler2D u_B;\n"
                                                    "in vec2 vo_TexCoord;\n"
                                                    "out vec4 out_Color;\n"
                                                    "void main() { out_Color = texture(u_A, vo_TexCoord) + "
                                                    "texture(u_B, vo_TexCoord); }\n"));
    Target target(GL_RGBA32F, 2, 2);
    const AutoBinder first(texture.get());
    const AutoBinder second(texture.get());
    drawScreen(target, program.get(), [&](ShaderProgram *p) {
        EXPECT_TRUE(p->setUniform(QStringLiteral("u_A"), texture->unit()));
        EXPECT_TRUE(p->setUniform(QStringLiteral("u_B"), texture->unit()));
    });
    EXPECT_TRUE(isPixel(target.read(), 1, 1, {0.5, 1, 0, 2}, 0));
}

TEST_F(TextureTest, DestroyingTheWrapperDeletesTheTextureAtOnce)
{
    auto texture = emptyTexture();
    texture->bind();
    texture->unbind();
    const GLuint name = texture->textureID();
    GlCalls calls;
    texture.reset();
    const auto deletions = calls.calls("glDeleteTextures");
    ASSERT_EQ(deletions.size(), 1u);
    EXPECT_EQ(deletions[0].data, std::vector<double>{double(name)});
    EXPECT_FALSE(glIsTexture(name));
}

TEST_F(TextureTest, DestroyingABoundTextureFreesItsUnitAndRestoresTheHosts)
{
    const HostTexture host(0);
    int unit = -1;
    {
        const auto texture = emptyTexture();
        texture->bind();
        texture->bind();
        unit = texture->unit();
    }
    EXPECT_EQ(boundAt(0), host.name);
    EXPECT_EQ(activeUnit(), 0);
    const auto next = emptyTexture();
    next->bind();
    EXPECT_EQ(next->unit(), unit);
    next->unbind();
}

TEST_F(TextureTest, DestroyedWithoutAContextItIsDeletedWhenTheContextIsBack)
{
    auto texture = emptyTexture();
    texture->bind();
    texture->unbind();
    const GLuint name = texture->textureID();
    GLContext::doneCurrent();
    {
        GlCalls calls;
        texture.reset();
        EXPECT_EQ(calls.all().size(), 0u) << "there is no context to call into";
    }
    ASSERT_TRUE(context().makeCurrent());
    EXPECT_TRUE(glIsTexture(name));
    const auto next = emptyTexture();
    next->bind();
    next->unbind();
    EXPECT_TRUE(!glIsTexture(name) || next->textureID() == name);
    GLint alive = 0;
    for (const QString &line : GlCalls::liveObjects())
        alive += line.startsWith(QStringLiteral("texture %1 ").arg(name));
    EXPECT_EQ(alive, next->textureID() == name ? 1 : 0);
}

// A thread that draws nothing may end what another one has drawn with, by turns.
TEST_F(TextureTest, DestroyedInAnotherThreadItIsDeletedByTheNextUseInItsOwn)
{
    auto texture = emptyTexture();
    texture->bind();
    texture->unbind();
    const GLuint name = texture->textureID();
    std::thread([&] { texture.reset(); }).join();
    EXPECT_TRUE(glIsTexture(name));
    ASSERT_TRUE(OpenGLDeviceContext::current());
    EXPECT_FALSE(glIsTexture(name));
    EXPECT_EQ(OpenGLDeviceContext::current()->liveObjects().textures, 0);
}

TEST_F(TextureTest, LabelReachesTheDriverWheneverItIsGiven)
{
    KVO_REQUIRE_EXTENSION("GL_KHR_debug");
    const auto labelOf = [](const Texture &texture) {
        char text[64] = "";
        glGetObjectLabel(GL_TEXTURE, texture.textureID(), sizeof text, nullptr, text);
        return QString::fromUtf8(text);
    };
    Texture early;
    early.setTarget(GL_TEXTURE_2D);
    early.setLabel(QStringLiteral("early"));
    early.bind();
    EXPECT_EQ(labelOf(early), QStringLiteral("early"));
    early.setLabel(QStringLiteral("renamed"));
    EXPECT_EQ(labelOf(early), QStringLiteral("renamed"));
    EXPECT_EQ(early.label(), QStringLiteral("renamed"));
    early.unbind();
}

TEST_F(TextureTest, ReadOnlyIsRemembered)
{
    Texture texture;
    EXPECT_FALSE(texture.isReadOnly());
    texture.setReadOnly();
    EXPECT_TRUE(texture.isReadOnly());
}

TEST_F(TextureTest, BindingInASteadyStateMakesNothing)
{
    const auto texture = makeSolidTexture(2, 2, {1, 1, 1, 1});
    GlCalls calls;
    for (int i = 0; i < 3; ++i)
        const AutoBinder bound(texture.get());
    EXPECT_EQ(calls.created(), 0);
    EXPECT_EQ(calls.transfers(), 0);
    EXPECT_EQ(calls.count("glBindTexture"), 6);
}

TEST_F(TextureTest, FiltersAndWrapsAreThoseOfEveryDirectionThatTheTargetHas)
{
    for (const GLenum target : {GL_TEXTURE_2D, GL_TEXTURE_2D_ARRAY, GL_TEXTURE_CUBE_MAP, GL_TEXTURE_3D}) {
        Texture texture;
        texture.setTarget(target);
        const AutoBinder bound(&texture);
        const auto parameter = [target](GLenum name) {
            GLint value = 0;
            glGetTexParameteriv(target, name, &value);
            return GLenum(value);
        };
        texture.setFilter(GL_NEAREST);
        EXPECT_EQ(parameter(GL_TEXTURE_MIN_FILTER), GLenum(GL_NEAREST));
        EXPECT_EQ(parameter(GL_TEXTURE_MAG_FILTER), GLenum(GL_NEAREST));
        texture.setFilter(GL_LINEAR_MIPMAP_NEAREST, GL_LINEAR);
        EXPECT_EQ(parameter(GL_TEXTURE_MIN_FILTER), GLenum(GL_LINEAR_MIPMAP_NEAREST));
        EXPECT_EQ(parameter(GL_TEXTURE_MAG_FILTER), GLenum(GL_LINEAR));
        texture.setWrap(GL_MIRRORED_REPEAT);
        EXPECT_EQ(parameter(GL_TEXTURE_WRAP_S), GLenum(GL_MIRRORED_REPEAT));
        EXPECT_EQ(parameter(GL_TEXTURE_WRAP_T), GLenum(GL_MIRRORED_REPEAT));
        const bool hasThird = target == GL_TEXTURE_CUBE_MAP || target == GL_TEXTURE_3D;
        EXPECT_EQ(parameter(GL_TEXTURE_WRAP_R), GLenum(hasThird ? GL_MIRRORED_REPEAT : GL_REPEAT)) << target;
    }
}

} // namespace Brevane::Kvo
