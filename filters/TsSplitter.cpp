#include "filters/TsSplitter.h"

#include <algorithm>
#include <new>

#include "core/PropertyPages.h"
#include "platform/media/MediaResult.h"
#include "services/objects/Collections.h"

namespace tessel {

namespace {

// Milliseconds after which Receive looks for room again.
constexpr uint32_t kRoomWait = 1;
// How often it does so before it leaves its bytes to the worker, which may be in a client's callback.
constexpr int kTurnTries = 5;
// Milliseconds that a stop waits for the worker, which may be in a client's callback.
constexpr uint32_t kTaskWait = 100;

constexpr CLSID kPages[] = {kPageServices,
                            kPageProgramAssociationTable,
                            kPageServiceDescriptionTable,
                            kPageNetworkInformationTable,
                            kPageGenreLookupTable,
                            kPageServiceGuideTable,
                            kPageConditionalAccessTable,
                            kPageVirtualChannelTable,
                            kPagePidMapping,
                            kPageOutputPins};

}  // namespace

CTsSplitter::CTsSplitter(IUnknown* outer)
    : CTsFilterBase("CTsSplitter", PacketParser::kDefaultCapacity, outer),
      m_wallClock(GetOwner(), &m_clockResult),
      m_events({.isComplete = [this] { return IsServiceInformationComplete() == S_OK; },
                .outOfMemory = [this] { NotifyEvent(EC_ERRORABORT, E_OUTOFMEMORY, 0); }}),
      m_dataEvent(std::make_shared<CEvent>(EventReset::kAuto)),
      m_worker(this, m_dataEvent) {}

CTsSplitter::~CTsSplitter() {
    Stop();
    m_pidSinks.Clear();
}

void CTsSplitter::EndThreads() {
    CTsFilterBase::EndThreads();
    m_worker.End();
}

HRESULT CTsSplitter::NonDelegatingQueryInterface(const IID& iid, void** out) {
    if (out == nullptr)
        return E_POINTER;
    if (iid == ISpecifyPropertyPages::kIid)
        return GetInterface<ISpecifyPropertyPages>(this, out);
    if (iid == IDvbPidMapper::kIid)
        return GetInterface<IDvbPidMapper>(this, out);
    if (IsServiceInformation(iid))
        return GetInterface<IDvbServiceInformationEx>(this, out);
    if (iid == IRALThreadExecutor::kIid)
        return GetInterface<IRALThreadExecutor>(this, out);
    if (iid == IReferenceClock::kIid && Mode() == StreamingMode::kLive)
        return GetInterface<IReferenceClock>(&m_wallClock, out);
    return CTsFilterBase::NonDelegatingQueryInterface(iid, out);
}

HRESULT CTsSplitter::Init(StreamingMode mode, int32_t parameter) {
    if (FAILED(m_clockResult) || FAILED(SetMode(mode, parameter)))
        return E_FAIL;
    try {
        m_input = MakePin<CTsInputPin>(*this);
    } catch (const std::bad_alloc&) {
        return E_FAIL;
    }
    const OutputPinPtr sections = CreatePin(u"PSIOut");
    const ULONG all = ALL_TABLES;
    if (!sections || FAILED(sections->MapPID(1, &all, MEDIA_MPEG2_PSI)))
        return E_FAIL;
    return CreatePin({}) ? S_OK : E_FAIL;
}

HRESULT CTsSplitter::GetClassID(CLSID* out) {
    if (out == nullptr)
        return E_POINTER;
    *out = Mode() == StreamingMode::kLive     ? CLSID_TsSplitter
           : Mode() == StreamingMode::kStream ? CLSID_TsSplitterAsync
                                              : CLSID_TsSplitterRec;
    return S_OK;
}

int CTsSplitter::GetPinCount() {
    return CTsFilterBase::GetPinCount() + 1;
}

std::shared_ptr<CBasePin> CTsSplitter::GetPin(int index) {
    return index == 0 ? m_input : CTsFilterBase::GetPin(index - 1);
}

HRESULT CTsSplitter::EnsureFreePin(CTsOutputPin&) {
    for (const OutputPinPtr& pin : Pins().All())
        if (!pin->IsConnected() && pin->Kind() != ContentKind::kPsiSections)
            return S_OK;
    return CreatePin({}) ? S_OK : E_FAIL;
}

HRESULT CTsSplitter::GetPages(CAUUID* pages) {
    return HandOutPages(kPages, pages);
}

HRESULT CTsSplitter::SetSyncSource(IReferenceClock* clock) {
    m_wallClock.SetSyncSource(clock);
    return CTsFilterBase::SetSyncSource(clock);
}

HRESULT CTsSplitter::Reset() {
    // With the turn, so that no table comes between the reset and the contents' restart, which forgets it.
    CHeldTurn turn = SeizeParseTurn();
    {
        CScopedLock streaming(&StreamingLock());
        CScopedLock tables(&TableLock());
        InternalReset();
        if (turn)
            DeferRestart();  // else the filter is about to stop, which ends the contents anyway
    }
    RunDeferred();
    turn.Release();
    m_events.TellReset();
    return S_OK;
}

uint32_t CTsSplitter::DoOneThreadTask() {
    CHeldTurn turn = TakeParseTurn();
    if (!turn)
        return INFINITE;
    try {
        bool synced = false;
        {
            CScopedLock lock(&StreamingLock());
            if (m_resyncPending && SUCCEEDED(DetectPacketSize()))
                m_resyncPending = false;
            synced = !m_resyncPending;
        }
        if (synced)
            ParseData();
    } catch (const std::bad_alloc&) {
        Abort();
    }
    turn.Release();
    m_roomEvent.Set();
    return INFINITE;
}

void CTsSplitter::Abort() {
    if (IsEnding())
        return;
    StopStreaming();
    NotifyEvent(EC_ERRORABORT, E_OUTOFMEMORY, 0);
    for (const OutputPinPtr& pin : Pins().All())
        pin->EndOfStream();
}

void CTsSplitter::ParseRest() {
    {
        CScopedLock lock(&StreamingLock());
        if (m_resyncPending && SUCCEEDED(DetectPacketSize()))
            m_resyncPending = false;
    }
    ParseData();
}

HRESULT CTsSplitter::TakeDiscontinuity() {
    m_worker.Pause();
    CHeldTurn turn = TakeParseTurn();
    if (!turn)
        return S_FALSE;
    ParseRest();
    {
        CScopedLock lock(&StreamingLock());
        FlushBuffer();
        for (const OutputPinPtr& pin : Pins().All())
            pin->NotifyDiscontinuity(CStreamExecutor::kDiscontinuity, nullptr);
        m_resyncPending = true;
    }
    turn.Release();
    m_worker.Resume(WorkerPriority());
    return S_OK;
}

HRESULT CTsSplitter::Receive(IMediaSample* sample) {
    try {
        return Take(sample);
    } catch (const std::bad_alloc&) {
        Abort();
        return E_OUTOFMEMORY;
    }
}

HRESULT CTsSplitter::Take(IMediaSample* sample) {
    if (!IsStreaming())
        return S_FALSE;
    uint8_t* data = nullptr;
    const int32_t length = sample->GetActualDataLength();
    if (FAILED(sample->GetPointer(&data)) || data == nullptr || length <= 0)
        return S_OK;
    if (sample->IsDiscontinuity() == S_OK) {
        const HRESULT result = TakeDiscontinuity();
        if (result != S_OK)
            return result;
    }
    return AddBytes(data, std::min(length, static_cast<int32_t>(sample->GetSize())));
}

bool CTsSplitter::ParseWhereTheyLie(const uint8_t** data, int32_t* length) {
    // A live sender is not held up.
    if (Mode() == StreamingMode::kLive)
        return false;
    for (int i = 0; i < kTurnTries && !m_resyncPending && IsStreaming() && !m_input->IsFlushing(); ++i) {
        const HRESULT result = ParseInPlace(data, length);
        if (result != S_FALSE)
            return result == S_OK;
        m_roomEvent.Wait(kRoomWait);
    }
    return false;
}

HRESULT CTsSplitter::AddBytes(const uint8_t* data, int32_t length) {
    const bool parsed = ParseWhereTheyLie(&data, &length);
    bool noted = false;
    while (length > 0) {
        HRESULT result = S_OK;
        {
            CScopedLock lock(&StreamingLock());
            if (!noted)
                NoteArrival();
            noted = true;
            result = AddData(&data, &length);
        }
        if (SUCCEEDED(result) && result != S_OK)
            return result;
        if (FAILED(result) && result != E_OUTOFMEMORY)
            return result;
        // Bytes too few for a packet wait for more.
        if (!parsed)
            m_dataEvent->Set();
        if (result == S_OK)
            continue;
        if (IsEnding() || !IsStreaming() || m_input->IsFlushing())
            return S_FALSE;
        m_roomEvent.Wait(kRoomWait);
    }
    return S_OK;
}

void CTsSplitter::EndOfStream() {
    m_worker.Pause();
    CHeldTurn turn = TakeParseTurn();
    if (IsStreaming()) {
        try {
            if (turn)
                ParseRest();
        } catch (const std::bad_alloc&) {
            NotifyEvent(EC_ERRORABORT, E_OUTOFMEMORY, 0);
        }
        StopStreaming();
    }
    turn.Release();
    for (const OutputPinPtr& pin : Pins().All())
        pin->EndOfStream();
}

HRESULT CTsSplitter::BeginFlush() {
    m_worker.Pause();
    for (const OutputPinPtr& pin : Pins().All())
        pin->DeliverBeginFlush();
    CScopedLock receive(&m_input->ReceiveLock());
    return StopStreaming();
}

HRESULT CTsSplitter::EndFlush() {
    for (const OutputPinPtr& pin : Pins().All())
        pin->DeliverEndFlush();
    if (IsStopped())
        return S_OK;
    HRESULT result = S_OK;
    try {
        result = RestartStreaming();
        if (result == S_OK)
            result = SettleThreads();
    } catch (const std::bad_alloc&) {
        result = E_OUTOFMEMORY;
    }
    if (FAILED(result))
        StopStreaming();
    return FAILED(result) ? result : S_OK;
}

HRESULT CTsSplitter::Pause() {
    CScopedLock lock(&StateLock());
    if (State() == State_Paused)
        return S_OK;
    if (m_input->IsConnected())
        return CTsFilterBase::Pause();
    EndOfStream();
    m_state = State_Paused;
    return S_OK;
}

HRESULT CTsSplitter::Stop() {
    BeginEnding();
    CScopedLock lock(&StateLock());
    if (IsStopped())
        return S_OK;
    BeginEnding();
    if (m_input && m_input->IsConnected()) {
        m_input->Inactive();
        // A Receive that is under way ends first.
        CScopedLock receive(&m_input->ReceiveLock());
    }
    const HRESULT result = CTsFilterBase::Stop();
    // A client that has stopped the filter wants to be called no more.
    m_worker.WaitForTask(kTaskWait);
    return result;
}

HRESULT CTsSplitter::StartStreaming() {
    const HRESULT result = CTsFilterBase::StartStreaming();
    return result == S_OK ? SettleThreads() : result;
}

HRESULT CTsSplitter::StopStreaming() {
    m_worker.Pause();
    const HRESULT result = CTsFilterBase::StopStreaming();
    SettleThreads();
    return result;
}

HRESULT CTsSplitter::SettleThreads() {
    CScopedLock lock(&m_threadsLock);
    if (IsStreaming()) {
        const HRESULT result = m_events.Start();
        return SUCCEEDED(result) ? m_worker.Start(WorkerPriority(), Hold()) : result;
    }
    m_worker.Pause();
    m_events.Stop();
    return S_OK;
}

void CTsSplitter::InternalReset() {
    CTsFilterBase::InternalReset();
    SetPacketSize(kTransportPacketSize);
    DeferPidNotice({.reset = true});
    m_resyncPending = true;
    m_events.ForgetServices();
}

void CTsSplitter::NewTSID(uint32_t transportStreamId) {
    CTsFilterBase::NewTSID(transportStreamId);
    m_events.ForgetServices();
}

HRESULT CTsSplitter::OnTableReady(uint32_t tableId, uint32_t key) {
    const HRESULT result = CTsFilterBase::OnTableReady(tableId, key);
    if (SUCCEEDED(result))
        m_events.Post(kMessageTableReady, tableId, key);
    return result;
}

HRESULT CTsSplitter::OnTableStale(uint32_t tableId, uint32_t key) {
    const HRESULT result = CTsFilterBase::OnTableStale(tableId, key);
    m_events.Post(kMessageTableStale, tableId, key);
    return result;
}

void CTsSplitter::TellPidSinks(std::span<const PidNotice> notices) {
    for (const PidNotice& notice : notices) {
        m_pidSinks.ForEach([&notice](IUnknown& sink) {
            const auto events = ComPtr<IUnknown>(&sink).As<IDvbPidMapperEvents>();
            if (!events)
                return;
            if (notice.reset)
                events->OnPidsReset();
            else
                events->OnPidUsed(notice.tableId, notice.pid);
        });
    }
}

HRESULT CreateTsSplitter(StreamingMode mode, IBaseFilter** out, const ReadingRules& rules) {
    if (out == nullptr)
        return E_POINTER;
    *out = nullptr;
    const auto splitter = MakeObject<CTsSplitter>();
    if (!splitter)
        return E_OUTOFMEMORY;
    splitter->SetRules(rules);
    const HRESULT result = splitter->Init(mode, mode == StreamingMode::kRecording ? 0 : 1);
    if (SUCCEEDED(result))
        *out = ComPtr<IBaseFilter>(splitter.Get()).Detach();
    return result;
}

}  // namespace tessel
