#pragma once

#include "core/renderpasshelper.h"
#include "gl/held.h"
#include "renderpasses/export.h"

#include <QList>
#include <QPair>
#include <QSharedPointer>
#include <QString>

namespace Brevane::Kvo {

class BufferObject;
class DrawBuffers;
class FramebufferObject;
class GPUModel;
class ShaderProgram;
class Texture;
struct Extent;

/// First of the three passes of exact order-independent transparency: draws the model once and records
/// every fragment of every pixel, as an identity and a depth, with no colour. VisibilitySortRenderPass
/// orders what is recorded, VisibilityDeferredRenderPass shades it.
///
/// | # | Input                           | Type       | Range  | Meaning |
/// |---|---------------------------------|------------|--------|-----|
/// | 0 | Kvo_QRect_Viewport              | QRect      | pixels | size of the lists' image |
/// | 1 | Kvo_QMatrix4x4_ProjectionMatrix | QMatrix4x4 |        | camera to clip space |
/// | 2 | Kvo_QMatrix4x4_CameraMatrix     | QMatrix4x4 |        | world to camera space |
/// | 3 | Kvo_KvoGPUModel*_Geometry       | GPUModel*  |        | what to draw; none: all lists are empty |
///
/// | # | Output                       | Type    | Format                    | Meaning |
/// |---|------------------------------|---------|---------------------------|-----|
/// | 0 | Kvo_KvoTexture*_HeadPointers | texture | GL_R32UI                  | where the list of a pixel begins |
/// | 1 | Kvo_KvoTexture*_NodeBuffer   | texture | GL_RGBA32UI or GL_RGBA32I | the nodes |
/// | 2 | Kvo_int_NodeBufferWidth      | int     |                           | texels in a row of the node buffer |
/// | 3 | Kvo_KvoTexture*_Depth        | texture | none                      | never written |
///
/// A head pointer, and the pointer of a node, is 0 for none or n + 1 for node n, which is the texel
/// (n % width, n / width) of the node buffer. A node is (next pointer, gl_PrimitiveID + 1, bits of the
/// window depth as a float, index of the draw). Node lists come newest fragment first.
///
/// Two modes, chosen at the first start and logged. With ARB_shader_atomic_counters,
/// ARB_shader_image_load_store and ARB_shading_language_420pack, GL4 mode: all fragments are kept, in a
/// node buffer of 4096 x 4096 (256 MiB, 16,777,216 nodes for all pixels together). What goes beyond is
/// lost: lists end where they lead to a node that was not stored, and nothing is reported here (the inspection of
/// the host tells, and kvorender --inspect-oit). Without
/// the extensions the nearest fragment is kept (by the current depth function), as a list of one node
/// with draw 0, in a node buffer of the size of the viewport.
///
/// Leaves changed: clear colour (transparent black); with a model: depth test (on). Of the host's state
/// count: viewport, depth function, face culling, culled face, front face, blending, blend function, blend
/// equation, blend colour.
///
/// Needs OpenGL 3.2.
class KVO_RENDERPASSES_EXPORT VisibilityBufferRenderPass : public RenderPassHelper
{
public:
    /// Indices of the inputs.
    enum Input : int {
        InViewport,
        InProjectionMatrix,
        InCameraMatrix,
        InGeometry,
    };
    /// Indices of the outputs.
    enum Output : int {
        OutHeadPointers,
        OutNodeBuffer,
        OutNodeBufferWidth,
        OutDepth,
    };

    /// Records the items whose flags, ANDed with \a drawFlagsMask, equal \a drawFlagsValue; all of them
    /// by default.
    explicit VisibilityBufferRenderPass(unsigned long long drawFlagsValue = 0, unsigned long long drawFlagsMask = 0);
    VisibilityBufferRenderPass(const VisibilityBufferRenderPass &other);
    VisibilityBufferRenderPass &operator=(const VisibilityBufferRenderPass &other);
    ~VisibilityBufferRenderPass() override;

    void start(RenderCallbacks *callbacks) override;

private:
    void chooseMode();
    void recordLists(const Extent &extent, GPUModel *model);
    void recordNearest(const Extent &extent, GPUModel *model);
    void clearLists();
    void clearNodes();
    bool makeRowClearing();
    void drawIntoLists(GPUModel &model);
    void makeProgramAndCounter();
    void draw(GPUModel &model, int nodeBufferWidth);

    bool _modeChosen = false;
    Held<FramebufferObject> _fbo;
    Held<ShaderProgram> _shaderProgram;
    QSharedPointer<BufferObject> _headCounter;
    QSharedPointer<BufferObject> _lastCount; // how many nodes the frame before stored
    bool _countsAll = false; // whether the counter tells of all that was stored
    Held<ShaderProgram> _clearingProgram;
    QSharedPointer<DrawBuffers> _screenQuad;
    Texture *_headPointerTexture = nullptr;
    Held<FramebufferObject> _headPointerFbo;
    Texture *_nodeBufferTexture = nullptr;
    Held<FramebufferObject> _nodeBufferFbo;
    QList<QPair<QString, unsigned int>> _outputFormats;
    int _width = -1;
    int _height = -1;
    unsigned long long _drawFlagsMask;
    unsigned long long _drawFlagsValue;
    bool _gl4Mode = false;
};

} // namespace Brevane::Kvo
