// Audio frames: sync words, headers, lengths and the walk that adds up durations.
#include <gtest/gtest.h>

#include <algorithm>
#include <utility>
#include <vector>

#include "output/parsers/AC3Parser.h"
#include "output/parsers/AudioFrameWalk.h"
#include "output/parsers/MPAParser.h"
#include "platform/media/MediaType.h"
#include "tests/support/SectionBuilder.h"

namespace tessel::cvneDataParser {
namespace {

using build::Bytes;
using build::Join;

class BitWriter : private build::BitWriter {
public:
    BitWriter& Put(uint32_t value, uint32_t count) {
        build::BitWriter::Put(value, count);
        return *this;
    }
    // The bytes so far and then filling up to length.
    Bytes Frame(size_t length, uint8_t filling = 0x55) const {
        Bytes frame = bytes();
        frame.resize(length, filling);
        return frame;
    }
};

BitWriter AC3(uint32_t fscod, uint32_t frmsizecod, uint32_t bsid = 8, uint32_t bsmod = 0) {
    return BitWriter().Put(0x0B77, 16).Put(0x1234, 16).Put(fscod, 2).Put(frmsizecod, 6).Put(bsid, 5).Put(bsmod, 3);
}

struct MPA {
    uint32_t id = 1;
    uint32_t layer = 2;
    uint32_t index = 10;
    uint32_t frequency = 1;
    uint32_t padding = 0;
    uint32_t mode = 0;

    BitWriter Write() const {
        BitWriter bits;
        bits.Put(0xFFF, 12).Put(id, 1).Put(layer, 2).Put(1, 1);
        bits.Put(index, 4).Put(frequency, 2).Put(padding, 1).Put(0, 1);
        return bits.Put(mode, 2).Put(0, 6);
    }
    Bytes Frame(size_t length) const { return Write().Frame(length); }
};
constexpr uint32_t kMPALength = 576;  // of the defaults: layer II, 192 kbit/s at 48 kHz

Bytes Swapped(Bytes bytes) {
    for (size_t i = 0; i + 1 < bytes.size(); i += 2)
        std::swap(bytes[i], bytes[i + 1]);
    return bytes;
}

struct Found {
    HRESULT result;
    ptrdiff_t offset;
    uint32_t length;
    uint32_t samples;
    bool complete;

