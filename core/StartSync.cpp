#include "core/StartSync.h"

#include <algorithm>

namespace tessel {

namespace {

constexpr int64_t kHalfSecond = 13'500'000;  // 27 MHz
constexpr int64_t kLeastQueued = 65'536;     // bytes in the fullest content
constexpr REFERENCE_TIME kLiveLead = 200'000;

// What the outputs on one PCR PID agree on so far.
struct Candidates {
    REFERENCE_TIME audioTime = kUnknown;
    REFERENCE_TIME otherTime = kUnknown;
    int64_t start;  // 90 kHz
    int64_t mostQueued = 0;

    REFERENCE_TIME Time() const { return audioTime != kUnknown ? audioTime : otherTime; }
};

// False when the output is one that the others wait for.
bool Consider(const CTsOutputPin& pin, int32_t pcrPid, int32_t queuedJumps, Candidates& candidates) {
    // One that is done or has failed holds nobody up.
    if (pin.HasRuntimeError() || pin.IsEosDelivered())
        return true;
    const auto content = pin.Content();
    const int32_t itsPid = content ? content->GetPcrPid() : static_cast<int32_t>(kNullPid);
    if (pin.IsConnected() && (itsPid == kProgramUnknown || (itsPid == kNoStream && !pin.Map().IsEmpty())))
        return false;
    // In a file, one that is not played keeps the clock that it would have.
    if (!content || itsPid != pcrPid || !content->IsActive())
        return true;
    // What an output has queued from before a jump says nothing of the start behind it, and the other way round.
    if (const int32_t jumps = content->QueuedJumps(); jumps != queuedJumps)
        return jumps < queuedJumps || pin.Media() == MediaClass::kSubtitle;
    const int64_t first = content->GetFirstTimestamp();
    candidates.mostQueued = std::max(candidates.mostQueued, content->QueuedBytes());
    if (first == kUnknown)
        return pin.Media() == MediaClass::kSubtitle;
    const REFERENCE_TIME time = content->GetLatestTime() - pin.StreamOffset();
    if (pin.Media() == MediaClass::kAudio) {
        if (time > candidates.audioTime) {
            candidates.audioTime = time;
            candidates.start = first;
        }
    } else if (time > candidates.otherTime) {
        candidates.otherTime = time;
        if (candidates.audioTime == kUnknown)
            candidates.start = first;
    }
    return true;
}

}  // namespace

bool StartClock(PcrClocks& clocks, int32_t pcrPid, std::span<const OutputPinPtr> pins, const SyncSettings& settings,
                SyncOrigin* out) {
    CScopedLock lock(&clocks.Lock());
    PcrClock* const clock = clocks.Find(pcrPid);
    if (clock == nullptr || clock->discontinuityPending != 0 || clock->pcrOrigin == kUnknown)
        return false;
    const bool isPast = settings.queuedJumps > 0 && !settings.isLive;
    const int32_t jump = clock->discontinuityCount - settings.queuedJumps;
    if (isPast && clock->pastStart.jump == jump) {
        *out = {clock->pastStart.pts, clock->pastStart.time};
        return true;
    }
    if (!isPast && clock->timeOrigin != kUnknown) {
        *out = {clock->pcrOrigin / 300, clock->timeOrigin};
        return true;
    }
    if (!isPast && settings.waitsForHalfSecond &&
        (clock->lastPcr == kUnknown || clock->lastPcr - clock->pcrOrigin < kHalfSecond))
        return false;
    Candidates candidates{.start = clock->pcrOrigin / 300};
    for (const OutputPinPtr& pin : pins)
        if (!Consider(*pin, pcrPid, settings.queuedJumps, candidates))
            return false;
    REFERENCE_TIME time = candidates.Time();
    if (candidates.mostQueued < kLeastQueued || time == kUnknown)
        return false;
    if (settings.hasLiveClock)
        time = std::max(time, settings.streamTime + kLiveLead);
    if (isPast) {
        clock->pastStart = {jump, candidates.start, time};
    } else {
        clock->timeOrigin = time;
        clock->pcrOrigin = candidates.start * 300;
    }
    *out = {candidates.start, time};
    return true;
}

bool IsAheadOfOthers(int32_t pcrPid, std::span<const OutputPinPtr> pins, int32_t queuedJumps) {
    return std::any_of(pins.begin(), pins.end(), [&](const OutputPinPtr& pin) {
        if (!pin->IsConnected() || pin->HasRuntimeError() || pin->IsEosDelivered() ||
            pin->Media() == MediaClass::kSubtitle)
            return false;
        const auto content = pin->Content();
        return content && content->IsActive() && content->GetPcrPid() == pcrPid && content->QueuedJumps() > queuedJumps;
    });
}

}  // namespace tessel
