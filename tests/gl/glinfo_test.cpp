#include "support/gltest.h"

#include <gl/glinfo.h>
#include <gl/texturemanager.h>

#include <epoxy/gl.h>

#include <algorithm>
#include <iterator>

namespace Brevane::Kvo {

using namespace Test;

class GLInfoTest : public GLTest
{};

TEST_F(GLInfoTest, ExtensionIsFoundWithAndWithoutThePrefix)
{
    GLint count = 0;
    glGetIntegerv(GL_NUM_EXTENSIONS, &count);
    ASSERT_GT(count, 0);
    for (GLint i = 0; i < count; ++i) {
        const char *name = reinterpret_cast<const char *>(glGetStringi(GL_EXTENSIONS, GLuint(i)));
        EXPECT_TRUE(hasGLExtension(name)) << name;
        EXPECT_TRUE(hasGLExtension(name + 3)) << name + 3;
    }
}

TEST_F(GLInfoTest, ExtensionThatDoesNotExistIsNotFound)
{
    EXPECT_FALSE(hasGLExtension("GL_KVO_nothing"));
    EXPECT_FALSE(hasGLExtension("KVO_nothing"));
    EXPECT_FALSE(hasGLExtension("GL_"));
    EXPECT_FALSE(hasGLExtension(""));
    EXPECT_FALSE(hasGLExtension(nullptr));
}

TEST_F(GLInfoTest, ExtensionsThatTheSetUpMasksAreNotFound)
{
    // in the other set-ups the driver has them, or does not; the library must agree with GL either way
    for (const char *name : {"GL_ARB_shader_image_load_store", "GL_ARB_shader_viewport_layer_array",
                             "GL_ARB_multi_draw_indirect", "GL_ARB_base_instance"}) {
        bool listed = false;
        GLint count = 0;
        glGetIntegerv(GL_NUM_EXTENSIONS, &count);
        for (GLint i = 0; i < count; ++i)
            listed =
                listed || qstrcmp(reinterpret_cast<const char *>(glGetStringi(GL_EXTENSIONS, GLuint(i))), name) == 0;
        EXPECT_EQ(hasGLExtension(name), listed) << name;
    }
}

TEST_F(GLInfoTest, NoContextHasNoExtensions)
{
    GLContext::doneCurrent();
    EXPECT_FALSE(hasGLExtension("GL_ARB_framebuffer_object"));
}

TEST_F(GLInfoTest, FormatAndTypeAreTakenByTheDriverForEveryPoolFormat)
{
    GLuint texture = 0;
    glGenTextures(1, &texture);
    glBindTexture(GL_TEXTURE_2D, texture);
    for (int number = 0; number <= 22; ++number) {
        const GLenum internalFormat = internalFormatOf(TextureFormat(number));
        glTexImage2D(GL_TEXTURE_2D, 0, GLint(internalFormat), 4, 4, 0, formatFromInternalFormat(internalFormat),
                     typeFromInternalFormat(internalFormat), nullptr);
        EXPECT_EQ(glGetError(), GLenum(GL_NO_ERROR)) << number;
        EXPECT_GT(bytesPerTexel(internalFormat), 0) << number;
    }
    glDeleteTextures(1, &texture);
}

// What an image of this internal format has, by what GL tells of its channels. None for compressed ones, of which
// the size of a channel is an estimate.
GLenum formatByChannels()
{
    const auto tell = [](GLenum name) {
        GLint value = 0;
        glGetTexLevelParameteriv(GL_TEXTURE_2D, 0, name, &value);
        return value;
    };
    if (tell(GL_TEXTURE_COMPRESSED) != 0)
        return GL_NONE;
    const bool hasStencil = tell(GL_TEXTURE_STENCIL_SIZE) > 0;
    if (tell(GL_TEXTURE_DEPTH_SIZE) > 0)
        return hasStencil ? GL_DEPTH_STENCIL : GL_DEPTH_COMPONENT;
    if (hasStencil)
        return GL_STENCIL_INDEX;
    const GLint type = tell(GL_TEXTURE_RED_TYPE);
    const bool isInteger = type == GL_INT || type == GL_UNSIGNED_INT;
    if (tell(GL_TEXTURE_ALPHA_SIZE) > 0)
        return isInteger ? GL_RGBA_INTEGER : GL_RGBA;
    if (tell(GL_TEXTURE_BLUE_SIZE) > 0)
        return isInteger ? GL_RGB_INTEGER : GL_RGB;
    if (tell(GL_TEXTURE_GREEN_SIZE) > 0)
        return isInteger ? GL_RG_INTEGER : GL_RG;
    return isInteger ? GL_RED_INTEGER : GL_RED;
}

// Every number that there is, not those that we thought of: what a host's texture may have, sized or not.
TEST_F(GLInfoTest, EveryInternalFormatOfTheDriverHasItsPixelFormat)
{
    const ExpectedGLErrors expected; // most numbers are none
    GLuint texture = 0;
    glGenTextures(1, &texture);
    glBindTexture(GL_TEXTURE_2D, texture);
    struct Pixels
    {
        GLenum format;
        GLenum type;
    };
    const Pixels kinds[] = {{GL_RGBA, GL_UNSIGNED_BYTE},
                            {GL_RGBA_INTEGER, GL_UNSIGNED_BYTE},
                            {GL_DEPTH_COMPONENT, GL_FLOAT},
                            {GL_DEPTH_STENCIL, GL_UNSIGNED_INT_24_8},
                            {GL_STENCIL_INDEX, GL_UNSIGNED_BYTE}};
    const auto isTaken = [](GLenum internalFormat, GLenum format, GLenum type) {
        glTexImage2D(GL_TEXTURE_2D, 0, GLint(internalFormat), 4, 4, 0, format, type, nullptr);
        return glGetError() == GL_NO_ERROR;
    };
    int formats = 0;
    for (GLenum number = 1; number <= 0xffff; ++number) {
        if (std::none_of(std::begin(kinds), std::end(kinds),
                         [&](const Pixels &kind) { return isTaken(number, kind.format, kind.type); }))
            continue;
        ++formats;
        EXPECT_TRUE(isTaken(number, formatFromInternalFormat(number), typeFromInternalFormat(number)))
            << std::hex << number;
        if (const GLenum format = formatByChannels(); format != GL_NONE) {
            EXPECT_EQ(formatFromInternalFormat(number), format) << std::hex << number;
        }
    }
    EXPECT_GE(formats, 60); // of OpenGL 3.2
    glDeleteTextures(1, &texture);
}

TEST_F(GLInfoTest, FormatsThatPassesNameHaveTheirPixelFormat)
{
    struct Row
    {
        GLenum internalFormat;
        GLenum format;
        GLenum type;
        int bytes;
    };
    for (const Row &row :
         {Row{GL_RGBA32F, GL_RGBA, GL_FLOAT, 16}, Row{GL_RG32F, GL_RG, GL_FLOAT, 8},
          Row{GL_R32UI, GL_RED_INTEGER, GL_UNSIGNED_INT, 4}, Row{GL_RGBA32UI, GL_RGBA_INTEGER, GL_UNSIGNED_INT, 16},
          Row{GL_DEPTH_COMPONENT32F, GL_DEPTH_COMPONENT, GL_FLOAT, 4},
          Row{GL_DEPTH24_STENCIL8, GL_DEPTH_STENCIL, GL_UNSIGNED_INT_24_8, 4},
          Row{GL_RGBA8, GL_RGBA, GL_UNSIGNED_BYTE, 4}, Row{GL_R8, GL_RED, GL_UNSIGNED_BYTE, 1},
          Row{0x1234, GL_RGBA, GL_UNSIGNED_BYTE, 4}}) {
        EXPECT_EQ(formatFromInternalFormat(row.internalFormat), row.format) << row.internalFormat;
        EXPECT_EQ(typeFromInternalFormat(row.internalFormat), row.type) << row.internalFormat;
        EXPECT_EQ(bytesPerTexel(row.internalFormat), row.bytes) << row.internalFormat;
    }
}

} // namespace Brevane::Kvo
