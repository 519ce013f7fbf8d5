#include "tests/support/GraphFixture.h"

#include <algorithm>
#include <chrono>
#include <cstring>
#include <thread>

#include "platform/media/MediaResult.h"
#include "services/objects/Collections.h"

namespace tessel {

bool Eventually(const std::function<bool()>& holds) {
    for (uint32_t waited = 0; !holds(); ++waited) {
        if (waited == kTestWait)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

class TestSource::Pin final : public CBaseOutputPin {
public:
    explicit Pin(TestSource* filter) : CBaseOutputPin("TestSource", filter, u"Out") {}

    HRESULT CheckMediaType(const AM_MEDIA_TYPE* type) override {
        return type->majortype == MEDIATYPE_Stream ? S_OK : VFW_E_TYPE_NOT_ACCEPTED;
    }
    HRESULT GetMediaType(int position, CMediaType* out) override {
        return position == 0 ? out->Set(MakeMediaType(MEDIATYPE_Stream, MEDIASUBTYPE_MPEG2_TRANSPORT))
                             : VFW_S_NO_MORE_ITEMS;
    }
    HRESULT DecideBufferSize(IMemAllocator* allocator, ALLOCATOR_PROPERTIES* request) override {
        request->cBuffers = 2;
        request->cbBuffer = 256 * 1024;
        ALLOCATOR_PROPERTIES actual;
        return allocator->SetProperties(request, &actual);
    }
};

TestSource::TestSource() : CBaseFilter("TestSource", nullptr, &m_stateLock, GUID_NULL), m_pin(MakePin<Pin>(this)) {}

std::shared_ptr<CBasePin> TestSource::GetPin(int index) {
    return index == 0 ? m_pin : nullptr;
}

CBaseOutputPin& TestSource::Out() {
    return *m_pin;
}

HRESULT TestSource::Push(std::span<const uint8_t> bytes, bool discontinuity, size_t size) {
    while (!bytes.empty()) {
        ComPtr<IMediaSample> sample;
        HRESULT result = m_pin->GetDeliveryBuffer(sample.Put(), nullptr, nullptr, 0);
        if (FAILED(result))
            return result;
        const size_t count = std::min(size, bytes.size());
        uint8_t* target = nullptr;
        sample->GetPointer(&target);
        std::memcpy(target, bytes.data(), count);
        sample->SetActualDataLength(static_cast<LONG>(count));
        sample->SetDiscontinuity(std::exchange(discontinuity, false));
        bytes = bytes.subspan(count);
        result = m_pin->Deliver(sample.Get());
        if (result != S_OK)
            return result;
    }
    return S_OK;
}

class TestSink::Pin final : public CBaseInputPin {
public:
    Pin(TestSink* filter, const GUID& major, const GUID& sub)
        : CBaseInputPin("TestSink", filter, u"In"), m_sink(*filter), m_major(major), m_sub(sub) {}

    HRESULT CheckMediaType(const AM_MEDIA_TYPE* type) override {
        const bool accepted = m_major == GUID_NULL || (type->majortype == m_major && type->subtype == m_sub);
        return accepted ? S_OK : VFW_E_TYPE_NOT_ACCEPTED;
    }
    HRESULT Receive(IMediaSample* sample) override {
        HRESULT result = CBaseInputPin::Receive(sample);
        if (result == S_OK && m_sink.m_onSample)
            result = m_sink.m_onSample(*sample);
        if (result == S_FALSE)
            Note([&] { ++m_sink.m_refusals; });
        if (result != S_OK)
            return result;
        ReceivedSample received;
        uint8_t* data = nullptr;
        sample->GetPointer(&data);
        received.bytes.assign(data, data + sample->GetActualDataLength());
        int64_t start = 0;
        int64_t end = 0;
        if (SUCCEEDED(sample->GetTime(&start, &end)))
            received.time = start;
        if (SUCCEEDED(sample->GetMediaTime(&start, &end)))
            received.mediaTime = start;
        received.syncPoint = sample->IsSyncPoint() == S_OK;
        received.discontinuity = sample->IsDiscontinuity() == S_OK;
        received.preroll = sample->IsPreroll() == S_OK;
        AM_MEDIA_TYPE* type = nullptr;
        received.hasType = sample->GetMediaType(&type) == S_OK;
        DeleteMediaType(type);
        Note([&] { m_sink.m_samples.push_back(std::move(received)); });
        return S_OK;
    }
    HRESULT EndOfStream() override {
        Note([&] { ++m_sink.m_ends; });
        return S_OK;
    }
    HRESULT BeginFlush() override {
        Note([&] { ++m_sink.m_flushes; });
        return CBaseInputPin::BeginFlush();
    }
    HRESULT EndFlush() override {
        if (m_sink.m_forgetsAtFlush)
            m_sink.Forget();
        return CBaseInputPin::EndFlush();
    }
    HRESULT NewSegment(REFERENCE_TIME start, REFERENCE_TIME stop, double rate) override {
        Note([&] { ++m_sink.m_segments; });
        return CBaseInputPin::NewSegment(start, stop, rate);
    }

private:
    template <class Change>
    void Note(Change change) {
        const std::lock_guard lock(m_sink.m_mutex);
        change();
        m_sink.m_changed.notify_all();
    }

    TestSink& m_sink;
    const GUID m_major;
    const GUID m_sub;
};

TestSink::TestSink(const GUID& major, const GUID& sub)
    : CBaseFilter("TestSink", nullptr, &m_stateLock, GUID_NULL), m_pin(MakePin<Pin>(this, major, sub)) {}

std::shared_ptr<CBasePin> TestSink::GetPin(int index) {
    return index == 0 ? m_pin : nullptr;
}

CBaseInputPin& TestSink::In() {
    return *m_pin;
}

std::vector<ReceivedSample> TestSink::Samples() const {
    const std::lock_guard lock(m_mutex);
    return m_samples;
}

build::Bytes TestSink::Bytes() const {
    build::Bytes bytes;
    for (const ReceivedSample& sample : Samples())
        bytes.insert(bytes.end(), sample.bytes.begin(), sample.bytes.end());
    return bytes;
}

std::vector<REFERENCE_TIME> TestSink::Times() const {
    std::vector<REFERENCE_TIME> times;
    for (const ReceivedSample& sample : Samples())
        if (sample.time)
            times.push_back(*sample.time);
    return times;
}

std::vector<size_t> TestSink::Discontinuities() const {
    std::vector<size_t> places;
    size_t position = 0;
    for (const ReceivedSample& sample : Samples()) {
        if (sample.discontinuity)
            places.push_back(position);
        position += sample.bytes.size();
    }
    return places;
}

size_t TestSink::Segments() const {
    const std::lock_guard lock(m_mutex);
    return m_segments;
}

size_t TestSink::Flushes() const {
    const std::lock_guard lock(m_mutex);
    return m_flushes;
}

size_t TestSink::Ends() const {
    const std::lock_guard lock(m_mutex);
    return m_ends;
}

void TestSink::Forget() {
    const std::lock_guard lock(m_mutex);
    m_samples.clear();
    m_segments = m_flushes = m_ends = m_refusals = 0;
}

bool TestSink::WaitForEnd() const {
    return WaitUntil([this] { return m_ends > 0; });
}

bool TestSink::WaitForSamples(size_t count) const {
    return WaitUntil([this, count] { return m_samples.size() >= count; });
}

bool TestSink::WaitForRest() const {
    return WaitUntil([this] { return m_ends > 0 || m_refusals > 0; });
}

SplitterGraph::SplitterGraph(StreamingMode mode, ComPtr<ManualClock> its)
    : clock(std::move(its)),
      graph(MakeObject<CFilterGraph>()),
      splitter(MakeObject<CTsSplitter>()),
      source(MakeObject<TestSource>()) {
    EXPECT_EQ(graph->SetSyncSource(clock.Get()), S_OK);
    EXPECT_EQ(splitter->Init(mode, mode == StreamingMode::kRecording ? 0 : 1), S_OK);
    EXPECT_EQ(graph->AddFilter(splitter.Get(), u"splitter"), S_OK);
    EXPECT_EQ(graph->AddFilter(source.Get(), u"source"), S_OK);
    EXPECT_EQ(graph->ConnectDirect(&source->Out(), splitter->GetPin(0).get(), nullptr), S_OK);
    demultiplexer = ComPtr<IBaseFilter>(splitter.Get()).As<IMpeg2Demultiplexer>();
}

SplitterGraph::~SplitterGraph() {
    EXPECT_EQ(graph->Stop(), S_OK);
}

TestSink& SplitterGraph::Add(const OLECHAR* name, const GUID& major, const GUID& sub, std::vector<ULONG> pids,
                             MEDIA_SAMPLE_CONTENT content) {
    return AddTo(name, major, sub, std::move(pids), content, MakeObject<TestSink>(major, sub));
}

TestSink& SplitterGraph::AddTo(const OLECHAR* name, const GUID& major, const GUID& sub, std::vector<ULONG> pids,
                               MEDIA_SAMPLE_CONTENT content, ComPtr<TestSink> sink) {
    AM_MEDIA_TYPE type = MakeMediaType(major, sub);
    ComPtr<IPin> pin;
    EXPECT_EQ(demultiplexer->CreateOutputPin(&type, name, pin.Put()), S_OK);
    EXPECT_EQ(pin.As<IMPEG2PIDMap>()->MapPID(static_cast<ULONG>(pids.size()), pids.data(), content), S_OK);
    EXPECT_EQ(graph->AddFilter(sink.Get(), nullptr), S_OK);
    EXPECT_EQ(graph->ConnectDirect(pin.Get(), &sink->In(), &type), S_OK);
    m_sinks.push_back(std::move(sink));
    return *m_sinks.back().Get();
}

OutputPinPtr SplitterGraph::Pin(const OLECHAR* name) {
    for (int i = 1; i < splitter->GetPinCount(); ++i)
        if (auto pin = std::dynamic_pointer_cast<CTsOutputPin>(splitter->GetPin(i)); pin && pin->Name() == name)
            return pin;
    return nullptr;
}

HRESULT SplitterGraph::Run() {
    const HRESULT result = graph->Run(clock ? clock->GetPrivateTime() : 0);
    return SUCCEEDED(result) ? S_OK : result;
}

}  // namespace tessel
