#include "core/stream/PcrClocks.h"

#include <algorithm>
#include <limits>
#include <new>

#include "Classes/MultiPlatform/LockRanks.h"

namespace tessel {

namespace {

// 27 MHz ticks.
constexpr int64_t kLiveTolerance = 1'000'000;  // between a PCR and its prediction
constexpr int64_t kLongestStep = 27'000'000;   // between two PCRs: one second
constexpr int64_t kSettling = 4'050'000;       // 150 ms after the anchor the arrivals are taken as they are
// 100 ns.
constexpr int64_t kMaxError = 200'000;
constexpr int64_t kMaxCorrection = 100'000;
// The length of an adaptation field that has a PCR in it: its flags and six bytes.
constexpr uint8_t kLeastLengthWithPcr = 7;

// Positions and times come from outside at any size, so products and sums are made in 128 bits.
__extension__ using Wide = __int128;

// The nearest known value.
int64_t Narrow(Wide value) {
    constexpr Wide kLeast = static_cast<Wide>(kUnknown) + 1;
    constexpr Wide kGreatest = std::numeric_limits<int64_t>::max();
    return static_cast<int64_t>(std::clamp(value, kLeast, kGreatest));
}

Wide ToTime(Wide ticks) {
    return ticks * 10 / 27;
}

int32_t Low32(Wide value) {
    return static_cast<int32_t>(static_cast<uint32_t>(value));
}

void Advance(int64_t& time, Wide by) {
    if (time != kUnknown)
        time = Narrow(time + by);
}

// The PCR ticks that bytes took at the rate of the last two PCRs.
Wide TicksOf(const PcrClock& clock, Wide bytes) {
    return bytes * clock.pcrDelta / (clock.byteDelta == 0 ? 1 : clock.byteDelta);
}

// packet: at least 12 bytes.
int64_t DecodePcr(const uint8_t* packet) {
    const int64_t base = int64_t{packet[6]} << 25 | packet[7] << 17 | packet[8] << 9 | packet[9] << 1 | packet[10] >> 7;
    const int64_t extension = (packet[10] & 1) << 8 | packet[11];
    return base * 300 + extension;
}

void AnchorAnew(PcrClock& clock, int64_t pcr) {
    clock.byteDelta = 1;
    clock.pcrDelta = 0;
    clock.correction = 0;
    clock.correctionSum = 0;
    clock.pcrOrigin = pcr;
    clock.discontinuityPending = 0;
}

bool IsRealPid(int32_t pid) {
    return pid >= 0 && pid < static_cast<int32_t>(kNullPid);
}

}  // namespace

PcrClocks::PcrClocks(IPcrClockOwner& owner) : m_owner(owner), m_lock("PCR clocks", kRankPcr) {}

void PcrClocks::SetLive(bool live) {
    CScopedLock lock(&m_lock);
    m_live = live;
}

void PcrClocks::NoteAwake() {
    m_awake.store(m_updateCount > 0 || !m_clocks.empty(), std::memory_order_relaxed);
}

PcrClocks::ClockPtr PcrClocks::Lookup(int32_t pid) const {
    const auto found = m_clocks.find(pid);
    return found == m_clocks.end() ? nullptr : found->second;
}

PcrClock* PcrClocks::Find(int32_t pid) {
    return Lookup(pid).get();
}

PcrClocks::ClockPtr PcrClocks::Insert(int32_t pid) {
    auto clock = std::make_shared<PcrClock>();
    clock->pid = pid;
    m_clocks.emplace(pid, clock);
    NoteAwake();
    return clock;
}

void PcrClocks::Clear() {
    CScopedLock lock(&m_lock);
    m_clocks.clear();
    NoteAwake();
}

HRESULT PcrClocks::SetPcrDiscont(PcrClock& clock) {
    if (clock.discontinuityPending != 0)
        return S_OK;
    clock.discontinuityPending = 1;
    ++clock.discontinuityCount;
    ++clock.noticesUnderWay;
    const int32_t pid = clock.pid;
    m_lock.Unlock();
    m_owner.NotifyDiscontinuity(pid);
    m_lock.Lock();
    --clock.noticesUnderWay;
    return S_OK;
}

HRESULT PcrClocks::SetPcrDiscont(int32_t pid) {
    CScopedLock lock(&m_lock);
    const ClockPtr clock = Lookup(pid);
    return clock ? m_owner.SetPcrDiscont(*clock) : E_FAIL;
}

bool PcrClocks::Discontinue(PcrClock& clock) {
    return SUCCEEDED(m_owner.SetPcrDiscont(clock)) && Find(clock.pid) == &clock;
}

void PcrClocks::AdjustPcr(const uint8_t* packet, const TsHeader& header, const AdaptationFieldHeader& adaptation,
                          int64_t position, const ArrivalRecord& arrival) {
    const auto pid = static_cast<int32_t>(header.Pid());
    CScopedLock lock(&m_lock);
    ClockPtr clock = Lookup(pid);
    if (clock && adaptation.DiscontinuityIndicator() && clock->discontinuityPending == 0 && !Discontinue(*clock))
        return;
    // A PCR that does not fit its adaptation field is none.
    if (!adaptation.PcrFlag() || adaptation.Length() < kLeastLengthWithPcr)
        return;
    const int64_t pcr = DecodePcr(packet);
    if (!clock) {
        if (m_updateCount <= 0 || !IsRealPid(pid))
            return;
        try {
            clock = Insert(pid);
        } catch (const std::bad_alloc&) {
            return;  // the next PCR tries again
        }
    }
    if (clock->pcrOrigin == kUnknown)
        Anchor(*clock, pcr, position, arrival);
    if (TakePcr(*clock, pcr, position) && m_live)
        Slave(*clock, arrival);
}

void PcrClocks::Anchor(PcrClock& clock, int64_t pcr, int64_t position, const ArrivalRecord& arrival) {
    AnchorAnew(clock, pcr);
    clock.discontinuityCount = 0;
    clock.lastPcr = pcr;
    clock.lastPosition = position;
    clock.timeOrigin = !m_live ? kUnknown : arrival.position != kUnknown ? arrival.time : m_owner.CurrentStreamTime();
}

bool PcrClocks::TakePcr(PcrClock& clock, int64_t pcr, int64_t position) {
    if (clock.lastPcr == kUnknown) {
        clock.lastPcr = pcr;
        clock.lastPosition = position;
    }
    const int64_t last = clock.lastPcr;
    const Wide bytes = static_cast<Wide>(position) - clock.lastPosition;
    const int64_t predicted = Narrow(last + TicksOf(clock, bytes));

    bool anew = clock.discontinuityPending != 0;
    if (!anew) {
        const Wide miss = static_cast<Wide>(pcr) - predicted;
        const Wide step = static_cast<Wide>(pcr) - last;
        anew = m_live ? clock.pcrDelta != 0 && (miss > kLiveTolerance || miss < -kLiveTolerance)
                      : step < 0 || step > kLongestStep;
        if (anew && !Discontinue(clock))
            return false;
    }
    if (anew) {
        clock.KeepStart();
        // Live, time goes on where the old timeline would be by now.
        if (m_live)
            Advance(clock.timeOrigin, ToTime(static_cast<Wide>(predicted) - clock.pcrOrigin));
        else
            clock.timeOrigin = kUnknown;
        AnchorAnew(clock, pcr);
    } else {
        clock.pcrDelta = Low32(static_cast<Wide>(pcr) - last);
        if (clock.pcrDelta > 0)
            clock.byteDelta = Low32(bytes);
    }
    clock.lastPcr = pcr;
    clock.lastPosition = position;
    return true;
}

void PcrClocks::Slave(PcrClock& clock, const ArrivalRecord& arrival) {
    if (arrival.position == kUnknown || clock.pcrDelta == 0 || clock.timeOrigin == kUnknown)
        return;
    // The PCR at the first byte of the input sample, and how far its time is from the sample's.
    const Wide sinceAnchor = static_cast<Wide>(clock.lastPcr) - clock.pcrOrigin;
    const Wide atArrival = sinceAnchor - TicksOf(clock, static_cast<Wide>(clock.lastPosition) - arrival.position);
    const Wide error = arrival.time - (clock.timeOrigin + ToTime(atArrival));
    if (sinceAnchor < kSettling) {
        Advance(clock.timeOrigin, error);
        return;
    }
    const auto clamped = static_cast<int64_t>(std::clamp<Wide>(error, -kMaxError, kMaxError));
    clock.correction = (15 * clock.correction + clamped) / 16;
    clock.correctionSum += clock.correction / 100;
    const int64_t total = clock.correction + clock.correctionSum;
    if (total >= -kMaxCorrection && total <= kMaxCorrection)
        return;

    // Too far off: fold it into the origin, once, so that this record and the contents' copies agree.
    Advance(clock.timeOrigin, clock.correction);
    if (clock.timeOrigin < 0) {
        // Contents get no negative origin; the anchor moves instead, which keeps the mapping.
        clock.pcrOrigin = Narrow(clock.pcrOrigin - static_cast<Wide>(clock.timeOrigin) * 27 / 10);
        clock.timeOrigin = 0;
    }
    const PcrClock changed = clock;
    m_lock.Unlock();
    m_owner.NotifyClockChange(changed);
    m_lock.Lock();
    clock.correction = 0;
    clock.correctionSum = 0;
}

void PcrClocks::DropStale(const std::vector<int32_t>& used) {
    const auto isStale = [&used](int32_t pid) { return std::find(used.begin(), used.end(), pid) == used.end(); };
    for (auto at = m_clocks.begin(); at != m_clocks.end();) {
        if (!isStale(at->first)) {
            ++at;
        } else if (m_live) {
            at = m_clocks.erase(at);
        } else {
            at->second->timeOrigin = kUnknown;
            ++at;
        }
    }
    NoteAwake();
}

HRESULT PcrClocks::BeginUpdate(Stale stale) {
    CScopedLock lock(&m_lock);
    ++m_updateCount;
    NoteAwake();
    if (stale == Stale::kKeep)
        return S_OK;
    try {
        DropStale(m_owner.PcrPids());
    } catch (const std::bad_alloc&) {
        return E_OUTOFMEMORY;
    }
    return S_OK;
}

HRESULT PcrClocks::EndUpdate(Stale stale, Missing missing) {
    CScopedLock lock(&m_lock);
    // A stop sets the count to 0, so an end may come without a beginning; it counts as the last.
    m_updateCount = std::max(m_updateCount - 1, 0);
    NoteAwake();
    if (m_updateCount != 0)
        return S_OK;
    try {
        const std::vector<int32_t> used = m_owner.PcrPids();
        if (stale == Stale::kDrop)
            DropStale(used);
        if (missing == Missing::kMake)
            for (const int32_t pid : used)
                if (IsRealPid(pid) && !Lookup(pid))
                    Insert(pid);
    } catch (const std::bad_alloc&) {
        return E_OUTOFMEMORY;
    }
    return S_OK;
}

void PcrClocks::SetUpdateCount(int32_t count) {
    CScopedLock lock(&m_lock);
    m_updateCount = count;
    NoteAwake();
}

}  // namespace tessel
