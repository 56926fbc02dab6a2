#include "renderpasses/wireframerenderpass.h"

#include "gl/bindings.h"
#include "gl/drawbuffers.h"
#include "gl/framebufferobject.h"
#include "gl/guards.h"
#include "gl/shaderprogram.h"
#include "gl/texture.h"
#include "passkit/limits.h"
#include "passkit/pool.h"
#include "passkit/programs.h"
#include "passkit/slots.h"
#include "passkit/statetable.h"
#include "passkit/targets.h"

#include <QColor>
#include <QRect>

#include <epoxy/gl.h>

using namespace Qt::StringLiterals;

namespace Brevane::Kvo {

namespace {

const StateRow &kState = stateRow("WireframeRenderPass");

// Perspective cameras put noise into the blue channel, so it is compared with a threshold.
const QString kFragmentShader = QStringLiteral(R"(#version 150

uniform sampler2D u_IdSampler;
uniform int u_IdSamplerWidth;
uniform int u_IdSamplerHeight;
uniform vec4 u_WireframeColour;

in vec2 vo_TexCoord;

out vec4 out_FragColor;

// Whole numbers, without what filtering and rounding added: 0.99999 becomes 1.
ivec4 Clampi(vec4 value)
{
  return ivec4( floor( value+vec4(0.1)));
}

float difference(ivec4 Sample, vec2 coord)
{
  ivec4 Neighbour = Clampi(texture(u_IdSampler, coord));
  if(Neighbour.r != Sample.r)
    return 1.0;
  return (1.0 / 256.0) < abs(float(Neighbour.b - Sample.b)) ? 0.33 : 0.0;
}

void main()
{
  ivec4 Sample = Clampi(texture(u_IdSampler, vo_TexCoord));
  float dx = 1.0 / float(u_IdSamplerWidth);
  float dy = 1.0 / float(u_IdSamplerHeight);

  float alpha = 0.0;
  alpha += difference(Sample, vo_TexCoord + vec2(-dx, -dy));
  alpha += difference(Sample, vo_TexCoord + vec2(-dx, +dy));
  alpha += difference(Sample, vo_TexCoord + vec2(+dx, -dy));
  alpha += difference(Sample, vo_TexCoord + vec2(+dx, +dy));
  alpha += difference(Sample, vo_TexCoord + vec2(-dx, 0.0));
  alpha += difference(Sample, vo_TexCoord + vec2(0.0, -dy));
  alpha += difference(Sample, vo_TexCoord + vec2(0.0, +dy));
  alpha += difference(Sample, vo_TexCoord + vec2(+dx, 0.0));
  alpha /= 8.0;
  out_FragColor = u_WireframeColour * vec4(alpha);
}
)");

const QString kViewport = u"Kvo_QRect_Viewport"_s;
const QString kId = u"Kvo_KvoTexture*_Id"_s;
const QString kWireColor = u"Kvo_QColor_WireColor"_s;
const QString kFrame = u"Kvo_KvoTexture*_Frame"_s;

const ProgramRecipe &edgeProgram()
{
    static const ProgramRecipe recipe{QStringLiteral("WireframeRenderPass"),
                                      {QStringLiteral("out_FragColor")},
                                      {{GL_VERTEX_SHADER, ShaderSource::Text, kScreenVertexShader},
                                       {GL_FRAGMENT_SHADER, ShaderSource::Text, kFragmentShader}}};
    return recipe;
}

bool showsNothing(const QColor &color)
{
    return color.isValid() && color.redF() == 0.0f && color.greenF() == 0.0f && color.blueF() == 0.0f
           && color.alphaF() == 0.0f;
}

constexpr SlotInfo kInputInfo[] = {
    {.name = "Kvo_QRect_Viewport",
     .meaning = "size of the target and the GL viewport",
     .kind = SlotKind::Area,
     .unit = "pixels"},
    {.name = "Kvo_KvoTexture*_Id",
     .meaning = "red: primitive, blue: tessellated triangle, whole numbers; none: the output is null",
     .kind = SlotKind::Texture},
    {.name = "Kvo_QColor_WireColor",
     .meaning = "colour of a full edge; opaque black when not connected",
     .kind = SlotKind::Color},
};

constexpr SlotInfo kOutputInfo[] = {
    {.name = "Kvo_KvoTexture*_Frame",
     .meaning = "the wires; colour and alpha scaled alike",
     .kind = SlotKind::Texture,
     .format = "pool format 3"},
};

constexpr PassInfo kInfo = {"WireframeRenderPass", "draws a wireframe from an id image", Reach::texels(1), kInputInfo,
                            kOutputInfo};

} // namespace

WireframeRenderPass::WireframeRenderPass()
{
    setTextureForm(TextureForm::Object);
    addInput(kViewport);
    addInput(kId);
    addInput(kWireColor);
    addOutput(kFrame);
    describe(kInfo);
}

WireframeRenderPass::WireframeRenderPass(const WireframeRenderPass &other) = default;
WireframeRenderPass &WireframeRenderPass::operator=(const WireframeRenderPass &other) = default;

WireframeRenderPass::~WireframeRenderPass() = default;

void WireframeRenderPass::start(RenderCallbacks *)
{
    const BindingScope scope;
    if (!scope)
        return;
    const int viewportSlot = findInput(kViewport);
    const int idSlot = findInput(kId);
    const int frameSlot = findOutput(kFrame);
    if (viewportSlot < 0 || idSlot < 0 || frameSlot < 0)
        return;
    // Without a colour slot at all; a slot with no value counts, and gives opaque black.
    QColor wireColor(23, 23, 23, 23);
    if (const int colorSlot = findInput(kWireColor); colorSlot >= 0)
        wireColor = qvariant_cast<QColor>(_inputs[colorSlot].value);

    const QRect viewport = qvariant_cast<QRect>(_inputs[viewportSlot].value);
    const Extent extent = extentOf(*this, viewportSlot);
    Texture *id = objectTexture(*this, idSlot);
    if (!id) {
        _outputs[frameSlot].value = QVariant();
        return;
    }

    made(_fbo, "WireframeRenderPass");
    const NeutralState neutral(kState);
    AutoBinder fbo(_fbo);
    Texture *target = tempTexture(TextureFormat::Result, extent);
    _fbo->attach(target, GL_COLOR_ATTACHMENT0, 0);
    buildOnce(_program, edgeProgram());
    fetchOnce(_quad, Quad::Screen, _program);

    _fbo->setDrawBuffers();
    glDisable(GL_DEPTH_TEST);
    glViewport(viewport.left(), viewport.top(), extent.width, extent.height);
    const bool isAllDrawn = viewport.topLeft() == QPoint();
    if (isAllDrawn && !extent.isEmpty() && showsNothing(wireColor)) {
        // Nothing, scaled by whatever share of the neighbours: a switch that is off costs no look at the ids.
        constexpr float kNothing[4] = {};
        glClearBufferfv(GL_COLOR, 0, kNothing);
    } else if (!extent.isEmpty() && _quad) {
        glClear(GL_COLOR_BUFFER_BIT);
        AutoBinder program(_program);
        _program->setUniform(QStringLiteral("u_IdSamplerWidth"), extent.width);
        _program->setUniform(QStringLiteral("u_IdSamplerHeight"), extent.height);
        _program->setUniform(QStringLiteral("u_WireframeColour"), QVariant(wireColor));
        AutoBinder boundId(id);
        _program->setUniform(QStringLiteral("u_IdSampler"), id->unit());
        AutoBinder quad(_quad);
        _quad->draw();
    }

    publish(_outputs[frameSlot], target, _numOutputUsers[frameSlot]);
    release(id);
    _fbo->detach(GL_COLOR_ATTACHMENT0);
    release(target);
}

} // namespace Brevane::Kvo
