// Which PIDs have been seen, and whether their last packet was scrambled.
#pragma once

#include <array>
#include <atomic>
#include <bitset>
#include <cstdint>

#include "core/stream/TsHeader.h"

namespace tessel {

using PidSet = std::bitset<kPidCount>;

// Written by the parsing thread alone; any thread may read. Each byte is an atomic of its own: a
// reader needs the two bits of one PID, and those are written together.
class PidStatusBits {
public:
    void Update(uint32_t pid, bool scrambled) {
        std::atomic<uint8_t>& byte = m_bytes[pid / 4];
        const uint32_t shift = pid % 4;
        const uint32_t before = byte.load(std::memory_order_relaxed);
        const uint32_t bits = scrambled ? 0x11 : 0x10;
        if ((before >> shift & 0x11) != bits) [[unlikely]]
            byte.store(static_cast<uint8_t>((before & ~(0x11u << shift)) | bits << shift), std::memory_order_relaxed);
    }

    // pid: below 8192.
    bool IsPresent(uint32_t pid) const { return (Byte(pid) >> (4 + pid % 4) & 1) != 0; }
    bool IsScrambled(uint32_t pid) const { return (Byte(pid) >> (pid % 4) & 1) != 0; }

    PidSet Present() const {
        PidSet pids;
        for (uint32_t pid = 0; pid < kPidCount; ++pid)
            pids.set(pid, IsPresent(pid));
        return pids;
    }

    void Clear() {
        for (auto& byte : m_bytes)
            byte.store(0, std::memory_order_relaxed);
    }

private:
    uint8_t Byte(uint32_t pid) const { return m_bytes[pid / 4].load(std::memory_order_relaxed); }

    std::array<std::atomic<uint8_t>, kPidCount / 4> m_bytes{};
};

}  // namespace tessel
