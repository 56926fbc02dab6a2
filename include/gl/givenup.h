#pragma once

#include "gl/export.h"

#include <QObject>
#include <QPointer>
#include <QVector>

namespace Brevane::Kvo {

/// Lets go of an object (Texture, FramebufferObject, ShaderProgram, DrawBuffers) without deleting it: its share
/// group keeps it (see OpenGLDeviceContext::giveUp), or, in the scope of a GivenUpCollector, the collector. One
/// whose share group is gone is deleted. Needs no current context and makes no GL call.
KVO_GL_EXPORT void giveUp(QObject *object, quint64 shareGroup);

/// Takes what passes give up in its scope, for somebody who knows when it is no longer named, as Pipeline does.
/// Scopes nest, and the innermost takes all. The objects are the taker's to delete.
class KVO_GL_EXPORT GivenUpCollector
{
public:
    /// Collects into that list from now on, on this thread.
    explicit GivenUpCollector(QVector<QPointer<QObject>> &objects);
    ~GivenUpCollector();
    GivenUpCollector(const GivenUpCollector &) = delete;
    GivenUpCollector &operator=(const GivenUpCollector &) = delete;

private:
    friend void giveUp(QObject *object, quint64 shareGroup);

    QVector<QPointer<QObject>> &_objects;
    GivenUpCollector *_outer;
};

} // namespace Brevane::Kvo
