#include "renderpasses/texturetoscreenrenderpass.h"

#include "gl/bindings.h"
#include "gl/drawbuffers.h"
#include "gl/framebufferobject.h"
#include "gl/guards.h"
#include "gl/shaderprogram.h"
#include "gl/texture.h"
#include "gl/texturemanager.h"
#include "gl/vertexarrayobject.h"
#include "passkit/glstate.h"
#include "passkit/limits.h"
#include "passkit/programs.h"
#include "passkit/slots.h"
#include "passkit/statetable.h"
#include "passkit/targets.h"

#include <QRect>
#include <QVarLengthArray>
#include <QVector2D>

#include <epoxy/gl.h>

#include <algorithm>
#include <array>
#include <cstdlib>

using namespace Qt::StringLiterals;

namespace Brevane::Kvo {

namespace {

const StateRow &kState = stateRow("TextureToScreenRenderPass");

enum Input {
    kViewport,
    kTexture,
    kEnableSuperSampling,
    kViewportOut,
    kTextureOut,
    kLinearFilter,
    kRects,
    kFramebufferOut
};

// The block starts from the position in the target, not in the rectangle, so that several rectangles of
// one target show parts of one image.
const QString kFragmentShader = QStringLiteral(R"(#version 150
#include "KvoUtilities.glslh"

uniform sampler2D u_SamplerTexture;
uniform vec2 u_RenderSize;

in vec2 vo_TexCoord;

out vec4 out_FragColor;

void main()
{
  vec2 TextureSize = vec2(textureSize(u_SamplerTexture, 0));
  vec2 RenderSize = u_RenderSize;
  ivec2 StepSize = max( ivec2(1,1), ivec2(round(TextureSize / RenderSize)));
  ivec2 Base = ivec2( ivec2(gl_FragCoord.xy) * StepSize);

  vec4 Output = vec4(0.0);
  ivec2 Pos;
  for(Pos.x = 0; Pos.x < StepSize.x; Pos.x++)
  {
    for(Pos.y = 0; Pos.y < StepSize.y; Pos.y++)
      Output += texelFetch(u_SamplerTexture, Base + Pos, 0);
  }
  out_FragColor = Output / (float(StepSize.x) * float(StepSize.y));
  //gammaCorrect(Output, u_ScreenGamma)
}
)");

const ProgramRecipe &superSamplingProgram()
{
    static const ProgramRecipe recipe{QStringLiteral("TextureToScreenRenderPass"),
                                      {QStringLiteral("out_FragColor")},
                                      {{GL_VERTEX_SHADER, ShaderSource::Text, kScreenVertexShader},
                                       {GL_FRAGMENT_SHADER, ShaderSource::Text, kFragmentShader}}};
    return recipe;
}

using Rectangles = QVarLengthArray<QRect, 8>;

Rectangles rectanglesOf(RenderPassHelper &pass, int slot, const QRect &viewport)
{
    const QVariant value = pass.inputValue(slot);
    Rectangles rectangles;
    if (hasValue(value)) {
        if (value.canConvert<QRect>()) {
            rectangles.append(qvariant_cast<QRect>(value));
        } else if (value.canConvert<QVariantList>()) {
            const QVariantList list = qvariant_cast<QVariantList>(value);
            for (const QVariant &element : list)
                rectangles.append(qvariant_cast<QRect>(element));
        }
    }
    boundCorners(pass, slot, {rectangles.data(), std::size_t(rectangles.size())});
    if (rectangles.isEmpty())
        rectangles.append(viewport);
    return rectangles;
}

// What can be attached of a texture: nothing of a view of a buffer.
unsigned int attachableName(RenderPassHelper &pass, int slot, Texture *texture)
{
    if (texture->target() != GL_TEXTURE_BUFFER)
        return texture->textureID();
    pass.reportInput(slot, u"is a view of a buffer, which is neither read nor drawn to; nothing is copied"_s);
    return 0;
}

// The GL name, which exists from the first bind in a context on.
unsigned int nameOf(FramebufferObject *framebuffer)
{
    if (framebuffer->getFBO() == 0)
        AutoBinder makeName(framebuffer);
    return framebuffer->getFBO();
}

// One without a name stands for the default framebuffer, but for one that another context of the group has filled: its
// name here comes with the first bind.
bool isDefault(const FramebufferObject &framebuffer)
{
    return framebuffer.getFBO() == 0 && !framebuffer.hasAttachment(GL_COLOR_ATTACHMENT0);
}

// Height is compared with the source's width on purpose: a source that is not square filters linearly
// even at its own size. Integers cannot be filtered.
GLenum blitFilter(bool linear, const QRect &source, const QRect &destination)
{
    const bool scales = destination.width() != source.width() || destination.height() != source.width();
    return linear && scales ? GL_LINEAR : GL_NEAREST;
}

void blit(const QRect &from, const QRect &to, GLenum filter)
{
    glBlitFramebuffer(from.left(), from.top(), from.left() + from.width(), from.top() + from.height(), to.left(),
                      to.top(), to.left() + to.width(), to.top() + to.height(), GL_COLOR_BUFFER_BIT, filter);
}

// False for an empty target or source, and where a context has no default framebuffer.
bool isComplete(GLenum target)
{
    return glCheckFramebufferStatus(target) == GL_FRAMEBUFFER_COMPLETE;
}

// What a side of a copy holds. GL copies between sides of one kind only, but for Nothing, which it passes over.
enum class Numbers { Nothing, Floats, Integers, Unsigned };

// What GL asks about both sides of a copy.
struct BlitSide
{
    Numbers numbers = Numbers::Floats;
    GLint samples = 0;

