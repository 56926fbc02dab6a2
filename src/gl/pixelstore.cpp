#include "gl/pixelstore.h"

#include <epoxy/gl.h>

namespace Brevane::Kvo {

namespace {

// Without those of compressed blocks: the library moves no compressed pixels.
constexpr std::array<GLenum, 16> kParameters{
    GL_UNPACK_ALIGNMENT,   GL_PACK_ALIGNMENT,    GL_UNPACK_ROW_LENGTH, GL_UNPACK_SKIP_ROWS,
    GL_UNPACK_SKIP_PIXELS, GL_UNPACK_SWAP_BYTES, GL_UNPACK_LSB_FIRST,  GL_UNPACK_IMAGE_HEIGHT,
    GL_UNPACK_SKIP_IMAGES, GL_PACK_ROW_LENGTH,   GL_PACK_SKIP_ROWS,    GL_PACK_SKIP_PIXELS,
    GL_PACK_SWAP_BYTES,    GL_PACK_LSB_FIRST,    GL_PACK_IMAGE_HEIGHT, GL_PACK_SKIP_IMAGES};

constexpr std::array<GLenum, 2> kBuffers{GL_PIXEL_UNPACK_BUFFER, GL_PIXEL_PACK_BUFFER};
constexpr std::array<GLenum, 2> kBufferBindings{GL_PIXEL_UNPACK_BUFFER_BINDING, GL_PIXEL_PACK_BUFFER_BINDING};

int wanted(std::size_t parameter, int alignment)
{
    return parameter < 2 ? alignment : 0;
}

} // namespace

DefaultPixelStore::DefaultPixelStore(int alignment) : _alignment(alignment)
{
    for (std::size_t i = 0; i < kParameters.size(); ++i) {
        glGetIntegerv(kParameters[i], &_parameters[i]);
        if (_parameters[i] != wanted(i, _alignment))
            glPixelStorei(kParameters[i], wanted(i, _alignment));
    }
    for (std::size_t i = 0; i < kBuffers.size(); ++i) {
        glGetIntegerv(kBufferBindings[i], &_buffers[i]);
        if (_buffers[i])
            glBindBuffer(kBuffers[i], 0);
    }
    glGetIntegerv(GL_CLAMP_READ_COLOR, &_clampRead);
    if (_clampRead == GL_TRUE)
        glClampColor(GL_CLAMP_READ_COLOR, GL_FIXED_ONLY);
}

DefaultPixelStore::~DefaultPixelStore()
{
    for (std::size_t i = 0; i < kParameters.size(); ++i) {
        if (_parameters[i] != wanted(i, _alignment))
            glPixelStorei(kParameters[i], _parameters[i]);
    }
    for (std::size_t i = 0; i < kBuffers.size(); ++i) {
        if (_buffers[i])
            glBindBuffer(kBuffers[i], GLuint(_buffers[i]));
    }
    if (_clampRead == GL_TRUE)
        glClampColor(GL_CLAMP_READ_COLOR, GL_TRUE);
}

} // namespace Brevane::Kvo
