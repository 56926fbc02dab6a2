#pragma once

#include "gl/export.h"

#include <array>
#include <bitset>
#include <initializer_list>
#include <memory>
#include <vector>

namespace Brevane::Kvo {

class ContextState;

/// The pieces of GL state that a host may have set when a pass starts.
enum class StatePiece {
    DepthTest,
    DepthMask,
    DepthFunction,
    DepthRange,
    DepthClamp,
    ClearDepth,
    ScissorTest,
    ScissorBox,
    StencilTest,
    StencilFunction,
    StencilOperation,
    StencilMask,
    ClearStencil,
    Blending,
    BlendFunction,
    BlendEquation,
    BlendColor,
    ColorMask,
    ClearColor,
    FaceCulling,
    CulledFace,
    FrontFace,
    PolygonMode,
    PolygonOffset,
    LogicOperation,
    PrimitiveRestart,
    FixedIndexRestart,
    RasterizerDiscard,
    ClipDistances,
    Multisampling,
    SampleMask,
    AlphaToCoverage,
    AlphaToOne,
    SampleCoverage,
    SampleShading,
    SrgbFramebuffer,
    Dithering,
    ProvokingVertex,
    SeamlessCubeMaps,
    PolygonSmoothing,
    LineDrawing,
    PointSizeOfProgram,
    PointDrawing,
    ClipControl,
    Viewport,
    FurtherViewports,
    PatchParameters,
    AttributeValues,
    TransformFeedback,
    // From here on not values of the context but what is bound to it, and what moves pixels.
    PixelUnpacking,
    PixelPacking,
    PixelBuffers,
    Samplers,
    ActiveUnit,
    Textures,
    VertexArray,
    Buffers,
    UniformRanges,
    AtomicCounterRanges,
    StorageRanges,
    Images,
    Program,
    ProgramPipeline,
    DrawFramebuffer,
    ReadFramebuffer,
    Query,
    ConditionalRendering,
    Count
};

constexpr std::size_t kStatePieces = std::size_t(StatePiece::Count);
constexpr std::size_t kStateValues = std::size_t(StatePiece::PixelUnpacking);
static_assert(kStateValues < 64);
using StatePieces = std::bitset<kStatePieces>;

/// How documents and messages call a piece.
KVO_GL_EXPORT const char *nameOf(StatePiece piece);
/// What a clean context has.
KVO_GL_EXPORT const char *defaultOf(StatePiece piece);
/// Whether the current context has the piece at all.
KVO_GL_EXPORT bool hasStatePiece(StatePiece piece);
/// The numbers of a piece that is a value of the context, in GL's order.
KVO_GL_EXPORT std::vector<double> valueOf(StatePiece piece);

/// Whether a capability is enabled, a bit for each draw buffer or viewport where it is theirs.
quint32 switchesOf(unsigned int capability);
/// Sets it so.
void setSwitches(unsigned int capability, quint32 bits);

/// Sets the viewport that passes draw with and leaves the further ones, where a context has several.
KVO_GL_EXPORT void setFirstViewport(const float (&rectangle)[4]);
/// The scissor test of the viewport that passes draw with, and no other's.
KVO_GL_EXPORT void setFirstScissorTest(bool on);
/// Its box.
KVO_GL_EXPORT void setFirstScissorBox(const int (&rectangle)[4]);

/// What a pass does with one piece of state other than to be untouched by it and to leave it as it was.
struct StateException
{
    enum Use {
        HostCounts, ///< The host's value enters the picture.
        Left, ///< The pass changes it, and it stays so.
    };

    Use use;
    StatePiece piece;
    const char *when; ///< On which road of the pass; null: whenever it draws.
    const char *text; ///< HostCounts: why, one sentence. Left: the value, in words.
    std::vector<double> value = {}; ///< Left: the value in numbers, where it does not depend on inputs.
};

/// A pass's line of the table.
struct KVO_GL_EXPORT StateRow
{
    StateRow(const char *className, std::vector<StateException> exceptions,
             std::initializer_list<StatePiece> more = {});

    const char *className;
    std::vector<StateException> exceptions;
    StatePieces guarded; ///< What the pass's guard brings to its default.
    StatePieces stays; ///< Of these, what the pass leaves changed on each of its roads.
    StatePieces left; ///< All that the pass may leave changed.
    StatePieces toReset; ///< Of these, what it may leave at something else than the default.
};

/// Values as they were, those that were not at their defaults.
class StateValues
{
public:
    /// Reads these pieces, sets them to their defaults, and keeps what was not there yet.
    void takeOver(const StatePieces &pieces);
    /// Sets what was kept, but for these.
    void putBack(const StatePieces &butNot = {}) const;

private:
    int _count = 0;
    std::array<unsigned char, kStateValues> _pieces;
    std::array<double, 384> _numbers;
};

/// Brings the pieces of state that could spoil a pass's picture to GL's default for its scope, and puts
/// back, as they were, those that the pass does not leave changed. Passes open one in start, before the
/// first call that depends on state. A pass that changes a piece which its row does not list as left puts
/// it back itself: to the default, where the guard finds it.
class KVO_GL_EXPORT NeutralState
{
public:
    explicit NeutralState(const StateRow &row);
    ~NeutralState();
    NeutralState(const NeutralState &) = delete;
    NeutralState &operator=(const NeutralState &) = delete;

    /// Says that these pieces, left changed on some roads of the pass only, now are.
    void leave(std::initializer_list<StatePiece> pieces);

private:
    const StateRow &_row;
    StatePieces _stays;
    bool _feedbackPaused = false;
    StateValues _before;
};

/// Keeps the stencil function for its scope, the reference values included. GL tells those only while a
/// framebuffer with a stencil is bound, as one has to be when the scope begins.
class KVO_GL_EXPORT KeptStencilFunction
{
public:
    KeptStencilFunction();
    ~KeptStencilFunction();
    KeptStencilFunction(const KeptStencilFunction &) = delete;
    KeptStencilFunction &operator=(const KeptStencilFunction &) = delete;

private:
    std::array<double, 6> _before;
};

/// All of a context's values at GL's default, and all as before at the end of the scope; with them the
/// program, the vertex array, the framebuffers, the active unit and the array buffer.
class KVO_GL_EXPORT DefaultState
{
public:
    /// For code that may leave anything changed, and resets it before the end of the scope.
    DefaultState();
    /// For code that leaves these pieces changed and uses no stencil. The stencil function stays what it is, since GL
    /// does not always tell the reference values.
    explicit DefaultState(std::initializer_list<StatePiece> changed);
    ~DefaultState();
    DefaultState(const DefaultState &) = delete;
    DefaultState &operator=(const DefaultState &) = delete;

    /// Brings back to the default what a pass may have left changed.
    static void resetAfter(const StateRow &row);
    /// The same after code that may have changed anything.
    static void resetAll();

    /// While code runs within the scope. Of passes of the library it is known that they find all values at their
    /// defaults: their guards ask nothing. Any other code finds at the default, too, what the library's own code
    /// guards wherever it matters: the moving of pixels and sampler objects, which are as before afterwards.
    class KVO_GL_EXPORT Known
    {
    public:
        explicit Known(bool known);
        ~Known();
        Known(const Known &) = delete;
        Known &operator=(const Known &) = delete;

    private:
        struct Bindings;
        const ContextState *_before;
        std::unique_ptr<Bindings> _bindings;
    };

private:
    DefaultState(const StatePieces &pieces, const StatePieces &changed);

    std::array<int, 6> _bindings{};
    bool _feedbackPaused = false;
    StatePieces _changed;
    StateValues _before;
};

} // namespace Brevane::Kvo
