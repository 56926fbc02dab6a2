#include "passkit/programs.h"

#include "gl/bindings.h"
#include "gl/drawbuffers.h"
#include "gl/guards.h"
#include "gl/opengldevicecontext.h"
#include "gl/shaderprogram.h"
#include "gl/vertexarrayobject.h"
#include "model/instancedataplan.h"
#include "model/instancedataregistry.h"

#include <epoxy/gl.h>

#include <typeinfo>

namespace Brevane::Kvo {

const QString kScreenVertexShader = QStringLiteral(R"(#version 150

in vec3 va_Vertex;
in vec2 va_TexCoord;

out vec2 vo_TexCoord;

void main()
{
  gl_Position = vec4(va_Vertex, 1.0);
  vo_TexCoord = va_TexCoord;
}
)");

const QString kExactTexture = QStringLiteral(R"(
vec4 exactTexture(sampler2D s, vec2 coord)
{
  vec2 texel = coord * vec2(textureSize(s, 0));
  vec2 fromCentre = abs(fract(texel) - 0.5);
  vec4 color = texelFetch(s, ivec2(texel), 0);
  // A loop of at most one round: rasterisers on the CPU pay for both sides of a condition, but not for
  // a loop that no pixel enters.
  for(int rounds = max(fromCentre.x, fromCentre.y) < 0.001 ? 0 : 1; rounds > 0; --rounds)
    color = texture(s, coord);
  return color;
}
)");

std::vector<ShaderSource> modelProgramSources(const QString &vertexShader, const QString &fragmentShader)
{
    return {{GL_VERTEX_SHADER, ShaderSource::Text, vertexShader},
            {GL_VERTEX_SHADER, ShaderSource::Plan, QStringLiteral("InstanceInfo")},
            {GL_VERTEX_SHADER, ShaderSource::File, QStringLiteral("KvoUtilities.glslc")},
            {GL_FRAGMENT_SHADER, ShaderSource::Text, fragmentShader},
            {GL_FRAGMENT_SHADER, ShaderSource::Plan, QStringLiteral("OBJMaterial")},
            {GL_FRAGMENT_SHADER, ShaderSource::File, QStringLiteral("TextureManager.glslc")},
            {GL_FRAGMENT_SHADER, ShaderSource::File, QStringLiteral("KvoUtilities.glslc")}};
}

ShaderProgram *buildProgram(const ProgramRecipe &recipe, GLSLMacroProcessor *processor)
{
    auto *program = new ShaderProgram(nullptr);
    program->setLabel(recipe.label);
    program->setMayShare(recipe.mayShare);
    program->setMayFail(recipe.mayFail);
    if (processor)
        program->setMacroProcessor(processor);
    program->setFragDataLocations(recipe.outputs);
    for (const ShaderSource &source : recipe.sources) {
        switch (source.kind) {
        case ShaderSource::Text: program->addShader(source.stage, source.content, QString()); break;
        case ShaderSource::Plan:
            if (const InstanceDataPlan *plan = InstanceDataRegistry::Instance().getPlan(source.content))
                program->addShader(source.stage, plan->glslc(), QString());
            break;
        case ShaderSource::File: program->addShaderFromFile(source.stage, source.content); break;
        }
    }
    program->compile();
    program->link();
    return program;
}

bool buildOnce(Held<ShaderProgram> &program, const ProgramRecipe &recipe, GLSLMacroProcessor *processor)
{
    if (ShaderProgram *const known = program) {
        // Of a class that a host derived nobody knows what it binds.
        if (typeid(*known) != typeid(ShaderProgram))
            BindingScope::stopTracking();
        known->refresh();
        return false;
    }
    program = buildProgram(recipe, processor);
    return true;
}

bool fetchOnce(QSharedPointer<DrawBuffers> &quad, Quad which)
{
    if (quad && quad->isUsable())
        return true;
    quad.reset();
    const QSharedPointer<OpenGLDeviceContext> context = OpenGLDeviceContext::current();
    if (!context)
        return false;
    quad = which == Quad::Screen ? context->screenQuad() : context->gradientQuad();
    return true;
}

bool fetchOnce(QSharedPointer<DrawBuffers> &quad, Quad which, const ShaderProgram *program)
{
    if (quad && quad->isUsable())
        return true;
    if (!fetchOnce(quad, which))
        return false;
    enableArrays(*quad, program);
    return true;
}

void enableArrays(DrawBuffers &buffers, const ShaderProgram *program)
{
    if (const QSharedPointer<VertexArrayObject> arrays = buffers.VAO()) {
        AutoBinder bound(arrays);
        arrays->enableShaderProgramArrays(program);
    }
}

} // namespace Brevane::Kvo
