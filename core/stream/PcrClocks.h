// The program clocks: how the PCRs of a PID (ISO/IEC 13818-1, 2.4.3.5) map to the time of the filter.
//
// A clock exists for the PIDs that the outputs' contents take their time from. Live, its timeline is
// slaved to the arrival of the input; otherwise its origin is for the outputs to set, and the clock only
// watches for jumps. Nothing is unwrapped: a PCR that wraps is a jump.
#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <vector>

#include "Classes/MultiPlatform/GenUtilMP.h"
#include "core/stream/PacketParser.h"
#include "core/stream/TsHeader.h"
#include "platform/com/Result.h"
#include "platform/os/CritSec.h"

namespace tessel {

// Of a time, a PCR or a position.
inline constexpr int64_t kUnknown = INT64_MIN;

// PCRs in 27 MHz, times in 100 ns. The PCR pcrOrigin stands for the time timeOrigin.
struct PcrClock {
    int32_t pid = 0;
    int32_t discontinuityCount = 0;
    int64_t pcrOrigin = kUnknown;  // unknown until the first PCR anchors the clock
    int64_t timeOrigin = kUnknown;
    int64_t lastPcr = kUnknown;
    int64_t lastPosition = 0;  // stream position of the packet that carried lastPcr
    // Live: the smoothed error against the arrivals, and its integral.
    int64_t correction = 0;
    int64_t correctionSum = 0;
    // Between the last two PCRs, low 32 bits each.
    int32_t pcrDelta = 0;
    int32_t byteDelta = 1;
    int32_t discontinuityPending = 0;  // until the next PCR anchors the clock anew

    int32_t noticesUnderWay = 0;  // of jumps: meanwhile some outputs know of the jump and others do not

    // What the outputs start with that are still in front of a jump: how many jumps there were before, the PTS (90 kHz)
    // and its time.
    struct Start {
        int32_t jumps = 0;
        int64_t pts = 0;
        int64_t time = kUnknown;
    };
    static constexpr size_t kStartsKept = 4;
    std::array<Start, kStartsKept> pastStarts = {};

    // Null when there was none, or when it is too long ago.
    const Start* PastStart(int32_t jumps) const {
        const Start& start = pastStarts[static_cast<uint32_t>(jumps) % kStartsKept];
        return start.jumps == jumps && start.time != kUnknown ? &start : nullptr;
    }
    void KeepStart(const Start& start) { pastStarts[static_cast<uint32_t>(start.jumps) % kStartsKept] = start; }
    // After a jump has been counted: what held until then.
    void KeepStart() {
        if (timeOrigin != kUnknown)
            KeepStart({discontinuityCount - 1, pcrOrigin / 300, timeOrigin});
    }
};

// What the clocks need of the filter. The notices come without the PCR lock, so an output may call back;
// everything else comes with it and answers from what takes no lock but leaves.
class IPcrClockOwner {
public:
    // Called for a jump with the PCR lock held once: PcrClocks::SetPcrDiscont, or what a filter does instead.
    // After a failure the clock is left as it is.
    virtual HRESULT SetPcrDiscont(PcrClock& clock) = 0;
    // The PCR PID of every output's content; values that are no PID (no program, no clock) are passed over.
    virtual std::vector<int32_t> PcrPids() = 0;
    virtual REFERENCE_TIME CurrentStreamTime() = 0;
    // To the contents that take their time from that PID.
    virtual void NotifyDiscontinuity(int32_t pcrPid) = 0;
    // To all contents.
    virtual void NotifyClockChange(const PcrClock& clock) = 0;

protected:
    ~IPcrClockOwner() = default;
};

class PcrClocks {
public:
    // What an update does to the clocks that no content uses. kDrop: live they are deleted, otherwise their
    // time becomes unknown.
    enum class Stale { kDrop, kKeep };
    // What the end of the last update does about contents whose PID has no clock.
    enum class Missing { kMake, kLeave };

    explicit PcrClocks(IPcrClockOwner& owner);

    // Live: time comes from the arrivals.
    void SetLive(bool live);

    // Whether AdjustPcr could do anything with such a packet; all but a few packets end here.
    bool Wants(const AdaptationFieldHeader& adaptation) const {
        return (adaptation.word & kClockFlags) != 0 && m_awake.load(std::memory_order_relaxed);
    }
    // The clock step of a packet with an adaptation field of 1 to 183 bytes. packet: 188 bytes; position: its
    // offset in the stream; arrival: of the input sample that it came in.
    void AdjustPcr(const uint8_t* packet, const TsHeader& header, const AdaptationFieldHeader& adaptation,
                   int64_t position, const ArrivalRecord& arrival);

    // Around every change of what an output wants; they nest, and while one is open every PID with PCRs gets
    // a clock. E_OUTOFMEMORY leaves stale and missing clocks as they are.
    HRESULT BeginUpdate(Stale stale);
    HRESULT EndUpdate(Stale stale, Missing missing);
    void SetUpdateCount(int32_t count);

    // Marks the clock and tells the contents on its PID, once until the next PCR. The lock is held once and
    // released around the notices.
    HRESULT SetPcrDiscont(PcrClock& clock) OS_REQUIRES(m_lock);
    // For callers without the lock, by way of the owner. E_FAIL when the PID has no clock.
    HRESULT SetPcrDiscont(int32_t pid);

    // Deletes every clock.
    void Clear();

    // Guards the clocks and the update count.
    CCritSec& Lock() OS_RETURN_CAPABILITY(m_lock) { return m_lock; }
    // Null when the PID has no clock. Valid while the lock is held.
    PcrClock* Find(int32_t pid) OS_REQUIRES(m_lock);
    // Calls visit(PcrClock&) for every clock, in order of PID.
    template <class Visitor>
    void ForEach(Visitor visit) {
        CScopedLock lock(&m_lock);
        for (auto& [pid, clock] : m_clocks)
            visit(*clock);
    }

private:
    // Shared with whoever goes on with a clock after a notice, during which it may be deleted.
    using ClockPtr = std::shared_ptr<PcrClock>;

    static constexpr uint8_t kClockFlags = 0x80 | 0x10;  // discontinuity_indicator, PCR_flag

    ClockPtr Lookup(int32_t pid) const OS_REQUIRES(m_lock);
    ClockPtr Insert(int32_t pid) OS_REQUIRES(m_lock);
    // False when there is nothing to go on with.
    bool Discontinue(PcrClock& clock) OS_REQUIRES(m_lock);
    void Anchor(PcrClock& clock, int64_t pcr, int64_t position, const ArrivalRecord& arrival) OS_REQUIRES(m_lock);
    // False when the clock is to be left as it is.
    bool TakePcr(PcrClock& clock, int64_t pcr, int64_t position) OS_REQUIRES(m_lock);
    void Slave(PcrClock& clock, const ArrivalRecord& arrival) OS_REQUIRES(m_lock);
    void DropStale(const std::vector<int32_t>& used) OS_REQUIRES(m_lock);
    void NoteAwake() OS_REQUIRES(m_lock);

    IPcrClockOwner& m_owner;
    CCritSec m_lock;
    bool m_live OS_GUARDED_BY(m_lock) = false;
    int32_t m_updateCount OS_GUARDED_BY(m_lock) = 0;
    std::map<int32_t, ClockPtr> m_clocks OS_GUARDED_BY(m_lock);
    // Whether there is a clock or an open update. The parser asks without the lock: a change seen a packet
    // later is as if it had come a packet later, and AdjustPcr looks again with the lock.
    std::atomic<bool> m_awake{false};
};

}  // namespace tessel
