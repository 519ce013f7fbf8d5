// A graph around a splitter: a source that a test pushes bytes with, and sinks that write down what they get.
#pragma once

#include <gtest/gtest.h>

#include <atomic>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "filters/TsSplitter.h"
#include "platform/media/BaseInputPin.h"
#include "platform/media/BaseOutputPin.h"
#include "platform/media/FilterGraph.h"
#include "platform/media/MemAllocator.h"
#include "tests/support/StreamBuilder.h"

namespace tessel {

// What no wait in a test takes longer than.
constexpr uint32_t kTestWait = 30'000;

inline AM_MEDIA_TYPE MakeMediaType(const GUID& major, const GUID& sub) {
    AM_MEDIA_TYPE type;
    type.majortype = major;
    type.subtype = sub;
    type.formattype = FORMAT_None;
    return type;
}

// Looks every millisecond; false when it has not turned true after kTestWait.
bool Eventually(const std::function<bool()>& holds);

// Stands still unless a test moves it.
class ManualClock final : public CBaseReferenceClock {
public:
    ManualClock() : CBaseReferenceClock("ManualClock", nullptr, kMediaLeafRank) {}
    ~ManualClock() override { StopAdvising(); }

    REFERENCE_TIME GetPrivateTime() override { return m_now; }
    HRESULT AdviseTime(REFERENCE_TIME base, REFERENCE_TIME time, HEVENT event, DWORD_PTR* cookie) override {
        ++m_waits;
        return CBaseReferenceClock::AdviseTime(base, time, event, cookie);
    }
    // How often somebody has waited for a time.
    size_t Waits() const { return m_waits; }
    void Advance(REFERENCE_TIME by) {
        m_now += by;
        TriggerThread();
    }

private:
    std::atomic<size_t> m_waits{0};
    std::atomic<REFERENCE_TIME> m_now{10'000'000'000};
};

// One output pin; the test pushes on its own thread.
class TestSource final : public CBaseFilter {
public:
    TestSource();

    int GetPinCount() override { return 1; }
    std::shared_ptr<CBasePin> GetPin(int index) override;
    CBaseOutputPin& Out();

    // In samples of at most size bytes; the first result that is not S_OK.
    HRESULT Push(std::span<const uint8_t> bytes, bool discontinuity = false, size_t size = 64 * 1024);

private:
    class Pin;

    CCritSec m_stateLock{"test source", kRankFilterState};
    std::shared_ptr<Pin> m_pin;
};

struct ReceivedSample {
    build::Bytes bytes;
    std::optional<REFERENCE_TIME> time;
    std::optional<int64_t> mediaTime;
    bool syncPoint = false;
    bool discontinuity = false;
    bool preroll = false;
    bool hasType = false;
};

// One input pin that takes one major type and subtype, or any with GUID_NULL.
class TestSink final : public CBaseFilter {
public:
    explicit TestSink(const GUID& major = GUID_NULL, const GUID& sub = GUID_NULL);

    int GetPinCount() override { return 1; }
    std::shared_ptr<CBasePin> GetPin(int index) override;
    CBaseInputPin& In();

    // Called for every sample before it is written down, on the thread that delivers; its result is the pin's.
    void OnSample(std::function<HRESULT(IMediaSample&)> call) { m_onSample = std::move(call); }

    std::vector<ReceivedSample> Samples() const;
    build::Bytes Bytes() const;
    std::vector<REFERENCE_TIME> Times() const;
    // How many bytes had come before each discontinuous sample.
    std::vector<size_t> Discontinuities() const;
    size_t Segments() const;
    size_t Flushes() const;
    size_t Ends() const;
    void Forget();
    // False when it has not come after kTestWait.
    bool WaitForEnd() const;
    bool WaitForSamples(size_t count) const;
    // Until it has the end, or has answered S_FALSE to a sample.
    bool WaitForRest() const;
    // From then on, at every end of a flush.
    void ForgetAtFlush() { m_forgetsAtFlush = true; }

private:
    class Pin;

    template <class Ready>
    bool WaitUntil(Ready ready) const {
        std::unique_lock lock(m_mutex);
        return m_changed.wait_for(lock, std::chrono::milliseconds(kTestWait), ready);
    }

    CCritSec m_stateLock{"test sink", kRankFilterState};
    std::shared_ptr<Pin> m_pin;
    std::function<HRESULT(IMediaSample&)> m_onSample;

    mutable std::mutex m_mutex;
    mutable std::condition_variable m_changed;
    std::vector<ReceivedSample> m_samples;
    size_t m_segments = 0;
    size_t m_flushes = 0;
    size_t m_ends = 0;
    size_t m_refusals = 0;
    std::atomic<bool> m_forgetsAtFlush{false};
};

// source → splitter → sinks, in a graph without a clock, unless the test gives it one.
class SplitterGraph {
public:
    explicit SplitterGraph(StreamingMode mode = StreamingMode::kRecording, ComPtr<ManualClock> clock = {});
    ~SplitterGraph();

    // An output pin of that name and type, mapped, with a sink behind it. The sink lives as long as the graph.
    TestSink& Add(const OLECHAR* name, const GUID& major, const GUID& sub, std::vector<ULONG> pids,
                  MEDIA_SAMPLE_CONTENT content);
    TestSink& AddStream(const OLECHAR* name, const GUID& major, const GUID& sub, ULONG pid) {
        return Add(name, major, sub, {pid}, MEDIA_ELEMENTARY_STREAM);
    }
    // As AddStream, with a sink that takes every type.
    TestSink& AddOpen(const OLECHAR* name, const GUID& major, const GUID& sub, ULONG pid) {
        return AddTo(name, major, sub, {pid}, MEDIA_ELEMENTARY_STREAM, MakeObject<TestSink>());
    }
    OutputPinPtr Pin(const OLECHAR* name);
    // With a clock, stream time is 0 then.
    HRESULT Run();
    HRESULT End() { return source->Out().DeliverEndOfStream(); }

    const ComPtr<ManualClock> clock;
    ComPtr<CFilterGraph> graph;
    ComPtr<CTsSplitter> splitter;
    ComPtr<TestSource> source;
    ComPtr<IMpeg2Demultiplexer> demultiplexer;

private:
    TestSink& AddTo(const OLECHAR* name, const GUID& major, const GUID& sub, std::vector<ULONG> pids,
                    MEDIA_SAMPLE_CONTENT content, ComPtr<TestSink> sink);

    std::vector<ComPtr<TestSink>> m_sinks;
};

}  // namespace tessel
