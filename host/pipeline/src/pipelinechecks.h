#pragma once

#include <QStringList>

namespace Brevane::Kvo {

class HostValues;
class PassGraph;

/// What is likely a mistake though it runs, one line each, in the order of passes and inputs.
QStringList likelyMistakes(const PassGraph &graph, const HostValues &hosts);

} // namespace Brevane::Kvo
