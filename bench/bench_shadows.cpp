// Shadow maps of a model of more than 100,000 triangles in 8 layers of 1024 x 1024: both passes, the layered
// one on each of its paths, against bare GL that makes the same calls; the layered pass against the other, also for
// 2,000 triangles; and a city of 1,000 items in 4 cascades against drawing all of it in each.
//
//   bench_shadows [MODEL] [--benchmark_out=FILE --benchmark_out_format=json]
//
// Without a model file spheres over a floor are drawn.

#include "benchmain.h"
#include "subject.h"

#include "support/scenes.h"

#include <gl/glinfo.h>
#include <host/sceneimport.h>
#include <model/gpumodel.h>
#include <model/instancedataplan.h>
#include <model/instancedataregistry.h>
#include <renderpasses/shadowmaprenderpass.h>
#include <renderpasses/shadowmaprenderpass2.h>
#include <shadows/shadowmaplight.h>

#include <QSize>

#include <cmath>
#include <cstdio>
#include <cstring>

using namespace Brevane::Kvo;
using namespace Brevane::Kvo::Bench;
using namespace Qt::StringLiterals;

namespace {

constexpr int kLayers = 8;
constexpr int kSide = 1024; // texels

ModelMesh sphere(int rings)
{
    ModelMesh mesh;
    const int segments = rings;
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

// 64 spheres over a floor, of 2 triangles for each ring and segment; half of them with both faces.
ModelData spheres(int rings)
{
    ModelData data;
    data.meshes << sphere(rings) << Test::quadMesh();
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

/// A house: a box whose sides are cut into so many squares along each edge.
ModelMesh house(int cuts)
{
    const ModelMesh cube = Test::cubeMesh();
    ModelMesh mesh;
    for (int side = 0; side < 6; ++side) {
        const QVector3D *corners = &cube.positions[4 * side];
        const QVector3D across = (corners[1] - corners[0]) / float(cuts);
        const QVector3D along = (corners[3] - corners[0]) / float(cuts);
        for (int y = 0; y < cuts; ++y) {
            for (int x = 0; x < cuts; ++x) {
                const auto first = quint32(mesh.positions.size());
                const QVector3D at = corners[0] + float(x) * across + float(y) * along;
                mesh.positions << at << at + across << at + across + along << at + along;
                mesh.indices << first << first + 1 << first + 2 << first << first + 2 << first + 3;
            }
        }
    }
    return mesh;
}

// 999 houses in streets, and the ground.
ModelData city(int cuts)
{
    ModelData data;
    data.meshes << house(cuts) << Test::quadMesh();
    data.materials << Test::material({1, 1, 1});
    for (int i = 0; i < 999; ++i) {
        const float height = 4.0f + 1.5f * float(i * 7 % 11);
        ModelItem item;
        const int row = i / 32;
        item.transform.translate(20.0f * float(i % 32) - 310, height, 20.0f * float(row) - 310);
        item.transform.rotate(float(i % 4) * 3, 0, 1, 0);
        item.transform.scale(7, height, 6);
        data.items << item;
    }
    ModelItem ground;
    ground.mesh = 1;
    ground.transform.rotate(-90, 1, 0, 0);
    ground.transform.scale(330);
    data.items << ground;
    return data;
}

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
    pass.setInput(pass.findInput(u"Kvo_KvoGPUModel*_Geometry"_s), QVariant::fromValue(&model));
    pass.setInput(pass.findInput(u"Kvo_QList_KvoShadowMapManagerLight*_Lights"_s), lights());
    pass.setInput(pass.findInput(u"Kvo_int_FilterType"_s), 3);
    pass.setInput(pass.findInput(u"Kvo_QSize_MapSize"_s), QSize(kSide, kSide));
}

// A camera in a street, whose view a sun lights in 4 cascades.
void connectStreet(RenderPassHelper &pass, GPUModel &model)
{
    connect(pass, model);
    QMatrix4x4 camera;
    camera.lookAt({10, 2, 150}, {30, 3, 50}, {0, 1, 0});
    QMatrix4x4 projection;
    projection.perspective(50, 1.6f, 0.5f, 200);
    pass.setInput(pass.findInput(u"Kvo_QList_KvoShadowMapManagerLight*_Lights"_s),
                  QVariantList{QVariant::fromValue(ShadowMapLight::directional({0.6f, -1, 0.3f}, 4))});
    pass.setInput(pass.findInput(u"Kvo_QMatrix4x4_CameraMatrix"_s), camera);
    pass.setInput(pass.findInput(u"Kvo_QMatrix4x4_ProjectionMatrix"_s), projection);
}

// The passes' plan under another text: where casters are is not to be known, so that all of them are drawn.
QString planOfAll()
{
    InstanceDataRegistry &registry = InstanceDataRegistry::Instance();
    const InstanceDataPlan *known = registry.getPlan(u"InstanceInfo"_s);
    const QString name = u"DrawAll"_s;
    if (!registry.hasPlan(name))
        registry.addPlan(new InstanceDataPlan(name, known->samplerName(), known->texelsPerDraw(), known->glslh(),
                                              known->glslc() + u"// of another kind\n"_s));
    return name;
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
        if (!model.upload(file.isEmpty() ? spheres(32) : importScene(file, ImportOptions(), &report)) || !report.ok()) {
            std::fprintf(stderr, "%s\n", qPrintable(report.error));
            return 1;
        }
        // Before the passes, which are to be gone first.
        GPUModel small;
        GPUModel boxes;
        GPUModel houses;
        small.upload(spheres(4));
        boxes.upload(city(1));
        houses.upload(city(6));

        std::vector<std::unique_ptr<RenderPassHelper>> passes;
        const auto plainOf = [&](GPUModel &casters) {
            passes.push_back(std::make_unique<ShadowMapRenderPass>());
            connect(*passes.back(), casters);
            return passes.back().get();
        };
        struct NamedPath
        {
            Path path;
            std::string name;
        };
        std::vector<NamedPath> paths{{Path::Batch, "batch"}, {Path::PerLayer, "per layer"}};
        if (hasGLExtension("GL_ARB_shader_viewport_layer_array"))
            paths.push_back({Path::ViewportLayer, "viewport layer"});
        const auto layeredOf = [&](Path path, GPUModel &casters) {
            std::unique_ptr<ShadowMapRenderPass2> pass = layeredPass(path, context);
            connect(*pass, casters);
            ShadowMapRenderPass2 *made = pass.get();
            passes.push_back(std::move(pass));
            return made;
        };

        std::vector<Subject> subjects;
        const std::string size = QString::asprintf("/%dx%d", kSide, kSide).toStdString();
        subjects.push_back({"ShadowMapRenderPass" + size, plainOf(model), kSide, kSide});
        for (const NamedPath &path : paths)
            subjects.push_back({"ShadowMapRenderPass2 " + path.name + size, layeredOf(path.path, model), kSide, kSide});
        registerAll(subjects);

        // Passes in pairs, so that both meet the same moments.
        struct Pair
        {
            std::string name;
            RenderPass *pass;
            RenderPass *other;
            double ratio = 0;
            double lower = 0;
            double upper = 0;
        };
        std::vector<Pair> pairs;
        const auto trianglesOf = [](const GPUModel &casters) { return std::to_string(casters.triangleCount()); };
        for (std::size_t i = 0; i < paths.size(); ++i)
            pairs.push_back({paths[i].name + " / ShadowMapRenderPass, " + trianglesOf(model) + " triangles",
                             subjects[i + 1].pass, subjects[0].pass});
        RenderPass *smallPlain = plainOf(small);
        for (const NamedPath &path : paths)
            pairs.push_back({path.name + " / ShadowMapRenderPass, " + trianglesOf(small) + " triangles",
                             layeredOf(path.path, small), smallPlain});
        for (GPUModel *casters : {&boxes, &houses}) {
            for (const NamedPath &path : paths) {
                ShadowMapRenderPass2 *culling = layeredOf(path.path, *casters);
                ShadowMapRenderPass2 *all = layeredOf(path.path, *casters);
                all->setInstanceDataPlanName(planOfAll());
                connectStreet(*culling, *casters);
                connectStreet(*all, *casters);
                pairs.push_back(
                    {path.name + " / the same without culling, city of " + trianglesOf(*casters), culling, all});
            }
        }
        for (Pair &pair : pairs) {
            benchmark::RegisterBenchmark(pair.name.c_str(),
                                         [&pair](benchmark::State &state) {
                                             comparePairs(
                                                 state, [&] { frame(*pair.pass); }, [&] { frame(*pair.other); },
                                                 PairTime::Process);
                                             pair.ratio = state.counters["ratio"];
                                             pair.lower = state.counters["lower"];
                                             pair.upper = state.counters["upper"];
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
        std::printf("\n%-62s %6s %16s\n", "CPU time of the process in pairs", "ratio", "quartiles");
        for (const Pair &pair : pairs)
            std::printf("%-62s %6.3f %7.3f to %.3f\n", pair.name.c_str(), pair.ratio, pair.lower, pair.upper);
    }
    OpenGLDeviceContext::releaseCurrent();
    return 0;
}
