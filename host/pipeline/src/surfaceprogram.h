#pragma once

#include "gl/texturemanager.h"

#include <epoxy/gl.h>

#include <array>

namespace Brevane::Kvo {

class ShaderProgram;

/// A target of what draws surfaces: the fragment output that fills it, the pool's format, where it is attached.
struct SurfaceTarget
{
    const char *fragmentOutput; ///< Null for depth.
    TextureFormat format;
    GLenum attachment;
};

// In the order of SurfacePass's outputs.
constexpr std::array<SurfaceTarget, 6> kSurfaceTargets{{
    {"out_BaseColor", TextureFormat::Frame, GL_COLOR_ATTACHMENT0},
    {"out_Surface", TextureFormat::Color8, GL_COLOR_ATTACHMENT1},
    {"out_Emission", TextureFormat::PackedFloat, GL_COLOR_ATTACHMENT2},
    {"out_Normal", TextureFormat::Frame, GL_COLOR_ATTACHMENT3},
    {nullptr, TextureFormat::Depth32, GL_DEPTH_ATTACHMENT},
    {"out_Id", TextureFormat::Scalar32, GL_COLOR_ATTACHMENT4},
}};

/// What of a model a program draws.
enum class SurfacePart {
    /// What is nearest. Without the uniform u_SolidOnly everything counts, materials that blend down to a half; with it
    /// what the other part leaves.
    Solid,
    /// What lets something through, of it what lies behind a layer that was drawn before and not behind what is solid:
    /// u_HasBefore, u_BeforeDepth, u_BeforeId, u_HasSolid, u_SolidDepth. The id is the number of the triangle in its
    /// draw plus 1 and the number of the draw plus 1: of surfaces with the same depth the one that is drawn first
    /// comes first.
    Layer,
};

/// A program that draws models with the plan "SurfaceMaterial" into these targets. The caller owns it.
ShaderProgram *surfaceProgram(const QString &label, SurfacePart part);

} // namespace Brevane::Kvo
