#include "renderpasses/gbufferrenderpass.h"

#include "core/slottypes.h"
#include "gl/bindings.h"
#include "gl/drawbuffers.h"
#include "gl/framebufferobject.h"
#include "gl/guards.h"
#include "gl/picturewindow.h"
#include "gl/shaderprogram.h"
#include "gl/texture.h"
#include "passkit/limits.h"
#include "passkit/pool.h"
#include "passkit/programs.h"
#include "passkit/slots.h"
#include "passkit/statetable.h"
#include "passkit/targets.h"

#include <QMatrix4x4>

#include <epoxy/gl.h>

namespace Brevane::Kvo {

namespace {

const StateRow &kState = stateRow("GBufferRenderPass");

enum Input { kViewport, kProjectionMatrix, kCameraMatrix, kGeometry };
enum Output { kNormal, kTexCoord, kDepth, kId };

const std::vector<OutputTarget> kTargets{{QStringLiteral("out_Normal"), GL_RGB32F},
                                         {QStringLiteral("out_TexCoord"), GL_RG32F},
                                         {QStringLiteral("out_Id"), GL_R32F}};

const QString kVertexShader = QStringLiteral(R"(#version 150

uniform mat4 u_CameraMatrix;
uniform mat4 u_ProjectionMatrix;

in vec3 va_Vertex;
in vec3 va_Normal;
in vec2 va_TexCoord;

out vec3 vo_Vertex;
out vec3 vo_Normal;
out vec2 vo_TexCoord;

void main()
{
  gl_Position = u_ProjectionMatrix * u_CameraMatrix * vec4(va_Vertex, 1.0);
  vo_Vertex = va_Vertex;
  vo_Normal = va_Normal;
  vo_TexCoord = va_TexCoord;
}
)");

const QString kFragmentShader = QStringLiteral(R"(#version 150

in vec3 vo_Vertex;
in vec3 vo_Normal;
in vec2 vo_TexCoord;

out vec3 out_Normal;
out vec2 out_TexCoord;
out vec4 out_Id;

void main()
{
  out_Normal = vo_Normal;
  out_TexCoord = vo_TexCoord;
  out_Id = vec4(gl_PrimitiveID+1.0);
}
)");

const ProgramRecipe &gBufferProgram()
{
    static const ProgramRecipe recipe{QStringLiteral("GBufferRenderPass"),
                                      outputsOf(kTargets),
                                      {{GL_VERTEX_SHADER, ShaderSource::Text, kVertexShader},
                                       {GL_FRAGMENT_SHADER, ShaderSource::Text, kFragmentShader}}};
    return recipe;
}

constexpr SlotInfo kInputInfo[] = {
    {.name = "Kvo_QRect_Viewport", .meaning = "size of the targets", .kind = SlotKind::Area, .unit = "pixels"},
    {.name = "Kvo_QMatrix4x4_ProjectionMatrix", .meaning = "camera to clip space", .kind = SlotKind::Matrix},
    {.name = "Kvo_QMatrix4x4_CameraMatrix", .meaning = "world to camera space", .kind = SlotKind::Matrix},
    {.name = "Kvo_KvoDrawBuffers*_Geometry",
     .meaning = "what to draw, or a QVariantList of such",
     .kind = SlotKind::Geometry},
};

constexpr SlotInfo kOutputInfo[] = {
    {.name = "Kvo_KvoTexture*_Normal",
     .meaning = "normal in object space, interpolated and not of unit length",
     .kind = SlotKind::Texture,
     .format = "GL_RGB32F, colour attachment 0"},
    {.name = "Kvo_KvoTexture*_TexCoord",
     .meaning = "texture coordinates",
     .kind = SlotKind::Texture,
     .format = "GL_RG32F, colour attachment 1"},
    {.name = "Kvo_KvoTexture*_Depth",
     .meaning = "window depth",
     .kind = SlotKind::Texture,
     .format = "GL_DEPTH_COMPONENT32F, depth attachment"},
    {.name = "Kvo_KvoTexture*_Id",
     .meaning = "number of the triangle in its draw plus 1",
     .kind = SlotKind::Texture,
     .format = "GL_R32F, colour attachment 2"},
};

constexpr PassInfo kInfo = {"GBufferRenderPass",
                            "draws plain geometry into normal, texture coordinate, id and depth targets",
                            Reach::texels(0), kInputInfo, kOutputInfo};

} // namespace

GBufferRenderPass::GBufferRenderPass()
{
    addInput(QStringLiteral("Kvo_QRect_Viewport"), QVariant(), kViewport);
    addInput(QStringLiteral("Kvo_QMatrix4x4_ProjectionMatrix"), QVariant(), kProjectionMatrix);
    addInput(QStringLiteral("Kvo_QMatrix4x4_CameraMatrix"), QVariant(), kCameraMatrix);
    addInput(QStringLiteral("Kvo_KvoDrawBuffers*_Geometry"), QVariant(), kGeometry);
    addOutput(QStringLiteral("Kvo_KvoTexture*_Normal"), kNormal);
    addOutput(QStringLiteral("Kvo_KvoTexture*_TexCoord"), kTexCoord);
    addOutput(QStringLiteral("Kvo_KvoTexture*_Depth"), kDepth);
    addOutput(QStringLiteral("Kvo_KvoTexture*_Id"), kId);
    describe(kInfo);
}

GBufferRenderPass::GBufferRenderPass(const GBufferRenderPass &other) = default;
GBufferRenderPass &GBufferRenderPass::operator=(const GBufferRenderPass &other) = default;

// The targets are not deleted with the pass: whoever still reads them finds them alive.
GBufferRenderPass::~GBufferRenderPass()
{
    giveUpTargets(_fbo);
}

void GBufferRenderPass::start(RenderCallbacks *)
{
    const BindingScope scope;
    if (!scope)
        return;
    const Extent extent = extentOf(*this, kViewport);
    PictureWindow::current().setViewport(extent.width, extent.height);
    const auto projection = qvariant_cast<QMatrix4x4>(_inputs[kProjectionMatrix].value);
    const auto camera = qvariant_cast<QMatrix4x4>(_inputs[kCameraMatrix].value);
    // One value stands for a list of it. Most frames have one, so no list is made for it.
    const QVariant geometry = _inputs[kGeometry].value;
    const bool hasSeveral = isList(geometry);
    const QVariantList list = listIn(geometry);
    const QVariant *const pieces = hasSeveral ? list.constData() : &geometry;
    const qsizetype count = hasSeveral ? list.size() : 1;

    if (needsTargets(_fbo, "GBufferRenderPass", extent, _width, _height)) {
        AutoBinder fbo(_fbo);
        replaceGeometryTargets(_fbo, kTargets, extent);
    }
    buildOnce(_shaderProgram, gBufferProgram());

    const bool canDraw = !extent.isEmpty();
    {
        NeutralState neutral(kState);
        AutoBinder fbo(_fbo);
        _fbo->setDrawBuffers();
        if (canDraw)
            glClear(GL_COLOR_BUFFER_BIT | GL_DEPTH_BUFFER_BIT);
        if (count > 0) {
            glEnable(GL_DEPTH_TEST);
            neutral.leave({StatePiece::DepthTest});
            AutoBinder program(_shaderProgram);
            _shaderProgram->setUniform(QStringLiteral("u_ProjectionMatrix"), projection);
            _shaderProgram->setUniform(QStringLiteral("u_CameraMatrix"), camera);
            for (const QVariant *piece = pieces; canDraw && piece != pieces + count; ++piece) {
                DrawBuffers *buffers = anyDrawBuffers(*piece);
                if (!buffers || !buffers->VAO())
                    continue;
                // Every time: the geometry may be another one than in the frame before.
                enableArrays(*buffers, _shaderProgram);
                AutoBinder bound(buffers);
                buffers->draw();
            }
        }
    }
    _outputs[kNormal].value = objectForm(_fbo->attachment(GL_COLOR_ATTACHMENT0));
    _outputs[kTexCoord].value = objectForm(_fbo->attachment(GL_COLOR_ATTACHMENT1));
    _outputs[kDepth].value = objectForm(_fbo->attachment(GL_DEPTH_ATTACHMENT));
    _outputs[kId].value = objectForm(_fbo->attachment(GL_COLOR_ATTACHMENT2));
}

void GBufferRenderPass::setShaderProgram(ShaderProgram *program)
{
    _shaderProgram.adopt(program);
}

} // namespace Brevane::Kvo
