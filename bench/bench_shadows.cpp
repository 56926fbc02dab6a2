// Shadow maps of a model of more than 100,000 triangles in 8 layers of 1024 x 1024: both passes, the layered
// one on each of its paths, against bare GL that makes the same calls; the layered pass against the other.
//
//   bench_shadows [MODEL] [--benchmark_out=FILE --benchmark_out_format=json]
//
// Without a model file a sheet of hills with spheres on it is drawn.

#include "benchmain.h"
#include "subject.h"

#include "support/scenes.h"

#include <gl/glinfo.h>
#include <host/sceneimport.h>
#include <model/gpumodel.h>
#include <renderpasses/shadowmaprenderpass.h>
#include <renderpasses/shadowmaprenderpass2.h>
#include <shadows/shadowmaplight.h>

#include <QSize>

#include <cmath>
#include <cstdio>
#include <cstring>

using namespace Brevane::Kvo;
using namespace Brevane::Kvo::Bench;

namespace {

constexpr int kLayers = 8;
constexpr int kSide = 1024; // texels

ModelMesh sphere(int rings)
{
    ModelMesh mesh;
    const int segments = 2 * rings;
    for (int y = 0; y <= rings; ++y) {
        for (int x = 0; x <= segments; ++x) {
            const float theta = 3.14159265f * float(y) / float(rings);
            const float phi = 6.2831853f * float(x) / float(segments);
            mesh.positions << QVector3D(std::sin(theta) * std::cos(phi), std::cos(theta),
                                        -std::sin(theta) * std::sin(phi));
        }
    }
    for (int y = 0; y < rings; ++y) {
        for (int x = 0; x < segments; ++x) {
            const auto a = quint32(y * (segments + 1) + x);
            const auto b = quint32(a + quint32(segments) + 1);
            mesh.indices << a << b << a + 1 << a + 1 << b << b + 1;
        }
    }
    return mesh;
}

// 64 spheres of 2,048 triangles over a floor; half of them with both faces.
ModelData spheres()
{
    ModelData data;
    data.meshes << sphere(32) << Test::quadMesh();
    data.materials << Test::material({1, 1, 1});
    for (int i = 0; i < 64; ++i) {
        const int column = i % 8;
        const int row = i / 8;
        ModelItem item;
        item.transform.translate(float(column) - 3.5f, 0.6f + 0.3f * float(i % 3), float(row) - 3.5f);
        item.transform.scale(0.45f);
        item.flags = i % 2 ? 0x1000000000000000 : 0;
        data.items << item;
    }
    ModelItem floor;
    floor.mesh = 1;
    floor.transform.rotate(-90, 1, 0, 0);
    floor.transform.scale(5);
    data.items << floor;
    return data;
}

QVariantList lights()
{
    QVariantList list;
    for (int i = 0; i < kLayers; ++i) {
        const float angle = 6.2831853f * float(i) / kLayers;
        list << QVariant::fromValue(ShadowMapLight::directional({0.5f * std::cos(angle), -1, 0.5f * std::sin(angle)}));
    }
    return list;
}

/// Chooses a path by the vendor that the pass sees; the per-layer path needs a driver without the extension.
class SeenVendor
{
public:
    explicit SeenVendor(const char *vendor) : _before(epoxy_glGetString)
    {
        real = _before;
        seen = vendor;
        epoxy_glGetString = [](GLenum name) {
            return name == GL_VENDOR ? reinterpret_cast<const GLubyte *>(seen) : real(name);
        };
    }
    ~SeenVendor() { epoxy_glGetString = _before; }
    SeenVendor(const SeenVendor &) = delete;
    SeenVendor &operator=(const SeenVendor &) = delete;

private:
    static inline PFNGLGETSTRINGPROC real = nullptr;
    static inline const char *seen = nullptr;
    PFNGLGETSTRINGPROC _before;
};

/// Renames the extension of the viewport layer path for a context that the library has not seen yet.
class Unextended
{
public:
    Unextended() : _before(epoxy_glGetStringi)
    {
        real = _before;
        epoxy_glGetStringi = [](GLenum name, GLuint index) {
            const GLubyte *text = real(name, index);
            const bool hide =
                name == GL_EXTENSIONS
                && std::strcmp(reinterpret_cast<const char *>(text), "GL_ARB_shader_viewport_layer_array") == 0;
            return hide ? reinterpret_cast<const GLubyte *>("GL_none") : text;
        };
    }
    ~Unextended() { epoxy_glGetStringi = _before; }
    Unextended(const Unextended &) = delete;
    Unextended &operator=(const Unextended &) = delete;

private:
    static inline PFNGLGETSTRINGIPROC real = nullptr;
    PFNGLGETSTRINGIPROC _before;
};

enum class Path { Batch, ViewportLayer, PerLayer };

std::unique_ptr<ShadowMapRenderPass2> layeredPass(Path path, Test::GLContext &context)
{
    const SeenVendor vendor(path == Path::Batch ? "AMD" : "Nobody");
    if (path != Path::PerLayer)
        return std::make_unique<ShadowMapRenderPass2>();
    const Unextended unextended;
    Test::GLContext other;
    other.makeCurrent();
    auto pass = std::make_unique<ShadowMapRenderPass2>();
    OpenGLDeviceContext::releaseCurrent();
    context.makeCurrent();
    return pass;
}

void connect(RenderPassHelper &pass, GPUModel &model)
{
    pass.setInput(pass.findInput(QStringLiteral("Kvo_KvoGPUModel*_Geometry")), QVariant::fromValue(&model));
    pass.setInput(pass.findInput(QStringLiteral("Kvo_QList_KvoShadowMapManagerLight*_Lights")), lights());
    pass.setInput(pass.findInput(QStringLiteral("Kvo_int_FilterType")), 3);
    pass.setInput(pass.findInput(QStringLiteral("Kvo_QSize_MapSize")), QSize(kSide, kSide));
}

int drawsOf(RenderPass &pass)
{
    const RecorderScope recorder;
    const Test::GlCalls calls;
    frame(pass);
    return calls.draws();
}

} // namespace

