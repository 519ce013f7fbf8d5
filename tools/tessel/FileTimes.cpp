#include "tools/tessel/FileTimes.h"

#include <cmath>
#include <filesystem>
#include <fstream>
#include <span>

#include "core/TsFilterBase.h"
#include "core/stream/PesHeader.h"
#include "source/TsSource.h"
#include "tools/tessel/FilePlayer.h"
#include "tools/tessel/PacketMeter.h"
#include "tools/tessel/TimeRange.h"

namespace tessel::tool {

namespace {

constexpr double kUnitsPerSecond = 10'000'000;

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
        if (packet[0] != kSyncByte || DecodeTsHeader(packet).Pid() != pid)
            continue;
        if (const auto pcr = PcrOf(packet))
            return *pcr / 300;
    }
    return std::nullopt;
}

// Looks at the clock all over the file: recordings that were joined go back in it, and the times at their two ends
// say nothing of what lies between.
bool ClockGoesOn(const std::string& path, size_t packetSize, uint32_t pcrPid, int64_t end) {
    constexpr int kPlaces = 32;
    constexpr size_t kPlaceSize = 128 * 1024;
    constexpr int64_t kSlack = 2 * 90'000;  // what is shown later than it comes, or comes behind the last picture
    std::error_code error;
    const auto size = static_cast<int64_t>(std::filesystem::file_size(path, error));
    std::ifstream file(path, std::ios::binary);
    if (!file)
        throw CannotOpen(path);
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
            total += (*pcr - *last + kTimestampWrap) % kTimestampWrap;
        last = pcr;
    }
    return total <= end / 1'000 * 9 + kSlack;
}

ComPtr<IMediaSeeking> Open(const std::string& path, const std::u16string& name, const ComponentInfo& master,
                           const PidSet& latePids) {
    const ComPtr<CTsSource> source = MakeInputSource();
    source->ExpectPids(latePids);
    if (FAILED(LoadInput(*source.Get(), name, path)) || !MapTimingPin(source.Get(), master))
        return nullptr;
    return ComPtr<IMediaSeeking>(source.Get());
}

}  // namespace

FileTimes ReadFileTimes(const std::string& path, int32_t packetSize, const std::vector<ServiceInfo>& services,
                        const PidSet& latePids) {
    const auto master = FindTimingStream(services);
    const auto name = SourceNameOf(path);
    const ComPtr<IMediaSeeking> seeking = name && master ? Open(path, *name, *master->component, latePids) : nullptr;
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
    if (packetSize <= 0 || !ClockGoesOn(path, static_cast<size_t>(packetSize), master->pcrPid, end))
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
