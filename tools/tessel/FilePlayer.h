// A graph that plays a file: file sources, each of which reads it by itself.
#pragma once

#include <memory>

#include "platform/media/FilterGraph.h"
#include "source/TsSource.h"
#include "tools/tessel/Demux.h"

namespace tessel::tool {

// The path as the file source takes it; none for what is no regular file, or no UTF-8.
std::optional<std::u16string> SourceNameOf(const std::string& path);

// A file source that opens files as inputs are opened. Failure when there is no memory.
ComPtr<CTsSource> MakeInputSource();

// Has the source load path, of that name. Throws where descriptors or memory are out: that says nothing of the file.
HRESULT LoadInput(CTsSource& source, const std::u16string& name, const std::string& path);

class FilePlayer {
public:
    // Null when the file source does not open the file; *why then says what it lacks.
    static std::unique_ptr<FilePlayer> Open(const std::string& path, size_t sources, const PidSet& latePids,
                                            std::string* why);
    ~FilePlayer() { Stop(); }
    FilePlayer(const FilePlayer&) = delete;
    FilePlayer& operator=(const FilePlayer&) = delete;

    CFilterGraph& Graph() { return *m_graph; }
    CTsSource& Source(size_t index) { return *m_sources[index]; }
    const std::vector<ComPtr<IBaseFilter>>& Filters() const { return m_filters; }

    // Stopped: has the sources make the pins for picture and sound of the plan's service, as they choose them.
    void SelectService(const DemuxPlan& plan);

    // Stopped: every source plays that part, by a stream of the service that it delivers. Failure as of SeekToPart.
    void SeekToPart(const DemuxPlan& plan, const std::vector<ServiceInfo>& services, const TimeSpan& span,
                    const std::string& path);

    void Start();
    // The input ends here: what has been read still comes out.
    void End();
    void Stop() { m_graph->Stop(); }

    // How far the file has been read by all sources.
    int64_t ReadPosition() const;
    // The most that a source has read.
    int64_t BytesRead() const;
    bool WasAborted() const;
    // The first byte that a source could not read.
    std::optional<int64_t> Unreadable() const;

private:
    FilePlayer() : m_graph(new CFilterGraph()) {}

    ComPtr<CFilterGraph> m_graph;
    std::vector<ComPtr<CTsSource>> m_sources;
    std::vector<ComPtr<IBaseFilter>> m_filters;  // the same
};

}  // namespace tessel::tool
