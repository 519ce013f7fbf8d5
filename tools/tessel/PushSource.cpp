#include "tools/tessel/PushSource.h"

#include <string>

#include "Classes/MultiPlatform/LockRanks.h"
#include "platform/media/MediaResult.h"

namespace tessel::tool {

class PushSource::Pin final : public CBaseOutputPin {
public:
    Pin(PushSource* source, const OLECHAR* name)
        : CBaseOutputPin("PushSource::Pin", source, name), m_allocator(source->m_allocator.Get()) {}

    HRESULT CheckMediaType(const AM_MEDIA_TYPE* type) override {
        return type->majortype == MEDIATYPE_Stream && type->subtype == MEDIASUBTYPE_MPEG2_TRANSPORT
                   ? S_OK
                   : VFW_E_TYPE_NOT_ACCEPTED;
    }
    HRESULT GetMediaType(int position, CMediaType* out) override {
        if (position > 0)
            return VFW_S_NO_MORE_ITEMS;
        AM_MEDIA_TYPE type;
        type.majortype = MEDIATYPE_Stream;
        type.subtype = MEDIASUBTYPE_MPEG2_TRANSPORT;
        type.formattype = FORMAT_None;
        return out->Set(type);
    }
    HRESULT DecideAllocator(IMemInputPin* input, IMemAllocator** out) override {
        ALLOCATOR_PROPERTIES request;
        const HRESULT result = DecideBufferSize(m_allocator, &request);
        if (FAILED(result))
            return result;
        *out = ComPtr<IMemAllocator>(m_allocator).Detach();
        return input->NotifyAllocator(m_allocator, 1);
    }
    HRESULT DecideBufferSize(IMemAllocator* allocator, ALLOCATOR_PROPERTIES* request) override {
        // A receiver copies the bytes before it returns, so one is enough.
        request->cBuffers = 1;
        request->cbBuffer = kSampleSize;
        request->cbAlign = 1;
        ALLOCATOR_PROPERTIES actual;
        return allocator->SetProperties(request, &actual);
    }

private:
    CMemAllocator* const m_allocator;
};

PushSource::PushSource(size_t pins)
    : CBaseFilter("PushSource", nullptr, &m_stateLock, GUID_NULL),
      m_stateLock("push source's state", kRankFilterState),
      m_allocator(new CMemAllocator()) {
    for (size_t i = 1; i <= pins; ++i) {
        std::u16string name = u"Output";
        for (const char c : std::to_string(i))
            name += static_cast<char16_t>(c);
        m_pins.push_back(MakePin<Pin>(this, name.c_str()));
    }
}

std::shared_ptr<CBasePin> PushSource::GetPin(int index) {
    return index >= 0 && index < GetPinCount() ? m_pins[static_cast<size_t>(index)] : nullptr;
}

HRESULT PushSource::GetSample(IMediaSample** out) {
    return m_pins.front()->GetDeliveryBuffer(out, nullptr, nullptr, 0);
}

HRESULT PushSource::Push(IMediaSample* sample) {
    for (const auto& pin : m_pins) {
        const HRESULT result = pin->Deliver(sample);
        if (result != S_OK)
            return result;
    }
    return S_OK;
}

HRESULT PushSource::End() {
    HRESULT result = S_OK;
    for (const auto& pin : m_pins) {
        const HRESULT ended = pin->DeliverEndOfStream();
        if (FAILED(ended))
            result = ended;
    }
    return result;
}

}  // namespace tessel::tool
