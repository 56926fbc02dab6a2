#include "gl/pixelstore.h"

#include "gl/contextstate.h"

#include <epoxy/gl.h>

namespace Brevane::Kvo {

namespace {

// Without those of compressed blocks: the library moves no compressed pixels.
constexpr std::array<GLenum, 16> kParameters{
    GL_UNPACK_ALIGNMENT,   GL_PACK_ALIGNMENT,    GL_UNPACK_ROW_LENGTH, GL_UNPACK_SKIP_ROWS,
    GL_UNPACK_SKIP_PIXELS, GL_UNPACK_SWAP_BYTES, GL_UNPACK_LSB_FIRST,  GL_UNPACK_IMAGE_HEIGHT,
    GL_UNPACK_SKIP_IMAGES, GL_PACK_ROW_LENGTH,   GL_PACK_SKIP_ROWS,    GL_PACK_SKIP_PIXELS,
    GL_PACK_SWAP_BYTES,    GL_PACK_LSB_FIRST,    GL_PACK_IMAGE_HEIGHT, GL_PACK_SKIP_IMAGES};

constexpr std::array<BindingPoint, 2> kBuffers{BindingPoint::UnpackBuffer, BindingPoint::PackBuffer};
constexpr int kDefaultAlignment = 4;

int wanted(std::size_t parameter, int alignment)
{
    return parameter < 2 ? alignment : 0;
}

} // namespace

DefaultPixelStore::DefaultPixelStore(int alignment) : _alignment(alignment)
{
    ContextState *const state = ContextState::current();
    const bool isKnown = state && state->bindings.isPixelStoreKnown();
    for (std::size_t i = 0; i < kParameters.size(); ++i) {
        if (isKnown)
            _parameters[i] = wanted(i, kDefaultAlignment);
        else
            glGetIntegerv(kParameters[i], &_parameters[i]);
        if (_parameters[i] != wanted(i, _alignment))
            glPixelStorei(kParameters[i], wanted(i, _alignment));
    }
    if (isKnown)
        _clampRead = GL_FIXED_ONLY;
    else
        glGetIntegerv(GL_CLAMP_READ_COLOR, &_clampRead);
    if (_clampRead == GL_TRUE)
        glClampColor(GL_CLAMP_READ_COLOR, GL_FIXED_ONLY);
    if (!state)
        return;
    for (std::size_t i = 0; i < kBuffers.size(); ++i)
        _buffers[i] = state->bindings.take(kBuffers[i], 0);
    // Another alignment than the default one is set until the end.
    state->bindings.knowPixelStore(isKnown && _alignment == kDefaultAlignment);
}

void DefaultPixelStore::resume() const
{
    for (std::size_t i = 0; i < kParameters.size(); ++i)
        glPixelStorei(kParameters[i], wanted(i, _alignment));
    for (const GLenum target : {GL_PIXEL_UNPACK_BUFFER, GL_PIXEL_PACK_BUFFER})
        glBindBuffer(target, 0);
    glClampColor(GL_CLAMP_READ_COLOR, GL_FIXED_ONLY);
}

DefaultPixelStore::~DefaultPixelStore()
{
    bool wasDefault = _clampRead != GL_TRUE;
    for (std::size_t i = 0; i < kParameters.size(); ++i) {
        if (_parameters[i] != wanted(i, _alignment))
            glPixelStorei(kParameters[i], _parameters[i]);
        wasDefault = wasDefault && _parameters[i] == wanted(i, kDefaultAlignment);
    }
    if (_clampRead == GL_TRUE)
        glClampColor(GL_CLAMP_READ_COLOR, GL_TRUE);
    ContextState *const state = ContextState::current();
    if (!state)
        return;
    for (std::size_t i = 0; i < kBuffers.size(); ++i)
        state->bindings.giveBack(kBuffers[i], _buffers[i]);
    state->bindings.knowPixelStore(wasDefault);
}

} // namespace Brevane::Kvo
