#pragma once

#include "support/passtable.h"

#include <renderpasses/passes.h>

#include <gtest/gtest.h>

#include <memory>
#include <ostream>
#include <type_traits>
#include <vector>

namespace Brevane::Kvo::Test {

/// Shows what a pass keeps of a value, and gives its slots other names, as a derived class may.
template <typename Pass>
class Probe : public Pass
{
public:
    const QVariant &kept(int index) const { return this->_inputs.at(index).value; }
    void renameInput(int index) { this->_inputs[index].name += QLatin1String("Renamed"); }
    void renameOutput(int index) { this->_outputs[index].name += QLatin1String("Renamed"); }
};

/// All that takes the type of a pass.
struct PassCase
{
    const char *className;
    bool isBlur;
    std::unique_ptr<RenderPassHelper> (*make)();
    std::unique_ptr<RenderPassHelper> (*copy)(const RenderPassHelper &pass);
    void (*assign)(RenderPassHelper &to, const RenderPassHelper &from);
    std::unique_ptr<RenderPassHelper> (*makeProbe)();
    QVariant (*kept)(const RenderPassHelper &probe, int index);
    void (*renameInput)(RenderPassHelper &probe, int index);
    void (*renameOutput)(RenderPassHelper &probe, int index);
};

inline void PrintTo(const PassCase &pass, std::ostream *stream)
{
    *stream << pass.className;
}

template <typename Pass>
PassCase passCase(const char *className)
{
    static_assert(std::is_base_of_v<RenderPassHelper, Pass> && std::has_virtual_destructor_v<Pass>);
    return {className,
            std::is_base_of_v<BlurBaseRenderPass, Pass>,
            []() -> std::unique_ptr<RenderPassHelper> { return std::make_unique<Pass>(); },
            [](const RenderPassHelper &pass) -> std::unique_ptr<RenderPassHelper> {
                return std::make_unique<Pass>(static_cast<const Pass &>(pass));
            },
            [](RenderPassHelper &to, const RenderPassHelper &from) {
                static_cast<Pass &>(to) = static_cast<const Pass &>(from);
            },
            []() -> std::unique_ptr<RenderPassHelper> { return std::make_unique<Probe<Pass>>(); },
            [](const RenderPassHelper &probe, int index) -> QVariant {
                return static_cast<const Probe<Pass> &>(probe).kept(index);
            },
            [](RenderPassHelper &probe, int index) { static_cast<Probe<Pass> &>(probe).renameInput(index); },
            [](RenderPassHelper &probe, int index) { static_cast<Probe<Pass> &>(probe).renameOutput(index); }};
}

inline std::vector<PassCase> passCases()
{
#define KVO_CASE(name) passCase<name>(#name),
    return {KVO_EVERY_PASS(KVO_CASE)};
#undef KVO_CASE
}

inline const PassRow &rowOf(const char *name)
{
    for (const PassRow &row : passTable())
        if (qstrcmp(row.className, name) == 0)
            return row;
    ADD_FAILURE() << name << " has no row";
    return passTable().front();
}

} // namespace Brevane::Kvo::Test
