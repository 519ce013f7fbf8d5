// Filters of the test in a graph: how pins connect, what flows between them, states, clocks, events.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <mutex>
#include <string>
#include <vector>

#include "platform/com/TaskMemory.h"
#include "platform/media/BaseInputPin.h"
#include "platform/media/BaseOutputPin.h"
#include "platform/media/FilterGraph.h"
#include "platform/media/MediaResult.h"
#include "platform/media/SystemClock.h"

namespace {

using testing::ElementsAre;

constexpr uint32_t kBound = 60000;

AM_MEDIA_TYPE MakeType(const GUID& subtype) {
    AM_MEDIA_TYPE type;
    type.majortype = MEDIATYPE_Video;
    type.subtype = subtype;
    type.formattype = FORMAT_None;
    return type;
}

bool Contains(const std::vector<GUID>& list, const GUID& subtype) {
    return std::find(list.begin(), list.end(), subtype) != list.end();
}

// What happened, in order, from any thread.
class Log {
public:
    void Add(std::string line) {
        const std::lock_guard lock(m_mutex);
        m_lines.push_back(std::move(line));
    }
    std::vector<std::string> Take() {
        const std::lock_guard lock(m_mutex);
        return std::exchange(m_lines, {});
    }

private:
    std::mutex m_mutex;
    std::vector<std::string> m_lines;
};

class OutPin final : public CBaseOutputPin {
public:
    OutPin(CBaseFilter* filter, std::vector<GUID> subtypes)
        : CBaseOutputPin("OutPin", filter, u"Out"), m_subtypes(std::move(subtypes)) {}
    HRESULT CheckMediaType(const AM_MEDIA_TYPE* type) override {
        return Contains(m_subtypes, type->subtype) ? S_OK : VFW_E_TYPE_NOT_ACCEPTED;
    }
    HRESULT GetMediaType(int position, CMediaType* out) override {
        if (position >= static_cast<int>(m_subtypes.size()))
            return VFW_S_NO_MORE_ITEMS;
        return out->Set(MakeType(m_subtypes[static_cast<size_t>(position)]));
    }
    HRESULT DecideBufferSize(IMemAllocator* allocator, ALLOCATOR_PROPERTIES* request) override {
        request->cBuffers = 1;
        request->cbBuffer = 16;
        ALLOCATOR_PROPERTIES actual;
        return allocator->SetProperties(request, &actual);
    }
    HRESULT BreakConnect() override {
        ++m_broken;
        return CBaseOutputPin::BreakConnect();
    }
    HRESULT Send(uint8_t value, const AM_MEDIA_TYPE* type = nullptr) {
        ComPtr<IMediaSample> sample;
        const HRESULT result = GetDeliveryBuffer(sample.Put(), nullptr, nullptr, 0);
        if (FAILED(result))
            return result;
        uint8_t* buffer = nullptr;
        sample->GetPointer(&buffer);
        *buffer = value;
        sample->SetActualDataLength(1);
        sample->SetMediaType(type);
        return Deliver(sample.Get());
    }

    std::vector<GUID> m_subtypes;
    int m_broken = 0;
};

class InPin final : public CBaseInputPin {
public:
    InPin(CBaseFilter* filter, Log& log, std::vector<GUID> subtypes)
        : CBaseInputPin("InPin", filter, u"In"), m_log(log), m_subtypes(std::move(subtypes)) {}
    HRESULT CheckMediaType(const AM_MEDIA_TYPE* type) override {
        return Contains(m_subtypes, type->subtype) ? S_OK : VFW_E_TYPE_NOT_ACCEPTED;
    }
    HRESULT CompleteConnect(IPin*) override { return m_complete; }
    HRESULT Receive(IMediaSample* sample) override {
        const HRESULT result = CBaseInputPin::Receive(sample);
        if (result != S_OK)
            return result;
        uint8_t* buffer = nullptr;
        sample->GetPointer(&buffer);
        m_log.Add("sample " + std::to_string(*buffer));
        return S_OK;
    }
    HRESULT EndOfStream() override {
        m_log.Add("end");
        return m_filter->NotifyEvent(EC_COMPLETE, S_OK, 0);
    }

