// The CRC of PSI and SI sections: ISO/IEC 13818-1 annex A (polynomial 0x04C11DB7, most significant bit
// first, initial value 0xFFFFFFFF, no final inversion).
#pragma once

#include <cstdint>
#include <span>

namespace tessel {

// 0xFFFFFFFF for no bytes; 0 over a section with its CRC_32.
uint32_t Mpeg2Crc32(std::span<const uint8_t> bytes);

// The same by one table look-up a byte: the reference that the fast form is tested against.
uint32_t Mpeg2Crc32Bytewise(std::span<const uint8_t> bytes);

}  // namespace tessel
