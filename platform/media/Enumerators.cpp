#include "platform/media/Enumerators.h"

#include "platform/media/BasePin.h"

CEnumMediaTypes::CEnumMediaTypes(CBasePin& pin)
    : CUnknown("CEnumMediaTypes", nullptr), m_pin(pin), m_reference(&pin), m_version(pin.GetMediaTypeVersion()) {}

HRESULT CEnumMediaTypes::NonDelegatingQueryInterface(const IID& iid, void** out) {
    if (out != nullptr && iid == IEnumMediaTypes::kIid)
        return GetInterface<IEnumMediaTypes>(this, out);
    return CUnknown::NonDelegatingQueryInterface(iid, out);
}

HRESULT CEnumMediaTypes::Next(ULONG count, AM_MEDIA_TYPE** out, ULONG* fetched) {
    if (fetched != nullptr)
        *fetched = 0;
    if (out == nullptr)
        return E_POINTER;
    if (fetched == nullptr && count != 1)
        return E_INVALIDARG;
    if (m_pin.GetMediaTypeVersion() != m_version)
        return VFW_E_ENUM_OUT_OF_SYNC;
    ULONG done = 0;
    for (; done < count; ++done) {
        CMediaType type;
        if (m_pin.GetMediaType(m_position, &type) != S_OK)
            break;
        out[done] = CreateMediaType(&type);
        if (out[done] == nullptr)
            break;
        ++m_position;
    }
    if (fetched != nullptr)
        *fetched = done;
    return done == count ? S_OK : S_FALSE;
}

HRESULT CEnumMediaTypes::Skip(ULONG count) {
    LONG target = 0;
    CMediaType type;
    if (__builtin_add_overflow(m_position, count, &target))
        return S_FALSE;
    m_position = target;
    return count == 0 || m_pin.GetMediaType(target - 1, &type) == S_OK ? S_OK : S_FALSE;
}

HRESULT CEnumMediaTypes::Reset() {
    m_version = m_pin.GetMediaTypeVersion();
    m_position = 0;
    return S_OK;
}

HRESULT CEnumMediaTypes::Clone(IEnumMediaTypes** out) {
    if (out == nullptr)
        return E_POINTER;
    ComPtr<CEnumMediaTypes> copy(new (std::nothrow) CEnumMediaTypes(m_pin));
    if (copy) {
        copy->m_version = m_version;
        copy->m_position = m_position;
    }
    *out = copy.Detach();
    return *out != nullptr ? S_OK : E_OUTOFMEMORY;
}
