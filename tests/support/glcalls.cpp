#include "support/glcalls.h"

#include "support/allocations.h"
#include "support/glcontext.h"
#include "support/glfaults.h"

#include <epoxy/egl.h>
#include <epoxy/gl.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <map>
#include <optional>
#include <string_view>
#include <tuple>
#include <type_traits>
#include <utility>

namespace Brevane::Kvo::Test {

namespace {

enum class GlFunction : int {
#define X(name) name,
    KVO_GL_FUNCTIONS(X)
#undef X
        Count
};

constexpr const char *kNames[] = {
#define X(name) "gl" #name,
    KVO_GL_FUNCTIONS(X)
#undef X
};

constexpr std::string_view nameOfFunction(GlFunction function)
{
    return kNames[int(function)];
}

/// Where the values behind a pointer argument are: args[pointer] points to perCount * args[count].
struct DataRule
{
    int pointer = -1;
    int count = -1;
    int perCount = 1;
};

constexpr DataRule dataRule(std::string_view name)
{
    const auto digit = [&](size_t at) { return name[at] - '0'; };
    const bool plural = name.back() == 's';
    if ((name.starts_with("glGen") || name.starts_with("glDelete")) && plural)
        return {1, 0, 1};
    if (name == "glDrawBuffers")
        return {1, 0, 1};
    if (name.starts_with("glUniformMatrix"))
        return {3, 1, digit(15) * digit(15)};
    if (name.starts_with("glUniform") && name.back() == 'v')
        return {2, 1, digit(9)};
    if (name.starts_with("glClearBuffer") && name.back() == 'v')
        return {2, -1, 1};
    return {};
}

constexpr int kindOf(GlFunction function)
{
    switch (function) {
    case GlFunction::GenBuffers:
    case GlFunction::DeleteBuffers: return int(GlKind::Buffer);
    case GlFunction::GenFramebuffers:
    case GlFunction::DeleteFramebuffers: return int(GlKind::Framebuffer);
    case GlFunction::CreateProgram:
    case GlFunction::DeleteProgram: return int(GlKind::Program);
    case GlFunction::GenQueries:
    case GlFunction::DeleteQueries: return int(GlKind::Query);
    case GlFunction::GenRenderbuffers:
    case GlFunction::DeleteRenderbuffers: return int(GlKind::Renderbuffer);
    case GlFunction::GenSamplers:
    case GlFunction::DeleteSamplers: return int(GlKind::Sampler);
    case GlFunction::CreateShader:
    case GlFunction::DeleteShader: return int(GlKind::Shader);
    case GlFunction::FenceSync:
    case GlFunction::DeleteSync: return int(GlKind::Sync);
    case GlFunction::GenTextures:
    case GlFunction::DeleteTextures: return int(GlKind::Texture);
    case GlFunction::GenVertexArrays:
    case GlFunction::DeleteVertexArrays: return int(GlKind::VertexArray);
    default: return -1;
    }
}

// How a call fails that can.
constexpr std::optional<GlFault> faultOf(GlFunction function)
{
    switch (function) {
    case GlFunction::TexImage1D:
    case GlFunction::TexImage2D:
    case GlFunction::TexImage3D:
    case GlFunction::TexStorage2D:
    case GlFunction::TexStorage3D:
    case GlFunction::CopyTexImage2D:
    case GlFunction::BufferData:
    case GlFunction::BufferStorage:
    case GlFunction::RenderbufferStorage: return GlFault::Memory;
    case GlFunction::GenBuffers:
    case GlFunction::GenFramebuffers:
    case GlFunction::GenQueries:
    case GlFunction::GenRenderbuffers:
    case GlFunction::GenSamplers:
    case GlFunction::GenTextures:
    case GlFunction::GenVertexArrays:
    case GlFunction::CreateProgram:
    case GlFunction::CreateShader:
    case GlFunction::FenceSync: return GlFault::Name;
    case GlFunction::GetShaderiv:
    case GlFunction::GetProgramiv: return GlFault::Program;
    case GlFunction::CheckFramebufferStatus: return GlFault::Framebuffer;
    case GlFunction::MapBuffer:
    case GlFunction::MapBufferRange:
    case GlFunction::ClientWaitSync: return GlFault::Access;
    default: return {};
    }
}

// Which of the arguments of a call are the sides of what it allocates: first and last.
constexpr std::pair<int, int> sidesOf(GlFunction function)
{
    switch (function) {
    case GlFunction::TexImage1D: return {3, 3};
    case GlFunction::TexImage2D: return {3, 4};
    case GlFunction::TexImage3D: return {3, 5};
    case GlFunction::CopyTexImage2D: return {5, 6};
    case GlFunction::BufferData: return {1, 1};
    default: return {-1, -1};
    }
}

GlFaults *activeFaults = nullptr;
LostContext *activeLoss = nullptr;
GLenum pendingError = GL_NO_ERROR;

std::vector<GlCalls *> activeRecorders;
int pauseDepth = 0;
std::map<std::pair<int, double>, int> liveNames;
std::map<std::pair<int, double>, int> liveNamesBeforeDeath;
int unknownDeletionCount = 0;
int unknownDeletionCountBeforeDeath = 0;
std::map<GLenum, GLint> forcedIntegers;
bool installed = false;

} // namespace

class GlCallsAccess
{
public:
    static void note(GlFunction function, const std::vector<double> &args, const std::vector<double> &data,
                     double result)
    {
        if (const int kind = kindOf(function); kind >= 0)
            noteObjects(kind, nameOfFunction(function), args, data, result);
        if (pauseDepth > 0)
            return;
        for (GlCalls *recorder : activeRecorders)
            recorder->_calls.push_back({kNames[int(function)], args, data});
    }

private:
    static void noteObjects(int kind, std::string_view name, const std::vector<double> &args,
                            const std::vector<double> &data, double result)
    {
        const bool plural = name.back() == 's';
        if (name.starts_with("glDelete")) {
            if (plural)
                std::for_each(data.begin(), data.end(), [&](double object) { remove(kind, object); });
            else
                remove(kind, args[0]);
        } else if (plural) {
            std::for_each(data.begin(), data.end(), [&](double object) { add(kind, object); });
        } else {
            add(kind, result);
        }
    }

