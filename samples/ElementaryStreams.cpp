#include "samples/ElementaryStreams.h"

#include <algorithm>
#include <functional>
#include <stdexcept>

namespace tessel::sample {

namespace {

constexpr int64_t kPictureTime = build::kPtsPerSecond / 25;
constexpr int64_t kSampleRate = 48'000;

// Calls found with the bytes from each start code to the next one's.
void ForEachStartCode(std::span<const uint8_t> stream, const std::function<void(std::span<const uint8_t>)>& found) {
    constexpr uint8_t kPrefix[] = {0, 0, 1};
    const auto find = [&](size_t from) {
        const auto at = std::search(stream.begin() + static_cast<ptrdiff_t>(std::min(from, stream.size())),
                                    stream.end(), std::begin(kPrefix), std::end(kPrefix));
        return static_cast<size_t>(at - stream.begin());
    };
    for (size_t at = find(0); at + 4 <= stream.size();) {
        const size_t next = find(at + 3);
        found(stream.subspan(at, next - at));
        at = next;
    }
}

void Append(Bytes& to, std::span<const uint8_t> bytes) {
    to.insert(to.end(), bytes.begin(), bytes.end());
}

// A frame length of 0 says that no frame begins here.
AccessUnits SplitAudio(std::span<const uint8_t> stream, size_t headerSize, int64_t samples, size_t framesPerUnit,
                       size_t (*frameLength)(std::span<const uint8_t>)) {
    AccessUnits units;
    for (int64_t frames = 0; !stream.empty(); ++frames) {
        const size_t length = stream.size() < headerSize ? 0 : frameLength(stream);
        if (length < headerSize || length > stream.size())
            throw std::runtime_error("not the audio frames that were expected");
        if (static_cast<size_t>(frames) % framesPerUnit == 0) {
            const int64_t time = frames * samples * build::kPtsPerSecond / kSampleRate;
            units.push_back({.data = {}, .pts = time, .dts = time});
        }
        Append(units.back().data, stream.first(length));
        stream = stream.subspan(length);
    }
    return units;
}

}  // namespace

AccessUnits SplitMpegVideo(const Bytes& stream) {
    enum : uint8_t { kPicture = 0x00, kSequence = 0xB3, kSequenceEnd = 0xB7, kGroup = 0xB8 };
    AccessUnits units;
    int64_t groupStart = 0;  // pictures shown before this group
    bool pictureSeen = true;
    ForEachStartCode(stream, [&](std::span<const uint8_t> part) {
        const uint8_t code = part[3];
        if (pictureSeen && (code == kSequence || code == kGroup || code == kPicture)) {
            units.emplace_back();
            pictureSeen = false;
        }
        if (units.empty())
            throw std::runtime_error("not MPEG video");
        AccessUnit& unit = units.back();
        const auto index = static_cast<int64_t>(units.size()) - 1;
        if (code == kSequence)
            unit.randomAccess = true;
        if (code == kGroup)
            groupStart = index;
        if (code == kPicture && part.size() > 5) {
            pictureSeen = true;
            const int64_t temporalReference = part[4] << 2 | part[5] >> 6;
            unit.pts = (groupStart + temporalReference) * kPictureTime;
            unit.dts = (index - 1) * kPictureTime;  // reordering delays the display by one picture
        }
        Append(unit.data, part);
    });
    return units;
}

AccessUnits SplitAvcVideo(const Bytes& stream) {
    enum : uint8_t { kIdrSlice = 5, kDelimiter = 9 };
    AccessUnits units;
    ForEachStartCode(stream, [&](std::span<const uint8_t> part) {
        const uint8_t type = part[3] & 0x1F;
        if (type == kDelimiter) {
            const int64_t time = static_cast<int64_t>(units.size()) * kPictureTime;
            units.push_back({.data = {}, .pts = time, .dts = time});
        }
        if (units.empty())
            throw std::runtime_error("not H.264 with access unit delimiters");
        units.back().randomAccess |= type == kIdrSlice;
        // The zero_byte of a four byte start code belongs to what follows.
        while (part.back() == 0)
            part = part.first(part.size() - 1);
        Append(units.back().data, Bytes{0});
        Append(units.back().data, part);
    });
    return units;
}

AccessUnits SplitMpegAudio(const Bytes& stream, size_t framesPerUnit) {
    return SplitAudio(stream, 4, 1152, framesPerUnit, [](std::span<const uint8_t> frame) -> size_t {
        constexpr uint16_t kBitrates[16] = {0, 32, 48, 56, 64, 80, 96, 112, 128, 160, 192, 224, 256, 320, 384, 0};
        const bool layer2At48 = frame[0] == 0xFF && (frame[1] & 0xFE) == 0xFC && (frame[2] & 0x0C) == 0x04;
        return layer2At48 ? kBitrates[frame[2] >> 4] * 3u : 0;
    });
}

AccessUnits SplitAc3Audio(const Bytes& stream, size_t framesPerUnit) {
    return SplitAudio(stream, 8, 1536, framesPerUnit, [](std::span<const uint8_t> frame) -> size_t {
        constexpr uint16_t kBitrates[] = {32,  40,  48,  56,  64,  80,  96,  112, 128, 160,
                                          192, 224, 256, 320, 384, 448, 512, 576, 640};
        const size_t rate = frame[4] >> 1;  // fscod is 0 for 48 kHz
        return frame[0] == 0x0B && frame[1] == 0x77 && rate < std::size(kBitrates) ? kBitrates[rate] * 4u : 0;
    });
}

AccessUnits SplitAdtsAudio(const Bytes& stream, size_t framesPerUnit) {
    return SplitAudio(stream, 7, 1024, framesPerUnit, [](std::span<const uint8_t> frame) -> size_t {
        const bool sync = frame[0] == 0xFF && (frame[1] & 0xF6) == 0xF0;
        return sync ? (frame[3] & 3u) << 11 | frame[4] << 3 | frame[5] >> 5 : 0;
    });
}

}  // namespace tessel::sample
