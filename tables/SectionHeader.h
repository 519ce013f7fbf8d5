// The header of a section in the long form, ISO/IEC 13818-1 clause 2.4.4.11.
#pragma once

#include <cstdint>
#include <span>

#include "Classes/MultiPlatform/ByteReader.h"

namespace tessel {

struct SectionHeader {
    static constexpr int32_t kSize = 8;
    static constexpr int32_t kCrcSize = 4;

    uint8_t tableId = 0;
    bool sectionSyntaxIndicator = false;
    uint16_t sectionLength = 0;
    uint16_t tableIdExtension = 0;
    uint8_t versionNumber = 0;
    bool currentNextIndicator = false;
    uint8_t sectionNumber = 0;
    uint8_t lastSectionNumber = 0;
};

// section: at least kSize bytes.
inline SectionHeader DecodeSectionHeader(const uint8_t* section) {
    SectionHeader header;
    header.tableId = section[0];
    header.sectionSyntaxIndicator = (section[1] & 0x80) != 0;
    header.sectionLength = static_cast<uint16_t>((section[1] & 0x0F) << 8 | section[2]);
    header.tableIdExtension = static_cast<uint16_t>(section[3] << 8 | section[4]);
    header.versionNumber = section[5] >> 1 & 0x1F;
    header.currentNextIndicator = (section[5] & 0x01) != 0;
    header.sectionNumber = section[6];
    header.lastSectionNumber = section[7];
    return header;
}

// What lies between the header and the CRC; empty when there is no room for both.
inline std::span<const uint8_t> SectionPayload(std::span<const uint8_t> section) {
    constexpr size_t kAround = SectionHeader::kSize + SectionHeader::kCrcSize;
    if (section.size() < kAround)
        return {};
    return section.subspan(SectionHeader::kSize, section.size() - kAround);
}

}  // namespace tessel