    static void add(int kind, double object)
    {
        if (object == 0)
            return;
        ++liveNames[{kind, object}];
        if (pauseDepth == 0)
            for (GlCalls *recorder : activeRecorders)
                ++recorder->_created[kind];
    }

    static void remove(int kind, double object)
    {
        if (object == 0)
            return;
        const auto found = liveNames.find({kind, object});
        if (found == liveNames.end())
            ++unknownDeletionCount;
        else if (--found->second == 0)
            liveNames.erase(found);
    }
};

namespace {

template <typename T>
double number(T value)
{
    if constexpr (std::is_pointer_v<T>)
        return double(reinterpret_cast<quintptr>(value));
    else
        return double(value);
}

template <typename T>
void appendData(std::vector<double> &data, T values, int count)
{
    using Value = std::remove_cv_t<std::remove_pointer_t<T>>;
    if constexpr (std::is_pointer_v<T> && std::is_arithmetic_v<Value>) {
        for (int i = 0; values && i < count; ++i)
            data.push_back(double(values[i]));
    }
}

template <GlFunction function, auto *slot, typename Signature>
struct Wrapper;

template <GlFunction function, auto *slot, typename Result, typename... Args>
struct Wrapper<function, slot, Result (*)(Args...)>
{
    static inline Result (*real)(Args...) = nullptr;

    static Result call(Args... args)
    {
        const UncountedAllocations driverTime;
        if (activeLoss && pauseDepth == 0 && LostContext::swallows())
            return fromNowhere();
        if constexpr (faultOf(function)) {
            if (activeFaults && pauseDepth == 0 && canFail(args...)
                && GlFaults::failsNow(*faultOf(function), kNames[int(function)]))
                return fail(args...);
        }
        if constexpr (function == GlFunction::GetError) {
            if (pendingError != GL_NO_ERROR)
                return std::exchange(pendingError, GLenum(GL_NO_ERROR));
        }
        if constexpr (std::is_void_v<Result>) {
            real(args...);
            if constexpr (function == GlFunction::GetIntegerv)
                force(args...);
            note(0, args...);
        } else {
            const Result result = real(args...);
            note(number(result), args...);
            return result;
        }
    }

