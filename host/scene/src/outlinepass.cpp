#include "host/outlinepass.h"

#include "core/liveobjects.h"
#include "gl/contextscope.h"
#include "gl/fallenshort.h"
#include "gl/framebufferobject.h"
#include "gl/guards.h"
#include "gl/hoststate.h"
#include "gl/pixelstore.h"
#include "gl/shaderprogram.h"
#include "gl/storage.h"
#include "gl/texture.h"
#include "gl/texturemanager.h"
#include "model/gpumodel.h"
#include "modelprogram.h"
#include "screenprogram.h"
#include "viewportsize.h"

#include <epoxy/gl.h>

#include <QColor>
#include <QMatrix4x4>
#include <QRect>

#include <algorithm>
#include <cmath>

namespace Brevane::Kvo {

namespace {

constexpr int kRow = 1024; // Texels of the texture of chosen items; in the shader too.
constexpr float kLeastWidth = 1.0f;
constexpr float kLargestWidth = 8.0f;

const QString kMaskVertexShader = QStringLiteral(R"(#version 150
#instancedata "InstanceInfo"
#include "InstanceData.glslh"

uniform mat4 u_ToClip;
uniform sampler2D u_Chosen;

in vec3 va_Vertex;

void main()
{
  int item = KVO_CURRENT_DRAW;
  bool isChosen = texelFetch(u_Chosen, ivec2(item % 1024, item / 1024), 0).r > 0.5;
  // All corners of the others in one place outside of the picture.
  gl_Position = isChosen ? u_ToClip * getModelMatrix() * vec4(va_Vertex, 1.0) : vec4(2.0, 2.0, 2.0, 1.0);
}
)");

const QString kMaskFragmentShader = QStringLiteral(R"(#version 150
out vec4 out_Mask;
void main()
{
  out_Mask = vec4(1.0);
}
)");

const QString kLineShader = QStringLiteral(R"(#version 150
uniform sampler2D u_Mask;
uniform vec4 u_Color;
uniform float u_Width;

out vec4 out_Color;

void main()
{
  ivec2 here = ivec2(gl_FragCoord.xy);
  if(texelFetch(u_Mask, here, 0).r > 0.5)
    discard;
  ivec2 last = textureSize(u_Mask, 0) - 1;
  int reach = int(ceil(u_Width));
  float nearest = 1e9;
  for(int y = -reach; y <= reach; ++y)
  {
    for(int x = -reach; x <= reach; ++x)
    {
      ivec2 there = here + ivec2(x, y);
      if(any(lessThan(there, ivec2(0))) || any(greaterThan(there, last)))
        continue;
      if(texelFetch(u_Mask, there, 0).r > 0.5)
        nearest = min(nearest, length(vec2(x, y)));
    }
  }
  float covered = clamp(u_Width + 0.5 - nearest, 0.0, 1.0);
  if(covered <= 0.0)
    discard;
  out_Color = vec4(u_Color.rgb, u_Color.a * covered);
}
)");

constexpr SlotInfo kInputInfo[] = {
    {.name = "Kvo_QRect_Viewport", .meaning = "size of the picture", .kind = SlotKind::Area, .unit = "pixels"},
    {.name = "Kvo_QMatrix4x4_ProjectionMatrix", .meaning = "camera to clip space", .kind = SlotKind::Matrix},
    {.name = "Kvo_QMatrix4x4_CameraMatrix", .meaning = "world to camera space", .kind = SlotKind::Matrix},
    {.name = "Kvo_KvoGPUModel*_Geometry", .meaning = "whose items they are", .kind = SlotKind::Model},
    {.name = "Kvo_QColor_Color", .meaning = "of the line; its alpha counts", .kind = SlotKind::Color},
    {.name = "Kvo_float_Width",
     .meaning = "of the line",
     .kind = SlotKind::Distance,
     .unit = "pixels",
     .range = {kLeastWidth, kLargestWidth, 0.5}},
    {.name = "Kvo_KvoFramebuffer*_FramebufferOut",
     .meaning = "what is drawn onto; none: framebuffer 0",
     .kind = SlotKind::Framebuffer},
};

constexpr PassInfo kInfo = {
    "OutlinePass", "draws a line around chosen items of a model", Reach::texels(kLargestWidth), kInputInfo, {}};

} // namespace

OutlinePass::OutlinePass()
{
    addInput(QStringLiteral("Kvo_QRect_Viewport"), QVariant(), kViewport);
    addInput(QStringLiteral("Kvo_QMatrix4x4_ProjectionMatrix"), QVariant(), kProjectionMatrix);
    addInput(QStringLiteral("Kvo_QMatrix4x4_CameraMatrix"), QVariant(), kCameraMatrix);
    addInput(QStringLiteral("Kvo_KvoGPUModel*_Geometry"), QVariant(), kGeometry);
    addInput(QStringLiteral("Kvo_QColor_Color"), QColor(0xff, 0x9a, 0x1f), kColor);
    addInput(QStringLiteral("Kvo_float_Width"), 2.0f, kWidth);
    addInput(QStringLiteral("Kvo_KvoFramebuffer*_FramebufferOut"), QVariant(), kFramebufferOut);
    describe(kInfo);
}

void OutlinePass::setItems(const QVector<int> &items)
{
    if (items == _items)
        return;
    _items = items;
    _uploaded = -1;
}

void OutlinePass::uploadItems(int count)
{
    if (_chosen && _uploaded == count)
        return;
    if (!_chosen) {
        _chosen = new Texture;
        _chosen->setTarget(GL_TEXTURE_2D);
        _chosen->setLabel(QStringLiteral("OutlinePass items"));
    }
    const int rows = std::max(1, (count + kRow - 1) / kRow);
    QByteArray flags(qsizetype(rows) * kRow, '\0');
    for (const int item : std::as_const(_items))
        if (item >= 0 && item < count)
            flags[item] = char(0xff);
    const StorageBinder bound(_chosen);
    const DefaultPixelStore pixelStore;
    if (!bound.isBound()
        || !allocateImage(GL_R8, {kRow, rows}, GL_RED, GL_UNSIGNED_BYTE, flags.constData(), _chosen->label()))
        noteFallenShort(_chosen);
    if (bound.isBound())
        _chosen->setFilter(GL_NEAREST);
    _uploaded = count;
}

void OutlinePass::drawMask(Texture *mask)
{
    auto *model = qvariant_cast<GPUModel *>(_inputs[kGeometry].value);
    uploadItems(model->itemCount());
    const AutoBinder fbo(_fbo);
    _fbo->attach(mask, GL_COLOR_ATTACHMENT0, 0);
    _fbo->setDrawBuffers();
    const GLfloat nothing[4] = {};
    glClearBufferfv(GL_COLOR, 0, nothing);
    const AutoBinder program(_maskProgram);
    const AutoBinder chosen(_chosen);
    _maskProgram->setUniform(QStringLiteral("u_Chosen"), _chosen->unit());
    _maskProgram->setUniform(QStringLiteral("u_ToClip"), qvariant_cast<QMatrix4x4>(_inputs[kProjectionMatrix].value)
                                                             * qvariant_cast<QMatrix4x4>(_inputs[kCameraMatrix].value));
    model->draw(_maskProgram, nullptr, 0, 0);
    _fbo->detachAll();
}

void OutlinePass::start(RenderCallbacks *)
{
    const ContextScope scope;
    const QSize size = sizeInSlot(*this, kViewport);
    if (!scope || _items.isEmpty() || size.isEmpty()
        || liveKindOf(qvariant_cast<GPUModel *>(_inputs[kGeometry].value)) != LiveKind::Model
        || !hasRoomFor(*this, kViewport, size))
        return;
    const DefaultState state{StatePiece::Blending, StatePiece::BlendFunction};
    if (!_fbo) {
        _fbo = new FramebufferObject;
        _fbo->setLabel(QStringLiteral("OutlinePass"));
    }
    if (!_maskProgram)
        _maskProgram = modelProgram(QStringLiteral("OutlinePass mask"), {QStringLiteral("out_Mask")}, kMaskVertexShader,
                                    kMaskFragmentShader);
    if (!_lineProgram)
        _lineProgram = screenProgram(QStringLiteral("OutlinePass"), {QStringLiteral("out_Color")}, kLineShader);

    auto &pool = TextureManager::Instance();
    Texture *mask = pool.tempTexture(TextureFormat::Scalar8, size.width(), size.height());
    glViewport(0, 0, size.width(), size.height());
    drawMask(mask);
    {
        FramebufferObject *target = framebufferFromVariant(_inputs[kFramebufferOut].value);
        const AutoBinder onto(target);
        if (!target)
            glBindFramebuffer(GL_FRAMEBUFFER, 0);
        glViewport(0, 0, size.width(), size.height());
        glEnable(GL_BLEND);
        glBlendFuncSeparate(GL_SRC_ALPHA, GL_ONE_MINUS_SRC_ALPHA, GL_ONE, GL_ONE_MINUS_SRC_ALPHA);
        const float width = qvariant_cast<float>(_inputs[kWidth].value);
        const AutoBinder program(_lineProgram);
        const AutoBinder boundMask(mask);
        _lineProgram->setUniform(QStringLiteral("u_Mask"), mask->unit());
        _lineProgram->setUniform(QStringLiteral("u_Color"), _inputs[kColor].value);
        _lineProgram->setUniform(QStringLiteral("u_Width"),
                                 std::isnan(width) ? kLeastWidth : std::clamp(width, kLeastWidth, kLargestWidth));
        // A context without a window has no framebuffer 0.
        if (glCheckFramebufferStatus(GL_DRAW_FRAMEBUFFER) == GL_FRAMEBUFFER_COMPLETE)
            drawScreenQuad(_lineProgram);
    }
    pool.releaseTempTextureRef(mask, 1);
}

} // namespace Brevane::Kvo
