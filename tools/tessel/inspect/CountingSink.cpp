#include "tools/tessel/inspect/CountingSink.h"

#include "Classes/MultiPlatform/LockRanks.h"

namespace tessel::tool {

class CountingSink::Pin final : public CBaseInputPin {
public:
    explicit Pin(CountingSink* sink) : CBaseInputPin("CountingSink::Pin", sink, u"Input"), m_sink(*sink) {}

    HRESULT CheckMediaType(const AM_MEDIA_TYPE*) override { return S_OK; }
    HRESULT Receive(IMediaSample* sample) override {
        const HRESULT result = CBaseInputPin::Receive(sample);
        if (result != S_OK)
            return result;
        m_sink.m_samples.fetch_add(1, std::memory_order_relaxed);
        m_sink.m_bytes.fetch_add(sample->GetActualDataLength(), std::memory_order_relaxed);
        return S_OK;
    }
    // Nobody waits for the last of the pins.
    HRESULT EndOfStream() override { return S_OK; }

private:
    CountingSink& m_sink;
};

CountingSink::CountingSink()
    : CBaseFilter("CountingSink", nullptr, &m_stateLock, GUID_NULL),
      m_stateLock("sink's state", kRankFilterState),
      m_pin(MakePin<Pin>(this)) {}

}  // namespace tessel::tool
