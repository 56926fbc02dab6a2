#pragma once

#include "gl/contextscope.h"
#include "gl/export.h"
#include "gl/glnames.h"

#include <array>

namespace Brevane::Kvo {

/// Where one object at a time is bound in a context. Textures and samplers have such a point per unit.
enum class BindingPoint {
    DrawFramebuffer,
    ReadFramebuffer,
    Program,
    VertexArray,
    ArrayBuffer,
    UniformBuffer,
    AtomicCounterBuffer,
    IndirectBuffer,
    TextureBuffer,
    PackBuffer,
    UnpackBuffer,
    Count
};

struct FramebufferPair
{
    unsigned int draw = 0;
    unsigned int read = 0;
};

/// What is bound in one context. All binding of the library's own goes through here.
///
/// Outside of every BindingScope each call is a call of GL, and what is bound is asked of GL. In a scope GL is asked
/// once, what is bound already is not bound again, and what is given back is owed at first: the binding of before
/// comes back when somebody could see that it has not, at the end of the scope at the latest.
///
/// A binding that was taken while another one of the library's is in place gives that one back at once: whoever took
/// it counts on it. Only the active unit is owed there as well, see settleUnit.
class Bindings
{
public:
    /// What is bound, or owed.
    unsigned int bound(BindingPoint point);
    /// Binds, and returns what was bound before; that is for giveBack.
    unsigned int take(BindingPoint point, unsigned int name);
    void giveBack(BindingPoint point, unsigned int before);
    /// The same for a binding that another call is about to make.
    unsigned int takeUnseen(BindingPoint point, unsigned int name);
    /// Another call has bound this.
    void saw(BindingPoint point, unsigned int name);
    /// Brings back what is owed, for a draw with what a host has bound.
    void settle(BindingPoint point);

    FramebufferPair takeFramebuffer(unsigned int name);
    void giveBackFramebuffer(const FramebufferPair &before);

    /// The unit that is to be active, as GL_TEXTUREn.
    unsigned int activeUnit();
    /// Says that a unit is to be active and returns the one that was, as GL_TEXTUREn; that is for giveBackUnit.
    unsigned int activate(int unit);
    void giveBackUnit(unsigned int before);
    /// Makes the unit active that is to be. In front of every call that goes to the texture of the active unit: the
    /// texture may have been there already when it was bound, or another one unbound since.
    void settleUnit();
    /// To the active unit, which is \a unit.
    unsigned int takeTexture(int unit, unsigned int target, unsigned int name);
    void giveBackTexture(int unit, unsigned int target, unsigned int before);
    /// Brings back what is owed to a unit, as settle does.
    void settleTexture(int unit, unsigned int target);
    /// Binds at once, and leaves the active unit the one it is.
    void bindTexture(int unit, unsigned int target, unsigned int name);
    /// Takes the sampler off a unit, which is active, and returns its name.
    unsigned int takeSampler(int unit);
    void giveBackSampler(int unit, unsigned int before);

    void settleAll();
    /// The name is about to be deleted in this context.
    void aboutToDelete(NameKind kind, unsigned int name);

    /// Whether the pixel store is known to be at its default, with no pixel buffer bound.
    bool isPixelStoreKnown() const;
    void knowPixelStore(bool known);

private:
    struct Slot
    {
        unsigned int now = 0; ///< Really bound, where it is known.
        unsigned int owed = 0;
        unsigned int epoch = 0; ///< In which it is known; see ThreadContext.
        unsigned short taken = 0; ///< How often, and not given back.
        bool owes = false;
    };
    static constexpr int kUnits = 64;
    static constexpr int kTargets = 4;
    struct Unit
    {
        std::array<Slot, kTargets> textures;
        Slot sampler;
    };

    Slot &slot(BindingPoint point) { return _slots[std::size_t(point)]; }
    Slot *textureSlot(int unit, unsigned int target);
    void reallyBind(BindingPoint point, unsigned int name);
    void owe(Slot &slot, unsigned int name);
    void bindBothFramebuffers(unsigned int name);
    void activateForNow(int unit);
    void reallyActivate(unsigned int unit);
    void settleUnits();

    std::array<Slot, std::size_t(BindingPoint::Count)> _slots;
    std::array<Unit, kUnits> _units;
    Slot _active;
    quint64 _usedUnits = 0; ///< Where a slot may be known or owe.
    unsigned int _pixelStoreEpoch = 0;
};

/// A stretch of the library's own code, in which it keeps track of what is bound. Passes open one in start, and a
/// pipeline one around its frame; they nest. At the end of the outermost all is bound that was bound before, and in
/// between wherever HostCode is announced. Also a ContextScope.
class KVO_GL_EXPORT BindingScope
{
public:
    BindingScope();
    ~BindingScope();
    BindingScope(const BindingScope &) = delete;
    BindingScope &operator=(const BindingScope &) = delete;
    /// Whether a usable context is current.
    explicit operator bool() const { return bool(_context); }

    /// For the rest of the innermost scope nothing is tracked: for objects whose class is the host's, which binds them
    /// as it likes.
    static void stopTracking();

private:
    ContextScope _context;
    int _before;
};

/// Binds a framebuffer for drawing or for reading at once, and for good: what was bound before does not come
/// back. What is owed to the other one is settled.
KVO_GL_EXPORT void bindFramebufferNow(unsigned int target, unsigned int name);
/// What is bound for drawing or for reading, without asking GL where it is known.
KVO_GL_EXPORT unsigned int boundFramebuffer(unsigned int target);
/// See Bindings::settleUnit; of the current context.
KVO_GL_EXPORT void settleActiveUnit();

} // namespace Brevane::Kvo