int main(int argc, char **argv)
{
    const QString file = argc > 1 && argv[1][0] != '-' ? QString::fromLocal8Bit(argv[1]) : QString();
    Test::GLContext::Options options;
    options.major = 4;
    options.minor = 5;
    options.debug = false;
    Test::GLContext context(options);
    if (!context.makeCurrent()) {
        std::fprintf(stderr, "no context: %s\n", qPrintable(context.error()));
        return 1;
    }
    benchmark::Initialize(&argc, argv);
    benchmark::AddCustomContext("gl", qPrintable(OpenGLDeviceContext::current()->description()));
    {
        GPUModel model;
        ImportReport report;
        if (!model.upload(file.isEmpty() ? spheres() : importScene(file, ImportOptions(), &report)) || !report.ok()) {
            std::fprintf(stderr, "%s\n", qPrintable(report.error));
            return 1;
        }
        ShadowMapRenderPass plain;
        connect(plain, model);
        const auto batch = layeredPass(Path::Batch, context);
        const auto perLayer = layeredPass(Path::PerLayer, context);
        std::unique_ptr<ShadowMapRenderPass2> viewportLayer;
        if (hasGLExtension("GL_ARB_shader_viewport_layer_array"))
            viewportLayer = layeredPass(Path::ViewportLayer, context);

        std::vector<Subject> subjects;
        const std::string size = QString::asprintf("/%dx%d", kSide, kSide).toStdString();
        subjects.push_back({"ShadowMapRenderPass" + size, &plain, kSide, kSide});
        subjects.push_back({"ShadowMapRenderPass2 batch" + size, batch.get(), kSide, kSide});
        subjects.push_back({"ShadowMapRenderPass2 per layer" + size, perLayer.get(), kSide, kSide});
        if (viewportLayer)
            subjects.push_back({"ShadowMapRenderPass2 viewport layer" + size, viewportLayer.get(), kSide, kSide});
        for (std::size_t i = 1; i < subjects.size(); ++i)
            connect(static_cast<ShadowMapRenderPass2 &>(*subjects[i].pass), model);
        registerAll(subjects);

        // The passes in pairs with the plain one, so that both meet the same moments.
        struct Pair
        {
            std::string name;
            double ratio = 0;
        };
        std::vector<Pair> pairs(subjects.size());
        for (std::size_t i = 1; i < subjects.size(); ++i) {
            pairs[i].name = subjects[i].name + " / ShadowMapRenderPass";
            benchmark::RegisterBenchmark(pairs[i].name.c_str(),
                                         [&, i](benchmark::State &state) {
                                             comparePairs(
                                                 state, [&] { frame(*subjects[i].pass); }, [&] { frame(plain); });
                                             pairs[i].ratio = state.counters["ratio"];
                                         })
                ->UseManualTime()
                ->Iterations(kPairs)
                ->Unit(benchmark::kMicrosecond);
        }
        benchmark::RunSpecifiedBenchmarks();

        std::printf("\n%lld triangles, %d layers of %d x %d, filter 3\n", static_cast<long long>(model.triangleCount()),
                    kLayers, kSide, kSide);
        printTable(subjects);
        std::printf("\n%-46s %6s\n", "draws per frame", "");
        for (Subject &subject : subjects)
            std::printf("%-46s %6d\n", subject.name.c_str(), drawsOf(*subject.pass));
        std::printf("\n%-62s %6s\n", "time against the other pass", "ratio");
        for (std::size_t i = 1; i < pairs.size(); ++i)
            std::printf("%-62s %6.3f\n", pairs[i].name.c_str(), pairs[i].ratio);
    }
    OpenGLDeviceContext::releaseCurrent();
    return 0;
}
