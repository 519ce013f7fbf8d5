#include "services/objects/DvbService.h"

#include <new>

namespace tessel {

namespace {

// Stream types of which one that is scrambled makes its service scrambled: video and audio.
bool CarriesProgramme(uint32_t streamType) {
    switch (streamType) {
    case 0x01:
    case 0x02:
    case 0x03:
    case 0x04:
    case 0x0F:
    case 0x10:
    case 0x11:
    case 0x1B:
        return true;
    default:
        return false;
    }
}

}  // namespace

DvbService::DvbService(uint32_t serviceId)
    : CUnknown("DvbService", nullptr), m_serviceId(serviceId), m_components(MakeObject<DvbCollection>()) {}

HRESULT DvbService::NonDelegatingQueryInterface(const IID& iid, void** out) {
    if (out != nullptr) {
        if (iid == IDvbService::kIid || iid == _IDvbService::kIid)
            return GetInterface<_IDvbService>(this, out);
        if (IsParameterInterface(iid))
            return GetInterface<IGetSetCOMParam>(this, out);
    }
    return CUnknown::NonDelegatingQueryInterface(iid, out);
}

HRESULT DvbService::GetServiceId(uint32_t* out) {
    return GetParam(param::kServiceId, out);
}

HRESULT DvbService::GetServiceType(uint32_t* out) {
    return GetParam(param::kServiceType, out);
}

HRESULT DvbService::GetPcrPid(uint32_t* out) {
    return GetParam(param::kPcrPid, out);
}

HRESULT DvbService::GetName(BSTR* out) {
    if (out == nullptr)
        return E_POINTER;
    CScopedLock lock(&m_lock);
    return m_serviceName.Copy(out);
}

HRESULT DvbService::GetProviderName(BSTR* out) {
    if (out == nullptr)
        return E_POINTER;
    CScopedLock lock(&m_lock);
    return m_providerName.Copy(out);
}

HRESULT DvbService::GetComponents(IDvbCollection** out) {
    if (out == nullptr)
        return E_POINTER;
    *out = ComPtr<IDvbCollection>(m_components.Get()).Detach();
    return S_OK;
}

HRESULT DvbService::Reserved1(void* argument, void** out) {
    if (argument == nullptr || out == nullptr)
        return E_POINTER;
    *out = nullptr;
    return E_NOTIMPL;
}

HRESULT DvbService::IsScrambled() {
    CScopedLock lock(&m_lock);
    return m_scrambled != 0 ? S_OK : S_FALSE;
}

HRESULT DvbService::AddComponent(IDvbComponentEx* component) {
    if (!m_components)
        return E_OUTOFMEMORY;
    uint32_t streamType = 0;
    if (SUCCEEDED(component->GetStreamType(&streamType)) && CarriesProgramme(streamType) &&
        component->IsScrambled() == S_OK)
        SetParam(param::kScrambled, 1);
    uint32_t count = 0;
    if (FAILED(m_components->GetCount(&count)) || count >= kMaxComponents)
        return E_FAIL;
    return m_components->Add(component);
}

uint32_t* DvbService::Field(uint32_t id) {
    switch (id) {
    case param::kServiceType:
        return &m_serviceType;
    case param::kPcrPid:
        return &m_pcrPid;
    case param::kPmtPid:
        return &m_pmtPid;
    case param::kScrambled:
        return &m_scrambled;
    case param::kMajorChannel:
        return &m_majorChannel;
    case param::kMinorChannel:
        return &m_minorChannel;
    case param::kSourceId:
        return &m_sourceId;
    default:
        return nullptr;
    }
}

HRESULT DvbService::SetParam(uint32_t id, uint32_t value) {
    CScopedLock lock(&m_lock);
    uint32_t* field = Field(id);
    if (field == nullptr)
        return S_FALSE;
    *field = value;
    return S_OK;
}

HRESULT DvbService::GetParam(uint32_t id, uint32_t* out) {
    if (out == nullptr)
        return E_POINTER;
    CScopedLock lock(&m_lock);
    const uint32_t* field = id == param::kServiceId ? &m_serviceId : Field(id);
    if (field == nullptr)
        return S_FALSE;
    *out = *field;
    return S_OK;
}

HRESULT DvbService::SetStringParam(uint32_t id, const OLECHAR* text) {
    if (id != param::kServiceName && id != param::kProviderName)
        return S_FALSE;
    try {
        SharedText copy = SharedText::FromTerminated(text);
        CScopedLock lock(&m_lock);
        (id == param::kServiceName ? m_serviceName : m_providerName) = std::move(copy);
    } catch (const std::bad_alloc&) {
        return E_OUTOFMEMORY;
    }
    return S_OK;
}

}  // namespace tessel
