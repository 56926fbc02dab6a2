#pragma once

#include <gl/hoststate.h>

#include <memory>
#include <ostream>
#include <vector>

namespace Brevane::Kvo::Test {

/// Something that a host may have set, as a value that would spoil a picture, by plain GL calls.
struct HostState
{
    const char *name;
    StatePiece piece;

    /// What a test holds on to while the state is set, and what it reads to see whether it still is.
    class Set
    {
    public:
        virtual ~Set() = default;
        /// The state as GL tells it.
        virtual std::vector<double> now() const = 0;
    };
    /// Sets it, in a clean context.
    std::unique_ptr<Set> (*set)();
};

void PrintTo(const HostState &state, std::ostream *stream);

/// Every state that the current context has.
std::vector<HostState> hostStates();

/// Puts every value of the context at GL's default and takes every binding off.
void cleanContext();

} // namespace Brevane::Kvo::Test
