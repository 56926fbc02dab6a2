#include "support/image.h"

#include "support/glcalls.h"

#include <gl/texture.h>

#include <QDir>

#include <epoxy/gl.h>

namespace Brevane::Kvo::Test {

namespace {

/// Puts a texture's layer into a framebuffer of its own for reading, and restores everything after.
class ReadTarget
{
public:
    ReadTarget(GLuint name, GLenum target, GLenum attachment, int level, int layer)
    {
        glGetIntegerv(GL_READ_FRAMEBUFFER_BINDING, &_framebuffer);
        glGetIntegerv(GL_PACK_ALIGNMENT, &_alignment);
        glGetIntegerv(GL_PIXEL_PACK_BUFFER_BINDING, &_packBuffer);
        glBindBuffer(GL_PIXEL_PACK_BUFFER, 0);
        glPixelStorei(GL_PACK_ALIGNMENT, 1);
        sizeOf(name, target, level, layer);
        if (width == 0 || height == 0)
            return;
        glGenFramebuffers(1, &_own);
        glBindFramebuffer(GL_READ_FRAMEBUFFER, _own);
        if (target == GL_TEXTURE_2D)
            glFramebufferTexture2D(GL_READ_FRAMEBUFFER, attachment, GL_TEXTURE_2D, name, level);
        else if (target == GL_TEXTURE_CUBE_MAP)
            glFramebufferTexture2D(GL_READ_FRAMEBUFFER, attachment, GL_TEXTURE_CUBE_MAP_POSITIVE_X + GLenum(layer),
                                   name, level);
        else
            glFramebufferTextureLayer(GL_READ_FRAMEBUFFER, attachment, name, level, layer);
        if (attachment == GL_COLOR_ATTACHMENT0)
            glReadBuffer(GL_COLOR_ATTACHMENT0);
        else
            glReadBuffer(GL_NONE);
        complete = glCheckFramebufferStatus(GL_READ_FRAMEBUFFER) == GL_FRAMEBUFFER_COMPLETE;
        EXPECT_TRUE(complete) << "this texture cannot be read back";
    }

    ~ReadTarget()
    {
        glBindFramebuffer(GL_READ_FRAMEBUFFER, GLuint(_framebuffer));
        glDeleteFramebuffers(1, &_own);
        glPixelStorei(GL_PACK_ALIGNMENT, _alignment);
        glBindBuffer(GL_PIXEL_PACK_BUFFER, GLuint(_packBuffer));
    }

    int width = 0;
    int height = 0;
    bool complete = false;

private:
    void sizeOf(GLuint name, GLenum target, int level, int layer)
    {
        GLenum binding = GL_TEXTURE_BINDING_2D;
        GLenum image = target;
        if (target == GL_TEXTURE_2D_ARRAY)
            binding = GL_TEXTURE_BINDING_2D_ARRAY;
        else if (target == GL_TEXTURE_3D)
            binding = GL_TEXTURE_BINDING_3D;
        else if (target == GL_TEXTURE_CUBE_MAP) {
            binding = GL_TEXTURE_BINDING_CUBE_MAP;
            image = GL_TEXTURE_CUBE_MAP_POSITIVE_X + GLenum(layer); // faces may differ
        }
        GLint previous = 0;
        glGetIntegerv(binding, &previous);
        glBindTexture(target, name);
        glGetTexLevelParameteriv(image, level, GL_TEXTURE_WIDTH, &width);
        glGetTexLevelParameteriv(image, level, GL_TEXTURE_HEIGHT, &height);
        glBindTexture(target, GLuint(previous));
    }

