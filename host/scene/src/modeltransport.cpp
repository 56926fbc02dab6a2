#include "host/modeltransport.h"

#include "failure.h"

#include <QHash>
#include <QIODevice>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <new>
#include <type_traits>

namespace Brevane::Kvo {

namespace {

// "KVOMODL" and the version. It changes with every change of what follows.
constexpr quint64 kMagic = 0x4b564f4d4f444c00u;
constexpr quint64 kVersion = 2;
// Everything stands at a multiple of this.
constexpr qsizetype kWord = sizeof(quint64);
constexpr int kMostSide = 1 << 16; // of an image

// Of words, so that any other bit gives another sum: each step can be turned back.
class Checksum
{
public:
    void add(const char *bytes, qsizetype count)
    {
        for (qsizetype i = 0; i < count; i += kWord) {
            quint64 word;
            std::memcpy(&word, bytes + i, sizeof word);
            _sum = (_sum ^ word) * 0x9e3779b97f4a7c15u;
            _sum ^= _sum >> 29;
        }
    }
    quint64 sum() const { return _sum; }

private:
    quint64 _sum = 0x243f6a8885a308d3u;
};

class Writer
{
public:
    explicit Writer(QIODevice *device) : _device(device) {}

    void bytes(const void *data, qsizetype count)
    {
        const qsizetype whole = count / kWord * kWord;
        put(static_cast<const char *>(data), whole);
        if (whole == count)
            return;
        char last[kWord] = {};
        std::memcpy(last, static_cast<const char *>(data) + whole, size_t(count - whole));
        put(last, kWord);
    }
    void number(quint64 n) { bytes(&n, sizeof n); }
    template <typename T>
    void list(const QVector<T> &values)
    {
        static_assert(std::is_trivially_copyable_v<T>);
        number(quint64(values.size()));
        bytes(values.constData(), values.size() * qsizetype(sizeof(T)));
    }
    void text(const QString &text)
    {
        number(quint64(text.size()));
        bytes(text.constData(), text.size() * qsizetype(sizeof(QChar)));
    }
    void texts(const QStringList &list)
    {
        number(quint64(list.size()));
        for (const QString &one : list)
            text(one);
    }
    bool finish()
    {
        const quint64 sum = _checksum.sum();
        put(reinterpret_cast<const char *>(&sum), sizeof sum);
        return _ok;
    }

private:
    void put(const char *data, qsizetype count)
    {
        _checksum.add(data, count);
        _ok = _ok && _device->write(data, count) == count;
    }

    QIODevice *_device;
    Checksum _checksum;
    bool _ok = true;
};

// Bytes of a line of pixels, without what QImage puts behind it.
qsizetype lineBytes(int width, int depth)
{
    return (qsizetype(width) * depth + 7) / 8;
}

void writeImage(Writer *writer, const QImage &image)
{
    writer->number(quint64(image.format()));
    writer->number(quint64(image.width()));
    writer->number(quint64(image.height()));
    writer->list(image.colorTable());
    for (int y = 0; y < image.height(); ++y)
        writer->bytes(image.constScanLine(y), lineBytes(image.width(), image.depth()));
}

// In the order in which they are written.
constexpr QImage ModelSurface::*kSurfaceMaps[] = {&ModelSurface::map_baseColor, &ModelSurface::map_metalRoughness,
                                                  &ModelSurface::map_normal, &ModelSurface::map_occlusion,
                                                  &ModelSurface::map_emission};
constexpr float ModelSurface::*kSurfaceNumbers[] = {&ModelSurface::metalness, &ModelSurface::roughness,
                                                    &ModelSurface::normalScale, &ModelSurface::occlusionStrength,
                                                    &ModelSurface::alphaCutoff};
constexpr QVector3D ModelSurface::*kSurfaceColors[] = {&ModelSurface::baseColor, &ModelSurface::emission};

// The different images of the materials, and which of them a material has.
class ImageTable
{
public:
    explicit ImageTable(const QVector<ModelMaterial> &materials)
    {
        for (const ModelMaterial &material : materials)
            for (const QImage &image : imagesOf(material))
                if (!image.isNull() && !_numbers.contains(image.cacheKey())) {
                    _numbers.insert(image.cacheKey(), _images.size());
                    _images << image;
                }
    }
    const QVector<QImage> &images() const { return _images; }
    // From 1 on; 0 is none.
    quint64 numberOf(const QImage &image) const
    {
        return image.isNull() ? 0 : quint64(_numbers.value(image.cacheKey())) + 1;
    }

private:
    static QVector<QImage> imagesOf(const ModelMaterial &material)
    {
        QVector<QImage> images{material.map_Kd, material.map_Ks};
        for (const auto map : kSurfaceMaps) {
            if (material.surface)
                images << *material.surface.*map;
        }
        return images;
    }

