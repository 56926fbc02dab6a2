#pragma once

#include <gl/framebufferobject.h>
#include <gl/guards.h>
#include <gl/texturemanager.h>

#include <QList>

#include <epoxy/gl.h>

#include <initializer_list>

namespace Brevane::Kvo::Test {

/// Draws a colour that no picture has to what the pool hands out next at this size: new textures of most drivers
/// are black, and hide that a pass reads one that it has not drawn to.
inline void soilPool(std::initializer_list<TextureFormat> formats, int width, int height)
{
    constexpr int kEach = 8; // more than any pass takes of one format
    constexpr float kSoil[4] = {40, -30, 20, 0};
    TextureManager &pool = TextureManager::Instance();
    QList<Texture *> taken;
    FramebufferObject framebuffer;
    const AutoBinder bound(&framebuffer);
    for (const TextureFormat format : formats) {
        for (int i = 0; i < kEach; ++i) {
            taken << pool.tempTexture(format, width, height);
            framebuffer.attach(taken.last(), GL_COLOR_ATTACHMENT0, 0);
            framebuffer.setDrawBuffers();
            glClearBufferfv(GL_COLOR, 0, kSoil);
            framebuffer.detach(GL_COLOR_ATTACHMENT0);
        }
    }
    for (Texture *texture : std::as_const(taken))
        pool.releaseTempTextureRef(texture, 1);
}

} // namespace Brevane::Kvo::Test
