#include "tools/tessel/SinkFilter.h"

#include <charconv>
#include <cstring>

#include "Classes/MultiPlatform/LockRanks.h"
#include "platform/media/MediaResult.h"
#include "tools/tessel/Failure.h"

namespace tessel::tool {

namespace {

const char* const kHeading = "offset,time,flags\n";

std::span<const uint8_t> AsBytes(std::string_view text) {
    return {reinterpret_cast<const uint8_t*>(text.data()), text.size()};
}

// A line of the list, built in place.
class Line {
public:
    void Add(int64_t number) { m_end = std::to_chars(m_end, m_text + sizeof(m_text), number).ptr; }
    void Add(const char* text) { m_end = std::strcpy(m_end, text) + std::strlen(text); }
    void AddFlag(bool set, const char* name) {
        if (!set)
            return;
        Add(m_flags++ == 0 ? "" : " ");
        Add(name);
    }
    std::string_view Text() const { return {m_text, m_end}; }

private:
    char m_text[96];
    char* m_end = m_text;
    int m_flags = 0;
};

}  // namespace

class SinkFilter::Pin final : public CBaseInputPin {
public:
    Pin(SinkFilter* sink, const AM_MEDIA_TYPE& type)
        : CBaseInputPin("SinkFilter::Pin", sink, u"Input"),
          m_sink(*sink),
          m_majortype(type.majortype),
          m_subtype(type.subtype) {}

    HRESULT CheckMediaType(const AM_MEDIA_TYPE* type) override {
        return type->majortype == m_majortype && type->subtype == m_subtype ? S_OK : VFW_E_TYPE_NOT_ACCEPTED;
    }
    HRESULT Receive(IMediaSample* sample) override {
        const HRESULT result = CBaseInputPin::Receive(sample);
        return result == S_OK ? m_sink.Take(sample) : result;
    }
    HRESULT EndOfStream() override { return m_filter->NotifyEvent(EC_COMPLETE, S_OK, 0); }

private:
    SinkFilter& m_sink;
    const GUID m_majortype;
    const GUID m_subtype;
};

SinkFilter::SinkFilter(const AM_MEDIA_TYPE& type, std::unique_ptr<OutputFile> data, std::unique_ptr<OutputFile> times)
    : CBaseFilter("SinkFilter", nullptr, &m_stateLock, GUID_NULL),
      m_stateLock("sink's state", kRankFilterState),
      m_pin(MakePin<Pin>(this, type)),
      m_data(std::move(data)),
      m_times(std::move(times)) {
    if (m_times)
        m_times->Write(AsBytes(kHeading));
}

std::shared_ptr<CBasePin> SinkFilter::GetPin(int index) {
    return index == 0 ? m_pin : nullptr;
}

HRESULT SinkFilter::Take(IMediaSample* sample) {
    if (m_failed)
        return E_FAIL;
    try {
        uint8_t* bytes = nullptr;
        const HRESULT result = sample->GetPointer(&bytes);
        if (FAILED(result))
            return result;
        const auto length = static_cast<size_t>(sample->GetActualDataLength());
        Note(sample);
        if (m_data && length != 0) {
            m_data->Write({bytes, length});
            m_data->Keep();
            if (m_times)
                m_times->Keep();
        }
        m_counts.bytes += static_cast<int64_t>(length);
        m_bytes.store(m_counts.bytes, std::memory_order_relaxed);
        return S_OK;
    } catch (...) {
        m_error = std::current_exception();
        m_failed = true;
        return E_FAIL;
    }
}

void SinkFilter::Note(IMediaSample* sample) {
    REFERENCE_TIME start = 0, end = 0;
    const bool timed = SUCCEEDED(sample->GetTime(&start, &end));
    const bool discontinuity = sample->IsDiscontinuity() == S_OK;
    if (timed) {
        m_counts.firstTime = m_counts.firstTime.value_or(start);
        m_counts.lastTime = start;
    }
    m_counts.discontinuities += discontinuity && m_counts.samples != 0;
    ++m_counts.samples;
    // In how many samples the rest of a PES packet comes is a matter of threads.
    if (!m_times || (!timed && !discontinuity))
        return;
    Line line;
    line.Add(m_counts.bytes);
    line.Add(",");
    if (timed)
        line.Add(start);
    line.Add(",");
    line.AddFlag(sample->IsSyncPoint() == S_OK, "sync");
    line.AddFlag(discontinuity, "discontinuity");
    line.AddFlag(sample->IsPreroll() == S_OK, "preroll");
    line.Add("\n");
    m_times->Write(AsBytes(line.Text()));
}

void SinkFilter::CloseFiles() {
    if (m_failed)
        std::rethrow_exception(m_error);
    if (m_data)
        m_data->Close();
    if (m_times)
        m_times->Close();
}

}  // namespace tessel::tool
