// Finds the audio frames of a PID in its transport packets.
#pragma once

#include <deque>
#include <functional>
#include <optional>
#include <vector>

#include "core/stream/PacketSink.h"
#include "core/stream/PesReader.h"
#include "output/parsers/FrameParser.h"

namespace tessel::tool {

struct AudioFrame {
    int64_t position = 0;  // in the payloads of all PES packets, joined
    uint32_t length = 0;
    uint32_t samples = 0;  // of each channel
    uint32_t rate = 0;
    uint32_t channels = 0;
    std::optional<double> time;  // seconds: of the time stamp, or counted on from the last one
};

// Frames count when the sync word of the next follows, or when they end where the stream does, or where packets are
// missing from it.
class FrameList final : public IPacketSink {
public:
    using Taker = std::function<void(const AudioFrame&)>;

    FrameList(uint32_t pid, cvneDataParser::FrameParser& parser, Taker taker);

    int DeliverPacket(const uint8_t* packet, const TsHeader& header, const AdaptationFieldHeader& adaptation,
                      bool pidHasSectionFilter) override;
    int DeliverSection(const TsHeader&, std::span<const uint8_t>) override { return 0; }

    // No more packets come.
    void Finish();

private:
    struct Stamp {
        int64_t position;
        int64_t pts;
    };

    // Packets are missing.
    void OnGap();
    // All frames that are there; the last bytes too when nothing follows them.
    void Walk(bool last);
    void Take(int64_t position, uint32_t length, uint32_t samples);

    const uint32_t m_pid;
    cvneDataParser::FrameParser& m_parser;
    const Taker m_taker;
    PesReader m_pes{PesReader::Headers::kSplit};
    bool m_begun = false;          // a PES packet has begun
    std::vector<uint8_t> m_bytes;  // of the joined stream, not yet walked over
    int64_t m_position = 0;        // of their first
    std::deque<Stamp> m_stamps;
    std::optional<double> m_nextTime;
};

}  // namespace tessel::tool
