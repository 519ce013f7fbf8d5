// Takes one elementary stream out of a recording: CountSamples FILE PID
//
// A source that pushes a file, a splitter, and a sink that prints what it gets. The stream is taken for MPEG-2 video;
// another one needs the media type that its program map table gives it.
#include <cstdio>
#include <cstdlib>
#include <fstream>

#include "filters/TsSplitter.h"
#include "platform/media/BaseInputPin.h"
#include "platform/media/BaseOutputPin.h"
#include "platform/media/FilterGraph.h"
#include "platform/media/MediaResult.h"
#include "services/objects/Collections.h"

namespace {

AM_MEDIA_TYPE MakeType(const GUID& major, const GUID& sub) {
    AM_MEDIA_TYPE type;
    type.majortype = major;
    type.subtype = sub;
    type.formattype = FORMAT_None;
    return type;
}

const AM_MEDIA_TYPE kTransportStream = MakeType(MEDIATYPE_Stream, MEDIASUBTYPE_MPEG2_TRANSPORT);
const AM_MEDIA_TYPE kMpeg2Video = MakeType(MEDIATYPE_Video, MEDIASUBTYPE_MPEG2_VIDEO);

bool IsSameType(const AM_MEDIA_TYPE& a, const AM_MEDIA_TYPE& b) {
    return a.majortype == b.majortype && a.subtype == b.subtype;
}

class SourcePin final : public CBaseOutputPin {
public:
    explicit SourcePin(CBaseFilter* filter) : CBaseOutputPin("SourcePin", filter, u"Out") {}

    HRESULT CheckMediaType(const AM_MEDIA_TYPE* type) override {
        return IsSameType(*type, kTransportStream) ? S_OK : VFW_E_TYPE_NOT_ACCEPTED;
    }
    HRESULT GetMediaType(int position, CMediaType* out) override {
        return position == 0 ? out->Set(kTransportStream) : VFW_S_NO_MORE_ITEMS;
    }
    HRESULT DecideBufferSize(IMemAllocator* allocator, ALLOCATOR_PROPERTIES* request) override {
        request->cBuffers = 2;
        request->cbBuffer = 256 * 1024;
        ALLOCATOR_PROPERTIES actual;
        return allocator->SetProperties(request, &actual);
    }
};

class SinkPin final : public CBaseInputPin {
public:
    explicit SinkPin(CBaseFilter* filter) : CBaseInputPin("SinkPin", filter, u"In") {}

    HRESULT CheckMediaType(const AM_MEDIA_TYPE* type) override {
        return IsSameType(*type, kMpeg2Video) ? S_OK : VFW_E_TYPE_NOT_ACCEPTED;
    }
    // On the delivery thread of the splitter's pin.
    HRESULT Receive(IMediaSample* sample) override {
        const HRESULT result = CBaseInputPin::Receive(sample);
        if (result != S_OK)
            return result;
        REFERENCE_TIME start = 0;
        REFERENCE_TIME end = 0;
        if (SUCCEEDED(sample->GetTime(&start, &end)))
            std::printf("%12.3f s  %7d bytes\n", static_cast<double>(start) / 1e7, sample->GetActualDataLength());
        else
            std::printf("%12s    %7d bytes\n", "", sample->GetActualDataLength());
        return S_OK;
    }
    HRESULT EndOfStream() override {
        ended.Set();
        return S_OK;
    }

    CEvent ended{EventReset::kManual};
};

// A filter of one pin.
template <class Pin>
class OnePinFilter final : public CBaseFilter {
public:
    explicit OnePinFilter(const char* name)
        : CBaseFilter(name, nullptr, &m_state, GUID_NULL), pin(MakePin<Pin>(this)) {}

    int GetPinCount() override { return 1; }
    std::shared_ptr<CBasePin> GetPin(int index) override { return index == 0 ? pin : nullptr; }

private:
    CCritSec m_state{"filter", tessel::kRankFilterState};

public:
    const std::shared_ptr<Pin> pin;
};

bool PushFile(const char* path, CBaseOutputPin& out) {
    std::ifstream file(path, std::ios::binary);
    while (file) {
        ComPtr<IMediaSample> sample;
        uint8_t* buffer = nullptr;
        if (FAILED(out.GetDeliveryBuffer(sample.Put(), nullptr, nullptr, 0)) || FAILED(sample->GetPointer(&buffer)))
            return false;
        file.read(reinterpret_cast<char*>(buffer), sample->GetSize());
        sample->SetActualDataLength(static_cast<LONG>(file.gcount()));
        if (out.Deliver(sample.Get()) != S_OK)
            return false;
    }
    return file.eof();
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 3) {
        std::fprintf(stderr, "usage: CountSamples FILE PID\n");
        return 2;
    }
    const auto graph = tessel::MakeObject<CFilterGraph>();
    const auto source = tessel::MakeObject<OnePinFilter<SourcePin>>("Source");
    const auto sink = tessel::MakeObject<OnePinFilter<SinkPin>>("Sink");
    ComPtr<IBaseFilter> splitter;
    ComPtr<IPin> input;
    ComPtr<IPin> video;
    const auto pid = static_cast<ULONG>(std::strtoul(argv[2], nullptr, 0));
    AM_MEDIA_TYPE type = kMpeg2Video;
    const bool ready =
        SUCCEEDED(tessel::CreateTsSplitter(tessel::StreamingMode::kRecording, splitter.Put())) &&
        SUCCEEDED(splitter->FindPin(u"Input", input.Put())) && SUCCEEDED(graph->AddFilter(source.Get(), u"Source")) &&
        SUCCEEDED(graph->AddFilter(splitter.Get(), u"Splitter")) && SUCCEEDED(graph->AddFilter(sink.Get(), u"Sink")) &&
        SUCCEEDED(graph->ConnectDirect(source->pin.get(), input.Get(), nullptr)) &&
        SUCCEEDED(splitter.As<IMpeg2Demultiplexer>()->CreateOutputPin(&type, u"Video", video.Put())) &&
        SUCCEEDED(video.As<IMPEG2PIDMap>()->MapPID(1, &pid, MEDIA_ELEMENTARY_STREAM)) &&
        SUCCEEDED(graph->ConnectDirect(video.Get(), sink->pin.get(), &type)) && SUCCEEDED(graph->Pause());
    if (!ready) {
        std::fprintf(stderr, "CountSamples: cannot build the graph\n");
        return 1;
    }
    const bool pushed = PushFile(argv[1], *source->pin);
    source->pin->DeliverEndOfStream();
    sink->pin->ended.Wait();
    graph->Stop();
    if (!pushed)
        std::fprintf(stderr, "CountSamples: cannot read %s\n", argv[1]);
    return pushed ? 0 : 1;
}
