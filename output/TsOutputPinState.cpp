// The output pin's connection, and what its filter's states make of it.
#include <chrono>
#include <new>

#include "output/TsOutputPin.h"
#include "platform/media/MediaResult.h"

namespace tessel {

namespace {

constexpr size_t kThreadStack = 65'536;
constexpr std::chrono::milliseconds kTaskWait{100};

}  // namespace

bool CTsOutputPin::IsOnlyCurrentTypeOffered(ContentKind kind) const {
    const auto content = Content();
    return kind == ContentKind::kElementaryStream && content && content->GetPcrPid() >= 0;
}

HRESULT CTsOutputPin::Impl_CheckMediaType(const AM_MEDIA_TYPE& type) {
    const ContentKind kind = IsConnected() || !m_map.IsEmpty() ? Kind() : ContentKind::kNone;
    if (!IsOnlyCurrentTypeOffered(kind))
        return IsMediaTypeOf(kind, type) ? S_OK : VFW_E_TYPE_NOT_ACCEPTED;
    CMediaType current;
    const HRESULT result = CurrentMediaType(current);
    if (FAILED(result))
        return result;
    return type.majortype == current.majortype && type.subtype == current.subtype ? S_OK : VFW_E_TYPE_NOT_ACCEPTED;
}

HRESULT CTsOutputPin::GetMediaType(int position, CMediaType* out) {
    if (out == nullptr)
        return E_POINTER;
    if (position < 0)
        return E_INVALIDARG;
    CScopedLock lock(&m_pinLock);
    const ContentKind kind = Kind();
    if (IsOnlyCurrentTypeOffered(kind))
        return position == 0 ? CurrentMediaType(*out) : VFW_S_NO_MORE_ITEMS;
    const OutputMediaTypeRange range = MediaTypesOf(kind);
    if (static_cast<size_t>(position) >= range.count)
        return VFW_S_NO_MORE_ITEMS;
    const OutputMediaType& row = kOutputMediaTypes[range.first + static_cast<size_t>(position)];
    out->ResetMediaType();
    out->majortype = row.majortype;
    out->subtype = row.subtype;
    out->bTemporalCompression = row.majortype == MEDIATYPE_Video;
    out->bFixedSizeSamples = 1;
    out->lSampleSize = 1;
    out->formattype = FORMAT_None;
    return S_OK;
}

void CTsOutputPin::NoteMediaType(const AM_MEDIA_TYPE& type) {
    m_media = type.majortype == MEDIATYPE_Video           ? MediaClass::kVideo
              : type.majortype == MEDIATYPE_Audio         ? MediaClass::kAudio
              : type.subtype == MEDIASUBTYPE_DVB_SUBTITLE ? MediaClass::kSubtitle
                                                          : MediaClass::kOther;
    m_keepsPesHeaders = type.majortype == MEDIATYPE_MPEG2_PES;
    m_putsPidBeforeSections = type.subtype == MEDIASUBTYPE_SECTIONS_WITH_PID;
}

HRESULT CTsOutputPin::SetMediaType(const AM_MEDIA_TYPE* type) {
    CScopedLock lock(&m_pinLock);
    HRESULT result = CheckMediaType(type);
    if (SUCCEEDED(result))
        result = CBaseOutputPin::SetMediaType(type);
    if (FAILED(result))
        return result;
    NoteMediaType(*type);
    const ContentKind kind = ContentOf(*type);
    CScopedLock map(&m_mapMutex);
    if (kind == Kind())
        return S_OK;
    DestroyContent();
    return FAILED(MakeContent(kind)) ? VFW_E_TYPE_NOT_ACCEPTED : S_OK;
}

HRESULT CTsOutputPin::AskReceiver(const AM_MEDIA_TYPE& type) {
    const ComPtr<IPin> receiver = GetConnected();
    if (!receiver)
        return VFW_E_NOT_CONNECTED;
    const auto connection = receiver.As<IPinConnection>();
    const HRESULT result = connection ? connection->DynamicQueryAccept(&type) : receiver->QueryAccept(&type);
    return SUCCEEDED(result) && result != S_OK ? VFW_E_TYPE_NOT_ACCEPTED : result;
}

HRESULT CTsOutputPin::SetOutputType(const AM_MEDIA_TYPE* type) {
    if (type == nullptr)
        return E_POINTER;
    CScopedLock lock(&m_pinLock);
    CMediaType current;
    HRESULT result = CurrentMediaType(current);
    if (FAILED(result))
        return result;
    const bool same = type->formattype == FORMAT_None
                          ? type->majortype == current.majortype && type->subtype == current.subtype
                          : *type == current;
    if (same)
        return S_FALSE;
    if (!IsConnected())
        return SetMediaType(type);
    if (type->majortype != current.majortype)
        return VFW_E_TYPE_NOT_ACCEPTED;
    result = AskReceiver(*type);
    if (FAILED(result))
        return result;
    result = CBaseOutputPin::SetMediaType(type);
    NoteMediaType(*type);
    m_typeChanged = true;
    if (const ComPtr<IPin> receiver = GetConnected())
        receiver->ReceiveConnection(this, type);
    return result;
}

HRESULT CTsOutputPin::DecideBufferSize(IMemAllocator* allocator, ALLOCATOR_PROPERTIES* request) {
    const auto content = Content();
    if (!content || content->GetBufferSize() < 1)
        return E_UNEXPECTED;
    request->cbBuffer = content->GetBufferSize();
    request->cBuffers = content->GetBufferCount();
    ALLOCATOR_PROPERTIES actual;
    const HRESULT result = allocator->SetProperties(request, &actual);
    if (FAILED(result))
        return result;
    return actual.cBuffers < request->cBuffers || actual.cbBuffer < request->cbBuffer ? E_FAIL : S_OK;
}

HRESULT CTsOutputPin::CompleteConnect(IPin* other) {
    const HRESULT result = CBaseOutputPin::CompleteConnect(other);
    if (SUCCEEDED(result))
        m_host.OnPinConnected(*this);
    return result;
}

HRESULT CTsOutputPin::BreakConnect() {
    {
        CScopedLock lock(&m_mapMutex);
        if (m_map.IsEmpty())
            DestroyContent();
    }
    const HRESULT result = CBaseOutputPin::BreakConnect();
    m_host.OnPinDisconnected(*this);
    return result;
}

void CTsOutputPin::DropConnections() {
    if (const ComPtr<IPin> receiver = GetConnected()) {
        // A receiver that runs on and cannot let go holds the pin, which then leads nowhere.
        const auto connection = receiver.As<IPinConnection>();
        if (!connection || FAILED(connection->DynamicDisconnect()))
            receiver->Disconnect();
    }
    DropConnection();
}

std::shared_ptr<CRALThread> CTsOutputPin::Thread() {
    CScopedLock lock(&m_pinLock);
    return m_thread.get_deleter().thread;
}

HRESULT CTsOutputPin::MakeThread() {
    CScopedLock lock(&m_pinLock);
    if (m_thread)
        return S_OK;
    const std::shared_ptr<CTsOutputPin> self = m_self.lock();
    if (!self)
        return E_FAIL;
    // The executor is the pin itself, held as the list holds it.
    auto thread = MakeRALThread<CRALExecutorThread>(
        std::shared_ptr<IRALThreadExecutor>(self, static_cast<IRALThreadExecutor*>(this)));
    if (!thread || FAILED(thread->SetWake(m_event)))
        return E_FAIL;
    auto hold = m_host.Hold();
    if (!hold)
        return E_FAIL;
    if (const HRESULT result = thread->Start(nullptr, kThreadStack, std::move(hold)); result != S_OK)
        return FAILED(result) ? result : kThreadNotCreated;
    m_thread = std::move(thread);
    return S_OK;
}

void CTsOutputPin::BeginEpoch() {
    {
        const std::lock_guard lock(m_taskMutex);
        ++m_epoch;
    }
    Interrupt();
}

void CTsOutputPin::Interrupt() {
    m_interrupt->Set();
    m_host.DeliveryLock()->WakeWaiters();
    OnRoomMade();
}

void CTsOutputPin::WakeThread() {
    const auto thread = Thread();
    if (!thread)
        return;
    const std::lock_guard lock(m_taskMutex);
    m_threadRunning = true;
    thread->Resume(m_host.WorkerPriority());
}

void CTsOutputPin::WaitForThreadInactive() {
    const auto thread = Thread();
    std::unique_lock lock(m_taskMutex);
    // At rest it may still be delivering the end.
    if (m_taskChanged.wait_for(lock, kTaskWait, [this] { return !m_threadRunning && !m_inTask; }))
        return;
    if (thread)
        thread->Pause();
    m_threadRunning = false;
}

HRESULT CTsOutputPin::Active() {
    const auto content = Content();
    if (!content)
        return E_UNEXPECTED;
    BeginEpoch();
    m_flushOnStart = false;
    m_eosDelivered = false;
    m_eosPending = false;
    m_flushing = false;
    m_refused = false;
    m_runTimeError = false;
    m_startPending = true;
    m_event->Reset();
    HRESULT result = MakeThread();
    if (FAILED(result)) {
        content->Inactive();
        return result;
    }
    result = Activate(*content);
    if (FAILED(result))
        return result;
    result = CBaseOutputPin::Active();
    if (FAILED(result)) {
        content->Inactive();
        return result;
    }
    NoteDeliverable();
    if (m_mode == StreamingMode::kFile)
        content->OfferPrograms();
    WakeThread();
    return S_OK;
}

HRESULT CTsOutputPin::Inactive() {
    const auto content = Content();
    if (!content)
        return E_UNEXPECTED;
    Interrupt();
    if (!m_eosDelivered)
        EndOfStream();
    WaitForThreadInactive();
    BeginEpoch();
    // Ends a wait for a buffer, so that the thread can end.
    const HRESULT result = CBaseOutputPin::Inactive();
    RALThreadPtr<CRALExecutorThread> thread;
    {
        // From here on the end of a flush activates nothing.
        CScopedLock activation(&m_activationLock);
        CScopedLock lock(&m_pinLock);
        thread = std::move(m_thread);
        m_thread = nullptr;
    }
    thread = nullptr;
    m_flushOnStart = false;
    m_typeChanged = false;
    content->Inactive();
    m_eosDelivered = false;
    m_eosPending = false;
    m_startPending = true;
    NoteDeliverable();
    return result;
}

void CTsOutputPin::Restart() {
    const auto content = Content();
    if (!content || !content->IsActive())
        return;
    BeginEpoch();
    if (const auto thread = Thread())
        thread->Pause();
    {
        std::unique_lock lock(m_taskMutex);
        m_taskChanged.wait_for(lock, kTaskWait, [this] { return !m_inTask; });
    }
    m_offered.Take();
    content->ResetStreamStatus();
    m_startPending = true;
    // The end may be pending, and the task that was told of it was one of the epoch before.
    m_event->Set();
    WakeThread();
}

HRESULT CTsOutputPin::EndOfStream() {
    uint32_t activity = 0;
    {
        const std::lock_guard lock(m_taskMutex);
        activity = m_epoch;
        m_eosPending = true;
    }
    BringEnd(activity);
    return S_OK;
}

void CTsOutputPin::EndActivity(uint32_t activity) {
    {
        const std::lock_guard lock(m_taskMutex);
        if (activity != m_epoch)
            return;
        m_eosPending = true;
    }
    BringEnd(activity);
}

void CTsOutputPin::BringEnd(uint32_t activity) {
    if (m_threadRunning)
        m_event->Set();
    else
        DeliverPendingEnd(activity);
}

HRESULT CTsOutputPin::DeliverBeginFlush() {
    if (!IsConnected())
        return S_OK;
    m_flushing = true;
    NoteDeliverable();
    const HRESULT result = CBaseOutputPin::DeliverBeginFlush();
    Interrupt();
    m_event->Set();
    WaitForThreadInactive();
    BeginEpoch();
    if (const auto content = Content())
        content->Inactive();
    NoteDeliverable();
    return result;
}

HRESULT CTsOutputPin::DeliverEndFlush() {
    if (!IsConnected())
        return S_OK;
    m_startPending = true;
    m_refused = false;
    m_runTimeError = false;
    m_eosDelivered = false;
    m_eosPending = false;
    const HRESULT result = CBaseOutputPin::DeliverEndFlush();
    BeginEpoch();
    m_flushing = false;
    const auto content = Content();
    if (!m_host.IsHostStopped() && IsConnected() && content && SUCCEEDED(Activate(*content))) {
        m_event->Reset();
        NoteDeliverable();
        if (m_mode == StreamingMode::kFile)
            content->OfferPrograms();
        WakeThread();
    }
    return result;
}

}  // namespace tessel
