// Streams of whole programmes: tables, a PCR, and PES packets of video and audio whose bytes and times are known.
#pragma once

#include <cstdint>
#include <map>
#include <utility>
#include <vector>

#include "tests/support/StreamBuilder.h"

namespace tessel::build {

struct ElementaryStream {
    uint16_t pid = 0;
    uint8_t streamType = 0;
    uint8_t streamId = 0;
    size_t pesSize = 0;  // payload bytes of each PES packet
    Descriptors descriptors = {};
    int64_t ptsOffset = 0;  // 90 kHz, of its first time stamp against the programme's time
};

// MPEG-2 video, MPEG audio, and so on, of the size that a test wants.
ElementaryStream Video(uint16_t pid, size_t pesSize = 20'000, uint8_t streamType = 0x02);
ElementaryStream Audio(uint16_t pid, size_t pesSize = 2'000, uint8_t streamType = 0x03);

struct Programme {
    uint16_t number = 1;
    uint16_t pmtPid = 0x100;
    uint16_t pcrPid = 0x101;
    std::vector<ElementaryStream> streams = {};
    uint8_t pmtVersion = 0;
};

// Frames of 40 ms each: a PCR, then one PES packet of every stream. What went into each stream is kept.
class ProgrammeBuilder {
public:
    static constexpr int64_t kFrame = 3'600;  // 90 kHz
    static constexpr int64_t kLead = 45'000;  // a time stamp lies half a second behind the PCR

    explicit ProgrammeBuilder(std::vector<Programme> programmes, uint16_t transportStreamId = 1)
        : m_programmes(std::move(programmes)), m_transportStreamId(transportStreamId) {}

    // With a PCR in front: a program map table counts once its PCR PID has been seen.
    ProgrammeBuilder& Tables();
    ProgrammeBuilder& Frames(size_t count);
    // The time goes on from there, in 90 kHz.
    ProgrammeBuilder& SetTime(int64_t time);
    // So that the packets before it are parsed: packets that no output wants.
    ProgrammeBuilder& Padding(size_t packets = 5);

    StreamBuilder& stream() { return m_stream; }
    std::vector<Programme>& programmes() { return m_programmes; }
    // Everything added since the last call.
    Bytes Take() { return std::exchange(m_stream.bytes(), {}); }
    // All payload bytes, and the time stamp (33 bits) and payload offset of each PES packet.
    const Bytes& Payload(uint16_t pid) { return m_payloads[pid]; }
    struct Stamp {
        size_t offset;
        int64_t time;
    };
    const std::vector<Stamp>& Stamps(uint16_t pid) { return m_stamps[pid]; }

private:
    std::vector<Programme> m_programmes;
    uint16_t m_transportStreamId;
    StreamBuilder m_stream;
    int64_t m_time = 90'000;
    std::map<uint16_t, Bytes> m_payloads;
    std::map<uint16_t, std::vector<Stamp>> m_stamps;
};

}  // namespace tessel::build
