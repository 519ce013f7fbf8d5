#include "tools/tessel/Pipeline.h"

#include <algorithm>
#include <cstdio>

#include "filters/TsSplitter.h"
#include "tools/tessel/Failure.h"

namespace tessel::tool {

namespace {

// Nothing that is asked for is lost, however late its tables come.
constexpr ReadingRules kRules{.packetsWaitForProgram = false};

}  // namespace

void Check(HRESULT result, const char* text) {
    if (SUCCEEDED(result))
        return;
    char code[24];
    std::snprintf(code, sizeof(code), "result 0x%08X", static_cast<unsigned>(result));
    throw Failure(std::string(text) + ": " +
                  (result == E_OUTOFMEMORY       ? "out of memory"
                   : result == kThreadNotCreated ? "the system makes no more threads"
                                                 : code));
}

Pipeline::Pipeline(StreamingMode mode, size_t splitters, const PidSet& latePids)
    : m_mode(mode), m_graph(new CFilterGraph()), m_source(new PushSource(splitters)) {
    Check(m_graph->AddFilter(m_source.Get(), u"Source"), "cannot add the source");
    for (size_t i = 0; i < splitters; ++i) {
        ComPtr<IBaseFilter> splitter;
        Check(CreateTsSplitter(mode, splitter.Put(), kRules), "cannot make a splitter");
        static_cast<CTsSplitter*>(splitter.Get())->ExpectPids(latePids);
        Check(m_graph->AddFilter(splitter.Get(), nullptr), "cannot add a splitter");
        ComPtr<IPin> input;
        Check(splitter->FindPin(u"Input", input.Put()), "the splitter has no input");
        Check(m_graph->ConnectDirect(m_source->GetPin(static_cast<int>(i)).get(), input.Get(), nullptr),
              "cannot connect the splitter");
        m_splitters.push_back(std::move(splitter));
    }
}

void Pipeline::Start() {
    if (m_mode == StreamingMode::kLive) {
        Check(m_graph->SetDefaultSyncSource(), "cannot choose a clock");
        Check(m_graph->Run(0), "cannot start");
    } else {
        // Time does not pass in a paused graph, but samples flow: nothing is early or late, and all comes out.
        Check(m_graph->Pause(), "cannot start");
    }
    Check(m_source->GetSample(m_sample.Put()), "cannot get a buffer");
}

std::span<const uint8_t> Pipeline::Read(Feed& feed, size_t atMost) {
    uint8_t* buffer = nullptr;
    Check(m_sample->GetPointer(&buffer), "the buffer has no memory");
    const size_t count = feed.Fill({buffer, std::min<size_t>(atMost, PushSource::kSampleSize)});
    m_sample->SetActualDataLength(static_cast<LONG>(count));
    return {buffer, count};
}

void Pipeline::Push() {
    const HRESULT result = m_source->Push(m_sample.Get());
    Check(result == S_OK ? S_OK : FAILED(result) ? result : E_UNEXPECTED, "the splitter takes no more bytes");
}

void Pipeline::End() {
    Check(m_source->End(), "cannot end the stream");
}

void Pipeline::Stop() {
    m_sample.Reset();
    m_graph->Stop();
}

}  // namespace tessel::tool
