#include "samples/Teletext.h"

#include <stdexcept>

namespace tessel::sample {

namespace {

// Hamming 8/4 (ETS 300 706, 8.2): the data bits are 2, 4, 6 and 8, the rest protects them.
uint8_t Hamming(unsigned value) {
    const auto d = [value](unsigned bit) { return value >> (bit - 1) & 1; };
    const unsigned p1 = 1 ^ d(1) ^ d(3) ^ d(4);
    const unsigned p2 = 1 ^ d(1) ^ d(2) ^ d(4);
    const unsigned p3 = 1 ^ d(1) ^ d(2) ^ d(3);
    const unsigned p4 = 1 ^ p1 ^ d(1) ^ p2 ^ d(2) ^ p3 ^ d(3) ^ d(4);
    return static_cast<uint8_t>(p1 | d(1) << 1 | p2 << 2 | d(2) << 3 | p3 << 4 | d(3) << 5 | p4 << 6 | d(4) << 7);
}

uint8_t OddParity(char character) {
    unsigned ones = 0;
    for (unsigned bit = 0; bit < 7; ++bit)
        ones += character >> bit & 1;
    return static_cast<uint8_t>((character & 0x7F) | (ones % 2 == 0 ? 0x80 : 0));
}

// Teletext bytes travel least significant bit first, a transport stream's most significant first.
uint8_t Reversed(uint8_t byte) {
    uint8_t reversed = 0;
    for (unsigned bit = 0; bit < 8; ++bit)
        reversed |= static_cast<uint8_t>((byte >> bit & 1) << (7 - bit));
    return reversed;
}

enum : uint8_t { kFirstField = 0xE0, kSecondField = 0xC0 };  // with the reserved bits; the line is added
constexpr uint8_t kFirstLine = 7;
constexpr uint8_t kLastLine = 22;

// A data unit (EN 300 472, 4.3) with one packet of the first magazine.
Bytes DataUnit(unsigned fieldAndLine, unsigned row, Bytes content, const std::string& text) {
    if (content.size() + text.size() > 40)
        throw std::length_error("a teletext row of more than 40 characters");
    for (size_t i = 0; content.size() < 40; ++i)
        content.push_back(OddParity(i < text.size() ? text[i] : ' '));
    Bytes packet = {0x27, Hamming(1 | (row & 1) << 3), Hamming(row >> 1)};
    packet.insert(packet.end(), content.begin(), content.end());
    for (uint8_t& byte : packet)
        byte = Reversed(byte);
    return build::Join({{0x02, 0x2C, static_cast<uint8_t>(fieldAndLine)}, packet});
}

}  // namespace

Bytes TeletextPageData(uint8_t page, const std::string& header, const std::vector<std::string>& rows) {
    enum : unsigned { kErasePage = 8, kMagazineSerial = 1, kGerman = 8 };  // C4, C11, C14
    const Bytes address = {Hamming(page & 15u), Hamming(page >> 4), Hamming(0), Hamming(kErasePage),
                           Hamming(0),          Hamming(0),         Hamming(0), Hamming(kMagazineSerial | kGerman)};
    // Page FF with the highest subcode is no page: its header says that the one before is whole.
    const Bytes filling = {Hamming(15), Hamming(15), Hamming(15), Hamming(7),
                           Hamming(15), Hamming(3),  Hamming(0),  Hamming(kMagazineSerial | kGerman)};
    // The rows come a field behind the header, in which a decoder clears the page (ETS 300 706).
    std::vector<Bytes> parts = {{0x10}, DataUnit(kFirstField | kFirstLine, 0, address, header)};  // data_identifier
    unsigned line = kFirstLine;
    for (unsigned row = 0; row < rows.size(); ++row) {
        if (!rows[row].empty())
            parts.push_back(DataUnit(kSecondField | line++, row + 1, {}, rows[row]));
    }
    if (line > kLastLine)
        throw std::length_error("more rows than a field has lines for");
    parts.push_back(DataUnit(kSecondField | line, 0, filling, header));
    // The PES header and data_identifier are as long as one data unit; four fill a transport packet.
    while (parts.size() % 4 != 0)
        parts.push_back(build::Join({{0xFF, 0x2C}, Bytes(0x2C, 0xFF)}));
    return build::Join(parts);
}

}  // namespace tessel::sample
