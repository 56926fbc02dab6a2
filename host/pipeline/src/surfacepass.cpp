#include "host/surfacepass.h"

#include "core/liveobjects.h"
#include "gl/bindings.h"
#include "gl/contextscope.h"
#include "gl/framebufferobject.h"
#include "gl/guards.h"
#include "gl/hoststate.h"
#include "gl/sampling.h"
#include "gl/shaderprogram.h"
#include "gl/texture.h"
#include "gl/texturemanager.h"
#include "model/gpumodel.h"
#include "pooledoutput.h"
#include "surfaceprogram.h"
#include "viewportsize.h"

#include <epoxy/gl.h>

#include <QMatrix4x4>
#include <QRect>

#include <algorithm>
#include <array>

namespace Brevane::Kvo {

namespace {

constexpr SlotInfo kInputInfo[] = {
    {.name = "Kvo_QRect_Viewport", .meaning = "size of the targets", .kind = SlotKind::Area, .unit = "pixels"},
    {.name = "Kvo_QMatrix4x4_ProjectionMatrix", .meaning = "camera to clip space", .kind = SlotKind::Matrix},
    {.name = "Kvo_QMatrix4x4_CameraMatrix", .meaning = "world to camera space", .kind = SlotKind::Matrix},
    {.name = "Kvo_KvoGPUModel*_Geometry",
     .meaning = "what to draw; none: the targets are cleared",
     .kind = SlotKind::Model},
    {.name = "Kvo_bool_SolidOnly", .meaning = "true: nothing that lets light through", .kind = SlotKind::Switch},
};

constexpr SlotInfo kOutputInfo[] = {
    {.name = "Kvo_KvoTexture*_BaseColor",
     .meaning = "base colour in linear light, opacity in alpha",
     .kind = SlotKind::Texture,
     .format = "pool format 7 (GL_RGBA16F)"},
    {.name = "Kvo_KvoTexture*_Surface",
     .meaning = "roughness, metalness, occlusion; alpha 0 where the base colour is what one sees",
     .kind = SlotKind::Texture,
     .format = "pool format 2 (GL_RGBA8)"},
    {.name = "Kvo_KvoTexture*_Emission",
     .meaning = "radiance that is sent out",
     .kind = SlotKind::Texture,
     .format = "pool format 13 (GL_R11F_G11F_B10F)"},
    {.name = "Kvo_KvoTexture*_Normal",
     .meaning = "unit normal in camera space, normal map applied, of the side that is seen",
     .kind = SlotKind::Texture,
     .format = "pool format 7 (GL_RGBA16F)"},
    {.name = "Kvo_KvoTexture*_Depth",
     .meaning = "window depth; 1 is background",
     .kind = SlotKind::Texture,
     .format = "pool format 20 (GL_DEPTH_COMPONENT32F)"},
    {.name = "Kvo_KvoTexture*_Id",
     .meaning = "number of the triangle in its draw plus 1; 0 is background",
     .kind = SlotKind::Texture,
     .format = "pool format 1 (GL_R32F)"},
};

constexpr PassInfo kInfo = {"SurfacePass", "draws a model into the targets that physically based shading reads",
                            Reach::texels(0), kInputInfo, kOutputInfo};

} // namespace

SurfacePass::SurfacePass()
{
    addInput(QStringLiteral("Kvo_QRect_Viewport"), QVariant(), InViewport);
    addInput(QStringLiteral("Kvo_QMatrix4x4_ProjectionMatrix"), QVariant(), InProjectionMatrix);
    addInput(QStringLiteral("Kvo_QMatrix4x4_CameraMatrix"), QVariant(), InCameraMatrix);
    addInput(QStringLiteral("Kvo_KvoGPUModel*_Geometry"), QVariant(), InGeometry);
    addInput(QStringLiteral("Kvo_bool_SolidOnly"), false, InSolidOnly);
    addOutput(QStringLiteral("Kvo_KvoTexture*_BaseColor"), OutBaseColor);
    addOutput(QStringLiteral("Kvo_KvoTexture*_Surface"), OutSurface);
    addOutput(QStringLiteral("Kvo_KvoTexture*_Emission"), OutEmission);
    addOutput(QStringLiteral("Kvo_KvoTexture*_Normal"), OutNormal);
    addOutput(QStringLiteral("Kvo_KvoTexture*_Depth"), OutDepth);
    addOutput(QStringLiteral("Kvo_KvoTexture*_Id"), OutId);
    describe(kInfo);
}

SurfacePass::SurfacePass(const SurfacePass &other) = default;
SurfacePass &SurfacePass::operator=(const SurfacePass &other) = default;
SurfacePass::~SurfacePass() = default;

void SurfacePass::start(RenderCallbacks *)
{
    const ContextScope scope;
    if (!scope)
        return;
    for (PassSlot &output : _outputs)
        output.value = QVariant();
    const QSize size = sizeInSlot(*this, InViewport);
    if (size.isEmpty() || !hasRoomFor(*this, InViewport, size))
        return;

    // It binds with plain GL, of which a pipeline that the pass runs in knows nothing.
    const BindingScope bindings;
    BindingScope::stopTracking();
    const DefaultState state{StatePiece::DepthTest};
    auto &pool = TextureManager::Instance();
    std::array<Texture *, kSurfaceTargets.size()> textures{};
    for (std::size_t i = 0; i < kSurfaceTargets.size(); ++i)
        textures[i] = pool.tempTexture(kSurfaceTargets[i].format, size.width(), size.height());
    // Beyond what the driver has room for, which the pool has said, a single texel stands in: nothing to look at.
    const auto hasRoom = [size](Texture *texture) {
        const LevelInfo level = levelInfo(texture, GL_TEXTURE_2D);
        return QSize(level.width, level.height) == size;
    };
    if (!std::all_of(textures.begin(), textures.end(), hasRoom)) {
        for (Texture *texture : textures)
            pool.releaseTempTextureRef(texture, 1);
        return;
    }
    if (!_fbo) {
        _fbo = new FramebufferObject;
        _fbo->setLabel(QStringLiteral("SurfacePass"));
    }
    {
        const AutoBinder fbo(_fbo);
        for (std::size_t i = 0; i < kSurfaceTargets.size(); ++i)
            _fbo->attach(textures[i], kSurfaceTargets[i].attachment, 0);
        _fbo->setDrawBuffers();
        glViewport(0, 0, size.width(), size.height());
        glClearColor(0.0f, 0.0f, 0.0f, 0.0f);
        glClear(GL_COLOR_BUFFER_BIT | GL_DEPTH_BUFFER_BIT);
        auto *model = qvariant_cast<GPUModel *>(_inputs[InGeometry].value);
        if (liveKindOf(model) == LiveKind::Model)
            draw(*model);
        _fbo->detachAll();
    }
    for (std::size_t i = 0; i < kSurfaceTargets.size(); ++i)
        handOut(_outputs[qsizetype(i)], textures[i], _numOutputUsers[qsizetype(i)]);
}

void SurfacePass::draw(GPUModel &model)
{
    // Before the program, which is built for the maps that there are.
    model.surfaceData(0);
    if (ShaderProgram *const known = _program)
        known->refresh();
    else
        _program = surfaceProgram(QStringLiteral("SurfacePass"), SurfacePart::Solid);
    const auto camera = qvariant_cast<QMatrix4x4>(_inputs[InCameraMatrix].value);
    glEnable(GL_DEPTH_TEST);
    const AutoBinder program(_program);
    _program->setUniform(QStringLiteral("u_ProjectionMatrix"), _inputs[InProjectionMatrix].value);
    _program->setUniform(QStringLiteral("u_CameraMatrix"), camera);
    _program->setUniform(QStringLiteral("u_NormalMatrix"), camera.inverted().transposed());
    _program->setUniform(QStringLiteral("u_SolidOnly"), _inputs[InSolidOnly].value.toBool());
    model.draw(_program, 0, 0, CounterClockwiseWinding, false);
}

} // namespace Brevane::Kvo
