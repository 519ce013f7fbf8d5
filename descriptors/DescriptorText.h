// Descriptors as people read them: one line of text each.
//
// A renderer writes its name, and behind it in parentheses what it can read of descriptor, which may
// be null. The text ends with a zero unit; what buffer cannot hold is cut off, and an empty buffer is
// left alone. Throws std::bad_alloc only.
#pragma once

#include <span>

#include "descriptors/DescriptorInterfaces.h"

namespace tessel {

// A buffer of this many units cuts no descriptor: the longest is 51 teletext pages.
inline constexpr size_t kDescriptorTextUnits = 2304;

void RenderVideoStream(std::span<OLECHAR> buffer, IDvbDescriptor* descriptor);
void RenderRegistration(std::span<OLECHAR> buffer, IDvbDescriptor* descriptor);
void RenderISO639Language(std::span<OLECHAR> buffer, IDvbDescriptor* descriptor);
void RenderAVCVideo(std::span<OLECHAR> buffer, IDvbDescriptor* descriptor);
void RenderService(std::span<OLECHAR> buffer, IDvbDescriptor* descriptor);
void RenderStreamIdentifier(std::span<OLECHAR> buffer, IDvbDescriptor* descriptor);
void RenderTeletext(std::span<OLECHAR> buffer, IDvbDescriptor* descriptor);
void RenderSubtitling(std::span<OLECHAR> buffer, IDvbDescriptor* descriptor);
void RenderDataBroadcastId(std::span<OLECHAR> buffer, IDvbDescriptor* descriptor);

// Renders by the descriptor's tag: a tag without a renderer of its own as its name, null as nothing.
void RenderDescriptor(std::span<OLECHAR> buffer, IDvbDescriptor* descriptor);

}  // namespace tessel
