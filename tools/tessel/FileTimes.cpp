#include "tools/tessel/FileTimes.h"

#include <cmath>
#include <filesystem>
#include <fstream>
#include <span>

#include "core/TsFilterBase.h"
#include "platform/media/Mpeg2Demultiplexer.h"
#include "source/TsSource.h"
#include "tools/tessel/FilePlayer.h"

namespace tessel::tool {

namespace {

constexpr double kUnitsPerSecond = 10'000'000;

// Of the kind whose files play by that stream.
const ComponentInfo* FindClear(const std::vector<ServiceInfo>& services, const GUID& majortype) {
    for (const ServiceInfo& service : services)
        for (const ComponentInfo& component : service.components)
            if (!component.scrambled && component.media != nullptr && component.media->extension != nullptr &&
                component.media->majortype == majortype)
                return &component;
    return nullptr;
}

uint32_t PcrPidOf(const std::vector<ServiceInfo>& services, const ComponentInfo& component) {
    for (const ServiceInfo& service : services)
        for (const ComponentInfo& other : service.components)
            if (&other == &component)
                return service.pcrPid.value_or(kNullPid);
    return kNullPid;
}

// The first PCR of the PID in bytes that begin anywhere in a packet, 90 kHz.
std::optional<int64_t> FindPcr(std::span<const uint8_t> bytes, size_t packetSize, uint32_t pid) {
    size_t start = 0;
    const auto inSync = [&] {
        return bytes[start] == kSyncByte && bytes[start + packetSize] == kSyncByte &&
               bytes[start + 2 * packetSize] == kSyncByte && bytes[start + 3 * packetSize] == kSyncByte;
    };
    while (start + 3 * packetSize < bytes.size() && !inSync())
        ++start;
    for (; start + kTransportPacketSize <= bytes.size(); start += packetSize) {
        const uint8_t* const packet = bytes.data() + start;
        const TsHeader header = DecodeTsHeader(packet);
        if (header.sync != kSyncByte || header.Pid() != pid || !header.HasAdaptationField())
            continue;
        const AdaptationFieldHeader adaptation = DecodeAdaptationFieldHeader(packet);
        if (adaptation.PcrFlag() && adaptation.length >= 7)
            return int64_t{packet[6]} << 25 | packet[7] << 17 | packet[8] << 9 | packet[9] << 1 | packet[10] >> 7;
    }
    return std::nullopt;
}

// Looks at the clock all over the file: recordings that were joined go back in it, and the times at their two ends
// say nothing of what lies between.
bool ClockGoesOn(const std::string& path, size_t packetSize, uint32_t pcrPid, int64_t end) {
    constexpr int kPlaces = 32;
    constexpr size_t kPlaceSize = 128 * 1024;
    constexpr int64_t kWrap = int64_t{1} << 33;
    constexpr int64_t kSlack = 2 * 90'000;  // what is shown later than it comes, or comes behind the last picture
    std::error_code error;
    const auto size = static_cast<int64_t>(std::filesystem::file_size(path, error));
    std::ifstream file(path, std::ios::binary);
    std::vector<uint8_t> bytes(kPlaceSize);
    std::optional<int64_t> last;
    int64_t total = 0;
    for (int i = 0; i < kPlaces && !error && file; ++i) {
        file.seekg(size / kPlaces * i);
        file.read(reinterpret_cast<char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
        const auto got = static_cast<size_t>(file.gcount());
        file.clear();
        const auto pcr = FindPcr(std::span(bytes).first(got), packetSize, pcrPid);
        if (!pcr)
            continue;
        if (last)
            total += (*pcr - *last + kWrap) % kWrap;
        last = pcr;
    }
    return total <= end / 1'000 * 9 + kSlack;
}

ComPtr<IMediaSeeking> Open(const std::u16string& name, const ComponentInfo& master) {
    ComPtr<IBaseFilter> source;
    if (FAILED(CreateTsSource(source.Put())))
        return nullptr;
    const auto file = source.As<IFileSourceFilter>();
    const auto demultiplexer = source.As<IMpeg2Demultiplexer>();
    if (!file || !demultiplexer || FAILED(file->Load(name.c_str(), nullptr)))
        return nullptr;
    AM_MEDIA_TYPE type;
    type.majortype = master.media->majortype;
    type.subtype = master.media->subtype;
    ComPtr<IPin> pin;
    if (FAILED(demultiplexer->CreateOutputPin(&type, u"Master", pin.Put())))
        return nullptr;
    const auto map = pin.As<IMPEG2PIDMap>();
    const ULONG pid = master.pid;
    if (!map || FAILED(map->MapPID(1, &pid, MEDIA_ELEMENTARY_STREAM)))
        return nullptr;
    return source.As<IMediaSeeking>();
}

}  // namespace

FileTimes ReadFileTimes(const std::string& path, int32_t packetSize, const std::vector<ServiceInfo>& services) {
    const ComponentInfo* master = FindClear(services, MEDIATYPE_Video);
    if (master == nullptr)
        master = FindClear(services, MEDIATYPE_Audio);
    const auto name = SourceNameOf(path);
    const ComPtr<IMediaSeeking> seeking = name && master != nullptr ? Open(*name, *master) : nullptr;
    DWORD capabilities = 0;
    if (!seeking || FAILED(seeking->GetCapabilities(&capabilities)) || capabilities == 0)
        return {};

    FileTimes times;
    times.seekable = true;
    // Media time 0 is the first PCR; the first time stamp is where a seek to there arrives.
    int64_t first = 0;
    int64_t end = 0;
    if (seeking->GetDuration(&end) != S_OK ||
        seeking->SetPositions(&first, AM_SEEKING_AbsolutePositioning | AM_SEEKING_SeekToKeyFrame, nullptr, 0) != S_OK ||
        end <= first)
        return times;
    if (packetSize <= 0 || !ClockGoesOn(path, static_cast<size_t>(packetSize), PcrPidOf(services, *master), end))
        return {};
    times.duration = static_cast<double>(end - first) / kUnitsPerSecond;
    std::error_code error;
    const auto size = std::filesystem::file_size(path, error);
    if (!error) {
        const auto packets = static_cast<double>(size / static_cast<uint64_t>(packetSize));
        times.bitRate = std::llround(packets * kTransportPacketSize * 8 / *times.duration);
    }
    return times;
}

}  // namespace tessel::tool
