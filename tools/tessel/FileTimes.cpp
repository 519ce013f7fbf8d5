#include "tools/tessel/FileTimes.h"

#include <cmath>
#include <filesystem>

#include "core/TsFilterBase.h"
#include "platform/media/Mpeg2Demultiplexer.h"
#include "source/TsSource.h"

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

// The name as the file source takes it; none for what is no regular file, or no UTF-8.
std::optional<std::u16string> NameOf(const std::string& path) {
    std::error_code error;
    if (!std::filesystem::is_regular_file(path, error))
        return std::nullopt;
    try {
        return std::filesystem::path(path).u16string();
    } catch (const std::exception&) {
        return std::nullopt;
    }
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
    const auto name = NameOf(path);
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
    times.duration = static_cast<double>(end - first) / kUnitsPerSecond;
    std::error_code error;
    const auto size = std::filesystem::file_size(path, error);
    if (!error && packetSize > 0) {
        const auto packets = static_cast<double>(size / static_cast<uint64_t>(packetSize));
        times.bitRate = std::llround(packets * kTransportPacketSize * 8 / *times.duration);
    }
    return times;
}

}  // namespace tessel::tool
