#pragma once

#include "gl/export.h"

#include <QString>
#include <QStringList>
#include <QVector>
#include <QtGlobal>

#include <memory>

class QColor;
class QImage;

namespace Brevane::Kvo {

class ShaderProgram;
class Texture;
class TextureManagerPrivate;

/// Formats of pooled textures. The numbers are part of the interface.
///
/// Colour results and frames (3, 7) are half floats: on llvmpipe they cost no more than 8 bits to fill
/// and keep values above 1 for glow and tone mapping. The pool never hands out one for the other, although
/// GL would not know them apart: an output for which a host counts no users is free at once, and a pass of
/// the other number that reads it must not get it as its target. Chains whose users are counted could do
/// with one texture less now and then (bench_memory tells).
enum class TextureFormat {
    VelocityPacked = 0, ///< GL_R16F
    Scalar32 = 1, ///< GL_R32F
    Color8 = 2, ///< GL_RGBA8
    Result = 3, ///< GL_RGBA16F
    TwoChannel8 = 4, ///< GL_RG8
    Velocity = 5, ///< GL_RG16F
    Position = 6, ///< GL_RGBA32F
    Frame = 7, ///< GL_RGBA16F
    TwoChannel32 = 8, ///< GL_RG32F
    Scalar8 = 9, ///< GL_R8
    Index32 = 10, ///< GL_R32UI
    FourIndex32 = 11, ///< GL_RGBA32UI
    Color10 = 12, ///< GL_RGB10_A2
    PackedFloat = 13, ///< GL_R11F_G11F_B10F
    Color8Srgb = 14, ///< GL_SRGB8_ALPHA8
    SignedIndex32 = 15, ///< GL_R32I
    Scalar16Unorm = 16, ///< GL_R16
    Color16Unorm = 17, ///< GL_RGBA16
    Depth16 = 18, ///< GL_DEPTH_COMPONENT16
    Depth24 = 19, ///< GL_DEPTH_COMPONENT24
    Depth32 = 20, ///< GL_DEPTH_COMPONENT32F
    DepthStencil = 21, ///< GL_DEPTH24_STENCIL8
    Depth32Stencil = 22, ///< GL_DEPTH32F_STENCIL8
};

/// The GL internal format behind a pool format.
KVO_GL_EXPORT unsigned int internalFormatOf(TextureFormat format);

/// How TextureManager::textureFromFile loads an image.
struct TextureOptions
{
    int maxSize = 0; ///< Longest side in pixels; a larger image is reduced. 0: no limit.
    float gamma = 1.0f; ///< Colours are raised to this power on loading; alpha is not.
    bool mipmaps = false; ///< Whether the texture gets mip levels and a trilinear filter.
};

/// What the values of a managed texture are.
enum class ManagedKind {
    Data, ///< Numbers that count as they are, or colours for formulas that take them so: normals, roughness, masks.
    Color, ///< Colours as sRGB encodes them: decoded before filtering, in the mip levels too. Alpha is not encoded.
};

/// State of the pool of temporary textures.
struct TexturePoolStatistics
{
    int textures = 0; ///< Textures the pool has allocated.
    int inUse = 0; ///< Of these, with at least one reference.
    int free = 0; ///< Of these, without.
    qint64 bytes = 0; ///< Memory of all of them.
    qint64 peakBytes = 0; ///< High-water mark of bytes.
    qint64 hits = 0; ///< tempTexture calls that reused a texture.
    qint64 misses = 0; ///< tempTexture calls that allocated one.
    qint64 bytesInUse = 0; ///< Memory of those with references.
    qint64 peakBytesInUse = 0; ///< High-water mark of bytesInUse: less than that no pool can hold.
};

/// A texture of the pool, for whoever shows what a frame takes.
struct PoolTexture
{
    const Texture *texture = nullptr; ///< To know it by; the pool may free it at any time.
    TextureFormat format = TextureFormat::Color8; ///< Of its texels.
    int width = 0; ///< In texels.
    int height = 0; ///< In texels.
    qint64 bytes = 0; ///< Of memory.
    int references = 0; ///< 0: free to be taken.
    qint64 timesTaken = 0; ///< How often tempTexture has handed it out.
    QString taker; ///< The pass that took it last, under Pipeline.
};

/// Process-wide textures: a pool of counted temporary textures, cached textures from files and solid
/// colours, and managed textures (any number of material maps that one shader can sample).
///
/// Everything is kept per share group of GL contexts and freed with it; callers never delete a texture
/// that they got here.
class KVO_GL_EXPORT TextureManager
{
public:
    /// The one of the process.
    static TextureManager &Instance();
    virtual ~TextureManager();

