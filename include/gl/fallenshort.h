#pragma once

#include "gl/export.h"

class QObject;

namespace Brevane::Kvo {

/// Notes that an object (Texture, FramebufferObject, ShaderProgram, DrawBuffers) is not what it was to be, since the
/// driver had no memory, no name or no program for it. The frame that it was made for goes on with what there is;
/// from the next outermost ContextScope on, Held reads as null, and the pass makes the object anew.
KVO_GL_EXPORT void noteFallenShort(const QObject *object);
/// The object is going.
KVO_GL_EXPORT void forgetFallenShort(const QObject *object);
/// Whether an object was noted in an earlier frame than this one.
KVO_GL_EXPORT bool hasFallenShort(const QObject *object);

/// Whether it was noted in this frame or before.
KVO_GL_EXPORT bool isFallingShort(const QObject *object);

} // namespace Brevane::Kvo
