#include "model/instancedataplan.h"

#include "core/log.h"
#include "gl/shaderprogram.h"

namespace Brevane::Kvo {

InstanceDataPlan::InstanceDataPlan(const QString &name, const QString &sampler, int texelsPerDraw,
                                   const QString &declarations, const QString &definitions)
    : _name(name), _sampler(sampler), _texelsPerDraw(texelsPerDraw), _declarations(declarations),
      _definitions(definitions)
{}

QString InstanceDataPlan::name() const
{
    return _name;
}

QString InstanceDataPlan::glslh() const
{
    return _declarations;
}

QString InstanceDataPlan::glslc() const
{
    return _definitions;
}

QString InstanceDataPlan::samplerName() const
{
    return _sampler;
}

int InstanceDataPlan::texelsPerDraw() const
{
    return _texelsPerDraw;
}

void InstanceDataPlan::assertShaderProgram(const ShaderProgram *program) const
{
    if (!program || !program->hasUniform(_sampler))
        KVO_LOG("program '%s' does not read the instance data \"%s\"",
                program ? qPrintable(program->label()) : "(null)", qPrintable(_name));
}

} // namespace Brevane::Kvo
