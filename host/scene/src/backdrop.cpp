#include "host/backdrop.h"

#include "core/liveobjects.h"
#include "gl/contextscope.h"
#include "gl/framebufferobject.h"
#include "gl/guards.h"
#include "gl/hoststate.h"
#include "gl/shaderprogram.h"
#include "modelprogram.h"
#include "screenprogram.h"

#include <epoxy/gl.h>

#include <QMatrix4x4>
#include <QVector2D>

#include <algorithm>
#include <array>
#include <cmath>

namespace Brevane::Kvo {

namespace {

constexpr float kSquares = 20.0f; // about so many along the scene

const QString kShader = QStringLiteral(R"(#version 150
uniform vec2 u_Size;
uniform vec4 u_Top;
uniform vec4 u_Bottom;
uniform mat4 u_FromClip;
uniform vec3 u_Up;
uniform vec3 u_Side;
uniform vec3 u_Front;
uniform float u_Square;
uniform float u_Grid;
uniform float u_Axes;
uniform vec4 u_Axis[3];

out vec4 out_Color;

vec3 pointAt(vec2 clip, float depth)
{
  vec4 point = u_FromClip * vec4(clip, depth, 1.0);
  return point.xyz / point.w;
}

// Where the ray through a pixel meets the ground, in squares; z: 0 where it does not.
vec3 groundAt(vec2 pixel)
{
  vec2 clip = pixel / u_Size * 2.0 - 1.0;
  vec3 near = pointAt(clip, -1.0);
  vec3 way = pointAt(clip, 1.0) - near;
  float fall = dot(way, u_Up);
  float share = abs(fall) > 1e-12 ? -dot(near, u_Up) / fall : -1.0;
  vec3 ground = near + way * share;
  return vec3(dot(ground, u_Side) / u_Square, dot(ground, u_Front) / u_Square,
              share > 0.0 && share < 1.0 ? 1.0 : 0.0);
}

// How much of a pixel the lines of a grid cover; \a step is how far a pixel reaches.
float lines(vec2 place, vec2 step)
{
  vec2 away = abs(fract(place - 0.5) - 0.5) / max(step, vec2(1e-6));
  vec2 cover = clamp(1.0 - away, 0.0, 1.0) * clamp(0.5 / max(step, vec2(1e-6)) - 0.5, 0.0, 1.0);
  return max(cover.x, cover.y);
}

// The part of a pixel that a line from a.xy to a.zw covers.
float stroke(vec4 a)
{
  vec2 way = a.zw - a.xy;
  vec2 from = gl_FragCoord.xy - a.xy;
  float share = clamp(dot(from, way) / max(dot(way, way), 1e-6), 0.0, 1.0);
  return clamp(1.75 - length(from - way * share), 0.0, 1.0);
}

void main()
{
  vec3 color = mix(u_Bottom.rgb, u_Top.rgb, gl_FragCoord.y / u_Size.y);
  vec3 here = groundAt(gl_FragCoord.xy);
  vec3 right = groundAt(gl_FragCoord.xy + vec2(1.0, 0.0));
  vec3 above = groundAt(gl_FragCoord.xy + vec2(0.0, 1.0));
  vec2 step = max(abs(right.xy - here.xy), abs(above.xy - here.xy));
  float cover = max(0.35 * lines(here.xy, step), 0.7 * lines(here.xy / 10.0, step / 10.0));
  vec3 ink = vec3(dot(color, vec3(0.3, 0.6, 0.1)) > 0.5 ? 0.25 : 0.65);
  color = mix(color, ink, cover * here.z * right.z * above.z * u_Grid);
  color = mix(color, vec3(0.85, 0.2, 0.2), stroke(u_Axis[0]) * u_Axes);
  color = mix(color, vec3(0.25, 0.7, 0.25), stroke(u_Axis[1]) * u_Axes);
  color = mix(color, vec3(0.25, 0.4, 0.95), stroke(u_Axis[2]) * u_Axes);
  out_Color = vec4(color, 1.0);
}
)");

// An axis on the picture, cut where it comes behind the eye: from and to, in pixels.
QVector4D axisOn(const QMatrix4x4 &toClip, const QVector3D &axis, const QSize &size)
{
    constexpr float kNear = 1e-4f;
    QVector4D from = toClip * QVector4D(0, 0, 0, 1);
    QVector4D to = toClip * QVector4D(axis, 1);
    if (from.w() < kNear && to.w() < kNear)
        return {-100, -100, -100, -100};
    const auto cut = [](const QVector4D &inside, const QVector4D &outside) {
        return outside + (inside - outside) * ((kNear - outside.w()) / (inside.w() - outside.w()));
    };
    if (from.w() < kNear)
        from = cut(to, from);
    if (to.w() < kNear)
        to = cut(from, to);
    const auto pixel = [&](const QVector4D &p) {
        return QVector2D((p.x() / p.w() * 0.5f + 0.5f) * float(size.width()),
                         (p.y() / p.w() * 0.5f + 0.5f) * float(size.height()));
    };
    const QVector2D a = pixel(from), b = pixel(to);
    return {a.x(), a.y(), b.x(), b.y()};
}

} // namespace

void BackdropPainter::draw(FramebufferObject *target, const QSize &size, const Backdrop &backdrop,
                           const QMatrix4x4 &camera, const QMatrix4x4 &projection, const QVector3D &up, float side)
{
    const ContextScope scope;
    if (!scope || !backdrop.isVisible() || size.isEmpty() || liveKindOf(target) != LiveKind::Framebuffer)
        return;
    const DefaultState state{StatePiece::Blending, StatePiece::BlendFunction};
    if (!_program)
        _program = screenProgram(QStringLiteral("Backdrop"), {QStringLiteral("out_Color")}, kShader);
    const QMatrix4x4 toClip = projection * camera;
    const QColor top = backdrop.top.isValid() ? backdrop.top : QColor(Qt::black);
    // A frame of the ground that has the world's axes in it where up is one of them.
    const QVector3D other = std::abs(up.x()) < 0.9f ? QVector3D(1, 0, 0) : QVector3D(0, 0, 1);
    const QVector3D across = (other - up * QVector3D::dotProduct(other, up)).normalized();
    const float length = std::max(side, 1e-6f);
    const AutoBinder onto(target);
    glViewport(0, 0, size.width(), size.height());
    glEnable(GL_BLEND);
    glBlendFuncSeparate(GL_ONE_MINUS_DST_ALPHA, GL_DST_ALPHA, GL_ONE, GL_ZERO);
    const AutoBinder program(_program);
    _program->setUniform(QStringLiteral("u_Size"), QVector2D(float(size.width()), float(size.height())));
    _program->setUniform(QStringLiteral("u_Top"), top);
    _program->setUniform(QStringLiteral("u_Bottom"), backdrop.bottom.isValid() ? backdrop.bottom : top);
    _program->setUniform(QStringLiteral("u_FromClip"), toClip.inverted());
    _program->setUniform(QStringLiteral("u_Up"), up);
    _program->setUniform(QStringLiteral("u_Side"), across);
    _program->setUniform(QStringLiteral("u_Front"), QVector3D::crossProduct(across, up));
    _program->setUniform(QStringLiteral("u_Square"), std::pow(10.0f, std::round(std::log10(length / kSquares))));
    _program->setUniform(QStringLiteral("u_Grid"), backdrop.grid ? 1.0f : 0.0f);
    _program->setUniform(QStringLiteral("u_Axes"), backdrop.axes ? 1.0f : 0.0f);
    const std::array axes{QVector3D(length, 0, 0), QVector3D(0, length, 0), QVector3D(0, 0, length)};
    for (int i = 0; i < 3; ++i)
        _program->setUniform(QStringLiteral("u_Axis[%1]").arg(i), axisOn(toClip, axes[size_t(i)], size));
    if (glCheckFramebufferStatus(GL_DRAW_FRAMEBUFFER) == GL_FRAMEBUFFER_COMPLETE)
        drawScreenQuad(_program);
}

} // namespace Brevane::Kvo
