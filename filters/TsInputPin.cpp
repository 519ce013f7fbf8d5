#include "filters/TsInputPin.h"

#include "filters/TsSplitter.h"
#include "platform/media/MediaResult.h"

namespace tessel {

namespace {

constexpr GUID kSubtypes[] = {MEDIASUBTYPE_MPEG2_TRANSPORT, KSDATAFORMAT_SUBTYPE_BDA_MPEG2_TRANSPORT};

}  // namespace

CTsInputPin::CTsInputPin(CTsSplitter& splitter) : CUBasePin("CTsInputPin", &splitter, u"Input"), m_splitter(splitter) {}

HRESULT CTsInputPin::NonDelegatingQueryInterface(const IID& iid, void** out) {
    if (out != nullptr && iid == IGetSetParam::kIid)
        return GetInterface<IGetSetParam>(this, out);
    return CBaseInputPin::NonDelegatingQueryInterface(iid, out);
}

HRESULT CTsInputPin::Impl_CheckMediaType(const AM_MEDIA_TYPE& type) {
    const bool accepted =
        type.majortype == MEDIATYPE_Stream && (type.subtype == kSubtypes[0] || type.subtype == kSubtypes[1]);
    return accepted ? S_OK : VFW_E_TYPE_NOT_ACCEPTED;
}

HRESULT CTsInputPin::GetMediaType(int position, CMediaType* out) {
    if (out == nullptr)
        return E_POINTER;
    if (position < 0)
        return E_INVALIDARG;
    if (position >= 2)
        return VFW_S_NO_MORE_ITEMS;
    out->ResetMediaType();
    out->majortype = MEDIATYPE_Stream;
    out->subtype = kSubtypes[position];
    out->formattype = FORMAT_None;
    out->bFixedSizeSamples = 1;
    out->lSampleSize = 1;
    return S_OK;
}

HRESULT CTsInputPin::Receive(IMediaSample* sample) {
    CScopedLock lock(&m_receiveLock);
    const HRESULT result = CBaseInputPin::Receive(sample);
    return result == S_OK ? m_splitter.Receive(sample) : result;
}

HRESULT CTsInputPin::EndOfStream() {
    CScopedLock lock(&m_receiveLock);
    // After a type that it refused the pin takes no more samples, but its stream ends. In a flush it does not: that
    // end belongs to what is thrown away.
    const HRESULT result = m_runTimeError ? S_OK : CheckStreaming();
    if (result != S_OK)
        return result;
    m_splitter.EndOfStream();
    return S_OK;
}

HRESULT CTsInputPin::BeginFlush() {
    const HRESULT result = CBaseInputPin::BeginFlush();
    return FAILED(result) ? result : m_splitter.BeginFlush();
}

HRESULT CTsInputPin::EndFlush() {
    const HRESULT result = m_splitter.EndFlush();
    return SUCCEEDED(result) ? CBaseInputPin::EndFlush() : result;
}

}  // namespace tessel
