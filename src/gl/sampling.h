#pragma once

#include "gl/export.h"

namespace Brevane::Kvo {

class Texture;

/// Gives a texture filters and wraps, those that are not 0. No call for what it has already: what the library set
/// stays so, as long as no host has had the texture in its hands (its name, or a bind of its own), and else for as
/// long as no code of the host's has run.
KVO_GL_EXPORT void setSampling(Texture *texture, unsigned int minification, unsigned int magnification,
                               unsigned int wrapS = 0, unsigned int wrapT = 0);

/// For a texture whose sampling is set with plain GL calls: nothing of it is kept.
KVO_GL_EXPORT void keepNoSampling(const Texture &texture);

struct Filters
{
    unsigned int minification = 0;
    unsigned int magnification = 0;
};

/// Asked of GL once as above.
KVO_GL_EXPORT Filters filtersOf(Texture *texture);

struct LevelInfo
{
    int width = 0;
    int height = 0;
    unsigned int internalFormat = 0;
};

/// Level 0 of a texture with that target, asked of GL once as above. Nothing for another texture, or one that cannot
/// be bound.
KVO_GL_EXPORT LevelInfo levelInfo(Texture *texture, unsigned int target);

/// The GL name for the library's own use. Whoever asks Texture::textureID outside of the library's code is a host.
unsigned int nameOf(const Texture &texture);
/// The storage of the texture is about to be another one.
void forgetLevel(const Texture &texture);
/// A host has had the texture in its hands.
void show(const Texture &texture);

} // namespace Brevane::Kvo
