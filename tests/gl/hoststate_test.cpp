#include "support/draw.h"
#include "support/gltest.h"
#include "support/hostpasses.h"
#include "support/hoststates.h"
#include "support/listreadback.h"
#include "support/messages.h"
#include "support/passes.h"
#include "support/scenes.h"

#include <core/renderpasshelper.h>
#include <gl/bufferobject.h>
#include <gl/drawbuffers.h>
#include <gl/glinfo.h>
#include <gl/guards.h>
#include <gl/opengldevicecontext.h>
#include <gl/texturemanager.h>
#include <gl/vertexarrayobject.h>
#include <host/imageoutput.h>
#include <host/lights.h>
#include <host/passfactory.h>
#include <host/pipeline.h>
#include <model/gpumodel.h>
#include <passkit/statetable.h>
#include <renderpasses/blurbaserenderpass.h>
#include <renderpasses/primitivebuilderrenderpass.h>
#include <renderpasses/shaderrenderpass.h>
#include <renderpasses/visibilitybufferrenderpass.h>
#include <renderpasses/visibilitysortrenderpass.h>
#include <shadows/shadowmapmanager.h>

#include <QByteArrayList>
#include <QFile>
#include <QTemporaryDir>

#include <epoxy/gl.h>

#include <functional>
#include <memory>
#include <ostream>
#include <set>

// Every pass, the host's too, under every state that a host may have set: the picture is that of a clean context,
// and the state is as before, or the table says otherwise.

using namespace Brevane::Kvo;
using namespace Brevane::Kvo::Test;

namespace {

constexpr int kWidth = 16;
constexpr int kHeight = 12;
const QRect kViewport(0, 0, kWidth, kHeight);

// A scene with a map, opaque and transparent surfaces.
ModelData modelData()
{
    ModelData data;
    data.meshes << cubeMesh() << quadMesh();
    ModelMaterial mapped = material({0.9f, 0.8f, 0.7f}, {0.3f, 0.3f, 0.3f}, 5.0f);
    mapped.map_Kd = QImage(4, 4, QImage::Format_RGBA8888);
    for (int i = 0; i < 16; ++i)
        mapped.map_Kd.setPixelColor(i % 4, i / 4, QColor(40 + 13 * i, 250 - 11 * i, 17 * i % 200));
    data.materials << mapped << material({0.2f, 0.6f, 0.9f}, {}, 1.0f, 0.5f) << material({0.7f, 0.2f, 0.3f});
    const auto add = [&](int mesh, int surface, float x, float z, float scale) {
        ModelItem item;
        item.mesh = mesh;
        item.material = surface;
        item.transform.translate(x, 0.2f * x, z);
        item.transform.rotate(25.0f, 0.3f, 1.0f, 0.2f);
        item.transform.scale(scale);
        data.items.append(item);
    };
    add(0, 0, 0.0f, 0.0f, 0.9f);
    add(1, 1, 0.4f, 1.4f, 0.8f);
    add(0, 2, -0.7f, 0.3f, 0.4f);
    return data;
}

// What stays the same for all runs of a road: the model, since where its map lies among others shows in the
// last digit, and lists of fragments, since to record them takes long.
class Shared
{
public:
    Shared()
    {
        ModelData data = modelData();
        EXPECT_TRUE(model.upload(data));
        for (ModelItem &item : data.items)
            item.flags |= 1ull << 60;
        EXPECT_TRUE(unculled.upload(data));
    }

    GPUModel model;
    GPUModel unculled;
    std::unique_ptr<RenderPass> shadows;
    std::unique_ptr<VisibilityBufferRenderPass> record;
    std::vector<ListNode> nodes; // as they were recorded
};

// What passes are fed with, made anew for every run: some of it is drawn into.
class Scene
{
public:
    explicit Scene(Shared &kept) : shared(kept), model(kept.model)
    {
        builder.addCube(1.5f, {0, 0, 0});
        builder.addQuad(0.6f, {0.3f, 0.1f, 0.9f});
        builder.setUseIndirectDrawCommands(false);
        runFrame(builder);

        Image<float> picture(kWidth, kHeight), ids(kWidth, kHeight);
        for (int y = 0; y < kHeight; ++y) {
            for (int x = 0; x < kWidth; ++x) {
                const bool edge = 3 * x > 2 * y + 14;
                picture.at(x, y) = {edge ? 0.9f : 0.1f + 0.05f * float(x % 3), 0.07f * float(y), edge ? 0.2f : 0.8f,
                                    edge ? 1.0f : 0.5f};
                ids.at(x, y) = {float(x / 5 + 3 * (y / 4)), 0, 0, 1};
            }
        }
        color = makeTexture(picture);
        QVector<float> depths(qsizetype(kWidth) * kHeight, 1.0f);
        for (int i = 0; i < 50; ++i)
            depths[40 + i] = 0.3f;
        depthOnly = makeTexture(GL_DEPTH_COMPONENT32F, kWidth, kHeight, depths.constData());
        id = makeTexture(ids);
        target.clear({0.1f, 0.2f, 0.3f, 0.4f});
        screen.clear({0.4f, 0.3f, 0.2f, 0.1f});
        fillDepth();
        fillCube();
    }

    // Near in the middle, with the stencil of material 1 in a part of it.
    void fillDepth()
    {
        AutoBinder bound(target.framebuffer());
        glEnable(GL_SCISSOR_TEST);
        glScissor(4, 3, 7, 6);
        glClearDepth(0.4);
        glClearStencil(2);
        glClear(GL_DEPTH_BUFFER_BIT | GL_STENCIL_BUFFER_BIT);
        glScissor(6, 5, 2, 2);
        glClearDepth(0.2);
        glClear(GL_DEPTH_BUFFER_BIT);
        glDisable(GL_SCISSOR_TEST);
        glClearDepth(1.0);
        glClearStencil(0);
    }

    void fillCube()
    {
        cubemap.setTarget(GL_TEXTURE_CUBE_MAP);
        ASSERT_TRUE(cubemap.bind());
        for (GLenum face = 0; face < 6; ++face) {
            std::array<quint32, 4> texels{};
            for (quint32 i = 0; i < 4; ++i)
                texels[i] = 0xff000000u | (face * 40 + 10) << 16 | (i * 60) << 8 | (255 - face * 30);
            glTexImage2D(GL_TEXTURE_CUBE_MAP_POSITIVE_X + face, 0, GL_RGBA8, 2, 2, 0, GL_BGRA, GL_UNSIGNED_BYTE,
                         texels.data());
        }
        glTexParameteri(GL_TEXTURE_CUBE_MAP, GL_TEXTURE_MIN_FILTER, GL_LINEAR);
        cubemap.unbind();
    }

    QVariant texture(Texture *t) const { return textureToVariant(t); }

