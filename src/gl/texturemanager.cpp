#include "gl/texturemanager.h"

#include "core/hostcode.h"
#include "gl/contextstate.h"
#include "gl/fallenshort.h"
#include "gl/glinfo.h"
#include "gl/guards.h"
#include "gl/imagefile.h"
#include "gl/managedtextures.h"
#include "gl/pixelstore.h"
#include "gl/pooltaker.h"
#include "gl/sampling.h"
#include "gl/storage.h"
#include "gl/texture.h"

#include <QColor>
#include <QHash>
#include <QImage>
#include <QSet>

#include <epoxy/gl.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <map>
#include <vector>

namespace Brevane::Kvo {

namespace {

bool hasLinearFilter(GLenum internalFormat)
{
    switch (formatFromInternalFormat(internalFormat)) {
    case GL_RED_INTEGER:
    case GL_RG_INTEGER:
    case GL_RGBA_INTEGER:
    case GL_DEPTH_COMPONENT:
    case GL_DEPTH_STENCIL: return false;
    default: return true;
    }
}

void setPoolSampling(Texture &texture, GLenum internalFormat)
{
    const GLenum filter = hasLinearFilter(internalFormat) ? GL_LINEAR : GL_NEAREST;
    setSampling(&texture, filter, filter, GL_CLAMP_TO_EDGE, GL_CLAMP_TO_EDGE);
}

// Of the bound texture. False where the driver has no room.
bool allocate(GLenum internalFormat, int width, int height, const QString &name)
{
    const DefaultPixelStore pixelStore;
    return allocateImage(internalFormat, {width, height}, formatFromInternalFormat(internalFormat),
                         typeFromInternalFormat(internalFormat), nullptr, name);
}

struct PoolEntry
{
    std::unique_ptr<Texture> texture;
    TextureFormat format;
    int width;
    int height;
    qint64 bytes;
    int refs = 0;
    quint64 releasedAt = 0; // rising number, the latest release is the largest
    qint64 lastFrame = 0;
    int tag = -1;
    qint64 timesTaken = 0;
    QString taker; ///< Who took it last, where that was said.
    TexturePoolStatistics *counts = nullptr; ///< Of its group.

    QString name() const
    {
        return taker.isEmpty() ? texture->label() : QStringLiteral("%1, taken by '%2'").arg(texture->label(), taker);
    }
    void addRefs(int count)
    {
        if (refs == 0) {
            counts->bytesInUse += bytes;
            counts->peakBytesInUse = std::max(counts->peakBytesInUse, counts->bytesInUse);
        }
        refs += count;
    }
    void dropRefs(int count)
    {
        if (refs > 0 && count >= refs)
            counts->bytesInUse -= bytes;
        refs = std::max(0, refs - count);
    }
};

/// What the manager keeps for one share group.
struct GroupTextures
{
    std::vector<std::unique_ptr<PoolEntry>> pool;
    /// Wrappers that trim took the storage of. Outputs of passes may still name them, as they name textures
    /// that the pool reuses, and like those they are used again.
    std::vector<std::unique_ptr<Texture>> spare;
    QHash<QRgb, Texture *> solid;
    QHash<QString, Texture *> files;
    std::vector<std::unique_ptr<Texture>> owned;
    std::array<std::unique_ptr<ManagedTextures>, 2> managed; ///< By kind; null where there never was one.
    TexturePoolStatistics counts;