    Log& m_log;
    std::vector<GUID> m_subtypes;
    HRESULT m_complete = S_OK;
};

// A filter with any pins, which may offer a clock.
class TestFilter final : public CBaseFilter, public IReferenceClock {
public:
    TestFilter(std::string name, Log& log, bool clock = false)
        : CBaseFilter("TestFilter", nullptr, &m_state_lock, GUID_NULL),
          m_label(std::move(name)),
          m_log(log),
          m_isClock(clock) {}
    DECLARE_IUNKNOWN
    HRESULT NonDelegatingQueryInterface(const IID& iid, void** out) override {
        return m_isClock && iid == IReferenceClock::kIid ? GetInterface<IReferenceClock>(this, out)
                                                         : CBaseFilter::NonDelegatingQueryInterface(iid, out);
    }
    int GetPinCount() override { return static_cast<int>(m_pins.size()); }
    std::shared_ptr<CBasePin> GetPin(int index) override {
        return index < GetPinCount() ? m_pins[static_cast<size_t>(index)] : nullptr;
    }
    HRESULT Pause() override {
        m_log.Add("pause " + m_label);
        return FAILED(m_pause) ? m_pause : CBaseFilter::Pause();
    }
    HRESULT Run(REFERENCE_TIME start) override {
        m_log.Add("run " + m_label + " " + std::to_string(start));
        return CBaseFilter::Run(start);
    }
    HRESULT Stop() override {
        if (IsActive())
            m_log.Add("stop " + m_label);
        return CBaseFilter::Stop();
    }
    HRESULT GetTime(REFERENCE_TIME* out) override { return *out = m_now, S_OK; }
    HRESULT AdviseTime(REFERENCE_TIME, REFERENCE_TIME, HEVENT, DWORD_PTR*) override { return E_NOTIMPL; }
    HRESULT AdvisePeriodic(REFERENCE_TIME, REFERENCE_TIME, HSEMAPHORE, DWORD_PTR*) override { return E_NOTIMPL; }
    HRESULT Unadvise(DWORD_PTR) override { return E_NOTIMPL; }

    std::vector<std::shared_ptr<CBasePin>> m_pins;
    std::atomic<REFERENCE_TIME> m_now{1'000'000};
    HRESULT m_pause = S_OK;

private:
    CCritSec m_state_lock{"test filter", 0};
    const std::string m_label;
    Log& m_log;
    const bool m_isClock;
};

// A source and a sink in a graph, not connected.
struct Rig {
    explicit Rig(std::vector<GUID> offers = {MEDIASUBTYPE_MPEG2_VIDEO},
                 std::vector<GUID> takes = {MEDIASUBTYPE_MPEG2_VIDEO}, bool clock = false)
        : graph(new CFilterGraph()),
          source(new TestFilter("source", log, clock)),
          sink(new TestFilter("sink", log)),
          out(MakePin<OutPin>(source.Get(), std::move(offers))),
          in(MakePin<InPin>(sink.Get(), log, std::move(takes))) {
        source->m_pins.push_back(out);
        sink->m_pins.push_back(in);
        EXPECT_EQ(graph->AddFilter(source.Get(), u"source"), S_OK);
        EXPECT_EQ(graph->AddFilter(sink.Get(), u"sink"), S_OK);
    }
    HRESULT Connect(const AM_MEDIA_TYPE* type = nullptr) { return graph->ConnectDirect(out.get(), in.get(), type); }
    MediaEvent Next(DWORD milliseconds = 0) {
        MediaEvent event;
        const HRESULT result = graph->GetEvent(&event, milliseconds);
        EXPECT_EQ(result, event.code != 0 ? S_OK : E_ABORT);
        return event;
    }

