#include "renderpasses/temporalaarenderpass.h"

#include "gl/bindings.h"
#include "gl/drawbuffers.h"
#include "gl/fallenshort.h"
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

#include <epoxy/gl.h>

namespace Brevane::Kvo {

namespace {

const StateRow &kState = stateRow("TemporalAARenderPass");

enum Input { kViewport, kFrame, kProjectionMatrix, kCameraMatrix, kDirty, kViewportScale, kViewportScaleEnable };
enum Output { kFrameOut };

// The mean is made by blending, so the history is declared for hosts that look and never read.
const QString kFragmentShader = QStringLiteral(R"(#version 150

uniform sampler2D u_newFrame;
uniform sampler2D u_prevFrame;

in vec2 vo_TexCoord;

out vec4 out_FragColor;

void main()
{
  out_FragColor = texture(u_newFrame, vo_TexCoord);
}
)");

const ProgramRecipe &copyProgram()
{
    static const ProgramRecipe recipe{QStringLiteral("TemporalAARenderPass"),
                                      {QStringLiteral("out_FragColor")},
                                      {{GL_VERTEX_SHADER, ShaderSource::Text, kScreenVertexShader},
                                       {GL_FRAGMENT_SHADER, ShaderSource::Text, kFragmentShader}}};
    return recipe;
}

constexpr SlotInfo kInputInfo[] = {
    {.name = "Kvo_QRect_Viewport", .meaning = "size of the image", .kind = SlotKind::Area, .unit = "pixels"},
    {.name = "Kvo_KvoTexture*_Frame", .meaning = "this frame; none: the mean is cleared", .kind = SlotKind::Texture},
    {.name = "Kvo_QMatrix4x4_ProjectionMatrix",
     .meaning = "to notice changes: the one without jitter",
     .kind = SlotKind::Matrix},
    {.name = "Kvo_QMatrix4x4_CameraMatrix", .meaning = "to notice changes", .kind = SlotKind::Matrix},
    {.name = "Kvo_bool_Dirty", .meaning = "pass this frame through", .kind = SlotKind::Switch},
    {.name = "Kvo_Float_ViewportScale",
     .meaning = "the mean's size is the viewport's divided by this; 0 or less: 1",
     .kind = SlotKind::Divider,
     .range = {0.01, 64, 0.5}},
    {.name = "Kvo_Bool_ViewportScale_Enable", .meaning = "false: a scale of 1", .kind = SlotKind::Switch},
};

constexpr SlotInfo kOutputInfo[] = {
    {.name = "Kvo_KvoTexture*_Frame",
     .meaning = "the mean of the frames",
     .kind = SlotKind::Texture,
     .format = "pool format 3, kept by the pass and overwritten next frame; or the frame itself"},
};

constexpr PassInfo kInfo = {"TemporalAARenderPass", "averages the frames of a still picture", Reach::texels(1),
                            kInputInfo, kOutputInfo};

} // namespace

TemporalAARenderPass::TemporalAARenderPass()
{
    setTextureForm(TextureForm::Typed);
    addInput(QStringLiteral("Kvo_QRect_Viewport"), QVariant(), kViewport);
    addInput(QStringLiteral("Kvo_KvoTexture*_Frame"), QVariant(), kFrame);
    addInput(QStringLiteral("Kvo_QMatrix4x4_ProjectionMatrix"), QVariant(), kProjectionMatrix);
    addInput(QStringLiteral("Kvo_QMatrix4x4_CameraMatrix"), QVariant(), kCameraMatrix);
    addInput(QStringLiteral("Kvo_bool_Dirty"), true, kDirty);
    addInput(QStringLiteral("Kvo_Float_ViewportScale"), 1.0f, kViewportScale);
    addInput(QStringLiteral("Kvo_Bool_ViewportScale_Enable"), true, kViewportScaleEnable);
    addOutput(QStringLiteral("Kvo_KvoTexture*_Frame"), kFrameOut);
    describe(kInfo);
}

TemporalAARenderPass::TemporalAARenderPass(const TemporalAARenderPass &other) = default;

TemporalAARenderPass &TemporalAARenderPass::operator=(const TemporalAARenderPass &other)
{
    if (this == &other)
        return *this;
    releaseAccumulation();
    RenderPassHelper::operator=(other);
    _fbo = other._fbo;
    _quad = other._quad;
    _program = other._program;
    _lastProjection = other._lastProjection;
    _lastCamera = other._lastCamera;
    _lastWidth = other._lastWidth;
    _lastHeight = other._lastHeight;
    _frameCount = other._frameCount;
    return *this;
}

TemporalAARenderPass::~TemporalAARenderPass()
{
    releaseAccumulation();
}

void TemporalAARenderPass::start(RenderCallbacks *)
{
    const BindingScope scope;
    if (!scope)
        return;
    const Extent viewport = extentOf(*this, kViewport);
    Texture *frame = typedTexture(_inputs[kFrame].value);
    const auto projection = qvariant_cast<QMatrix4x4>(_inputs[kProjectionMatrix].value);
    const auto camera = qvariant_cast<QMatrix4x4>(_inputs[kCameraMatrix].value);
    const auto dirty = qvariant_cast<bool>(_inputs[kDirty].value);
    auto scale = qvariant_cast<float>(_inputs[kViewportScale].value);
    if (!qvariant_cast<bool>(_inputs[kViewportScaleEnable].value))
        scale = 1.0f;

    if (dirty) {
        publish(_outputs[kFrameOut], frame, _numOutputUsers[kFrameOut]);
        _frameCount = 0;
        release(frame);
        return;
    }
    frame = ofKind(*this, kFrame, frame);

    // A scale of 0 or less leaves no size to divide by.
    const float divisor = scale <= 0.0f ? 1.0f : scale;
    const Extent extent = dividedExtent(*this, kViewportScale, viewport, divisor);
    // Like another size, another share group leaves nothing to accumulate in.
    const bool sizeChanged = extent != Extent{_lastWidth, _lastHeight} || !_fbo;
    const bool restart = projection != _lastProjection || camera != _lastCamera || sizeChanged;
    if (restart) {
        _lastProjection = projection;
        _lastCamera = camera;
        _lastWidth = extent.width;
        _lastHeight = extent.height;
    }
    if (sizeChanged) {
        releaseAccumulation();
        made(_fbo, "TemporalAARenderPass");
        AutoBinder fbo(_fbo);
        Texture *accumulation = tempTexture(TextureFormat::Result, extent);
        _fbo->attach(accumulation, GL_COLOR_ATTACHMENT0, 0);
        if (sizeOf(accumulation) != extent)
            noteFallenShort(_fbo);
        // One reference more than the pool's own for as long as the texture outlives frames.
        TextureManager::Instance().addTempTextureRef(accumulation, 1);
        _fbo->setDrawBuffers();
    }
    buildOnce(_program, copyProgram());
    fetchOnce(_quad, Quad::Screen, _program);

    NeutralState neutral(kState);
    AutoBinder fbo(_fbo);
    glViewport(0, 0, extent.width, extent.height);
    const bool canDraw = !extent.isEmpty() && _quad;
    if (!frame) {
        glClearColor(0.0f, 0.0f, 0.0f, 0.0f);
        if (canDraw)
            glClear(GL_COLOR_BUFFER_BIT);
    } else {
        neutral.leave({StatePiece::DepthTest, StatePiece::DepthMask, StatePiece::Blending});
        glDisable(GL_DEPTH_TEST);
        glDepthMask(GL_FALSE);
        if (restart) {
            glClearColor(0.0f, 0.0f, 0.0f, 0.0f);
            if (canDraw)
                glClear(GL_COLOR_BUFFER_BIT);
            glDisable(GL_BLEND);
            _frameCount = 0;
        } else {
            // 0 the first time: that frame replaces the restart frame.
            const int n = _frameCount;
            // What is not a number stays so under a weight of 0.
            constexpr GLfloat kNothing[] = {0.0f, 0.0f, 0.0f, 0.0f};
            if (n == 0 && canDraw)
                glClearBufferfv(GL_COLOR, 0, kNothing);
            const float c = float(n) / float(n + 1);
            _frameCount = n + 1;
            glEnable(GL_BLEND);
            glBlendEquation(GL_FUNC_ADD);
            glBlendFunc(GL_ONE_MINUS_CONSTANT_COLOR, GL_CONSTANT_COLOR);
            glBlendColor(c, c, c, c);
        }
        if (canDraw) {
            AutoBinder program(_program);
            AutoBinder quad(_quad);
            AutoBinder boundFrame(frame);
            _program->setUniform(QStringLiteral("u_newFrame"), frame->unit());
            _quad->draw();
        }
        glDepthMask(GL_TRUE);
        if (!restart)
            glDisable(GL_BLEND);
        // What could not be drawn is no part of the mean.
        if (!_program->isLinked() || !canDraw)
            _frameCount = 0;
    }
    publish(_outputs[kFrameOut], _fbo->attachment(GL_COLOR_ATTACHMENT0), _numOutputUsers[kFrameOut]);
    release(frame);
}

// Both references of the pass, unless a copy goes on with the accumulation.
void TemporalAARenderPass::releaseAccumulation()
{
    FramebufferObject *framebuffer = _fbo.any();
    if (_fbo.isShared() || !framebuffer) {
        _fbo = nullptr;
        return;
    }
    AutoBinder fbo(_fbo);
    Texture *accumulation = framebuffer->attachment(GL_COLOR_ATTACHMENT0);
    if (_fbo)
        _fbo->detach(GL_COLOR_ATTACHMENT0);
    TextureManager::Instance().releaseTempTextureRef(accumulation, 2);
}

} // namespace Brevane::Kvo
