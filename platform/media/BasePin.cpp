#include "platform/media/BasePin.h"

#include <new>

#include "platform/com/TaskMemory.h"
#include "platform/media/Enumerators.h"
#include "platform/media/MediaResult.h"

// Marks the pin as changing its connection.
class CBasePin::Attempt {
public:
    explicit Attempt(CBasePin& pin) : m_pin(pin), m_entered(!pin.m_changing.exchange(true)) {}
    ~Attempt() {
        if (m_entered)
            m_pin.m_changing = false;
    }
    Attempt(const Attempt&) = delete;
    Attempt& operator=(const Attempt&) = delete;

    HRESULT MayConnect() const {
        if (!m_entered || m_pin.IsConnected())
            return VFW_E_ALREADY_CONNECTED;
        return m_pin.m_filter->IsStopped() ? S_OK : VFW_E_NOT_STOPPED;
    }
    HRESULT MayDisconnect() const {
        if (!m_entered)
            return VFW_E_WRONG_STATE;
        return m_pin.m_filter->IsStopped() ? S_OK : VFW_E_NOT_STOPPED;
    }

private:
    CBasePin& m_pin;
    const bool m_entered;
};

CBasePin::CBasePin(const char* objectName, CBaseFilter* filter, const OLECHAR* name, PIN_DIRECTION direction)
    : CUnknown(objectName, nullptr), m_filter(filter), m_direction(direction), m_name(name) {}

HRESULT CBasePin::NonDelegatingQueryInterface(const IID& iid, void** out) {
    if (out != nullptr && iid == IPin::kIid)
        return GetInterface<IPin>(this, out);
    return CUnknown::NonDelegatingQueryInterface(iid, out);
}

ULONG CBasePin::NonDelegatingAddRef() {
    m_filter->AddRef();
    return CUnknown::NonDelegatingAddRef();
}

ULONG CBasePin::NonDelegatingRelease() {
    CBaseFilter* const filter = m_filter;
    const ULONG left = CUnknown::NonDelegatingRelease();
    filter->Release();  // last: it may take the pin's list with it
    return left;
}

HRESULT CBasePin::Connect(IPin* receiver, const AM_MEDIA_TYPE* type) {
    if (receiver == nullptr)
        return E_POINTER;
    const Attempt attempt(*this);
    const HRESULT result = attempt.MayConnect();
    return SUCCEEDED(result) ? AgreeMediaType(*receiver, type) : result;
}

HRESULT CBasePin::AgreeMediaType(IPin& receiver, const AM_MEDIA_TYPE* type) {
    if (type != nullptr && type->majortype != GUID_NULL && type->formattype != GUID_NULL)
        return AttemptConnection(receiver, *type);
    const HRESULT result = TryMediaTypes(receiver, type, receiver);
    if (SUCCEEDED(result))
        return result;
    const HRESULT own = TryMediaTypes(receiver, type, *this);
    return FAILED(own) && own == VFW_E_NO_ACCEPTABLE_TYPES ? result : own;
}

HRESULT CBasePin::TryMediaTypes(IPin& receiver, const AM_MEDIA_TYPE* partial, IPin& from) {
    ComPtr<IEnumMediaTypes> types;
    HRESULT result = from.EnumMediaTypes(types.Put());
    if (FAILED(result) || !types)
        return VFW_E_NO_ACCEPTABLE_TYPES;
    result = types->Reset();
    if (FAILED(result))
        return result;
    HRESULT failure = VFW_E_NO_ACCEPTABLE_TYPES;
    AM_MEDIA_TYPE* next = nullptr;
    while (types->Next(1, &next, nullptr) == S_OK) {
        const std::unique_ptr<AM_MEDIA_TYPE, void (*)(AM_MEDIA_TYPE*)> type(next, DeleteMediaType);
        if (partial != nullptr && !MatchesPartial(*type, *partial))
            continue;
        result = AttemptConnection(receiver, *type);
        if (SUCCEEDED(result))
            return S_OK;
        // "Not this type" says less than any other reason.
        if (result != VFW_E_TYPE_NOT_ACCEPTED && failure == VFW_E_NO_ACCEPTABLE_TYPES)
            failure = result;
    }
    return failure;
}

HRESULT CBasePin::AttemptConnection(IPin& receiver, const AM_MEDIA_TYPE& type) {
    HRESULT result = CheckConnect(&receiver);
    if (SUCCEEDED(result)) {
        result = CheckMediaType(&type);
        if (SUCCEEDED(result) && result != S_OK)
            result = VFW_E_TYPE_NOT_ACCEPTED;
    }
    if (SUCCEEDED(result)) {
        SetConnected(&receiver);
        result = SetMediaType(&type);
    }
    if (SUCCEEDED(result)) {
        result = receiver.ReceiveConnection(this, &type);
        if (SUCCEEDED(result)) {
            result = CompleteConnect(&receiver);
            if (FAILED(result))
                receiver.Disconnect();
        }
    }
    if (SUCCEEDED(result))
        return S_OK;
    BreakConnect();
    SetConnected(nullptr);
    return result;
}

