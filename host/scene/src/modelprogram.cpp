#include "modelprogram.h"

#include "gl/shaderprogram.h"
#include "model/instancedataplan.h"
#include "model/instancedataregistry.h"
#include "screenprogram.h"

#include <epoxy/gl.h>

namespace Brevane::Kvo {

namespace {

const QString kScreenVertexShader = QStringLiteral(R"(#version 150
in vec3 va_Vertex;
void main()
{
  gl_Position = vec4(va_Vertex, 1.0);
}
)");

} // namespace

ShaderProgram *modelProgram(const QString &label, const QStringList &outputs, const QString &vertexShader,
                            const QString &fragmentShader)
{
    auto *program = new ShaderProgram;
    program->addShader(GL_VERTEX_SHADER, vertexShader);
    if (const InstanceDataPlan *plan = InstanceDataRegistry::Instance().getPlan(QStringLiteral("InstanceInfo")))
        program->addShader(GL_VERTEX_SHADER, plan->glslc());
    program->addShader(GL_FRAGMENT_SHADER, fragmentShader);
    return built(program, label, outputs);
}

ShaderProgram *screenProgram(const QString &label, const QStringList &outputs, const QString &fragmentShader)
{
    return screenProgram(label, outputs, kScreenVertexShader, fragmentShader);
}

} // namespace Brevane::Kvo
