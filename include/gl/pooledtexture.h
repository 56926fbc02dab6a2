#pragma once

#include "gl/export.h"
#include "gl/held.h"

namespace Brevane::Kvo {

class Texture;

/// A reference on a texture of the pool that a pass keeps across frames. Copies have a reference each, and
/// each gives back its own.
class KVO_GL_EXPORT PooledTexture
{
public:
    PooledTexture() = default;
    /// Takes over the reference that TextureManager::tempTexture gave.
    explicit PooledTexture(Texture *texture);
    /// Shares the texture, by count.
    PooledTexture(const PooledTexture &other);
    PooledTexture &operator=(const PooledTexture &other);
    ~PooledTexture();

    /// Null in another share group than the texture's, and when that is gone.
    operator Texture *() const;

private:
    Held<Texture> _texture;
};

} // namespace Brevane::Kvo
