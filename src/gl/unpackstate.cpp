#include "gl/unpackstate.h"

#include <epoxy/gl.h>

namespace Brevane::Kvo {

namespace {

constexpr std::array kUnpackParameters{GL_UNPACK_ALIGNMENT, GL_UNPACK_ROW_LENGTH, GL_UNPACK_SKIP_ROWS,
                                       GL_UNPACK_SKIP_PIXELS, GL_UNPACK_SWAP_BYTES};

} // namespace

DefaultUnpackState::DefaultUnpackState()
{
    for (std::size_t i = 0; i < kUnpackParameters.size(); ++i) {
        glGetIntegerv(kUnpackParameters[i], &_values[i]);
        glPixelStorei(kUnpackParameters[i], i == 0 ? 4 : 0);
    }
    glGetIntegerv(GL_PIXEL_UNPACK_BUFFER_BINDING, &_buffer);
    glBindBuffer(GL_PIXEL_UNPACK_BUFFER, 0);
}

DefaultUnpackState::~DefaultUnpackState()
{
    for (std::size_t i = 0; i < kUnpackParameters.size(); ++i)
        glPixelStorei(kUnpackParameters[i], _values[i]);
    glBindBuffer(GL_PIXEL_UNPACK_BUFFER, GLuint(_buffer));
}

} // namespace Brevane::Kvo
