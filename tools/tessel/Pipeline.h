// A graph that takes an input apart: a source, and splitters that it feeds.
#pragma once

#include <span>
#include <vector>

#include "core/TsFilterBase.h"
#include "platform/media/FilterGraph.h"
#include "tools/tessel/Feed.h"
#include "tools/tessel/PushSource.h"

namespace tessel::tool {

// Failure, with the text and the result, for a result that is a failure.
void Check(HRESULT result, const char* text);

class Pipeline {
public:
    // Stopped, and with nothing behind the splitters. They expect latePids; see TableReader.
    Pipeline(StreamingMode mode, size_t splitters, const PidSet& latePids = {});
    // No sample may be out, and no thread may deliver, when the graph goes.
    ~Pipeline() { Stop(); }
    Pipeline(const Pipeline&) = delete;
    Pipeline& operator=(const Pipeline&) = delete;

    CFilterGraph& Graph() { return *m_graph; }
    size_t SplitterCount() const { return m_splitters.size(); }
    const std::vector<ComPtr<IBaseFilter>>& Splitters() const { return m_splitters; }
    IBaseFilter* Splitter(size_t index) const { return m_splitters[index].Get(); }
    template <class I>
    ComPtr<I> SplitterAs(size_t index) const {
        return m_splitters[index].template As<I>();
    }

    void Start();
    // Reads the next bytes, at most so many; none at the end, or once interrupted.
    std::span<const uint8_t> Read(Feed& feed, size_t atMost = PushSource::kSampleSize);
    // What was read, to every splitter.
    void Push();
    // No more bytes: returns when all are parsed.
    void End();
    void Stop();

private:
    const StreamingMode m_mode;
    ComPtr<CFilterGraph> m_graph;
    ComPtr<PushSource> m_source;
    std::vector<ComPtr<IBaseFilter>> m_splitters;
    ComPtr<IMediaSample> m_sample;
};

}  // namespace tessel::tool
