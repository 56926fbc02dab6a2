#pragma once

#include "gl/export.h"
#include "gl/opengldevicecontext.h"

namespace Brevane::Kvo {

class Texture;

/// What to ask GL for the texture that is bound to a target of the active unit.
unsigned int textureBindingOf(unsigned int target);

/// Binds a texture for its storage and sampling to be set: as AutoBinder does, and where all units are taken
/// on the active one, which has its texture again at the end of the scope. Null does nothing.
class KVO_GL_EXPORT StorageBinder
{
public:
    /// Whether the storage is set, or stays as it is.
    enum Storage { Sets, Keeps };
    explicit StorageBinder(Texture *texture, Storage storage = Sets);
    ~StorageBinder();
    StorageBinder(const StorageBinder &) = delete;
    StorageBinder &operator=(const StorageBinder &) = delete;

    /// False where the texture cannot be used: whatever is bound then is another one.
    bool isBound() const { return _bound; }

private:
    Texture *_texture;
    bool _bound = false;
    bool _onActiveUnit = false;
    int _unit = -1;
    unsigned int _previous = 0;
};

/// A use of a texture by the library, for the scope: what becomes of its content in it is known. Any other use, of
/// its GL name or between bind and unbind, may be a host that writes to it, then or at any time later.
class KVO_GL_EXPORT OwnUse
{
public:
    explicit OwnUse(Texture *texture);
    ~OwnUse();
    OwnUse(const OwnUse &) = delete;
    OwnUse &operator=(const OwnUse &) = delete;

    /// Takes all uses so far, as those that made the texture, for the library's.
    static void begin(Texture *texture);
    /// Whether others than the library have used the texture since begin.
    bool hadOthers() const { return _hadOthers; }

private:
    Texture *_texture;
    bool _hadOthers;
};

/// The limits of the current context, all 0 without one. Asks GL nothing, unlike OpenGLDeviceContext::current.
KVO_GL_EXPORT GLLimits currentLimits();

/// What an image takes: a 2D one, or an array where it has layers.
struct ImageSize
{
    int width = 0;
    int height = 0;
    int layers = -1; ///< -1: a 2D image.
};

/// Gives the bound GL_TEXTURE_2D or GL_TEXTURE_2D_ARRAY its level 0. False where the driver has no room for
/// it, with one message per size; no GL error of this is left for the host to find, and the level is then a
/// single texel per layer, so that whoever draws into it draws without an error.
KVO_GL_EXPORT bool allocateImage(unsigned int internalFormat, const ImageSize &size, unsigned int format,
                                 unsigned int type, const void *pixels = nullptr);

} // namespace Brevane::Kvo
