#include "tools/tessel/FilePlayer.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <new>

#include "tools/tessel/Failure.h"
#include "tools/tessel/Files.h"
#include "tools/tessel/Pipeline.h"
#include "tools/tessel/Unreadable.h"

namespace tessel::tool {

namespace {

bool HasPresentComponent(CTsSource& source, IDvbService& service) {
    ComPtr<IDvbCollection> components;
    service.GetComponents(components.Put());
    for (int32_t i = 0; const auto component = ItemAs<IDvbComponent>(components.Get(), i); ++i) {
        uint32_t pid = kPidCount;
        component->GetPid(&pid);
        if (pid < kPidCount && source.PidStatus().IsPresent(pid))
            return true;
    }
    return false;
}

// The number of the service in the filter's count, which passes over those without packets.
std::optional<uint32_t> NumberOf(CTsSource& source, uint32_t serviceId) {
    ComPtr<IDvbMapping> services;
    source.GetServices(services.Put());
    uint32_t number = 0;
    for (int32_t i = 0; const auto service = ItemAs<IDvbService>(services.Get(), i); ++i) {
        uint32_t id = 0;
        service->GetServiceId(&id);
        const bool present = HasPresentComponent(source, *service.Get());
        if (id == serviceId)
            return present ? std::optional(number) : std::nullopt;
        number += present;
    }
    return std::nullopt;
}

// Whether packets follow each other from within the first 10,240 bytes.
bool HasSync(const std::string& path) {
    constexpr size_t kSyncLimit = 10'240;
    std::vector<uint8_t> bytes(kSyncLimit + 3 * kTimestampedPacketSize + 1);
    std::ifstream file(path, std::ios::binary);
    file.read(reinterpret_cast<char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
    bytes.resize(static_cast<size_t>(file.gcount()));
    const auto repeats = [&](size_t at, size_t size) {
        for (int i = 0; i < 4; ++i, at += size)
            if (at >= bytes.size() || bytes[at] != kSyncByte)
                return false;
        return true;
    };
    for (size_t at = 0; at < std::min(bytes.size(), kSyncLimit); ++at)
        if (repeats(at, kTransportPacketSize) || repeats(at, kTimestampedPacketSize))
            return true;
    return false;
}

// source has tried to open path, and has what it found on the way.
std::string WhyRefused(CTsSource& source, const std::string& path) {
    if (FAILED(source.ReadResult()))
        return "its beginning cannot be read";
    if (!HasSync(path))
        return "no packets begin in its first 10,240 bytes";
    if (source.MetDiscontinuity())
        return "its clock jumps, or another stream begins, before all its tables have come";
    if (!HasTable(source, kProgramMapTable))
        return "no tables come in its first 10,000,000 bytes";
    return "no clock of its services shows twice in its first 10,000,000 bytes";
}

}  // namespace

std::optional<std::u16string> SourceNameOf(const std::string& path) {
    std::error_code error;
    if (!std::filesystem::is_regular_file(path, error))
        return std::nullopt;
    try {
        return std::filesystem::path(path).u16string();
    } catch (const std::exception&) {
        return std::nullopt;
    }
}

ComPtr<CTsSource> MakeInputSource() {
    ComPtr<CTsSource> source = MakeTsSource();
    Check(source ? S_OK : E_OUTOFMEMORY, "cannot make a file source");
    source->SetFileSystem(InputFiles());
    return source;
}

HRESULT LoadInput(CTsSource& source, const std::u16string& name, const std::string& path) {
    const HRESULT result = source.Load(name.c_str(), nullptr);
    if (result == E_OUTOFMEMORY)
        throw std::bad_alloc();
    if (FAILED(result))
        InputFile file(path);  // throws what keeps it from being opened
    return result;
}

std::unique_ptr<FilePlayer> FilePlayer::Open(const std::string& path, size_t sources, const PidSet& latePids,
                                             std::string* why) {
    const auto name = SourceNameOf(path);
    if (!name) {
        std::error_code error;
        *why = std::filesystem::is_regular_file(path, error) ? "its name is no UTF-8" : "it is no regular file";
        return nullptr;
    }
    auto player = std::unique_ptr<FilePlayer>(new FilePlayer());
    for (size_t i = 0; i < sources; ++i) {
        ComPtr<CTsSource> source = MakeInputSource();
        source->ExpectPids(latePids);
        if (const HRESULT result = LoadInput(*source.Get(), *name, path); FAILED(result)) {
            *why = result == E_INVALIDARG ? "its path is too long" : WhyRefused(*source.Get(), path);
            return nullptr;
        }
        Check(player->m_graph->AddFilter(source.Get(), nullptr), "cannot add a file source");
        player->m_filters.emplace_back(source.Get());
        player->m_sources.push_back(std::move(source));
    }
    return player;
}

void FilePlayer::SelectService(const DemuxPlan& plan) {
    for (const StreamPlan& stream : plan.streams) {
        if (stream.content != Content::kElementary)
            continue;
        CTsSource& source = *m_sources[stream.splitter];
        if (const auto number = NumberOf(source, stream.service))
            source.SetParam(kParamSelectService, *number);
        // Choosing seeks to the first picture, and sound may come before that.
        source.StartAtBeginning();
        return;
    }
}

void FilePlayer::SeekToPart(const DemuxPlan& plan, const std::vector<ServiceInfo>& services, const TimeSpan& span,
                            const std::string& path) {
    for (size_t i = 0; i < m_sources.size(); ++i) {
        std::optional<TimingStream> stream;
        for (const StreamPlan& planned : plan.streams)
            if (planned.content && planned.splitter == i && !stream)
                stream = FindTimingStream(services, planned.service);
        if (!stream)
            stream = FindTimingStream(services);
        if (!stream)
            throw CannotCut(path, "no service has clear video or audio to time it by");
        tool::SeekToPart(*m_sources[i], *stream, span, path);
    }
}

void FilePlayer::Start() {
    // Time does not pass in a paused graph, but samples flow: nothing is early or late, and all comes out.
    Check(m_graph->Pause(), "cannot start");
}

void FilePlayer::End() {
    for (const auto& source : m_sources)
        source->SetEndPosition(0);
}

int64_t FilePlayer::ReadPosition() const {
    int64_t position = INT64_MAX;
    for (const auto& source : m_sources)
        position = std::min(position, source->ReadPosition());
    return position;
}

int64_t FilePlayer::BytesRead() const {
    int64_t bytes = 0;
    for (const auto& source : m_sources)
        bytes = std::max(bytes, source->ReadPosition() - source->StartPosition());
    return bytes;
}

std::optional<int64_t> FilePlayer::Unreadable() const {
    std::optional<int64_t> first;
    for (const auto& source : m_sources)
        if (FAILED(source->ReadResult()))
            first = std::min(first.value_or(INT64_MAX), source->ReadPosition());
    return first;
}

bool FilePlayer::WasAborted() const {
    return std::any_of(m_sources.begin(), m_sources.end(), [](const auto& source) { return source->WasAborted(); });
}

}  // namespace tessel::tool
