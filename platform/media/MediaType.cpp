#include "platform/media/MediaType.h"

#include <algorithm>

#include "platform/com/TaskMemory.h"

HRESULT CopyMediaType(AM_MEDIA_TYPE* target, const AM_MEDIA_TYPE* source) {
    if (target == nullptr || source == nullptr)
        return E_POINTER;
    AM_MEDIA_TYPE copy = *source;
    copy.pbFormat = nullptr;
    if (source->pbFormat == nullptr)
        copy.cbFormat = 0;
    if (copy.cbFormat != 0) {
        copy.pbFormat = static_cast<uint8_t*>(CoTaskMemAlloc(copy.cbFormat));
        if (copy.pbFormat == nullptr) {
            *target = AM_MEDIA_TYPE{};
            return E_OUTOFMEMORY;
        }
        std::copy_n(source->pbFormat, copy.cbFormat, copy.pbFormat);
    }
    if (copy.pUnk != nullptr)
        copy.pUnk->AddRef();
    *target = copy;
    return S_OK;
}

void FreeMediaType(AM_MEDIA_TYPE& type) {
    CoTaskMemFree(type.pbFormat);
    type.pbFormat = nullptr;
    type.cbFormat = 0;
    if (IUnknown* object = std::exchange(type.pUnk, nullptr))
        object->Release();
}

AM_MEDIA_TYPE* CreateMediaType(const AM_MEDIA_TYPE* source) {
    auto* type = static_cast<AM_MEDIA_TYPE*>(CoTaskMemAlloc(sizeof(AM_MEDIA_TYPE)));
    if (type != nullptr && FAILED(CopyMediaType(type, source))) {
        CoTaskMemFree(type);
        return nullptr;
    }
    return type;
}

void DeleteMediaType(AM_MEDIA_TYPE* type) {
    if (type == nullptr)
        return;
    FreeMediaType(*type);
    CoTaskMemFree(type);
}

bool operator==(const AM_MEDIA_TYPE& a, const AM_MEDIA_TYPE& b) {
    return a.majortype == b.majortype && a.subtype == b.subtype && a.formattype == b.formattype &&
           a.cbFormat == b.cbFormat && std::equal(a.pbFormat, a.pbFormat + a.cbFormat, b.pbFormat);
}

bool MatchesPartial(const AM_MEDIA_TYPE& type, const AM_MEDIA_TYPE& partial) {
    const auto agree = [](const GUID& open, const GUID& is) { return open == GUID_NULL || open == is; };
    if (!agree(partial.majortype, type.majortype) || !agree(partial.subtype, type.subtype))
        return false;
    return partial.formattype == GUID_NULL ||
           (partial.formattype == type.formattype && partial.cbFormat == type.cbFormat &&
            std::equal(type.pbFormat, type.pbFormat + type.cbFormat, partial.pbFormat));
}

HRESULT CMediaType::Set(const AM_MEDIA_TYPE& source) {
    if (&source == this)
        return S_OK;
    FreeMediaType(*this);
    return CopyMediaType(this, &source);
}

HRESULT CMediaType::SetFormat(const uint8_t* format, ULONG length) {
    AM_MEDIA_TYPE changed = *this;
    changed.pbFormat = const_cast<uint8_t*>(format);  // only copied from
    changed.cbFormat = length;
    CMediaType copy;
    const HRESULT result = copy.Set(changed);
    if (SUCCEEDED(result))
        *this = std::move(copy);
    return result;
}
