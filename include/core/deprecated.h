#pragma once

/// Stands before the declaration of what goes in the next major version, with what to use in its place, and makes the
/// compiler say so wherever it is used:
///
///     KVO_DEPRECATED("use setExtent") void setSize(int width, int height);
///
/// docs/compatibility.md has the rule.
#define KVO_DEPRECATED(replacement) [[deprecated(replacement)]]
