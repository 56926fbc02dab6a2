#pragma once

#include "support/glcontext.h"
#include "support/gltest.h"
#include "support/image.h"
#include "support/messages.h"
#include "support/modelreference.h"
#include "support/scenes.h"

#include <gl/glinfo.h>
#include <gl/opengldevicecontext.h>
#include <gl/texture.h>
#include <renderpasses/shadowmaprenderpass2.h>
#include <shadows/shadowmapmanager.h>

#include <QMatrix4x4>

#include <epoxy/gl.h>

#include <algorithm>
#include <cstring>
#include <iterator>
#include <memory>
#include <vector>

namespace Brevane::Kvo::Test {

using ShadowRecord = ShadowMapManager::RenderData;

/// What a map holds where no caster is.
constexpr double kEmptyTexel = 1e9;
constexpr double kShadowBias = 0.0005;

/// Answers a query for the vendor with a name of the test's, in its scope.
class ForcedVendor
{
public:
    explicit ForcedVendor(const char *vendor) : _real(epoxy_glGetString)
    {
        forced() = vendor;
        real() = _real;
        epoxy_glGetString = &answer;
    }
    ~ForcedVendor() { epoxy_glGetString = _real; }
    ForcedVendor(const ForcedVendor &) = delete;
    ForcedVendor &operator=(const ForcedVendor &) = delete;

private:
    static const char *&forced()
    {
        static const char *vendor = nullptr;
        return vendor;
    }
    static PFNGLGETSTRINGPROC &real()
    {
        static PFNGLGETSTRINGPROC function = nullptr;
        return function;
    }
    static const GLubyte *answer(GLenum name)
    {
        return name == GL_VENDOR ? reinterpret_cast<const GLubyte *>(forced()) : real()(name);
    }

    PFNGLGETSTRINGPROC _real;
};

/// Renames an extension in its scope, for contexts that the library sees for the first time there.
class HiddenExtension
{
public:
    explicit HiddenExtension(const char *name) : _real(epoxy_glGetStringi)
    {
        hidden() = name;
        real() = _real;
        epoxy_glGetStringi = &answer;
    }
    ~HiddenExtension() { epoxy_glGetStringi = _real; }
    HiddenExtension(const HiddenExtension &) = delete;
    HiddenExtension &operator=(const HiddenExtension &) = delete;

private:
    static const char *&hidden()
    {
        static const char *name = nullptr;
        return name;
    }
    static PFNGLGETSTRINGIPROC &real()
    {
        static PFNGLGETSTRINGIPROC function = nullptr;
        return function;
    }
    static const GLubyte *answer(GLenum name, GLuint index)
    {
        const GLubyte *text = real()(name, index);
        if (name == GL_EXTENSIONS && text && std::strcmp(reinterpret_cast<const char *>(text), hidden()) == 0)
            return reinterpret_cast<const GLubyte *>("GL_TEST_hidden");
        return text;
    }

