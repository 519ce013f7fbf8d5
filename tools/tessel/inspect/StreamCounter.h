// Counts packets PID by PID while a stream plays, for another thread to read.
#pragma once

#include <atomic>
#include <memory>
#include <optional>
#include <span>

#include "tools/tessel/PacketMeter.h"

namespace tessel::tool {

class StreamCounter {
public:
    StreamCounter() : m_pids(std::make_unique<Pid[]>(kPidCount)) {}

    // The one thread that plays.
    void Push(std::span<const uint8_t> bytes) { m_feed.Push(bytes, *this); }
    void Finish() { m_feed.Finish(*this); }
    // What comes next does not go on from what came.
    void Break() { m_break = m_feed.BytesReceived(); }
    // See PacketMeter.
    const std::optional<PacketMeter::Pcr>& LastPcr() const { return m_lastPcr; }

    // Any thread.
    struct Counts {
        uint64_t packets, scrambled, lost;
        bool hasPcr;
    };
    Counts Of(uint32_t pid) const;
    uint64_t Packets() const { return m_packets.load(std::memory_order_relaxed); }
    uint64_t Damaged() const { return m_damaged.load(std::memory_order_relaxed); }

private:
    // Written by one thread, so a load and a store make an increment.
    using Number = std::atomic<uint64_t>;
    static void Add(Number& number, uint64_t count = 1) {
        number.store(number.load(std::memory_order_relaxed) + count, std::memory_order_relaxed);
    }
    struct Pid {
        Number packets{0}, scrambled{0}, lost{0};
        std::atomic<bool> hasPcr{false};
        int8_t lastCounter = -1;
        bool repeated = false;
    };

    friend PacketParser;
    ParserStep ParsePacket(const uint8_t* packet) { return Note(packet), ParserStep::kGoOn; }
    void Note(const uint8_t* packet);
    void CheckCounter(Pid& pid, uint8_t counter);

    PacketFeed m_feed;
    std::optional<uint32_t> m_pcrPid;
    std::optional<PacketMeter::Pcr> m_lastPcr;
    int64_t m_break = INT64_MAX;  // position
    std::unique_ptr<Pid[]> m_pids;
    Number m_packets{0}, m_damaged{0};
};

}  // namespace tessel::tool
