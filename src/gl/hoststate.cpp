#include "gl/hoststate.h"

#include "gl/contextstate.h"
#include "gl/pixelstore.h"

#include <epoxy/gl.h>

#include <algorithm>
#include <limits>

namespace Brevane::Kvo {

namespace {

constexpr int kMaxNumbers = 64;
// What every context of OpenGL 3.2 has at least, and what no pass of ours goes beyond.
constexpr GLuint kDrawBuffers = 8;
constexpr GLuint kClipDistances = 8;
constexpr GLuint kAttributes = 16;
constexpr GLuint kViewports = 16;

using Numbers = double *;
using ConstNumbers = const double *;

void setCapability(GLenum capability, bool enabled)
{
    if (enabled)
        glEnable(capability);
    else
        glDisable(capability);
}

template <GLenum capability>
void readCapability(Numbers v)
{
    v[0] = glIsEnabled(capability);
}
template <GLenum capability>
void writeCapability(ConstNumbers v)
{
    setCapability(capability, v[0] != 0);
}

template <GLenum query, int count>
void readIntegers(Numbers v)
{
    // Some drivers answer the query for a mode of polygons with one number, others with two.
    GLint values[std::max(count, 2)] = {};
    glGetIntegerv(query, values);
    std::copy_n(values, count, v);
}

template <GLenum query, int count>
void readFloats(Numbers v)
{
    GLfloat values[count] = {};
    glGetFloatv(query, values);
    std::copy_n(values, count, v);
}

bool hasBlendPerBuffer()
{
    const ContextState *state = ContextState::current();
    return state && (state->version >= 40 || state->hasExtension("ARB_draw_buffers_blend"));
}

bool hasViewportArrays()
{
    const ContextState *state = ContextState::current();
    return state && (state->version >= 41 || state->hasExtension("ARB_viewport_array"));
}

// A bit for each of the things that have one switch per index.
template <GLenum capability, GLuint count>
void readSwitches(Numbers v)
{
    GLuint bits = 0;
    for (GLuint i = 0; i < count; ++i)
        bits |= GLuint(glIsEnabledi(capability, i) != 0) << i;
    v[0] = bits;
}
template <GLenum capability, GLuint count>
void writeSwitches(ConstNumbers v)
{
    const auto bits = GLuint(v[0]);
    if (bits == 0) {
        glDisable(capability);
        return;
    }
    for (GLuint i = 0; i < count; ++i) {
        if (bits >> i & 1u)
            glEnablei(capability, i);
        else
            glDisablei(capability, i);
    }
}

void readClipDistances(Numbers v)
{
    GLuint bits = 0;
    for (GLuint i = 0; i < kClipDistances; ++i)
        bits |= GLuint(glIsEnabled(GL_CLIP_DISTANCE0 + i) != 0) << i;
    v[0] = bits;
}
void writeClipDistances(ConstNumbers v)
{
    for (GLuint i = 0; i < kClipDistances; ++i)
        setCapability(GL_CLIP_DISTANCE0 + i, GLuint(v[0]) >> i & 1u);
}

void readColorMask(Numbers v)
{
    GLuint bits = 0;
    for (GLuint i = 0; i < kDrawBuffers; ++i) {
        GLboolean mask[4] = {};
        glGetBooleani_v(GL_COLOR_WRITEMASK, i, mask);
        for (GLuint channel = 0; channel < 4; ++channel)
            bits |= GLuint(mask[channel] != 0) << (4 * i + channel);
    }
    v[0] = bits;
}
void writeColorMask(ConstNumbers v)
{
    const auto bits = GLuint(v[0]);
    const auto open = [bits](GLuint bit) { return GLboolean(bits >> bit & 1u); };
    if (bits == ~0u) {
        glColorMask(GL_TRUE, GL_TRUE, GL_TRUE, GL_TRUE);
        return;
    }
    for (GLuint i = 0; i < kDrawBuffers; ++i)
        glColorMaski(i, open(4 * i), open(4 * i + 1), open(4 * i + 2), open(4 * i + 3));
}

constexpr std::array<GLenum, 4> kBlendFactors{GL_BLEND_SRC_RGB, GL_BLEND_DST_RGB, GL_BLEND_SRC_ALPHA,
                                              GL_BLEND_DST_ALPHA};
constexpr std::array<GLenum, 2> kBlendEquations{GL_BLEND_EQUATION_RGB, GL_BLEND_EQUATION_ALPHA};

template <std::size_t count>
void readPerBuffer(const std::array<GLenum, count> &queries, Numbers v)
{
    const bool perBuffer = hasBlendPerBuffer();
    for (GLuint i = 0; i < kDrawBuffers; ++i) {
        for (std::size_t q = 0; q < count; ++q) {
            GLint value = 0;
            if (perBuffer)
                glGetIntegeri_v(queries[q], i, &value);
            else if (i == 0)
                glGetIntegerv(queries[q], &value);
            v[i * count + q] = perBuffer || i == 0 ? value : v[q];
        }
    }
}

// Whether all buffers have the same numbers, so that one call for all of them does.
bool isUniform(ConstNumbers v, std::size_t count)
{
    for (std::size_t i = count; i < kDrawBuffers * count; ++i) {
        if (v[i] != v[i % count])
            return false;
    }
    return true;
}

void readBlendFunction(Numbers v)
{
    readPerBuffer(kBlendFactors, v);
}
void writeBlendFunction(ConstNumbers v)
{
    if (isUniform(v, 4)) {
        glBlendFuncSeparate(GLenum(v[0]), GLenum(v[1]), GLenum(v[2]), GLenum(v[3]));
        return;
    }
    for (GLuint i = 0; i < kDrawBuffers; ++i, v += 4)
        glBlendFuncSeparatei(i, GLenum(v[0]), GLenum(v[1]), GLenum(v[2]), GLenum(v[3]));
}

void readBlendEquation(Numbers v)
{
    readPerBuffer(kBlendEquations, v);
}
void writeBlendEquation(ConstNumbers v)
{
    if (isUniform(v, 2)) {
        glBlendEquationSeparate(GLenum(v[0]), GLenum(v[1]));
        return;
    }
    for (GLuint i = 0; i < kDrawBuffers; ++i, v += 2)
        glBlendEquationSeparatei(i, GLenum(v[0]), GLenum(v[1]));
}

// Queries of signed numbers give the greatest of them for a mask of all bits.
GLuint unsignedOf(GLint value)
{
    return value == std::numeric_limits<GLint>::max() ? ~0u : GLuint(value);
}

void readStencilFunction(Numbers v)
{
    constexpr GLenum kQueries[] = {GL_STENCIL_FUNC,      GL_STENCIL_REF,      GL_STENCIL_VALUE_MASK,
                                   GL_STENCIL_BACK_FUNC, GL_STENCIL_BACK_REF, GL_STENCIL_BACK_VALUE_MASK};
    for (GLenum query : kQueries) {
        GLint value = 0;
        glGetIntegerv(query, &value);
        const bool isMask = query == GL_STENCIL_VALUE_MASK || query == GL_STENCIL_BACK_VALUE_MASK;
        *v++ = isMask ? unsignedOf(value) : GLuint(value);
    }
}
void writeStencilFunction(ConstNumbers v)
{
    glStencilFuncSeparate(GL_FRONT, GLenum(v[0]), GLint(v[1]), GLuint(v[2]));
    glStencilFuncSeparate(GL_BACK, GLenum(v[3]), GLint(v[4]), GLuint(v[5]));
}

void readStencilOperation(Numbers v)
{
    constexpr GLenum kQueries[] = {
        GL_STENCIL_FAIL,      GL_STENCIL_PASS_DEPTH_FAIL,      GL_STENCIL_PASS_DEPTH_PASS,
        GL_STENCIL_BACK_FAIL, GL_STENCIL_BACK_PASS_DEPTH_FAIL, GL_STENCIL_BACK_PASS_DEPTH_PASS};
    for (GLenum query : kQueries) {
        GLint value = 0;
        glGetIntegerv(query, &value);
        *v++ = value;
    }
}
void writeStencilOperation(ConstNumbers v)
{
    glStencilOpSeparate(GL_FRONT, GLenum(v[0]), GLenum(v[1]), GLenum(v[2]));
    glStencilOpSeparate(GL_BACK, GLenum(v[3]), GLenum(v[4]), GLenum(v[5]));
}

void readStencilMask(Numbers v)
{
    for (GLenum query : {GL_STENCIL_WRITEMASK, GL_STENCIL_BACK_WRITEMASK}) {
        GLint value = 0;
        glGetIntegerv(query, &value);
        *v++ = unsignedOf(value);
    }
}

// Of a viewport, a scissor or a depth range per index the first is the one that passes draw with. Calls
// without an index set all of them, so the first has calls of its own where there are several.
void readDepthRange(Numbers v)
{
    glGetDoublev(GL_DEPTH_RANGE, v);
}
void writeDepthRange(ConstNumbers v)
{
    if (hasViewportArrays())
        glDepthRangeIndexed(0, v[0], v[1]);
    else
        glDepthRange(v[0], v[1]);
}
void readClearDepth(Numbers v)
{
    glGetDoublev(GL_DEPTH_CLEAR_VALUE, v);
}
// All of them where the first is on, by a call without an index where that does: with the first alone off, Mesa's
// drivers clip everything away until something was drawn without a scissor.
void readScissorTest(Numbers v)
{
    v[0] = glIsEnabled(GL_SCISSOR_TEST);
    if (v[0] != 0 && hasViewportArrays())
        readSwitches<GL_SCISSOR_TEST, kViewports>(v);
}
void writeScissorTest(ConstNumbers v)
{
    constexpr auto kAll = double((1u << kViewports) - 1);
    if (!hasViewportArrays() || v[0] == kAll)
        setCapability(GL_SCISSOR_TEST, v[0] != 0);
    else
        writeSwitches<GL_SCISSOR_TEST, kViewports>(v);
}
void writeScissorBox(ConstNumbers v)
{
    if (hasViewportArrays())
        glScissorIndexed(0, GLint(v[0]), GLint(v[1]), GLsizei(v[2]), GLsizei(v[3]));
    else
        glScissor(GLint(v[0]), GLint(v[1]), GLsizei(v[2]), GLsizei(v[3]));
}
void writeViewport(ConstNumbers v)
{
    if (hasViewportArrays())
        glViewportIndexedf(0, GLfloat(v[0]), GLfloat(v[1]), GLfloat(v[2]), GLfloat(v[3]));
    else
        glViewport(GLint(v[0]), GLint(v[1]), GLsizei(v[2]), GLsizei(v[3]));
}
void readFurtherViewports(Numbers v)
{
    for (GLuint i = 1; i < kViewports; ++i, v += 4) {
        GLfloat rectangle[4] = {};
        glGetFloati_v(GL_VIEWPORT, i, rectangle);
        std::copy_n(rectangle, 4, v);
    }
}
void writeFurtherViewports(ConstNumbers v)
{
    for (GLuint i = 1; i < kViewports; ++i, v += 4)
        glViewportIndexedf(i, GLfloat(v[0]), GLfloat(v[1]), GLfloat(v[2]), GLfloat(v[3]));
}

void readPolygonMode(Numbers v)
{
    readIntegers<GL_POLYGON_MODE, 1>(v);
}

void readPolygonOffset(Numbers v)
{
    v[0] = glIsEnabled(GL_POLYGON_OFFSET_FILL);
    v[1] = glIsEnabled(GL_POLYGON_OFFSET_LINE);
    v[2] = glIsEnabled(GL_POLYGON_OFFSET_POINT);
}
void writePolygonOffset(ConstNumbers v)
{
    setCapability(GL_POLYGON_OFFSET_FILL, v[0] != 0);
    setCapability(GL_POLYGON_OFFSET_LINE, v[1] != 0);
    setCapability(GL_POLYGON_OFFSET_POINT, v[2] != 0);
}

void readLineDrawing(Numbers v)
{
    v[0] = glIsEnabled(GL_LINE_SMOOTH);
    readFloats<GL_LINE_WIDTH, 1>(v + 1);
}
void writeLineDrawing(ConstNumbers v)
{
    setCapability(GL_LINE_SMOOTH, v[0] != 0);
    glLineWidth(GLfloat(v[1]));
}

void readPointDrawing(Numbers v)
{
    readFloats<GL_POINT_SIZE, 1>(v);
    readIntegers<GL_POINT_SPRITE_COORD_ORIGIN, 1>(v + 1);
    readFloats<GL_POINT_FADE_THRESHOLD_SIZE, 1>(v + 2);
}
void writePointDrawing(ConstNumbers v)
{
    glPointSize(GLfloat(v[0]));
    glPointParameteri(GL_POINT_SPRITE_COORD_ORIGIN, GLint(v[1]));
    glPointParameterf(GL_POINT_FADE_THRESHOLD_SIZE, GLfloat(v[2]));
}

void readClipControl(Numbers v)
{
    readIntegers<GL_CLIP_ORIGIN, 1>(v);
    readIntegers<GL_CLIP_DEPTH_MODE, 1>(v + 1);
}

void readPatchParameters(Numbers v)
{
    readIntegers<GL_PATCH_VERTICES, 1>(v);
    readFloats<GL_PATCH_DEFAULT_OUTER_LEVEL, 4>(v + 1);
    readFloats<GL_PATCH_DEFAULT_INNER_LEVEL, 2>(v + 5);
}
void writePatchParameters(ConstNumbers v)
{
    glPatchParameteri(GL_PATCH_VERTICES, GLint(v[0]));
    GLfloat levels[6];
    std::copy_n(v + 1, 6, levels);
    glPatchParameterfv(GL_PATCH_DEFAULT_OUTER_LEVEL, levels);
    glPatchParameterfv(GL_PATCH_DEFAULT_INNER_LEVEL, levels + 4);
}

void readAttributeValues(Numbers v)
{
    for (GLuint i = 0; i < kAttributes; ++i, v += 4) {
        GLfloat value[4] = {};
        glGetVertexAttribfv(i, GL_CURRENT_VERTEX_ATTRIB, value);
        std::copy_n(value, 4, v);
    }
}
void writeAttributeValues(ConstNumbers v)
{
    for (GLuint i = 0; i < kAttributes; ++i, v += 4)
        glVertexAttrib4f(i, GLfloat(v[0]), GLfloat(v[1]), GLfloat(v[2]), GLfloat(v[3]));
}

void readNothing(Numbers) {}
void writeNothing(ConstNumbers) {}

// Where a piece comes from: the version of OpenGL that has it, or an extension.
struct Origin
{
    int version = 32;
    const char *extension = nullptr;
};

struct PieceInfo
{
    const char *name;
    const char *defaultText;
    int count = 0; // of numbers; 0: no value of the context
    void (*read)(Numbers) = readNothing;
    void (*write)(ConstNumbers) = writeNothing;
    std::array<double, kMaxNumbers> defaults = {};
    Origin origin = {};
    bool isGuarded = true; // by every pass; the others matter to some, or are set wherever they are used
};

template <GLenum capability>
PieceInfo switchOf(const char *name, bool on = false, Origin origin = {})
{
    return {name, on ? "on" : "off", 1, readCapability<capability>, writeCapability<capability>, {double(on)}, origin};
}

std::array<double, kMaxNumbers> repeated(std::initializer_list<double> numbers, int times)
{
    std::array<double, kMaxNumbers> all{};
    auto at = all.begin();
    for (int i = 0; i < times; ++i)
        at = std::copy(numbers.begin(), numbers.end(), at);
    return all;
}

const std::array<PieceInfo, kStatePieces> &pieces()
{
    constexpr auto kAllBits = double(~0u);
    const auto unguarded = [](PieceInfo info) {
        info.isGuarded = false;
        return info;
    };
    static const std::array<PieceInfo, kStatePieces> infos{
        switchOf<GL_DEPTH_TEST>("depth test"),
        PieceInfo{"depth mask",
                  "open",
                  1,
                  readIntegers<GL_DEPTH_WRITEMASK, 1>,
                  [](ConstNumbers v) { glDepthMask(v[0] != 0); },
                  {1}},
        PieceInfo{"depth function",
                  "less",
                  1,
                  readIntegers<GL_DEPTH_FUNC, 1>,
                  [](ConstNumbers v) { glDepthFunc(GLenum(v[0])); },
                  {GL_LESS}},
        PieceInfo{"depth range", "0 to 1", 2, readDepthRange, writeDepthRange, {0, 1}},
        switchOf<GL_DEPTH_CLAMP>("depth clamp"),
        PieceInfo{"clear depth", "1", 1, readClearDepth, [](ConstNumbers v) { glClearDepth(v[0]); }, {1}},
        PieceInfo{"scissor test", "off", 1, readScissorTest, writeScissorTest, {0}},
        unguarded({"scissor box", "any", 4, readIntegers<GL_SCISSOR_BOX, 4>, writeScissorBox}),
        switchOf<GL_STENCIL_TEST>("stencil test"),
        unguarded({"stencil function",
                   "always",
                   6,
                   readStencilFunction,
                   writeStencilFunction,
                   {GL_ALWAYS, 0, kAllBits, GL_ALWAYS, 0, kAllBits}}),
        unguarded(
            {"stencil operation", "keep", 6, readStencilOperation, writeStencilOperation, repeated({GL_KEEP}, 6)}),
        unguarded({"stencil mask",
                   "open",
                   2,
                   readStencilMask,
                   [](ConstNumbers v) {
                       glStencilMaskSeparate(GL_FRONT, GLuint(v[0]));
                       glStencilMaskSeparate(GL_BACK, GLuint(v[1]));
                   },
                   {kAllBits, kAllBits}}),
        unguarded({"clear stencil",
                   "0",
                   1,
                   readIntegers<GL_STENCIL_CLEAR_VALUE, 1>,
                   [](ConstNumbers v) { glClearStencil(GLint(v[0])); },
                   {0}}),
        PieceInfo{
            "blending", "off", 1, readSwitches<GL_BLEND, kDrawBuffers>, writeSwitches<GL_BLEND, kDrawBuffers>, {0}},
        unguarded({"blend function", "one, zero", 32, readBlendFunction, writeBlendFunction,
                   repeated({GL_ONE, GL_ZERO, GL_ONE, GL_ZERO}, kDrawBuffers)}),
        unguarded({"blend equation", "add", 16, readBlendEquation, writeBlendEquation,
                   repeated({GL_FUNC_ADD, GL_FUNC_ADD}, kDrawBuffers)}),
        unguarded({"blend colour", "transparent black", 4, readFloats<GL_BLEND_COLOR, 4>,
                   [](ConstNumbers v) { glBlendColor(GLfloat(v[0]), GLfloat(v[1]), GLfloat(v[2]), GLfloat(v[3])); }}),
        PieceInfo{"colour mask", "open", 1, readColorMask, writeColorMask, {kAllBits}},
        unguarded({"clear colour", "transparent black", 4, readFloats<GL_COLOR_CLEAR_VALUE, 4>,
                   [](ConstNumbers v) { glClearColor(GLfloat(v[0]), GLfloat(v[1]), GLfloat(v[2]), GLfloat(v[3])); }}),
        switchOf<GL_CULL_FACE>("face culling"),
        PieceInfo{"culled face",
                  "back",
                  1,
                  readIntegers<GL_CULL_FACE_MODE, 1>,
                  [](ConstNumbers v) { glCullFace(GLenum(v[0])); },
                  {GL_BACK}},
        PieceInfo{"front face",
                  "counter-clockwise",
                  1,
                  readIntegers<GL_FRONT_FACE, 1>,
                  [](ConstNumbers v) { glFrontFace(GLenum(v[0])); },
                  {GL_CCW}},
        PieceInfo{"polygon mode",
                  "fill",
                  1,
                  readPolygonMode,
                  [](ConstNumbers v) { glPolygonMode(GL_FRONT_AND_BACK, GLenum(v[0])); },
                  {GL_FILL}},
        PieceInfo{"polygon offset", "off", 3, readPolygonOffset, writePolygonOffset},
        switchOf<GL_COLOR_LOGIC_OP>("logic operation"),
        switchOf<GL_PRIMITIVE_RESTART>("primitive restart"),
        switchOf<GL_PRIMITIVE_RESTART_FIXED_INDEX>("restart at the fixed index", false, {43, "ARB_ES3_compatibility"}),
        switchOf<GL_RASTERIZER_DISCARD>("rasteriser discard"),
        PieceInfo{"clip distances", "off", 1, readClipDistances, writeClipDistances},
        switchOf<GL_MULTISAMPLE>("multisampling", true),
        switchOf<GL_SAMPLE_MASK>("sample mask"),
        switchOf<GL_SAMPLE_ALPHA_TO_COVERAGE>("alpha to coverage"),
        switchOf<GL_SAMPLE_ALPHA_TO_ONE>("alpha to one"),
        switchOf<GL_SAMPLE_COVERAGE>("sample coverage"),
        switchOf<GL_SAMPLE_SHADING>("sample shading", false, {40, "ARB_sample_shading"}),
        switchOf<GL_FRAMEBUFFER_SRGB>("sRGB framebuffer"),
        switchOf<GL_DITHER>("dithering", true),
        PieceInfo{"provoking vertex",
                  "last",
                  1,
                  readIntegers<GL_PROVOKING_VERTEX, 1>,
                  [](ConstNumbers v) { glProvokingVertex(GLenum(v[0])); },
                  {GL_LAST_VERTEX_CONVENTION}},
        switchOf<GL_TEXTURE_CUBE_MAP_SEAMLESS>("seamless cube maps"),
        switchOf<GL_POLYGON_SMOOTH>("polygon smoothing"),
        unguarded({"lines", "of width 1, not smooth", 2, readLineDrawing, writeLineDrawing, {0, 1}}),
        switchOf<GL_PROGRAM_POINT_SIZE>("point size of the program"),
        unguarded({"points",
                   "of size 1, from the upper left",
                   3,
                   readPointDrawing,
                   writePointDrawing,
                   {1, GL_UPPER_LEFT, 1}}),
        PieceInfo{"clip control",
                  "lower left, -1 to 1",
                  2,
                  readClipControl,
                  [](ConstNumbers v) { glClipControl(GLenum(v[0]), GLenum(v[1])); },
                  {GL_LOWER_LEFT, GL_NEGATIVE_ONE_TO_ONE},
                  {45, "ARB_clip_control"}},
        unguarded({"viewport", "any", 4, readFloats<GL_VIEWPORT, 4>, writeViewport}),
        unguarded({"further viewports",
                   "any",
                   60,
                   readFurtherViewports,
                   writeFurtherViewports,
                   {},
                   {41, "ARB_viewport_array"}}),
        unguarded({"patches",
                   "of 3 vertices, levels 1",
                   7,
                   readPatchParameters,
                   writePatchParameters,
                   {3, 1, 1, 1, 1, 1, 1},
                   {40, "ARB_tessellation_shader"}}),
        unguarded({"attribute values", "0, 0, 0, 1", 64, readAttributeValues, writeAttributeValues,
                   repeated({0, 0, 0, 1}, kAttributes)}),
        PieceInfo{"transform feedback", "none", 0, readNothing, writeNothing, {}, {40, "ARB_transform_feedback2"}},
        PieceInfo{"pixel unpacking", "rows of 4-byte alignment, nothing skipped"},
        PieceInfo{"pixel packing", "rows of 4-byte alignment, nothing skipped"},
        PieceInfo{"pixel buffers", "none"},
        PieceInfo{"sampler objects", "none", 0, readNothing, writeNothing, {}, {33, "ARB_sampler_objects"}},
        PieceInfo{"active unit", "any"},
        PieceInfo{"textures", "any"},
        PieceInfo{"vertex array", "any"},
        PieceInfo{"buffers", "any"},
        PieceInfo{"uniform buffer ranges", "any"},
        PieceInfo{"atomic counter ranges", "any", 0, readNothing, writeNothing, {}, {42, "ARB_shader_atomic_counters"}},
        PieceInfo{
            "storage buffer ranges", "any", 0, readNothing, writeNothing, {}, {43, "ARB_shader_storage_buffer_object"}},
        PieceInfo{"images", "any", 0, readNothing, writeNothing, {}, {42, "ARB_shader_image_load_store"}},
        PieceInfo{"program", "any"},
        PieceInfo{"program pipeline", "any", 0, readNothing, writeNothing, {}, {41, "ARB_separate_shader_objects"}},
        PieceInfo{"draw framebuffer", "any"},
        PieceInfo{"read framebuffer", "any"},
        PieceInfo{"query", "none"},
        PieceInfo{"conditional rendering", "none"},
    };
    return infos;
}

const PieceInfo &infoOf(std::size_t piece)
{
    return pieces()[piece];
}

bool has(const ContextState &state, const Origin &origin)
{
    return state.version >= origin.version || (origin.extension && state.hasExtension(origin.extension));
}

// The values that a context has.
StatePieces valuesOf(ContextState &state)
{
    if (!state.stateValues) {
        for (std::size_t i = 0; i < kStateValues; ++i)
            state.stateValues |= quint64(has(state, infoOf(i).origin)) << i;
    }
    return {state.stateValues};
}

bool isDefault(const PieceInfo &info, ConstNumbers v)
{
    return std::equal(v, v + info.count, info.defaults.begin());
}

// Without a default there is nothing that a viewport or a box could be brought to.
bool hasDefault(std::size_t piece)
{
    switch (StatePiece(piece)) {
    case StatePiece::ScissorBox:
    case StatePiece::Viewport:
    case StatePiece::FurtherViewports:
    case StatePiece::TransformFeedback: return false;
    default: return piece < kStateValues;
    }
}

// Drawing with another program than the one that began it is an error while feedback runs, not while it
// is paused.
bool pauseFeedback()
{
    GLboolean active = GL_FALSE, paused = GL_FALSE;
    glGetBooleanv(GL_TRANSFORM_FEEDBACK_BUFFER_ACTIVE, &active);
    if (!active)
        return false;
    glGetBooleanv(GL_TRANSFORM_FEEDBACK_BUFFER_PAUSED, &paused);
    if (!paused)
        glPauseTransformFeedback();
    return !paused;
}

thread_local const ContextState *knownToBeDefault = nullptr;

} // namespace

const char *nameOf(StatePiece piece)
{
    return infoOf(std::size_t(piece)).name;
}

const char *defaultOf(StatePiece piece)
{
    return infoOf(std::size_t(piece)).defaultText;
}

bool hasStatePiece(StatePiece piece)
{
    const ContextState *state = ContextState::current();
    return state && has(*state, infoOf(std::size_t(piece)).origin);
}

std::vector<double> valueOf(StatePiece piece)
{
    const PieceInfo &info = infoOf(std::size_t(piece));
    std::vector<double> value(std::size_t(info.count));
    if (hasStatePiece(piece))
        info.read(value.data());
    return value;
}

void setFirstViewport(const float (&rectangle)[4])
{
    double numbers[4];
    std::copy_n(rectangle, 4, numbers);
    writeViewport(numbers);
}

quint32 switchesOf(unsigned int capability)
{
    double bits = 0.0;
    if (capability == GL_BLEND)
        readSwitches<GL_BLEND, kDrawBuffers>(&bits);
    else if (capability == GL_SCISSOR_TEST && hasViewportArrays())
        readSwitches<GL_SCISSOR_TEST, kViewports>(&bits);
    else
        bits = glIsEnabled(capability);
    return quint32(bits);
}

void setSwitches(unsigned int capability, quint32 bits)
{
    const double value = bits;
    if (capability == GL_BLEND && bits != (1u << kDrawBuffers) - 1)
        writeSwitches<GL_BLEND, kDrawBuffers>(&value);
    else if (capability == GL_SCISSOR_TEST)
        writeScissorTest(&value);
    else
        setCapability(capability, bits != 0);
}

void setFirstScissorTest(bool on)
{
    if (!hasViewportArrays())
        setCapability(GL_SCISSOR_TEST, on);
    else if (on)
        glEnablei(GL_SCISSOR_TEST, 0);
    else
        glDisablei(GL_SCISSOR_TEST, 0);
}

void setFirstScissorBox(const int (&rectangle)[4])
{
    double numbers[4];
    std::copy_n(rectangle, 4, numbers);
    writeScissorBox(numbers);
}

StateRow::StateRow(const char *name, std::vector<StateException> list, std::initializer_list<StatePiece> more)
    : className(name), exceptions(std::move(list))
{
    for (std::size_t i = 0; i < kStateValues; ++i)
        guarded.set(i, infoOf(i).isGuarded);
    for (StatePiece piece : more)
        guarded.set(std::size_t(piece));
    for (const StateException &exception : exceptions) {
        const auto piece = std::size_t(exception.piece);
        if (exception.use == StateException::Left) {
            left.set(piece);
            const std::vector<double> &value = exception.value;
            if (piece < kStateValues && hasDefault(piece) && (value.empty() || !isDefault(infoOf(piece), value.data())))
                toReset.set(piece);
            stays.set(piece, stays.test(piece) || !exception.when);
        } else {
            guarded.reset(piece);
        }
    }
}

void StateValues::takeOver(const StatePieces &pieces)
{
    double *numbers = _numbers.data();
    for (std::size_t i = 0; i < kStateValues; ++i) {
        const PieceInfo &info = infoOf(i);
        if (!pieces.test(i) || info.count == 0)
            continue;
        info.read(numbers);
        if (hasDefault(i)) {
            if (isDefault(info, numbers))
                continue;
            info.write(info.defaults.data());
        }
        _pieces[std::size_t(_count++)] = static_cast<unsigned char>(i);
        numbers += info.count;
    }
}

void StateValues::putBack(const StatePieces &butNot) const
{
    const double *numbers = _numbers.data();
    for (int k = 0; k < _count; ++k) {
        const std::size_t piece = _pieces[std::size_t(k)];
        if (!butNot.test(piece))
            infoOf(piece).write(numbers);
        numbers += infoOf(piece).count;
    }
}

NeutralState::NeutralState(const StateRow &row) : _row(row), _stays(row.stays)
{
    ContextState *state = ContextState::current();
    if (!state || state == knownToBeDefault)
        return;
    const StatePieces here = valuesOf(*state) & row.guarded;
    _before.takeOver(here);
    if (here.test(std::size_t(StatePiece::TransformFeedback)))
        _feedbackPaused = pauseFeedback();
}

NeutralState::~NeutralState()
{
    _before.putBack(_stays);
    if (!_feedbackPaused)
        return;
    // It goes on with the program that began it.
    if (ContextState *state = ContextState::current())
        state->bindings.settle(BindingPoint::Program);
    glResumeTransformFeedback();
}

void NeutralState::leave(std::initializer_list<StatePiece> pieces)
{
    for (StatePiece piece : pieces) {
        Q_ASSERT(_row.left.test(std::size_t(piece)));
        _stays.set(std::size_t(piece));
    }
}

namespace {

StatePieces setOf(std::initializer_list<StatePiece> pieces)
{
    StatePieces set;
    for (const StatePiece piece : pieces)
        set.set(std::size_t(piece));
    return set;
}

void reset(const StatePieces &pieces)
{
    for (std::size_t i = 0; i < kStateValues; ++i) {
        if (pieces.test(i))
            infoOf(i).write(infoOf(i).defaults.data());
    }
}

} // namespace

DefaultState::DefaultState() : DefaultState(StatePieces().set(), StatePieces()) {}

DefaultState::DefaultState(std::initializer_list<StatePiece> changed)
    : DefaultState(~setOf({StatePiece::StencilFunction}), setOf(changed))
{}

DefaultState::DefaultState(const StatePieces &pieces, const StatePieces &changed) : _changed(changed)
{
    glGetIntegerv(GL_DRAW_FRAMEBUFFER_BINDING, &_bindings[0]);
    glGetIntegerv(GL_READ_FRAMEBUFFER_BINDING, &_bindings[1]);
    glGetIntegerv(GL_CURRENT_PROGRAM, &_bindings[2]);
    glGetIntegerv(GL_VERTEX_ARRAY_BINDING, &_bindings[3]);
    glGetIntegerv(GL_ACTIVE_TEXTURE, &_bindings[4]);
    glGetIntegerv(GL_ARRAY_BUFFER_BINDING, &_bindings[5]);
    if (ContextState *state = ContextState::current()) {
        const StatePieces here = valuesOf(*state) & pieces;
        _before.takeOver(here);
        if (here.test(std::size_t(StatePiece::TransformFeedback)))
            _feedbackPaused = pauseFeedback();
    }
}

DefaultState::~DefaultState()
{
    reset(_changed);
    _before.putBack();
    glBindFramebuffer(GL_DRAW_FRAMEBUFFER, GLuint(_bindings[0]));
    glBindFramebuffer(GL_READ_FRAMEBUFFER, GLuint(_bindings[1]));
    glUseProgram(GLuint(_bindings[2]));
    glBindVertexArray(GLuint(_bindings[3]));
    glActiveTexture(GLenum(_bindings[4]));
    glBindBuffer(GL_ARRAY_BUFFER, GLuint(_bindings[5]));
    if (_feedbackPaused)
        glResumeTransformFeedback();
}

void DefaultState::resetAfter(const StateRow &row)
{
    reset(row.toReset);
}

void DefaultState::resetAll()
{
    ContextState *state = ContextState::current();
    const StatePieces here = state ? valuesOf(*state) : StatePieces();
    std::array<double, kMaxNumbers> values;
    for (std::size_t i = 0; i < kStateValues; ++i) {
        if (!here.test(i) || !hasDefault(i))
            continue;
        const PieceInfo &info = infoOf(i);
        info.read(values.data());
        if (!isDefault(info, values.data()))
            info.write(info.defaults.data());
    }
}

struct DefaultState::Known::Bindings
{
    Bindings();
    ~Bindings();
    Bindings(const Bindings &) = delete;
    Bindings &operator=(const Bindings &) = delete;

