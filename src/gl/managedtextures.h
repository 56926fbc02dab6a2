#pragma once

#include <QHash>
#include <QRect>
#include <QSize>
#include <QString>
#include <QVector>

#include <array>
#include <memory>
#include <vector>

class QImage;

namespace Brevane::Kvo {

class BufferObject;
class ShaderProgram;
class Texture;

/// Any number of repeating, mip-mapped images that one shader samples through a few texture units.
///
/// The images lie in pages, which are layers of at most four array textures, every mip level in a
/// rectangle of its own with a border of one texel that repeats the opposite edge. The shader finds the
/// level of detail, wraps the coordinate inside the rectangle and lets the hardware filter there, so
/// that the result is that of a texture of its own. The driver makes the levels, in a texture that holds
/// just that image, so they too are what a texture of its own would have.
///
/// A handle is the number of the image's record in a table that the shader reads, plus 1.
class ManagedTextures
{
public:
    ManagedTextures();
    ~ManagedTextures();

    /// 0 when the image is null or there is no room.
    int add(const QImage &image, const QString &label);
    void remove(int handle);
    int count() const { return int(_maps.size()); }
    /// The highest class of pages that ever held an image, plus 1.
    int pageClasses() const { return _pageClasses; }

    void bind(ShaderProgram *program);
    void unbind(ShaderProgram *program);

    /// Whether a program reads managed textures.
    static bool isReadBy(const ShaderProgram *program);

private:
    static constexpr int kPageClasses = 4;

    struct Level
    {
        int page;
        QRect padded; // with the border
    };
    struct Map
    {
        int pageClass;
        std::vector<Level> levels;
    };
    struct Shelf
    {
        int top;
        int height;
        int used;
    };
    struct Page
    {
        std::vector<Shelf> shelves;
        std::vector<QRect> freed;
        int nextTop = 0;
    };
    struct PageClass
    {
        int size = 0;
        std::unique_ptr<Texture> array;
        int layers = 0;
        std::vector<Page> pages;
    };

    QImage fitted(const QImage &image, const QString &label) const;
    bool place(PageClass &pageClass, const QSize &padded, Level &level);
    bool ensureLayers(PageClass &pageClass, int layers);
    int takeRecord(int texels);

    std::array<PageClass, kPageClasses> _classes;
    QHash<int, Map> _maps; // by handle
    QHash<int, QVector<int>> _freeRecords; // by number of texels
    QVector<float> _table;
    int _pageClasses = 0;
    bool _tableChanged = true;
    std::unique_ptr<BufferObject> _tableBuffer;
    std::unique_ptr<Texture> _tableTexture;
    std::unique_ptr<Texture> _emptyPages;
};

} // namespace Brevane::Kvo