    GLint _framebuffer = 0;
    GLint _alignment = 4;
    GLint _packBuffer = 0;
    GLuint _own = 0;
};

template <typename T>
Image<T> readSingle(GLuint name, GLenum target, GLenum attachment, GLenum format, GLenum type, int level, int layer)
{
    const GlCalls::Pause pause;
    const ReadTarget source(name, target, attachment, level, layer);
    if (!source.complete)
        return Image<T>();
    Image<T> image(source.width, source.height);
    QVector<T> values(image.pixels.size());
    glReadPixels(0, 0, image.width, image.height, format, type, values.data());
    for (qsizetype i = 0; i < values.size(); ++i)
        image.pixels[i] = {values[i], T(0), T(0), T(1)};
    return image;
}

template <typename T>
constexpr GLenum formatFor()
{
    return std::is_same_v<T, quint32> || std::is_same_v<T, qint32> ? GL_RGBA_INTEGER : GL_RGBA;
}

template <typename T>
constexpr GLenum typeFor()
{
    return std::is_same_v<T, float>    ? GL_FLOAT
           : std::is_same_v<T, quint8> ? GL_UNSIGNED_BYTE
           : std::is_same_v<T, qint32> ? GL_INT
                                       : GL_UNSIGNED_INT;
}

} // namespace

template <typename T>
Image<T> readTexture(unsigned int name, unsigned int target, int level, int layer)
{
    const GlCalls::Pause pause;
    const ReadTarget source(name, target, GL_COLOR_ATTACHMENT0, level, layer);
    if (!source.complete)
        return Image<T>();
    Image<T> image(source.width, source.height);
    glReadPixels(0, 0, image.width, image.height, formatFor<T>(), typeFor<T>(), image.pixels.data());
    return image;
}

template <typename T>
Image<T> readTexture(const Texture *texture, int level, int layer)
{
    if (!texture || texture->textureID() == 0) {
        ADD_FAILURE() << "there is no texture to read";
        return Image<T>();
    }
    return readTexture<T>(texture->textureID(), texture->target(), level, layer);
}

template Image<float> readTexture<float>(unsigned int, unsigned int, int, int);
template Image<quint8> readTexture<quint8>(unsigned int, unsigned int, int, int);
template Image<quint32> readTexture<quint32>(unsigned int, unsigned int, int, int);
template Image<qint32> readTexture<qint32>(unsigned int, unsigned int, int, int);
template Image<float> readTexture<float>(const Texture *, int, int);
template Image<quint8> readTexture<quint8>(const Texture *, int, int);
template Image<quint32> readTexture<quint32>(const Texture *, int, int);
template Image<qint32> readTexture<qint32>(const Texture *, int, int);

Image<float> readDepth(const Texture *texture, int level, int layer)
{
    if (!texture || texture->textureID() == 0) {
        ADD_FAILURE() << "there is no texture to read";
        return Image<float>();
    }
    return readSingle<float>(texture->textureID(), texture->target(), GL_DEPTH_ATTACHMENT, GL_DEPTH_COMPONENT, GL_FLOAT,
                             level, layer);
}

Image<quint8> readStencil(const Texture *texture)
{
    if (!texture || texture->textureID() == 0) {
        ADD_FAILURE() << "there is no texture to read";
        return Image<quint8>();
    }
    return readSingle<quint8>(texture->textureID(), texture->target(), GL_DEPTH_STENCIL_ATTACHMENT, GL_STENCIL_INDEX,
                              GL_UNSIGNED_BYTE, 0, 0);
}

Image<float> readFramebuffer(int x, int y, int width, int height)
{
    const GlCalls::Pause pause;
    Image<float> image(width, height);
    glReadPixels(x, y, width, height, GL_RGBA, GL_FLOAT, image.pixels.data());
    return image;
}

QString testOutputPath(const QString &name)
{
    const auto *info = ::testing::UnitTest::GetInstance()->current_test_info();
    QString stem = info ? QString::fromLatin1(info->test_suite_name()) + u'.' + QString::fromLatin1(info->name())
                        : QStringLiteral("image");
    stem.replace(u'/', u'-');
    if (!name.isEmpty())
        stem += u'.' + name;
    return QStringLiteral(KVO_TEST_OUTPUT_DIR "/") + stem;
}

void saveImages(const QString &name, const QImage &actual, const QImage &expected, const QImage &difference)
{
    QDir().mkpath(QStringLiteral(KVO_TEST_OUTPUT_DIR));
    const QString path = testOutputPath(name);
    actual.save(path + QStringLiteral(".actual.png"));
    expected.save(path + QStringLiteral(".expected.png"));
    difference.save(path + QStringLiteral(".difference.png"));
}

} // namespace Brevane::Kvo::Test