    QVector<QImage> _images;
    QHash<qint64, qsizetype> _numbers;
};

// Reads within its bytes. After the first thing that is wrong all that follows reads as nothing.
class Reader
{
public:
    Reader(const char *data, qsizetype size) : _at(data), _left(size) {}

    const QString &error() const { return _error; }
    bool ok() const { return _error.isEmpty(); }
    bool atEnd() const { return _left == 0; }
    void refuse(const QString &reason)
    {
        if (_error.isEmpty())
            _error = reason;
        _left = 0;
    }
    bool require(bool condition, const char *reason)
    {
        if (!condition)
            refuse(QLatin1StringView(reason));
        return condition && ok();
    }

    // Null if there is less.
    const char *bytes(qsizetype count)
    {
        const qsizetype padded = (count + kWord - 1) / kWord * kWord;
        if (!ok() || count < 0 || padded > _left) {
            refuse(QStringLiteral("it ends too early"));
            return nullptr;
        }
        const char *const data = _at;
        _at += padded;
        _left -= padded;
        return data;
    }
    quint64 number()
    {
        quint64 n = 0;
        if (const char *data = bytes(sizeof n))
            std::memcpy(&n, data, sizeof n);
        return n;
    }
    int integer(int most)
    {
        const quint64 n = number();
        require(n <= quint64(most), "a number is out of range");
        return ok() ? int(n) : 0;
    }
    // A count of things that take so many bytes each, at least.
    qsizetype count(qsizetype bytesEach)
    {
        const quint64 n = number();
        require(n <= quint64(_left / bytesEach), "it announces more than there is");
        return ok() ? qsizetype(n) : 0;
    }
    template <typename T>
    QVector<T> list()
    {
        const qsizetype n = count(sizeof(T));
        const char *data = bytes(n * qsizetype(sizeof(T)));
        // Unlike the constructor with a size, it throws where there is no memory.
        QVector<T> values;
        values.resize(data ? n : 0);
        if (!values.isEmpty())
            std::memcpy(static_cast<void *>(values.data()), data, size_t(n) * sizeof(T));
        return values;
    }
    template <typename T>
    QVector<T> finiteList()
    {
        QVector<T> values = list<T>();
        const auto *numbers = reinterpret_cast<const float *>(values.constData());
        requireFinite(numbers, values.size() * qsizetype(sizeof(T) / sizeof(float)));
        return values;
    }
    template <typename T>
    T finite()
    {
        float numbers[sizeof(T) / sizeof(float)] = {};
        if (const char *data = bytes(sizeof(T)))
            std::memcpy(numbers, data, sizeof(T));
        requireFinite(numbers, qsizetype(sizeof(T) / sizeof(float)));
        T value;
        std::memcpy(static_cast<void *>(&value), numbers, sizeof(T));
        return value;
    }
    QString text()
    {
        const qsizetype n = count(sizeof(QChar));
        const char *data = bytes(n * qsizetype(sizeof(QChar)));
        QString text(data ? n : 0, Qt::Uninitialized);
        if (!text.isEmpty())
            std::memcpy(static_cast<void *>(text.data()), data, size_t(n) * sizeof(QChar));
        return text;
    }
    QStringList texts()
    {
        QStringList list;
        for (qsizetype n = count(kWord); n > 0 && ok(); --n)
            list << text();
        return list;
    }

private:
    void requireFinite(const float *numbers, qsizetype count)
    {
        require(std::all_of(numbers, numbers + count, [](float f) { return std::isfinite(f); }),
                "a number is not finite");
    }