    Log log;
    ComPtr<CFilterGraph> graph;
    ComPtr<TestFilter> source;
    ComPtr<TestFilter> sink;
    std::shared_ptr<OutPin> out;
    std::shared_ptr<InPin> in;
};

TEST(Connection, TriesTypesUntilBothSidesAccept) {
    const GUID a = MEDIASUBTYPE_MPEG2_VIDEO, b = MEDIASUBTYPE_AVC_VIDEO, c = MEDIASUBTYPE_MPEG4_VIDEO;
    const AM_MEDIA_TYPE full = MakeType(b);
    AM_MEDIA_TYPE partial = MakeType(c);
    partial.formattype = GUID_NULL;
    struct Case {
        std::vector<GUID> offers, takes;
        const AM_MEDIA_TYPE* type;
        HRESULT result;
        GUID agreed;
    };
    for (const Case& test : {
             Case{{a, b}, {b, c}, nullptr, S_OK, b},
             Case{{a, b}, {c}, nullptr, VFW_E_NO_ACCEPTABLE_TYPES, {}},
             Case{{}, {c}, nullptr, VFW_E_NO_ACCEPTABLE_TYPES, {}},
             Case{{a, b}, {a, b}, &full, S_OK, b},
             Case{{a, b}, {a}, &full, VFW_E_TYPE_NOT_ACCEPTED, {}},
             Case{{a, c}, {a, c}, &partial, S_OK, c},
             Case{{a}, {a}, &partial, VFW_E_NO_ACCEPTABLE_TYPES, {}},
         }) {
        Rig rig(test.offers, test.takes);
        EXPECT_EQ(rig.Connect(test.type), test.result);
        EXPECT_EQ(rig.out->IsConnected(), test.result == S_OK);
        EXPECT_EQ(rig.in->IsConnected(), test.result == S_OK);
        CMediaType type;
        EXPECT_EQ(rig.in->ConnectionMediaType(&type), test.result == S_OK ? S_OK : VFW_E_NOT_CONNECTED);
        EXPECT_EQ(type.subtype, test.agreed);
    }
}

TEST(Connection, RefusesAndUndoes) {
    Rig rig;
    EXPECT_EQ(rig.graph->ConnectDirect(rig.in.get(), rig.out.get(), nullptr), VFW_E_INVALID_DIRECTION);
    EXPECT_EQ(rig.out->Connect(rig.out.get(), nullptr), VFW_E_INVALID_DIRECTION);
    rig.in->m_complete = E_ACCESSDENIED;
    EXPECT_EQ(rig.Connect(), E_ACCESSDENIED) << "says more than that no type was accepted";
    EXPECT_FALSE(rig.out->IsConnected() || rig.in->IsConnected());
    EXPECT_GT(rig.out->m_broken, 0);
    rig.in->m_complete = S_OK;
    ASSERT_EQ(rig.Connect(), S_OK);
    EXPECT_EQ(rig.Connect(), VFW_E_ALREADY_CONNECTED);
    rig.graph->Pause();
    EXPECT_EQ(rig.graph->Disconnect(rig.in.get()), VFW_E_NOT_STOPPED);
    EXPECT_EQ(rig.graph->RemoveFilter(rig.sink.Get()), VFW_E_NOT_STOPPED);
    rig.graph->Stop();
    EXPECT_EQ(rig.graph->Reconnect(rig.in.get()), S_OK);
    EXPECT_EQ(rig.graph->Disconnect(rig.in.get()), S_OK);
    EXPECT_EQ(rig.graph->Disconnect(rig.out.get()), S_FALSE) << "both sides are gone";
    EXPECT_EQ(rig.graph->RemoveFilter(rig.sink.Get()), S_OK);
    EXPECT_EQ(rig.Connect(), VFW_E_NOT_IN_GRAPH);
}

TEST(Filter, ListsItsPinsAndNoticesChanges) {
    Rig rig;
    rig.source->m_pins.push_back(MakePin<InPin>(rig.source.Get(), rig.log, std::vector<GUID>{}));
    ComPtr<IEnumPins> pins, clone;
    ASSERT_EQ(rig.source->EnumPins(pins.Put()), S_OK);
    IPin* found[3] = {};
    ULONG count = 0;
    EXPECT_EQ(pins->Next(2, found, nullptr), E_INVALIDARG);
    ASSERT_EQ(pins->Skip(1), S_OK);
    ASSERT_EQ(pins->Clone(clone.Put()), S_OK);
    EXPECT_EQ(pins->Next(3, found, &count), S_FALSE);
    ASSERT_EQ(count, 1u);
    found[0]->Release();
    ComPtr<IPin> second;
    EXPECT_EQ(clone->Next(1, second.Put(), nullptr), S_OK);
    EXPECT_EQ(second.Get(), rig.source->m_pins[1].get());
    // The filter lets go of a pin that a client still holds.
    rig.source->m_pins.pop_back();
    rig.source->IncrementPinVersion();
    OLECHAR* id = nullptr;
    EXPECT_EQ(second->QueryId(&id), S_OK);
    EXPECT_EQ(std::u16string_view(id), u"In");
    CoTaskMemFree(id);
    EXPECT_EQ(pins->Next(1, found, nullptr), VFW_E_ENUM_OUT_OF_SYNC);
    EXPECT_EQ(pins->Reset(), S_OK);
    EXPECT_EQ(pins->Skip(2), S_FALSE) << "one is left";
    ComPtr<IPin> out;
    EXPECT_EQ(rig.source->FindPin(u"In", out.Put()), VFW_E_NOT_FOUND);
    EXPECT_EQ(rig.source->FindPin(u"Out", out.Put()), S_OK);
    EXPECT_EQ(out.Get(), rig.out.get());
}

TEST(Streaming, AnInputPinTellsWhyItTakesNothing) {
    Rig rig({MEDIASUBTYPE_MPEG2_VIDEO, MEDIASUBTYPE_AVC_VIDEO}, {MEDIASUBTYPE_MPEG2_VIDEO, MEDIASUBTYPE_AVC_VIDEO});
    EXPECT_EQ(rig.out->Send(0), VFW_E_NO_ALLOCATOR);
    ASSERT_EQ(rig.Connect(), S_OK);
    EXPECT_EQ(rig.out->Send(0), VFW_E_NOT_COMMITTED);
    EXPECT_EQ(rig.in->CheckStreaming(), VFW_E_WRONG_STATE);
    ASSERT_EQ(rig.graph->Pause(), S_OK);
    EXPECT_EQ(rig.out->Send(1), S_OK);
    rig.out->DeliverBeginFlush();
    EXPECT_EQ(rig.out->Send(2), S_FALSE);
    rig.out->DeliverEndFlush();
    EXPECT_EQ(rig.out->Send(3), S_OK);
    rig.log.Take();

    // Types that begin with a sample.
    const AM_MEDIA_TYPE good = MakeType(MEDIASUBTYPE_AVC_VIDEO), bad = MakeType(MEDIASUBTYPE_AAC_AUDIO);
    EXPECT_EQ(rig.out->Send(4, &good), S_OK);
    CMediaType type;
    rig.in->ConnectionMediaType(&type);
    EXPECT_EQ(type.subtype, MEDIASUBTYPE_AVC_VIDEO);
    EXPECT_EQ(rig.out->Send(5, &bad), VFW_E_INVALIDMEDIATYPE);
    EXPECT_EQ(rig.out->Send(6), VFW_E_RUNTIME_ERROR);
    EXPECT_THAT(rig.log.Take(), ElementsAre("sample 4", "end"));
    EXPECT_EQ(rig.Next().code, EC_COMPLETE);
    const MediaEvent event = rig.Next();
    EXPECT_EQ(event.code, EC_ERRORABORT);
    EXPECT_EQ(event.param1, VFW_E_TYPE_NOT_ACCEPTED);
    rig.out->DeliverBeginFlush();
    rig.out->DeliverEndFlush();
    EXPECT_EQ(rig.out->Send(7), S_OK) << "a flush ends the error";
    rig.graph->Stop();
    EXPECT_EQ(rig.out->Send(8), VFW_E_NOT_COMMITTED);
}

TEST(Graph, ChangesStateUpstreamAndKeepsStreamTimeOverAPause) {
    Rig rig({MEDIASUBTYPE_MPEG2_VIDEO}, {MEDIASUBTYPE_MPEG2_VIDEO}, true);
    ASSERT_EQ(rig.Connect(), S_OK);
    REFERENCE_TIME time = 0;
    EXPECT_EQ(rig.sink->StreamTime(time), VFW_E_NO_CLOCK);
    ASSERT_EQ(rig.graph->SetDefaultSyncSource(), S_OK);
    EXPECT_EQ(rig.sink->Clock().Get(), rig.source.Get()) << "the filter that has one";
    ASSERT_EQ(rig.graph->Run(0), S_OK);
    EXPECT_THAT(rig.log.Take(), ElementsAre("pause sink", "pause source", "run sink 1100000", "run source 1100000"));
    EXPECT_EQ(rig.graph->SetSyncSource(nullptr), VFW_E_NOT_STOPPED);
    rig.source->m_now = 3'100'000;
    EXPECT_EQ(rig.sink->StreamTime(time), S_OK);
    EXPECT_EQ(time, 2'000'000);
    ASSERT_EQ(rig.graph->Pause(), S_OK);
    rig.source->m_now = 9'000'000;
    rig.log.Take();
    ASSERT_EQ(rig.graph->Run(0), S_OK);
    EXPECT_EQ(rig.sink->StartTime(), 9'100'000 - 2'000'000);
    ASSERT_EQ(rig.graph->Stop(), S_OK);
    ASSERT_EQ(rig.graph->Run(0), S_OK);
    EXPECT_EQ(rig.sink->StartTime(), 9'100'000) << "from the beginning";
    ASSERT_EQ(rig.graph->Stop(), S_OK);
    rig.log.Take();

    rig.source->m_pause = E_ACCESSDENIED;
    EXPECT_EQ(rig.graph->Run(0), E_ACCESSDENIED);
    EXPECT_THAT(rig.log.Take(), ElementsAre("pause sink", "pause source", "stop sink"));
    FILTER_STATE state = State_Running;
    EXPECT_EQ(rig.graph->GetState(0, &state), S_OK);
    EXPECT_EQ(state, State_Stopped);
    EXPECT_EQ(rig.graph->RemoveFilter(rig.source.Get()), S_OK);
    EXPECT_FALSE(rig.sink->Clock()) << "the clock left with its filter";
    EXPECT_EQ(rig.graph->SetDefaultSyncSource(), S_OK);
    EXPECT_TRUE(rig.sink->Clock()) << "the system's";
}

TEST(Graph, NamesItsFiltersAndLetsThemGo) {
    Rig rig;
    EXPECT_EQ(rig.graph->AddFilter(rig.sink.Get(), u"again"), E_INVALIDARG);
    const ComPtr<TestFilter> other(new TestFilter("other", rig.log));
    EXPECT_EQ(rig.graph->AddFilter(other.Get(), u"sink"), VFW_E_DUPLICATE_NAME);
    EXPECT_EQ(rig.graph->AddFilter(other.Get(), nullptr), S_OK);
    ComPtr<IBaseFilter> found;
    EXPECT_EQ(rig.graph->FindFilterByName(u"sink", found.Put()), S_OK);
    EXPECT_EQ(found.Get(), rig.sink.Get());
    EXPECT_EQ(rig.graph->FindFilterByName(u"other", found.Put()), VFW_E_NOT_FOUND);

    FILTER_INFO info;
    ASSERT_EQ(rig.sink->QueryFilterInfo(&info), S_OK);
    EXPECT_EQ(std::u16string_view(info.achName), u"sink");
    info.pGraph->Release();
    ASSERT_EQ(rig.Connect(), S_OK);
    ASSERT_EQ(rig.graph->Run(0), S_OK);
    rig.graph.Reset();  // while it runs
    EXPECT_TRUE(rig.sink->IsStopped());
    EXPECT_FALSE(rig.in->IsConnected());
    rig.sink->QueryFilterInfo(&info);
    EXPECT_EQ(info.pGraph, nullptr);
    EXPECT_EQ(rig.sink->NotifyEvent(EC_ERRORABORT, 0, 0), E_NOTIMPL);
}

TEST(Events, CompleteWhenEveryRendererHas) {
    Rig rig;
    const ComPtr<TestFilter> second(new TestFilter("second", rig.log));
    const auto out = MakePin<OutPin>(rig.source.Get(), rig.out->m_subtypes);
    const auto in = MakePin<InPin>(second.Get(), rig.log, rig.in->m_subtypes);
    rig.source->m_pins.push_back(out);
    second->m_pins.push_back(in);
    ASSERT_EQ(rig.graph->AddFilter(second.Get(), nullptr), S_OK);
    ASSERT_EQ(rig.Connect(), S_OK);
    ASSERT_EQ(rig.graph->ConnectDirect(out.get(), in.get(), nullptr), S_OK);
    ASSERT_EQ(rig.graph->Run(0), S_OK);
    rig.out->DeliverEndOfStream();
    rig.out->DeliverEndOfStream();
    EXPECT_EQ(rig.Next().code, 0) << "one of two, though twice";
    rig.source->NotifyEvent(EC_ERRORABORT, E_FAIL, 5);
    const MediaEvent error = rig.Next();
    EXPECT_EQ(error.code, EC_ERRORABORT);
    EXPECT_EQ(error.param2, 5);
    // The last one comes from another thread, while this one waits.
    const auto thread = CThread::Create(0, [&] { return static_cast<uint32_t>(out->DeliverEndOfStream()); });
    ASSERT_NE(thread, nullptr);
    const MediaEvent event = rig.Next(kBound);
    EXPECT_EQ(event.code, EC_COMPLETE);
    EXPECT_EQ(event.param2, reinterpret_cast<LONG_PTR>(static_cast<IBaseFilter*>(second.Get())));
    ASSERT_TRUE(thread->Wait(kBound));

    // A completion that nobody read is not that of the next stream.
    rig.out->DeliverEndOfStream();
    out->DeliverEndOfStream();
    rig.graph->Stop();
    ASSERT_EQ(rig.graph->Run(0), S_OK);
    EXPECT_EQ(rig.Next().code, 0);
    for (size_t i = 0; i < CMediaEventQueue::kMaxEvents; ++i)
        ASSERT_EQ(rig.sink->NotifyEvent(EC_ERRORABORT, 0, 0), S_OK);
    EXPECT_EQ(rig.sink->NotifyEvent(EC_ERRORABORT, 0, 0), E_FAIL) << "nobody reads";
}

TEST(SystemClock, CountsLongWithoutOverflow) {
    class Counter final : public CPerformanceCounter {
    public:
        int64_t Count() const override { return INT64_MAX / 16; }
        int64_t Frequency() const override { return 1'000'000'000; }
    } counter;
    const ComPtr<CSystemClock> clock(new CSystemClock(counter));
    REFERENCE_TIME time = 0;
    EXPECT_EQ(clock->GetTime(&time), S_OK);
    EXPECT_EQ(time, INT64_MAX / 16 / 100);
}

}  // namespace
