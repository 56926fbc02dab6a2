#pragma once

#include <optional>

namespace Brevane::Kvo::Test {

/// What a GL call that can fail does when it fails.
enum class GlFault {
    Memory, ///< Storage of a texture, buffer or renderbuffer: GL_OUT_OF_MEMORY, and there is none.
    Name, ///< glGen*, glCreateShader, glCreateProgram, glFenceSync: 0.
    Program, ///< A stage that does not compile, a program that does not link.
    Framebuffer, ///< glCheckFramebufferStatus says GL_FRAMEBUFFER_UNSUPPORTED.
    Access, ///< glMapBuffer* gives null, glClientWaitSync fails.
};

/// In its scope GL calls that can fail are counted, and one of them fails: what the library does without what it
/// asked for. Errors of GL that the library makes
/// by going on regardless are real ones. One at a time.
class GlFaults
{
public:
    /// Only counts.
    GlFaults() : GlFaults(-1) {}
    /// The nth call that can fail does, from 0; of one kind, where a kind is given.
    explicit GlFaults(int nth, std::optional<GlFault> kind = std::nullopt);
    /// That one and all after it.
    static GlFaults from(int nth) { return GlFaults(nth, std::nullopt, true); }
    ~GlFaults();
    GlFaults(const GlFaults &) = delete;
    GlFaults &operator=(const GlFaults &) = delete;

    /// Calls so far that could have failed.
    int calls() const { return _calls; }
    /// The one that did; null where none did.
    const char *failed() const { return _failed; }
    GlFault kind() const { return _failedKind; }

    /// For the recorder: whether a call fails now.
    static bool failsNow(GlFault kind, const char *name);

private:
    GlFaults(int nth, std::optional<GlFault> kind, bool goesOn);

    int _nth;
    std::optional<GlFault> _kind;
    bool _goesOn;
    int _calls = 0;
    const char *_failed = nullptr;
    GlFault _failedKind = GlFault::Memory;
};

/// A context that is lost after some more calls: from then on calls do nothing and give nothing, glGetError says
/// GL_CONTEXT_LOST without end, and glGetGraphicsResetStatus that somebody is guilty. One at a time.
class LostContext
{
public:
    /// Never, with a negative number: only counts.
    explicit LostContext(int afterCalls);
    ~LostContext();
    LostContext(const LostContext &) = delete;
    LostContext &operator=(const LostContext &) = delete;

    int calls() const { return _calls; }
    bool isLost() const { return _after >= 0 && _calls > _after; }

    /// For the recorder: whether a call goes nowhere.
    static bool swallows();

private:
    int _after;
    int _calls = 0;
};

} // namespace Brevane::Kvo::Test