    bool operator==(const Found&) const = default;
    friend void PrintTo(const Found& f, std::ostream* os) {
        *os << std::hex << f.result << std::dec << " at " << f.offset << ", " << f.length << " bytes, " << f.samples
            << " samples, complete " << f.complete;
    }
};
constexpr Found kNone{kNoSyncWord, 0, 0, 0, false};

Found Find(CParserIfc& parser, const Bytes& bytes) {
    const Bytes exact(bytes);  // no spare capacity: a read past the end is seen by the sanitizers
    FrameRecord frame{exact.data(), 1, 2, 3, 4, 5};
    BOOL complete = 7;
    const HRESULT result = parser.FindFrame(exact.data(), static_cast<int32_t>(exact.size()), 0, &frame, &complete);
    EXPECT_EQ(frame.flags, complete != 0 ? kFrameConfirmed : 0u);
    EXPECT_EQ(frame.count, result == S_OK ? 1u : 0u);
    EXPECT_EQ(frame.reserved, 0u);
    EXPECT_EQ(frame.start == nullptr, result != S_OK);
    return {result, frame.start != nullptr ? frame.start - exact.data() : 0, frame.length, frame.samplesPerFrame,
            complete != 0};
}

const WAVEFORMATEX& FormatOf(FrameParser& parser, const Bytes& bytes) {
    EXPECT_EQ(parser.ParseFormat(bytes.data(), static_cast<int32_t>(bytes.size())), S_OK);
    return parser.Format();
}

// A/52 table 5.18: the first and the last bit rate of each sampling rate, and the two of a pair.
TEST(AudioFrames, AC3LengthsAreThoseOfTheBitRates) {
    const struct {
        uint32_t fscod, code, words, rate;
    } cases[] = {{0, 0, 64, 48'000},     {0, 16, 256, 48'000},  {0, 37, 1'280, 48'000}, {1, 8, 139, 44'100},
                 {1, 9, 140, 44'100},    {1, 0, 69, 44'100},    {1, 37, 1'394, 44'100}, {2, 1, 96, 32'000},
                 {2, 28, 1'152, 32'000}, {2, 37, 1'920, 32'000}};
    for (const auto& [fscod, code, words, rate] : cases) {
        const Bytes frame = AC3(fscod, code).Frame(2 * words);
        for (const Bytes& bytes : {Join({frame, frame}), Swapped(Join({frame, frame}))}) {
            CAC3Parser parser;
            EXPECT_EQ(Find(parser, bytes), (Found{S_OK, 0, 2 * words, 1536, true})) << fscod << " " << code;
            EXPECT_EQ(parser.Format().nSamplesPerSec, rate);
        }
    }
}

// ISO/IEC 11172-3 and 13818-3, clauses 2.4.2.3: bit rates of each layer at each of the sampling rates.
TEST(AudioFrames, MPEGLengthsAreThoseOfTheBitRates) {
    const struct {
        uint32_t id, layer, index, frequency, kilobits, rate;
    } cases[] = {{1, 3, 1, 0, 32, 44'100},   {1, 3, 14, 1, 448, 48'000}, {1, 2, 1, 2, 32, 32'000},
                 {1, 2, 5, 1, 80, 48'000},   {1, 2, 14, 0, 384, 44'100}, {1, 1, 2, 1, 40, 48'000},
                 {1, 1, 14, 2, 320, 32'000}, {0, 3, 2, 0, 48, 22'050},   {0, 3, 14, 1, 256, 24'000},
                 {0, 2, 1, 2, 8, 16'000},    {0, 2, 9, 1, 80, 24'000},   {0, 1, 14, 0, 160, 22'050}};
    for (const auto& c : cases) {
        for (uint32_t padding = 0; padding < 2; ++padding) {
            const uint32_t samples = c.layer == 3 ? 384 : 1152;
            const uint32_t length = c.kilobits * 1000 * (samples / 8) / c.rate + padding * (c.layer == 3 ? 4 : 1);
            const Bytes frame = MPA{c.id, c.layer, c.index, c.frequency, padding}.Frame(length);
            CMPAParser parser;
            EXPECT_EQ(Find(parser, Join({frame, frame})), (Found{S_OK, 0, length, samples, true}))
                << c.id << " " << c.layer << " " << c.index << " " << padding;
            EXPECT_EQ(parser.Format().nSamplesPerSec, c.rate);
        }
    }
}

TEST(AudioFrames, ImpossibleHeadersAreNoSyncWords) {
    CAC3Parser ac3;
    CMPAParser mpa;
    struct Case {
        const char* what;
        FrameParser& parser;
        Bytes bytes;
        ptrdiff_t offset;  // -1: none
    };
    const Case cases[] = {
        {"reserved sampling rate", ac3, AC3(3, 0).Frame(8), -1},
        {"reserved sampling rate, swapped", ac3, Swapped(AC3(3, 0).Frame(8)), -1},
        {"frame size code 38", ac3, AC3(0, 38).Frame(8), -1},
        {"only five bytes", ac3, AC3(0, 0).Frame(5), -1},
        {"all six", ac3, AC3(0, 0).Frame(6), 0},
        {"behind an impossible one", ac3, Join({AC3(0, 63).Frame(7), Swapped(AC3(2, 37).Frame(6))}), 7},
        {"nothing", ac3, {}, -1},
        {"forbidden bit rate", mpa, MPA{1, 2, 15}.Frame(8), -1},
        {"reserved sampling frequency", mpa, MPA{1, 2, 10, 3}.Frame(8), -1},
        {"a sync word of eleven bits", mpa, {0xFF, 0xE5, 0xA4, 0, 0}, -1},
        {"only three bytes", mpa, MPA().Frame(3), -1},
        {"all four", mpa, MPA().Frame(4), 0},
        {"free format", mpa, MPA{1, 2, 0}.Frame(4), 0},
        {"behind an impossible one", mpa, Join({MPA{1, 2, 15}.Frame(5), MPA().Frame(4)}), 5},
        {"in a run of ones", mpa, Join({Bytes(9, 0xFF), MPA().Frame(4)}), 9},
        {"nothing", mpa, {}, -1},
    };
    for (const Case& c : cases) {
        const Bytes exact(c.bytes);
        const uint8_t none = 0;
        const uint8_t* const start = exact.empty() ? &none : exact.data();
        const uint8_t* data = start;
        auto length = static_cast<int32_t>(exact.size());
        const ptrdiff_t skipped = std::max<ptrdiff_t>(c.offset, 0);
        EXPECT_EQ(c.parser.FindSync(&data, &length), c.offset < 0 ? E_FAIL : S_OK) << c.what;
        EXPECT_EQ(data - start, skipped) << c.what;
        EXPECT_EQ(length, static_cast<int32_t>(exact.size()) - skipped) << c.what;
        EXPECT_EQ(c.parser.ParseFormat(start, static_cast<int32_t>(exact.size())), c.offset < 0 ? kNoSyncWord : S_OK)
            << c.what;
    }
}

TEST(AudioFrames, WaveFormatsDescribeTheDecodedAudio) {
    struct Mode {
        uint32_t mixBits;  // those between acmod and lfeon
        uint16_t channels;
    };
    const Mode modes[] = {{0, 2}, {0, 1}, {2, 2}, {2, 3}, {2, 3}, {4, 4}, {2, 4}, {4, 5}};
    CAC3Parser ac3;
    for (uint32_t acmod = 0; acmod < 8; ++acmod) {
        for (uint32_t lfeon = 0; lfeon < 2; ++lfeon) {
            BitWriter bits = AC3(0, 8).Put(acmod, 3).Put(0, modes[acmod].mixBits).Put(lfeon, 1);
            for (const Bytes& bytes : {bits.Frame(20), Swapped(bits.Frame(20))})
                EXPECT_EQ(FormatOf(ac3, bytes).nChannels, modes[acmod].channels + lfeon) << acmod;
            EXPECT_EQ(FormatOf(ac3, bits.Frame(19)).nChannels, 2) << "too little to tell";
        }
    }
    const uint32_t rates[3][3] = {{48'000, 24'000, 12'000}, {44'100, 22'050, 11'025}, {32'000, 16'000, 8'000}};
    for (uint32_t fscod = 0; fscod < 3; ++fscod) {
        for (uint32_t bsid = 8; bsid <= 10; ++bsid)
            EXPECT_EQ(FormatOf(ac3, AC3(fscod, 8, bsid).Frame(20)).nSamplesPerSec, rates[fscod][bsid - 8]);
    }

    CMPAParser mpa;
    for (uint32_t mode = 0; mode < 4; ++mode) {
        const uint16_t channels = mode == 3 ? 1 : 2;
        const WAVEFORMATEX& format = FormatOf(mpa, MPA{0, 1, 1, 0, 0, mode}.Frame(4));
        EXPECT_EQ(format.wFormatTag, WAVE_FORMAT_PCM);
        EXPECT_EQ(format.nChannels, channels);
        EXPECT_EQ(format.nBlockAlign, 2 * channels);
        EXPECT_EQ(format.nAvgBytesPerSec, 44'100u * channels);
        EXPECT_EQ(format.wBitsPerSample, 16);
        EXPECT_EQ(format.cbSize, 0);
    }
}

TEST(AudioFrames, FramesAreConfirmedCorrectedOrPassedOver) {
    CAC3Parser ac3;
    CMPAParser mpa;
    const Bytes a = AC3(0, 8).Frame(256);
    const Bytes m = MPA().Frame(kMPALength);
    const Bytes junk(40, 0x55);
    struct Case {
        const char* what;
        FrameParser& parser;
        Bytes bytes;
        Found found;
    };
    const Case cases[] = {
        {"junk in front", ac3, Join({junk, a, a}), {S_OK, 40, 256, 1536, true}},
        {"an odd shift", ac3, Join({Bytes(3), Swapped(Join({a, a}))}), {S_OK, 3, 256, 1536, true}},
        {"cut short", ac3, AC3(0, 8).Frame(100), {S_OK, 0, 100, 1536, false}},
        {"a header's bytes behind", ac3, AC3(0, 8).Frame(262), {S_OK, 0, 256, 1536, false}},
        {"a byte more and no sync word", ac3, AC3(0, 8).Frame(263), kNone},
        {"four bytes short", ac3, Join({AC3(0, 8).Frame(252), a}), {S_OK, 0, 252, 1536, true}},
        {"half a swapped sync word at the end", ac3, Join({AC3(0, 8).Frame(256, 0x77), a}), {S_OK, 0, 256, 1536, true}},
        {"five bytes short", ac3, Join({AC3(0, 8).Frame(251), a, a}), {S_OK, 251, 256, 1536, false}},
        {"22 bytes longer", ac3, Join({AC3(0, 8).Frame(278), a}), {S_OK, 0, 278, 1536, true}},
        {"23 bytes longer", ac3, Join({AC3(0, 8).Frame(279), a, a}), {S_OK, 279, 256, 1536, false}},
        {"a false sync word in front", ac3, Join({AC3(1, 0).Frame(10), a, a}), {S_OK, 10, 256, 1536, true}},

        {"junk in front", mpa, Join({junk, m, m}), {S_OK, 40, kMPALength, 1152, true}},
        {"cut short", mpa, MPA().Frame(100), {S_OK, 0, 100, 1152, false}},
        {"only a header", mpa, MPA().Frame(4), {S_OK, 0, 4, 1152, false}},
        {"a header behind", mpa, Join({m, MPA().Frame(5)}), {S_OK, 0, kMPALength, 1152, true}},
        {"24 bytes longer", mpa, Join({MPA().Frame(600), m}), {S_OK, 0, 600, 1152, true}},
        {"a whole slot of layer I",
         mpa,
         Join({MPA{1, 3, 1, 0}.Frame(32), MPA{1, 3, 1, 0}.Frame(32)}),
         {S_OK, 0, 32, 384, true}},
        {"free format", mpa, Join({MPA{1, 2, 0}.Frame(20), MPA{1, 2, 0}.Frame(20)}), kNone},
        {"free format in front", mpa, Join({MPA{1, 2, 0}.Frame(20), m, m}), {S_OK, 20, kMPALength, 1152, true}},
        {"the reserved layer", mpa, Join({MPA{1, 0}.Frame(20), m, m}), {S_OK, 20, kMPALength, 1152, true}},
        {"cut by the narrowed search", mpa, Join({MPA{1, 2, 1}.Frame(200), m}), {S_OK, 200, 480, 1152, false}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        EXPECT_EQ(Find(c.parser, c.bytes), c.found);
    }
}

// What a walk makes of payloads of so many bytes.
REFERENCE_TIME TimeOf(FrameParser& parser, const Bytes& bytes, size_t step) {
    AudioFrameWalk walk(parser);
    for (size_t i = 0; i < bytes.size(); i += step) {
        const Bytes payload(bytes.begin() + static_cast<ptrdiff_t>(i),
                            bytes.begin() + static_cast<ptrdiff_t>(std::min(bytes.size(), i + step)));
        EXPECT_EQ(walk.Append(payload), S_OK);
    }
    return walk.Time();
}

TEST(AudioFrameWalk, AddsTheDurationsOfWholeFramesInPayloadsOfAnySize) {
    CAC3Parser ac3;
    CMPAParser mpa;
    const Bytes a = AC3(1, 9).Frame(280);
    const Bytes m = MPA().Frame(kMPALength);
    const Bytes junk(40, 0x55);
    constexpr REFERENCE_TIME kA = 348'299;  // 1536 samples at 44.1 kHz
    constexpr REFERENCE_TIME kM = 240'000;
    struct Case {
        const char* what;
        FrameParser& parser;
        Bytes bytes;
        REFERENCE_TIME time;
    };
    const Case cases[] = {
        {"nothing", mpa, {}, 0},
        {"junk", mpa, Join({junk, junk}), 0},
        {"one whole frame", mpa, m, kM},
        {"a frame but for its last byte", mpa, MPA().Frame(kMPALength - 1), 0},
        {"a frame and the next's first byte", mpa, Join({m, {0xFF}}), 0},
        {"a frame and the next's header", mpa, Join({m, MPA().Frame(5)}), kM},
        {"frames and a half", mpa, Join({m, m, m, MPA().Frame(300)}), 3 * kM},
        {"junk between frames", mpa, Join({m, m, junk, m, m}), 3 * kM},
        {"a false sync word in front of frames", mpa, Join({MPA().Frame(10), m, m}), 2 * kM},
        {"a false one close to the end", mpa, Join({MPA{1, 2, 1}.Frame(200), m}), kM},
        {"free format", mpa, Join({MPA{1, 2, 0}.Frame(417), MPA{1, 2, 0}.Frame(417)}), 0},
        {"a change of rate", mpa, Join({m, MPA{1, 2, 10, 2}.Frame(864), m}), kM + 360'000 + kM},
        {"AC-3", ac3, Join({a, a, a}), 3 * kA},
        {"swapped AC-3", ac3, Swapped(Join({a, a, AC3(1, 9).Frame(20)})), 2 * kA},
        {"a swapped false sync word", ac3, Join({{0x77, 0x0B}, a, a}), 2 * kA},
    };
    for (const Case& c : cases) {
        for (const size_t step : {size_t{20'480}, size_t{184}, size_t{7}})
            EXPECT_EQ(TimeOf(c.parser, c.bytes, step), c.time) << c.what << " by " << step;
    }
}

TEST(AudioFrameWalk, GoesOnForLongAndForgetsAtATimeStamp) {
    CMPAParser parser;
    Bytes hour;
    for (int i = 0; i < 500; ++i)
        hour = Join({std::move(hour), MPA().Frame(kMPALength)});
    EXPECT_EQ(TimeOf(parser, hour, 184), 500 * 240'000);  // many times the cache

    AudioFrameWalk walk(parser);
    const Bytes half = MPA().Frame(300);
    const Bytes full = MPA().Frame(kMPALength);
    EXPECT_EQ(walk.Append(half), S_OK);
    walk.Restart(-5'000'000);
    EXPECT_EQ(walk.Append(full), S_OK);
    EXPECT_EQ(walk.Time(), -5'000'000 + 240'000);

    EXPECT_EQ(walk.Append(half), S_OK);
    EXPECT_EQ(walk.Append(Bytes(AudioFrameWalk::kCacheSize - 299)), E_FAIL);
    EXPECT_EQ(walk.Append(Bytes(full.begin() + 300, full.end())), S_OK);
    EXPECT_EQ(walk.Time(), -5'000'000 + 2 * 240'000);
}

}  // namespace
}  // namespace tessel::cvneDataParser
