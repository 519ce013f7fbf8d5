// EBU teletext in PES packets: the page coding of ETS 300 706, the carriage of EN 300 472.
#pragma once

#include <string>
#include <vector>

#include "tests/support/StreamBuilder.h"

namespace tessel::sample {

using build::Bytes;

// One transmission of a page of the first magazine: PES_packet_data_bytes whose length fits a PES header of
// kTeletextHeaderStuffing bytes, so that the PES packet fills its transport packets. page is 0x00 to 0x99; rows
// are lines of at most 40 characters, seven bits each, in the German character set. Empty ones are not sent, and
// one field of a picture has room for 15 others.
Bytes TeletextPageData(uint8_t page, const std::string& header, const std::vector<std::string>& rows);

constexpr size_t kTeletextHeaderStuffing = 31;  // makes PES_header_data_length 0x24

}  // namespace tessel::sample
