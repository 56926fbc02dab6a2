#pragma once

#include "gl/export.h"
#include "gl/opengldevicecontext.h"

#include <QString>

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

/// Takes what errors there are, and says whether the driver had no memory: once before an allocation, since GL keeps
/// the first error only, and once after it. Not without end: a context that is lost may go on telling so.
KVO_GL_EXPORT bool takeErrors();

/// What an image takes: a 2D one, or an array where it has layers.
struct ImageSize
{
    int width = 0;
    int height = 0;
    int layers = -1; ///< -1: a 2D image.
};

/// Gives the bound GL_TEXTURE_2D or GL_TEXTURE_2D_ARRAY its level 0. False where the driver has no room for
/// it, with one message per size and name, which says whom it is for: without a name, PoolTaker's. No GL error of this
/// is left for the host to find, and the level is then a single texel per layer, so that whoever draws into it draws
/// without an error.
KVO_GL_EXPORT bool allocateImage(unsigned int internalFormat, const ImageSize &size, unsigned int format,
                                 unsigned int type, const void *pixels = nullptr, const QString &name = QString());

/// The same for a face of a cube map or another level that glTexImage2D is called for by itself: whether the call
/// has made it, with the error of GL taken that says so. \a name is said once.
KVO_GL_EXPORT bool hasLevel(unsigned int target, int width, const QString &name);

} // namespace Brevane::Kvo
