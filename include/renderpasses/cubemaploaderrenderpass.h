#pragma once

#include "core/renderpasshelper.h"
#include "gl/held.h"
#include "renderpasses/export.h"

#include <QHash>
#include <QString>

namespace Brevane::Kvo {

class Texture;

/// Turns six image files into a cube map, for SkyboxRenderPass. Every set of files that was ever loaded
/// is kept, so that going back to an earlier one costs no file access.
///
/// | # | Input                       | Type    | Meaning |
/// |---|-----------------------------|---------|-----|
/// | 0 | Kvo_QString_CubemapPathPosX | QString | image file of the face +x |
/// | 1 | Kvo_QString_CubemapPathNegX | QString | image file of the face -x |
/// | 2 | Kvo_QString_CubemapPathPosY | QString | image file of the face +y |
/// | 3 | Kvo_QString_CubemapPathNegY | QString | image file of the face -y |
/// | 4 | Kvo_QString_CubemapPathPosZ | QString | image file of the face +z |
/// | 5 | Kvo_QString_CubemapPathNegZ | QString | image file of the face -z |
///
/// | # | Output                  | Type    | Format                                                                 | Meaning |
/// |---|-------------------------|---------|------------------------------------------------------------------------|-----|
/// | 0 | Kvo_KvoTexture*_Cubemap | texture | cube map, GL_RGBA with mip levels, linear filters, clamped to the edge | the six faces |
///
/// Faces are stored top row first, as cube maps have them: seen from the middle of the cube, with +y up
/// for the four faces around, every image stands upright and mirrored left to right. An
/// orientation in the metadata (EXIF) is not followed.
///
/// A face whose path is no file becomes a single transparent black texel; so does one whose file cannot
/// be read, is too large for the driver or is not square, with one message per file. A cube map whose
/// faces are not all of one size is incomplete in GL's terms: it reads black, and gets no mip levels.
///
/// The output is in typed form, but in object form in a frame that takes a set from memory. Sets are
/// known by their paths put together in the order +x, +y, +z, -x, -y, -z: a file that changes under its
/// path is not read again, and sets whose paths run together to the same text count as one. Nothing is
/// dropped before the end of the pass.
///
/// Loading happens inside start, on the GL thread, through pixel buffers. The pass owns all its textures.
/// Needs OpenGL 3.2.
///
/// Leaves no state of GL changed.
class KVO_RENDERPASSES_EXPORT CubemapLoaderRenderPass : public RenderPassHelper
{
public:
    /// Indices of the inputs.
    enum Input : int {
        InCubemapPathPosX,
        InCubemapPathNegX,
        InCubemapPathPosY,
        InCubemapPathNegY,
        InCubemapPathPosZ,
        InCubemapPathNegZ,
    };
    /// Indices of the outputs.
    enum Output : int {
        OutCubemap,
    };

    CubemapLoaderRenderPass();
    /// Holds the same textures as its source; the last one that lets go of them deletes them.
    CubemapLoaderRenderPass(const CubemapLoaderRenderPass &other);
    CubemapLoaderRenderPass &operator=(const CubemapLoaderRenderPass &other);
    ~CubemapLoaderRenderPass() override;

    void start(RenderCallbacks *callbacks) override;

private:
    QString _key() const;
    Texture *_load() const;

    Held<Texture> _cubemap;
    QString _pathPosX;
    QString _pathPosY;
    QString _pathPosZ;
    QString _pathNegX;
    QString _pathNegY;
    QString _pathNegZ;
    QHash<QString, Held<Texture>> _cache;
};

} // namespace Brevane::Kvo
