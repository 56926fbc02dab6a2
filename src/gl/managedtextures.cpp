#include "gl/managedtextures.h"

#include "gl/bufferobject.h"
#include "gl/contextstate.h"
#include "gl/framebufferobject.h"
#include "gl/guards.h"
#include "gl/pixelstore.h"
#include "gl/shaderprogram.h"
#include "gl/storage.h"
#include "gl/texture.h"

#include <QImage>

#include <epoxy/gl.h>

#include <algorithm>

namespace Brevane::Kvo {

namespace {

constexpr int kBorder = 1;
constexpr int kFloatsPerTexel = 4;
// Room for 2 by 2 images of 1024, or one of 4096 or 8192, each with its border.
constexpr std::array kPageSizes{2080, 4104, 8200};

const QString &tableUniform()
{
    static const QString name = QStringLiteral("kvo_ManagedTable");
    return name;
}

const QString &pagesUniform(int pageClass)
{
    static const std::array names{QStringLiteral("kvo_ManagedPages0"), QStringLiteral("kvo_ManagedPages1"),
                                  QStringLiteral("kvo_ManagedPages2"), QStringLiteral("kvo_ManagedPages3")};
    return names[std::size_t(pageClass)];
}

GLint limit(GLenum query)
{
    GLint value = 0;
    glGetIntegerv(query, &value);
    return value;
}

void allocatePages(Texture &bound, int size, int layers)
{
    bound.setFilter(GL_LINEAR);
    bound.setWrap(GL_CLAMP_TO_EDGE);
    const DefaultPixelStore pixelStore;
    glTexImage3D(GL_TEXTURE_2D_ARRAY, 0, GL_RGBA8, size, size, layers, 0, GL_RGBA, GL_UNSIGNED_BYTE, nullptr);
}

std::unique_ptr<Texture> arrayTexture(const QString &label)
{
    auto texture = std::make_unique<Texture>();
    texture->setTarget(GL_TEXTURE_2D_ARRAY);
    texture->setLabel(label);
    return texture;
}

// Copies a level with its border out of the framebuffer that is bound for reading, into the array that
// is bound for writing: the level itself, and the opposite edges and corners around it.
void copyWithBorder(const QSize &size, const QPoint &at, int layer)
{
    struct Span
    {
        int from;
        int to;
        int length;
    };
    const auto spans = [](int length, int start) {
        return std::array{Span{length - 1, start, 1}, Span{0, start + kBorder, length},
                          Span{0, start + kBorder + length, 1}};
    };
    for (const Span &y : spans(size.height(), at.y())) {
        for (const Span &x : spans(size.width(), at.x()))
            glCopyTexSubImage3D(GL_TEXTURE_2D_ARRAY, 0, x.to, y.to, layer, x.from, y.from, x.length, y.length);
    }
}

QSize levelSize(const QSize &size, int level)
{
    return {std::max(1, size.width() >> level), std::max(1, size.height() >> level)};
}

int levelCount(const QSize &size)
{
    int levels = 1;
    for (int longest = std::max(size.width(), size.height()); longest > 1; longest >>= 1)
        ++levels;
    return levels;
}

} // namespace

ManagedTextures::ManagedTextures()
{
    const int largest = limit(GL_MAX_TEXTURE_SIZE);
    for (std::size_t i = 0; i < _classes.size(); ++i)
        _classes[i].size = i < kPageSizes.size() ? std::min(kPageSizes[i], largest) : largest;
}

ManagedTextures::~ManagedTextures() = default;

QImage ManagedTextures::fitted(const QImage &image, const QString &label) const
{
    const int largest = _classes.back().size - 2 * kBorder;
    QImage fit = image;
    if (std::max(image.width(), image.height()) > largest) {
        fit = image.scaled(std::min(image.width(), largest), std::min(image.height(), largest), Qt::IgnoreAspectRatio,
                           Qt::SmoothTransformation);
        qWarning("Texture '%s' is reduced from %dx%d to %dx%d, the largest that this driver holds", qPrintable(label),
                 image.width(), image.height(), fit.width(), fit.height());
    }
    return fit.convertToFormat(QImage::Format_RGBA8888).mirrored(false, true);
}

int ManagedTextures::add(const QImage &image, const QString &label)
{
    if (image.isNull())
        return 0;
    const QImage pixels = fitted(image, label);
    const QSize size = pixels.size();
    const QSize padded = size + QSize(2 * kBorder, 2 * kBorder);
    Map map{0, {}};
    while (std::max(padded.width(), padded.height()) > _classes[std::size_t(map.pageClass)].size)
        ++map.pageClass;
    _pageClasses = std::max(_pageClasses, map.pageClass + 1);
    PageClass &pageClass = _classes[std::size_t(map.pageClass)];

    const int levels = levelCount(size);
    for (int i = 0; i < levels; ++i) {
        Level level{};
        if (!place(pageClass, levelSize(size, i) + QSize(2 * kBorder, 2 * kBorder), level)) {
            qWarning("No room is left for texture '%s'; it reads white", qPrintable(label));
            for (const Level &placed : map.levels)
                pageClass.pages[std::size_t(placed.page)].freed.push_back(placed.padded);
            return 0;
        }
        map.levels.push_back(level);
    }

    Texture source;
    source.setTarget(GL_TEXTURE_2D);
    {
        const DefaultPixelStore pixelStore;
        StorageBinder bound(&source);
        glTexImage2D(GL_TEXTURE_2D, 0, GL_RGBA8, size.width(), size.height(), 0, GL_RGBA, GL_UNSIGNED_BYTE,
                     pixels.constBits());
        glGenerateMipmap(GL_TEXTURE_2D);
        FramebufferObject reader;
        AutoBinder boundReader(&reader);
        StorageBinder boundPages(pageClass.array.get());
        for (int i = 0; i < levels; ++i) {
            const Level &level = map.levels[std::size_t(i)];
            reader.attach(&source, GL_COLOR_ATTACHMENT0, i);
            copyWithBorder(levelSize(size, i), level.padded.topLeft(), level.page);
        }
    }

    const int record = takeRecord(1 + levels);
    if (qint64(_table.size()) / kFloatsPerTexel > limit(GL_MAX_TEXTURE_BUFFER_SIZE))
        qWarning("Texture '%s' lies beyond what this driver can index", qPrintable(label));
    float *texel = _table.data() + qsizetype(record) * kFloatsPerTexel;
    const auto write = [&texel](int a, int b, int c, int d) {
        for (int value : {a, b, c, d})
            *texel++ = float(value);
    };
    write(size.width(), size.height(), levels, map.pageClass);
    for (const Level &level : map.levels)
        write(level.padded.x() + kBorder, level.padded.y() + kBorder, level.page, 0);
    _tableChanged = true;

    const int handle = record + 1;
    _maps.insert(handle, map);
    return handle;
}

void ManagedTextures::remove(int handle)
{
    const auto found = _maps.find(handle);
    if (found == _maps.end())
        return;
    PageClass &pageClass = _classes[std::size_t(found->pageClass)];
    for (const Level &level : found->levels)
        pageClass.pages[std::size_t(level.page)].freed.push_back(level.padded);
    _freeRecords[int(found->levels.size()) + 1].append(handle - 1);
    _maps.erase(found);
}

int ManagedTextures::takeRecord(int texels)
{
    QVector<int> &free = _freeRecords[texels];
    if (!free.isEmpty())
        return free.takeLast();
    const int record = int(_table.size() / kFloatsPerTexel);
    _table.resize(_table.size() + qsizetype(texels) * kFloatsPerTexel);
    return record;
}

bool ManagedTextures::place(PageClass &pageClass, const QSize &padded, Level &level)
{
    for (std::size_t p = 0; p < pageClass.pages.size(); ++p) {
        Page &page = pageClass.pages[p];
        // A freed rectangle is taken whole, so only when little of it is wasted.
        const auto reusable = std::find_if(page.freed.begin(), page.freed.end(), [&](const QRect &r) {
            return r.width() >= padded.width() && r.height() >= padded.height()
                   && r.width() * r.height() <= 2 * padded.width() * padded.height();
        });
        if (reusable != page.freed.end()) {
            level = {int(p), *reusable};
            page.freed.erase(reusable);
            return true;
        }
        for (Shelf &shelf : page.shelves) {
            if (shelf.height >= padded.height() && shelf.height <= 2 * padded.height()
                && shelf.used + padded.width() <= pageClass.size) {
                level = {int(p), QRect(QPoint(shelf.used, shelf.top), padded)};
                shelf.used += padded.width();
                return true;
            }
        }
        if (page.nextTop + padded.height() <= pageClass.size) {
            page.shelves.push_back({page.nextTop, padded.height(), padded.width()});
            level = {int(p), QRect(QPoint(0, page.nextTop), padded)};
            page.nextTop += padded.height();
            return true;
        }
    }
    if (!ensureLayers(pageClass, int(pageClass.pages.size()) + 1))
        return false;
    Page page;
    page.shelves.push_back({0, padded.height(), padded.width()});
    page.nextTop = padded.height();
    pageClass.pages.push_back(page);
    level = {int(pageClass.pages.size()) - 1, QRect(QPoint(0, 0), padded)};
    return true;
}

bool ManagedTextures::ensureLayers(PageClass &pageClass, int layers)
{
    if (layers <= pageClass.layers)
        return true;
    const int most = limit(GL_MAX_ARRAY_TEXTURE_LAYERS);
    if (layers > most)
        return false;
    // Doubling keeps the copying of older pages linear; the largest pages grow one by one.
    const int wanted =
        pageClass.size > 4 * kPageSizes[0] ? layers : std::min(most, std::max(layers, 2 * pageClass.layers));
    auto grown = arrayTexture(QStringLiteral("managed textures %1").arg(pageClass.size));
    StorageBinder bound(grown.get());
    if (!bound.isBound())
        return false;
    allocatePages(*grown, pageClass.size, wanted);
    if (pageClass.array) {
        FramebufferObject reader;
        AutoBinder boundReader(&reader);
        for (int layer = 0; layer < pageClass.layers; ++layer) {
            reader.attach3D(pageClass.array.get(), GL_COLOR_ATTACHMENT0, layer, 0);
            glCopyTexSubImage3D(GL_TEXTURE_2D_ARRAY, 0, 0, 0, layer, 0, 0, pageClass.size, pageClass.size);
        }
    }
    pageClass.array = std::move(grown);
    pageClass.layers = wanted;
    return true;
}

bool ManagedTextures::isReadBy(const ShaderProgram *program)
{
    return program && program->hasUniform(tableUniform());
}

void ManagedTextures::bind(ShaderProgram *program)
{
    if (!isReadBy(program))
        return;
    if (!_tableBuffer) {
        _tableBuffer = std::make_unique<BufferObject>();
        _tableBuffer->setTarget(GL_TEXTURE_BUFFER);
        _tableTexture = std::make_unique<Texture>();
        _tableTexture->setTarget(GL_TEXTURE_BUFFER);
        _tableTexture->setLabel(QStringLiteral("managed texture table"));
        _emptyPages = arrayTexture(QStringLiteral("no managed textures"));
        StorageBinder bound(_emptyPages.get());
        allocatePages(*_emptyPages, 1, 1);
    }
    if (std::exchange(_tableChanged, false)) {
        if (_table.isEmpty())
            _table.resize(kFloatsPerTexel);
        _tableBuffer->upload(_table.constData(), int(_table.size()), GL_STATIC_DRAW);
        StorageBinder bound(_tableTexture.get());
        glTexBuffer(GL_TEXTURE_BUFFER, GL_RGBA32F, _tableBuffer->getBO());
    }
    _tableTexture->bind();
    program->setUniform(tableUniform(), _tableTexture->unit());
    _emptyPages->bind();
    for (int i = 0; i < kPageClasses; ++i) {
        // A sampler that is left alone would share unit 0 with samplers of other types, which GL refuses.
        Texture *pages = _classes[std::size_t(i)].array.get();
        if (pages)
            pages->bind();
        program->setUniform(pagesUniform(i), (pages ? pages : _emptyPages.get())->unit());
    }
}

void ManagedTextures::unbind(ShaderProgram *program)
{
    if (!isReadBy(program) || !_tableTexture)
        return;
    for (int i = kPageClasses - 1; i >= 0; --i) {
        if (Texture *pages = _classes[std::size_t(i)].array.get())
            pages->unbind();
    }
    _emptyPages->unbind();
    _tableTexture->unbind();
}

} // namespace Brevane::Kvo
