// DVB subtitles, EN 300 743: display sets with one region and one object that shows a word.
#pragma once

#include <string_view>

#include "tests/support/StreamBuilder.h"

namespace tessel::sample {

using build::Bytes;

constexpr uint16_t kSubtitlePage = 1;

// Both return PES_packet_data_bytes. version counts the display sets of the page.
Bytes SubtitleShow(unsigned version, std::string_view word);  // of the letters E, L, S and T
Bytes SubtitleHide(unsigned version);

}  // namespace tessel::sample