HRESULT CBasePin::ReceiveConnection(IPin* connector, const AM_MEDIA_TYPE* type) {
    if (connector == nullptr || type == nullptr)
        return E_POINTER;
    const Attempt attempt(*this);
    HRESULT result = attempt.MayConnect();
    if (FAILED(result))
        return result;
    result = CheckConnect(connector);
    if (SUCCEEDED(result) && CheckMediaType(type) != S_OK)
        result = VFW_E_TYPE_NOT_ACCEPTED;
    if (SUCCEEDED(result)) {
        SetConnected(connector);
        result = SetMediaType(type);
    }
    if (SUCCEEDED(result))
        result = CompleteConnect(connector);
    if (SUCCEEDED(result))
        return S_OK;
    BreakConnect();
    SetConnected(nullptr);
    return result;
}

HRESULT CBasePin::Disconnect() {
    const Attempt attempt(*this);
    HRESULT result = attempt.MayDisconnect();
    if (FAILED(result))
        return result;
    if (!IsConnected())
        return S_FALSE;
    result = BreakConnect();
    if (FAILED(result))
        return result;
    SetConnected(nullptr);
    return S_OK;
}

void CBasePin::DropConnection() {
    if (!IsConnected())
        return;
    BreakConnect();
    SetConnected(nullptr);
}

void CBasePin::SetConnected(IPin* other) {
    ComPtr<IPin> pin(other);
    const CAutoLock lock(&m_connection);
    std::swap(m_connected, pin);
    m_isConnected = other != nullptr;
}

ComPtr<IPin> CBasePin::GetConnected() const {
    const CAutoLock lock(&m_connection);
    return m_connected;
}

HRESULT CBasePin::CurrentMediaType(CMediaType& out) const {
    CMediaType copy;
    {
        const CAutoLock lock(&m_connection);
        const HRESULT result = copy.Set(m_mediaType);
        if (FAILED(result))
            return result;
    }
    out = std::move(copy);
    return S_OK;
}

HRESULT CBasePin::ConnectedTo(IPin** out) {
    if (out == nullptr)
        return E_POINTER;
    *out = GetConnected().Detach();
    return *out != nullptr ? S_OK : VFW_E_NOT_CONNECTED;
}

HRESULT CBasePin::ConnectionMediaType(AM_MEDIA_TYPE* out) {
    if (out == nullptr)
        return E_POINTER;
    *out = AM_MEDIA_TYPE{};
    const CAutoLock lock(&m_connection);
    return m_connected ? CopyMediaType(out, &m_mediaType) : VFW_E_NOT_CONNECTED;
}

HRESULT CBasePin::QueryPinInfo(PIN_INFO* out) {
    if (out == nullptr)
        return E_POINTER;
    *out = PIN_INFO{};
    out->pFilter = ComPtr<IBaseFilter>(m_filter).Detach();
    out->dir = m_direction;
    m_name.copy(out->achName, MAX_PIN_NAME - 1);
    return S_OK;
}

HRESULT CBasePin::QueryDirection(PIN_DIRECTION* out) {
    if (out == nullptr)
        return E_POINTER;
    *out = m_direction;
    return S_OK;
}

HRESULT CBasePin::QueryId(OLECHAR** out) {
    if (out == nullptr)
        return E_POINTER;
    *out = CopyToTaskMemory(m_name);
    return *out != nullptr ? S_OK : E_OUTOFMEMORY;
}

HRESULT CBasePin::QueryAccept(const AM_MEDIA_TYPE* type) {
    if (type == nullptr)
        return E_POINTER;
    return CheckMediaType(type) == S_OK ? S_OK : S_FALSE;
}

HRESULT CBasePin::EnumMediaTypes(IEnumMediaTypes** out) {
    if (out == nullptr)
        return E_POINTER;
    *out = ComPtr<IEnumMediaTypes>(new (std::nothrow) CEnumMediaTypes(*this)).Detach();
    return *out != nullptr ? S_OK : E_OUTOFMEMORY;
}

HRESULT CBasePin::GetMediaType(int position, CMediaType* out) {
    if (out == nullptr)
        return E_POINTER;
    return position < 0 ? E_INVALIDARG : VFW_S_NO_MORE_ITEMS;
}

HRESULT CBasePin::SetMediaType(const AM_MEDIA_TYPE* type) {
    if (type == nullptr)
        return E_POINTER;
    CMediaType copy;
    const HRESULT result = copy.Set(*type);
    if (FAILED(result))
        return result;
    const CAutoLock lock(&m_connection);
    std::swap(m_mediaType, copy);
    return S_OK;
}

HRESULT CBasePin::CheckConnect(IPin* other) {
    PIN_DIRECTION direction = PINDIR_INPUT;
    const HRESULT result = other->QueryDirection(&direction);
    if (FAILED(result))
        return result;
    return direction != m_direction ? S_OK : VFW_E_INVALID_DIRECTION;
}

HRESULT CBasePin::Inactive() {
    m_runTimeError = false;
    return S_OK;
}
