#include "renderpasses/depthoffieldrenderpass.h"

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

#include <QColor>
#include <QVector2D>

#include <epoxy/gl.h>

namespace Brevane::Kvo {

namespace {

const StateRow &kState = stateRow("DepthOfFieldRenderPass");

enum Input { kViewport, kFrame, kDepth, kFocalDepth, kFocalLength, kFStop, kAutoFocus, kFocus };
enum Output { kFrameOut };

constexpr TargetFormat kTarget{GL_RGBA32F, GL_BGRA, GL_FLOAT, GL_NEAREST};

// The flags that stand false switch off branches of the lens model that are kept for those who tune it.
const QString kFragmentShader = QStringLiteral(R"(#version 150

in vec2 vo_TexCoord;

out vec4 out_FragColor;

uniform sampler2D bgl_RenderedTexture;
uniform sampler2D bgl_DepthTexture;
uniform int bgl_RenderedTextureWidth;
uniform int bgl_RenderedTextureHeight;

uniform float focalDepth;            // metres
uniform float focalLength = 1.0;     // millimetres
uniform float fstop;
uniform bool autofocus;
uniform vec2 focus = vec2(0.5, 0.5);
uniform bool showFocus = false;
uniform vec4 u_Picture;              // of which this is a part: where it begins, and its size; 0 in a whole one

const float PI = 3.14159265;

// Clip planes that linearize assumes.
float znear = 0.1;
float zfar = 100.0;

int samples = 3;                     // on the first ring
int rings = 3;

bool manualdof = false;              // ranges below instead of the lens
float ndofstart = 1.0;
float ndofdist = 2.0;
float fdofstart = 1.0;
float fdofdist = 3.0;

float CoC = 0.03;                    // millimetres

bool vignetting = false;
float vignout = 1.3;
float vignin = 0.0;
float vignfade = 22.0;

float maxblur = 1.0;
float threshold = 0.5;               // of highlights
float gain = 2.0;
float bias = 0.5;                    // outer rings against inner
float fringe = 0.7;

bool noise = true;                   // or a pattern
float namount = 0.0001;

bool depthblur = false;
float dbsize = 1.25;

bool pentagon = false;
float feather = 0.4;

float width = float(bgl_RenderedTextureWidth);
float height = float(bgl_RenderedTextureHeight);
vec2 texel = vec2(1.0 / width, 1.0 / height);

float linearize(float depth)
{
  return -zfar * znear / (depth * (zfar - znear) - zfar);
}

float depthAt(vec2 coords)
{
  return texture(bgl_DepthTexture, coords).x;
}

// How far a point of the aperture lies inside a regular pentagon, 0 to 1.
float penta(vec2 coords)
{
  float scale = float(rings) - 1.3;
  vec4 P = vec4(coords, vec2(scale));
  float inorout = -4.0;
  vec4 sides = vec4(dot(P, vec4(1.0, 0.0, 0.0, 1.0)),
                    dot(P, vec4(0.309016994, 0.951056516, 0.0, 1.0)),
                    dot(P, vec4(-0.809016994, 0.587785252, 0.0, 1.0)),
                    dot(P, vec4(-0.809016994, -0.587785252, 0.0, 1.0)));
  inorout += dot(smoothstep(-feather, feather, sides), vec4(1.0));
  vec4 last = vec4(0.0, 0.0, 1.0, 1.0);
  vec2 dist = vec2(dot(P, vec4(0.309016994, -0.951056516, 0.0, 1.0)), last.w - abs(P.z));
  dist = smoothstep(-feather, feather, dist);
  inorout += dist.x;
  return clamp(inorout, 0.0, 1.0);
}

// Depth under a small binomial kernel. The offset of the third tap is one number for both directions.
float bdepth(vec2 coords)
{
  vec2 wh = texel * dbsize;
  float d = depthAt(coords + vec2(-wh.x, -wh.y)) * 1.0;
  d += depthAt(coords + vec2(0.0, -wh.y)) * 2.0;
  d += depthAt(coords + vec2( wh.x -wh.y)) * 1.0;
  d += depthAt(coords + vec2(-wh.x, 0.0)) * 2.0;
  d += depthAt(coords) * 4.0;
  d += depthAt(coords + vec2(wh.x, 0.0)) * 2.0;
  d += depthAt(coords + vec2(-wh.x, wh.y)) * 1.0;
  d += depthAt(coords + vec2(0.0, wh.y)) * 2.0;
  d += depthAt(coords + vec2(wh.x, wh.y)) * 1.0;
  return d / 16.0;
}

// A tap of the gather: channels drift apart with the blur, highlights gain weight.
vec3 color(vec2 coords, float blur)
{
  vec2 drift = texel * fringe * blur;
  vec3 col = vec3(texture(bgl_RenderedTexture, coords + vec2(0.0, 1.0) * drift).r,
                  texture(bgl_RenderedTexture, coords + vec2(-0.866, -0.5) * drift).g,
                  texture(bgl_RenderedTexture, coords + vec2(0.866, -0.5) * drift).b);
  float lum = dot(col, vec3(0.299, 0.587, 0.114));
  float thresh = max((lum - threshold) * gain, 0.0);
  return col + mix(vec3(0.0), col, thresh * blur);
}

vec2 rand(vec2 coord)
{
  float a = fract(1.0 - coord.s * (width / 2.0));
  float b = fract(coord.t * (height / 2.0));
  float noiseX = ((a * 0.25) + (b * 0.75)) * 2.0 - 1.0;
  float noiseY = ((a * 0.75) + (b * 0.25)) * 2.0 - 1.0;
  if(noise)
  {
    vec2 direction = vec2(12.9898, 78.233);
    noiseX = clamp(fract(sin(dot(coord, direction)) * 43758.5453), 0.0, 1.0) * 2.0 - 1.0;
    noiseY = clamp(fract(sin(dot(coord, direction * 2.0)) * 43758.5453), 0.0, 1.0) * 2.0 - 1.0;
  }
  return vec2(noiseX, noiseY);
}

vec3 debugFocus(vec3 col, float blur, float depth)
{
  float edge = 0.002 * depth;
  float m = clamp(smoothstep(0.0, edge, blur), 0.0, 1.0);
  float e = clamp(smoothstep(1.0 - edge, 1.0, blur), 0.0, 1.0);
  col = mix(col, vec3(1.0, 0.5, 0.0), (1.0 - m) * 0.6);
  return mix(col, vec3(0.0, 0.5, 1.0), ((1.0 - e) - (1.0 - m)) * 0.2);
}

float vignette()
{
  float dist = distance(vo_TexCoord.xy, vec2(0.5, 0.5));
  return clamp(smoothstep(vignout + fstop / vignfade, vignin + fstop / vignfade, dist), 0.0, 1.0);
}

void main()
{
  float depth = linearize(depthAt(vo_TexCoord.xy));
  if(depthblur)
    depth = linearize(bdepth(vo_TexCoord.xy));

  float fDepth = focalDepth;
  if(autofocus)
    fDepth = linearize(depthAt(focus));

  float blur = 0.0;
  if(manualdof)
  {
    float a = depth - fDepth;
    float b = (a - fdofstart) / fdofdist;
    float c = (-a - ndofstart) / ndofdist;
    blur = (a > 0.0) ? b : c;
  }
  else
  {
    float f = focalLength;
    float d = fDepth * 1000.0;
    float o = depth * 1000.0;
    float a = (o * f) / (o - f);
    float b = (d * f) / (d - f);
    float c = (d - f) / (d * fstop * CoC);
    blur = abs(a - b) * c;
  }
  blur = clamp(blur, 0.0, 1.0);

  // Of a part of a picture the noise is that of the whole.
  vec2 noise = u_Picture.z > 0.0
             ? rand((gl_FragCoord.xy + u_Picture.xy) / u_Picture.zw) * (namount * blur) * u_Picture.zw * texel
             : rand(vo_TexCoord.xy) * namount * blur;
  float w = (1.0 / width) * blur * maxblur + noise.x;
  float h = (1.0 / height) * blur * maxblur + noise.y;

  vec3 col = texture(bgl_RenderedTexture, vo_TexCoord.xy).rgb;
  float s = 1.0;
  // A sharp pixel gathers nothing. Not an if around the loop: a software renderer pays both sides of a
  // branch, but leaves a loop as soon as no pixel of a block goes on.
  int lastRing = blur < 0.05 ? 0 : rings;
  for(int i = 1; i <= lastRing; i++)
  {
    int ringsamples = i * samples;
    float step = PI * 2.0 / float(ringsamples);
    float ringWeight = mix(1.0, float(i) / float(rings), bias);
    // From place to place by a turn: a sine and a cosine per ring.
    vec2 turn = vec2(cos(step), sin(step));
    float pw = float(i);
    float ph = 0.0;
    for(int j = 0; j < ringsamples; j++)
    {
      float p = 1.0;
      if(pentagon)
        p = penta(vec2(pw, ph));
      float weight = ringWeight * p;
      col += color(vo_TexCoord.xy + vec2(pw * w, ph * h), blur) * weight;
      s += weight;
      float turned = pw * turn.x - ph * turn.y;
      ph = pw * turn.y + ph * turn.x;
      pw = turned;
    }
  }
  col /= s;

  if(showFocus)
    col = debugFocus(col, blur, depth);
  if(vignetting)
    col *= vignette();
  out_FragColor.rgb = col;
}
)");

const ProgramRecipe &lensProgram()
{
    static const ProgramRecipe recipe{QStringLiteral("DepthOfFieldRenderPass"),
                                      {QStringLiteral("out_FragColor")},
                                      {{GL_VERTEX_SHADER, ShaderSource::Text, kScreenVertexShader},
                                       {GL_FRAGMENT_SHADER, ShaderSource::Text, kFragmentShader}}};
    return recipe;
}

constexpr SlotInfo kInputInfo[] = {
    {.name = "Kvo_QRect_Viewport", .meaning = "size of the target", .kind = SlotKind::Area, .unit = "pixels"},
    {.name = "Kvo_KvoTexture*_Frame", .meaning = "the image; none: the output is invalid", .kind = SlotKind::Texture},
    {.name = "Kvo_KvoTexture*_Depth", .meaning = "window depth in the first channel", .kind = SlotKind::Texture},
    {.name = "Kvo_float_FocalDepth",
     .meaning = "distance in focus; used without autofocus",
     .kind = SlotKind::Distance,
     .unit = "metres",
     .range = {0.1, 100, 0.1}},
    {.name = "Kvo_float_FocalLength",
     .meaning = "focal length of the lens",
     .kind = SlotKind::Distance,
     .unit = "millimetres",
     .range = {1, 1000, 1}},
    {.name = "Kvo_float_FStop",
     .meaning = "aperture",
     .kind = SlotKind::Plain,
     .unit = "f-number",
     .range = {0.5, 128, 0.5}},
    {.name = "Kvo_bool_AutoFocus", .meaning = "focus on the depth at input 7", .kind = SlotKind::Switch},
    {.name = "Kvo_QVector2D_Focus",
     .meaning = "autofocus point, (0, 0) at the lower left",
     .kind = SlotKind::Position,
     .unit = "of the image",
     .range = {0, 1, 0.01}},
};

constexpr SlotInfo kOutputInfo[] = {
    {.name = "Kvo_KvoTexture*_Frame",
     .meaning = "the image with its depth of field",
     .kind = SlotKind::Texture,
     .format = "GL_RGBA32F, owned by the pass"},
};

constexpr PassInfo kInfo = {"DepthOfFieldRenderPass", "blurs a frame by the circle of confusion of a thin lens",
                            Reach::wholeFrame(), kInputInfo, kOutputInfo};

} // namespace

DepthOfFieldRenderPass::DepthOfFieldRenderPass()
{
    setTextureForm(TextureForm::Object);
    addInput(QStringLiteral("Kvo_QRect_Viewport"), QVariant(), kViewport);
    addInput(QStringLiteral("Kvo_KvoTexture*_Frame"), QVariant(), kFrame);
    addInput(QStringLiteral("Kvo_KvoTexture*_Depth"), QVariant(), kDepth);
    addInput(QStringLiteral("Kvo_float_FocalDepth"), QVariant(), kFocalDepth);
    addInput(QStringLiteral("Kvo_float_FocalLength"), QVariant(), kFocalLength);
    addInput(QStringLiteral("Kvo_float_FStop"), QVariant(), kFStop);
    addInput(QStringLiteral("Kvo_bool_AutoFocus"), QVariant(), kAutoFocus);
    addInput(QStringLiteral("Kvo_QVector2D_Focus"), QVariant(), kFocus);
    addOutput(QStringLiteral("Kvo_KvoTexture*_Frame"), kFrameOut);
    describe(kInfo);
}

DepthOfFieldRenderPass::DepthOfFieldRenderPass(const DepthOfFieldRenderPass &other) = default;
DepthOfFieldRenderPass &DepthOfFieldRenderPass::operator=(const DepthOfFieldRenderPass &other) = default;

DepthOfFieldRenderPass::~DepthOfFieldRenderPass() = default;

void DepthOfFieldRenderPass::start(RenderCallbacks *)
{
    const BindingScope scope;
    if (!scope)
        return;
    const Extent extent = extentOf(*this, kViewport);
    Texture *frame = objectTexture(*this, kFrame);
    if (!frame) {
        _outputs[kFrameOut].value = QVariant();
        return;
    }
    Texture *depth = objectTexture(*this, kDepth);
    if (!depth)
        depth = TextureManager::Instance().solidTexture(QColor(Qt::white));
    const float focalDepth = _inputs[kFocalDepth].value.toFloat();
    const float focalLength = _inputs[kFocalLength].value.toFloat();
    const float fStop = _inputs[kFStop].value.toFloat();
    const bool autoFocus = _inputs[kAutoFocus].value.toBool();
    const auto focus = qvariant_cast<QVector2D>(_inputs[kFocus].value);

    if (needsTargets(_fbo, "DepthOfFieldRenderPass", extent, _width, _height)) {
        AutoBinder fbo(_fbo);
        replaceTarget(_fbo, GL_COLOR_ATTACHMENT0, kTarget, extent);
    }
    buildOnce(_program, lensProgram());
    fetchOnce(_quad, Quad::Screen, _program);

    const NeutralState neutral(kState);
    AutoBinder fbo(_fbo);
    _fbo->setDrawBuffers();
    glDisable(GL_DEPTH_TEST);
    glViewport(0, 0, extent.width, extent.height);
    if (!extent.isEmpty() && depth && _quad) {
        glClear(GL_COLOR_BUFFER_BIT);
        AutoBinder program(_program);
        AutoBinder boundDepth(depth);
        AutoBinder boundFrame(frame);
        const LinearFilterScope linear(frame);
        _program->setUniform(QStringLiteral("bgl_RenderedTexture"), frame->unit());
        _program->setUniform(QStringLiteral("bgl_DepthTexture"), depth->unit());
        _program->setUniform(QStringLiteral("bgl_RenderedTextureWidth"), extent.width);
        _program->setUniform(QStringLiteral("bgl_RenderedTextureHeight"), extent.height);
        _program->setUniform(QStringLiteral("focalDepth"), focalDepth);
        _program->setUniform(QStringLiteral("focalLength"), focalLength);
        _program->setUniform(QStringLiteral("fstop"), fStop);
        _program->setUniform(QStringLiteral("autofocus"), autoFocus);
        _program->setUniform(QStringLiteral("focus"), focus);
        const PictureWindow &window = PictureWindow::current();
        _program->setUniform(QStringLiteral("u_Picture"),
                             QVector4D(float(window.x), float(window.y), float(window.width), float(window.height)));
        AutoBinder quad(_quad);
        _quad->draw();
    }
    _outputs[kFrameOut].value = objectForm(_fbo->attachment(GL_COLOR_ATTACHMENT0));
}

} // namespace Brevane::Kvo
