#pragma once

#include "core/renderpasshelper.h"
#include "gl/held.h"
#include "renderpasses/export.h"

#include <QList>
#include <QVector3D>

namespace Brevane::Kvo {

class DrawBuffers;

/// Builds one piece of geometry of cubes and quads, for passes such as GBufferRenderPass. It draws
/// nothing itself.
///
/// The pass has no inputs.
///
/// | # | Output                       | Type         | Meaning |
/// |---|------------------------------|--------------|-----|
/// | 0 | Kvo_KvoDrawBuffers*_Geometry | DrawBuffers* | all primitives, in the order of adding; null with none added |
///
/// The geometry has the attributes "va_Vertex" (3 floats), "va_TexCoord" (2) and "va_Normal" (3), and
/// indices of type GL_UNSIGNED_INT, in the order in which primitives were added. Indices are absolute
/// numbers of vertices. The indirect commands, one per primitive, carry the first vertex of their
/// primitive as baseVertex all the same: they are data for those who pull vertices by themselves.
/// DrawBuffers::draw goes by the indices alone and is right with and without commands.
///
/// The geometry belongs to the pass. A start after a change of the primitives replaces it, and a pointer
/// that somebody kept from before is dangling then.
///
/// Leaves no state of GL changed.
///
/// Needs OpenGL 3.2.
class KVO_RENDERPASSES_EXPORT PrimitiveBuilderRenderPass : public RenderPassHelper
{
public:
    /// Indices of the outputs.
    enum Output : int {
        OutGeometry,
    };

    PrimitiveBuilderRenderPass();
    PrimitiveBuilderRenderPass(const PrimitiveBuilderRenderPass &other);
    PrimitiveBuilderRenderPass &operator=(const PrimitiveBuilderRenderPass &other);
    ~PrimitiveBuilderRenderPass() override;

    void start(RenderCallbacks *callbacks) override;

    /// Adds a cube with its middle at \a position; \a size is the length of its edges. Each side has
    /// four corners of its own (36 vertices in all) and texture coordinates in a unit square of its own:
    /// n - 1 to n on both axes for side n, in the order -z, +z, -x, +x, -y, +y.
    void addCube(float size, const QVector3D &position);
    /// Adds a square in the plane of x and y with its middle at \a position, facing -z; \a size is half
    /// the length of its edges, so that a size of 1 fills the clip space.
    void addQuad(float size, const QVector3D &position);
    /// Whether the geometry carries indirect commands; on at first.
    void setUseIndirectDrawCommands(bool use);

private:
    struct Primitive
    {
        int type;
        float size;
        QVector3D position;
    };

    DrawBuffers *build() const;

    Held<DrawBuffers> _drawBuffers;
    QList<Primitive> _primitives;
    bool _dirty = false;
    bool _useIndirectDrawCommands = true;
};

} // namespace Brevane::Kvo
