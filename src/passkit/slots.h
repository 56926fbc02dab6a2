#pragma once

#include <QVariant>

namespace Brevane::Kvo {

class DrawBuffers;
class FramebufferObject;
class GPUModel;
class RenderPassHelper;
class Texture;

/// Whether something is connected: the slot holds a value, a null pointer included.
bool hasValue(const QVariant &value);

/// The texture of a value in typed form; null for anything else. Compares the metatype, since Qt would
/// convert an object by itself.
Texture *typedTexture(const QVariant &value);
/// The texture of a value in object form; null for anything else.
Texture *objectTexture(const QVariant &value);
/// The texture of a value in either form.
Texture *anyTexture(const QVariant &value);

/// The kinds of textures that shaders of the passes read.
enum class TextureKind { Plain, Cube, Samples, PlainOrSamples };

/// A texture of a slot that is of the kind which the pass reads; null for any other, which is said once with the
/// names of pass and slot. A sampler does not see a texture of another kind on its unit, but what a host has left
/// there.
Texture *ofKind(RenderPassHelper &pass, int slot, Texture *texture, TextureKind kind = TextureKind::Plain);

/// The texture of a slot in typed form, in object form, or in either: null for anything else, and for a texture
/// of another kind.
Texture *typedTexture(RenderPassHelper &pass, int slot, TextureKind kind = TextureKind::Plain);
Texture *objectTexture(RenderPassHelper &pass, int slot, TextureKind kind = TextureKind::Plain);
Texture *anyTexture(RenderPassHelper &pass, int slot, TextureKind kind = TextureKind::Plain);

/// The model of a value, which is always in typed form.
GPUModel *modelOf(const QVariant &value);
/// The geometry of a value in either form.
DrawBuffers *anyDrawBuffers(const QVariant &value);
/// The framebuffer of a value in object form.
FramebufferObject *framebufferOf(const QVariant &value);

/// A texture as passes hand it out.
QVariant objectForm(Texture *texture);
/// A texture as the passes hand it out that say so.
QVariant typedForm(Texture *texture);

} // namespace Brevane::Kvo
