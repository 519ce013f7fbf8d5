// Where libavformat's headers are installed: how long a seek into the middle of a file takes until the first picture
// comes out, beside what libavformat takes for the same, turn by turn in one run. The file is read once before, so that
// it is in the page cache.
//   tessel_compare_seek FILE [ROUNDS]
extern "C" {
#include <libavcodec/packet.h>
#include <libavformat/avformat.h>
}

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "platform/media/BaseInputPin.h"
#include "platform/media/FilterGraph.h"
#include "platform/media/MediaResult.h"
#include "services/objects/Parameters.h"
#include "source/TsSource.h"

namespace tessel::bench {
namespace {

constexpr uint32_t kBound = 60'000;
// Of the middle that the seeks go to, in turn, so that none finds the point of the one before.
constexpr int kPlaces = 7;

void Check(bool holds, const char* what) {
    if (!holds)
        throw std::runtime_error(what);
}

// Takes one sample after every flush.
class OneSample final : public CBaseFilter {
public:
    OneSample() : CBaseFilter("OneSample", nullptr, &m_stateLock, GUID_NULL), m_pin(MakePin<Pin>(this)) {}

    int GetPinCount() override { return 1; }
    std::shared_ptr<CBasePin> GetPin(int index) override { return index == 0 ? m_pin : nullptr; }
    bool Wait() { return m_received.Wait(kBound); }

private:
    class Pin final : public CBaseInputPin {
    public:
        explicit Pin(OneSample* sink) : CBaseInputPin("OneSample::Pin", sink, u"Input"), m_sink(*sink) {}

        HRESULT CheckMediaType(const AM_MEDIA_TYPE*) override { return S_OK; }
        HRESULT Receive(IMediaSample* sample) override {
            const HRESULT result = CBaseInputPin::Receive(sample);
            if (result == S_OK)
                m_sink.m_received.Set();
            return FAILED(result) ? result : S_FALSE;
        }
        HRESULT EndFlush() override {
            m_sink.m_received.Reset();
            return CBaseInputPin::EndFlush();
        }

    private:
        OneSample& m_sink;
    };

    CCritSec m_stateLock{"sink's state", kRankFilterState};
    std::shared_ptr<Pin> m_pin;
    CEvent m_received{EventReset::kManual};
};

// The first service of the file, paused.
class Source {
public:
    explicit Source(const std::filesystem::path& path) : m_graph(MakeObject<CFilterGraph>()) {
        Check(CreateTsSource(m_filter.Put()) == S_OK, "no source");
        Check(m_graph->AddFilter(m_filter.Get(), nullptr) == S_OK, "the source is not added");
        Check(m_filter.As<IFileSourceFilter>()->Load(path.u16string().c_str(), nullptr) == S_OK, "cannot load");
        Check(m_filter.As<IGetSetParam>()->SetParam(kParamSelectService, 0) == S_OK, "no service");
        m_video = Connect(u"VOut");
        m_audio = Connect(u"AOut");
        Check(SUCCEEDED(m_graph->Pause()) && m_video->Wait(), "nothing comes out");
        Check(m_filter.As<IMediaSeeking>()->GetDuration(&m_duration) == S_OK && m_duration > 0, "cannot be sought in");
    }
    ~Source() { m_graph->Stop(); }

    REFERENCE_TIME Duration() const { return m_duration; }
    void Seek(REFERENCE_TIME time) {
        Check(m_filter.As<IMediaSeeking>()->SetPositions(&time, AM_SEEKING_AbsolutePositioning, nullptr, 0) == S_OK,
              "the seek fails");
        Check(m_video->Wait(), "no picture");
    }

private:
    ComPtr<OneSample> Connect(const OLECHAR* name) {
        ComPtr<IPin> pin;
        Check(m_filter->FindPin(name, pin.Put()) == S_OK, "no pin");
        auto sink = MakeObject<OneSample>();
        Check(m_graph->AddFilter(sink.Get(), nullptr) == S_OK, "a sink is not added");
        Check(m_graph->ConnectDirect(pin.Get(), sink->GetPin(0).get(), nullptr) == S_OK, "a sink is not connected");
        return sink;
    }

    ComPtr<CFilterGraph> m_graph;
    ComPtr<IBaseFilter> m_filter;
    ComPtr<OneSample> m_video;
    ComPtr<OneSample> m_audio;
    REFERENCE_TIME m_duration = 0;
};

class Avformat {
public:
    explicit Avformat(const std::filesystem::path& path) : m_packet(av_packet_alloc()) {
        Check(m_packet != nullptr && avformat_open_input(&m_input, path.c_str(), nullptr, nullptr) == 0, "cannot open");
        Check(avformat_find_stream_info(m_input, nullptr) >= 0, "no streams");
        m_stream = av_find_best_stream(m_input, AVMEDIA_TYPE_VIDEO, -1, -1, nullptr, 0);
        Check(m_stream >= 0, "no video");
    }
    ~Avformat() {
        av_packet_free(&m_packet);
        avformat_close_input(&m_input);
    }

    // time: from the beginning
    void Seek(REFERENCE_TIME time) {
        const int64_t start = m_input->start_time == AV_NOPTS_VALUE ? 0 : m_input->start_time;
        Check(av_seek_frame(m_input, -1, start + time / 10, AVSEEK_FLAG_BACKWARD) >= 0, "libavformat's seek fails");
        for (bool found = false; !found;) {
            Check(av_read_frame(m_input, m_packet) == 0, "no packet");
            found = m_packet->stream_index == m_stream;
            av_packet_unref(m_packet);
        }
    }

private:
    AVFormatContext* m_input = nullptr;
    AVPacket* m_packet;
    int m_stream = -1;
};

template <class Reader>
double MeasureMilliseconds(Reader& reader, REFERENCE_TIME time) {
    reader.Seek(0);
    const auto begin = std::chrono::steady_clock::now();
    reader.Seek(time);
    return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - begin).count();
}

double Median(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

void ReadThrough(const std::filesystem::path& path) {
    std::ifstream file(path, std::ios::binary);
    std::vector<char> buffer(1 << 20);
    while (file.read(buffer.data(), static_cast<std::streamsize>(buffer.size()))) {
    }
}

void Run(const std::filesystem::path& path, int rounds) {
    ReadThrough(path);
    Source source(path);
    Avformat other(path);
    std::vector<double> ours, theirs, ratios;
    for (int round = 0; round < rounds; ++round) {
        const REFERENCE_TIME time = source.Duration() / 2 + (round % kPlaces) * 13'700'000;
        ours.push_back(MeasureMilliseconds(source, time));
        theirs.push_back(MeasureMilliseconds(other, time));
        ratios.push_back(ours.back() / theirs.back());
    }
    std::printf("seek to the middle and first picture, medians of %d: %.2f ms; libavformat %.2f ms; ratio %.2f\n",
                rounds, Median(ours), Median(theirs), Median(ratios));
    std::printf("longest: %.2f ms; libavformat %.2f ms\n", *std::max_element(ours.begin(), ours.end()),
                *std::max_element(theirs.begin(), theirs.end()));
}

}  // namespace
}  // namespace tessel::bench

int main(int argc, char** argv) {
    const int rounds = argc == 3 ? std::atoi(argv[2]) : 35;
    if (argc < 2 || argc > 3 || rounds < 1) {
        std::fprintf(stderr, "usage: %s FILE [ROUNDS]\n", argv[0]);
        return 2;
    }
    try {
        tessel::bench::Run(argv[1], rounds);
        return 0;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "%s: %s\n", argv[1], error.what());
        return 1;
    }
}
