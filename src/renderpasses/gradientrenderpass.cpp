#include "renderpasses/gradientrenderpass.h"

#include "gl/bindings.h"
#include "gl/drawbuffers.h"
#include "gl/framebufferobject.h"
#include "gl/guards.h"
#include "gl/picturewindow.h"
#include "gl/shaderprogram.h"
#include "gl/texture.h"
#include "passkit/glstate.h"
#include "passkit/limits.h"
#include "passkit/programs.h"
#include "passkit/slots.h"
#include "passkit/statetable.h"
#include "passkit/targets.h"

#include <QColor>
#include <QVector4D>

#include <epoxy/gl.h>

namespace Brevane::Kvo {

namespace {

const StateRow &kState = stateRow("GradientRenderPass");

enum Input { kViewport, kColorTop, kColorBottom };
enum Output { kFrame };

constexpr TargetFormat kTarget{GL_RGBA32F, GL_BGRA, GL_FLOAT, GL_NEAREST};

const QString kVertexShader = QStringLiteral(R"(#version 150

in vec3 va_Vertex;
in vec2 va_TexCoord;

uniform vec4 u_ColorTop;
uniform vec4 u_ColorBottom;

out vec4 vo_Color;

void main()
{
  gl_Position = vec4(va_Vertex, 1.0);
  vo_Color = mix(u_ColorBottom,u_ColorTop,va_TexCoord.y);
}
)");

const QString kFragmentShader = QStringLiteral(R"(#version 150

in vec4 vo_Color;

out vec4 out_FragColor;

void main()
{
  out_FragColor = vo_Color;
}
)");

const ProgramRecipe &gradientProgram()
{
    static const ProgramRecipe recipe{QStringLiteral("GradientRenderPass"),
                                      {QStringLiteral("out_FragColor")},
                                      {{GL_VERTEX_SHADER, ShaderSource::Text, kVertexShader},
                                       {GL_FRAGMENT_SHADER, ShaderSource::Text, kFragmentShader}}};
    return recipe;
}

// Opaque whatever the colour's alpha: the solid fill is a background.
void fillSolid(const QColor &color, bool canDraw)
{
    glDisable(GL_SCISSOR_TEST);
    glClearColor(float(color.red() / 255.0), float(color.green() / 255.0), float(color.blue() / 255.0), 1.0f);
    if (canDraw)
        glClear(GL_COLOR_BUFFER_BIT);
}

// In a part of a picture for which the driver has no viewport, the colours are those at the part's edges.
void setColors(ShaderProgram *program, const QColor &top, const QColor &bottom, int height)
{
    const PictureWindow &window = PictureWindow::current();
    if (!window.isPart() || window.fitsViewport()) {
        program->setUniform(QStringLiteral("u_ColorTop"), QVariant(top));
        program->setUniform(QStringLiteral("u_ColorBottom"), QVariant(bottom));
        return;
    }
    const auto vectorOf = [](const QColor &c) { return QVector4D(c.redF(), c.greenF(), c.blueF(), c.alphaF()); };
    const QVector4D below = vectorOf(bottom);
    const QVector4D rise = (vectorOf(top) - below) / float(window.height);
    program->setUniform(QStringLiteral("u_ColorTop"), below + rise * float(window.y + height));
    program->setUniform(QStringLiteral("u_ColorBottom"), below + rise * float(window.y));
}

constexpr SlotInfo kInputInfo[] = {
    {.name = "Kvo_QRect_Viewport", .meaning = "size of the target", .kind = SlotKind::Area, .unit = "pixels"},
    {.name = "Kvo_QColor_ColorTop",
     .meaning = "colour at the top, or the solid colour; none: nothing is drawn",
     .kind = SlotKind::Color},
    {.name = "Kvo_QColor_ColorBottom", .meaning = "colour at the bottom; none: a solid fill", .kind = SlotKind::Color},
};

constexpr SlotInfo kOutputInfo[] = {
    {.name = "Kvo_KvoTexture*_Frame",
     .meaning = "the gradient",
     .kind = SlotKind::Texture,
     .format = "GL_RGBA32F, nearest, owned by the pass"},
};

constexpr PassInfo kInfo = {"GradientRenderPass",
                            "fills a target with a vertical gradient of two colours, or with one colour",
                            Reach::texels(0), kInputInfo, kOutputInfo};

} // namespace

GradientRenderPass::GradientRenderPass()
{
    addInput(QStringLiteral("Kvo_QRect_Viewport"), QVariant(), kViewport);
    addInput(QStringLiteral("Kvo_QColor_ColorTop"), QColor(64, 64, 64), kColorTop);
    addInput(QStringLiteral("Kvo_QColor_ColorBottom"), QColor(153, 153, 153), kColorBottom);
    addOutput(QStringLiteral("Kvo_KvoTexture*_Frame"), kFrame);
    describe(kInfo);
}

GradientRenderPass::GradientRenderPass(const GradientRenderPass &other) = default;
GradientRenderPass &GradientRenderPass::operator=(const GradientRenderPass &other) = default;

GradientRenderPass::~GradientRenderPass() = default;

void GradientRenderPass::start(RenderCallbacks *)
{
    const BindingScope scope;
    if (!scope)
        return;
    const Extent extent = extentOf(*this, kViewport);
    if (needsTargets(_fbo, "GradientRenderPass", extent, _width, _height)) {
        AutoBinder fbo(_fbo);
        replaceTarget(_fbo, GL_COLOR_ATTACHMENT0, kTarget, extent);
    }
    buildOnce(_shaderProgram, gradientProgram());
    fetchOnce(_quad, Quad::Gradient, _shaderProgram);

    const QVariant top = _inputs[kColorTop].value;
    const QVariant bottom = _inputs[kColorBottom].value;
    const bool canDraw = !extent.isEmpty();
    if (hasValue(top)) {
        NeutralState neutral(kState);
        AutoBinder fbo(_fbo);
        _fbo->setDrawBuffers();
        PictureWindow::current().setViewport(extent.width, extent.height);
        disable({GL_DEPTH_TEST, GL_STENCIL_TEST, GL_BLEND, GL_CULL_FACE});
        openColorMask();
        if (!hasValue(bottom)) {
            fillSolid(qvariant_cast<QColor>(top), canDraw);
        } else {
            AutoBinder program(_shaderProgram);
            setColors(_shaderProgram, qvariant_cast<QColor>(top), qvariant_cast<QColor>(bottom), extent.height);
            AutoBinder quad(_quad);
            if (canDraw && (!_quad || !_quad->draw()))
                setErrorCode(static_cast<unsigned int>(-1));
        }
    }
    _outputs[kFrame].value = objectForm(_fbo->attachment(GL_COLOR_ATTACHMENT0));
}

} // namespace Brevane::Kvo
