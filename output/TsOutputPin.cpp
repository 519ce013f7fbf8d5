#include "output/TsOutputPin.h"

#include <new>

#include "output/ElementaryStream.h"
#include "output/PsiStream.h"
#include "output/TransportStream.h"
#include "platform/media/MediaResult.h"
#include "services/objects/Collections.h"

namespace tessel {

namespace {

constexpr ULONG kLeastStreamPid = 0x10;

// 100 ns.
constexpr REFERENCE_TIME kLiveOffset = 2'000'000;
constexpr REFERENCE_TIME kMaxLiveOffset = 4'000'000;

// Calls ask(interface) on the filter's own; E_NOINTERFACE when it has none.
template <class I, class Ask>
HRESULT AskHost(IOutputHost& host, Ask ask) {
    ComPtr<I> filter;
    const HRESULT result = host.QueryHost(I::kIid, reinterpret_cast<void**>(filter.Put()));
    return SUCCEEDED(result) ? ask(*filter.Get()) : result;
}

}  // namespace

CTsOutputPin::CTsOutputPin(CBaseFilter* filter, IOutputHost& host, const OLECHAR* name, StreamingMode mode,
                           bool liveClock)
    : CUBasePin("CTsOutputPin", filter, name),
      m_host(host),
      m_mode(mode),
      m_liveClock(liveClock),
      m_streamOffset(mode == StreamingMode::kLive ? kLiveOffset : 0),
      m_event(std::make_shared<CEvent>(EventReset::kAuto)),
      m_interrupt(std::make_shared<CEvent>(EventReset::kAuto)) {}

CTsOutputPin::~CTsOutputPin() = default;

HRESULT CTsOutputPin::NonDelegatingQueryInterface(const IID& iid, void** out) {
    if (out == nullptr)
        return E_POINTER;
    if (iid == IRALThreadExecutor::kIid)
        return GetInterface<IRALThreadExecutor>(this, out);
    if (iid == IMPEG2PIDMap::kIid)
        return GetInterface<IMPEG2PIDMap>(this, out);
    if (iid == IGetSetParam::kIid)
        return GetInterface<IGetSetParam>(this, out);
    if (iid == IMPEG2PIDParam::kIid)
        return GetInterface<IMPEG2PIDParam>(this, out);
    if (m_mode == StreamingMode::kLive) {
        if (iid == IAMPushSource::kIid)
            return GetInterface<IAMPushSource>(this, out);
        if (iid == IAMLatency::kIid)
            return GetInterface<IAMLatency>(this, out);
        if (iid == IMediaSeeking::kIid && m_host.IsFirstPin(*this))
            return m_host.QueryHost(iid, out);
    }
    return CBaseOutputPin::NonDelegatingQueryInterface(iid, out);
}

std::shared_ptr<CStreamExecutor> CTsOutputPin::Content() const {
    CScopedLock lock(&m_contentLock);
    return m_content;
}

HRESULT CTsOutputPin::MakeContent(ContentKind kind) {
    std::shared_ptr<CStreamExecutor> content;
    try {
        switch (kind) {
        case ContentKind::kTransportPackets:
            content = std::make_shared<CTransportStream>(*this, m_host);
            break;
        case ContentKind::kElementaryStream:
            content = std::make_shared<CElementaryStream>(*this, m_host);
            break;
        case ContentKind::kPsiSections:
            content = std::make_shared<CPSIStream>(*this, m_host);
            break;
        case ContentKind::kNone:
            break;
        }
    } catch (const std::bad_alloc&) {
        return E_OUTOFMEMORY;
    }
    {
        CScopedLock lock(&m_contentLock);
        m_content = std::move(content);
        m_kind = kind;
    }
    m_host.OnPinWantsChanged(*this);
    NoteDeliverable();
    return S_OK;
}

void CTsOutputPin::DestroyContent() {
    const auto content = Content();
    if (!content)
        return;
    content->Inactive();
    MakeContent(ContentKind::kNone);
}

HRESULT CTsOutputPin::ChooseContent(ULONG count, const ULONG* pids, MEDIA_SAMPLE_CONTENT content) {
    ContentKind wanted = ContentKind::kNone;
    switch (content) {
    case MEDIA_TRANSPORT_PACKET:
        wanted = ContentKind::kTransportPackets;
        break;
    case MEDIA_ELEMENTARY_STREAM:
        wanted = ContentKind::kElementaryStream;
        break;
    case MEDIA_MPEG2_PSI:
        wanted = ContentKind::kPsiSections;
        break;
    case MEDIA_TRANSPORT_PAYLOAD:
        break;
    }
    if (wanted == ContentKind::kNone || (Kind() != ContentKind::kNone && Kind() != wanted))
        return E_INVALIDARG;
    if (wanted == ContentKind::kElementaryStream &&
        (count > 1 || m_map.Count() + count > 1 || pids[0] < kLeastStreamPid))
        return E_INVALIDARG;
    return Kind() == wanted ? S_OK : MakeContent(wanted);
}

HRESULT CTsOutputPin::InsertPids(ULONG count, const ULONG* pids) {
    const ContentKind kind = Kind();
    try {
        for (ULONG i = 0; i < count; ++i) {
            if ((pids[i] == ALL_PIDS && kind != ContentKind::kTransportPackets) ||
                (pids[i] == ALL_TABLES && kind == ContentKind::kElementaryStream))
                return E_INVALIDARG;
            m_map.Insert(pids[i]);
            m_host.OnPinWants(*this, pids[i], true);
        }
    } catch (const std::bad_alloc&) {
        return E_OUTOFMEMORY;
    }
    return S_OK;
}

bool CTsOutputPin::NoteMapping() {
    const auto content = Content();
    if (!content)
        return false;
    if (!content->IsActive())
        return m_mode == StreamingMode::kFile;
    TellOfMapping(*content);
    return false;
}

void CTsOutputPin::TellOfMapping(CStreamExecutor& content) {
    ComPtr<IEnumPIDMap> mapping;
    if (SUCCEEDED(EnumPIDMap(mapping.Put())))
        content.NotifyDiscontinuity(CStreamExecutor::kMappingChanged, mapping.Get());
}

HRESULT CTsOutputPin::MapPID(ULONG count, const ULONG* pids, MEDIA_SAMPLE_CONTENT content) {
    if (count == 0)
        return S_OK;
    if (pids == nullptr)
        return E_POINTER;
    HRESULT result = S_OK;
    bool bindsNow = false;
    std::shared_ptr<CStreamExecutor> executor;
    {
        CScopedLock lock(&m_mapMutex);
        result = ChooseContent(count, pids, content);
        if (SUCCEEDED(result))
            result = InsertPids(count, pids);
        if (SUCCEEDED(result)) {
            executor = Content();
            bindsNow = NoteMapping();
        }
    }
    // Those before one that was refused stay mapped.
    if (Kind() == ContentKind::kPsiSections)
        for (ULONG i = 0; i < count; ++i)
            if (m_map.Contains(pids[i]))
                m_host.WantSections(pids[i]);
    if (FAILED(result))
        return result;
    if (bindsNow)
        Bind(*executor);
    return S_OK;
}

HRESULT CTsOutputPin::Activate(CStreamExecutor& content) {
    CScopedLock lock(&m_activationLock);
    return Thread() ? content.Active() : VFW_E_WRONG_STATE;
}

void CTsOutputPin::Bind(CStreamExecutor& content) {
    CScopedLock lock(&m_activationLock);
    if (content.IsActive()) {
        TellOfMapping(content);
        return;
    }
    if (FAILED(content.Active()))
        return;
    {
        // An end that the pin was told of while it had no content is not this one's, which would be bound to nothing.
        const std::lock_guard task(m_taskMutex);
        m_eosPending = false;
        m_eosDelivered = false;
    }
    content.OfferPrograms();
    content.Inactive();
}

void CTsOutputPin::BindWhileStopped() {
    const auto content = Content();
    if (content && !content->IsActive() && !m_map.IsEmpty())
        Bind(*content);
}

HRESULT CTsOutputPin::UnmapPID(ULONG count, const ULONG* pids) {
    if (pids == nullptr)
        return E_POINTER;
    CScopedLock lock(&m_mapMutex);
    bool changed = false;
    for (ULONG i = 0; i < count; ++i) {
        if (!m_map.Erase(pids[i]))
            continue;
        changed = true;
        m_host.OnPinWants(*this, pids[i], false);
    }
    if (!IsConnected() && m_map.IsEmpty())
        DestroyContent();
    else if (changed)
        NoteMapping();
    return S_OK;
}

HRESULT CTsOutputPin::EnumPIDMap(IEnumPIDMap** out) {
    if (out == nullptr)
        return E_POINTER;
    *out = nullptr;
    try {
        *out = MakeObject<CEnumPIDMap>(m_map.Entries()).Detach();
    } catch (const std::bad_alloc&) {
        return E_FAIL;
    }
    return *out != nullptr ? S_OK : E_OUTOFMEMORY;
}

void CTsOutputPin::ResetMapping() {
    CScopedLock lock(&m_mapMutex);
    m_map.Clear();
    DestroyContent();
}

HRESULT CTsOutputPin::SetParam(uint32_t id, uint32_t value) {
    if (id != kParamContentKind)
        return AskHost<IGetSetParam>(m_host, [&](IGetSetParam& filter) { return filter.SetParam(id, value); });
    CScopedLock lock(&m_mapMutex);
    if (IsConnected() || !m_map.IsEmpty())
        return E_UNEXPECTED;
    DestroyContent();
    if (value < 1 || value > 3)
        return E_INVALIDARG;
    return MakeContent(static_cast<ContentKind>(value));
}

HRESULT CTsOutputPin::GetParam(uint32_t id, uint32_t* out) {
    if (id != kParamContentKind)
        return AskHost<IGetSetParam>(m_host, [&](IGetSetParam& filter) { return filter.GetParam(id, out); });
    if (out == nullptr)
        return E_POINTER;
    *out = static_cast<uint32_t>(Kind());
    return S_OK;
}

HRESULT CTsOutputPin::Reserved1(uint32_t id, uint32_t first, uint32_t second) {
    return AskHost<IGetSetParam>(m_host, [&](IGetSetParam& filter) { return filter.Reserved1(id, first, second); });
}

HRESULT CTsOutputPin::Reserved2(uint32_t id, uint32_t value) {
    return AskHost<IGetSetParam>(m_host, [&](IGetSetParam& filter) { return filter.Reserved2(id, value); });
}

HRESULT CTsOutputPin::Reserved3(uint32_t id, uint32_t value) {
    return AskHost<IGetSetParam>(m_host, [&](IGetSetParam& filter) { return filter.Reserved3(id, value); });
}

HRESULT CTsOutputPin::Reserved4(uint32_t id, uint32_t value, void** out) {
    return AskHost<IGetSetParam>(m_host, [&](IGetSetParam& filter) { return filter.Reserved4(id, value, out); });
}

HRESULT CTsOutputPin::Reserved1(int32_t pid, int32_t parameter, uint32_t value) {
    return AskHost<IMPEG2PIDParam>(m_host, [&](auto& filter) { return filter.Reserved1(pid, parameter, value); });
}

HRESULT CTsOutputPin::GetPidParam(int32_t pid, int32_t parameter, uint32_t* out) {
    return AskHost<IMPEG2PIDParam>(m_host, [&](auto& filter) { return filter.GetPidParam(pid, parameter, out); });
}

HRESULT CTsOutputPin::Reserved2(int32_t pid, int32_t parameter, uint32_t value) {
    return AskHost<IMPEG2PIDParam>(m_host, [&](auto& filter) { return filter.Reserved2(pid, parameter, value); });
}

HRESULT CTsOutputPin::Reserved3(int32_t pid, int32_t parameter, uint32_t value) {
    return AskHost<IMPEG2PIDParam>(m_host, [&](auto& filter) { return filter.Reserved3(pid, parameter, value); });
}

HRESULT CTsOutputPin::Reserved4(int32_t pid, int32_t parameter, uint32_t value) {
    return AskHost<IMPEG2PIDParam>(m_host, [&](auto& filter) { return filter.Reserved4(pid, parameter, value); });
}

HRESULT CTsOutputPin::Reserved5(int32_t pid, int32_t parameter, uint32_t value) {
    return AskHost<IMPEG2PIDParam>(m_host, [&](auto& filter) { return filter.Reserved5(pid, parameter, value); });
}

HRESULT CTsOutputPin::GetLatency(REFERENCE_TIME* out) {
    if (out == nullptr)
        return E_POINTER;
    *out = 0;
    return S_OK;
}

HRESULT CTsOutputPin::GetPushSourceFlags(ULONG* out) {
    if (out == nullptr)
        return E_POINTER;
    *out = 0;
    return S_OK;
}

HRESULT CTsOutputPin::SetStreamOffset(REFERENCE_TIME offset) {
    m_streamOffset = offset;
    REFERENCE_TIME most = 0;
    GetMaxStreamOffset(&most);
    return most > offset ? S_FALSE : S_OK;
}

HRESULT CTsOutputPin::GetStreamOffset(REFERENCE_TIME* out) {
    if (out == nullptr)
        return E_POINTER;
    *out = m_streamOffset;
    return S_OK;
}

HRESULT CTsOutputPin::GetMaxStreamOffset(REFERENCE_TIME* out) {
    if (out == nullptr)
        return E_POINTER;
    *out = m_mode == StreamingMode::kFile ? INT64_MAX : kMaxLiveOffset;
    return S_OK;
}

}  // namespace tessel
