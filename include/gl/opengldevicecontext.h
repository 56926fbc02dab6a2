#pragma once

#include "gl/export.h"

#include <QObject>
#include <QSharedPointer>
#include <QString>

#include <memory>

namespace Brevane::Kvo {

class BufferObject;
class ContextState;
class DrawBuffers;
class VertexArrayObject;

/// How many GL objects of this library live in a context (framebuffers, vertex arrays) and in its
/// share group (the rest).
struct GLObjectCounts
{
    int textures = 0; ///< In the share group.
    int buffers = 0; ///< In the share group.
    int programs = 0; ///< In the share group.
    int framebuffers = 0; ///< In this context.
    int vertexArrays = 0; ///< In this context.
    /// All together.
    int total() const { return textures + buffers + programs + framebuffers + vertexArrays; }
};

/// What a driver refuses to go beyond.
struct GLLimits
{
    int textureSide = 0; ///< In texels.
    int targetWidth = 0; ///< Of what is texture and viewport.
    int targetHeight = 0; ///< Of what is texture and viewport.
    int arrayLayers = 0; ///< Of an array texture.
    int vertexUniforms = 0; ///< Components of all uniforms of a stage.
    int geometryUniforms = 0; ///< As vertexUniforms.
    int fragmentUniforms = 0; ///< As vertexUniforms.
};

/// What the library keeps for one GL context. It works for EGL, GLX and Qt contexts alike, for several
/// in one process, sharing objects or not.
///
/// A host that destroys a context calls releaseCurrent while it is still current. For contexts made
/// through QOpenGLContext this happens by itself. Objects that outlive their context lose their GL
/// name and do nothing from then on.
class KVO_GL_EXPORT OpenGLDeviceContext
{
public:
    virtual ~OpenGLDeviceContext();

    /// The context that is current on this thread. Null when there is none, or when it is older than
    /// OpenGL 3.2, which is reported once per context with what was found.
    static QSharedPointer<OpenGLDeviceContext> current();
    /// Frees everything that belongs to the current context (and to its share group, if it is the last
    /// of it): objects that were given up, and what passes still hold. Call it before destroying the
    /// context; nothing of this context may be used afterwards.
    static void releaseCurrent();

    /// A new buffer.
    virtual QSharedPointer<BufferObject> createBufferObject();
    /// A quad that fills the screen, in clip space, with "va_Vertex" (three floats, z 0) and
    /// "va_TexCoord" (two floats, 0 at left and bottom, 1 at right and top). Shared: do not change it.
    virtual QSharedPointer<DrawBuffers> screenQuad();
    /// The same geometry as screenQuad.
    virtual QSharedPointer<DrawBuffers> gradientQuad();
    /// A new vertex array.
    virtual QSharedPointer<VertexArrayObject> createVertexArrayObject();

    /// Takes over an object (Texture, FramebufferObject, ShaderProgram, DrawBuffers) that its owner
    /// lets go of without deleting it: somebody may still use it. The share group keeps it until
    /// freeGivenUp, or its own end. Null, and an object given up twice, are ignored.
    void giveUp(QObject *object);
    /// Objects of the share group that were given up and not freed yet.
    int givenUpCount() const;
    /// Frees them and gives their number. For hosts without a Pipeline: passes that do not delete their
    /// targets with themselves (ModelRenderPass, GBufferRenderPass, ForwardRenderPass) give them up, and only
    /// the host knows when nothing reads them any more.
    int freeGivenUp();
    /// Live GL objects, those given up included.
    GLObjectCounts liveObjects() const;

    /// GL version as 10 * major + minor.
    int version() const;
    /// Asked of the driver once, when this context is current; all 0 once the context is released.
    GLLimits limits() const;
    /// "vendor, renderer, version", for messages.
    QString description() const;
    /// Number that tells share groups apart; contexts that share objects have the same.
    quint64 shareGroup() const;

private:
    friend class ContextState;
    explicit OpenGLDeviceContext(ContextState *state);
    Q_DISABLE_COPY(OpenGLDeviceContext)

    ContextState *_state;
    QSharedPointer<DrawBuffers> _quad;
};

} // namespace Brevane::Kvo
