#pragma once

#include <QVariant>

namespace Brevane::Kvo {

class DrawBuffers;
class FramebufferObject;
class GPUModel;
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
