#include "tables/Crc32.h"

#include <array>
#include <cstddef>

namespace tessel {

namespace {

constexpr uint32_t kPolynomial = 0x04C11DB7;
constexpr size_t kSlices = 16;

// kTables[0] advances the CRC by one byte; kTables[k] by one byte and k zero bytes, so that sixteen
// bytes are looked up side by side.
constexpr auto kTables = [] {
    std::array<std::array<uint32_t, 256>, kSlices> tables{};
    for (uint32_t byte = 0; byte < 256; ++byte) {
        uint32_t crc = byte << 24;
        for (int bit = 0; bit < 8; ++bit)
            crc = crc << 1 ^ ((crc & 0x80000000) != 0 ? kPolynomial : 0);
        tables[0][byte] = crc;
    }
    for (size_t slice = 1; slice < kSlices; ++slice)
        for (uint32_t byte = 0; byte < 256; ++byte) {
            const uint32_t before = tables[slice - 1][byte];
            tables[slice][byte] = before << 8 ^ tables[0][before >> 24];
        }
    return tables;
}();

uint32_t Advance(uint32_t crc, std::span<const uint8_t> bytes) {
    for (const uint8_t byte : bytes)
        crc = crc << 8 ^ kTables[0][crc >> 24 ^ byte];
    return crc;
}

}  // namespace

uint32_t Mpeg2Crc32(std::span<const uint8_t> bytes) {
    uint32_t crc = 0xFFFFFFFF;
    while (bytes.size() >= kSlices) {
        // The CRC so far is carried by the first four bytes; the sixteen look-ups wait for nothing else.
        const uint8_t* const p = bytes.data();
        const auto at = [p](size_t i) { return kTables[kSlices - 1 - i][p[i]]; };
        const uint32_t tail =
            at(4) ^ at(5) ^ at(6) ^ at(7) ^ at(8) ^ at(9) ^ at(10) ^ at(11) ^ at(12) ^ at(13) ^ at(14) ^ at(15);
        crc ^= static_cast<uint32_t>(p[0]) << 24 | static_cast<uint32_t>(p[1]) << 16 |
               static_cast<uint32_t>(p[2]) << 8 | p[3];
        crc = kTables[15][crc >> 24] ^ kTables[14][crc >> 16 & 0xFF] ^ kTables[13][crc >> 8 & 0xFF] ^
              kTables[12][crc & 0xFF] ^ tail;
        bytes = bytes.subspan(kSlices);
    }
    return Advance(crc, bytes);
}

uint32_t Mpeg2Crc32Bytewise(std::span<const uint8_t> bytes) {
    return Advance(0xFFFFFFFF, bytes);
}

}  // namespace tessel