    bool canFilter() const { return numbers != Numbers::Integers && numbers != Numbers::Unsigned; }
};

// A host's framebuffer may lack the attachment that ours has.
Numbers numbersIn(GLenum framebuffer, bool isOurs)
{
    GLint value = GL_NONE;
    const auto ask = [&](GLenum question) {
        glGetFramebufferAttachmentParameteriv(framebuffer, GL_COLOR_ATTACHMENT0, question, &value);
        return value;
    };
    if (!isOurs && ask(GL_FRAMEBUFFER_ATTACHMENT_OBJECT_TYPE) == GL_NONE)
        return Numbers::Nothing;
    switch (ask(GL_FRAMEBUFFER_ATTACHMENT_COMPONENT_TYPE)) {
    case GL_INT: return Numbers::Integers;
    case GL_UNSIGNED_INT: return Numbers::Unsigned;
    default: return Numbers::Floats;
    }
}

// Of the texture that is attached to the framebuffer for reading.
BlitSide sourceOf(Texture *texture)
{
    BlitSide side{numbersIn(GL_READ_FRAMEBUFFER, true)};
    const GLenum target = texture->target();
    if (target == GL_TEXTURE_2D_MULTISAMPLE || target == GL_TEXTURE_2D_MULTISAMPLE_ARRAY) {
        const AutoBinder bound(texture);
        settleActiveUnit();
        glGetTexLevelParameteriv(target, 0, GL_TEXTURE_SAMPLES, &side.samples);
    }
    return side;
}

BlitSide targetNow(const FramebufferObject &ours)
{
    BlitSide side;
    if (const GLuint bound = GLuint(boundFramebuffer(GL_DRAW_FRAMEBUFFER)); bound != 0)
        side.numbers = numbersIn(GL_DRAW_FRAMEBUFFER, bound == ours.getFBO());
    glGetIntegerv(GL_SAMPLES, &side.samples);
    return side;
}

// A rectangle that is mirrored has sides below 0.
bool haveSameSize(const QRect &a, const QRect &b)
{
    return std::abs(a.width()) == std::abs(b.width()) && std::abs(a.height()) == std::abs(b.height());
}

bool canBlit(const BlitSide &from, const BlitSide &to, bool hasSameSize)
{
    const bool bothSampled = from.samples > 0 && to.samples > 0;
    return from.numbers == to.numbers && (hasSameSize || (from.samples == 0 && to.samples == 0))
           && (!bothSampled || from.samples == to.samples);
}

constexpr SlotInfo kInputInfo[] = {
    {.name = "Kvo_QRect_Viewport",
     .meaning = "stands in for an empty list of rectangles",
     .kind = SlotKind::Area,
     .unit = "pixels"},
    {.name = "Kvo_KvoTexture*_Texture", .meaning = "the image", .kind = SlotKind::Texture},
    {.name = "Kvo_Bool_EnableSuperSampling",
     .meaning = "when given, chooses the averaging path",
     .kind = SlotKind::Switch},
    {.name = "Kvo_QRect_ViewportOut", .meaning = "destination rectangles", .kind = SlotKind::Area, .unit = "pixels"},
    {.name = "Kvo_KvoTexture*_TextureOut", .meaning = "target, wins over input 7", .kind = SlotKind::Texture},
    {.name = "Kvo_Bool_LinearFilter", .meaning = "lets a blit that scales filter linearly", .kind = SlotKind::Switch},
    {.name = "Kvo_QVariant_Rects", .meaning = "source rectangles", .kind = SlotKind::Area, .unit = "pixels"},
    {.name = "Kvo_KvoFramebuffer*_FramebufferOut",
     .meaning = "target; one without a name: the default framebuffer",
     .kind = SlotKind::Framebuffer},
};

constexpr PassInfo kInfo = {"TextureToScreenRenderPass",
                            "copies a texture to the screen, a framebuffer or a texture: the last step of a frame",
                            Reach::wholeFrame(),
                            kInputInfo,
                            {}};

} // namespace

TextureToScreenRenderPass::TextureToScreenRenderPass()
{
    setTextureForm(TextureForm::Object);
    addInput(QStringLiteral("Kvo_QRect_Viewport"), QVariant(), kViewport);
    addInput(QStringLiteral("Kvo_KvoTexture*_Texture"), QVariant(), kTexture);
    addInput(QStringLiteral("Kvo_Bool_EnableSuperSampling"), QVariant(), kEnableSuperSampling);
    addInput(QStringLiteral("Kvo_QRect_ViewportOut"), QVariant(), kViewportOut);
    addInput(QStringLiteral("Kvo_KvoTexture*_TextureOut"), QVariant(), kTextureOut);
    addInput(QStringLiteral("Kvo_Bool_LinearFilter"), QVariant(), kLinearFilter);
    addInput(QStringLiteral("Kvo_QVariant_Rects"), QVariant(), kRects);
    addInput(QStringLiteral("Kvo_KvoFramebuffer*_FramebufferOut"), QVariant(), kFramebufferOut);
    describe(kInfo);
}

TextureToScreenRenderPass::TextureToScreenRenderPass(const TextureToScreenRenderPass &other) = default;
TextureToScreenRenderPass &TextureToScreenRenderPass::operator=(const TextureToScreenRenderPass &other) = default;

TextureToScreenRenderPass::~TextureToScreenRenderPass() = default;

void TextureToScreenRenderPass::start(RenderCallbacks *)
{
    const BindingScope scope;
    if (!scope)
        return;
    QRect viewport = qvariant_cast<QRect>(_inputs[kViewport].value);
    boundCorners(*this, kViewport, {&viewport, 1});
    const Rectangles destinations = rectanglesOf(*this, kViewportOut, viewport);
    const Rectangles sources = rectanglesOf(*this, kRects, viewport);
    const qsizetype pairs = qMin(sources.size(), destinations.size());
    Texture *texture = objectTexture(_inputs[kTexture].value);
    Texture *textureOut = objectTexture(_inputs[kTextureOut].value);
    FramebufferObject *framebufferOut = framebufferOf(_inputs[kFramebufferOut].value);

    if (const QVariant enable = _inputs[kEnableSuperSampling].value; hasValue(enable)) {
        const bool superSampling = qvariant_cast<bool>(enable);
        if (superSampling != _superSampling) {
            _superSampling = superSampling;
            _shaderProgram = nullptr;
        }
    }
    TextureManager &manager = TextureManager::Instance();
    if (_superSampling) {
        if (!texture)
            texture = transparentTexel(_defaultTexture);
        const bool isNew = buildOnce(_shaderProgram, superSamplingProgram());
        if (fetchOnce(_quad, Quad::Gradient, _shaderProgram) && isNew)
            enableArrays(*_quad, _shaderProgram);
    }
    NeutralState neutral(kState);
    made(_drawFbo, "TextureToScreenRenderPass target");

    if (textureOut) {
        if (textureOut->target() != GL_TEXTURE_BUFFER)
            acceptInput(kTextureOut);
        bindFramebufferNow(GL_DRAW_FRAMEBUFFER, nameOf(_drawFbo));
        glFramebufferTexture(GL_DRAW_FRAMEBUFFER, GL_COLOR_ATTACHMENT0, attachableName(*this, kTextureOut, textureOut),
                             0);
        glDrawBuffer(GL_COLOR_ATTACHMENT0);
    } else if (framebufferOut && !isDefault(*framebufferOut) && nameOf(framebufferOut) != 0) {
        bindFramebufferNow(GL_DRAW_FRAMEBUFFER, framebufferOut->getFBO());
        glDrawBuffer(GL_COLOR_ATTACHMENT0);
    } else {
        bindFramebufferNow(GL_DRAW_FRAMEBUFFER, 0);
    }

    if (_superSampling)
        average(texture, {destinations.data(), std::size_t(pairs)}, neutral);
    else if (texture)
        copy(texture, {sources.data(), std::size_t(pairs)}, {destinations.data(), std::size_t(pairs)});
    else if (isComplete(GL_DRAW_FRAMEBUFFER))
        glClear(GL_COLOR_BUFFER_BIT);

    if (textureOut)
        glFramebufferTexture(GL_DRAW_FRAMEBUFFER, GL_COLOR_ATTACHMENT0, 0, 0);
    bindFramebufferNow(GL_DRAW_FRAMEBUFFER, 0);
    manager.releaseTempTextureRef(texture, 1);
}

// Each source rectangle to its destination in the framebuffer that is bound for drawing.
void TextureToScreenRenderPass::copy(Texture *texture, std::span<const QRect> sources,
                                     std::span<const QRect> destinations)
{
    const bool linear = qvariant_cast<bool>(_inputs[kLinearFilter].value);
    made(_readFbo, "TextureToScreenRenderPass source");
    bindFramebufferNow(GL_READ_FRAMEBUFFER, nameOf(_readFbo));
    glFramebufferTexture(GL_READ_FRAMEBUFFER, GL_COLOR_ATTACHMENT0, attachableName(*this, kTexture, texture), 0);
    glReadBuffer(GL_COLOR_ATTACHMENT0);
    const std::array states{glCheckFramebufferStatus(GL_READ_FRAMEBUFFER),
                            glCheckFramebufferStatus(GL_DRAW_FRAMEBUFFER)};
    const auto has = [&](GLenum state) { return std::find(states.cbegin(), states.cend(), state) != states.cend(); };
    if (states[0] == GL_FRAMEBUFFER_COMPLETE && states[1] == GL_FRAMEBUFFER_COMPLETE) {
        const BlitSide from = sourceOf(texture), to = targetNow(*_drawFbo);
        bool isWhole = true;
        for (std::size_t i = 0; i < destinations.size(); ++i) {
            const bool isPossible = canBlit(from, to, haveSameSize(sources[i], destinations[i]));
            isWhole = isWhole && isPossible;
            if (isPossible)
                blit(sources[i], destinations[i], blitFilter(linear && from.canFilter(), sources[i], destinations[i]));
        }
        if (isWhole)
            acceptInput(kTexture);
        else if (to.numbers == Numbers::Nothing)
            reportInput(kTexture,
                        u"cannot be copied to the target, which has no colour attachment 0; it is left out"_s);
        else
            reportInput(kTexture, u"cannot be copied to the target: one has integers and the other has not, or has "
                                  "unsigned ones, or samples do not match; it is left out"_s);
    } else if (has(GL_FRAMEBUFFER_UNSUPPORTED)) {
        reportInput(kTexture, u"cannot be copied to the target: the driver supports no such framebuffer; it is left "
                              "out"_s);
    }
    glFramebufferTexture(GL_READ_FRAMEBUFFER, GL_COLOR_ATTACHMENT0, 0, 0);
    bindFramebufferNow(GL_READ_FRAMEBUFFER, 0);
}

// Blocks of the whole texture into each destination.
void TextureToScreenRenderPass::average(Texture *texture, std::span<const QRect> destinations, NeutralState &neutral)
{
    if (!texture || !_quad)
        return;
    neutral.leave({StatePiece::DepthTest, StatePiece::Blending, StatePiece::StencilTest, StatePiece::ScissorTest,
                   StatePiece::ColorMask});
    disable({GL_DEPTH_TEST, GL_BLEND, GL_STENCIL_TEST});
    openColorMask();
    glEnable(GL_SCISSOR_TEST);
    {
        AutoBinder program(_shaderProgram);
        AutoBinder boundTexture(texture);
        AutoBinder arrays(_quad->VAO());
        const bool canDraw = isComplete(GL_DRAW_FRAMEBUFFER);
        for (const QRect &to : destinations) {
            if (to.isEmpty() || !canDraw)
                continue;
            glViewport(to.left(), to.top(), to.width(), to.height());
            glScissor(to.left(), to.top(), to.width(), to.height());
            _shaderProgram->setUniform(u"u_SamplerTexture"_s, texture->unit());
            _shaderProgram->setUniform(u"u_RenderSize"_s, QVector2D(float(to.width()), float(to.height())));
            _quad->draw();
        }
    }
    glDisable(GL_SCISSOR_TEST);
}

void TextureToScreenRenderPass::teardownContextData(RenderCallbacks *)
{
    _readFbo = nullptr;
    _drawFbo = nullptr;
    _quad.reset();
}

} // namespace Brevane::Kvo
