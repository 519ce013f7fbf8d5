// The filter side of the common base: states, output pins, parameters, saved state, and what outputs ask of it.
#include <new>

#include "core/SavedState.h"
#include "core/ServiceSelection.h"
#include "core/StartSync.h"
#include "core/TsFilterBase.h"
#include "platform/media/MediaResult.h"

namespace tessel {

namespace {

constexpr size_t kMaxPinName = 49;
// What a save takes at most.
constexpr uint64_t kSavedBytes = 100;
constexpr uint64_t kSavedBytesOfPin = 8;
constexpr uint64_t kSavedBytesOfEntry = 4;

}  // namespace

HRESULT CTsFilterBase::NonDelegatingQueryInterface(const IID& iid, void** out) {
    if (out == nullptr)
        return E_POINTER;
    if (iid == IPersistStream::kIid)
        return GetInterface<IPersistStream>(this, out);
    if (iid == IAMFilterMiscFlags::kIid)
        return GetInterface<IAMFilterMiscFlags>(this, out);
    if (iid == IMpeg2Demultiplexer::kIid)
        return GetInterface<IMpeg2Demultiplexer>(this, out);
    if (iid == IGetSetParam::kIid)
        return GetInterface<IGetSetParam>(this, out);
    if (iid == IMPEG2PIDParam::kIid)
        return GetInterface<IMPEG2PIDParam>(this, out);
    if (iid == ITableDecoder::kIid)
        return GetInterface<ITableDecoder>(this, out);
    return CBaseFilter::NonDelegatingQueryInterface(iid, out);
}

ULONG CTsFilterBase::NonDelegatingAddRef() {
    const int32_t before = m_clients.fetch_add(1);
    // Whoever takes the first one, or one after the last, holds the filter in another way.
    if (before == 0)
        CBaseFilter::NonDelegatingAddRef();
    return static_cast<ULONG>(before + 1);
}

ULONG CTsFilterBase::NonDelegatingRelease() {
    const int32_t left = m_clients.fetch_sub(1) - 1;
    if (left != 0)
        return static_cast<ULONG>(left);
    // What the filter calls as it stops may take references, and let go of the last one again: one thread at a time
    // ends it, for all that come meanwhile.
    if (m_lastReleases.fetch_add(1) == 0) {
        int32_t served = 0;
        do {
            served = m_lastReleases;
            EndThreads();
        } while (m_lastReleases.fetch_sub(served) != served);
    }
    CBaseFilter::NonDelegatingRelease();
    return 0;
}

void CTsFilterBase::ForgetReference() {
    if (m_clients.fetch_sub(1) == 1)
        CBaseFilter::ForgetReference();
}

std::shared_ptr<const void> CTsFilterBase::Hold() try {
    CBaseFilter::NonDelegatingAddRef();
    return {static_cast<const void*>(this), [this](const void*) { CBaseFilter::NonDelegatingRelease(); }};
} catch (const std::bad_alloc&) {
    return nullptr;
}

HRESULT CTsFilterBase::Pause() {
    CScopedLock lock(&StateLock());
    if (State() == State_Paused)
        return S_OK;
    if (!IsStopped())
        return CBaseFilter::Pause();
    m_clocks.SetUpdateCount(0);
    HRESULT result = S_OK;
    try {
        result = StartStreaming();
        if (SUCCEEDED(result))
            result = CBaseFilter::Pause();
    } catch (const std::bad_alloc&) {
        result = E_OUTOFMEMORY;
        for (const OutputPinPtr& pin : m_pins.All())
            if (pin->IsConnected())
                pin->Inactive();
    }
    if (FAILED(result))
        StopStreaming();
    return result;
}

HRESULT CTsFilterBase::Run(REFERENCE_TIME start) {
    CScopedLock lock(&StateLock());
    const HRESULT result = CBaseFilter::Run(start);
    if (SUCCEEDED(result) && IsStreaming())
        m_running = true;
    return result;
}

void CTsFilterBase::BeginEnding() {
    m_ending = true;
    m_parseTurn.Wake();
    m_deliveryLock->WakeWaiters();
    for (const OutputPinPtr& pin : m_pins.All())
        pin->OnRoomMade();
}

CHeldTurn CTsFilterBase::SeizeParseTurn() {
    ++m_seizing;
    for (const OutputPinPtr& pin : m_pins.All())
        pin->OnRoomMade();
    CHeldTurn turn = TakeParseTurn();
    --m_seizing;
    return turn;
}

HRESULT CTsFilterBase::Stop() {
    BeginEnding();
    CScopedLock lock(&StateLock());
    if (IsStopped())
        return S_OK;
    // A start that went on meanwhile has taken the first one back.
    BeginEnding();
    const COutputPins pins = m_pins.All();
    bool connected = false;
    for (const OutputPinPtr& pin : pins)
        connected |= pin->IsConnected();
    if (connected)
        for (const OutputPinPtr& pin : pins)
            pin->Inactive();
    const HRESULT result = StopStreaming();
    if (FAILED(result))
        return result;
    m_clocks.SetUpdateCount(0);
    m_state = State_Stopped;
    return result;
}

HRESULT CTsFilterBase::GetState(DWORD milliseconds, FILTER_STATE* out) {
    const HRESULT result = CBaseFilter::GetState(milliseconds, out);
    return SUCCEEDED(result) && *out == State_Paused && m_mode != StreamingMode::kFile ? VFW_S_CANT_CUE : result;
}

std::shared_ptr<CBasePin> CTsFilterBase::GetPin(int index) {
    return index >= 0 ? m_pins.At(static_cast<size_t>(index)) : nullptr;
}

OutputPinPtr CTsFilterBase::CreatePin(const std::u16string& name) {
    OutputPinPtr pin;
    try {
        const std::u16string given = name.empty() ? m_pins.NextName() : name;
        pin =
            MakePin<CTsOutputPin>(this, static_cast<IOutputHost&>(*this), given.c_str(), m_mode, m_modeParameter != 0);
        pin->SetSelf(pin);
        if (!m_pins.Add(pin))
            return nullptr;
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
    m_router.Attach(std::shared_ptr<IPacketSink>(pin));
    m_router.SetDeliverable(pin.get(), false);
    IncrementPinVersion();
    return pin;
}

void CTsFilterBase::RemovePin(const OutputPinPtr& pin) {
    m_pins.Remove(pin.get());
    m_router.Detach(pin.get());
    IncrementPinVersion();
    pin->Inactive();
    pin->DropConnections();
    pin->ResetMapping();
}

HRESULT CTsFilterBase::CreateOutputPin(AM_MEDIA_TYPE* type, const OLECHAR* name, IPin** out) {
    if (out != nullptr)
        *out = nullptr;
    if (out == nullptr || name == nullptr)
        return E_POINTER;
    const std::u16string text(name);
    if (text.empty() || text.size() > kMaxPinName)
        return E_INVALIDARG;
    CScopedLock lock(&StateLock());
    if (m_pins.Find(text))
        return VFW_E_DUPLICATE_NAME;
    const OutputPinPtr pin = CreatePin(text);
    if (!pin)
        return E_FAIL;
    if (type != nullptr) {
        const HRESULT result = pin->SetMediaType(type);
        if (FAILED(result)) {
            RemovePin(pin);
            return result;
        }
    }
    SetDirty(true);
    *out = ComPtr<IPin>(pin.get()).Detach();
    return S_OK;
}

HRESULT CTsFilterBase::SetOutputPinMediaType(const OLECHAR* name, AM_MEDIA_TYPE* type) {
    if (name == nullptr || type == nullptr)
        return E_POINTER;
    CScopedLock lock(&StateLock());
    const OutputPinPtr pin = m_pins.Find(name);
    return pin ? pin->SetOutputType(type) : E_FAIL;
}

HRESULT CTsFilterBase::DeleteOutputPin(const OLECHAR* name) {
    if (name == nullptr)
        return E_POINTER;
    CScopedLock lock(&StateLock());
    const OutputPinPtr pin = m_pins.Find(name);
    if (!pin)
        return E_FAIL;
    RemovePin(pin);
    SetDirty(true);
    return S_OK;
}

HRESULT CTsFilterBase::SetParam(uint32_t id, uint32_t value) {
    if (id == kParamWorkerPriority)
        m_workerPriority = static_cast<int32_t>(value);
    return id == kParamSelectService ? SelectService(value) : S_OK;
}

HRESULT CTsFilterBase::GetParam(uint32_t id, uint32_t* out) {
    if (out == nullptr)
        return E_POINTER;
    if (id != kParamWorkerPriority)
        return E_INVALIDARG;
    *out = static_cast<uint32_t>(WorkerPriority());
    return S_OK;
}

HRESULT CTsFilterBase::SelectService(uint32_t index) {
    if (!m_services)
        return E_FAIL;
    ComPtr<IDvbMapping> services;
    const HRESULT result = m_services->GetServices(services.Put());
    if (FAILED(result))
        return result;
    if (m_mode != StreamingMode::kFile)
        return CServiceSelection(m_pins.All(), m_pidStatus, *this, std::nullopt).Select(*services.Get(), index);
    const auto rewind = [this] {
        ComPtr<IMediaSeeking> seeking;
        int64_t start = 0;
        if (SUCCEEDED(QueryInterface(IMediaSeeking::kIid, reinterpret_cast<void**>(seeking.Put()))))
            seeking->SetPositions(&start, AM_SEEKING_AbsolutePositioning | AM_SEEKING_SeekToKeyFrame, nullptr,
                                  AM_SEEKING_NoPositioning);
    };
    // Nobody else makes pins, or starts, meanwhile.
    CScopedLock lock(&StateLock());
    return CServiceSelection(
               m_pins.All(), m_pidStatus, *this,
               CServiceSelection::FileOperations{[this](const OLECHAR* name) { return CreatePin(name); }, rewind})
        .Select(*services.Get(), index);
}

HRESULT CTsFilterBase::GetPidParam(int32_t pid, int32_t parameter, uint32_t* out) {
    if (pid < 0 || pid >= static_cast<int32_t>(kPidCount))
        return E_INVALIDARG;
    if (parameter != kPidScrambled && parameter != kPidPresent)
        return S_FALSE;
    if (out == nullptr)
        return E_POINTER;
    const auto which = static_cast<uint32_t>(pid);
    *out = parameter == kPidScrambled ? m_pidStatus.IsScrambled(which) : m_pidStatus.IsPresent(which);
    return S_OK;
}

REFERENCE_TIME CTsFilterBase::CurrentStreamTime() {
    REFERENCE_TIME now = 0;
    return m_running && SUCCEEDED(StreamTime(now)) ? now : 0;
}

HRESULT CTsFilterBase::StartSync(const CStreamExecutor& content, bool inputEnded, int64_t* ptsOrigin,
                                 REFERENCE_TIME* timeOrigin) {
    const SyncSettings settings{.waitsForHalfSecond = m_mode != StreamingMode::kFile,
                                .inputEnded = inputEnded,
                                .hasLiveClock = m_modeParameter != 0,
                                .streamTime = m_modeParameter != 0 ? CurrentStreamTime() : 0};
    const COutputPins pins = m_pins.All();
    SyncOrigin origin{};
    const HRESULT result = StartClock(m_clocks, content, pins, settings, &origin);
    if (result != S_OK)
        return result;
    *ptsOrigin = origin.pts;
    *timeOrigin = origin.time;
    for (const OutputPinPtr& pin : pins)
        if (pin->GetPcrPid() == content.GetPcrPid())
            pin->Signal();
    return S_OK;
}

void CTsFilterBase::WaitForStreamTime(REFERENCE_TIME at, const std::shared_ptr<CEvent>& event, uint32_t milliseconds) {
    const ComPtr<IReferenceClock> clock = Clock();
    DWORD_PTR cookie = 0;
    const bool advised = clock && SUCCEEDED(clock->AdviseTime(StartTime(), at, event.get(), &cookie));
    event->Wait(milliseconds);
    if (advised)
        clock->Unadvise(cookie);
}

void CTsFilterBase::OnPinWants(CTsOutputPin& pin, ULONG pid, bool wanted) {
    SetDirty(true);
    const ContentKind kind = pin.Kind();
    if (kind != ContentKind::kTransportPackets && kind != ContentKind::kElementaryStream)
        return;
    if (pid == ALL_PIDS || pid == ALL_TABLES) {
        m_router.WantAll(&pin, pin.Map().AllPids());
        m_router.WantTables(&pin, pin.Map().AllTables());
    } else {
        m_router.Want(&pin, pid, wanted);
    }
}

void CTsFilterBase::OnPinWantsChanged(CTsOutputPin& pin) {
    m_router.WantNothing(&pin);
    for (const ULONG entry : pin.Map().Entries())
        OnPinWants(pin, entry, true);
}

void CTsFilterBase::OnPinDeliverableChanged(CTsOutputPin& pin, bool deliverable) {
    m_router.SetDeliverable(&pin, deliverable);
}

HRESULT CTsFilterBase::OnPinConnected(CTsOutputPin& pin) {
    CScopedLock lock(&StateLock());
    return EnsureFreePin(pin);
}

uint64_t CTsFilterBase::SizeMax() {
    uint64_t size = kSavedBytes;
    for (const OutputPinPtr& pin : m_pins.All())
        size += kSavedBytesOfPin + kSavedBytesOfEntry * pin->Map().Entries().size();
    return size;
}

HRESULT CTsFilterBase::ScribbleToStream(IStream* stream) {
    std::vector<SavedPin> saved;
    for (const OutputPinPtr& pin : m_pins.All())
        saved.push_back({pin->Name(), static_cast<uint32_t>(pin->Kind()), pin->Map().Entries()});
    const HRESULT result = WritePins(*stream, saved);
    if (SUCCEEDED(result))
        SetDirty(false);
    return result;
}

HRESULT CTsFilterBase::LoadPin(const SavedPin& saved) {
    OutputPinPtr pin;
    {
        CScopedLock lock(&StateLock());
        pin = m_pins.Find(saved.name);
        if (!pin)
            pin = CreatePin(saved.name);
    }
    if (!pin)
        return E_FAIL;
    pin->ResetMapping();
    MEDIA_SAMPLE_CONTENT content = MEDIA_TRANSPORT_PACKET;
    switch (static_cast<ContentKind>(saved.contentKind)) {
    case ContentKind::kTransportPackets:
        break;
    case ContentKind::kElementaryStream:
        content = MEDIA_ELEMENTARY_STREAM;
        break;
    case ContentKind::kPsiSections:
        content = MEDIA_MPEG2_PSI;
        break;
    default:
        return saved.entries.empty() ? S_OK : E_FAIL;
    }
    for (const ULONG entry : saved.entries)
        if (FAILED(pin->MapPID(1, &entry, content)))
            return E_FAIL;
    return S_OK;
}

HRESULT CTsFilterBase::ReadFromStream(IStream* stream) {
    std::vector<SavedPin> saved;
    HRESULT result = ReadPins(*stream, &saved);
    for (size_t i = 0; SUCCEEDED(result) && i < saved.size(); ++i)
        result = LoadPin(saved[i]);
    SetDirty(false);
    return result;
}

}  // namespace tessel
