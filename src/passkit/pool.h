#pragma once

#include "gl/guards.h"
#include "gl/sampling.h"
#include "gl/texturemanager.h"
#include "passkit/extent.h"

class QString;

namespace Brevane::Kvo {

class FramebufferObject;
class ShaderProgram;
class Texture;
struct PassSlot;

/// A temporary texture of the pool, with one reference.
Texture *tempTexture(TextureFormat format, const Extent &extent);

/// A temporary texture of one texel that stands for a missing image, in an 8-bit format (GL_RGB: opaque
/// black, GL_RGBA: transparent black). Carries one reference.
Texture *blackTempTexture(unsigned int format);

/// Puts a texture into an output and adds the references of its users. The pass's own reference stays:
/// when it is given back decides what the pool may reuse.
void publish(PassSlot &output, Texture *texture, int users);

/// Drops one reference of a pool texture; any other texture, and null, is left alone.
void release(Texture *texture);

/// Gives the texture linear filters and a wrap clamped to the edge, as bilinear taps need.
void setLinearClamped(Texture *texture);

/// Gives the texture linear filters; its wrap stays.
void setLinear(Texture *texture);

/// Gives a texture linear filters for the scope.
class LinearFilterScope
{
public:
    explicit LinearFilterScope(Texture *texture);
    ~LinearFilterScope();
    LinearFilterScope(const LinearFilterScope &) = delete;
    LinearFilterScope &operator=(const LinearFilterScope &) = delete;

private:
    Texture *_texture;
    Filters _before;
};

/// Attaches an output to the bound framebuffer as its only colour target, and what else the draws need. False where
/// there is nothing to draw to.
bool attachTarget(FramebufferObject *framebuffer, Texture *output, Texture *depthStencil = nullptr);

/// Sets the GL viewport to a target of another size than the host's for the scope; where a context has
/// several viewports, the first.
class TargetViewport
{
public:
    explicit TargetViewport(const Extent &extent);
    ~TargetViewport();
    TargetViewport(const TargetViewport &) = delete;
    TargetViewport &operator=(const TargetViewport &) = delete;

private:
    float _before[4] = {};
};

/// A framebuffer for full-screen draws into targets of one size, for the scope: bound, with the GL viewport set to
/// them. Both are put back.
class Stage
{
public:
    Stage(FramebufferObject *framebuffer, const Extent &extent);
    ~Stage();
    Stage(const Stage &) = delete;
    Stage &operator=(const Stage &) = delete;

private:
    AutoBinder _bound;
    TargetViewport _viewport;
};

} // namespace Brevane::Kvo
