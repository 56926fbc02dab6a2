#include "glreplay.h"

#include "support/glfunctions.h"

#include <epoxy/egl.h>
#include <epoxy/gl.h>

#include <bit>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <initializer_list>
#include <iterator>
#include <map>
#include <string_view>
#include <type_traits>
#include <utility>

namespace Brevane::Kvo::Bench {

namespace {

// The calls that passes make in a steady frame, without sampling parameters.
// clang-format off
#define KVO_REPLAYED(X)                                                                                                \
    X(ActiveTexture) X(BindBuffer) X(BindBufferBase) X(BindBufferRange) X(BindFramebuffer) X(BindImageTexture)         \
    X(BindTexture) X(BindVertexArray) X(BlendColor) X(BlendEquation) X(BlendFunc) X(BlendFuncSeparate)                 \
    X(BlitFramebuffer) X(BufferSubData) X(CheckFramebufferStatus) X(Clear) X(ClearBufferfi) X(ClearBufferfv)           \
    X(ClearBufferiv) X(GetFramebufferAttachmentParameteriv) X(GetVertexAttribIuiv)                                     \
    X(ClearBufferuiv) X(ClearColor) X(ClearStencil) X(ColorMask) X(CopyBufferSubData) X(DepthFunc) X(DepthMask) X(DepthRange)               \
    X(Disable) X(Disablei) X(Enablei) X(ScissorIndexed) X(DrawArrays) X(DrawBuffer) X(DrawBuffers) X(DrawElements) X(Enable) X(FramebufferTexture)              \
    X(FramebufferTexture2D) X(FramebufferTextureLayer) X(FrontFace) X(GenerateMipmap) X(GetBooleanv)                   \
    X(GetFloatv) X(GetIntegeri_v) X(GetInteger64i_v) X(GetIntegerv) X(GetTexLevelParameteriv)                          \
    X(GetTexParameteriv) X(IsEnabled) X(MemoryBarrier) X(MultiDrawElementsIndirect) X(ReadBuffer)        \
    X(ReadPixels) X(Scissor) X(StencilFunc) X(StencilFuncSeparate) X(StencilMask) X(StencilMaskSeparate) X(StencilOp) X(StencilOpSeparate) X(Uniform1f)                  \
    X(Uniform1fv) X(Uniform1i) X(Uniform1ui) X(Uniform2fv) X(Uniform3fv) X(Uniform4fv) X(UniformMatrix4fv)             \
    X(UseProgram) X(VertexAttribI1ui) X(VertexAttribI4uiv) X(Viewport) X(ViewportIndexedf)
// clang-format on

enum Function : int {
#define X(name) name,
    KVO_REPLAYED(X)
#undef X
        Count
};

constexpr const char *kNames[] = {
#define X(name) "gl" #name,
    KVO_REPLAYED(X)
#undef X
};

int knownFunction(const char *name)
{
    for (int i = 0; i < Count; ++i)
        if (std::strcmp(kNames[i], name) == 0)
            return i;
    std::fprintf(stderr, "%s is not known to the replay\n", name);
    std::abort();
}

constexpr bool isQuery(std::string_view name)
{
    return name.starts_with("glGet") || name.starts_with("glIs") || name == "glCheckFramebufferStatus";
}

// Queries, and filters and wraps, which a program of its own would set when it makes its textures.
bool isLeftOut(std::string_view name)
{
    return isQuery(name) || name.starts_with("glTexParameter");
}

// What a binding call replaces; texture bindings carry their unit.
using BindingPoint = std::pair<int, double>;

void *pointer(double address)
{
    return reinterpret_cast<void *>(static_cast<uintptr_t>(address));
}

} // namespace

GLReplay::Call GLReplay::ready(const Test::GlCall &call, int function)
{
    Call made{function, call.args, {}, {}};
    for (double value : call.data) {
        made.floats.push_back(float(value));
        made.names.push_back(unsigned(value));
    }
    return made;
}

GLReplay::GLReplay(const Test::GlCalls &recorded)
{
    std::map<BindingPoint, double> wanted;
    std::map<BindingPoint, double> present;
    double wantedUnit = GL_TEXTURE0;
    double presentUnit = -1;

    const auto emit = [this](int function, std::vector<double> args) {
        _calls.push_back({function, std::move(args), {}, {}});
    };
    const auto bind = [&](int function) {
        for (const auto &[point, name] : wanted) {
            if (point.first != function)
                continue;
            const auto before = present.find(point);
            if (before != present.end() && before->second == name)
                continue;
            if (function == BindTexture) {
                // key of a texture: unit * 2^16 + target
                const double unit = double(qint64(point.second) >> 16);
                const double target = double(qint64(point.second) & 0xFFFF);
                if (name == 0)
                    continue;
                if (presentUnit != unit)
                    emit(ActiveTexture, {unit});
                presentUnit = unit;
                emit(BindTexture, {target, name});
            } else if (function == BindFramebuffer || function == BindBuffer) {
                emit(function, {point.second, name});
            } else {
                emit(function, {name});
            }
            present[point] = name;
        }
    };

    for (const Test::GlCall &call : recorded.all()) {
        if (isLeftOut(call.name))
            continue;
        const int function = knownFunction(call.name);
        switch (function) {
        case ActiveTexture: wantedUnit = call.args[0]; continue;
        case BindTexture: wanted[{BindTexture, wantedUnit * 65536 + call.args[0]}] = call.args[1]; continue;
        case BindFramebuffer:
            if (call.args[0] == GL_FRAMEBUFFER) {
                wanted[{BindFramebuffer, GL_DRAW_FRAMEBUFFER}] = call.args[1];
                wanted[{BindFramebuffer, GL_READ_FRAMEBUFFER}] = call.args[1];
            } else {
                wanted[{BindFramebuffer, call.args[0]}] = call.args[1];
            }
            continue;
        case BindBuffer: wanted[{BindBuffer, call.args[0]}] = call.args[1]; continue;
        // Undone behind a draw, where nothing reads it any more.
        case BindBufferBase:
            if (call.args[2] == 0)
                continue;
            break;
        case UseProgram:
        case BindVertexArray: wanted[{function, 0}] = call.args[0]; continue;
        case Uniform1f:
        case Uniform1fv:
        case Uniform1i:
        case Uniform1ui:
        case Uniform2fv:
        case Uniform3fv:
        case Uniform4fv:
        case UniformMatrix4fv: bind(UseProgram); break;
        case VertexAttribI1ui: bind(BindVertexArray); break;
        case Clear:
        case ClearBufferfi:
        case ClearBufferfv:
        case ClearBufferuiv:
        case DrawBuffer:
        case DrawBuffers:
        case ReadBuffer:
        case FramebufferTexture:
        case FramebufferTexture2D:
        case FramebufferTextureLayer:
        case ReadPixels:
        case BlitFramebuffer: bind(BindFramebuffer); break;
        case GenerateMipmap:
            bind(BindTexture);
            if (presentUnit != wantedUnit)
                emit(ActiveTexture, {wantedUnit});
            presentUnit = wantedUnit;
            break;
        case DrawArrays:
        case DrawElements:
        case MultiDrawElementsIndirect:
            for (int binding : {BindFramebuffer, UseProgram, BindVertexArray, BindTexture, BindBuffer})
                bind(binding);
            break;
        default: break;
        }
        _calls.push_back(ready(call, function));
    }
}

void GLReplay::run() const
{
    for (const Call &c : _calls) {
        const auto &a = c.args;
        const auto u = [&a](size_t i) { return GLuint(a[i]); };
        const auto i = [&a](size_t k) { return GLint(a[k]); };
        const auto f = [&a](size_t k) { return GLfloat(a[k]); };
        switch (c.function) {
        case ActiveTexture: glActiveTexture(u(0)); break;
        case BindBuffer: glBindBuffer(u(0), u(1)); break;
        case BindBufferBase: glBindBufferBase(u(0), u(1), u(2)); break;
        case BindBufferRange: glBindBufferRange(u(0), u(1), u(2), GLintptr(a[3]), GLsizeiptr(a[4])); break;
        case BindFramebuffer: glBindFramebuffer(u(0), u(1)); break;
        case BindImageTexture: glBindImageTexture(u(0), u(1), i(2), a[3] != 0, i(4), u(5), u(6)); break;
        case BindTexture: glBindTexture(u(0), u(1)); break;
        case BindVertexArray: glBindVertexArray(u(0)); break;
        case BlendColor: glBlendColor(f(0), f(1), f(2), f(3)); break;
        case BlendEquation: glBlendEquation(u(0)); break;
        case BlendFunc: glBlendFunc(u(0), u(1)); break;
        case BlendFuncSeparate: glBlendFuncSeparate(u(0), u(1), u(2), u(3)); break;
        case BufferSubData: {
            // What it was is gone. Passes put a counter back to 0, never more.
            constexpr GLuint kZero = 0;
            if (a[2] == sizeof kZero)
                glBufferSubData(u(0), GLintptr(a[1]), sizeof kZero, &kZero);
            break;
        }
        case BlitFramebuffer: glBlitFramebuffer(i(0), i(1), i(2), i(3), i(4), i(5), i(6), i(7), u(8), u(9)); break;
        case Clear: glClear(u(0)); break;
        case ClearBufferfi: glClearBufferfi(u(0), i(1), f(2), i(3)); break;
        case ClearBufferfv: glClearBufferfv(u(0), i(1), c.floats.data()); break;
        case ClearBufferiv: {
            constexpr GLint kZeros[4] = {};
            glClearBufferiv(u(0), i(1), kZeros);
            break;
        }
        case ClearBufferuiv: {
            constexpr GLuint kZeros[4] = {};
            glClearBufferuiv(u(0), i(1), kZeros);
            break;
        }
        case ClearColor: glClearColor(f(0), f(1), f(2), f(3)); break;
        case ClearStencil: glClearStencil(i(0)); break;
        case CopyBufferSubData:
            glCopyBufferSubData(u(0), u(1), GLintptr(a[2]), GLintptr(a[3]), GLsizeiptr(a[4]));
            break;
        case ColorMask: glColorMask(a[0] != 0, a[1] != 0, a[2] != 0, a[3] != 0); break;
        case DepthFunc: glDepthFunc(u(0)); break;
        case DepthRange: glDepthRange(a[0], a[1]); break;
        case DepthMask: glDepthMask(a[0] != 0); break;
        case Disable: glDisable(u(0)); break;
        case Disablei: glDisablei(u(0), u(1)); break;
        case DrawArrays: glDrawArrays(u(0), i(1), i(2)); break;
        case DrawBuffer: glDrawBuffer(u(0)); break;
        case DrawBuffers: glDrawBuffers(i(0), c.names.data()); break;
        case DrawElements: glDrawElements(u(0), i(1), u(2), pointer(a[3])); break;
        case Enable: glEnable(u(0)); break;
        case Enablei: glEnablei(u(0), u(1)); break;
        case FramebufferTexture: glFramebufferTexture(u(0), u(1), u(2), i(3)); break;
        case FramebufferTexture2D: glFramebufferTexture2D(u(0), u(1), u(2), u(3), i(4)); break;
        case FramebufferTextureLayer: glFramebufferTextureLayer(u(0), u(1), u(2), i(3), i(4)); break;
        case FrontFace: glFrontFace(u(0)); break;
        case GenerateMipmap: glGenerateMipmap(u(0)); break;
        case MemoryBarrier: glMemoryBarrier(u(0)); break;
        case MultiDrawElementsIndirect: glMultiDrawElementsIndirect(u(0), u(1), pointer(a[2]), i(3), i(4)); break;
        case ReadBuffer: glReadBuffer(u(0)); break;
        case ReadPixels: {
            // Where the pass read to is gone. Passes read a pixel, never more.
            static float pixel[4];
            if (a[2] * a[3] == 1)
                glReadPixels(i(0), i(1), i(2), i(3), u(4), u(5), pixel);
            break;
        }
        case Scissor: glScissor(i(0), i(1), i(2), i(3)); break;
        case ScissorIndexed: glScissorIndexed(u(0), i(1), i(2), i(3), i(4)); break;
        case StencilFunc: glStencilFunc(u(0), i(1), u(2)); break;
        case StencilFuncSeparate: glStencilFuncSeparate(u(0), u(1), i(2), u(3)); break;
        case StencilMaskSeparate: glStencilMaskSeparate(u(0), u(1)); break;
        case StencilOpSeparate: glStencilOpSeparate(u(0), u(1), u(2), u(3)); break;
        case StencilMask: glStencilMask(u(0)); break;
        case StencilOp: glStencilOp(u(0), u(1), u(2)); break;
        case Uniform1f: glUniform1f(i(0), f(1)); break;
        case Uniform1fv: glUniform1fv(i(0), i(1), c.floats.data()); break;
        case Uniform1i: glUniform1i(i(0), i(1)); break;
        case Uniform1ui: glUniform1ui(i(0), u(1)); break;
        case Uniform2fv: glUniform2fv(i(0), i(1), c.floats.data()); break;
        case Uniform3fv: glUniform3fv(i(0), i(1), c.floats.data()); break;
        case Uniform4fv: glUniform4fv(i(0), i(1), c.floats.data()); break;
        case UniformMatrix4fv: glUniformMatrix4fv(i(0), i(1), a[2] != 0, c.floats.data()); break;
        case UseProgram: glUseProgram(u(0)); break;
        case VertexAttribI1ui: glVertexAttribI1ui(u(0), u(1)); break;
        case VertexAttribI4uiv: {
            // Data of integers is not kept; passes put back what is 0, 0, 0, 1 by default.
            constexpr GLuint kDefault[4] = {0, 0, 0, 1};
            glVertexAttribI4uiv(u(0), kDefault);
            break;
        }
        case Viewport: glViewport(i(0), i(1), i(2), i(3)); break;
        case ViewportIndexedf: glViewportIndexedf(GLuint(i(0)), f(1), f(2), f(3), f(4)); break;
        default: break;
        }
    }
}

namespace {

struct EntryPoints
{
#define X(name) decltype(epoxy_gl##name) name;
    KVO_GL_FUNCTIONS(X)
#undef X
};

EntryPoints currentEntryPoints()
{
    return {
#define X(name) epoxy_gl##name,
        KVO_GL_FUNCTIONS(X)
#undef X
    };
}

void setEntryPoints(const EntryPoints &points)
{
#define X(name) epoxy_gl##name = points.name;
    KVO_GL_FUNCTIONS(X)
#undef X
}

// epoxy's pointers begin at functions that look the driver's up and overwrite them; these are the driver's.
const EntryPoints &bareEntryPoints()
{
    static const EntryPoints points = {
#define X(name) reinterpret_cast<decltype(epoxy_gl##name)>(eglGetProcAddress("gl" #name)),
        KVO_GL_FUNCTIONS(X)
#undef X
    };
    return points;
}

template <bool isQuery, typename Result, typename... Args>
Result doNothing(Args...)
{
    if constexpr (isQuery) {
        std::fprintf(stderr, "without GL a frame makes a query that nobody answers\n");
        std::abort();
    }
    return Result();
}

template <bool isQuery, typename Result, typename... Args>
constexpr auto idle(Result (*)(Args...))
{
    return &doNothing<isQuery, Result, Args...>;
}

GLAnswers *answersInUse = nullptr;

int valuesOf(GLenum query)
{
    switch (query) {
    case GL_VIEWPORT:
    case GL_SCISSOR_BOX:
    case GL_COLOR_CLEAR_VALUE:
    case GL_BLEND_COLOR:
    case GL_COLOR_WRITEMASK: return 4;
    case GL_DEPTH_RANGE: return 2;
    default: return 1;
    }
}

// One number for all parameters, which is enough to notice another question.
unsigned mixed(std::initializer_list<unsigned> parameters)
{
    unsigned sum = 0;
    for (unsigned parameter : parameters)
        sum = sum * 31 + parameter;
    return sum;
}

template <typename Value>
void learn(int function, unsigned parameters, int count, const Value *values)
{
    GLAnswers::Answer answer{function, parameters, count, {}};
    for (int i = 0; i < count; ++i) {
        if constexpr (std::is_floating_point_v<Value>)
            answer.values[i] = std::bit_cast<int>(float(values[i]));
        else
            answer.values[i] = values[i];
    }
    answersInUse->keep(answer);
}

template <typename Value>
void giveAnswer(int function, unsigned parameters, Value *values)
{
    const GLAnswers::Answer &answer = answersInUse->next(function, parameters);
    for (int i = 0; i < answer.count; ++i) {
        if constexpr (std::is_floating_point_v<Value>)
            values[i] = std::bit_cast<float>(int(answer.values[i]));
        else
            values[i] = Value(answer.values[i]);
    }
}

// The queries that passes make in a steady frame: name, parameters, those that make up the question,
// arguments, number of values.
#define KVO_QUERIES(X)                                                                                                 \
    X(GetBooleanv, (GLenum q, GLboolean * v), (q), (q, v), valuesOf(q))                                                \
    X(GetFloatv, (GLenum q, GLfloat * v), (q), (q, v), valuesOf(q))                                                    \
    X(GetIntegerv, (GLenum q, GLint * v), (q), (q, v), valuesOf(q))                                                    \
    X(GetIntegeri_v, (GLenum q, GLuint i, GLint * v), (q, i), (q, i, v), 1)                                            \
    X(GetVertexAttribIuiv, (GLuint i, GLenum q, GLuint * v), (i, q), (i, q, v), 4)                                     \
    X(GetFramebufferAttachmentParameteriv, (GLenum t, GLenum a, GLenum q, GLint * v), (t, a, q), (t, a, q, v), 1)      \
    X(GetInteger64i_v, (GLenum q, GLuint i, GLint64 * v), (q, i), (q, i, v), 1)                                        \
    X(GetTexParameteriv, (GLenum t, GLenum q, GLint * v), (t, q), (t, q, v), 1)                                        \
    X(GetTexLevelParameteriv, (GLenum t, GLint l, GLenum q, GLint * v), (t, GLuint(l), q), (t, l, q, v), 1)

#define KVO_UNPACK(...) __VA_ARGS__
#define X(name, parameters, key, arguments, count)                                                                     \
    void learn##name parameters                                                                                        \
    {                                                                                                                  \
        bareEntryPoints().name arguments;                                                                              \
        learn(int(name), mixed({KVO_UNPACK key}), count, v);                                                           \
    }                                                                                                                  \
    void answer##name parameters                                                                                       \
    {                                                                                                                  \
        giveAnswer(int(name), mixed({KVO_UNPACK key}), v);                                                             \
    }
KVO_QUERIES(X)
#undef X

GLboolean learnIsEnabled(GLenum capability)
{
    const GLboolean value = bareEntryPoints().IsEnabled(capability);
    learn(int(IsEnabled), capability, 1, &value);
    return value;
}

GLboolean answerIsEnabled(GLenum capability)
{
    return GLboolean(answersInUse->next(int(IsEnabled), capability).values[0]);
}

GLenum learnCheckFramebufferStatus(GLenum target)
{
    const GLenum value = bareEntryPoints().CheckFramebufferStatus(target);
    learn(int(CheckFramebufferStatus), target, 1, &value);
    return value;
}

GLenum answerCheckFramebufferStatus(GLenum target)
{
    return GLenum(answersInUse->next(int(CheckFramebufferStatus), target).values[0]);
}

} // namespace

const GLAnswers::Answer &GLAnswers::next(int function, unsigned query)
{
    if (_at >= _answers.size() || _answers[_at].function != function || _answers[_at].query != query) {
        std::fprintf(stderr, "without GL a frame asks %s, which it did not before\n", kNames[function]);
        std::abort();
    }
    return _answers[_at++];
}

void GLAnswers::_checkEnd() const
{
    if (_at != _answers.size()) {
        std::fprintf(stderr, "without GL a frame asks %zu times, not %zu\n", _at, _answers.size());
        std::abort();
    }
}

GLAnswers::Scope::Scope(GLAnswers *answers, Mode mode)
{
    EntryPoints points = bareEntryPoints();
    answersInUse = answers;
    if (mode == Mode::Learn) {
#define X(name, parameters, key, arguments, count) points.name = &learn##name;
        KVO_QUERIES(X)
#undef X
        points.IsEnabled = &learnIsEnabled;
        points.CheckFramebufferStatus = &learnCheckFramebufferStatus;
    } else {
        points = {
#define X(name) idle<isQuery("gl" #name)>(epoxy_gl##name),
            KVO_GL_FUNCTIONS(X)
#undef X
        };
#define X(name, parameters, key, arguments, count) points.name = &answer##name;
        KVO_QUERIES(X)
#undef X
        points.IsEnabled = &answerIsEnabled;
        points.CheckFramebufferStatus = &answerCheckFramebufferStatus;
    }
    setEntryPoints(points);
}

GLAnswers::Scope::~Scope()
{
    setEntryPoints(bareEntryPoints());
}

RecorderScope::RecorderScope()
{
    static EntryPoints wrapped = [] {
        Test::GlCalls::install();
        return currentEntryPoints();
    }();
    setEntryPoints(wrapped);
}

RecorderScope::~RecorderScope()
{
    setEntryPoints(bareEntryPoints());
}

} // namespace Brevane::Kvo::Bench
