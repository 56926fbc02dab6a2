#pragma once

#include "core/renderpasshelper.h"
#include "gl/held.h"
#include "renderpasses/export.h"

#include <QString>

namespace Brevane::Kvo {

class Texture;

/// Turns an image file into a texture. One texture lives as long as the pass and takes a new content when
/// the path changes. Unlike CubemapLoaderRenderPass it flips the image, replaces what it cannot load by
/// white, and remembers no earlier images.
///
/// | # | Input                   | Type    | Meaning |
/// |---|-------------------------|---------|-----|
/// | 0 | Kvo_QString_TexturePath | QString | an image file that Qt reads, or a resource |
///
/// | # | Output                  | Type    | Format                                                          | Meaning |
/// |---|-------------------------|---------|-----------------------------------------------------------------|-----|
/// | 0 | Kvo_KvoTexture*_Texture | texture | GL_RGBA with mip levels, bottom row first, GL's default filters | the image |
///
/// A path that is no file gives a single white texel; so does a file that cannot be read or is too large
/// for the driver, with one message. The path counts as loaded either way: a file that changes, or turns
/// up later, is read when the path changes. An empty path before any other leaves the texture without
/// content. Rows are taken as they are stored, whatever orientation the metadata (EXIF) say.
///
/// Loading happens inside start, on the GL thread. The pass owns the texture, which the library never
/// writes to. Needs OpenGL 3.2.
///
/// Leaves no state of GL changed.
class KVO_RENDERPASSES_EXPORT TextureLoaderRenderPass : public RenderPassHelper
{
public:
    /// Indices of the inputs.
    enum Input : int {
        InTexturePath,
    };
    /// Indices of the outputs.
    enum Output : int {
        OutTexture,
    };

    TextureLoaderRenderPass();
    /// Holds the same texture as its source.
    TextureLoaderRenderPass(const TextureLoaderRenderPass &other);
    TextureLoaderRenderPass &operator=(const TextureLoaderRenderPass &other);
    ~TextureLoaderRenderPass() override;

    void start(RenderCallbacks *callbacks) override;

private:
    void _upload();

    Held<Texture> _texture;
    QString _path;
};

} // namespace Brevane::Kvo
