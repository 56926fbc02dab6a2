#include <host/isolatedimport.h>
#include <host/modeltransport.h>

#include <QBuffer>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <cmath>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <limits>
#include <map>
#include <random>

using namespace Brevane::Kvo;

namespace {

const QString kModels = QStringLiteral("/usr/share/assimp/models/");

QImage pattern(int width, int height, QImage::Format format)
{
    QImage image(width, height, format);
    if (format == QImage::Format_Indexed8)
        image.setColorTable({0xff000000, 0xff102030, 0x80405060});
    for (int y = 0; y < height; ++y)
        for (int x = 0; x < width; ++x) {
            if (format == QImage::Format_Indexed8)
                image.setPixel(x, y, uint(x + y) % 3);
            else
                image.setPixelColor(x, y, QColor(37 * x % 256, 91 * y % 256, (x + y) % 256, 255 - x));
        }
    return image;
}

// All that a model can hold, in odd sizes.
ModelData everything()
{
    ModelData data;
    ModelMesh mesh;
    mesh.name = QStringLiteral("a \u00e4 \U0001d11e");
    for (int i = 0; i < 7; ++i) {
        mesh.positions << QVector3D(float(i) * 0.1f, -0.0f, std::numeric_limits<float>::denorm_min());
        mesh.normals << QVector3D(0, 0, 1);
        mesh.texCoords << QVector2D(float(i), 1e30f);
        mesh.tangents << QVector4D(float(i), 0, 1, -1);
    }
    mesh.indices = {0, 1, 2, 4, 5, 6};
    data.meshes << mesh << ModelMesh();
    const QImage shared = pattern(5, 3, QImage::Format_RGB888);
    ModelMaterial one;
    one.name = QStringLiteral("one");
    one.map_Kd = shared;
    one.map_Ks = pattern(9, 2, QImage::Format_Indexed8);
    ModelMaterial two;
    two.D = 0.25f;
    two.map_Kd = pattern(3, 4, QImage::Format_RGBA32FPx4);
    two.map_Ks = shared;
    ModelSurface surface;
    surface.baseColor = {0.1f, 0.2f, 0.3f};
    surface.metalness = 0.4f;
    surface.roughness = 0.5f;
    surface.emission = {6, 7, 8};
    surface.normalScale = -0.9f;
    surface.occlusionStrength = 0.25f;
    surface.alphaCutoff = 0.75f;
    surface.alphaMode = AlphaMode::Blend;
    surface.isTwoSided = false;
    surface.isUnlit = true;
    surface.map_baseColor = shared;
    surface.map_metalRoughness = pattern(2, 7, QImage::Format_RGB32);
    surface.map_normal = pattern(4, 4, QImage::Format_RGB888);
    surface.map_occlusion = pattern(1, 9, QImage::Format_Grayscale8);
    surface.map_emission = pattern(3, 3, QImage::Format_RGBA8888);
    two.surface = surface;
    data.materials << one << two << ModelMaterial();
    ModelItem item;
    item.mesh = 1;
    item.material = 2;
    item.transform.rotate(30, 1, 2, 3);
    item.flags = 0xf000000000000001u;
    data.items << item << ModelItem();
    return data;
}

ImportReport someReport()
{
    ImportReport report;
    report.warnings << QStringLiteral("first") << QString() << QStringLiteral("third");
    report.images = 3;
    report.vertices = 7;
    report.triangles = 2;
    return report;
}

QByteArray bytesOf(const ModelData &data, const ImportReport &report)
{
    QBuffer buffer;
    buffer.open(QIODevice::WriteOnly);
    EXPECT_TRUE(writeModel(&buffer, data, report));
    return buffer.data();
}

template <typename T>
bool sameBits(const QVector<T> &a, const QVector<T> &b)
{
    return a.size() == b.size()
           && (a.isEmpty() || std::memcmp(a.constData(), b.constData(), size_t(a.size()) * sizeof(T)) == 0);
}

// Bit for bit.
void expectSame(const ModelData &a, const ModelData &b)
{
    ASSERT_EQ(a.meshes.size(), b.meshes.size());
    for (qsizetype i = 0; i < a.meshes.size(); ++i) {
        EXPECT_EQ(a.meshes[i].name, b.meshes[i].name);
        EXPECT_TRUE(sameBits(a.meshes[i].positions, b.meshes[i].positions));
        EXPECT_TRUE(sameBits(a.meshes[i].normals, b.meshes[i].normals));
        EXPECT_TRUE(sameBits(a.meshes[i].texCoords, b.meshes[i].texCoords));
        EXPECT_TRUE(sameBits(a.meshes[i].tangents, b.meshes[i].tangents));
        EXPECT_TRUE(sameBits(a.meshes[i].indices, b.meshes[i].indices));
    }
    ASSERT_EQ(a.materials.size(), b.materials.size());
    for (qsizetype i = 0; i < a.materials.size(); ++i) {
        const ModelMaterial &m = a.materials[i], &n = b.materials[i];
        EXPECT_EQ(m.name, n.name);
        EXPECT_TRUE(m.Kd == n.Kd && m.Ks == n.Ks && m.Ns == n.Ns && m.D == n.D);
        EXPECT_EQ(m.map_Kd.format(), n.map_Kd.format());
        EXPECT_EQ(m.map_Ks.colorTable(), n.map_Ks.colorTable());
        EXPECT_EQ(m.map_Kd, n.map_Kd);
        EXPECT_EQ(m.map_Ks, n.map_Ks);
        ASSERT_EQ(m.surface.has_value(), n.surface.has_value());
        if (!m.surface)
            continue;
        const ModelSurface &s = *m.surface, &t = *n.surface;
        EXPECT_EQ(s.baseColor, t.baseColor);
        EXPECT_EQ(s.emission, t.emission);
        EXPECT_EQ(std::tie(s.metalness, s.roughness, s.normalScale, s.occlusionStrength, s.alphaCutoff, s.alphaMode,
                           s.isTwoSided, s.isUnlit),
                  std::tie(t.metalness, t.roughness, t.normalScale, t.occlusionStrength, t.alphaCutoff, t.alphaMode,
                           t.isTwoSided, t.isUnlit));
        for (const auto map : {&ModelSurface::map_baseColor, &ModelSurface::map_metalRoughness,
                               &ModelSurface::map_normal, &ModelSurface::map_occlusion, &ModelSurface::map_emission})
            EXPECT_EQ(s.*map, t.*map);
    }
    ASSERT_EQ(a.items.size(), b.items.size());
    for (qsizetype i = 0; i < a.items.size(); ++i) {
        EXPECT_EQ(a.items[i].mesh, b.items[i].mesh);
        EXPECT_EQ(a.items[i].material, b.items[i].material);
        EXPECT_EQ(std::memcmp(a.items[i].transform.constData(), b.items[i].transform.constData(), 64), 0);
        EXPECT_EQ(a.items[i].flags, b.items[i].flags);
    }
}

void expectSame(const ImportReport &a, const ImportReport &b)
{
    EXPECT_EQ(a.error, b.error);
    EXPECT_EQ(a.warnings, b.warnings);
    EXPECT_EQ(a.images, b.images);
    EXPECT_EQ(a.vertices, b.vertices);
    EXPECT_EQ(a.triangles, b.triangles);
}

bool isRefused(const QByteArray &bytes, QString *error)
{
    ModelData data;
    ImportReport report;
    error->clear();
    const bool refused = !readModel(bytes, &data, &report, error);
    return refused && !error->isEmpty() && data.meshes.isEmpty() && data.items.isEmpty();
}

class IsolatedImport : public ::testing::Test
{
protected:
    void TearDown() override { qunsetenv("KVO_IMPORT_PROGRAM"); }