    ManagedTextures *managedIfAny(ManagedKind kind) const { return managed[std::size_t(kind)].get(); }
    ManagedTextures &managedOf(ManagedKind kind)
    {
        std::unique_ptr<ManagedTextures> &textures = managed[std::size_t(kind)];
        if (!textures)
            textures = std::make_unique<ManagedTextures>(kind);
        return *textures;
    }
};

QImage loadImage(const QString &path, const TextureOptions &options, QString *error)
{
    QImage image = readImageFile(path, ImageTurn::AsMetadataSays, error);
    if (image.isNull())
        return image;
    GLint largest = 0;
    glGetIntegerv(GL_MAX_TEXTURE_SIZE, &largest);
    const int limit = options.maxSize > 0 ? std::min(options.maxSize, largest) : largest;
    if (std::max(image.width(), image.height()) > limit)
        image = image.scaled(limit, limit, Qt::KeepAspectRatio, Qt::SmoothTransformation);
    image = image.convertToFormat(QImage::Format_RGBA8888).mirrored(false, true);
    if (options.gamma != 1.0f) {
        std::array<uchar, 256> table{};
        for (std::size_t i = 0; i < table.size(); ++i)
            table[i] = uchar(std::lround(255.0 * std::pow(double(i) / 255.0, double(options.gamma))));
        for (int y = 0; y < image.height(); ++y) {
            uchar *line = image.scanLine(y);
            for (int x = 0; x < image.width(); ++x, line += 4) {
                for (int c = 0; c < 3; ++c)
                    line[c] = table[line[c]];
            }
        }
    }
    return image;
}

} // namespace

unsigned int internalFormatOf(TextureFormat format)
{
    switch (format) {
    case TextureFormat::VelocityPacked: return GL_R16F;
    case TextureFormat::Scalar32: return GL_R32F;
    case TextureFormat::Color8: return GL_RGBA8;
    case TextureFormat::Result:
    case TextureFormat::Frame: return GL_RGBA16F;
    case TextureFormat::TwoChannel8: return GL_RG8;
    case TextureFormat::Velocity: return GL_RG16F;
    case TextureFormat::Position: return GL_RGBA32F;
    case TextureFormat::TwoChannel32: return GL_RG32F;
    case TextureFormat::Scalar8: return GL_R8;
    case TextureFormat::Index32: return GL_R32UI;
    case TextureFormat::FourIndex32: return GL_RGBA32UI;
    case TextureFormat::Color10: return GL_RGB10_A2;
    case TextureFormat::PackedFloat: return GL_R11F_G11F_B10F;
    case TextureFormat::Color8Srgb: return GL_SRGB8_ALPHA8;
    case TextureFormat::SignedIndex32: return GL_R32I;
    case TextureFormat::Scalar16Unorm: return GL_R16;
    case TextureFormat::Color16Unorm: return GL_RGBA16;
    case TextureFormat::Depth16: return GL_DEPTH_COMPONENT16;
    case TextureFormat::Depth24: return GL_DEPTH_COMPONENT24;
    case TextureFormat::Depth32: return GL_DEPTH_COMPONENT32F;
    case TextureFormat::DepthStencil: return GL_DEPTH24_STENCIL8;
    case TextureFormat::Depth32Stencil: return GL_DEPTH32F_STENCIL8;
    }
    return GL_RGBA16F;
}

class TextureManagerPrivate
{
public:
    GroupTextures *current()
    {
        const ContextState *state = ContextState::current();
        return state ? &groups[state->group->id()] : nullptr;
    }

    PoolEntry *find(const Texture *texture)
    {
        for (auto &[id, group] : groups) {
            for (const auto &entry : group.pool) {
                if (entry->texture.get() == texture)
                    return entry.get();
            }
        }
        return nullptr;
    }

