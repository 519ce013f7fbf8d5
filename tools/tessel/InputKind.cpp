#include "tools/tessel/InputKind.h"

#include <unistd.h>

#include <algorithm>
#include <string_view>
#include <vector>

#include "core/stream/TsHeader.h"

namespace tessel::tool {

namespace {

using namespace std::string_view_literals;

// So many sync bytes at the distance of a packet are no chance. A shorter file shows fewer.
constexpr size_t kEnoughSyncBytes = 5;
constexpr size_t kLeastSyncBytes = 2;
constexpr size_t kPacketSizeWithParity = 204;  // ISO/IEC 13818-1 packets with Reed-Solomon bytes, EN 300 429 clause 4.4

constexpr struct {
    size_t position;
    std::string_view bytes;
    const char* text;
} kOthers[] = {
    {4, "ftyp"sv, "it is an MP4 file"},
    {0, "\x1A\x45\xDF\xA3"sv, "it is a Matroska or WebM file"},
    {0, "RIFF"sv, "it is an AVI or WAV file"},
    {0, "OggS"sv, "it is an Ogg file"},
    {0, "FLV"sv, "it is an FLV file"},
    {0, "ID3"sv, "it is an MP3 file"},
    {0, "\0\0\x01\xBA"sv, "it is a program stream"},
    {0, "\0\0\x01\xB3"sv, "it is a bare video stream"},
    {0, "\0\0\0\x01"sv, "it is a bare video stream"},
    {0, "\x1F\x8B"sv, "it is compressed by gzip"},
    {0,
     "\xFD"
     "7zXZ"sv,
     "it is compressed by xz"},
    {0, "PK\x03\x04"sv, "it is a ZIP archive"},
    {0, "%PDF"sv, "it is a PDF document"},
    {0, "#EXTM3U"sv, "it is a playlist: name one of the files that it lists"},
};

bool HasPackets(std::span<const uint8_t> head, size_t size) {
    const size_t wanted = std::clamp(head.size() / size, kLeastSyncBytes, kEnoughSyncBytes);
    for (size_t begin = 0; begin + (wanted - 1) * size < head.size(); ++begin) {
        size_t count = 0;
        while (count < wanted && head[begin + count * size] == kSyncByte)
            ++count;
        if (count == wanted)
            return true;
    }
    return false;
}

}  // namespace

std::optional<std::string> WhyNoStream(std::span<const uint8_t> head) {
    if (head.empty())
        return "it is empty";
    if (HasPackets(head, kTransportPacketSize) || HasPackets(head, kTimestampedPacketSize))
        return std::nullopt;
    if (HasPackets(head, kPacketSizeWithParity))
        return "its packets are 204 bytes long; those of 188 and 192 bytes can be read";
    for (const auto& other : kOthers)
        if (head.size() >= other.position + other.bytes.size() &&
            std::equal(other.bytes.begin(), other.bytes.end(), head.begin() + static_cast<ptrdiff_t>(other.position),
                       [](char wanted, uint8_t byte) { return static_cast<uint8_t>(wanted) == byte; }))
            return other.text;
    return "no packets begin in its first " + std::to_string(head.size()) +
           " bytes; packets are 188 or 192 bytes long and begin with 0x47";
}

std::optional<std::string> WhyNoStream(int descriptor) {
    std::vector<uint8_t> head(kHeadToJudge);
    const ssize_t count = pread(descriptor, head.data(), head.size(), 0);
    return count < 0 ? std::nullopt : WhyNoStream(std::span(head).first(static_cast<size_t>(count)));
}

}  // namespace tessel::tool
