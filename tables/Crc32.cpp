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
        uint32_t next = 0;
        for (size_t i = 0; i < kSlices; ++i) {
            const uint8_t carried = i < 4 ? static_cast<uint8_t>(crc >> (24 - 8 * i)) : uint8_t{0};
            next ^= kTables[kSlices - 1 - i][bytes[i] ^ carried];
        }
        crc = next;
        bytes = bytes.subspan(kSlices);
    }
    return Advance(crc, bytes);
}

uint32_t Mpeg2Crc32Bytewise(std::span<const uint8_t> bytes) {
    return Advance(0xFFFFFFFF, bytes);
}

}  // namespace tessel
