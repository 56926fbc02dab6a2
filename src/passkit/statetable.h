#pragma once

#include "gl/hoststate.h"
#include "renderpasses/export.h"

namespace Brevane::Kvo {

/// What each pass does with the state that a host has set: the exceptions. Everything that a row does not
/// name is neutral: the picture is that of a clean context, and the value afterwards is as before. The
/// guards of the passes, Pipeline, the tests and docs/host-state.md go by it.
KVO_RENDERPASSES_EXPORT const std::vector<StateRow> &stateTable();

/// What no pass can keep out, since GL does not say whether it is so.
struct StateOfAll
{
    StatePiece piece;
    const char *text;
};
KVO_RENDERPASSES_EXPORT const std::vector<StateOfAll> &stateOfAll();

/// The row of a class; null for a class that is not in the library.
KVO_RENDERPASSES_EXPORT const StateRow *findStateRow(const char *className);

/// The row of a class of the library.
const StateRow &stateRow(const char *className);

} // namespace Brevane::Kvo
