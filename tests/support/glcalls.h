#pragma once

#include "support/glfunctions.h"

#include <QString>
#include <QStringList>

#include <functional>
#include <initializer_list>
#include <vector>

namespace Brevane::Kvo::Test {

/// Kinds of GL objects, as the recorder counts them.
enum class GlKind { Buffer, Framebuffer, Program, Query, Renderbuffer, Sampler, Shader, Sync, Texture, VertexArray };
inline constexpr int kGlKindCount = int(GlKind::VertexArray) + 1;

/// One recorded call. Arguments are numbers; a pointer is its address.
struct GlCall
{
    const char *name; ///< With "gl".
    std::vector<double> args;
    std::vector<double> data; ///< What a pointer argument pointed to: uniform values, object names, draw buffers …
};

/// Records GL calls from construction to destruction. Recorders nest.
///
///     GlCalls calls;
///     pass.start(nullptr);
///     EXPECT_EQ(calls.count("glClear"), 1);
///
/// Names that the recorder does not wrap fail the test, so that a misspelt name cannot pass as "never
/// called".
class GlCalls
{
public:
    GlCalls();
    ~GlCalls();
    GlCalls(const GlCalls &) = delete;
    GlCalls &operator=(const GlCalls &) = delete;

    const std::vector<GlCall> &all() const { return _calls; }
    int count(const char *name) const;
    /// Calls whose first arguments are these.
    int count(const char *name, std::initializer_list<double> args) const;
    std::vector<GlCall> calls(const char *name) const;
    /// Names in the order of the calls, of the given functions only.
    QStringList sequence(std::initializer_list<const char *> names) const;
    /// Index in all() of the nth such call with these first arguments, or -1.
    int indexOf(const char *name, std::initializer_list<double> args = {}, int nth = 0) const;

    /// GL objects made while recording.
    int created() const;
    int created(GlKind kind) const { return _created[int(kind)]; }
    /// Calls that allocate storage of a texture (glTexImage*, glTexStorage*, glCopyTexImage*).
    int textureAllocations() const;
    /// Calls that allocate storage of a buffer (glBufferData, glBufferStorage).
    int bufferAllocations() const;
    /// Calls that draw.
    int draws() const;
    /// Calls that change a texture image or a buffer's content or read pixels back: nothing that a
    /// steady frame has a reason for.
    int transfers() const;
    void clear();
    /// One line per call, for messages.
    QString toString() const;

    /// Puts the wrappers in place, once per process; needs EGL.
    static void install();

    /// GL objects of the process that were generated and not deleted.
    static int live(GlKind kind);
    static int live();
    /// Those of a kind whose label, as the current context knows it, passes a filter.
    static int live(GlKind kind, const std::function<bool(const QString &label)> &filter);
    /// One line per live object, with its label where the current context knows it.
    static QStringList liveObjects();
    /// Deletions of names that were not live, since the process began.
    static int unknownDeletions();
    static const char *nameOf(GlKind kind);

    /// In its scope glGetIntegerv answers a query with a value of the test's, a smaller limit for instance.
    class ForcedInteger
    {
    public:
        ForcedInteger(unsigned int query, int value);
        ~ForcedInteger();
        ForcedInteger(const ForcedInteger &) = delete;
        ForcedInteger &operator=(const ForcedInteger &) = delete;

    private:
        unsigned int _query;
    };

    /// What is live at its end is what was live at its beginning: for contexts that die with all their
    /// objects, which nobody then deletes.
    class DyingContexts
    {
    public:
        DyingContexts();
        ~DyingContexts();
        DyingContexts(const DyingContexts &) = delete;
        DyingContexts &operator=(const DyingContexts &) = delete;
    };

    /// Nothing is recorded while one of these exists: for probes inside a recorded stretch.
    class Pause
    {
    public:
        Pause();
        ~Pause();
        Pause(const Pause &) = delete;
        Pause &operator=(const Pause &) = delete;
    };

private:
    friend class GlCallsAccess;
    int countAny(std::initializer_list<const char *> names) const;

    std::vector<GlCall> _calls;
    int _created[kGlKindCount] = {};
};

} // namespace Brevane::Kvo::Test