    // What calls say when the context is lost.
    static Result fromNowhere()
    {
        if constexpr (function == GlFunction::GetError)
            return GL_CONTEXT_LOST;
        else if constexpr (function == GlFunction::GetGraphicsResetStatus)
            return GL_GUILTY_CONTEXT_RESET;
        else if constexpr (function == GlFunction::ClientWaitSync)
            return GL_WAIT_FAILED;
        else if constexpr (!std::is_void_v<Result>)
            return Result{};
    }

    static bool canFail(Args... args)
    {
        const auto all = std::tuple(args...);
        if constexpr (function == GlFunction::TexImage2D || function == GlFunction::TexImage3D)
            return std::get<0>(all) != GL_PROXY_TEXTURE_2D && std::get<0>(all) != GL_PROXY_TEXTURE_2D_ARRAY;
        else if constexpr (function == GlFunction::GetShaderiv)
            return std::get<1>(all) == GL_COMPILE_STATUS;
        else if constexpr (function == GlFunction::GetProgramiv)
            return std::get<1>(all) == GL_LINK_STATUS;
        else
            return true;
    }

    static Result fail(Args... args)
    {
        auto all = std::tuple(args...);
        if constexpr (faultOf(function) == GlFault::Memory) {
            // What there was before is gone as well: nothing may rely on it.
            constexpr std::pair<int, int> sides = sidesOf(function);
            if constexpr (sides.first >= 0) {
                [&]<std::size_t... i>(std::index_sequence<i...>)
                {
                    ((std::get<std::size_t(sides.first) + i>(all) = 0), ...);
                }
                (std::make_index_sequence<std::size_t(sides.second - sides.first + 1)>());
                std::apply(real, all);
            }
            pendingError = GL_OUT_OF_MEMORY;
        } else if constexpr (faultOf(function) == GlFault::Name && std::is_void_v<Result>) {
            std::fill_n(std::get<1>(all), std::get<0>(all), 0u);
        } else if constexpr (faultOf(function) == GlFault::Program) {
            *std::get<2>(all) = GL_FALSE;
        } else if constexpr (function == GlFunction::CheckFramebufferStatus) {
            return GL_FRAMEBUFFER_UNSUPPORTED;
        } else if constexpr (function == GlFunction::ClientWaitSync) {
            return GL_WAIT_FAILED;
        } else {
            return Result{};
        }
    }

    static void force(GLenum query, GLint *value)
    {
        if (const auto found = forcedIntegers.find(query); found != forcedIntegers.end())
            std::fill_n(value, query == GL_MAX_VIEWPORT_DIMS ? 2 : 1, found->second);
    }

    static void note(double result, Args... args)
    {
        if (kindOf(function) < 0 && (activeRecorders.empty() || pauseDepth > 0))
            return;
        std::vector<double> numbers{number(args)...};
        std::vector<double> data;
        constexpr DataRule rule = dataRule(nameOfFunction(function));
        if constexpr (rule.pointer >= 0) {
            // glClearBuffer*v takes four values for a colour buffer and one otherwise
            const int count =
                rule.count >= 0 ? int(numbers[size_t(rule.count)]) * rule.perCount : (numbers[0] == GL_COLOR ? 4 : 1);
            int index = 0;
            ((index++ == rule.pointer ? appendData(data, args, count) : void()), ...);
        }
        GlCallsAccess::note(function, numbers, data, result);
    }

