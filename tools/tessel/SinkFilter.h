// The end of a stream: a filter that takes one media type and writes, or only counts, what it gets.
#pragma once

#include <atomic>
#include <memory>
#include <optional>
#include <string>

#include "platform/media/BaseInputPin.h"
#include "tools/tessel/OutputFile.h"

namespace tessel::tool {

struct SinkCounts {
    int64_t bytes = 0;
    int64_t samples = 0;
    int64_t discontinuities = 0;  // but for the first sample, which always is one
    std::optional<REFERENCE_TIME> firstTime, lastTime;
};

class SinkFilter final : public CBaseFilter {
public:
    // type: what the pin takes, major type and subtype. data: null to count only. times: null for no list.
    SinkFilter(const AM_MEDIA_TYPE& type, std::unique_ptr<OutputFile> data, std::unique_ptr<OutputFile> times);

    int GetPinCount() override { return 1; }
    std::shared_ptr<CBasePin> GetPin(int index) override;

    // While streaming: bytes so far, and whether writing has failed.
    int64_t Bytes() const { return m_bytes.load(std::memory_order_relaxed); }
    bool HasFailed() const { return m_failed; }
    // Once the graph is stopped: no thread delivers any more.
    const SinkCounts& Counts() const { return m_counts; }
    // Throws what a thread of delivery has met, or what writing the rest meets.
    void CloseFiles();

private:
    class Pin;

    HRESULT Take(IMediaSample* sample);
    void Note(IMediaSample* sample);

    CCritSec m_stateLock;
    std::shared_ptr<Pin> m_pin;
    const std::unique_ptr<OutputFile> m_data;
    const std::unique_ptr<OutputFile> m_times;
    SinkCounts m_counts;
    std::atomic<int64_t> m_bytes{0};
    std::exception_ptr m_error;  // before m_failed is set
    std::atomic<bool> m_failed{false};
};

}  // namespace tessel::tool
