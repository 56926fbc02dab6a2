#include "host/passfactory.h"

#include "host/depthpeelingpass.h"
#include "host/environmentpass.h"
#include "host/layercompositionpass.h"
#include "host/shadowlightingpass.h"
#include "host/shadowshaderpass.h"
#include "host/stagepass.h"
#include "host/surfacepass.h"
#include "passkit/statetable.h"
#include "passrows.h"
#include "renderpasses/passes.h"

#include <typeinfo>

namespace Brevane::Kvo {

namespace {

template <typename Pass>
std::unique_ptr<RenderPass> makePass()
{
    return std::make_unique<Pass>();
}

struct Entry
{
    const char *className;
    PassFactory::Maker maker;
    bool (*isExactly)(const RenderPass &pass);
};

template <typename Pass>
bool isExactly(const RenderPass &pass)
{
    return typeid(pass) == typeid(Pass);
}

template <typename Pass>
constexpr Entry entry(const char *className)
{
    return {className, makePass<Pass>, isExactly<Pass>};
}

// All that a pipeline can run: the passes of the library but the base that others derive from, and the host's own.
constexpr Entry kPasses[] = {
#define KVO_ENTRY(Pass) entry<Pass>(#Pass),
    KVO_EVERY_PASS(KVO_ENTRY)
#undef KVO_ENTRY
        entry<DepthPeelingPass>("DepthPeelingPass"),
    entry<EnvironmentPass>("EnvironmentPass"),
    entry<LayerCompositionPass>("LayerCompositionPass"),
    entry<ShadowLightingPass>("ShadowLightingPass"),
    entry<SurfacePass>("SurfacePass"),
    entry<ShadowShaderPass>("ShadowShaderPass"),
    entry<StagePass>("StagePass"),
};

constexpr const char *kOnlyToDeriveFrom = "BlurBaseRenderPass";

// Adds a slot, by its name, to a pass whose slots the host names.
template <bool isInput>
PassOperation slotOperation()
{
    return {isInput ? QStringLiteral("addInput") : QStringLiteral("addOutput"),
            {QStringLiteral("QString")},
            [](RenderPass &pass, const QVariantList &arguments) {
                auto *target = dynamic_cast<ShaderRenderPass *>(&pass);
                if (!target || arguments.size() != 1)
                    return false;
                if constexpr (isInput)
                    target->addInput(arguments.first().toString());
                else
                    target->addOutput(arguments.first().toString());
                return true;
            }};
}

} // namespace

// A setter that pipeline files shall reach takes a line here.
void PassFactory::addOperations()
{
    const auto add = [this](const char *className, const PassOperation &operation) {
        addOperation(QLatin1StringView(className), operation);
    };
    add("ModelRenderPass",
        passOperation<&ModelRenderPass::setDiscardOnDiffuseAlpha>(QStringLiteral("setDiscardOnDiffuseAlpha")));
    add("PrimitiveBuilderRenderPass", passOperation<&PrimitiveBuilderRenderPass::addCube>(QStringLiteral("addCube")));
    add("PrimitiveBuilderRenderPass", passOperation<&PrimitiveBuilderRenderPass::addQuad>(QStringLiteral("addQuad")));
    add("PrimitiveBuilderRenderPass", passOperation<&PrimitiveBuilderRenderPass::setUseIndirectDrawCommands>(
                                          QStringLiteral("setUseIndirectDrawCommands")));
    add("ScalableAmbientObscuranceRenderPass", passOperation<&ScalableAmbientObscuranceRenderPass::setNormalProcessing>(
                                                   QStringLiteral("setNormalProcessing")));
    add("ShadowMapRenderPass",
        passOperation<&ShadowMapRenderPass::setInstanceDataPlanName>(QStringLiteral("setInstanceDataPlanName")));
    add("ShadowMapRenderPass2",
        passOperation<&ShadowMapRenderPass2::setInstanceDataPlanName>(QStringLiteral("setInstanceDataPlanName")));
    for (const char *programmable : {"ShaderRenderPass", "ShadowShaderPass", "DepthPeelingPass"}) {
        add(programmable, passOperation<&ShaderRenderPass::setName>(QStringLiteral("setName")));
        add(programmable,
            passOperation<&ShaderRenderPass::setVertexShaderSource>(QStringLiteral("setVertexShaderSource")));
        add(programmable,
            passOperation<&ShaderRenderPass::setFragmentShaderSource>(QStringLiteral("setFragmentShaderSource")));
        add(programmable,
            passOperation<&ShaderRenderPass::setGeometryShaderSource>(QStringLiteral("setGeometryShaderSource")));
        add(programmable, passOperation<&ShaderRenderPass::setTessellationControlShaderSource>(
                              QStringLiteral("setTessellationControlShaderSource")));
        add(programmable, passOperation<&ShaderRenderPass::setTessellationEvaluationShaderSource>(
                              QStringLiteral("setTessellationEvaluationShaderSource")));
        add(programmable, passOperation<&ShaderRenderPass::setClear>(QStringLiteral("setClear")));
        add(programmable, passOperation<&ShaderRenderPass::setBlend>(QStringLiteral("setBlend")));
        add(programmable, slotOperation<true>());
        add(programmable, slotOperation<false>());
    }
}

const StateRow *stateRowOf(const RenderPass &pass)
{
    for (const Entry &entry : kPasses) {
        if (!entry.isExactly(pass))
            continue;
        const StateRow *const row = findStateRow(entry.className);
        // The host's own passes are programmable ones, and leave what those leave.
        return row ? row : findStateRow("ShaderRenderPass");
    }
    return nullptr;
}

PassFactory &passFactory()
{
    static PassFactory factory;
    return factory;
}

PassFactory::PassFactory()
{
    for (const Entry &entry : kPasses) {
        if (qstrcmp(entry.className, kOnlyToDeriveFrom) != 0)
            add(QLatin1StringView(entry.className), entry.maker);
    }
    addOperations();
}

std::unique_ptr<RenderPass> PassFactory::make(const QString &className) const
{
    const auto found = _makers.find(className);
    return found == _makers.end() ? nullptr : found->second();
}

bool PassFactory::knows(const QString &className) const
{
    return _makers.count(className) > 0;
}

QStringList PassFactory::classNames() const
{
    QStringList names;
    for (const auto &[name, maker] : _makers)
        names << name;
    return names;
}

bool PassFactory::add(const QString &className, Maker maker)
{
    return !className.isEmpty() && maker && _makers.emplace(className, maker).second;
}

bool PassFactory::addOperation(const QString &className, const PassOperation &operation)
{
    if (!knows(className) || operation.name.isEmpty() || !operation.call)
        return false;
    QVector<PassOperation> &known = _operations[className];
    for (const PassOperation &other : std::as_const(known))
        if (other.name == operation.name)
            return false;
    known.append(operation);
    return true;
}

QVector<PassOperation> PassFactory::operations(const QString &className) const
{
    const auto found = _operations.find(className);
    return found == _operations.end() ? QVector<PassOperation>() : found->second;
}

} // namespace Brevane::Kvo