    static void install()
    {
        // the pointer starts at a resolver that overwrites it on the first call, so the real entry
        // point has to be looked up here
        real = reinterpret_cast<Result (*)(Args...)>(eglGetProcAddress(kNames[int(function)]));
        if (real)
            *slot = &call;
    }
};

bool isWrapped(const char *name)
{
    return std::any_of(std::begin(kNames), std::end(kNames), [&](const char *n) { return std::strcmp(n, name) == 0; });
}

void requireWrapped(const char *name)
{
    if (!isWrapped(name))
        ADD_FAILURE() << name << " is not in support/glfunctions.h";
}

bool matches(const GlCall &call, const char *name, std::initializer_list<double> args)
{
    return std::strcmp(call.name, name) == 0 && args.size() <= call.args.size()
           && std::equal(args.begin(), args.end(), call.args.begin());
}

QString labelOf(int kind, GLuint name)
{
    static constexpr GLenum kIdentifiers[kGlKindCount] = {GL_BUFFER,       GL_FRAMEBUFFER, GL_PROGRAM, GL_QUERY,
                                                          GL_RENDERBUFFER, GL_SAMPLER,     GL_SHADER,  GL_NONE,
                                                          GL_TEXTURE,      GL_VERTEX_ARRAY};
    if (kIdentifiers[kind] == GL_NONE || !eglGetCurrentContext() || !epoxy_has_gl_extension("GL_KHR_debug"))
        return QString();
    char label[256] = "";
    const ExpectedGLErrors maybeOfAnotherContext;
    glGetObjectLabel(kIdentifiers[kind], name, sizeof label, nullptr, label);
    return QString::fromUtf8(label);
}

} // namespace

GlCalls::GlCalls()
{
    const UncountedAllocations ours;
    if (!installed)
        ADD_FAILURE() << "the call recorder is not installed";
    _calls.reserve(4096);
    activeRecorders.push_back(this);
}

GlCalls::~GlCalls()
{
    const UncountedAllocations ours;
    activeRecorders.erase(std::find(activeRecorders.begin(), activeRecorders.end(), this));
}

int GlCalls::count(const char *name) const
{
    return count(name, {});
}

int GlCalls::count(const char *name, std::initializer_list<double> args) const
{
    requireWrapped(name);
    return int(std::count_if(_calls.begin(), _calls.end(), [&](const GlCall &c) { return matches(c, name, args); }));
}

std::vector<GlCall> GlCalls::calls(const char *name) const
{
    requireWrapped(name);
    std::vector<GlCall> found;
    std::copy_if(_calls.begin(), _calls.end(), std::back_inserter(found),
                 [&](const GlCall &c) { return matches(c, name, {}); });
    return found;
}

QStringList GlCalls::sequence(std::initializer_list<const char *> names) const
{
    std::for_each(names.begin(), names.end(), requireWrapped);
    QStringList found;
    for (const GlCall &call : _calls)
        if (std::any_of(names.begin(), names.end(), [&](const char *n) { return std::strcmp(n, call.name) == 0; }))
            found.append(QString::fromLatin1(call.name));
    return found;
}

int GlCalls::indexOf(const char *name, std::initializer_list<double> args, int nth) const
{
    requireWrapped(name);
    for (size_t i = 0; i < _calls.size(); ++i)
        if (matches(_calls[i], name, args) && nth-- == 0)
            return int(i);
    return -1;
}

int GlCalls::created() const
{
    int sum = 0;
    for (int kind : _created)
        sum += kind;
    return sum;
}

int GlCalls::countAny(std::initializer_list<const char *> names) const
{
    int sum = 0;
    for (const char *name : names)
        sum += count(name);
    return sum;
}

int GlCalls::textureAllocations() const
{
    // A proxy only asks.
    int proxies = 0;
    for (const auto &[name, target] :
         {std::pair("glTexImage2D", GL_PROXY_TEXTURE_2D), std::pair("glTexImage3D", GL_PROXY_TEXTURE_2D_ARRAY)})
        proxies += count(name, {double(target)});
    return countAny({"glTexImage1D", "glTexImage2D", "glTexImage2DMultisample", "glTexImage3D",
                     "glTexImage3DMultisample", "glTexStorage2D", "glTexStorage3D", "glCopyTexImage2D",
                     "glCompressedTexImage2D"})
           - proxies;
}

int GlCalls::bufferAllocations() const
{
    return countAny({"glBufferData", "glBufferStorage"});
}

int GlCalls::draws() const
{
    return int(std::count_if(_calls.begin(), _calls.end(), [](const GlCall &c) {
        const std::string_view name = c.name;
        return name.starts_with("glMultiDraw") || (name.starts_with("glDraw") && !name.starts_with("glDrawBuffer"));
    }));
}

int GlCalls::transfers() const
{
    return textureAllocations() + bufferAllocations()
           + countAny({"glTexSubImage1D", "glTexSubImage2D", "glTexSubImage3D", "glBufferSubData", "glReadPixels",
                       "glGetTexImage", "glGetBufferSubData", "glMapBuffer", "glMapBufferRange"});
}

void GlCalls::clear()
{
    _calls.clear();
    std::fill(std::begin(_created), std::end(_created), 0);
}

QString GlCalls::toString() const
{
    QString text;
    for (const GlCall &call : _calls) {
        text += QString::fromLatin1(call.name) + u'(';
        for (size_t i = 0; i < call.args.size(); ++i)
            text += (i ? QStringLiteral(", ") : QString()) + QString::number(call.args[i], 'g', 12);
        text += QStringLiteral(")\n");
    }
    return text;
}

void GlCalls::install()
{
    if (std::exchange(installed, true))
        return;
#define X(name) Wrapper<GlFunction::name, &epoxy_gl##name, decltype(epoxy_gl##name)>::install();
    KVO_GL_FUNCTIONS(X)
#undef X
}

int GlCalls::live(GlKind kind)
{
    int sum = 0;
    for (const auto &[object, count] : liveNames)
        sum += object.first == int(kind) ? count : 0;
    return sum;
}

int GlCalls::live()
{
    int sum = 0;
    for (const auto &[object, count] : liveNames)
        sum += count;
    return sum;
}

int GlCalls::live(GlKind kind, const std::function<bool(const QString &)> &filter)
{
    const Pause pause;
    int sum = 0;
    const auto copy = liveNames;
    for (const auto &[object, count] : copy)
        if (object.first == int(kind) && filter(labelOf(object.first, GLuint(object.second))))
            sum += count;
    return sum;
}

QStringList GlCalls::liveObjects()
{
    const Pause pause;
    QStringList lines;
    const auto copy = liveNames;
    for (const auto &[object, count] : copy)
        lines.append(QStringLiteral("%1 %2 x%3 '%4'")
                         .arg(QString::fromLatin1(nameOf(GlKind(object.first))))
                         .arg(object.second)
                         .arg(count)
                         .arg(labelOf(object.first, GLuint(object.second))));
    return lines;
}

int GlCalls::unknownDeletions()
{
    return unknownDeletionCount;
}

const char *GlCalls::nameOf(GlKind kind)
{
    static constexpr const char *kKindNames[kGlKindCount] = {"buffer",       "framebuffer", "program", "query",
                                                             "renderbuffer", "sampler",     "shader",  "sync",
                                                             "texture",      "vertex array"};
    return kKindNames[int(kind)];
}

GlCalls::ForcedInteger::ForcedInteger(unsigned int query, int value) : _query(query)
{
    forcedIntegers[query] = value;
}

GlCalls::ForcedInteger::~ForcedInteger()
{
    forcedIntegers.erase(_query);
}

GlCalls::DyingContexts::DyingContexts()
{
    liveNamesBeforeDeath = liveNames;
    unknownDeletionCountBeforeDeath = unknownDeletionCount;
}

GlCalls::DyingContexts::~DyingContexts()
{
    liveNames = liveNamesBeforeDeath;
    unknownDeletionCount = unknownDeletionCountBeforeDeath;
}

GlFaults::GlFaults(int nth, std::optional<GlFault> kind) : GlFaults(nth, kind, false) {}

GlFaults::GlFaults(int nth, std::optional<GlFault> kind, bool goesOn) : _nth(nth), _kind(kind), _goesOn(goesOn)
{
    activeFaults = this;
}

GlFaults::~GlFaults()
{
    activeFaults = nullptr;
}

bool GlFaults::failsNow(GlFault kind, const char *name)
{
    GlFaults &faults = *activeFaults;
    if (faults._kind && *faults._kind != kind)
        return false;
    const int call = faults._calls++;
    if (faults._nth < 0 || (faults._goesOn ? call < faults._nth : call != faults._nth))
        return false;
    faults._failed = name;
    faults._failedKind = kind;
    return true;
}

LostContext::LostContext(int afterCalls) : _after(afterCalls)
{
    activeLoss = this;
}

LostContext::~LostContext()
{
    activeLoss = nullptr;
}

bool LostContext::swallows()
{
    ++activeLoss->_calls;
    return activeLoss->isLost();
}

GlCalls::Pause::Pause()
{
    ++pauseDepth;
}

GlCalls::Pause::~Pause()
{
    --pauseDepth;
}

} // namespace Brevane::Kvo::Test