    Shared &shared;
    GPUModel &model;
    PrimitiveBuilderRenderPass builder;
    std::unique_ptr<Texture> color;
    std::unique_ptr<Texture> id;
    std::unique_ptr<Texture> depthOnly;
    Target target{GL_RGBA8, kWidth, kHeight, true};
    Target screen{GL_RGBA8, kWidth, kHeight};
    Texture cubemap;
};

using Inputs = std::vector<std::pair<const char *, QVariant>>;

// One road of a pass.
struct Road
{
    const char *className;
    const char *name; // after the class; null: its only one
    std::vector<const char *> when; // what the table calls it
    std::function<Inputs(Scene &)> inputs;
    int frames = 2;
    std::function<std::unique_ptr<RenderPass>()> make = nullptr;
    bool drawsNothing = false;
};

QMatrix4x4 camera()
{
    QMatrix4x4 c = cameraAt(4);
    c.rotate(12.0f, 1.0f, 0.4f, 0.0f);
    return c;
}

Inputs withCamera(Inputs more)
{
    more.insert(more.begin(), {{"Kvo_QRect_Viewport", kViewport},
                               {"Kvo_QMatrix4x4_ProjectionMatrix", perspective(4.0f / 3.0f)},
                               {"Kvo_QMatrix4x4_CameraMatrix", camera()}});
    return more;
}

QVariant modelOf(Scene &scene)
{
    return QVariant::fromValue(&scene.model);
}

// Casters of which shadow maps get both faces.
QVariant unculledOf(Scene &scene)
{
    return QVariant::fromValue(&scene.shared.unculled);
}

Inputs shadowInputs(Scene &scene, bool withModel)
{
    return {{"Kvo_KvoGPUModel*_Geometry",
             withModel ? modelOf(scene) : QVariant::fromValue(static_cast<GPUModel *>(nullptr))},
            {"Kvo_QList_KvoShadowMapManagerLight*_Lights",
             lightsToVariant({ShadowMapLight::directional({1, -2, -1}), ShadowMapLight::directional({-1, -2, 0})})},
            {"Kvo_QMatrix4x4_ProjectionMatrix", perspective()},
            {"Kvo_QMatrix4x4_CameraMatrix", camera()},
            {"Kvo_QVector3D_SceneBoundsMin", QVector3D(-2, -2, -2)},
            {"Kvo_QVector3D_SceneBoundsMax", QVector3D(2, 2, 2)},
            {"Kvo_QSize_MapSize", QSize(16, 16)}};
}

void setInputs(RenderPass &pass, const Inputs &inputs)
{
    for (const auto &[name, value] : inputs) {
        int index = -1;
        for (int i = 0; i < pass.numInputs(); ++i)
            if (pass.inputName(i) == QLatin1StringView(name))
                index = i;
        ASSERT_GE(index, 0) << name;
        pass.setInput(index, value);
    }
}

// The record of a shadow pass, made once.
QVariant shadowRecord(Scene &scene)
{
    std::unique_ptr<RenderPass> &shadows = scene.shared.shadows;
    if (!shadows) {
        shadows = passFactory().make(QStringLiteral("ShadowMapRenderPass"));
        setInputs(*shadows, shadowInputs(scene, true));
        shadows->setNumOutputUsers(0, 1);
        runFrame(*shadows);
        cleanContext();
    }
    return shadows->output(0);
}

// Recorded once, and put back each time as they were before a pass sorted them.
Inputs lists(Scene &scene)
{
    Shared &shared = scene.shared;
    if (!shared.record) {
        shared.record = std::make_unique<VisibilityBufferRenderPass>();
        setInputs(*shared.record, withCamera({{"Kvo_KvoGPUModel*_Geometry", modelOf(scene)}}));
        glViewport(0, 0, kWidth, kHeight);
        runFrame(*shared.record);
        cleanContext();
    }
    Texture *nodes = textureFromVariant(shared.record->output(1));
    const int width = shared.record->output(2).toInt();
    if (width > kWidth) {
        if (shared.nodes.empty())
            shared.nodes = ListReadback(textureFromVariant(shared.record->output(0)), nodes, width, 1).nodes;
        AutoBinder bound(nodes);
        glTexSubImage2D(GL_TEXTURE_2D, 0, 0, 0, width, 1, GL_RGBA_INTEGER, GL_UNSIGNED_INT, shared.nodes.data());
    }
    return {{"Kvo_QRect_Viewport", kViewport},
            {"Kvo_KvoTexture*_HeadPointers", shared.record->output(0)},
            {"Kvo_KvoTexture*_NodeBuffer", shared.record->output(1)},
            {"Kvo_int_NodeBufferWidth", shared.record->output(2)}};
}

Inputs sortedLists(Scene &scene)
{
    Inputs inputs = lists(scene);
    VisibilitySortRenderPass sort;
    for (int i = 0; i < 4; ++i)
        sort.setInput(i, inputs[size_t(i)].second);
    glViewport(0, 0, kWidth, kHeight);
    runFrame(sort);
    cleanContext();
    inputs.erase(inputs.begin());
    return inputs;
}

const QString &imagePath()
{
    static const QString path = QStringLiteral(KVO_SOURCE_DIR "/pipelines/images/matcap.png");
    return path;
}

std::unique_ptr<RenderPass> makeShaderPass(bool blending)
{
    auto pass = std::make_unique<ShaderRenderPass>();
    pass->addInput(QStringLiteral("Kvo_KvoTexture*_Input"));
    pass->addInput(QStringLiteral("Kvo_KvoTexture*_Other"));
    pass->addOutput(QStringLiteral("Kvo_KvoTexture*_Frame"));
    pass->addOutput(QStringLiteral("Kvo_KvoTexture*_Second"));
    if (blending)
        pass->setBlend(ShaderRenderPass::BlendAlpha);
    pass->setClear(true);
    pass->setFragmentShaderSource(QStringLiteral(R"(#version 150
uniform sampler2D u_Input;
uniform sampler2D u_Other;
in vec2 vo_TexCoord;
out vec4 o_Frame;
out vec4 o_Second;
void main()
{
  if(vo_TexCoord.x < 0.3)
    discard;
  o_Frame = texture(u_Input, vo_TexCoord * 1.2) * 0.5 + texture(u_Other, vo_TexCoord.yx) * 0.25;
  o_Second = vec4(vo_TexCoord, 0.25, 0.75);
}
)"));
    return pass;
}

std::unique_ptr<RenderPass> makeGeometryShaderPass()
{
    auto pass = std::make_unique<ShaderRenderPass>();
    pass->addInput(QStringLiteral("Kvo_KvoDrawBuffers*_Geometry"));
    pass->addInput(QStringLiteral("Kvo_QMatrix4x4_Camera"));
    pass->addOutput(QStringLiteral("Kvo_KvoTexture*_Frame"));
    pass->setClear(true);
    pass->setVertexShaderSource(QStringLiteral(R"(#version 150
uniform mat4 Kvo_QMatrix4x4_Camera;
in vec3 va_Vertex;
in vec3 va_Normal;
in vec4 va_NobodyHasThis;
flat out vec4 vo_Flat;
void main()
{
  gl_Position = Kvo_QMatrix4x4_Camera * vec4(va_Vertex, 1.0);
  vo_Flat = vec4(va_Vertex, 1.0) + 0.1 * va_NobodyHasThis + 0.2 * va_Normal.xyzz;
}
)"));
    pass->setFragmentShaderSource(QStringLiteral(R"(#version 150
flat in vec4 vo_Flat;
out vec4 o_Frame;
void main()
{
  o_Frame = vo_Flat;
}
)"));
    return pass;
}

// One of a pass of the host's side.
Road hostRoad(const char *className, std::function<Inputs(Scene &)> inputs, bool drawsNothing = false)
{
    return {className,   nullptr, {}, std::move(inputs), 2, [className] { return barePass(caseOf(className)); },
            drawsNothing};
}

const std::vector<Road> &roads()
{
    static const auto frameOnly = [](Scene &s) {
        return Inputs{{"Kvo_QRect_Viewport", kViewport}, {"Kvo_KvoTexture*_Frame", s.texture(s.color.get())}};
    };
    static const auto sceneModel = [](Scene &s) { return withCamera({{"Kvo_KvoGPUModel*_Geometry", modelOf(s)}}); };
    static const auto transfer = [](Scene &s, bool averaging, bool texture) {
        Inputs inputs{{"Kvo_QRect_Viewport", kViewport},
                      {"Kvo_Bool_EnableSuperSampling", averaging},
                      {"Kvo_QRect_ViewportOut", QRect(2, 1, 12, 8)},
                      {"Kvo_Bool_LinearFilter", true},
                      {"Kvo_KvoFramebuffer*_FramebufferOut", framebufferToVariant(s.screen.framebuffer())}};
        if (texture)
            inputs.emplace_back("Kvo_KvoTexture*_Texture", s.texture(s.color.get()));
        return inputs;
    };
    static const std::vector<Road> all{
        {"GradientRenderPass",
         "Gradient",
         {"with a gradient"},
         [](Scene &) {
             return Inputs{{"Kvo_QRect_Viewport", kViewport}};
         }},
        {"GradientRenderPass",
         "Solid",
         {"with a solid colour"},
         [](Scene &) {
             return Inputs{{"Kvo_QRect_Viewport", kViewport},
                           {"Kvo_QColor_ColorTop", QColor(200, 100, 50)},
                           {"Kvo_QColor_ColorBottom", QVariant()}};
         }},
        {"ModelRenderPass", nullptr, {"with a model"}, sceneModel},
        {"GBufferRenderPass",
         nullptr,
         {"with geometry"},
         [](Scene &s) {
             return withCamera({{"Kvo_KvoDrawBuffers*_Geometry", s.builder.output(0)}});
         }},
        {"ModelDeferredPass",
         nullptr,
         {},
         [](Scene &s) {
             return withCamera({{"Kvo_KvoTexture*_Diffuse", s.texture(s.color.get())},
                                {"Kvo_KvoTexture*_Specular", s.texture(s.id.get())},
                                {"Kvo_KvoTexture*_Normal", s.texture(s.color.get())}});
         }},
        {"ForwardRenderPass", nullptr, {"with a model"}, sceneModel},
        {"PrimitiveBuilderRenderPass",
         nullptr,
         {},
         [](Scene &) { return Inputs(); },
         2,
         []() -> std::unique_ptr<RenderPass> {
             auto pass = std::make_unique<PrimitiveBuilderRenderPass>();
             pass->addCube(1, {1, 2, 3});
             return pass;
         },
         true},
        {"DeferredRenderPass",
         nullptr,
         {},
         [](Scene &s) {
             return withCamera({{"Kvo_KvoTexture*_Normal", s.texture(s.color.get())},
                                {"Kvo_KvoTexture*_TexCoord", s.texture(s.color.get())},
                                {"Kvo_KvoTexture*_Depth", s.texture(s.target.depthStencil())}});
         }},
        {"DeferredRenderPass", "Unconnected", {}, [](Scene &) { return withCamera({}); }},
        {"CameraSpaceZBufferRenderPass",
         nullptr,
         {},
         [](Scene &s) {
             return Inputs{{"Kvo_QRect_Viewport", kViewport},
                           {"Kvo_QMatrix4x4_ProjectionMatrix", perspective()},
                           {"Kvo_KvoTexture*_Depth", s.texture(s.target.depthStencil())}};
         }},
        {"ScalableAmbientObscuranceRenderPass", "Unconnected", {}, [](Scene &) { return withCamera({}); }},
        {"ScalableAmbientObscuranceRenderPass",
         nullptr,
         {"with a depth"},
         [](Scene &s) {
             return withCamera({{"Kvo_float_NearPlane", 0.5f},
                                {"Kvo_float_FarPlane", 20.0f},
                                {"Kvo_float_SAORadius", 0.8f},
                                {"Kvo_KvoTexture*_Depth", s.texture(s.target.depthStencil())}});
         }},
        {"LuminanceAverageRenderPass",
         nullptr,
         {},
         [](Scene &s) {
             return Inputs{{"Kvo_QRect_Viewport", kViewport}, {"Kvo_KvoTexture*_Texture", s.texture(s.color.get())}};
         }},
        {"LuminanceAverageRenderPass",
         "Unconnected",
         {},
         [](Scene &) {
             return Inputs{{"Kvo_QRect_Viewport", kViewport}};
         }},
        {"VisibilityBufferRenderPass", nullptr, {"with a model"}, sceneModel, 1},
        {"VisibilitySortRenderPass", nullptr, {}, lists, 1},
        {"VisibilityDeferredRenderPass",
         nullptr,
         {},
         [](Scene &s) {
             Inputs inputs = sortedLists(s);
             inputs.emplace_back("Kvo_KvoGPUModel*_Geometry", modelOf(s));
             return withCamera(inputs);
         }},
        {"TransparencyRenderPass", nullptr, {"with a model"}, sceneModel},
        {"ShadowMapRenderPass",
         "Casters",
         {"with casters", "with casters that are culled"},
         [](Scene &s) { return shadowInputs(s, true); }},
        {"ShadowMapRenderPass",
         "UnculledCasters",
         {"with casters"},
         [](Scene &s) {
             Inputs inputs = shadowInputs(s, true);
             inputs.front().second = unculledOf(s);
             return inputs;
         }},
        {"ShadowMapRenderPass", "NoCasters", {}, [](Scene &s) { return shadowInputs(s, false); }},
        {"ShadowMapRenderPass2",
         "UnculledCasters",
         {"with casters"},
         [](Scene &s) {
             Inputs inputs = shadowInputs(s, true);
             inputs.front().second = unculledOf(s);
             inputs.emplace_back("Kvo_bool_Dirty", true);
             return inputs;
         }},
        {"ShadowMapRenderPass2",
         "Casters",
         {"with casters", "with casters that are culled"},
         [](Scene &s) {
             Inputs inputs = shadowInputs(s, true);
             inputs.emplace_back("Kvo_bool_Dirty", true);
             return inputs;
         }},
        {"ShadowMapRenderPass2",
         "NoCasters",
         {},
         [](Scene &s) {
             Inputs inputs = shadowInputs(s, false);
             inputs.emplace_back("Kvo_bool_Dirty", true);
             return inputs;
         }},
        {"CameraJitterPass",
         nullptr,
         {},
         [](Scene &) {
             return withCamera({{"Kvo_int_JitterMode", 2}});
         },
         2,
         nullptr,
         true},
        {"TemporalAARenderPass",
         "Restart",
         {"with a frame", "after a change"},
         [](Scene &s) {
             return withCamera({{"Kvo_KvoTexture*_Frame", s.texture(s.color.get())}, {"Kvo_bool_Dirty", false}});
         },
         1},
        {"TemporalAARenderPass",
         "Still",
         {"with a frame", "after a change", "in a still view"},
         [](Scene &s) {
             return withCamera({{"Kvo_KvoTexture*_Frame", s.texture(s.color.get())}, {"Kvo_bool_Dirty", false}});
         },
         4},
        {"FastApproximateAntiAliasingRenderPass", nullptr, {}, frameOnly},
        {"SMAARenderPass",
         "Once",
         {},
         [](Scene &s) {
             Inputs inputs = frameOnly(s);
             inputs.emplace_back("Kvo_int_Mode", 0);
             return inputs;
         }},
        {"SMAARenderPass",
         "Temporal",
         {},
         [](Scene &s) {
             return withCamera({{"Kvo_KvoTexture*_Frame", s.texture(s.color.get())},
                                {"Kvo_int_Mode", 1},
                                {"Kvo_KvoTexture*_Depth", s.texture(s.target.depthStencil())}});
         }},
        {"BlurBaseRenderPass",
         nullptr,
         {},
         [](Scene &) { return Inputs(); },
         1,
         []() -> std::unique_ptr<RenderPass> { return std::make_unique<BlurBaseRenderPass>(0.0f); },
         true},
        {"GaussianBlurRenderPass",
         "Whole",
         {},
         [](Scene &s) {
             return Inputs{{"Kvo_QRect_Viewport", kViewport},
                           {"Kvo_KvoTexture*_Input", s.texture(s.color.get())},
                           {"Kvo_float_BlurRadius", 2.5f}};
         }},
        {"GaussianBlurRenderPass",
         "Stencil",
         {"with a stencil"},
         [](Scene &s) {
             return Inputs{{"Kvo_QRect_Viewport", kViewport},
                           {"Kvo_KvoTexture*_Input", s.texture(s.color.get())},
                           {"Kvo_float_BlurRadius", 2.5f},
                           {"Kvo_KvoTexture*_Stencil", s.texture(s.target.depthStencil())},
                           {"Kvo_int_StencilMaterial", 1}};
         }},
        {"GaussianBlurRenderPass",
         "Unconnected",
         {},
         [](Scene &) {
             return Inputs{{"Kvo_QRect_Viewport", kViewport}, {"Kvo_float_BlurRadius", 2.5f}};
         }},
        {"BlurAndCombineRenderPass",
         nullptr,
         {},
         [](Scene &s) {
             return Inputs{{"Kvo_QRect_Viewport", kViewport}, {"Kvo_KvoTexture*_NormalFrame", s.texture(s.color.get())},
                           {"Kvo_float_BlurRadius", 2.0f},    {"Kvo_float_GlowThreshold", 0.2f},
                           {"Kvo_float_GlowAmount", 0.8f},    {"Kvo_KvoTexture*_BlurFrame", s.texture(s.id.get())}};
         }},
        {"StencilBlurAndBlendRenderPass",
         nullptr,
         {},
         [](Scene &s) {
             return Inputs{{"Kvo_QRect_Viewport", kViewport},
                           {"Kvo_KvoTexture*_NormalFrame", s.texture(s.color.get())},
                           {"Kvo_float_BlurRadius", 2.0f},
                           {"Kvo_KvoTexture*_BlurFrame", s.texture(s.target.color())}};
         }},
        {"DepthOfFieldRenderPass",
         nullptr,
         {},
         [](Scene &s) {
             Inputs inputs = frameOnly(s);
             inputs.emplace_back("Kvo_KvoTexture*_Depth", s.texture(s.target.depthStencil()));
             inputs.emplace_back("Kvo_float_FocalDepth", 2.0f);
             inputs.emplace_back("Kvo_float_FocalLength", 40.0f);
             inputs.emplace_back("Kvo_float_FStop", 1.2f);
             return inputs;
         }},
        {"BlendRenderPass",
         nullptr,
         {},
         [](Scene &s) {
             return Inputs{{"Kvo_QRect_Viewport", kViewport},
                           {"Kvo_KvoTexture*_FrameA", s.texture(s.color.get())},
                           {"Kvo_KvoTexture*_FrameB", s.texture(s.target.color())},
                           {"Int_BlendMode", 13}};
         }},
        {"WireframeRenderPass",
         nullptr,
         {},
         [](Scene &s) {
             return Inputs{{"Kvo_QRect_Viewport", kViewport},
                           {"Kvo_KvoTexture*_Id", s.texture(s.id.get())},
                           {"Kvo_QColor_WireColor", QColor(10, 200, 100)}};
         }},
        {"TextureToScreenRenderPass", "Copying", {"when copying"}, [](Scene &s) { return transfer(s, false, true); }},
        {"TextureToScreenRenderPass",
         "Averaging",
         {"when averaging"},
         [](Scene &s) { return transfer(s, true, true); }},
        {"TextureToScreenRenderPass",
         "Clearing",
         {"without a texture"},
         [](Scene &s) { return transfer(s, false, false); }},
        {"SkyboxRenderPass",
         "Cube",
         {"with a source"},
         [](Scene &s) {
             return withCamera({{"Kvo_KvoTexture*_Cubemap", s.texture(&s.cubemap)}});
         }},
        {"SkyboxRenderPass",
         "OverFrame",
         {"with a source"},
         [](Scene &s) {
             return withCamera({{"Kvo_KvoTexture*_LatLongMap", s.texture(s.color.get())},
                                {"Kvo_KvoTexture*_Frame", s.texture(s.target.color())},
                                {"Kvo_KvoTexture*_Depth", s.texture(s.target.depthStencil())}});
         }},
        // Without a stencil the depth tells what is covered.
        {"SkyboxRenderPass",
         "OverDepth",
         {"with a source"},
         [](Scene &s) {
             return withCamera({{"Kvo_KvoTexture*_LatLongMap", s.texture(s.color.get())},
                                {"Kvo_KvoTexture*_Frame", s.texture(s.target.color())},
                                {"Kvo_KvoTexture*_Depth", s.texture(s.depthOnly.get())}});
         }},
        {"BackgroundImageRenderPass",
         nullptr,
         {},
         [](Scene &s) {
             return Inputs{{"Kvo_QRect_Viewport", kViewport},
                           {"Kvo_KvoTexture*_Frame", s.texture(s.target.color())},
                           {"Kvo_KvoTexture*_Depth", s.texture(s.target.depthStencil())},
                           {"Kvo_string_FadeImageUrl1", imagePath()},
                           {"Kvo_float_FadeRatio", 0.7f},
                           {"Kvo_KvoTexture*_Normal", s.texture(s.color.get())}};
         }},
        {"TextureLoaderRenderPass",
         nullptr,
         {},
         [](Scene &) {
             return Inputs{{"Kvo_QString_TexturePath", imagePath()}};
         },
         2,
         nullptr,
         true},
        {"CubemapLoaderRenderPass",
         nullptr,
         {},
         [](Scene &) {
             Inputs inputs;
             for (const char *face :
                  {"Kvo_QString_CubemapPathPosX", "Kvo_QString_CubemapPathNegX", "Kvo_QString_CubemapPathPosY",
                   "Kvo_QString_CubemapPathNegY", "Kvo_QString_CubemapPathPosZ", "Kvo_QString_CubemapPathNegZ"})
                 inputs.emplace_back(face, imagePath());
             return inputs;
         },
         2,
         nullptr,
         true},
        {"ShaderRenderPass",
         "Filter",
         {},
         [](Scene &s) {
             return Inputs{{"Kvo_QRect_Viewport", kViewport},
                           {"Kvo_KvoTexture*_Input", s.texture(s.color.get())},
                           {"Kvo_KvoTexture*_Other", s.texture(s.target.color())}};
         },
         2,
         [] { return makeShaderPass(false); }},
        {"ShaderRenderPass",
         "Blending",
         {"with a blend mode"},
         [](Scene &s) {
             return Inputs{{"Kvo_QRect_Viewport", kViewport},
                           {"Kvo_KvoTexture*_Input", s.texture(s.color.get())},
                           {"Kvo_KvoTexture*_Other", s.texture(s.target.color())}};
         },
         2,
         [] { return makeShaderPass(true); }},
        {"ShaderRenderPass",
         "Geometry",
         {},
         [](Scene &s) {
             return Inputs{{"Kvo_QRect_Viewport", kViewport},
                           {"Kvo_KvoDrawBuffers*_Geometry", s.builder.output(0)},
                           {"Kvo_QMatrix4x4_Camera", perspective() * camera()}};
         },
         2,
         makeGeometryShaderPass},
        hostRoad("DepthPeelingPass",
                 [](Scene &s) {
                     return withCamera({{"Kvo_KvoGPUModel*_Geometry", modelOf(s)},
                                        {"Kvo_KvoTexture*_SolidDepth", s.texture(s.target.depthStencil())},
                                        {"Kvo_KvoTexture*_Picture", s.texture(s.color.get())}});
                 }),
        hostRoad(
            "EnvironmentPass",
            [](Scene &) {
                return Inputs{{"Kvo_float_Rotation", 30.0f}};
            },
            true),
        hostRoad("LayerCompositionPass",
                 [](Scene &s) {
                     return Inputs{{"Kvo_QRect_Viewport", kViewport},
                                   {"Kvo_KvoTexture*_Layers", s.texture(s.color.get())},
                                   {"Kvo_KvoTexture*_Backdrop", s.texture(s.target.color())}};
                 }),
        hostRoad("OutlinePass",
                 [](Scene &s) {
                     return withCamera(
                         {{"Kvo_KvoGPUModel*_Geometry", modelOf(s)},
                          {"Kvo_KvoFramebuffer*_FramebufferOut", framebufferToVariant(s.screen.framebuffer())}});
                 }),
        hostRoad(
            "PickPass",
            [](Scene &s) {
                return withCamera({{"Kvo_KvoGPUModel*_Geometry", modelOf(s)}, {"Kvo_QRect_Area", QRect(3, 2, 9, 8)}});
            }),
        hostRoad("ShadowLightingPass",
                 [](Scene &s) {
                     return withCamera({{"Kvo_KvoTexture*_Diffuse", s.texture(s.color.get())},
                                        {"Kvo_KvoTexture*_Specular", s.texture(s.id.get())},
                                        {"Kvo_KvoTexture*_Normal", s.texture(s.color.get())},
                                        {"Kvo_KvoTexture*_Depth", s.texture(s.target.depthStencil())},
                                        {"Kvo_QVariant_ShadowMapData", shadowRecord(s)}});
                 }),
        hostRoad(
            "ShadowShaderPass",
            [](Scene &s) {
                return Inputs{{"Kvo_QRect_Viewport", kViewport}, {"Kvo_KvoTexture*_Input", s.texture(s.color.get())}};
            }),
        hostRoad(
            "StagePass",
            [](Scene &s) {
                return Inputs{{"Kvo_QMatrix4x4_CameraMatrix", camera()}, {"Kvo_KvoGPUModel*_Geometry", modelOf(s)}};
            },
            true),
        hostRoad("SurfacePass", sceneModel),
    };
    return all;
}

// What its class has to say of the state. A pass of the host's leaves and needs nothing, but for those that are a
// shader pass.
const std::vector<StateException> &exceptionsOf(const Road &road)
{
    static const std::vector<StateException> none;
    if (const StateRow *row = findStateRow(road.className))
        return row->exceptions;
    const auto pass = caseOf(road.className).make();
    const bool isShader = dynamic_cast<ShaderRenderPass *>(pass.get()) && !dynamic_cast<DepthPeelingPass *>(pass.get());
    return isShader ? findStateRow("ShaderRenderPass")->exceptions : none;
}

void PrintTo(const Road &road, std::ostream *stream)
{
    *stream << road.className << (road.name ? road.name : "");
}

std::unique_ptr<RenderPass> makePass(const Road &road)
{
    return road.make ? road.make() : passFactory().make(QString::fromLatin1(road.className));
}

bool applies(const StateException &exception, const Road &road)
{
    return !exception.when || std::any_of(road.when.begin(), road.when.end(), [&](const char *when) {
        return qstrcmp(when, exception.when) == 0;
    });
}

const StateException *find(const Road &road, StateException::Use use, StatePiece piece)
{
    for (const StateException &exception : exceptionsOf(road)) {
        if (exception.use == use && exception.piece == piece && applies(exception, road))
            return &exception;
    }
    return nullptr;
}

// All texels and numbers that a pass hands out, as bytes.
class Picture
{
public:
    void add(const void *data, size_t bytes) { _bytes.append(static_cast<const char *>(data), qsizetype(bytes)); }
    template <typename T>
    void add(const QVector<T> &numbers)
    {
        add(numbers.constData(), size_t(numbers.size()) * sizeof(T));
    }
    void add(Texture *texture)
    {
        TexturePixels pixels;
        QString error;
        EXPECT_TRUE(readTexture(texture, &pixels, &error)) << qPrintable(error);
        add(pixels.values);
        add(pixels.integers);
    }
    bool isEmpty() const { return _bytes.isEmpty(); }
    bool operator==(const Picture &) const = default;

private:
    QByteArray _bytes;
};

void addLists(Picture *picture, const RenderPass &pass)
{
    Texture *heads = textureFromVariant(pass.output(0));
    Texture *nodes = textureFromVariant(pass.output(1));
    const int width = pass.output(2).toInt();
    if (!heads || !nodes || width < 1) {
        ADD_FAILURE() << "there are no lists";
        return;
    }
    // Where nodes lie is up to the order of invocations; what the lists hold is not.
    const bool isWhole = width > kWidth;
    const ListReadback lists(heads, nodes, width, isWhole ? 1 : kHeight, !isWhole);
    for (int y = 0; y < kHeight; ++y) {
        for (int x = 0; x < kWidth; ++x) {
            std::vector<ListNode> list;
            if (isWhole)
                list = lists.at(x, y);
            else if (lists.head(x, y))
                list = {lists.nodes[size_t(y * kWidth + x)]};
            const auto count = quint32(list.size());
            picture->add(&count, sizeof count);
            for (ListNode &node : list) {
                node.next = 0;
                picture->add(&node, sizeof node);
            }
        }
    }
}

void addGeometry(Picture *picture, DrawBuffers *buffers)
{
    for (const char *name : {"va_Vertex", "va_Normal", "va_TexCoord"}) {
        const QSharedPointer<BufferObject> buffer = buffers->VAO()->bo(QString::fromLatin1(name));
        QVector<char> bytes(qsizetype(buffer->size()));
        glBindBuffer(GL_COPY_READ_BUFFER, buffer->getBO());
        glGetBufferSubData(GL_COPY_READ_BUFFER, 0, bytes.size(), bytes.data());
        glBindBuffer(GL_COPY_READ_BUFFER, 0);
        picture->add(bytes);
    }
}

Picture pictureOf(const Road &road, const RenderPass &pass, Scene &scene)
{
    const GlCalls::Pause pause;
    Picture picture;
    const auto is = [&](const char *name) { return qstrcmp(road.className, name) == 0; };
    if (is("TextureToScreenRenderPass") || is("OutlinePass")) {
        picture.add(scene.screen.color());
        return picture;
    }
    if (is("VisibilityBufferRenderPass") || is("VisibilitySortRenderPass")) {
        addLists(&picture, pass);
        return picture;
    }
    for (int i = 0; i < pass.numOutputs(); ++i) {
        const QVariant value = pass.output(i);
        auto *object =
            value.metaType() == QMetaType(QMetaType::QObjectStar) ? qvariant_cast<QObject *>(value) : nullptr;
        if (Texture *texture = textureFromVariant(value)) {
            picture.add(texture);
        } else if (const auto *shadows = qobject_cast<ShadowMapManager::RenderData *>(object)) {
            picture.add(shadows->projectionTexture());
        } else if (auto *buffers = qobject_cast<DrawBuffers *>(object)) {
            addGeometry(&picture, buffers);
        } else if (value.metaType() == QMetaType(QMetaType::Float)) {
            const float number = value.toFloat();
            picture.add(&number, sizeof number);
        }
    }
    return picture;
}

// Whether the pass cleared, or drew, before it set the piece itself, if it ever did.
bool isUsed(StatePiece piece, const GlCalls &calls)
{
    const auto never = [&](std::initializer_list<const char *> setters) {
        return std::all_of(setters.begin(), setters.end(), [&](const char *name) { return calls.count(name) == 0; });
    };
    const auto keeps = [&](GLenum capability) {
        return calls.count("glEnable", {double(capability)}) + calls.count("glDisable", {double(capability)}) == 0;
    };
    switch (piece) {
    case StatePiece::ClearColor: {
        const int clear = calls.indexOf("glClear"), set = calls.indexOf("glClearColor");
        return clear >= 0 && (set < 0 || clear < set);
    }
    case StatePiece::DepthFunction: return never({"glDepthFunc"});
    case StatePiece::Blending: return keeps(GL_BLEND);
    case StatePiece::BlendFunction: return never({"glBlendFunc", "glBlendFuncSeparate"});
    case StatePiece::BlendEquation: return never({"glBlendEquation"});
    case StatePiece::BlendColor: return never({"glBlendColor"});
    case StatePiece::FaceCulling: return keeps(GL_CULL_FACE);
    case StatePiece::CulledFace: return never({"glCullFace"});
    case StatePiece::FrontFace: return never({"glFrontFace"});
    case StatePiece::PatchParameters: return never({"glPatchParameteri"});
    case StatePiece::ScissorBox: return never({"glScissor"});
    default: return false;
    }
}

struct Counts
{
    int pairs = 0;
    int hostCounts = 0;
    int left = 0;
};

class HostStates : public GLTest, public ::testing::WithParamInterface<Road>
{
protected:
    void SetUp() override
    {
        GLTest::SetUp();
        cleanContext();
        messages = std::make_unique<MessageCapture>();
        shared = std::make_unique<Shared>();
        cleanContext();
    }

    void TearDown() override
    {
        cleanContext();
        shared.reset();
        messages.reset();
        GLTest::TearDown();
    }

    // What is in targets then, clears left out too, is any memory.
    static bool leavesDrawsOut(const HostState *state)
    {
        return state && state->piece == StatePiece::ConditionalRendering;
    }

    // Runs the pass in the context as it is, and reads what it hands out in a clean one.
    Picture run(const HostState *state, Counts *counts)
    {
        Scene scene(*shared);
        cleanContext();
        const std::unique_ptr<RenderPass> pass = makePass(road);
        Inputs inputs = road.inputs(scene);
        for (auto &[name, value] : inputs)
            value = isEmptied && qstrcmp(name, "Kvo_QRect_Viewport") == 0 ? QVariant(QRect()) : value;
        setInputs(*pass, inputs);
        cleanContext();
        Picture picture;
        {
            std::unique_ptr<HostState::Set> set;
            std::vector<double> before;
            {
                const GlCalls::Pause pause;
                set = state ? state->set() : nullptr;
                before = set ? set->now() : std::vector<double>();
            }
            const GlCalls calls;
            for (int frame = 0; frame < road.frames; ++frame)
                pass->start(nullptr);
            if (state) {
                expectStateAfter(*state, *set, before, counts);
                used = isUsed(state->piece, calls);
            } else {
                expectNothingElseLeft();
            }
            const GlCalls::Pause pause;
            set.reset();
            cleanContext();
        }
        return isEmptied || leavesDrawsOut(state) ? Picture() : pictureOf(road, *pass, scene);
    }

    void expectStateAfter(const HostState &state, const HostState::Set &set, const std::vector<double> &before,
                          Counts *counts)
    {
        const GlCalls::Pause pause;
        const StateException *left = find(road, StateException::Left, state.piece);
        if (!left) {
            const std::vector<double> after = set.now();
            EXPECT_EQ(after, before) << state.name << " is not as before";
            return;
        }
        ++counts->left;
        if (!left->value.empty()) {
            expectLeft(*left, set.now(), state.name);
        } else if (state.piece != StatePiece::BlendFunction) {
            EXPECT_NE(set.now(), before) << state.name << " is as before, though the table says it is left changed";
        }
    }

    static void expectLeft(const StateException &left, std::vector<double> after, const char *state)
    {
        std::vector<double> wanted = left.value;
        // Reference values read as 0 where the framebuffer has no stencil.
        if (left.piece == StatePiece::StencilFunction)
            after[1] = after[4] = wanted[1] = wanted[4] = 0;
        EXPECT_EQ(after, wanted) << state << " is not left as the table says";
    }

    // In a clean context: whatever a pass changes and does not put back stands in the table.
    void expectNothingElseLeft()
    {
        const GlCalls::Pause pause;
        const auto now = [] {
            std::vector<std::vector<double>> all;
            for (size_t i = 0; i < kStateValues; ++i)
                all.push_back(valueOf(StatePiece(i)));
            return all;
        };
        const auto after = now();
        cleanContext();
        const auto clean = now();
        for (size_t i = 0; i < kStateValues; ++i) {
            const StateException *left = find(road, StateException::Left, StatePiece(i));
            if (!left) {
                EXPECT_EQ(after[i], clean[i]) << nameOf(StatePiece(i)) << " is left changed";
            } else if (!left->value.empty() && draws()) {
                // Of a host's value that is what the pass leaves, the other tests could not tell.
                expectLeft(*left, after[i], nameOf(StatePiece(i)));
            }
        }
    }

    // Where a context cannot record lists of fragments there is nothing to sort.
    bool draws() const
    {
        const bool hasLists = hasGLExtension("ARB_shader_atomic_counters")
                              && hasGLExtension("ARB_shader_image_load_store")
                              && hasGLExtension("ARB_shading_language_420pack");
        return !road.drawsNothing && (hasLists || qstrcmp(road.className, "VisibilitySortRenderPass") != 0);
    }

    // Whose lists take long to clear, or whose maps to compute.
    bool isSlow() const { return qstrcmp(road.className, "VisibilityBufferRenderPass") == 0 || isUpload(); }
    bool isUpload() const { return qstrcmp(road.className, "EnvironmentPass") == 0; }

    // All that can count; what only uploads does not depend on how is drawn.
    std::vector<HostState> states() const
    {
        std::vector<HostState> all = hostStates();
        if (isUpload())
            std::erase_if(all, [](const HostState &state) {
                return state.piece < StatePiece::PixelUnpacking || state.piece == StatePiece::PixelPacking
                       || state.piece > StatePiece::Buffers;
            });
        return all;
    }

    const Road &road = GetParam();
    bool isEmptied = false; // whether the viewport has no pixels
    bool used = false;
    std::unique_ptr<Shared> shared;
    std::unique_ptr<MessageCapture> messages;
};

std::string roadName(const ::testing::TestParamInfo<Road> &info)
{
    return std::string(info.param.className) + (info.param.name ? info.param.name : "");
}

INSTANTIATE_TEST_SUITE_P(Roads, HostStates, ::testing::ValuesIn(roads()), roadName);

Counts total;
int framePairs = 0;

class HostStateReport : public ::testing::Environment
{
public:
    void TearDown() override
    {
        std::printf("[ states   ] %d states, %d roads; %d pairs: the host's value counts in %d, left changed in %d\n",
                    states, int(roads().size()), total.pairs, total.hostCounts, total.left);
        std::printf("[ states   ] %d pairs in a pipeline, no exceptions\n", framePairs);
    }
    static inline int states = 0;
};

[[maybe_unused]] const ::testing::Environment *const report = ::testing::AddGlobalTestEnvironment(new HostStateReport);

} // namespace

TEST_P(HostStates, LeaveThePictureAndAreLeftAsTheTableSays)
{
    const Picture clean = run(nullptr, &total);
    EXPECT_FALSE(clean.isEmpty() && !road.drawsNothing) << "there is nothing to compare";
    EXPECT_TRUE(run(nullptr, &total) == clean) << "two frames of a clean context differ";
    HostStateReport::states = int(hostStates().size());
    for (const HostState &state : states()) {
        const ::testing::ScopedTrace trace(__FILE__, __LINE__, state.name);
        ++total.pairs;
        const Picture picture = run(&state, &total);
        if (state.piece == StatePiece::ConditionalRendering) {
            total.hostCounts += draws();
        } else if (draws() && find(road, StateException::HostCounts, state.piece)) {
            ++total.hostCounts;
            EXPECT_TRUE(used || !(picture == clean)) << "the host's value does not count, though the table says so";
        } else {
            EXPECT_TRUE(picture == clean) << "the picture is another one";
        }
    }
}

// Not the first one's alone: a host may clip some viewports and others not.
TEST_F(GLTest, TheScissorTestsOfAllViewportsAreLeft)
{
    KVO_REQUIRE_EXTENSION("GL_ARB_viewport_array");
    const auto tests = [] {
        std::vector<int> all;
        for (GLuint i = 0; i < 16; ++i)
            all.push_back(glIsEnabledi(GL_SCISSOR_TEST, i));
        return all;
    };
    const auto texture = makeSolidTexture(4, 4, {1, 1, 1, 1});
    FastApproximateAntiAliasingRenderPass pass;
    pass.setInput(0, QRect(0, 0, 4, 4));
    pass.setInput(pass.findInput(QStringLiteral("Kvo_KvoTexture*_Frame")), textureToVariant(texture.get()));
    for (const unsigned bits : {0xffffu, 0x0001u, 0xfffdu, 0xfffeu, 0x0000u}) {
        cleanContext();
        for (GLuint i = 0; i < 16; ++i)
            (bits >> i & 1u ? glEnablei : glDisablei)(GL_SCISSOR_TEST, i);
        const std::vector<int> before = tests();
        pass.start(nullptr);
        EXPECT_EQ(tests(), before) << bits;
    }
    cleanContext();
}

// Before anything was drawn without it: drivers send what has changed since the draw before.
TEST_P(HostStates, LeaveThePictureOfAContextThatHasDrawnNothing)
{
    if (!draws() || isSlow() || find(road, StateException::HostCounts, StatePiece::ScissorTest))
        return;
    Counts counts;
    const Picture clean = run(nullptr, &counts);
    const std::unique_ptr<Shared> ofTheOther = std::exchange(shared, nullptr);
    for (const HostState &state : hostStates()) {
        if (state.piece != StatePiece::ScissorTest)
            continue;
        GLContext fresh;
        ASSERT_TRUE(fresh.makeCurrent() && OpenGLDeviceContext::current());
        shared = std::make_unique<Shared>();
        EXPECT_TRUE(run(&state, &counts) == clean) << state.name << ": the picture is another one";
        shared.reset();
        OpenGLDeviceContext::releaseCurrent();
    }
    ASSERT_TRUE(context().makeCurrent());
    // The fixture's goes by itself.
}

// Nothing is drawn, and what a pass says of its state holds all the same.
TEST_P(HostStates, AreLeftAsTheTableSaysByAnEmptyViewportToo)
{
    isEmptied = true;
    Counts counts;
    run(nullptr, &counts);
    for (const HostState &state : hostStates()) {
        const ::testing::ScopedTrace trace(__FILE__, __LINE__, state.name);
        if (find(road, StateException::Left, state.piece))
            run(&state, &counts);
    }
}

// The texts of a road's programs, as GL gets them.
TEST_P(HostStates, GetShadersWithoutLinesThatGoOn)
{
    // The GLSL of 3.2 has no continuation of a line: what strict compilers make of one is an error.
    static QByteArrayList texts;
    static PFNGLSHADERSOURCEPROC real;
    texts.clear();
    real = epoxy_glShaderSource;
    epoxy_glShaderSource = [](GLuint shader, GLsizei count, const GLchar *const *strings, const GLint *lengths) {
        for (GLsizei i = 0; i < count; ++i)
            texts << (lengths ? QByteArray(strings[i], lengths[i]) : QByteArray(strings[i]));
        real(shader, count, strings, lengths);
    };
    const GlCalls calls;
    run(nullptr, &total);
    epoxy_glShaderSource = real;
    if (calls.draws() > 0) {
        EXPECT_FALSE(texts.isEmpty());
    }
    for (const QByteArray &text : std::as_const(texts)) {
        const qsizetype at = text.indexOf("\\\n");
        EXPECT_EQ(at, -1) << text.mid(std::max<qsizetype>(at - 200, 0), 300).constData();
    }
}

// In a Pipeline there are no exceptions.
TEST_P(HostStates, LeaveAFrameOfAPipelineAlone)
{
    const QString name = QStringLiteral("Pass");
    std::unique_ptr<Pipeline> pipeline;
    const auto frame = [&](const HostState *state) {
        Scene scene(*shared);
        cleanContext();
        if (!pipeline || !isSlow()) {
            pipeline = std::make_unique<Pipeline>();
            EXPECT_TRUE(pipeline->add(name, makePass(road)));
        }
        pipeline->setViewport(kViewport);
        for (const auto &[slot, value] : road.inputs(scene))
            EXPECT_TRUE(pipeline->setValue(name, QString::fromLatin1(slot), value)) << slot;
        EXPECT_TRUE(pipeline->setup());
        cleanContext();
        {
            const GlCalls::Pause pause;
            std::unique_ptr<HostState::Set> set = state ? state->set() : nullptr;
            const std::vector<double> before = set ? set->now() : std::vector<double>();
            for (int i = 0; i < road.frames; ++i)
                EXPECT_TRUE(pipeline->render());
            if (set) {
                EXPECT_EQ(set->now(), before) << state->name << " is not as before";
            }
            set.reset();
            cleanContext();
        }
        const Picture picture = leavesDrawsOut(state) ? Picture() : pictureOf(road, *pipeline->pass(name), scene);
        if (!isSlow())
            pipeline.reset();
        return picture;
    };
    const Picture clean = frame(nullptr);
    for (const HostState &state : states()) {
        const ::testing::ScopedTrace trace(__FILE__, __LINE__, state.name);
        ++framePairs;
        const Picture picture = frame(&state);
        if (state.piece != StatePiece::ConditionalRendering) {
            EXPECT_TRUE(picture == clean) << "the picture is another one";
        }
    }
}

// Passes of the host's between them may leave what they like.
TEST_P(HostStates, OfPassesBesideItInAPipelineLeaveAPassAlone)
{
    class Spoiler : public RenderPassHelper
    {
    public:
        void start(RenderCallbacks *) override
        {
            const GlCalls::Pause pause;
            std::set<StatePiece> done;
            for (const HostState &state : hostStates()) {
                const bool isValue = std::size_t(state.piece) < kStateValues;
                if (isValue && state.piece != StatePiece::TransformFeedback && done.insert(state.piece).second)
                    state.set();
            }
        }
    };
    class Probe : public RenderPassHelper
    {
    public:
        void start(RenderCallbacks *) override
        {
            for (size_t i = 0; i < kStateValues; ++i)
                found.push_back(valueOf(StatePiece(i)));
        }
        std::vector<std::vector<double>> found;
    };
    Scene scene(*shared);
    cleanContext();
    std::vector<std::vector<double>> clean;
    for (size_t i = 0; i < kStateValues; ++i)
        clean.push_back(valueOf(StatePiece(i)));

    const auto frame = [&](bool spoiled) {
        Scene again(*shared);
        cleanContext();
        Pipeline pipeline;
        const QString name = QStringLiteral("Pass");
        if (spoiled) {
            EXPECT_TRUE(pipeline.add(QStringLiteral("Before"), std::make_unique<Spoiler>()));
        }
        EXPECT_TRUE(pipeline.add(name, makePass(road)));
        auto probe = std::make_unique<Probe>();
        Probe *const after = probe.get();
        EXPECT_TRUE(pipeline.add(QStringLiteral("After"), std::move(probe)));
        pipeline.setViewport(kViewport);
        for (const auto &[slot, value] : road.inputs(again))
            EXPECT_TRUE(pipeline.setValue(name, QString::fromLatin1(slot), value)) << slot;
        for (int i = 0; i < road.frames; ++i) {
            after->found.clear();
            EXPECT_TRUE(pipeline.render());
        }
        for (size_t i = 0; i < kStateValues; ++i) {
            const auto piece = StatePiece(i);
            const bool hasNoDefault = piece == StatePiece::Viewport || piece == StatePiece::FurtherViewports
                                      || piece == StatePiece::ScissorBox;
            if (!hasNoDefault) {
                EXPECT_EQ(after->found[i], clean[i]) << nameOf(piece) << " comes from the pass before";
            }
        }
        cleanContext();
        return pictureOf(road, *pipeline.pass(name), again);
    };
    const Picture alone = frame(false);
    EXPECT_TRUE(frame(true) == alone) << "the picture is another one";
}

class HostPixelStates : public GLTest
{
protected:
    void SetUp() override
    {
        GLTest::SetUp();
        cleanContext();
    }
    void TearDown() override
    {
        cleanContext();
        GLTest::TearDown();
    }

    // Runs a piece of work under each state of moving pixels, and what tells its result in a clean context.
    template <typename Work>
    static void underEach(Work &&work)
    {
        const auto movesPixels = [](const HostState &state) {
            return state.piece == StatePiece::PixelUnpacking || state.piece == StatePiece::PixelPacking
                   || state.piece == StatePiece::PixelBuffers;
        };
        int count = 0;
        for (const HostState &state : hostStates()) {
            if (!movesPixels(state))
                continue;
            const ::testing::ScopedTrace trace(__FILE__, __LINE__, state.name);
            std::unique_ptr<HostState::Set> set = state.set();
            const std::vector<double> before = set->now();
            work([&] {
                EXPECT_EQ(set->now(), before);
                set.reset();
                cleanContext();
            });
            ++count;
        }
        EXPECT_EQ(count, 19);
    }
};

// What moves pixels and how textures are sampled is default state too, for a pass of the host's as for one of ours.
TEST_F(HostPixelStates, AreTheDefaultForEveryPassOfAPipeline)
{
    struct Seen
    {
        std::vector<double> numbers;
        bool operator==(const Seen &) const = default;
    };
    static const auto look = [] {
        Seen seen;
        const auto add = [&seen](GLenum query) {
            GLdouble value = 0;
            glGetDoublev(query, &value);
            seen.numbers.push_back(value);
        };
        for (GLenum query : {GL_UNPACK_ALIGNMENT, GL_UNPACK_ROW_LENGTH, GL_UNPACK_SKIP_ROWS, GL_UNPACK_SKIP_PIXELS,
                             GL_UNPACK_SWAP_BYTES, GL_UNPACK_LSB_FIRST, GL_UNPACK_IMAGE_HEIGHT, GL_UNPACK_SKIP_IMAGES,
                             GL_PACK_ALIGNMENT, GL_PACK_ROW_LENGTH, GL_PACK_SKIP_ROWS, GL_PACK_SKIP_PIXELS,
                             GL_PACK_SWAP_BYTES, GL_PACK_LSB_FIRST, GL_PACK_IMAGE_HEIGHT, GL_PACK_SKIP_IMAGES,
                             GL_PIXEL_UNPACK_BUFFER_BINDING, GL_PIXEL_PACK_BUFFER_BINDING, GL_CLAMP_READ_COLOR})
            add(query);
        if (hasStatePiece(StatePiece::Samplers)) {
            GLint active = 0;
            glGetIntegerv(GL_ACTIVE_TEXTURE, &active);
            for (GLenum unit = 0; unit < 16; ++unit) {
                glActiveTexture(GL_TEXTURE0 + unit);
                add(GL_SAMPLER_BINDING);
            }
            glActiveTexture(GLenum(active));
        }
        return seen;
    };
    class Spoiler : public RenderPassHelper
    {
    public:
        explicit Spoiler(const HostState &s) : state(s) {}
        void start(RenderCallbacks *) override
        {
            found = look();
            set = state.set();
        }
        const HostState &state;
        std::unique_ptr<HostState::Set> set; // its objects live on
        Seen found;
    };
    class Probe : public RenderPassHelper
    {
    public:
        void start(RenderCallbacks *) override { found = look(); }
        Seen found;
    };
    const Seen clean = look();
    int count = 0;
    for (const HostState &state : hostStates()) {
        if (state.piece != StatePiece::PixelUnpacking && state.piece != StatePiece::PixelPacking
            && state.piece != StatePiece::PixelBuffers && state.piece != StatePiece::Samplers)
            continue;
        ++count;
        const ::testing::ScopedTrace trace(__FILE__, __LINE__, state.name);
        Pipeline pipeline;
        auto first = std::make_unique<Spoiler>(state);
        auto second = std::make_unique<Probe>();
        Spoiler *const spoiler = first.get();
        Probe *const probe = second.get();
        ASSERT_TRUE(pipeline.add(QStringLiteral("First"), std::move(first)));
        ASSERT_TRUE(pipeline.add(QStringLiteral("Second"), std::move(second)));
        std::unique_ptr<HostState::Set> hosts = state.set();
        const Seen before = look();
        EXPECT_FALSE(before == clean);
        EXPECT_TRUE(pipeline.render());
        EXPECT_EQ(spoiler->found.numbers, clean.numbers) << "comes from the host";
        EXPECT_EQ(probe->found.numbers, clean.numbers) << "comes from the pass before";
        EXPECT_EQ(look().numbers, before.numbers) << "the host's is not as before";
        spoiler->set.reset();
        hosts.reset();
        cleanContext();
    }
    EXPECT_EQ(count, hasStatePiece(StatePiece::Samplers) ? 20 : 19);
}

// GL answers what a reference value is by the stencil of the framebuffer that is bound, which may have none.
TEST_P(HostStates, KeepTheStencilReferenceOfAHostWhoseFramebufferHasNoStencil)
{
    if (find(road, StateException::Left, StatePiece::StencilFunction))
        GTEST_SKIP() << "left changed, as the table says";
    const Target stencil(GL_RGBA8, 4, 4, true);
    Scene scene(*shared);
    const Inputs inputs = road.inputs(scene);
    cleanContext();
    const std::unique_ptr<RenderPass> pass = makePass(road);
    setInputs(*pass, inputs);
    glStencilFuncSeparate(GL_FRONT, GL_ALWAYS, 7, ~0u);
    glStencilFuncSeparate(GL_BACK, GL_EQUAL, 9, 0xf);
    for (int frame = 0; frame < road.frames; ++frame)
        pass->start(nullptr);
    AutoBinder bound(stencil.framebuffer());
    GLint front = 0, back = 0;
    glGetIntegerv(GL_STENCIL_REF, &front);
    glGetIntegerv(GL_STENCIL_BACK_REF, &back);
    EXPECT_EQ(front, 7);
    EXPECT_EQ(back, 9);
}

TEST(HostStateTable, HasARowForEveryPassAndARoadForEveryRow)
{
    for (const StateRow &row : stateTable()) {
        const auto isOfRow = [&](const Road &road) { return qstrcmp(road.className, row.className) == 0; };
        EXPECT_TRUE(std::any_of(roads().begin(), roads().end(), isOfRow)) << row.className;
        for (const StateException &exception : row.exceptions) {
            const bool isTaken = std::any_of(roads().begin(), roads().end(), [&](const Road &road) {
                return isOfRow(road) && applies(exception, road);
            });
            EXPECT_TRUE(isTaken) << "no road is '" << exception.when << "' of " << row.className;
        }
    }
    for (const PassCase &pass : allPassCases()) {
        const bool isTaken = std::any_of(roads().begin(), roads().end(), [&](const Road &road) {
            return qstrcmp(road.className, pass.className) == 0;
        });
        EXPECT_TRUE(isTaken) << "no road of " << pass.className;
    }
}

TEST_F(HostPixelStates, LeaveTheUploadOfAModelAlone)
{
    const auto picture = [](GPUModel &model) {
        std::unique_ptr<RenderPass> pass = passFactory().make(QStringLiteral("ModelRenderPass"));
        const Inputs inputs = withCamera({{"Kvo_KvoGPUModel*_Geometry", QVariant::fromValue(&model)}});
        for (int i = 0; i < pass->numInputs(); ++i)
            pass->setInput(i, inputs[size_t(i)].second);
        glViewport(0, 0, kWidth, kHeight);
        pass->start(nullptr);
        Image<float> diffuse = readTexture<float>(outputTexture(*pass, 0));
        cleanContext();
        return diffuse;
    };
    GPUModel model;
    ASSERT_TRUE(model.upload(modelData()));
    const Image<float> clean = picture(model);
    underEach([&](const auto &end) {
        GPUModel other;
        EXPECT_TRUE(other.upload(modelData()));
        end();
        // where a map lies among others shows in the last digits
        EXPECT_TRUE(sameImage(picture(other), clean, within(1e-4)));
    });
}

TEST_F(HostPixelStates, LeaveTexturesOfTheManagerAlone)
{
    int number = 0;
    underEach([&](const auto &end) {
        const QColor color(10 + 7 * number++, 200, 90, 180);
        Texture *solid = TextureManager::Instance().solidTexture(color);
        Texture *temporary = TextureManager::Instance().tempTexture(TextureFormat::Frame, 3 + number, 5, -1);
        end();
        EXPECT_TRUE(isPixel(readTexture<float>(solid), 0, 0,
                            {float(color.redF()), float(color.greenF()), float(color.blueF()), float(color.alphaF())},
                            1e-3));
        EXPECT_EQ(stateOf(temporary).width, 3 + number);
        TextureManager::Instance().releaseTempTextureRef(temporary, 1);
    });
}

TEST_F(HostPixelStates, LeaveReadingATextureAlone)
{
    Image<float> pattern(5, 3);
    for (int y = 0; y < 3; ++y)
        for (int x = 0; x < 5; ++x)
            pattern.at(x, y) = {float(x), float(y), 0.5f, -2.0f};
    const std::unique_ptr<Texture> texture = makeTexture(pattern);
    TexturePixels clean;
    ASSERT_TRUE(readTexture(texture.get(), &clean));
    underEach([&](const auto &end) {
        TexturePixels pixels;
        EXPECT_TRUE(readTexture(texture.get(), &pixels));
        end();
        EXPECT_EQ(pixels.values, clean.values);
    });
}

// The short cut of the pass, to draw only transparent items in its second step, is right only where the
// depth of opaque ones was written.
TEST_F(HostPixelStates, AClosedDepthMaskDoesNotTurnTheOpacityRuleOfTransparency)
{
    GPUModel model;
    ASSERT_TRUE(model.upload(modelData()));
    const auto frame = [&](bool closed) {
        std::unique_ptr<RenderPass> pass = passFactory().make(QStringLiteral("TransparencyRenderPass"));
        const Inputs inputs = withCamera({{"Kvo_KvoGPUModel*_Geometry", QVariant::fromValue(&model)}});
        for (int i = 0; i < 4; ++i)
            pass->setInput(i, inputs[size_t(i)].second);
        glViewport(0, 0, kWidth, kHeight);
        glDepthMask(!closed);
        pass->start(nullptr);
        cleanContext();
        return readTexture<float>(outputTexture(*pass, 0));
    };
    EXPECT_TRUE(sameImage(frame(true), frame(false), within(0)));
}

TEST_F(HostPixelStates, AModelDrawnClockwisePutsTheFrontFaceBack)
{
    GPUModel model;
    ASSERT_TRUE(model.upload(modelData()));
    const Target target(GL_RGBA8, 4, 4);
    const std::unique_ptr<ShaderProgram> program = makeProgram(
        QStringLiteral("#version 150\nin vec3 va_Vertex;\nvoid main() { gl_Position = vec4(va_Vertex, 1.0); }\n"),
        QStringLiteral("#version 150\nout vec4 out_Color;\nvoid main() { out_Color = vec4(1.0); }\n"));
    AutoBinder bound(target.framebuffer());
    for (const GLenum face : {GL_CW, GL_CCW}) {
        glFrontFace(face);
        EXPECT_TRUE(model.draw(program.get(), 0, 0, ClockwiseWinding, false));
        GLint now = 0;
        glGetIntegerv(GL_FRONT_FACE, &now);
        EXPECT_EQ(GLenum(now), face);
    }
}
