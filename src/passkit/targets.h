#pragma once

#include "passkit/extent.h"

class QObject;

namespace Brevane::Kvo {

class FramebufferObject;
class Texture;

/// How the texture of an owned target is allocated.
struct TargetFormat
{
    unsigned int internalFormat;
    unsigned int format;
    unsigned int type;
    int filter; ///< For magnification and minification.
};

/// Takes a pixel buffer of the host off for the scope: with one bound, the address of pixels, null too,
/// would mean a place in it.
class NoUnpackBuffer
{
public:
    NoUnpackBuffer();
    ~NoUnpackBuffer();
    NoUnpackBuffer(const NoUnpackBuffer &) = delete;
    NoUnpackBuffer &operator=(const NoUnpackBuffer &) = delete;

private:
    int _before = 0;
};

/// Makes the framebuffer if there is none; says whether it just did.
bool made(FramebufferObject *&framebuffer, const char *label);

/// Replaces the texture of a target that a pass owns: the old one is detached and deleted, a new one of
/// that size allocated and attached. The framebuffer must be bound.
void replaceTarget(FramebufferObject *framebuffer, unsigned int attachment, const TargetFormat &format,
                   const Extent &extent);

/// A new texture of size \a extent not attached to anything. \a pixels may be null. Where the driver has no
/// room for it, it is a single texel, with a message.
Texture *makeTexture(const TargetFormat &format, const Extent &extent, const void *pixels = nullptr);

/// A texture of one black texel with nothing in alpha and nearest filters, owned by the caller: what
/// stands in for a missing input.
Texture *makeBlackTexture();

/// Where a depth texture of the host's is attached: GL_DEPTH_STENCIL_ATTACHMENT, or GL_DEPTH_ATTACHMENT
/// when it has depth but no stencil.
unsigned int depthAttachmentOf(Texture *depth);

/// Deletes the texture of an owned target; for destructors.
void dropTarget(FramebufferObject *framebuffer, unsigned int attachment);

/// Hands an object that a pass lets go of without deleting it to the device context, which frees it at
/// its end. Null is ignored.
void giveUp(QObject *object);

} // namespace Brevane::Kvo
