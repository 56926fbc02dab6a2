#pragma once

#include "gl/held.h"
#include "passkit/extent.h"

#include <QString>
#include <QStringList>

#include <vector>

namespace Brevane::Kvo {

class FramebufferObject;
class RenderPassHelper;
class Texture;

/// How the texture of an owned target is allocated.
struct TargetFormat
{
    unsigned int internalFormat;
    unsigned int format;
    unsigned int type;
    int filter; ///< For magnification and minification.
};

/// A colour target of a pass that draws geometry: the fragment output that fills it, and how it is stored.
struct OutputTarget
{
    QString output;
    unsigned int internalFormat;
};

/// The outputs of a list of targets in its order, which is that of the colour attachments.
QStringList outputsOf(const std::vector<OutputTarget> &targets);

/// Makes the framebuffer if there is none; says whether it just did.
bool made(Held<FramebufferObject> &framebuffer, const char *label);

/// Whether targets of this size are still to be made, which is the size of them from then on: the framebuffer
/// was just made, or had targets of another size. One that a copy of the pass draws into is left to the copy.
bool needsTargets(Held<FramebufferObject> &framebuffer, const char *label, const Extent &extent, int &width,
                  int &height);

/// Replaces the texture of a target that a pass owns: the old one is detached and deleted, a new one of
/// that size allocated and attached. The framebuffer must be bound; the texture goes with it.
void replaceTarget(FramebufferObject *framebuffer, unsigned int attachment, const TargetFormat &format,
                   const Extent &extent);

/// Replaces all targets of a pass that draws geometry: the colour attachments in the order of the list, and a depth
/// target of 32-bit floats. All have nearest filters.
void replaceGeometryTargets(FramebufferObject *framebuffer, const std::vector<OutputTarget> &targets,
                            const Extent &extent);

/// A new texture of size \a extent not attached to anything. \a pixels may be null. Where the driver has no
/// room for it, it is a single texel, with a message that says for whom, and it has fallen short.
Texture *makeTexture(const TargetFormat &format, const Extent &extent, const void *pixels = nullptr,
                     const QString &name = QString());

/// A texture of one black texel with nothing in alpha and nearest filters, owned by the caller: what
/// stands in for a missing input.
Texture *makeBlackTexture();

/// The manager's transparent texel, for what is not connected; asked for once and kept in a member.
Texture *transparentTexel(Held<Texture> &kept);

/// The size of level 0, 0 by 0 for a texture that is not two-dimensional.
Extent sizeOf(Texture *texture);

/// Where a depth texture of the host's is attached: GL_DEPTH_STENCIL_ATTACHMENT, or GL_DEPTH_ATTACHMENT
/// when it has depth but no stencil. GL_NONE for a texture without depth, or of another GL target than the
/// textures have that it is to be attached with, which is said once with the names of pass and slot.
unsigned int depthAttachmentOf(RenderPassHelper &pass, int slot, Texture *depth, unsigned int target);

/// Whether the bound framebuffer can be drawn to. What the host has put into \a slot is the reason if not, which
/// is said once.
bool canDrawTo(RenderPassHelper &pass, int slot);

/// Lets the targets of a framebuffer outlive it, for destructors of passes whose targets somebody may still
/// read: see OpenGLDeviceContext::giveUp. Not while a copy of the pass has the framebuffer.
void giveUpTargets(const Held<FramebufferObject> &framebuffer);

} // namespace Brevane::Kvo
