#pragma once

#include "host/export.h"

#include <QString>

namespace Brevane::Kvo {

class Pipeline;

/// A drawing of a pipeline as SVG, which stands alone and inside HTML. Passes are boxes, numbered in the
/// order of running, in columns from left to right; a box names its class, the inputs that are linked (left),
/// the outputs that are read (right) and the host values that it takes. Links are lines from output to
/// input; hovering over one names both ends in full.
///
/// An empty text for a pipeline without passes; \a error is left alone.
KVO_PIPELINE_EXPORT QString pipelineGraph(const Pipeline &pipeline, QString *error = nullptr);

} // namespace Brevane::Kvo