    PFNGLGETSTRINGIPROC _real;
};

/// Ways in which ShadowMapRenderPass2 draws.
enum class ShadowPath { Batch, ViewportLayer, PerLayer };

inline const char *nameOf(ShadowPath path)
{
    switch (path) {
    case ShadowPath::Batch: return "batch";
    case ShadowPath::ViewportLayer: return "viewport layer";
    case ShadowPath::PerLayer: return "per layer";
    }
    return "";
}

/// The paths that this driver can take: the first two need no extension.
inline std::vector<ShadowPath> shadowPaths()
{
    std::vector<ShadowPath> paths{ShadowPath::Batch, ShadowPath::PerLayer};
    if (hasGLExtension("GL_ARB_shader_viewport_layer_array"))
        paths.push_back(ShadowPath::ViewportLayer);
    return paths;
}

/// A pass that has chosen a path, for the context that is current; \a main makes it current again.
inline std::unique_ptr<ShadowMapRenderPass2> makeLayeredPass(ShadowPath path, GLContext &main)
{
    MessageCapture chosen;
    const ForcedVendor vendor(path == ShadowPath::Batch ? "AMD" : "Nobody");
    if (path != ShadowPath::PerLayer)
        return std::make_unique<ShadowMapRenderPass2>();
    // The library keeps a context's extensions, so one that has fewer has to be new.
    const HiddenExtension hidden("GL_ARB_shader_viewport_layer_array");
    GLContext other;
    EXPECT_TRUE(other.makeCurrent()) << qPrintable(other.error());
    auto pass = std::make_unique<ShadowMapRenderPass2>();
    OpenGLDeviceContext::releaseCurrent();
    EXPECT_TRUE(main.makeCurrent());
    return pass;
}

inline QVariantList lightList(std::initializer_list<ShadowMapLight> lights)
{
    QVariantList list;
    for (const ShadowMapLight &light : lights)
        list.append(QVariant::fromValue(light));
    return list;
}

/// The record in an output; fails the test when there is none.
inline ShadowRecord *recordOf(const RenderPass &pass)
{
    const QVariant value = pass.output(0);
    EXPECT_EQ(value.metaType(), QMetaType(QMetaType::QObjectStar));
    ShadowRecord *record = ShadowRecord::fromVariant(value);
    EXPECT_NE(record, nullptr);
    return record;
}

/// A layer of the maps of a record: R and G in channels 0 and 1.
inline Image<float> readLayer(const ShadowRecord &record, int layer)
{
    return readTexture<float>(record.projectionTexture(), 0, layer);
}

inline QMatrix4x4 matrixOf(const ShadowMapManager::Transform &transform)
{
    return QMatrix4x4(transform.m).transposed();
}

inline bool isSame(const ShadowMapManager::Transform &a, const ShadowMapManager::Transform &b)
{
    return std::equal(std::begin(a.m), std::end(a.m), b.m);
}

/// Moments of a depth, bias included.
inline std::array<double, 4> momentsOf(double depth)
{
    return {depth, depth * depth, 0, 1};
}

/// Texels of a map that a reference with casters in it speaks for: how many there are, and whether each
/// has the moments of the caster nearest to the light, or of none.
struct MapComparison
{
    int covered = 0;
    int empty = 0;
    int ambiguous = 0;
    double worst = 0; ///< Largest difference of a moment in a texel with a caster.
    int wrong = 0; ///< Texels that should be empty and are not, or the other way round.
};

inline MapComparison compareWithModel(const Image<float> &map, const ModelData &casters,
                                      const ShadowMapManager::Transform &transform)
{
    const ModelReference reference(casters, matrixOf(transform), QMatrix4x4(), map.width, map.height);
    MapComparison result;
    for (int y = 0; y < map.height; ++y) {
        for (int x = 0; x < map.width; ++x) {
            const ModelFragment &f = reference.at(x, y);
            if (f.ambiguous) {
                ++result.ambiguous;
                continue;
            }
            const auto &texel = map.at(x, y);
            const double depth = 2 * f.depth - 1 + kShadowBias;
            const bool expectsEmpty = !f.covered || depth <= kShadowBias || depth > 1;
            const bool isEmpty = double(texel[0]) == kEmptyTexel && double(texel[1]) == kEmptyTexel;
            ++(expectsEmpty ? result.empty : result.covered);
            if (expectsEmpty != isEmpty)
                ++result.wrong;
            else if (!isEmpty)
                result.worst = std::max(
                    {result.worst, std::abs(double(texel[0]) - depth), std::abs(double(texel[1]) - depth * depth)});
        }
    }
    return result;
}

/// A floor, cubes, a sheet that is drawn with both faces and shows its back, and what must leave no trace:
/// a sheet that is culled and shows its back, and two that cast no shadow.
inline ModelData shadowScene()
{
    ModelData data;
    data.meshes << quadMesh() << cubeMesh();
    data.materials << material({1, 1, 1});
    const auto add = [&data](int mesh, const QVector3D &place, const QVector3D &scale, float angle,
                             const QVector3D &axis, quint64 flags = 0) {
        ModelItem item;
        item.mesh = mesh;
        item.flags = flags;
        item.transform.translate(place);
        item.transform.rotate(angle, axis);
        item.transform.scale(scale);
        data.items << item;
    };
    const QVector3D x(1, 0, 0);
    add(0, {0, 0, 0}, {3, 3, 1}, -90, x); // faces up
    add(1, {-1.2f, 0.7f, 0.4f}, {0.5f, 0.5f, 0.5f}, 33, {0.3f, 1, 0.2f});
    add(1, {1.1f, 1.0f, -0.6f}, {0.4f, 0.8f, 0.4f}, -20, {0, 1, 0.4f}, 1);
    add(0, {0.2f, 1.9f, 1.2f}, {0.6f, 0.5f, 1}, 90, x, 0x1000000000000000); // faces down
    add(0, {-0.9f, 2.2f, -1.5f}, {0.7f, 0.7f, 1}, 90, x); // faces down
    add(0, {1.4f, 2.4f, 1.4f}, {0.6f, 0.6f, 1}, -90, x, 0x8000000000000000);
    add(0, {-1.6f, 2.4f, 1.5f}, {0.6f, 0.6f, 1}, -90, x, 0x5000000000000000);
    return data;
}

/// The items of that scene that leave a trace in the map of a light above.
inline ModelData castersOfShadowScene()
{
    ModelData data = shadowScene();
    data.items.resize(4);
    return data;
}

} // namespace Brevane::Kvo::Test
