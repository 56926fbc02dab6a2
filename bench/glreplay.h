#pragma once

#include "support/glcalls.h"

#include <functional>
#include <vector>

namespace Brevane::Kvo::Bench {

/// The GL calls of a recorded frame, reduced to what the picture needs and ready to run again: the floor
/// that a pass is measured against.
///
/// Left out are queries, sampling parameters, bindings that are overwritten or undone before anything uses
/// them, and bindings of what is bound already.
class GLReplay
{
public:
    explicit GLReplay(const Test::GlCalls &recorded);

    void run() const;
    int callCount() const { return int(_calls.size()); }

private:
    struct Call
    {
        int function;
        std::vector<double> args;
        std::vector<float> floats;
        std::vector<unsigned> names;
    };
    static Call ready(const Test::GlCall &call, int function);
    std::vector<Call> _calls;
};

/// What GL answered to the queries of a frame. With it the frame runs without GL: calls do nothing, and
/// queries get the same answers. What it still takes then is the CPU time of the pass's own code.
class GLAnswers
{
public:
    /// Runs a steady frame and keeps what it asks.
    explicit GLAnswers(const std::function<void()> &frame)
    {
        const Scope learning(this, Mode::Learn);
        frame();
    }

    /// The frame must ask what it asked before; a program that does not ends with a message.
    template <typename Frame>
    void runWithoutGL(int times, Frame &&frame)
    {
        const Scope silence(this, Mode::Answer);
        for (int i = 0; i < times; ++i) {
            _at = 0;
            frame();
            _checkEnd();
        }
    }

    struct Answer
    {
        int function;
        unsigned query;
        int count;
        long long values[4];
    };
    void keep(const Answer &answer) { _answers.push_back(answer); }
    const Answer &next(int function, unsigned query);

private:
    enum class Mode { Learn, Answer };
    class Scope
    {
    public:
        Scope(GLAnswers *answers, Mode mode);
        ~Scope();
        Scope(const Scope &) = delete;
        Scope &operator=(const Scope &) = delete;
    };
    void _checkEnd() const;

    std::vector<Answer> _answers;
    std::size_t _at = 0;
};

/// Takes the call recorder's wrappers out again, so that they cost nothing while times are measured.
class RecorderScope
{
public:
    RecorderScope();
    ~RecorderScope();
    RecorderScope(const RecorderScope &) = delete;
    RecorderScope &operator=(const RecorderScope &) = delete;
};

} // namespace Brevane::Kvo::Bench
