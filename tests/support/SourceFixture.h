// The file source in a graph, with a folder for the files that it reads.
#pragma once

#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "platform/media/MediaResult.h"
#include "source/TsSource.h"
#include "tests/support/GraphFixture.h"
#include "tests/support/Movie.h"

namespace tessel {

namespace fs = std::filesystem;

class FileSource : public testing::Test {
protected:
    void SetUp() override {
        m_folder = fs::temp_directory_path() / ("tessel-source-" + std::to_string(getpid()));
        fs::create_directories(m_folder);
    }
    void TearDown() override { fs::remove_all(m_folder); }

    fs::path Write(const build::Bytes& bytes, const char* name = "a.ts") {
        const fs::path path = m_folder / name;
        std::ofstream file(path, std::ios::binary | std::ios::trunc);
        file.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
        return path;
    }

    fs::path m_folder;
};

// source → sinks, in a graph without a clock.
class SourceGraph {
public:
    SourceGraph() : graph(MakeObject<CFilterGraph>()) {
        EXPECT_EQ(CreateTsSource(filter.Put()), S_OK);
        EXPECT_EQ(graph->AddFilter(filter.Get(), u"source"), S_OK);
        file = filter.As<IFileSourceFilter>();
        seeking = filter.As<IMediaSeeking>();
    }
    ~SourceGraph() { EXPECT_EQ(graph->Stop(), S_OK); }

    HRESULT Load(const fs::path& path) { return file->Load(path.u16string().c_str(), nullptr); }
    TestSink& Add(const OLECHAR* name, ULONG pid, const GUID& major, const GUID& sub) {
        AM_MEDIA_TYPE type = MakeMediaType(major, sub);
        ComPtr<IPin> pin;
        EXPECT_EQ(filter.As<IMpeg2Demultiplexer>()->CreateOutputPin(&type, name, pin.Put()), S_OK);
        EXPECT_EQ(pin.As<IMPEG2PIDMap>()->MapPID(1, &pid, MEDIA_ELEMENTARY_STREAM), S_OK);
        return Connect(pin.Get(), major, sub);
    }
    TestSink& Connect(IPin* pin, const GUID& major, const GUID& sub) {
        m_sinks.push_back(MakeObject<TestSink>(major, sub));
        TestSink& sink = *m_sinks.back().Get();
        EXPECT_EQ(graph->AddFilter(&sink, nullptr), S_OK);
        EXPECT_EQ(graph->ConnectDirect(pin, &sink.In(), nullptr), S_OK);
        return sink;
    }
    // The two streams of a movie.
    void AddStreams(const GUID& videoType = MEDIASUBTYPE_MPEG2_VIDEO) {
        video = &Add(u"v", kVideoPid, MEDIATYPE_Video, videoType);
        audio = &Add(u"a", kAudioPid, MEDIATYPE_Audio, MEDIASUBTYPE_MPEG1Payload);
    }
    void Forget() {
        for (const auto& sink : m_sinks)
            sink->Forget();
    }
    // To the end of the stream.
    void Play() {
        ASSERT_TRUE(SUCCEEDED(graph->Run(0)));
        for (const auto& sink : m_sinks)
            ASSERT_TRUE(sink->WaitForEnd()) << "no end of stream";
    }
    HRESULT Seek(REFERENCE_TIME time, DWORD flags = AM_SEEKING_AbsolutePositioning) {
        return seeking->SetPositions(&time, flags, nullptr, 0);
    }
    REFERENCE_TIME Duration() {
        REFERENCE_TIME duration = -1;
        EXPECT_EQ(seeking->GetDuration(&duration), S_OK);
        return duration;
    }
    REFERENCE_TIME Position() {
        REFERENCE_TIME position = -1;
        EXPECT_EQ(seeking->GetCurrentPosition(&position), S_OK);
        return position;
    }
    // The result of the abort that the graph was told of; S_OK when it was not.
    HRESULT AbortResult() {
        MediaEvent event;
        while (SUCCEEDED(graph->GetEvent(&event, 1'000)))
            if (event.code == EC_ERRORABORT)
                return static_cast<HRESULT>(event.param1);
        return S_OK;
    }

    ComPtr<CFilterGraph> graph;
    ComPtr<IBaseFilter> filter;
    ComPtr<IFileSourceFilter> file;
    ComPtr<IMediaSeeking> seeking;
    TestSink* video = nullptr;
    TestSink* audio = nullptr;

private:
    std::vector<ComPtr<TestSink>> m_sinks;
};

}  // namespace tessel
