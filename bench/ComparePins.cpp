// For scripts/compare: what it costs that packets go out through ten pins, not one.
//   one FILE    one pin of transport packets takes the PIDs 256 to 265
//   ten FILE    ten pins take one of them each
#include <cstdio>
#include <exception>
#include <string>
#include <vector>

#include "platform/media/MediaResult.h"
#include "platform/media/Mpeg2Demultiplexer.h"
#include "tools/tessel/Failure.h"
#include "tools/tessel/Pipeline.h"
#include "tools/tessel/SinkFilter.h"

namespace tessel::bench {
namespace {

using tool::Check;

constexpr ULONG kFirstPid = 256;
constexpr ULONG kPids = 10;
constexpr DWORD kBound = 60'000;

const AM_MEDIA_TYPE& PacketType() {
    static const AM_MEDIA_TYPE type = [] {
        AM_MEDIA_TYPE packets;
        packets.majortype = MEDIATYPE_Stream;
        packets.subtype = MEDIASUBTYPE_MPEG2_TRANSPORT;
        packets.formattype = FORMAT_None;
        return packets;
    }();
    return type;
}

ComPtr<IPin> AddPin(tool::Pipeline& pipeline, const std::vector<ULONG>& pids) {
    AM_MEDIA_TYPE type = PacketType();
    const std::u16string name{u'P', static_cast<char16_t>(u'A' + pids.front() - kFirstPid)};
    ComPtr<IPin> pin;
    Check(pipeline.SplitterAs<IMpeg2Demultiplexer>(0)->CreateOutputPin(&type, name.c_str(), pin.Put()),
          "cannot make a pin");
    Check(pin.As<IMPEG2PIDMap>()->MapPID(static_cast<ULONG>(pids.size()), pids.data(), MEDIA_TRANSPORT_PACKET),
          "cannot map");
    return pin;
}

ComPtr<tool::SinkFilter> Connect(tool::Pipeline& pipeline, IPin* pin) {
    ComPtr<tool::SinkFilter> sink(new tool::SinkFilter(PacketType(), nullptr, nullptr));
    Check(pipeline.Graph().AddFilter(sink.Get(), nullptr), "cannot add a sink");
    Check(pipeline.Graph().ConnectDirect(pin, sink->GetPin(0).get(), nullptr), "cannot connect a sink");
    return sink;
}

void Run(bool ten, const std::string& path) {
    tool::InputFile input(path);
    tool::Feed feed(input);
    feed.Restart();
    tool::Pipeline pipeline(StreamingMode::kRecording, 1);
    // The section pin would take its part of the time, and the first pin a place among the ten.
    for (const OLECHAR* name : {u"PSIOut", u"Output1"})
        Check(pipeline.SplitterAs<IMpeg2Demultiplexer>(0)->DeleteOutputPin(name), "cannot delete a pin");
    std::vector<std::vector<ULONG>> maps(ten ? kPids : 1);
    for (ULONG i = 0; i < kPids; ++i)
        maps[ten ? i : 0].push_back(kFirstPid + i);
    // All before the first is connected: the splitter then makes a pin of its own if none is free.
    std::vector<ComPtr<IPin>> pins;
    for (const auto& pids : maps)
        pins.push_back(AddPin(pipeline, pids));
    std::vector<ComPtr<tool::SinkFilter>> sinks;
    for (const auto& pin : pins)
        sinks.push_back(Connect(pipeline, pin.Get()));
    pipeline.Start();
    while (!pipeline.Read(feed).empty())
        pipeline.Push();
    pipeline.End();
    MediaEvent event;
    do {
        Check(pipeline.Graph().GetEvent(&event, kBound), "the stream does not end");
    } while (event.code != EC_COMPLETE);
    pipeline.Stop();
    int64_t bytes = 0;
    for (const auto& sink : sinks)
        bytes += sink->Counts().bytes;
    std::printf("%lld bytes through %zu pins\n", static_cast<long long>(bytes), sinks.size());
}

}  // namespace
}  // namespace tessel::bench

int main(int argc, char** argv) {
    const std::string what = argc == 3 ? argv[1] : "";
    if (what != "one" && what != "ten") {
        std::fprintf(stderr, "usage: %s one|ten FILE\n", argv[0]);
        return 2;
    }
    try {
        tessel::bench::Run(what == "ten", argv[2]);
        return 0;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "%s\n", error.what());
        return 1;
    }
}