    QString write(const QString &name, const QByteArray &data)
    {
        QFile file(folder.filePath(name));
        EXPECT_TRUE(file.open(QIODevice::WriteOnly));
        EXPECT_EQ(file.write(data), data.size());
        return file.fileName();
    }
    // In the place of the program that imports.
    void replaceProgram(const QByteArray &script)
    {
        const QString path = write(QStringLiteral("program"), "#!/bin/sh\n" + script);
        EXPECT_TRUE(QFile::setPermissions(path, QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner));
        qputenv("KVO_IMPORT_PROGRAM", QFile::encodeName(path));
    }
    ModelData import(const QString &path, const ImportLimits &limits = ImportLimits())
    {
        return importSceneIsolated(path, ImportOptions(), limits, &report);
    }
    // A model that takes some hundred megabytes.
    QString largeModel()
    {
        QByteArray obj;
        for (int i = 0; i < 150'000; ++i)
            obj += "v " + QByteArray::number(i % 1000) + ' ' + QByteArray::number(i / 1000) + " 0\n";
        for (int i = 1; i + 2 < 150'000; ++i)
            obj +=
                "f " + QByteArray::number(i) + ' ' + QByteArray::number(i + 1) + ' ' + QByteArray::number(i + 2) + '\n';
        return write(QStringLiteral("large.obj"), obj);
    }

    QTemporaryDir folder;
    ImportReport report;
};

} // namespace

TEST(ModelTransport, GivesEverythingBackBitForBit)
{
    const ModelData data = everything();
    const ImportReport report = someReport();
    ModelData read;
    ImportReport readReport;
    QString error;
    ASSERT_TRUE(readModel(bytesOf(data, report), &read, &readReport, &error)) << qPrintable(error);
    expectSame(read, data);
    expectSame(readReport, report);
    EXPECT_EQ(read.materials[0].map_Kd.cacheKey(), read.materials[1].map_Ks.cacheKey()) << "one image is one again";
}

TEST(ModelTransport, GivesEmptinessAndErrorsBack)
{
    ImportReport report;
    report.error = QStringLiteral("cannot");
    ModelData read = everything();
    ImportReport readReport;
    ASSERT_TRUE(readModel(bytesOf(ModelData(), report), &read, &readReport));
    expectSame(read, ModelData());
    expectSame(readReport, report);
}

TEST(ModelTransport, RefusesWhatIsCutAtAnyPlace)
{
    const QByteArray bytes = bytesOf(everything(), someReport());
    QString error;
    for (qsizetype length = 0; length < bytes.size(); ++length)
        ASSERT_TRUE(isRefused(bytes.left(length), &error)) << length;
    EXPECT_TRUE(isRefused(bytes + QByteArray(8, '\0'), &error));
}

TEST(ModelTransport, RefusesAnyBitThatIsNotAsItWas)
{
    QByteArray bytes = bytesOf(everything(), someReport());
    QString error;
    for (qsizetype bit = 0; bit < bytes.size() * 8; ++bit) {
        bytes[bit / 8] = char(bytes[bit / 8] ^ (1 << bit % 8));
        ASSERT_TRUE(isRefused(bytes, &error)) << bit;
        bytes[bit / 8] = char(bytes[bit / 8] ^ (1 << bit % 8));
    }
}

TEST(ModelTransport, NamesAnotherVersion)
{
    QByteArray bytes = bytesOf(everything(), someReport());
    bytes[8] = 77;
    QString error;
    EXPECT_TRUE(isRefused(bytes, &error));
    EXPECT_TRUE(error.contains(QStringLiteral("version 77"))) << qPrintable(error);
}

// A checksum that is right is no reason to believe the rest.
TEST(ModelTransport, RefusesNumbersThatCannotBe)
{
    const auto refuses = [](const char *what, auto &&change) {
        ModelData data = everything();
        change(data);
        QString error;
        EXPECT_TRUE(isRefused(bytesOf(data, someReport()), &error)) << what;
    };
    const float nan = std::numeric_limits<float>::quiet_NaN();
    refuses("an index", [](ModelData &d) { d.meshes[0].indices[5] = 7; });
    refuses("an index of an empty mesh", [](ModelData &d) { d.meshes[1].indices = {0, 0, 0}; });
    refuses("part of a triangle", [](ModelData &d) { d.meshes[0].indices << 0; });
    refuses("normals", [](ModelData &d) { d.meshes[0].normals.removeLast(); });
    refuses("texture coordinates", [](ModelData &d) { d.meshes[0].texCoords << QVector2D(); });
    refuses("tangents", [](ModelData &d) { d.meshes[0].tangents << QVector4D(); });
    refuses("a position", [nan](ModelData &d) { d.meshes[0].positions[3].setY(nan); });
    refuses("a colour", [nan](ModelData &d) { d.materials[1].Kd.setX(nan); });
    refuses("an opacity", [nan](ModelData &d) { d.materials[1].D = nan; });
    refuses("a transform", [nan](ModelData &d) { d.items[0].transform(2, 3) = nan; });
    refuses("a mesh", [](ModelData &d) { d.items[0].mesh = 2; });
    refuses("no mesh", [](ModelData &d) { d.items[0].mesh = -1; });
    refuses("a material", [](ModelData &d) { d.items[0].material = 3; });
    refuses("no meshes at all", [](ModelData &d) { d.meshes.clear(); });
    // Not refused as it is.
    QString error;
    EXPECT_FALSE(isRefused(bytesOf(everything(), someReport()), &error));
}

// Any bytes, with a checksum that is right: the reader stays within them.
TEST(ModelTransport, ReadsNothingBeyondItsBytes)
{
    const QByteArray good = bytesOf(everything(), someReport());
    const auto sumOf = [](const QByteArray &bytes, qsizetype length) {
        quint64 sum = 0x243f6a8885a308d3u; // as the format has it
        for (qsizetype i = 0; i < length; i += 8) {
            quint64 word;
            std::memcpy(&word, bytes.constData() + i, sizeof word);
            sum = (sum ^ word) * 0x9e3779b97f4a7c15u;
            sum ^= sum >> 29;
        }
        return sum;
    };
    const auto withSum = [&](QByteArray bytes) {
        const quint64 sum = sumOf(bytes, bytes.size() - 8);
        std::memcpy(bytes.data() + bytes.size() - 8, &sum, sizeof sum);
        return bytes;
    };
    ASSERT_EQ(withSum(good), good);
    std::mt19937 random(3);
    const quint64 odd[] = {0, 1, 7, 1u << 16, 0x7fffffff, 0xffffffff, ~quint64(0), quint64(1) << 62, quint64(1) << 61};
    int refused = 0;
    for (int round = 0; round < 20'000; ++round) {
        QByteArray bytes = good;
        for (int changes = 1 + int(random() % 3); changes > 0; --changes) {
            const qsizetype word = 2 + qsizetype(random() % size_t(bytes.size() / 8 - 3));
            const quint64 value = random() % 2 ? odd[random() % std::size(odd)] : quint64(random() % 64);
            std::memcpy(bytes.data() + 8 * word, &value, sizeof value);
        }
        if (random() % 4 == 0)
            bytes.truncate(8 * qsizetype(3 + random() % size_t(bytes.size() / 8 - 3)));
        QString error;
        refused += isRefused(withSum(bytes), &error);
    }
    EXPECT_GT(refused, 5'000);
    EXPECT_LT(refused, 20'000);
}

TEST_F(IsolatedImport, FindsTheSameAsAnImportInTheProcess)
{
    for (const char *name :
         {"OBJ/spider.obj", "glTF2/BoxTextured-glTF-Binary/BoxTextured.glb", "PLY/Wuson.ply", "STL/Wuson.stl",
          "FBX/spider.fbx", "Collada/duck.dae", "OBJ/no-such-file.obj", "invalid/empty.obj"}) {
        const ::testing::ScopedTrace trace(__FILE__, __LINE__, name);
        ImportReport inside;
        const ModelData data = importScene(kModels + QLatin1StringView(name), ImportOptions(), &inside);
        expectSame(import(kModels + QLatin1StringView(name)), data);
        expectSame(report, inside);
    }
}

TEST_F(IsolatedImport, PassesItsOptionsOn)
{
    const QString path = kModels + QStringLiteral("glTF2/BoxTextured-glTF-Binary/BoxTextured.glb");
    ImportOptions options;
    options.loadImages = false;
    EXPECT_TRUE(importSceneIsolated(path, options).materials.value(0).map_Kd.isNull());
    EXPECT_FALSE(importSceneIsolated(path).materials.value(0).map_Kd.isNull());
    options.creaseAngle = 175.0f;
    const QString spider = kModels + QStringLiteral("OBJ/spider.obj");
    expectSame(importSceneIsolated(spider, options), importScene(spider, options));
}

TEST_F(IsolatedImport, SaysThatTheProgramIsMissing)
{
    qputenv("KVO_IMPORT_PROGRAM", "/nowhere/kvo-import");
    EXPECT_TRUE(import(QStringLiteral("a.obj")).items.isEmpty());
    EXPECT_EQ(report.error, QStringLiteral("cannot read model 'a.obj': the program '/nowhere/kvo-import' that "
                                           "KVO_IMPORT_PROGRAM names cannot be run"));
}

TEST_F(IsolatedImport, SaysHowTheImporterCrashed)
{
    replaceProgram("echo 'x.cpp:7: f: Assertion `a < b failed.' >&2; kill -ABRT $$\n");
    EXPECT_TRUE(import(QStringLiteral("a.obj")).items.isEmpty());
    EXPECT_EQ(report.error, QStringLiteral("cannot read model 'a.obj': the importer crashed (Aborted): x.cpp:7: f: "
                                           "Assertion `a < b failed."));
    replaceProgram("kill -SEGV $$\n");
    import(QStringLiteral("a.obj"));
    EXPECT_EQ(report.error, QStringLiteral("cannot read model 'a.obj': the importer crashed (Segmentation fault)"));
    replaceProgram("exit 9\n");
    import(QStringLiteral("a.obj"));
    EXPECT_EQ(report.error, QStringLiteral("cannot read model 'a.obj': the importer ended with code 9"));
}

TEST_F(IsolatedImport, EndsAnImportThatTakesTooLong)
{
    replaceProgram("exec sleep 60\n");
    ImportLimits limits;
    limits.seconds = 1;
    QElapsedTimer timer;
    timer.start();
    EXPECT_TRUE(import(QStringLiteral("a.obj"), limits).items.isEmpty());
    EXPECT_LT(timer.elapsed(), 20'000);
    EXPECT_GE(timer.elapsed(), 1'000);
    EXPECT_EQ(report.error, QStringLiteral("cannot read model 'a.obj': the import took more than 1 seconds"));
}

TEST_F(IsolatedImport, EndsAnImportThatTakesTooMuchMemory)
{
#ifdef __SANITIZE_ADDRESS__
    GTEST_SKIP() << "a sanitizer takes address space by the terabyte";
#endif
    const QString path = largeModel();
    ImportLimits limits;
    limits.megabytes = 250; // of which the libraries take most
    EXPECT_TRUE(import(path, limits).items.isEmpty());
    EXPECT_TRUE(report.error.contains(QStringLiteral("the import takes more than 250 megabytes of memory"))
                || report.error.contains(QStringLiteral("there is not enough memory")))
        << qPrintable(report.error);
    EXPECT_TRUE(report.error.contains(path));
    EXPECT_FALSE(import(path).items.isEmpty()) << "it is the limit that it failed by: " << qPrintable(report.error);
}

TEST_F(IsolatedImport, RefusesWhatIsHandedOverDamaged)
{
    for (const char *script : {"exit 0\n", "echo nonsense\n", "head -c 100000 /dev/urandom\n"}) {
        replaceProgram(script);
        EXPECT_TRUE(import(QStringLiteral("a.obj")).items.isEmpty());
        EXPECT_TRUE(report.error.startsWith(QStringLiteral("cannot read model 'a.obj': what '"))) << script;
        EXPECT_TRUE(report.error.contains(QStringLiteral("is damaged"))) << qPrintable(report.error);
    }
}

TEST_F(IsolatedImport, WorksInAHostThatReapsItsChildrenItself)
{
    struct sigaction ignore
    {
    }, before{};
    ignore.sa_handler = SIG_IGN;
    sigaction(SIGCHLD, &ignore, &before);
    EXPECT_FALSE(import(kModels + QStringLiteral("OBJ/spider.obj")).items.isEmpty()) << qPrintable(report.error);
    replaceProgram("kill -SEGV $$\n");
    EXPECT_TRUE(import(QStringLiteral("a.obj")).items.isEmpty());
    EXPECT_FALSE(report.error.isEmpty());
    sigaction(SIGCHLD, &before, nullptr);
}

// Whatever a file holds, the host goes on, and what it gets is sound. KVO_MUTANTS says how many files.
TEST_F(IsolatedImport, SurvivesDamagedFiles)
{
    const char *const names[] = {"glTF2/BoxTextured-glTF-Binary/BoxTextured.glb",
                                 "glTF2/BoxTextured-glTF-Embedded/BoxTextured.gltf",
                                 "OBJ/box.obj",
                                 "OBJ/spider.obj",
                                 "PLY/cube.ply",
                                 "PLY/cube_binary.ply",
                                 "STL/triangle.stl",
                                 "STL/Spider_binary.stl",
                                 "FBX/box.fbx",
                                 "FBX/spider.fbx",
                                 "Collada/cube_triangulate.dae",
                                 "Collada/box_nested_animation.dae"};
    std::vector<std::pair<QString, QByteArray>> files;
    for (const char *name : names) {
        QFile file(kModels + QLatin1StringView(name));
        if (file.open(QIODevice::ReadOnly) && file.size() < 300'000)
            files.emplace_back(QFileInfo(file).suffix(), file.readAll());
    }
    ASSERT_GE(files.size(), 8u);
    bool isNumber = false;
    const int wanted = qEnvironmentVariable("KVO_MUTANTS").toInt(&isNumber);
    const int mutants = isNumber ? wanted : 200;
    ImportLimits limits;
    limits.seconds = 20;
    limits.megabytes = 2000;
    std::mt19937 random(qEnvironmentVariable("KVO_MUTANTS_SEED", QStringLiteral("11")).toUInt());
    const auto below = [&random](qsizetype n) { return qsizetype(random() % quint32(std::max<qsizetype>(n, 1))); };
    std::map<QString, int> endings;
    for (int i = 0; i < mutants; ++i) {
        const auto &[suffix, original] = files[size_t(below(qsizetype(files.size())))];
        QByteArray bytes = original;
        switch (below(4)) {
        case 0: bytes.truncate(below(bytes.size())); break;
        case 1: { // a piece of another file
            const QByteArray &other = files[size_t(below(qsizetype(files.size())))].second;
            const qsizetype length = below(std::min<qsizetype>(other.size(), 200));
            bytes.replace(below(bytes.size()), length, other.mid(below(other.size()), length));
            break;
        }
        default:
            for (qsizetype flips = 1 + below(8); flips > 0; --flips) {
                // mostly where the structure is
                const qsizetype at = below(below(2) ? bytes.size() : std::min<qsizetype>(bytes.size(), 400));
                bytes[at] = char(bytes[at] ^ (1 << below(8)));
            }
        }
        const QString path = write(QStringLiteral("mutant.") + suffix, bytes);
        const ModelData data = import(path, limits);
        const bool ok = report.ok();
        EXPECT_EQ(ok, !data.items.isEmpty());
        EXPECT_TRUE(ok || report.error.startsWith(QStringLiteral("cannot read model '%1': ").arg(path)));
        const QString text = report.error.mid(report.error.indexOf(QStringLiteral("': ")) + 3);
        QString kind = ok ? QStringLiteral("read") : QStringLiteral("refused");
        if (text.startsWith(QStringLiteral("the importer crashed")))
            kind = text.left(text.indexOf(u')') + 1);
        else if (text.startsWith(QStringLiteral("the import t")))
            kind = text;
        else if (text.contains(QStringLiteral("damaged:")))
            ADD_FAILURE() << qPrintable(text);
        ++endings[kind];
        if (HasFailure()) {
            QFile::copy(path, QDir::tempPath() + QStringLiteral("/kvo-mutant.") + suffix);
            break;
        }
    }
    for (const auto &[kind, count] : endings)
        std::printf("[ mutants  ] %5d %s\n", count, qPrintable(kind));
}
