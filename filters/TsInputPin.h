// The splitter's input pin.
#pragma once

#include <atomic>

#include "output/UBasePin.h"
#include "platform/media/BaseInputPin.h"
#include "services/objects/Parameters.h"

namespace tessel {

class CTsSplitter;

// One sample at a time, with the receive lock; the media type is a transport stream of either name.
class CTsInputPin final : public CUBasePin<CBaseInputPin>, public IGetSetParam {
public:
    explicit CTsInputPin(CTsSplitter& splitter);

    DECLARE_IUNKNOWN
    HRESULT NonDelegatingQueryInterface(const IID& iid, void** out) override;

    HRESULT GetMediaType(int position, CMediaType* out) override;
    HRESULT Receive(IMediaSample* sample) override;
    HRESULT EndOfStream() override;
    HRESULT BeginFlush() override;
    HRESULT EndFlush() override;

    // Without effect.
    HRESULT SetParam(uint32_t, uint32_t) override { return S_OK; }
    HRESULT GetParam(uint32_t, uint32_t*) override { return S_OK; }
    HRESULT Reserved1(uint32_t, uint32_t, uint32_t) override { return S_FALSE; }
    HRESULT Reserved2(uint32_t, uint32_t) override { return S_FALSE; }
    HRESULT Reserved3(uint32_t, uint32_t) override { return S_FALSE; }
    HRESULT Reserved4(uint32_t, uint32_t, void**) override { return S_FALSE; }

    CCritSec& ReceiveLock() OS_RETURN_CAPABILITY(m_receiveLock) { return m_receiveLock; }

private:
    HRESULT Impl_CheckMediaType(const AM_MEDIA_TYPE& type) override;

    CTsSplitter& m_splitter;
    CCritSec m_receiveLock{"input receive", kRankReceive};
};

}  // namespace tessel
