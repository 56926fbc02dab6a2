#pragma once

#include "support/passcases.h"

#include <host/depthpeelingpass.h>
#include <host/environmentpass.h>
#include <host/layercompositionpass.h>
#include <host/outlinepass.h>
#include <host/pickpass.h>
#include <host/shadowlightingpass.h>
#include <host/shadowshaderpass.h>
#include <host/slotname.h>
#include <host/stagepass.h>
#include <host/surfacepass.h>
#include <renderpasses/primitivebuilderrenderpass.h>
#include <renderpasses/shaderrenderpass.h>
#include <shadows/shadowmaprenderdata.h>

#include <QByteArray>

#include <deque>
#include <map>
#include <string>

// The passes of the host's side, for what enumerates passes. Tests that include this link the host.

namespace Brevane::Kvo::Test {

/// Those that the factory knows beside the library's, and those that viewports make themselves.
inline std::vector<PassCase> hostPassCases()
{
    return {passCase<DepthPeelingPass>("DepthPeelingPass"),
            passCase<EnvironmentPass>("EnvironmentPass"),
            passCase<LayerCompositionPass>("LayerCompositionPass"),
            passCase<OutlinePass>("OutlinePass"),
            passCase<PickPass>("PickPass"),
            passCase<ShadowLightingPass>("ShadowLightingPass"),
            passCase<ShadowShaderPass>("ShadowShaderPass"),
            passCase<StagePass>("StagePass"),
            passCase<SurfacePass>("SurfacePass")};
}

inline std::vector<PassCase> allPassCases()
{
    std::vector<PassCase> all = passCases();
    for (const PassCase &pass : hostPassCases())
        all.push_back(pass);
    return all;
}

/// Of which a host writes all: slots and text.
inline bool isShaderOfHost(const char *className)
{
    return qstrcmp(className, "ShaderRenderPass") == 0 || qstrcmp(className, "ShadowShaderPass") == 0;
}

/// A pass as a host has it before anything is connected.
inline std::unique_ptr<RenderPassHelper> barePass(const PassCase &kind)
{
    auto pass = kind.make();
    auto *shader = dynamic_cast<ShaderRenderPass *>(pass.get());
    if (qstrcmp(kind.className, "DepthPeelingPass") == 0)
        shader->setFragmentShaderSource(
            QString::fromLatin1("#version 150\nuniform sampler2D u_BaseColor;\nout vec4 o_Frame;\n"
                                "void main() { o_Frame = vec4(texelFetch(u_BaseColor, "
                                "ivec2(gl_FragCoord.xy), 0).rgb, 0.5); }\n"));
    if (auto *outline = dynamic_cast<OutlinePass *>(pass.get()))
        outline->setItems({0});
    if (isShaderOfHost(kind.className)) {
        shader->addInput(QString::fromLatin1("Kvo_KvoTexture*_Input"));
        shader->addOutput(QString::fromLatin1("Kvo_KvoTexture*_Frame"));
        shader->setFragmentShaderSource(
            QString::fromLatin1("#version 150\nuniform sampler2D u_Input;\nin vec2 vo_TexCoord;\n"
                                "out vec4 o_Frame;\nvoid main() { o_Frame = texture(u_Input, "
                                "vo_TexCoord) * vo_TexCoord.x; }\n"));
    }
    if (auto *builder = dynamic_cast<PrimitiveBuilderRenderPass *>(pass.get()))
        builder->addCube(1, {});
    return pass;
}

/// The case of a pass of either side.
inline const PassCase &caseOf(const char *name)
{
    static const std::vector<PassCase> all = allPassCases();
    for (const PassCase &pass : all)
        if (qstrcmp(pass.className, name) == 0)
            return pass;
    ADD_FAILURE() << name << " is no pass";
    return all.front();
}

/// What the names of slots say of their values.
inline QMetaType typeOfSlot(const QString &slot)
{
    static const std::map<QString, QMetaType> types = {
        {QStringLiteral("KvoTexture*"), QMetaType::fromType<Texture *>()},
        {QStringLiteral("KvoGPUModel*"), QMetaType::fromType<GPUModel *>()},
        {QStringLiteral("KvoFramebuffer*"), QMetaType::fromType<FramebufferObject *>()},
        {QStringLiteral("QRect"), QMetaType(QMetaType::QRect)},
        {QStringLiteral("QMatrix4x4"), QMetaType(QMetaType::QMatrix4x4)},
        {QStringLiteral("QColor"), QMetaType(QMetaType::QColor)},
        {QStringLiteral("QVector3D"), QMetaType(QMetaType::QVector3D)},
        {QStringLiteral("QList"), QMetaType(QMetaType::QVariantList)},
        {QStringLiteral("QString"), QMetaType(QMetaType::QString)},
        {QStringLiteral("QVariant"), QMetaType(QMetaType::QVariant)},
        {QStringLiteral("float"), QMetaType(QMetaType::Float)},
        {QStringLiteral("int"), QMetaType(QMetaType::Int)},
        {QStringLiteral("bool"), QMetaType(QMetaType::Bool)}};
    const auto known = types.find(SlotName::parse(slot).type);
    EXPECT_NE(known, types.end()) << qPrintable(slot);
    return known == types.end() ? QMetaType() : known->second;
}

/// As passTable() has them, made from the passes.
inline const std::vector<PassRow> &hostPassTable()
{
    static std::deque<QByteArray> names;
    static const std::vector<PassRow> table = [] {
        const auto kept = [](const QString &name) { return names.emplace_back(name.toLatin1()).constData(); };
        std::vector<PassRow> rows;
        for (const PassCase &each : hostPassCases()) {
            const auto pass = each.make();
            PassRow row{each.className, Reads::Either, {}, {}};
            for (int i = 0; i < pass->numInputs(); ++i)
                row.inputs.push_back({kept(pass->inputName(i)), typeOfSlot(pass->inputName(i)), pass->defaultValue(i)});
            for (int i = 0; i < pass->numOutputs(); ++i)
                row.outputs.push_back({kept(pass->outputName(i)), typeOfSlot(pass->outputName(i))});
            rows.push_back(std::move(row));
        }
        return rows;
    }();
    return table;
}

/// The row of a pass of either side.
inline const PassRow &anyRowOf(const char *name)
{
    for (const PassRow &row : hostPassTable())
        if (qstrcmp(row.className, name) == 0)
            return row;
    return rowOf(name);
}

} // namespace Brevane::Kvo::Test
