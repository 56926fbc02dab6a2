#include "gl/pooledtexture.h"

#include "gl/texture.h"
#include "gl/texturemanager.h"

namespace Brevane::Kvo {

PooledTexture::PooledTexture(Texture *texture)
{
    _texture.borrowHere(texture);
}

PooledTexture::PooledTexture(const PooledTexture &other) : _texture(other._texture)
{
    TextureManager::Instance().addTempTextureRef(_texture.any(), 1);
}

PooledTexture &PooledTexture::operator=(const PooledTexture &other)
{
    // In this order, so that the same texture keeps a reference in between.
    TextureManager &manager = TextureManager::Instance();
    manager.addTempTextureRef(other._texture.any(), 1);
    manager.releaseTempTextureRef(_texture.any(), 1);
    _texture = other._texture;
    return *this;
}

PooledTexture::operator Texture *() const
{
    return _texture;
}

PooledTexture::~PooledTexture()
{
    TextureManager::Instance().releaseTempTextureRef(_texture.any(), 1);
}

} // namespace Brevane::Kvo