    std::map<quint64, GroupTextures> groups;
    QSet<QString> unreadable;
    quint64 releases = 0;
    qint64 frame = 0;
    bool debug = false;
};

TextureManager::TextureManager() : d(std::make_unique<TextureManagerPrivate>()) {}

TextureManager::~TextureManager() = default;

TextureManager &TextureManager::Instance()
{
    // Never destroyed, as the contexts are not: at exit there may be no driver left to delete textures.
    static auto *manager = new TextureManager;
    return *manager;
}

Texture *TextureManager::tempTexture(TextureFormat format, int width, int height, int tag)
{
    GroupTextures *group = d->current();
    if (!group)
        return nullptr;
    width = std::max(width, 0);
    height = std::max(height, 0);
    const GLenum internalFormat = internalFormatOf(format);

    PoolEntry *chosen = nullptr;
    for (const auto &entry : group->pool) {
        const bool fits =
            entry->refs == 0 && entry->format == format && entry->width == width && entry->height == height;
        if (fits && (!chosen || entry->releasedAt > chosen->releasedAt))
            chosen = entry.get();
    }
    if (chosen) {
        setPoolSampling(*chosen->texture, internalFormat);
        // Passes fill a single texel of theirs in whatever format suits it; the pool makes sure of its own.
        if (width == 1 && height == 1
            && (isFallingShort(chosen->texture.get())
                || levelInfo(chosen->texture.get(), GL_TEXTURE_2D).internalFormat != internalFormat)) {
            StorageBinder bound(chosen->texture.get());
            if (bound.isBound() && allocate(internalFormat, 1, 1, PoolTaker::current()))
                forgetFallenShort(chosen->texture.get());
        }
        ++group->counts.hits;
    } else {
        auto entry = std::make_unique<PoolEntry>();
        if (group->spare.empty()) {
            entry->texture = std::make_unique<Texture>();
            entry->texture->setTarget(GL_TEXTURE_2D);
        } else {
            entry->texture = std::move(group->spare.back());
            group->spare.pop_back();
            entry->texture->reuse();
        }
        entry->texture->setLabel(QStringLiteral("pool format %1, %2x%3, number %4")
                                     .arg(int(format))
                                     .arg(width)
                                     .arg(height)
                                     .arg(group->pool.size()));
        entry->format = format;
        entry->width = width;
        entry->height = height;
        bool hasStorage = false;
        {
            StorageBinder bound(entry->texture.get());
            if (bound.isBound()) {
                setPoolSampling(*entry->texture, internalFormat);
                hasStorage = allocate(internalFormat, width, height, PoolTaker::current());
            }
        }
        // Asked again the next time: there may be room then.
        if (!hasStorage && (width > 1 || height > 1))
            return tempTexture(format, 1, 1, tag);
        if (!hasStorage)
            noteFallenShort(entry->texture.get());
        entry->counts = &group->counts;
        entry->bytes = qint64(width) * height * bytesPerTexel(internalFormat);
        group->pool.push_back(std::move(entry));
        chosen = group->pool.back().get();
        ++group->counts.misses;
        group->counts.bytes += chosen->bytes;
        group->counts.peakBytes = std::max(group->counts.peakBytes, group->counts.bytes);
    }
    chosen->addRefs(1);
    chosen->lastFrame = d->frame;
    chosen->tag = tag;
    chosen->taker = PoolTaker::current();
    ++chosen->timesTaken;
    return chosen->texture.get();
}

void TextureManager::addTempTextureRef(Texture *texture, int count)
{
    if (!texture || count <= 0)
        return;
    if (PoolEntry *entry = d->find(texture))
        entry->addRefs(count);
}

void TextureManager::releaseTempTextureRef(Texture *texture, int count)
{
    if (!texture || count <= 0)
        return;
    PoolEntry *entry = d->find(texture);
    if (!entry)
        return;
    if (d->debug && entry->refs < count) {
        const HostCode hostCode;
        qWarning("Texture '%s'%s is released %d times, but has %d references", qPrintable(texture->label()),
                 entry->taker.isEmpty() ? "" : qPrintable(QStringLiteral(", taken by '%1',").arg(entry->taker)), count,
                 entry->refs);
    }
    entry->dropRefs(count);
    if (entry->refs == 0) {
        entry->releasedAt = ++d->releases;
        entry->lastFrame = d->frame;
    }
}

int TextureManager::tempTextureRefs(const Texture *texture) const
{
    const PoolEntry *entry = texture ? d->find(texture) : nullptr;
    return entry ? entry->refs : -1;
}

void TextureManager::advanceFrame()
{
    ++d->frame;
}

int TextureManager::trim(int maxIdleFrames, qint64 maxBytes)
{
    GroupTextures *group = d->current();
    if (!group)
        return 0;
    int freed = 0;
    // One that somebody has bound right now waits for the next time.
    const auto isFree = [](const PoolEntry &entry) { return entry.refs == 0 && entry.texture->unit() < 0; };
    const auto free = [&](auto at) {
        group->counts.bytes -= (*at)->bytes;
        ++freed;
        (*at)->texture->freeStorage();
        group->spare.push_back(std::move((*at)->texture));
        return group->pool.erase(at);
    };
    for (auto at = group->pool.begin(); at != group->pool.end();) {
        const bool isOld = isFree(**at) && d->frame - (*at)->lastFrame > maxIdleFrames;
        at = isOld ? free(at) : at + 1;
    }
    for (const auto &managed : group->managed) {
        if (managed)
            managed->tidy();
    }
    while (maxBytes >= 0 && group->counts.bytes > maxBytes) {
        auto oldest = group->pool.end();
        for (auto at = group->pool.begin(); at != group->pool.end(); ++at) {
            if (isFree(**at) && (oldest == group->pool.end() || (*at)->releasedAt < (*oldest)->releasedAt))
                oldest = at;
        }
        if (oldest == group->pool.end())
            break;
        free(oldest);
    }
    return freed;
}

TexturePoolStatistics TextureManager::statistics() const
{
    const GroupTextures *group = d->current();
    if (!group)
        return {};
    TexturePoolStatistics counts = group->counts;
    counts.textures = int(group->pool.size());
    counts.inUse =
        int(std::count_if(group->pool.cbegin(), group->pool.cend(), [](const auto &entry) { return entry->refs > 0; }));
    counts.free = counts.textures - counts.inUse;
    return counts;
}

void TextureManager::setDebug(bool enabled)
{
    d->debug = enabled;
}

QVector<PoolTexture> TextureManager::poolTextures() const
{
    QVector<PoolTexture> textures;
    if (const GroupTextures *group = d->current())
        for (const auto &entry : group->pool)
            textures.append({entry->texture.get(), entry->format, entry->width, entry->height, entry->bytes,
                             entry->refs, entry->timesTaken, entry->taker});
    return textures;
}

QStringList TextureManager::leakedReferences() const
{
    QStringList lines;
    if (const GroupTextures *group = d->current()) {
        for (const auto &entry : group->pool) {
            if (entry->refs > 0)
                lines.append(QStringLiteral("%1: %2 references").arg(entry->name(), QString::number(entry->refs)));
        }
    }
    return lines;
}

Texture *TextureManager::textureFromFile(const QString &path, const TextureOptions &options)
{
    GroupTextures *group = d->current();
    if (!group)
        return nullptr;
    // The path comes last: what else there is has no place in it to be taken for.
    const QString key = QStringLiteral("%1|%2|%3|%4")
                            .arg(QString::number(options.maxSize), QString::number(double(options.gamma), 'g', 9),
                                 QString::number(int(options.mipmaps)), path);
    const auto known = group->files.constFind(key);
    if (known != group->files.cend())
        return *known;
    QString error;
    const QImage image = loadImage(path, options, &error);
    if (image.isNull()) {
        // Not cached: the file may be readable the next time.
        if (!d->unreadable.contains(path)) {
            d->unreadable.insert(path);
            const HostCode hostCode;
            qWarning("Image '%s' cannot be read: %s", qPrintable(path), qPrintable(error));
        }
        return nullptr;
    }
    d->unreadable.remove(path);
    auto texture = std::make_unique<Texture>();
    texture->setTarget(GL_TEXTURE_2D);
    texture->setLabel(path);
    texture->setReadOnly();
    const DefaultPixelStore pixelStore;
    StorageBinder bound(texture.get());
    if (!bound.isBound())
        return nullptr;
    texture->setFilter(options.mipmaps ? GL_LINEAR_MIPMAP_LINEAR : GL_LINEAR, GL_LINEAR);
    texture->setWrap(GL_CLAMP_TO_EDGE);
    glTexImage2D(GL_TEXTURE_2D, 0, GL_RGBA8, image.width(), image.height(), 0, GL_RGBA, GL_UNSIGNED_BYTE,
                 image.constBits());
    if (!hasLevel(GL_TEXTURE_2D, image.width(), path))
        return nullptr;
    if (options.mipmaps)
        glGenerateMipmap(GL_TEXTURE_2D);
    group->files.insert(key, texture.get());
    group->owned.push_back(std::move(texture));
    return group->owned.back().get();
}

bool TextureManager::forgetFile(const QString &path)
{
    GroupTextures *group = d->current();
    return group
           && group->files.removeIf([&path](const auto &file) { return file.key().section(u'|', 3) == path; }) > 0;
}

Texture *TextureManager::solidTexture(const QColor &color)
{
    GroupTextures *group = d->current();
    if (!group)
        return nullptr;
    const QRgb key = color.rgba();
    const auto known = group->solid.constFind(key);
    if (known != group->solid.cend())
        return *known;
    auto texture = std::make_unique<Texture>();
    texture->setTarget(GL_TEXTURE_2D);
    texture->setLabel(QStringLiteral("solid %1").arg(color.name(QColor::HexArgb)));
    texture->setReadOnly();
    const DefaultPixelStore pixelStore;
    StorageBinder bound(texture.get());
    if (!bound.isBound())
        return nullptr;
    texture->setFilter(GL_NEAREST);
    texture->setWrap(GL_CLAMP_TO_EDGE);
    const std::array<uchar, 4> texel{uchar(qRed(key)), uchar(qGreen(key)), uchar(qBlue(key)), uchar(qAlpha(key))};
    glTexImage2D(GL_TEXTURE_2D, 0, GL_RGBA8, 1, 1, 0, GL_RGBA, GL_UNSIGNED_BYTE, texel.data());
    if (!hasLevel(GL_TEXTURE_2D, 1, texture->label()))
        return nullptr;
    group->solid.insert(key, texture.get());
    group->owned.push_back(std::move(texture));
    return group->owned.back().get();
}

void TextureManager::bindManagedTextures(ShaderProgram *program)
{
    GroupTextures *group = d->current();
    for (const ManagedKind kind : kManagedKinds) {
        if (group && ManagedTextures::isReadBy(program, kind))
            group->managedOf(kind).bind(program);
    }
}

void TextureManager::unbindManagedTextures(ShaderProgram *program)
{
    GroupTextures *group = d->current();
    for (const ManagedKind kind : {ManagedKind::Color, ManagedKind::Data}) {
        if (group && group->managedIfAny(kind))
            group->managedIfAny(kind)->unbind(program);
    }
}

int TextureManager::addManagedTexture(const QImage &image, const QString &label, ManagedKind kind)
{
    GroupTextures *group = d->current();
    if (!group || image.isNull())
        return 0;
    return group->managedOf(kind).add(image, label);
}

void TextureManager::removeManagedTexture(int handle, ManagedKind kind)
{
    GroupTextures *group = d->current();
    if (group && group->managedIfAny(kind))
        group->managedIfAny(kind)->remove(handle);
}

// Handles are numbers of their share group, and mean other images in another one.
void TextureManager::removeManagedTextures(quint64 shareGroup, const QVector<int> &handles, ManagedKind kind)
{
    const auto group = d->groups.find(shareGroup);
    if (group == d->groups.end() || !group->second.managedIfAny(kind))
        return;
    for (const int handle : handles)
        group->second.managedIfAny(kind)->remove(handle);
}

int TextureManager::managedTextureCount() const
{
    int count = 0;
    for (const ManagedKind kind : kManagedKinds) {
        const GroupTextures *group = d->current();
        count += group && group->managedIfAny(kind) ? group->managedIfAny(kind)->count() : 0;
    }
    return count;
}

int TextureManager::managedPageClasses(ManagedKind kind) const
{
    const GroupTextures *group = d->current();
    return group && group->managedIfAny(kind) ? group->managedIfAny(kind)->pageClasses() : 0;
}

void TextureManager::dropShareGroup(quint64 id)
{
    d->groups.erase(id);
}

TextureToken::TextureToken()
{
    static quint64 counter = 0;
    _id = ++counter;
}

} // namespace Brevane::Kvo
