// What the output pin does on the parsing thread and on its delivery thread.
#include <new>

#include "output/TsOutputPin.h"
#include "platform/media/MediaResult.h"

namespace tessel {

namespace {

// Milliseconds after which a parser that waits for room looks again, even if nobody said that there is some.
constexpr uint32_t kPacketWait = 50;
constexpr uint32_t kSectionWait = 20;
// Milliseconds after which an output that has got its end looks whether it can start now.
constexpr uint32_t kStartWait = 5;

}  // namespace

HRESULT CTsOutputPin::CheckDeliveryState() const {
    if (!IsConnected())
        return S_FALSE;
    const auto content = Content();
    if (!content || !content->IsActive())
        return VFW_E_WRONG_STATE;
    if (m_flushing || m_refused)
        return S_FALSE;
    return m_runTimeError ? VFW_E_RUNTIME_ERROR : S_OK;
}

void CTsOutputPin::NoteDeliverable() {
    const bool deliverable = CheckDeliveryState() == S_OK;
    m_offered.SetOpen(deliverable);
    m_host.OnPinDeliverableChanged(*this, deliverable);
}

void CTsOutputPin::SetRuntimeError() {
    m_runTimeError = true;
    NoteDeliverable();
}

int CTsOutputPin::DeliverPacket(const uint8_t* packet, const TsHeader& header, const AdaptationFieldHeader& adaptation,
                                bool) {
    if (!m_offered.IsOpen())
        return 1;
    if (m_offered.Add(packet, header, adaptation))
        FlushPackets();
    return 0;
}

CTsOutputPin::Room CTsOutputPin::WaitForRoom(CStreamExecutor& content, uint32_t milliseconds) {
    SignalDelivery();
    if (CheckDeliveryState() != S_OK || m_host.IsParserAwaited())
        return Room::kGaveUp;
    if (content.IsWaitingForProgram()) {
        // Only the parser could bring the table that this content waits for.
        if (m_host.CurrentProgramMapTables()->IsEmpty())
            return Room::kLost;
        // It has just brought it, and the offer waits for this packet to go in.
        if (content.TakesAnyProgram()) {
            content.OfferPrograms();
            Signal();
        }
    }
    m_room.Wait(milliseconds);
    return Room::kMaybe;
}

CTsOutputPin::Room CTsOutputPin::MakeRoom(CStreamExecutor& content, HRESULT refusal, int32_t bytes,
                                          uint32_t milliseconds, bool* retried) {
    if (!content.IsActive())
        return Room::kGaveUp;
    if (refusal == E_OUTOFMEMORY && m_mode != StreamingMode::kLive) {
        const Room room = WaitForRoom(content, milliseconds);
        if (room == Room::kLost) {
            content.CountLost(bytes);
            content.NotifyDiscontinuity(CStreamExecutor::kDiscontinuity, nullptr);
        }
        return room;
    }
    if (refusal == E_OUTOFMEMORY && !*retried) {
        *retried = true;
        if (FAILED(content.DropData(bytes))) {
            content.CountLost(bytes);
            return Room::kLost;
        }
        m_dataLost = true;
        return Room::kMaybe;
    }
    SetRuntimeError();
    return Room::kGaveUp;
}

void CTsOutputPin::FlushPackets() {
    const std::span<const OfferedPacket> offered = m_offered.Take();
    const auto content = Content();
    if (!content)
        return;
    bool retried = false;
    for (auto left = offered; !left.empty();) {
        size_t taken = 0;
        const HRESULT result = content->AddPackets(left, &taken);
        left = left.subspan(taken);
        if (SUCCEEDED(result))
            return;
        retried = retried && taken == 0;
        switch (MakeRoom(*content, result, kTransportPacketSize, kPacketWait, &retried)) {
        case Room::kMaybe:
            break;
        case Room::kLost:
            left = left.subspan(1);
            retried = false;
            break;
        case Room::kGaveUp:
            return;
        }
    }
}

void CTsOutputPin::SignalDelivery() {
    const auto content = Content();
    if (content && content->IsActive() && content->GetPendingBytes(m_startPending, m_eosPending) > 0)
        m_event->Set();
}

int CTsOutputPin::DeliverSection(const TsHeader& header, std::span<const uint8_t> section) {
    if (!m_offered.IsOpen())
        return 1;
    if (Kind() != ContentKind::kPsiSections || (!m_map.AllTables() && !m_map.Contains(header.Pid())))
        return 0;
    const auto content = Content();
    if (!content)
        return 1;
    bool retried = false;
    for (;;) {
        const HRESULT result = content->TakeSection(header, section);
        if (SUCCEEDED(result)) {
            SignalDelivery();
            return 0;
        }
        switch (MakeRoom(*content, result, static_cast<int32_t>(section.size()), kSectionWait, &retried)) {
        case Room::kMaybe:
            break;
        case Room::kLost:
            return 0;
        case Room::kGaveUp:
            return 1;
        }
    }
}

std::vector<uint32_t> CTsOutputPin::SectionPids() const {
    return Kind() == ContentKind::kPsiSections ? m_map.Pids() : std::vector<uint32_t>();
}

int32_t CTsOutputPin::GetPcrPid() const {
    const auto content = Content();
    return content ? content->GetPcrPid() : static_cast<int32_t>(kNullPid);
}

void CTsOutputPin::NotifyDiscontinuity(int32_t code, IUnknown*) {
    if (const auto content = Content())
        content->NotifyDiscontinuity(code, nullptr);
}

void CTsOutputPin::NotifyClockChange(const PcrClock& clock) {
    if (const auto content = Content())
        content->NotifyClockChange(clock);
}

template <class Write>
void CTsOutputPin::Rest(uint32_t epoch, Write write) {
    const auto thread = Thread();
    {
        const std::lock_guard lock(m_taskMutex);
        if (epoch != m_epoch)
            return;
        write();
        if (thread)
            thread->Pause();
        m_threadRunning = false;
        m_taskChanged.notify_all();
    }
    NoteDeliverable();
    // It may have been told of the end while it was on its way to rest.
    DeliverPendingEnd(epoch);
}

void CTsOutputPin::DeliverPendingEnd(uint32_t epoch) {
    {
        // Under the mutex, so that a thread that comes late does not take the end of the next epoch for its own.
        const std::lock_guard lock(m_taskMutex);
        if (epoch != m_epoch || !m_eosPending || m_flushing || m_eosDelivered.exchange(true))
            return;
    }
    m_flushOnStart = false;
    DeliverEndOfStream();
}

uint32_t CTsOutputPin::DoOneThreadTask() {
    uint32_t epoch = 0;
    {
        const std::lock_guard lock(m_taskMutex);
        m_inTask = true;
        epoch = m_epoch;
        m_taskEpoch = epoch;
    }
    try {
        RunTask(epoch);
    } catch (const std::bad_alloc&) {
        FailTask(epoch);
    }
    const std::lock_guard lock(m_taskMutex);
    m_inTask = false;
    m_taskChanged.notify_all();
    return INFINITE;
}

void CTsOutputPin::FailTask(uint32_t epoch) {
    m_filter->NotifyEvent(EC_ERRORABORT, E_OUTOFMEMORY, 0);
    Rest(epoch, [this] { m_runTimeError = true; });
}

void CTsOutputPin::RunTask(uint32_t epoch) {
    const auto content = Content();
    if (CheckDeliveryState() != S_OK || !content) {
        Rest(epoch, [] {});
        return;
    }
    const int32_t pending = content->GetPendingBytes(m_startPending, m_eosPending);
    if (pending > 0 && !SendSome(*content, pending, epoch))
        return;
    if (!m_eosPending || m_eosDelivered)
        return;
    // A stop throws away what has not started.
    const HRESULT started = content->TryToStart(!m_host.IsEnding());
    if (started == S_FALSE && MayWait())
        m_interrupt->Wait(kStartWait);
    if (started == S_FALSE || (started == S_OK && content->GetPendingBytes(m_startPending, true) > 0))
        m_event->Set();
    else
        Rest(epoch, [] {});  // which delivers the end
}

bool CTsOutputPin::SendSome(CStreamExecutor& content, int32_t budget, uint32_t epoch) {
    if (content.ProcessCommands(&budget))
        m_dataLost = true;
    if (!content.IsReadyToSend())
        return true;
    int32_t sent = 0;
    const HRESULT result = content.SendData(budget, &sent, m_startPending);
    if (result != S_OK) {
        Rest(epoch, [this, result] {
            if (result == S_FALSE)
                m_refused = true;
            else
                m_runTimeError = true;
        });
        return false;
    }
    // After a delivery that took so long, the filter may be another one, or none.
    if (epoch != m_epoch)
        return false;
    if (budget > sent || content.GetPendingBytes(m_startPending, m_eosPending) > 0)
        m_event->Set();
    return true;
}

bool CTsOutputPin::MayWait() {
    m_interrupt->Reset();
    return !m_flushing && !m_host.IsEnding() && m_taskEpoch == m_epoch;
}

void CTsOutputPin::FlushDownstream() {
    const auto flush = [this] {
        CBaseOutputPin::DeliverBeginFlush();
        CBaseOutputPin::DeliverEndFlush();
    };
    if (Media() == MediaClass::kAudio) {
        flush();
        return;
    }
    const uint32_t epoch = m_epoch;
    const auto lock = m_host.DeliveryLock();
    if (!lock->LockExclusive([&] { return m_flushing || m_host.IsEnding() || epoch != m_epoch; }))
        return;
    flush();
    lock->UnlockExclusive();
}

HRESULT CTsOutputPin::DeliverSample(IMediaSample* sample) {
    bool discontinuity = false;
    if (m_startPending.exchange(false)) {
        discontinuity = true;
        if (m_flushOnStart.exchange(false))
            FlushDownstream();
        REFERENCE_TIME start = 0;
        REFERENCE_TIME end = 0;
        if (SUCCEEDED(sample->GetTime(&start, &end)))
            DeliverNewSegment(start, INT64_MAX, 1.0);
    }
    if (m_typeChanged.exchange(false)) {
        discontinuity = true;
        CMediaType type;
        if (SUCCEEDED(CurrentMediaType(type)))
            sample->SetMediaType(&type);
    }
    discontinuity |= m_dataLost.exchange(false);
    sample->SetDiscontinuity(discontinuity);
    const auto lock = m_host.DeliveryLock();
    lock->LockShared();
    const HRESULT result = Deliver(sample);
    lock->UnlockShared();
    return result;
}

}  // namespace tessel
