#include "output/StreamExecutor.h"

#include <algorithm>
#include <cstdlib>
#include <new>

#include "Classes/MultiPlatform/GenUtilMP.h"
#include "Classes/MultiPlatform/LockRanks.h"
#include "output/PayloadCache.h"
#include "output/TsOutputPin.h"

namespace tessel {

namespace {

// 100 ns.
constexpr REFERENCE_TIME kFarApart = 30'000'000;
constexpr REFERENCE_TIME kFarAhead = 300'000'000;
constexpr REFERENCE_TIME kLiveReserve = 2'000'000;

// A stream that changes for ever, on a content that waits for ever, must not fill the memory.
constexpr size_t kMaxQueued = 4096;

}  // namespace

CStreamExecutor::CStreamExecutor(CTsOutputPin& pin, IOutputHost& host)
    : m_pin(pin),
      m_host(host),
      m_lock("content", kRankContent),
      m_bindLock("content's program", kRankContentBind),
      m_noticeLock("content's notices", kRankLeaf) {}

LONG CStreamExecutor::GetBufferSize() const {
    return kLargestSample;
}

HRESULT CStreamExecutor::Active() {
    ComPtr<IEnumPIDMap> mapping;
    HRESULT result = m_pin.EnumPIDMap(mapping.Put());
    if (FAILED(result))
        return result;
    CScopedLock lock(&m_lock);
    if (IsActive())
        return S_OK;
    result = OnActive();
    if (FAILED(result))
        return result;
    m_latestTime = m_pin.StreamOffset();
    m_lostBytes = 0;
    m_active = true;
    m_state = State::kStreaming;
    Reset(mapping.Get());
    return S_OK;
}

void CStreamExecutor::Inactive() {
    {
        CScopedLock lock(&m_lock);
        if (!IsActive())
            return;
        m_active = false;
        Reset(nullptr);
        OnInactive();
        CloseUpdate();
        m_state = State::kStreaming;
    }
    m_pin.OnRoomMade();
}

void CStreamExecutor::ResetStreamStatus() {
    ComPtr<IEnumPIDMap> mapping;
    m_pin.EnumPIDMap(mapping.Put());
    CScopedLock lock(&m_lock);
    Reset(mapping.Get());
}

void CStreamExecutor::Reset(IEnumPIDMap* mapping) {
    std::list<StreamCommand> commands;  // they go after the lock
    ++m_epoch;
    m_bytesIn = 0;
    m_bytesOut = 0;
    m_marks.clear();
    NoteFirstMark();
    m_previousTime = kUnknown;
    m_prerollPending = false;
    m_droppingPes = false;
    m_full = false;
    {
        CScopedLock notices(&m_noticeLock);
        std::swap(commands, m_commands);
        m_queuedJumps = 0;
        m_clockChanges.clear();
    }
    OnReset();
    // A file's program is known while the file is not played too, at every moment.
    if (IsActive() || m_pin.Mode() != StreamingMode::kFile)
        m_pcrPid = kProgramUnknown;
    if (IsActive() && mapping != nullptr)
        UpdateMapping(mapping);
}

int32_t CStreamExecutor::GetPendingBytes(bool startPending, bool eosPending) {
    CScopedLock lock(&m_lock);
    return PendingBytes(startPending, eosPending);
}

void CStreamExecutor::CloseUpdate() {
    if (m_state == State::kWaitingForProgram)
        m_host.EndPcrUpdate();
}

bool CStreamExecutor::UpdateMapping(IEnumPIDMap*) {
    if (TakesAnyProgram() && !m_host.Rules().packetsWaitForProgram) {
        m_pcrPid = kNullPid;
        return true;
    }
    if (m_state != State::kWaitingForProgram) {
        m_pcrPid = kProgramUnknown;
        m_state = State::kWaitingForProgram;
        m_host.BeginPcrUpdate();
    }
    return true;
}

HRESULT CStreamExecutor::SetProgram(uint32_t, IDvbProgramMapTable*, uint32_t epoch) {
    CScopedLock bind(&m_bindLock);
    CScopedLock lock(&m_lock);
    if (epoch != m_epoch)
        return S_OK;
    m_pcrPid = kNullPid;
    CloseUpdate();
    m_state = State::kStreaming;
    return S_OK;
}

void CStreamExecutor::NotifyDiscontinuity(int32_t code, IEnumPIDMap* mapping) {
    if (!IsActive())
        return;
    ComPtr<IEnumPIDMap> last;
    CScopedLock lock(&m_noticeLock);
    // Of those that ask for nothing but a mark, one at a place is enough.
    if (code == kDiscontinuity && !m_commands.empty() && m_commands.back().code == code &&
        m_commands.back().position == m_bytesIn)
        return;
    try {
        if (m_commands.size() >= kMaxQueued) {
            StreamCommand& newest = m_commands.back();
            // Of many at one place the most thorough one is enough.
            m_queuedJumps -= newest.code == kClockDiscontinuity;
            newest.code = std::max(newest.code, code);
            m_queuedJumps += newest.code == kClockDiscontinuity;
            last = std::exchange(newest.mapping, mapping != nullptr ? ComPtr(mapping) : newest.mapping);
            return;
        }
        m_commands.push_back({m_bytesIn, code, ComPtr(mapping)});
        if (code == kClockDiscontinuity)
            ++m_queuedJumps;
    } catch (const std::bad_alloc&) {
        // A notice is lost, as the data around it will be.
    }
}

void CStreamExecutor::NotifyClockChange(const PcrClock& clock) {
    if (!IsActive() || clock.pid != GetPcrPid())
        return;
    CScopedLock lock(&m_noticeLock);
    try {
        if (m_clockChanges.size() >= kMaxQueued)
            m_clockChanges.back().clock = clock;
        else
            m_clockChanges.push_back({m_bytesIn, clock});
    } catch (const std::bad_alloc&) {
        // The clock that is there goes on.
    }
}

bool CStreamExecutor::TakeCommand(StreamCommand* out, int32_t* budget) {
    CScopedLock notices(&m_noticeLock);
    // A jump of the clock in the middle of a PES packet is for the next one; the rest is of the clock before it.
    auto due = m_commands.begin();
    if (IsInsidePes())
        due = std::find_if(due, m_commands.end(), [this](const StreamCommand& command) {
            return command.code != kClockDiscontinuity || command.position > m_bytesOut;
        });
    if (due == m_commands.end())
        return false;
    const int64_t ahead = due->position - m_bytesOut;
    if (ahead > 0) {
        *budget = static_cast<int32_t>(std::min<int64_t>(*budget, ahead));
        return false;
    }
    *out = std::move(m_commands.front());
    m_commands.pop_front();
    m_queuedJumps -= out->code == kClockDiscontinuity;
    return true;
}

bool CStreamExecutor::Execute(const StreamCommand& command) {
    switch (command.code) {
    case kDiscontinuity:
        return true;
    case kClockDiscontinuity:
        if (m_pcrPid >= 0 && m_pcrPid != static_cast<int32_t>(kNullPid) && m_state == State::kStreaming)
            m_state = State::kWaitingForStart;
        return true;
    default:
        return command.mapping && UpdateMapping(command.mapping.Get());
    }
}

bool CStreamExecutor::ProcessCommands(int32_t* budget) {
    bool changed = false;
    {
        CScopedLock lock(&m_lock);
        StreamCommand command;
        while (TakeCommand(&command, budget))
            changed |= Execute(command);
    }
    if (changed && IsWaitingForProgram())
        OfferPrograms();
    return changed;
}

void CStreamExecutor::OfferPrograms() {
    // In this order: the tables go before the content is reset, so older ones meet an older epoch.
    const uint32_t epoch = Epoch();
    const auto tables = m_host.CurrentProgramMapTables();
    tables->ForEach([&](uint32_t number, IDvbProgramMapTable& table) { SetProgram(number, &table, epoch); });
}

HRESULT CStreamExecutor::TryToStart(bool inputEnded) {
    CScopedLock lock(&m_lock);
    if (m_state == State::kWaitingForStart) {
        int64_t ptsOrigin = 0;
        REFERENCE_TIME timeOrigin = 0;
        const HRESULT result = m_host.StartSync(*this, inputEnded, &ptsOrigin, &timeOrigin);
        if (result != S_OK)
            return result;
        m_sampleClock.Start(ptsOrigin, timeOrigin);
        m_latestTime = std::max(m_latestTime.load(), m_sampleClock.TimeOf(ptsOrigin, m_pin.StreamOffset()));
        m_previousTime = kUnknown;
        m_pin.SetStartPending();
        m_state = State::kStreaming;
    }
    return m_state == State::kStreaming ? S_OK : E_FAIL;
}

void CStreamExecutor::FollowClock() {
    CScopedLock notices(&m_noticeLock);
    while (!m_clockChanges.empty() && m_clockChanges.front().position <= m_bytesOut) {
        m_sampleClock.Follow(m_clockChanges.front().clock);
        m_clockChanges.pop_front();
    }
}

bool CStreamExecutor::IsPlausible(REFERENCE_TIME time, REFERENCE_TIME from) const {
    const auto step = [time](REFERENCE_TIME since) {
        int64_t difference = 0;
        return __builtin_sub_overflow(time, since, &difference) ? INT64_MAX : difference;
    };
    const MediaClass media = m_pin.Media();
    const int64_t since = step(from);
    if (since < 0 && (media != MediaClass::kVideo || since < -kFarApart))
        return false;
    if (since > kFarApart && (media == MediaClass::kVideo || media == MediaClass::kAudio))
        return false;
    if (!m_pin.HasLiveClock())
        return true;
    // Far from a clock that runs, no time is, whatever it follows.
    const REFERENCE_TIME reached = m_host.IsHostRunning() && m_host.HasClock() ? m_latestTime.load() : from;
    const int64_t ahead = step(std::max(reached, m_host.CurrentStreamTime() + kLiveReserve));
    if (media == MediaClass::kVideo || media == MediaClass::kAudio)
        return ahead >= -kFarApart && ahead <= kFarApart;
    return ahead <= kFarAhead;
}

REFERENCE_TIME CStreamExecutor::ToSampleTime(int64_t timestamp, bool startPending) {
    if (GetPcrPid() < 0)
        return 0;
    FollowClock();
    const REFERENCE_TIME time = m_sampleClock.TimeOf(timestamp, m_pin.StreamOffset());
    if (time == kUnknown)
        return kUnknown;
    // Two that follow each other are right, however far from those before: the stream has jumped, and not its clock. A
    // start is taken as it is, but an absurd one is not what those after it are held against.
    const REFERENCE_TIME previous = std::exchange(m_previousTime, time);
    if (IsPlausible(time, m_latestTime) || (previous != kUnknown && IsPlausible(time, previous))) {
        m_latestTime = std::max(m_latestTime.load(), time);
        return time;
    }
    if (startPending)
        return time;
    bool changing = false;
    {
        CScopedLock notices(&m_noticeLock);
        changing = !m_clockChanges.empty() || !m_commands.empty();
    }
    if (!changing)
        m_host.SetPcrDiscont(GetPcrPid());
    return kUnknown;
}

void CStreamExecutor::AddMark(int64_t timestamp) {
    // A PES packet that had no payload leaves no mark, so that marks cannot outgrow the bytes.
    if (!m_marks.empty() && m_marks.back().position == m_bytesIn)
        m_marks.pop_back();
    // Those whose bytes have been dropped are kept for their times, but not without end.
    if (m_marks.size() >= kMaxQueued && m_marks[1].position <= m_bytesOut)
        m_marks.pop_front();
    m_marks.push_back({m_bytesIn, timestamp, 0});
    NoteFirstMark();
}

void CStreamExecutor::NoteFirstMark() {
    m_firstTimestamp = m_marks.empty() ? kUnknown : m_marks.front().timestamp;
}

void CStreamExecutor::TakeMark(Timing& timing, bool startPending) {
    const TimestampMark mark = m_marks.front();
    m_marks.pop_front();
    timing.time = ToSampleTime(mark.timestamp, startPending);
    timing.timestamp = mark.timestamp;
    timing.errorCount = mark.errorCount;
    timing.marked = true;
    if (timing.time != kUnknown && timing.time < 0 && startPending)
        m_prerollPending = true;
}

CStreamExecutor::Timing CStreamExecutor::TakeMarks(int32_t size, bool startPending) {
    constexpr int64_t kTail = 100;
    Timing timing;
    while (!m_marks.empty() && m_marks.front().position <= m_bytesOut)
        TakeMark(timing, startPending);
    // At a start, a sample takes the time of a picture that begins inside it.
    if (m_pin.Media() == MediaClass::kVideo && startPending && !timing.marked && !m_marks.empty() &&
        m_marks.front().position <= m_bytesOut + size - kTail)
        TakeMark(timing, startPending);
    NoteFirstMark();
    return timing;
}

int32_t CStreamExecutor::UpToNextMark(int32_t size) const {
    if (m_marks.empty())
        return size;
    const int64_t distance = m_marks.front().position - m_bytesOut;
    return distance > 0 && distance < size ? static_cast<int32_t>(distance) : size;
}

int32_t CStreamExecutor::DropDamaged(const Timing& timing, int32_t size) {
    if (timing.marked)
        m_droppingPes = timing.errorCount > 0;
    if (!m_droppingPes || m_marks.empty() || m_pin.Media() != MediaClass::kVideo)
        return 0;
    if (timing.marked && m_marks.front().timestamp < timing.timestamp)
        m_pin.SetDataLost();
    return TakeDataFromCache(nullptr, UpToNextMark(size), false);
}

void CStreamExecutor::Describe(IMediaSample& sample, REFERENCE_TIME time) {
    if (time == kUnknown) {
        sample.SetTime(nullptr, nullptr);
        sample.SetMediaTime(nullptr, nullptr);
        sample.SetSyncPoint(0);
        sample.SetPreroll(m_prerollPending);
        return;
    }
    sample.SetTime(&time, nullptr);
    int64_t mediaStart = time - m_pin.StreamOffset();
    int64_t mediaEnd = mediaStart + 1;
    const bool hasMediaTime = m_pin.Mode() == StreamingMode::kFile;
    sample.SetMediaTime(hasMediaTime ? &mediaStart : nullptr, hasMediaTime ? &mediaEnd : nullptr);
    sample.SetSyncPoint(1);
    m_prerollPending = m_prerollPending && time < 0;
    sample.SetPreroll(m_prerollPending);
}

HRESULT CStreamExecutor::SendData(int32_t budget, int32_t* sent, bool startPending) {
    *sent = 0;
    ComPtr<IMediaSample> sample;
    if (FAILED(m_pin.GetDeliveryBuffer(sample.Put(), nullptr, nullptr, 0)) || !sample)
        return E_FAIL;
    {
        CScopedLock lock(&m_lock);
        // The wait for a buffer may have been long: the data may be another stream's by now.
        if (!IsActive() || m_state != State::kStreaming)
            return S_OK;
        int32_t size = std::min<int32_t>(budget, sample->GetSize());
        const Timing timing = TakeMarks(size, startPending);
        if (const int32_t dropped = DropDamaged(timing, size); dropped > 0) {
            *sent = dropped;
            return S_OK;
        }
        size = UpToNextMark(size);
        Describe(*sample.Get(), timing.time);
        *sent = TakeDataFromCache(sample.Get(), size, startPending);
    }
    if (*sent == 0)
        return S_OK;
    sample->SetActualDataLength(*sent);
    return m_pin.DeliverSample(sample.Get());
}

int32_t CStreamExecutor::TakeDataFromCache(IMediaSample*, int32_t bytes, bool) {
    Consumed(bytes);
    return bytes;
}

void CStreamExecutor::Consumed(int32_t bytes) {
    m_bytesOut += bytes;
    if (m_bytesOut == m_bytesIn)
        m_full = false;
    m_pin.OnRoomMade();
}

HRESULT CStreamExecutor::AddPackets(std::span<const OfferedPacket> packets, size_t* taken) {
    *taken = 0;
    CScopedLock lock(&m_lock);
    if (!IsActive())
        return E_UNEXPECTED;
    HRESULT result = E_OUTOFMEMORY;
    try {
        result = AddAll(packets, taken);
    } catch (const std::bad_alloc&) {
        // Of the queue of time stamps.
    }
    if (result == E_OUTOFMEMORY)
        m_full = true;
    return result;
}

HRESULT CStreamExecutor::TakeSection(const TsHeader&, std::span<const uint8_t>) {
    return IsActive() ? S_OK : E_UNEXPECTED;
}

HRESULT CStreamExecutor::DropData(int32_t bytes) {
    CScopedLock lock(&m_lock);
    return Drop(bytes);
}

}  // namespace tessel
