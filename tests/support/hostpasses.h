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
