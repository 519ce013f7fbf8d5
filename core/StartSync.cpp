#include "core/StartSync.h"

#include <algorithm>

namespace tessel {

namespace {

constexpr int64_t kHalfSecond = 13'500'000;  // 27 MHz
constexpr int64_t kLeastQueued = 65'536;     // bytes in the fullest content
constexpr REFERENCE_TIME kLiveLead = 200'000;

// Where the output that asks is, as the others see it.
struct Place {
    int32_t pcrPid;
    int32_t queuedJumps;
    bool isLast;  // what is not there by now will not come
};

// What the outputs on one PCR PID agree on so far.
struct Candidates {
    REFERENCE_TIME audioTime = kUnknown;
    REFERENCE_TIME otherTime = kUnknown;
    int64_t start;  // 90 kHz
    int64_t mostQueued = 0;

    REFERENCE_TIME Time() const { return audioTime != kUnknown ? audioTime : otherTime; }
};

// One that is done, has failed, or gets nothing, holds nobody up.
bool IsOut(const CTsOutputPin& pin) {
    return pin.HasRuntimeError() || pin.IsEosDelivered() || pin.HasRefused() || pin.Map().IsEmpty();
}

// S_FALSE: the others wait for that output, which is behind; a failure: for what it has yet to get.
HRESULT Consider(const CTsOutputPin& pin, const Place& place, Candidates& candidates) {
    if (IsOut(pin))
        return S_OK;
    const auto content = pin.Content();
    const int32_t itsPid = content ? content->GetPcrPid() : static_cast<int32_t>(kNullPid);
    if (pin.IsConnected() && (itsPid == kProgramUnknown || itsPid == kNoStream))
        return place.isLast ? S_OK : E_FAIL;
    // In a file, one that is not played keeps the clock that it would have.
    if (!content || itsPid != place.pcrPid || !content->IsActive())
        return S_OK;
    // What an output has queued from before a jump says nothing of the start behind it, and the other way round.
    if (const int32_t jumps = content->QueuedJumps(); jumps != place.queuedJumps)
        return jumps < place.queuedJumps || pin.Media() == MediaClass::kSubtitle ? S_OK : S_FALSE;
    const int64_t first = content->GetFirstTimestamp();
    candidates.mostQueued = std::max(candidates.mostQueued, content->QueuedBytes());
    if (first == kUnknown)
        return place.isLast || pin.Media() == MediaClass::kSubtitle ? S_OK : E_FAIL;
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
    return S_OK;
}

// The clock's time is known, or it is for the outputs to agree on.
HRESULT Agree(PcrClock& clock, const Place& place, std::span<const OutputPinPtr> pins, const SyncSettings& settings,
              SyncOrigin* out) {
    Candidates candidates{.start = clock.pcrOrigin / 300};
    for (const OutputPinPtr& pin : pins)
        if (const HRESULT result = Consider(*pin, place, candidates); result != S_OK)
            return result;
    const REFERENCE_TIME time = candidates.Time();
    if ((candidates.mostQueued < kLeastQueued && !place.isLast) || time == kUnknown)
        return E_FAIL;
    *out = {candidates.start, settings.hasLiveClock ? std::max(time, settings.streamTime + kLiveLead) : time};
    return S_OK;
}

}  // namespace

HRESULT StartClock(PcrClocks& clocks, const CStreamExecutor& content, std::span<const OutputPinPtr> pins,
                   const SyncSettings& settings, SyncOrigin* out) {
    CScopedLock lock(&clocks.Lock());
    PcrClock* const clock = clocks.Find(content.GetPcrPid());
    if (clock == nullptr || clock->pcrOrigin == kUnknown)
        return E_FAIL;
    if (clock->noticesUnderWay != 0)
        return settings.inputEnded ? S_FALSE : E_FAIL;
    // Under the lock, so that no jump comes between the two counts. A jump that waits for its PCR has been counted, and
    // the clock still shows what was before it.
    const int32_t queuedJumps = content.QueuedJumps();
    const int32_t jumps = clock->discontinuityCount - queuedJumps;
    const Place place{content.GetPcrPid(), queuedJumps,
                      settings.inputEnded && (queuedJumps != 0 || clock->discontinuityCount != 0)};
    if (clock->discontinuityPending != 0 && queuedJumps == 0) {
        if (!place.isLast)
            return E_FAIL;
        clock->KeepStart();
        clock->timeOrigin = kUnknown;
        clock->discontinuityPending = 0;
    }
    const bool isPast = jumps < clock->discontinuityCount - (clock->discontinuityPending != 0);
    if (isPast) {
        if (const PcrClock::Start* const start = clock->PastStart(jumps)) {
            *out = {start->pts, start->time};
            return S_OK;
        }
    } else if (clock->timeOrigin != kUnknown) {
        *out = {clock->pcrOrigin / 300, clock->timeOrigin};
        return S_OK;
    } else if (settings.waitsForHalfSecond && !place.isLast &&
               (clock->lastPcr == kUnknown || clock->lastPcr - clock->pcrOrigin < kHalfSecond)) {
        return E_FAIL;
    }
    const HRESULT result = Agree(*clock, place, pins, settings, out);
    if (result != S_OK)
        return result == S_FALSE && !settings.inputEnded ? E_FAIL : result;
    if (isPast) {
        clock->KeepStart({jumps, out->pts, out->time});
    } else {
        clock->timeOrigin = out->time;
        clock->pcrOrigin = out->pts * 300;
    }
    return S_OK;
}

}  // namespace tessel
