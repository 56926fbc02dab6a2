#pragma once

#include "host/export.h"

#include <QByteArray>

namespace Brevane::Kvo {

/// A JSON Schema (draft 2020-12) of pipeline files with the classes that the factory knows, from which editors
/// complete names of classes, slots, choices and host values, and show what they mean. It refuses what
/// loadPipeline refuses by form: unknown members, classes and slots, and values of the wrong type. Which outputs
/// there are to link to it does not know.
///
/// Makes a pass of every class, so a context should be current for those that want one.
KVO_PIPELINE_EXPORT QByteArray pipelineSchema();

} // namespace Brevane::Kvo