    /// A GL_TEXTURE_2D of the pool, with one reference for the caller and undefined content. Whatever
    /// its last user set, it comes with linear filters (nearest for depth and integer formats) and
    /// wrap clamped to the edge. The last argument is a tag for statistics, -1 for none. Null without
    /// a usable context. Width and height may be 0, and count as 0 when negative. Where the driver has no
    /// room for the size, the texture has a single texel, with one message per size. Of several that are free the
    /// one that was released last comes first: its memory is the likeliest to be in a cache, and the others age for
    /// trim.
    Texture *tempTexture(TextureFormat format, int width, int height, int tag = -1);
    /// Adds \a count references.
    void addTempTextureRef(Texture *texture, int count);
    /// Drops \a count references; at zero the texture is free for the next tempTexture of the same
    /// format and size. Null and textures that the pool does not own are ignored.
    void releaseTempTextureRef(Texture *texture, int count);
    /// References that a pool texture carries; -1 for a texture that the pool does not own.
    int tempTextureRefs(const Texture *texture) const;

    /// Counts frames for trim; a host calls it once a frame.
    void advanceFrame();
    /// Frees pool textures without references that nobody took for more than \a maxIdleFrames frames,
    /// then the longest idle ones until the pool takes at most \a maxBytes (negative: no limit).
    /// Textures with references are never freed. The wrapper of one that was freed stays valid memory, without
    /// a GL texture, until the pool uses it for another one; slots that still name it read as empty until then.
    /// Gives the number freed.
    int trim(int maxIdleFrames, qint64 maxBytes = -1);
    /// State of the pool in the current share group.
    TexturePoolStatistics statistics() const;
    /// The textures of the pool in the current share group, in the order of their making.
    QVector<PoolTexture> poolTextures() const;
    /// With debugging on, a release below zero references is reported with the texture's label, and under Pipeline
    /// with the name of the pass that took it.
    void setDebug(bool enabled);
    /// One line per pool texture that still has references: label, format, size, count, and under Pipeline the name
    /// of the pass that took it.
    QStringList leakedReferences() const;

    /// A texture loaded from a file and cached under its path and options. Null for a file that
    /// cannot be read, a file that was cut off included, with one message per path. Rows are stored bottom first,
    /// as GL wants them; the image is turned as its metadata (EXIF) say.
    virtual Texture *textureFromFile(const QString &path, const TextureOptions &options = TextureOptions());
    /// Has the next textureFromFile of a path read the file anew. What was handed out for it stays as it is. False
    /// where nothing of it is cached.
    bool forgetFile(const QString &path);
    /// A cached 1 by 1 texture of a colour.
    virtual Texture *solidTexture(const QColor &color);
    /// Makes the managed textures readable for a bound program that calls managedTexture().
    virtual void bindManagedTextures(ShaderProgram *program);
    /// Undoes bindManagedTextures.
    virtual void unbindManagedTextures(ShaderProgram *program);

    /// Adds an image to the managed textures and gives its handle, which a shader passes to
    /// managedTexture(): repeat wrap, mip levels, trilinear filter. Any number of images of any size;
    /// one too large for the driver is reduced, with a message. 0, which reads white, for a null image and
    /// where the driver has no room, which a message with label and size says. The handle carries one reference.
    /// GL's error flag is empty afterwards: only so can the driver say that its memory is at an end.
    /// Those of kind Color have handles of their own, which a shader passes to managedColor().
    int addManagedTexture(const QImage &image, const QString &label = QString(), ManagedKind kind = ManagedKind::Data);
    /// Drops a handle of the current share group. Its room is used again; with the next draw that reads managed
    /// textures, or the next trim, images move together where much room is free, and empty pages are given back.
    void removeManagedTexture(int handle, ManagedKind kind = ManagedKind::Data);
    /// Live handles of both kinds in the current share group.
    int managedTextureCount() const;
    /// What a shader has to be able to read for all managed textures there ever were: 0 nothing, 1 one array of
    /// pages, 2 one array with levels that are cut into tiles, 3 to 5 two to four arrays. The number never shrinks.
    int managedPageClasses(ManagedKind kind = ManagedKind::Data) const;

private:
    friend class ShareGroup;
    friend class ContextState;
    friend class GPUModelPrivate;
    TextureManager();
    void dropShareGroup(quint64 id);
    void removeManagedTextures(quint64 shareGroup, const QVector<int> &handles, ManagedKind kind);
    Q_DISABLE_COPY(TextureManager)

    std::unique_ptr<TextureManagerPrivate> d;
};

/// Identifies a texture in the tables of an application; the library itself reads none.
class KVO_GL_EXPORT TextureToken
{
public:
    TextureToken();

private:
    quint64 _id;
};

} // namespace Brevane::Kvo
