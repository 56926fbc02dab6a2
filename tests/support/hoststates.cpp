#include "support/hoststates.h"

#include "support/glcalls.h"
#include "support/gltest.h"

#include <epoxy/gl.h>

#include <algorithm>
#include <array>

namespace Brevane::Kvo::Test {

namespace {

using Set = HostState::Set;
using P = StatePiece;

constexpr GLuint kUnits = 16;
constexpr GLuint kIndices = 4;

bool has(StatePiece piece)
{
    return hasStatePiece(piece);
}

GLint integer(GLenum query)
{
    GLint value = 0;
    glGetIntegerv(query, &value);
    return value;
}

// A value of the context.
template <StatePiece piece>
class Value : public Set
{
public:
    std::vector<double> now() const override { return valueOf(piece); }
};

template <StatePiece piece>
std::unique_ptr<Set> value(void (*set)())
{
    const auto before = valueOf(piece);
    set();
    EXPECT_NE(valueOf(piece), before) << nameOf(piece) << " is what it was before";
    return std::make_unique<Value<piece>>();
}

template <StatePiece piece, GLenum capability>
std::unique_ptr<Set> enabled()
{
    return value<piece>([] { glEnable(capability); });
}

// One number that GL answers to a query.
template <GLenum query>
class Number : public Set
{
public:
    std::vector<double> now() const override
    {
        GLdouble value = 0;
        glGetDoublev(query, &value);
        return {value};
    }
};

template <GLenum parameter, GLint number>
std::unique_ptr<Set> pixelStore()
{
    glPixelStorei(parameter, number);
    return std::make_unique<Number<parameter>>();
}

class BufferNames
{
public:
    explicit BufferNames(int count, GLsizeiptr bytes) : _names(std::size_t(count))
    {
        glGenBuffers(count, _names.data());
        for (GLuint name : _names) {
            glBindBuffer(GL_COPY_WRITE_BUFFER, name);
            glBufferData(GL_COPY_WRITE_BUFFER, bytes, nullptr, GL_STATIC_DRAW);
        }
        glBindBuffer(GL_COPY_WRITE_BUFFER, 0);
    }
    ~BufferNames() { glDeleteBuffers(GLsizei(_names.size()), _names.data()); }
    GLuint operator[](std::size_t i) const { return _names[i]; }

private:
    std::vector<GLuint> _names;
};

// A buffer of one byte, bound for moving pixels.
template <GLenum target, GLenum query>
class PixelBuffer : public Number<query>
{
public:
    PixelBuffer() { glBindBuffer(target, _buffer[0]); }

private:
    BufferNames _buffer{1, 1};
};

class Samplers : public Set
{
public:
    Samplers()
    {
        glGenSamplers(1, &_name);
        const std::array<float, 4> border{1, 0, 1, 0.5f};
        for (GLenum wrap : {GL_TEXTURE_WRAP_S, GL_TEXTURE_WRAP_T, GL_TEXTURE_WRAP_R})
            glSamplerParameteri(_name, wrap, GL_CLAMP_TO_BORDER);
        glSamplerParameterfv(_name, GL_TEXTURE_BORDER_COLOR, border.data());
        glSamplerParameteri(_name, GL_TEXTURE_MIN_FILTER, GL_NEAREST_MIPMAP_NEAREST);
        glSamplerParameteri(_name, GL_TEXTURE_MAG_FILTER, GL_NEAREST);
        glSamplerParameterf(_name, GL_TEXTURE_MIN_LOD, 3.0f);
        for (GLuint unit = 0; unit < kUnits; ++unit)
            glBindSampler(unit, _name);
    }
    ~Samplers() override { glDeleteSamplers(1, &_name); }
    std::vector<double> now() const override
    {
        std::vector<double> names;
        const GLint active = integer(GL_ACTIVE_TEXTURE);
        for (GLuint unit = 0; unit < kUnits; ++unit) {
            glActiveTexture(GL_TEXTURE0 + unit);
            names.push_back(integer(GL_SAMPLER_BINDING));
        }
        glActiveTexture(GLenum(active));
        return names;
    }

private:
    GLuint _name = 0;
};

class Textures : public Set
{
public:
    Textures()
    {
        glGenTextures(GLsizei(_names.size()), _names.data());
        for (GLuint unit = 0; unit < kUnits; ++unit) {
            glActiveTexture(GL_TEXTURE0 + unit);
            for (std::size_t i = 0; i < kTargets.size(); ++i)
                glBindTexture(kTargets[i], _names[i]);
        }
        glActiveTexture(GL_TEXTURE0);
    }
    ~Textures() override { glDeleteTextures(GLsizei(_names.size()), _names.data()); }
    std::vector<double> now() const override
    {
        std::vector<double> names;
        const GLint active = integer(GL_ACTIVE_TEXTURE);
        for (GLuint unit = 0; unit < kUnits; ++unit) {
            glActiveTexture(GL_TEXTURE0 + unit);
            for (GLenum query : kQueries)
                names.push_back(integer(query));
        }
        glActiveTexture(GLenum(active));
        return names;
    }

private:
    static constexpr std::array<GLenum, 7> kTargets{GL_TEXTURE_1D,       GL_TEXTURE_2D,       GL_TEXTURE_3D,
                                                    GL_TEXTURE_CUBE_MAP, GL_TEXTURE_2D_ARRAY, GL_TEXTURE_BUFFER,
                                                    GL_TEXTURE_RECTANGLE};
    static constexpr std::array<GLenum, 7> kQueries{GL_TEXTURE_BINDING_1D,       GL_TEXTURE_BINDING_2D,
                                                    GL_TEXTURE_BINDING_3D,       GL_TEXTURE_BINDING_CUBE_MAP,
                                                    GL_TEXTURE_BINDING_2D_ARRAY, GL_TEXTURE_BINDING_BUFFER,
                                                    GL_TEXTURE_BINDING_RECTANGLE};
    std::array<GLuint, 7> _names{};
};

class VertexArray : public Number<GL_VERTEX_ARRAY_BINDING>
{
public:
    VertexArray()
    {
        glGenVertexArrays(1, &_name);
        glBindVertexArray(_name);
        glBindBuffer(GL_ARRAY_BUFFER, _buffers[0]);
        glBindBuffer(GL_ELEMENT_ARRAY_BUFFER, _buffers[1]);
        for (GLuint i = 0; i < 16; ++i) {
            glVertexAttribPointer(i, 4, GL_FLOAT, GL_FALSE, 0, nullptr);
            glEnableVertexAttribArray(i);
        }
        glBindBuffer(GL_ARRAY_BUFFER, 0);
    }
    ~VertexArray() override { glDeleteVertexArrays(1, &_name); }
    std::vector<double> now() const override
    {
        // with its own state: the buffer of indices, and which arrays are on
        std::vector<double> state{double(integer(GL_VERTEX_ARRAY_BINDING)),
                                  double(integer(GL_ELEMENT_ARRAY_BUFFER_BINDING))};
        for (GLuint i = 0; i < 16 && state[0] != 0; ++i) {
            GLint on = 0;
            glGetVertexAttribiv(i, GL_VERTEX_ATTRIB_ARRAY_ENABLED, &on);
            state.push_back(on);
        }
        return state;
    }

private:
    GLuint _name = 0;
    BufferNames _buffers{2, 4096};
};

struct BufferTarget
{
    GLenum target;
    GLenum query;
};

class Buffers : public Set
{
public:
    Buffers()
    {
        _targets = {{GL_ARRAY_BUFFER, GL_ARRAY_BUFFER_BINDING},
                    {GL_UNIFORM_BUFFER, GL_UNIFORM_BUFFER_BINDING},
                    {GL_TEXTURE_BUFFER, GL_TEXTURE_BUFFER},
                    {GL_COPY_READ_BUFFER, GL_COPY_READ_BUFFER},
                    {GL_COPY_WRITE_BUFFER, GL_COPY_WRITE_BUFFER}};
        if (epoxy_gl_version() >= 40 || epoxy_has_gl_extension("GL_ARB_draw_indirect"))
            _targets.push_back({GL_DRAW_INDIRECT_BUFFER, GL_DRAW_INDIRECT_BUFFER_BINDING});
        if (has(P::AtomicCounterRanges))
            _targets.push_back({GL_ATOMIC_COUNTER_BUFFER, GL_ATOMIC_COUNTER_BUFFER_BINDING});
        if (has(P::StorageRanges))
            _targets.push_back({GL_SHADER_STORAGE_BUFFER, GL_SHADER_STORAGE_BUFFER_BINDING});
        for (const BufferTarget &target : _targets)
            glBindBuffer(target.target, _buffer[0]);
    }
    std::vector<double> now() const override
    {
        std::vector<double> names;
        for (const BufferTarget &target : _targets)
            names.push_back(integer(target.query));
        return names;
    }

private:
    BufferNames _buffer{1, 64};
    std::vector<BufferTarget> _targets;
};

template <GLenum target, GLenum binding, GLenum start, GLenum size>
class Ranges : public Set
{
public:
    Ranges()
    {
        // one as a whole, the others in part
        glBindBufferBase(target, kIndices - 1, _buffer[0]);
        for (GLuint i = 0; i < kIndices - 1; ++i)
            glBindBufferRange(target, i, _buffer[0], 256 * GLintptr(i), 64);
        glBindBuffer(target, 0);
    }
    std::vector<double> now() const override
    {
        std::vector<double> all{double(integer(binding))};
        for (GLuint i = 0; i < kIndices; ++i) {
            GLint name = 0;
            GLint64 from = 0, bytes = 0;
            glGetIntegeri_v(binding, i, &name);
            glGetInteger64i_v(start, i, &from);
            glGetInteger64i_v(size, i, &bytes);
            all.insert(all.end(), {double(name), double(from), double(bytes)});
        }
        return all;
    }

private:
    BufferNames _buffer{1, 4096};
};

using UniformRanges =
    Ranges<GL_UNIFORM_BUFFER, GL_UNIFORM_BUFFER_BINDING, GL_UNIFORM_BUFFER_START, GL_UNIFORM_BUFFER_SIZE>;
using StorageRanges = Ranges<GL_SHADER_STORAGE_BUFFER, GL_SHADER_STORAGE_BUFFER_BINDING, GL_SHADER_STORAGE_BUFFER_START,
                             GL_SHADER_STORAGE_BUFFER_SIZE>;

class AtomicCounterRange : public Set
{
public:
    AtomicCounterRange()
    {
        glBindBufferRange(GL_ATOMIC_COUNTER_BUFFER, 0, _buffer[0], 256, 64);
        glBindBuffer(GL_ATOMIC_COUNTER_BUFFER, 0);
    }
    std::vector<double> now() const override
    {
        GLint name = 0;
        GLint64 from = 0, bytes = 0;
        glGetIntegeri_v(GL_ATOMIC_COUNTER_BUFFER_BINDING, 0, &name);
        glGetInteger64i_v(GL_ATOMIC_COUNTER_BUFFER_START, 0, &from);
        glGetInteger64i_v(GL_ATOMIC_COUNTER_BUFFER_SIZE, 0, &bytes);
        return {double(integer(GL_ATOMIC_COUNTER_BUFFER_BINDING)), double(name), double(from), double(bytes)};
    }

private:
    BufferNames _buffer{1, 4096};
};

class Images : public Set
{
public:
    Images()
    {
        glGenTextures(1, &_texture);
        glBindTexture(GL_TEXTURE_2D_ARRAY, _texture);
        for (GLint level = 0; level < 2; ++level)
            glTexImage3D(GL_TEXTURE_2D_ARRAY, level, GL_R32F, 4 >> level, 4 >> level, 3, 0, GL_RED, GL_FLOAT, nullptr);
        glBindTexture(GL_TEXTURE_2D_ARRAY, 0);
        for (GLuint unit = 0; unit < kIndices; ++unit)
            glBindImageTexture(unit, _texture, 1, GL_FALSE, 2, GL_READ_ONLY, GL_R32F);
    }
    ~Images() override { glDeleteTextures(1, &_texture); }
    std::vector<double> now() const override
    {
        std::vector<double> all;
        for (GLuint unit = 0; unit < kIndices; ++unit) {
            for (GLenum query : {GL_IMAGE_BINDING_NAME, GL_IMAGE_BINDING_LEVEL, GL_IMAGE_BINDING_LAYER,
                                 GL_IMAGE_BINDING_ACCESS, GL_IMAGE_BINDING_FORMAT}) {
                GLint value = 0;
                glGetIntegeri_v(query, unit, &value);
                all.push_back(value);
            }
        }
        return all;
    }

private:
    GLuint _texture = 0;
};

GLuint compiled(GLenum stage, const char *text)
{
    const GLuint shader = glCreateShader(stage);
    glShaderSource(shader, 1, &text, nullptr);
    glCompileShader(shader);
    return shader;
}

constexpr const char *kVertexText = "#version 150\nout vec4 captured;\nvoid main() { captured = vec4(1.0); gl_Position "
                                    "= vec4(0.0, 0.0, 0.0, 1.0); }\n";
constexpr const char *kFragmentText =
    "#version 150\nout vec4 color;\nvoid main() { color = vec4(1.0, 0.0, 1.0, 1.0); }\n";

class Program : public Number<GL_CURRENT_PROGRAM>
{
public:
    Program()
    {
        const GLuint shaders[] = {compiled(GL_VERTEX_SHADER, kVertexText), compiled(GL_FRAGMENT_SHADER, kFragmentText)};
        _name = glCreateProgram();
        for (GLuint shader : shaders)
            glAttachShader(_name, shader);
        const char *captured = "captured";
        glTransformFeedbackVaryings(_name, 1, &captured, GL_INTERLEAVED_ATTRIBS);
        glLinkProgram(_name);
        for (GLuint shader : shaders)
            glDeleteShader(shader);
        glUseProgram(_name);
    }
    ~Program() override
    {
        glUseProgram(0);
        glDeleteProgram(_name);
    }

private:
    GLuint _name = 0;
};

class ProgramPipeline : public Number<GL_PROGRAM_PIPELINE_BINDING>
{
public:
    ProgramPipeline()
    {
        const GLuint shader = compiled(GL_FRAGMENT_SHADER, kFragmentText);
        _program = glCreateProgram();
        glProgramParameteri(_program, GL_PROGRAM_SEPARABLE, GL_TRUE);
        glAttachShader(_program, shader);
        glLinkProgram(_program);
        glDeleteShader(shader);
        glGenProgramPipelines(1, &_name);
        glUseProgramStages(_name, GL_FRAGMENT_SHADER_BIT, _program);
        glBindProgramPipeline(_name);
    }
    ~ProgramPipeline() override
    {
        glDeleteProgramPipelines(1, &_name);
        glDeleteProgram(_program);
    }

private:
    GLuint _program = 0;
    GLuint _name = 0;
};

template <GLenum target, GLenum query>
class Framebuffer : public Number<query>
{
public:
    Framebuffer()
    {
        glGenFramebuffers(1, &_name);
        glBindFramebuffer(target, _name);
    }
    ~Framebuffer() override { glDeleteFramebuffers(1, &_name); }

private:
    GLuint _name = 0;
};

class Feedback : public Set
{
public:
    explicit Feedback(bool pause)
    {
        glGenTransformFeedbacks(1, &_name);
        glBindTransformFeedback(GL_TRANSFORM_FEEDBACK, _name);
        glBindBufferBase(GL_TRANSFORM_FEEDBACK_BUFFER, 0, _buffer[0]);
        glBeginTransformFeedback(GL_POINTS);
        if (pause)
            glPauseTransformFeedback();
    }
    ~Feedback() override
    {
        glEndTransformFeedback();
        glBindTransformFeedback(GL_TRANSFORM_FEEDBACK, 0);
        glDeleteTransformFeedbacks(1, &_name);
    }
    std::vector<double> now() const override
    {
        return {double(integer(GL_TRANSFORM_FEEDBACK_BINDING)), double(integer(GL_TRANSFORM_FEEDBACK_ACTIVE)),
                double(integer(GL_TRANSFORM_FEEDBACK_PAUSED))};
    }

private:
    Program _program;
    BufferNames _buffer{1, 4096};
    GLuint _name = 0;
};

template <GLenum target>
class RunningQuery : public Set
{
public:
    RunningQuery()
    {
        glGenQueries(1, &_name);
        glBeginQuery(target, _name);
    }
    ~RunningQuery() override
    {
        glEndQuery(target);
        glDeleteQueries(1, &_name);
    }
    std::vector<double> now() const override
    {
        GLint running = 0;
        glGetQueryiv(target, GL_CURRENT_QUERY, &running);
        return {double(running)};
    }

private:
    GLuint _name = 0;
};

class Conditional : public Set
{
public:
    Conditional()
    {
        glGenQueries(1, &_name);
        glBeginQuery(GL_SAMPLES_PASSED, _name);
        glEndQuery(GL_SAMPLES_PASSED);
        glBeginConditionalRender(_name, GL_QUERY_WAIT);
    }
    ~Conditional() override
    {
        glEndConditionalRender(); // an error where it has ended meanwhile
        glDeleteQueries(1, &_name);
    }
    std::vector<double> now() const override { return {}; }

private:
    GLuint _name = 0;
};

template <typename T, auto... arguments>
std::unique_ptr<Set> make()
{
    return std::make_unique<T>(arguments...);
}

const std::vector<HostState> &allStates()
{
    static const std::vector<HostState> states{
        {"depth test", P::DepthTest, enabled<P::DepthTest, GL_DEPTH_TEST>},
        {"depth mask closed", P::DepthMask, [] { return value<P::DepthMask>([] { glDepthMask(GL_FALSE); }); }},
        {"depth function never", P::DepthFunction,
         [] { return value<P::DepthFunction>([] { glDepthFunc(GL_NEVER); }); }},
        {"depth range turned", P::DepthRange, [] { return value<P::DepthRange>([] { glDepthRange(0.75, 0.25); }); }},
        {"depth clamp", P::DepthClamp, enabled<P::DepthClamp, GL_DEPTH_CLAMP>},
        {"clear depth 0", P::ClearDepth, [] { return value<P::ClearDepth>([] { glClearDepth(0.0); }); }},
        {"scissor test", P::ScissorTest,
         [] {
             glScissor(1, 1, 2, 2);
             return enabled<P::ScissorTest, GL_SCISSOR_TEST>();
         }},
        {"scissor box", P::ScissorBox, [] { return value<P::ScissorBox>([] { glScissor(2, 3, 4, 5); }); }},
        {"stencil test that fails", P::StencilTest,
         [] {
             glStencilFunc(GL_NEVER, 1, 0xff);
             return enabled<P::StencilTest, GL_STENCIL_TEST>();
         }},
        {"stencil function never", P::StencilFunction,
         [] { return value<P::StencilFunction>([] { glStencilFunc(GL_NEVER, 7, 0x0f); }); }},
        {"stencil operation of one face", P::StencilOperation,
         [] {
             return value<P::StencilOperation>([] { glStencilOpSeparate(GL_BACK, GL_INVERT, GL_INVERT, GL_ZERO); });
         }},
        {"stencil mask closed", P::StencilMask, [] { return value<P::StencilMask>([] { glStencilMask(0); }); }},
        {"clear stencil", P::ClearStencil, [] { return value<P::ClearStencil>([] { glClearStencil(5); }); }},
        {"blending to nothing", P::Blending,
         [] {
             glBlendFunc(GL_ZERO, GL_ZERO);
             return enabled<P::Blending, GL_BLEND>();
         }},
        {"blending of one buffer", P::Blending,
         [] {
             glBlendFunc(GL_ZERO, GL_ZERO);
             return value<P::Blending>([] { glEnablei(GL_BLEND, 1); });
         }},
        {"blend function", P::BlendFunction,
         [] { return value<P::BlendFunction>([] { glBlendFuncSeparate(GL_ZERO, GL_DST_COLOR, GL_ONE, GL_ONE); }); }},
        {"blend equation", P::BlendEquation,
         [] { return value<P::BlendEquation>([] { glBlendEquationSeparate(GL_FUNC_REVERSE_SUBTRACT, GL_MIN); }); }},
        {"blend colour", P::BlendColor,
         [] { return value<P::BlendColor>([] { glBlendColor(0.25f, 0.5f, 0.75f, 0.125f); }); }},
        {"colour mask half closed", P::ColorMask,
         [] { return value<P::ColorMask>([] { glColorMask(GL_TRUE, GL_FALSE, GL_TRUE, GL_FALSE); }); }},
        {"colour mask of one buffer", P::ColorMask,
         [] { return value<P::ColorMask>([] { glColorMaski(1, GL_FALSE, GL_FALSE, GL_FALSE, GL_FALSE); }); }},
        {"clear colour", P::ClearColor,
         [] { return value<P::ClearColor>([] { glClearColor(0.25f, 0.5f, 0.75f, 0.125f); }); }},
        {"face culling", P::FaceCulling,
         [] {
             glCullFace(GL_FRONT_AND_BACK);
             return enabled<P::FaceCulling, GL_CULL_FACE>();
         }},
        {"culled face", P::CulledFace, [] { return value<P::CulledFace>([] { glCullFace(GL_FRONT); }); }},
        {"front face", P::FrontFace, [] { return value<P::FrontFace>([] { glFrontFace(GL_CW); }); }},
        {"polygon mode", P::PolygonMode,
         [] { return value<P::PolygonMode>([] { glPolygonMode(GL_FRONT_AND_BACK, GL_LINE); }); }},
        {"polygon offset", P::PolygonOffset,
         [] {
             glPolygonOffset(10.0f, 1e6f);
             return value<P::PolygonOffset>([] {
                 glEnable(GL_POLYGON_OFFSET_FILL);
                 glEnable(GL_POLYGON_OFFSET_LINE);
                 glEnable(GL_POLYGON_OFFSET_POINT);
             });
         }},
        {"logic operation", P::LogicOperation,
         [] {
             glLogicOp(GL_CLEAR);
             return enabled<P::LogicOperation, GL_COLOR_LOGIC_OP>();
         }},
        {"primitive restart", P::PrimitiveRestart,
         [] {
             glPrimitiveRestartIndex(1);
             return enabled<P::PrimitiveRestart, GL_PRIMITIVE_RESTART>();
         }},
        {"restart at the fixed index", P::FixedIndexRestart,
         enabled<P::FixedIndexRestart, GL_PRIMITIVE_RESTART_FIXED_INDEX>},
        {"rasteriser discard", P::RasterizerDiscard, enabled<P::RasterizerDiscard, GL_RASTERIZER_DISCARD>},
        {"clip distances", P::ClipDistances,
         [] {
             return value<P::ClipDistances>([] {
                 for (GLenum i = 0; i < 8; ++i)
                     glEnable(GL_CLIP_DISTANCE0 + i);
             });
         }},
        {"no multisampling", P::Multisampling,
         [] { return value<P::Multisampling>([] { glDisable(GL_MULTISAMPLE); }); }},
        {"sample mask", P::SampleMask,
         [] {
             glSampleMaski(0, 0);
             return enabled<P::SampleMask, GL_SAMPLE_MASK>();
         }},
        {"alpha to coverage", P::AlphaToCoverage, enabled<P::AlphaToCoverage, GL_SAMPLE_ALPHA_TO_COVERAGE>},
        {"alpha to one", P::AlphaToOne, enabled<P::AlphaToOne, GL_SAMPLE_ALPHA_TO_ONE>},
        {"sample coverage", P::SampleCoverage,
         [] {
             glSampleCoverage(0.0f, GL_FALSE);
             return enabled<P::SampleCoverage, GL_SAMPLE_COVERAGE>();
         }},
        {"sample shading", P::SampleShading,
         [] {
             glMinSampleShading(1.0f);
             return enabled<P::SampleShading, GL_SAMPLE_SHADING>();
         }},
        {"sRGB framebuffer", P::SrgbFramebuffer, enabled<P::SrgbFramebuffer, GL_FRAMEBUFFER_SRGB>},
        {"no dithering", P::Dithering, [] { return value<P::Dithering>([] { glDisable(GL_DITHER); }); }},
        {"provoking vertex", P::ProvokingVertex,
         [] { return value<P::ProvokingVertex>([] { glProvokingVertex(GL_FIRST_VERTEX_CONVENTION); }); }},
        {"seamless cube maps", P::SeamlessCubeMaps, enabled<P::SeamlessCubeMaps, GL_TEXTURE_CUBE_MAP_SEAMLESS>},
        {"polygon smoothing", P::PolygonSmoothing, enabled<P::PolygonSmoothing, GL_POLYGON_SMOOTH>},
        {"smooth lines", P::LineDrawing, enabled<P::LineDrawing, GL_LINE_SMOOTH>},
        {"point size of the program", P::PointSizeOfProgram, enabled<P::PointSizeOfProgram, GL_PROGRAM_POINT_SIZE>},
        {"points", P::PointDrawing,
         [] {
             return value<P::PointDrawing>([] {
                 glPointSize(7.0f);
                 glPointParameteri(GL_POINT_SPRITE_COORD_ORIGIN, GL_LOWER_LEFT);
                 glPointParameterf(GL_POINT_FADE_THRESHOLD_SIZE, 5.0f);
             });
         }},
        {"clip control", P::ClipControl,
         [] { return value<P::ClipControl>([] { glClipControl(GL_UPPER_LEFT, GL_ZERO_TO_ONE); }); }},
        {"viewport", P::Viewport, [] { return value<P::Viewport>([] { glViewport(1, 2, 3, 4); }); }},
        {"further viewports", P::FurtherViewports,
         [] {
             return value<P::FurtherViewports>([] {
                 for (GLuint i = 1; i < 16; ++i)
                     glViewportIndexedf(i, 1.0f, 2.0f, GLfloat(i), 4.0f);
             });
         }},
        {"patches", P::PatchParameters,
         [] {
             return value<P::PatchParameters>([] {
                 glPatchParameteri(GL_PATCH_VERTICES, 5);
                 const std::array<float, 4> levels{2, 3, 4, 5};
                 glPatchParameterfv(GL_PATCH_DEFAULT_OUTER_LEVEL, levels.data());
             });
         }},
        {"attribute values", P::AttributeValues,
         [] {
             return value<P::AttributeValues>([] {
                 for (GLuint i = 0; i < 16; ++i)
                     glVertexAttrib4f(i, 9.0f, -8.0f, 7.0f, -6.0f);
             });
         }},
        {"transform feedback", P::TransformFeedback, make<Feedback, false>},
        {"paused transform feedback", P::TransformFeedback, make<Feedback, true>},
        {"unpack alignment", P::PixelUnpacking, pixelStore<GL_UNPACK_ALIGNMENT, 8>},
        {"unpack row length", P::PixelUnpacking, pixelStore<GL_UNPACK_ROW_LENGTH, 100000>},
        {"unpack skip rows", P::PixelUnpacking, pixelStore<GL_UNPACK_SKIP_ROWS, 100000>},
        {"unpack skip pixels", P::PixelUnpacking, pixelStore<GL_UNPACK_SKIP_PIXELS, 100000>},
        {"unpack swap bytes", P::PixelUnpacking, pixelStore<GL_UNPACK_SWAP_BYTES, 1>},
        {"unpack bits from the low end", P::PixelUnpacking, pixelStore<GL_UNPACK_LSB_FIRST, 1>},
        {"unpack image height", P::PixelUnpacking, pixelStore<GL_UNPACK_IMAGE_HEIGHT, 100000>},
        {"unpack skip images", P::PixelUnpacking, pixelStore<GL_UNPACK_SKIP_IMAGES, 100000>},
        {"pack alignment", P::PixelPacking, pixelStore<GL_PACK_ALIGNMENT, 8>},
        {"pack row length", P::PixelPacking, pixelStore<GL_PACK_ROW_LENGTH, 100000>},
        {"pack skip rows", P::PixelPacking, pixelStore<GL_PACK_SKIP_ROWS, 100000>},
        {"pack skip pixels", P::PixelPacking, pixelStore<GL_PACK_SKIP_PIXELS, 100000>},
        {"pack swap bytes", P::PixelPacking, pixelStore<GL_PACK_SWAP_BYTES, 1>},
        {"pack bits from the low end", P::PixelPacking, pixelStore<GL_PACK_LSB_FIRST, 1>},
        {"pack image height", P::PixelPacking, pixelStore<GL_PACK_IMAGE_HEIGHT, 100000>},
        {"pack skip images", P::PixelPacking, pixelStore<GL_PACK_SKIP_IMAGES, 100000>},
        {"clamped reading of colours", P::PixelPacking,
         [] {
             glClampColor(GL_CLAMP_READ_COLOR, GL_TRUE);
             return make<Number<GL_CLAMP_READ_COLOR>>();
         }},
        {"unpack buffer", P::PixelBuffers, make<PixelBuffer<GL_PIXEL_UNPACK_BUFFER, GL_PIXEL_UNPACK_BUFFER_BINDING>>},
        {"pack buffer", P::PixelBuffers, make<PixelBuffer<GL_PIXEL_PACK_BUFFER, GL_PIXEL_PACK_BUFFER_BINDING>>},
        {"sampler objects", P::Samplers, make<Samplers>},
        {"active unit", P::ActiveUnit,
         [] {
             glActiveTexture(GL_TEXTURE5);
             return make<Number<GL_ACTIVE_TEXTURE>>();
         }},
        {"textures", P::Textures, make<Textures>},
        {"vertex array", P::VertexArray, make<VertexArray>},
        {"buffers", P::Buffers, make<Buffers>},
        {"uniform buffer ranges", P::UniformRanges, make<UniformRanges>},
        {"atomic counter range", P::AtomicCounterRanges, make<AtomicCounterRange>},
        {"storage buffer ranges", P::StorageRanges, make<StorageRanges>},
        {"images", P::Images, make<Images>},
        {"program", P::Program, make<Program>},
        {"program pipeline", P::ProgramPipeline, make<ProgramPipeline>},
        {"draw framebuffer", P::DrawFramebuffer, make<Framebuffer<GL_DRAW_FRAMEBUFFER, GL_DRAW_FRAMEBUFFER_BINDING>>},
        {"read framebuffer", P::ReadFramebuffer, make<Framebuffer<GL_READ_FRAMEBUFFER, GL_READ_FRAMEBUFFER_BINDING>>},
        {"query of samples", P::Query, make<RunningQuery<GL_SAMPLES_PASSED>>},
        {"query of primitives", P::Query, make<RunningQuery<GL_PRIMITIVES_GENERATED>>},
        {"conditional rendering", P::ConditionalRendering, make<Conditional>},
    };
    return states;
}

} // namespace

void PrintTo(const HostState &state, std::ostream *stream)
{
    *stream << state.name;
}

std::vector<HostState> hostStates()
{
    std::vector<HostState> here;
    for (const HostState &state : allStates()) {
        if (has(state.piece))
            here.push_back(state);
    }
    return here;
}

void cleanContext()
{
    const GlCalls::Pause pause;
    resetGLState();
    for (GLenum capability :
         {GL_DEPTH_CLAMP, GL_POLYGON_OFFSET_LINE, GL_POLYGON_OFFSET_POINT, GL_COLOR_LOGIC_OP, GL_RASTERIZER_DISCARD,
          GL_SAMPLE_MASK, GL_SAMPLE_ALPHA_TO_COVERAGE, GL_SAMPLE_ALPHA_TO_ONE, GL_SAMPLE_COVERAGE,
          GL_TEXTURE_CUBE_MAP_SEAMLESS, GL_POLYGON_SMOOTH, GL_LINE_SMOOTH, GL_PROGRAM_POINT_SIZE})
        glDisable(capability);
    for (GLenum capability : {GL_MULTISAMPLE, GL_DITHER})
        glEnable(capability);
    for (GLenum i = 0; i < 8; ++i)
        glDisable(GL_CLIP_DISTANCE0 + i);
    if (has(P::FixedIndexRestart))
        glDisable(GL_PRIMITIVE_RESTART_FIXED_INDEX);
    if (has(P::SampleShading)) {
        glDisable(GL_SAMPLE_SHADING);
        glMinSampleShading(0.0f);
    }
    glDepthRange(0.0, 1.0);
    glPolygonOffset(0.0f, 0.0f);
    glLogicOp(GL_COPY);
    glPrimitiveRestartIndex(0);
    glSampleMaski(0, ~0u);
    glSampleCoverage(1.0f, GL_FALSE);
    glProvokingVertex(GL_LAST_VERTEX_CONVENTION);
    glLineWidth(1.0f);
    glPointParameteri(GL_POINT_SPRITE_COORD_ORIGIN, GL_UPPER_LEFT);
    glPointParameterf(GL_POINT_FADE_THRESHOLD_SIZE, 1.0f);
    glClampColor(GL_CLAMP_READ_COLOR, GL_FIXED_ONLY);
    if (has(P::ClipControl))
        glClipControl(GL_LOWER_LEFT, GL_NEGATIVE_ONE_TO_ONE);
    glViewport(0, 0, 16, 16);
    glScissor(0, 0, 16, 16);
    if (has(P::PatchParameters)) {
        const std::array<float, 4> levels{1, 1, 1, 1};
        glPatchParameteri(GL_PATCH_VERTICES, 3);
        glPatchParameterfv(GL_PATCH_DEFAULT_OUTER_LEVEL, levels.data());
        glPatchParameterfv(GL_PATCH_DEFAULT_INNER_LEVEL, levels.data());
    }
    for (GLuint i = 0; i < 16; ++i)
        glVertexAttrib4f(i, 0.0f, 0.0f, 0.0f, 1.0f);
    for (GLenum parameter :
         {GL_UNPACK_ROW_LENGTH, GL_UNPACK_SKIP_ROWS, GL_UNPACK_SKIP_PIXELS, GL_UNPACK_SWAP_BYTES, GL_UNPACK_LSB_FIRST,
          GL_UNPACK_IMAGE_HEIGHT, GL_UNPACK_SKIP_IMAGES, GL_PACK_ROW_LENGTH, GL_PACK_SKIP_ROWS, GL_PACK_SKIP_PIXELS,
          GL_PACK_SWAP_BYTES, GL_PACK_LSB_FIRST, GL_PACK_IMAGE_HEIGHT, GL_PACK_SKIP_IMAGES})
        glPixelStorei(parameter, 0);
    for (GLenum target : {GL_UNIFORM_BUFFER, GL_TEXTURE_BUFFER, GL_COPY_READ_BUFFER, GL_COPY_WRITE_BUFFER})
        glBindBuffer(target, 0);
    for (GLuint i = 0; i < kIndices; ++i)
        glBindBufferBase(GL_UNIFORM_BUFFER, i, 0);
    if (has(P::AtomicCounterRanges))
        glBindBufferBase(GL_ATOMIC_COUNTER_BUFFER, 0, 0);
    for (GLuint i = 0; i < kIndices && has(P::StorageRanges); ++i)
        glBindBufferBase(GL_SHADER_STORAGE_BUFFER, i, 0);
    for (GLuint i = 0; i < kIndices && has(P::Images); ++i)
        glBindImageTexture(i, 0, 0, GL_FALSE, 0, GL_READ_ONLY, GL_R8);
    for (GLuint unit = 0; unit < kUnits && has(P::Samplers); ++unit)
        glBindSampler(unit, 0);
    if (has(P::ProgramPipeline))
        glBindProgramPipeline(0);
}

} // namespace Brevane::Kvo::Test