    DefaultPixelStore pixelStore;
    std::vector<GLuint> samplers; // by unit
};

DefaultState::Known::Bindings::Bindings()
{
    const ContextState *state = ContextState::current();
    if (!state || !state->hasSamplerObjects)
        return;
    GLint active = 0;
    glGetIntegerv(GL_ACTIVE_TEXTURE, &active);
    for (int unit = 0; unit < state->unitCount(); ++unit) {
        GLint name = 0;
        glActiveTexture(GL_TEXTURE0 + GLenum(unit));
        glGetIntegerv(GL_SAMPLER_BINDING, &name);
        samplers.push_back(GLuint(name));
        if (name)
            glBindSampler(GLuint(unit), 0);
    }
    glActiveTexture(GLenum(active));
}

DefaultState::Known::Bindings::~Bindings()
{
    pixelStore.resume();
    for (GLuint unit = 0; unit < samplers.size(); ++unit) {
        const GLuint name = samplers[unit];
        glBindSampler(unit, name && glIsSampler(name) ? name : 0);
    }
}

DefaultState::Known::Known(bool known) : _before(knownToBeDefault)
{
    knownToBeDefault = known ? ContextState::current() : nullptr;
    if (!known && ContextState::current())
        _bindings = std::make_unique<Bindings>();
}

DefaultState::Known::~Known()
{
    knownToBeDefault = _before;
}

KeptStencilFunction::KeptStencilFunction()
{
    // There is a driver that knows of a new attachment only once somebody asks whether all fit together.
    glCheckFramebufferStatus(GL_DRAW_FRAMEBUFFER);
    readStencilFunction(_before.data());
}

KeptStencilFunction::~KeptStencilFunction()
{
    writeStencilFunction(_before.data());
}

} // namespace Brevane::Kvo
