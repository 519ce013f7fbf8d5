// Descriptors as people read them: one line of text each.
//
// Each is the descriptor's name, and behind it in parentheses what can be read of it. The text ends with a zero unit;
// what buffer cannot hold is cut off, and an empty buffer is left alone. Throws std::bad_alloc only.
#pragma once

#include <span>

#include "descriptors/DescriptorInterfaces.h"

namespace tessel {

// A buffer of this many units cuts no descriptor: the longest is 51 teletext pages.
inline constexpr size_t kDescriptorTextUnits = 2304;

// Renders by the descriptor's tag: a tag without a renderer of its own as its name, null as nothing.
void RenderDescriptor(std::span<OLECHAR> buffer, IDvbDescriptor* descriptor);

}  // namespace tessel
