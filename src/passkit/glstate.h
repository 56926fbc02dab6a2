#pragma once

#include <initializer_list>

namespace Brevane::Kvo {

/// glDisable for each capability, in order.
void disable(std::initializer_list<unsigned int> capabilities);

/// glColorMask with all four channels open.
void openColorMask();

} // namespace Brevane::Kvo
