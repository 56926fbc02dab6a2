#pragma once

#include "core/passslot.h"
#include "gl/texture.h"
#include "gl/texturemanager.h"

namespace Brevane::Kvo {

/// Hands a texture of the pool out with a reference for each user, and gives back the pass's own.
inline void handOut(PassSlot &output, Texture *texture, int users)
{
    output.value = textureToVariant(texture);
    TextureManager::Instance().addTempTextureRef(texture, users);
    TextureManager::Instance().releaseTempTextureRef(texture, 1);
}

} // namespace Brevane::Kvo