    const char *_at;
    qsizetype _left;
    QString _error;
};

QImage readImage(Reader *reader)
{
    const auto format = QImage::Format(reader->integer(int(QImage::NImageFormats) - 1));
    const int width = reader->integer(kMostSide);
    const int height = reader->integer(kMostSide);
    const QVector<QRgb> colors = reader->list<QRgb>();
    if (!reader->require(format != QImage::Format_Invalid && width > 0 && height > 0, "an image has no pixels"))
        return QImage();
    const qsizetype bytes = lineBytes(width, QImage::toPixelFormat(format).bitsPerPixel());
    // Before memory is taken for it.
    const char *pixels = reader->bytes((bytes + kWord - 1) / kWord * kWord * height);
    if (!pixels)
        return QImage();
    QImage image(width, height, format);
    if (!reader->require(!image.isNull() && lineBytes(width, image.depth()) == bytes, "an image is too large"))
        return QImage();
    if (!colors.isEmpty())
        image.setColorTable(colors);
    for (int y = 0; y < height; ++y, pixels += (bytes + kWord - 1) / kWord * kWord)
        std::memcpy(image.scanLine(y), pixels, size_t(bytes));
    return image;
}

ModelMesh readMesh(Reader *reader)
{
    ModelMesh mesh;
    mesh.name = reader->text();
    mesh.positions = reader->finiteList<QVector3D>();
    mesh.normals = reader->finiteList<QVector3D>();
    mesh.texCoords = reader->finiteList<QVector2D>();
    mesh.tangents = reader->finiteList<QVector4D>();
    mesh.indices = reader->list<quint32>();
    const qsizetype vertices = mesh.positions.size();
    reader->require((mesh.normals.isEmpty() || mesh.normals.size() == vertices)
                        && (mesh.texCoords.isEmpty() || mesh.texCoords.size() == vertices)
                        && (mesh.tangents.isEmpty() || mesh.tangents.size() == vertices),
                    "a mesh has not as many normals, texture coordinates or tangents as vertices");
    reader->require(mesh.indices.size() % 3 == 0
                        && std::all_of(mesh.indices.cbegin(), mesh.indices.cend(),
                                       [vertices](quint32 index) { return qsizetype(index) < vertices; }),
                    "an index of a mesh is out of range");
    return mesh;
}

ModelMaterial readMaterial(Reader *reader, const QVector<QImage> &images)
{
    const auto image = [&] {
        const int number = reader->integer(int(images.size()));
        return number > 0 ? images[number - 1] : QImage();
    };
    ModelMaterial material;
    material.name = reader->text();
    material.Kd = reader->finite<QVector3D>();
    material.Ks = reader->finite<QVector3D>();
    material.Ns = reader->finite<float>();
    material.D = reader->finite<float>();
    material.map_Kd = image();
    material.map_Ks = image();
    if (reader->integer(1) == 0)
        return material;
    ModelSurface surface;
    for (const auto color : kSurfaceColors)
        surface.*color = reader->finite<QVector3D>();
    for (const auto number : kSurfaceNumbers)
        surface.*number = reader->finite<float>();
    surface.alphaMode = AlphaMode(reader->integer(int(AlphaMode::Blend)));
    surface.isTwoSided = reader->integer(1) == 1;
    surface.isUnlit = reader->integer(1) == 1;
    for (const auto map : kSurfaceMaps)
        surface.*map = image();
    material.surface = surface;
    return material;
}

void writeSurface(Writer *writer, const ModelSurface &surface, const ImageTable &images)
{
    for (const auto color : kSurfaceColors)
        writer->bytes(&(surface.*color), sizeof(QVector3D));
    for (const auto number : kSurfaceNumbers)
        writer->bytes(&(surface.*number), sizeof(float));
    writer->number(quint64(surface.alphaMode));
    writer->number(surface.isTwoSided);
    writer->number(surface.isUnlit);
    for (const auto map : kSurfaceMaps)
        writer->number(images.numberOf(surface.*map));
}

ModelItem readItem(Reader *reader, const ModelData &data)
{
    struct Matrix
    {
        float numbers[16];
    };
    ModelItem item;
    item.mesh = reader->integer(int(data.meshes.size()) - 1);
    item.material = reader->integer(int(data.materials.size()) - 1);
    const auto matrix = reader->finite<Matrix>();
    std::copy_n(matrix.numbers, 16, item.transform.data());
    item.flags = reader->number();
    return item;
}

bool write(QIODevice *device, const ModelData &data, const ImportReport &report, QString *error)
{
    const ImageTable images(data.materials);
    Writer writer(device);
    writer.number(kMagic);
    writer.number(kVersion);
    writer.text(report.error);
    writer.texts(report.warnings);
    writer.number(quint64(report.images));
    writer.number(quint64(report.vertices));
    writer.number(quint64(report.triangles));
    writer.number(quint64(images.images().size()));
    for (const QImage &image : images.images())
        writeImage(&writer, image);
    writer.number(quint64(data.meshes.size()));
    for (const ModelMesh &mesh : data.meshes) {
        writer.text(mesh.name);
        writer.list(mesh.positions);
        writer.list(mesh.normals);
        writer.list(mesh.texCoords);
        writer.list(mesh.tangents);
        writer.list(mesh.indices);
    }
    writer.number(quint64(data.materials.size()));
    for (const ModelMaterial &material : data.materials) {
        writer.text(material.name);
        writer.bytes(&material.Kd, sizeof material.Kd);
        writer.bytes(&material.Ks, sizeof material.Ks);
        writer.bytes(&material.Ns, sizeof material.Ns);
        writer.bytes(&material.D, sizeof material.D);
        writer.number(images.numberOf(material.map_Kd));
        writer.number(images.numberOf(material.map_Ks));
        writer.number(material.surface.has_value());
        if (material.surface)
            writeSurface(&writer, *material.surface, images);
    }
    writer.number(quint64(data.items.size()));
    for (const ModelItem &item : data.items) {
        writer.number(quint64(item.mesh));
        writer.number(quint64(item.material));
        writer.bytes(item.transform.constData(), 16 * sizeof(float));
        writer.number(item.flags);
    }
    return writer.finish() || fail(error, device->errorString());
}

bool read(const QByteArray &bytes, ModelData *data, ImportReport *report, QString *error)
{
    const qsizetype length = bytes.size() - kWord;
    if (length < 2 * kWord || bytes.size() % kWord != 0)
        return fail(error, QStringLiteral("it ends too early"));
    Reader reader(bytes.constData(), length);
    if (reader.number() != kMagic)
        return fail(error, QStringLiteral("it is no model"));
    if (const quint64 version = reader.number(); version != kVersion)
        return fail(error, QStringLiteral("it has version %1, and this library reads %2").arg(version).arg(kVersion));
    Checksum checksum;
    checksum.add(bytes.constData(), length);
    quint64 sum;
    std::memcpy(&sum, bytes.constData() + length, sizeof sum);
    if (sum != checksum.sum())
        return fail(error, QStringLiteral("its checksum is not right"));

    ImportReport found;
    found.error = reader.text();
    found.warnings = reader.texts();
    found.images = reader.integer(std::numeric_limits<int>::max());
    found.vertices = qint64(reader.number());
    found.triangles = qint64(reader.number());
    ModelData model;
    QVector<QImage> images;
    for (qsizetype n = reader.count(4 * kWord); n > 0 && reader.ok(); --n)
        images << readImage(&reader);
    for (qsizetype n = reader.count(6 * kWord); n > 0 && reader.ok(); --n)
        model.meshes << readMesh(&reader);
    for (qsizetype n = reader.count(10 * kWord); n > 0 && reader.ok(); --n)
        model.materials << readMaterial(&reader, images);
    const qsizetype items = reader.count(11 * kWord);
    reader.require(items == 0 || (!model.meshes.isEmpty() && !model.materials.isEmpty()),
                   "an item is of no mesh, or of no material");
    for (qsizetype n = items; n > 0 && reader.ok(); --n)
        model.items << readItem(&reader, model);
    reader.require(reader.atEnd(), "something stands behind its end");
    if (!reader.ok())
        return fail(error, reader.error());
    *data = std::move(model);
    *report = std::move(found);
    return true;
}

// Qt throws where it has no memory.
template <typename Work>
bool withMemory(QString *error, Work &&work)
{
    try {
        return work();
    } catch (const std::bad_alloc &) {
        return fail(error, QStringLiteral("there is not enough memory for it"));
    }
}

} // namespace

bool writeModel(QIODevice *device, const ModelData &data, const ImportReport &report, QString *error)
{
    return withMemory(error, [&] { return write(device, data, report, error); });
}

bool readModel(const QByteArray &bytes, ModelData *data, ImportReport *report, QString *error)
{
    return withMemory(error, [&] { return read(bytes, data, report, error); });
}

} // namespace Brevane::Kvo
