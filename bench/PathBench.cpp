// The packet path, each step beside a bare loop over the same bytes in memory.
#include <benchmark/benchmark.h>

#include "bench/BenchStream.h"
#include "core/TsFilterBase.h"
#include "services/objects/Collections.h"
#include "tests/support/StreamBuilder.h"

namespace tessel::bench {
namespace {

constexpr int32_t kChunk = 64 * 1024;

class Filter final : public CTsFilterBase {
public:
    Filter() : CTsFilterBase("Filter") { SetMode(StreamingMode::kRecording, 0); }
};

void ReportBytes(benchmark::State& state, const std::vector<uint8_t>& stream) {
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(stream.size()));
}

// Calls take(bytes, length) for the stream in pieces of kChunk.
template <class Take>
void InChunks(const std::vector<uint8_t>& stream, Take take) {
    for (size_t at = 0; at < stream.size(); at += kChunk)
        take(stream.data() + at, static_cast<int32_t>(std::min<size_t>(kChunk, stream.size() - at)));
}

// Reads the four header bytes of every packet and nothing else.
void BareLoop(benchmark::State& state) {
    const auto& stream = SharedStream();
    for (auto _ : state) {
        uint32_t sum = 0;
        const uint8_t* const end = stream.data() + stream.size();
        for (const uint8_t* packet = stream.data(); packet + kTransportPacketSize <= end;
             packet += kTransportPacketSize)
            sum += packet[0] + (packet[1] << 8 | packet[2]) + packet[3];
        benchmark::DoNotOptimize(sum);
    }
    ReportBytes(state, stream);
}

// Copies the bytes into the input buffer and does nothing with them.
void InputCopy(benchmark::State& state) {
    const auto& stream = SharedStream();
    PacketParser parser(PacketParser::kDefaultCapacity);
    parser.CreateBuffer();
    for (auto _ : state) {
        InChunks(stream, [&](const uint8_t* data, int32_t length) {
            parser.AddData(&data, &length);
            parser.FlushBuffer();
        });
    }
    ReportBytes(state, stream);
}

// Input copy, sync and packet hand-off to a handler that reads the header.
void SyncAndHeaderWalk(benchmark::State& state) {
    struct Handler {
        ParserStep ParsePacket(const uint8_t* packet) {
            const TsHeader header = DecodeTsHeader(packet);
            sum += header.Pid() + header.ContinuityCounter();
            return ParserStep::kGoOn;
        }
        uint32_t sum = 0;
    } handler;
    const auto& stream = SharedStream();
    PacketParser parser(PacketParser::kDefaultCapacity);
    parser.CreateBuffer();
    for (auto _ : state) {
        InChunks(stream, [&](const uint8_t* data, int32_t length) {
            parser.AddData(&data, &length);
            parser.ParseData(handler);
        });
        benchmark::DoNotOptimize(handler.sum);
    }
    ReportBytes(state, stream);
}

// Everything: input copy, parsing, sections, tables, and at the end the services.
void WholePath(benchmark::State& state) {
    const auto& stream = SharedStream();
    const auto filter = MakeObject<Filter>();
    for (auto _ : state) {
        filter->StartStreaming();
        InChunks(stream, [&](const uint8_t* data, int32_t length) {
            filter->AddData(&data, &length);
            filter->ParseData();
        });
        if (filter->Services()->IsComplete() != S_OK)
            state.SkipWithError("the services did not come");
        filter->StopStreaming();
    }
    ReportBytes(state, stream);
}

// A PAT of so many programs, and a program map table for each.
std::vector<uint8_t> ManyPrograms(uint32_t count) {
    constexpr uint32_t kProgramsOfSection = 253;
    constexpr uint16_t kFirstPmtPid = 0x20;
    constexpr uint16_t kPmtPids = 4'000;
    constexpr uint16_t kPcrPid = 0x1000;
    const auto pmtPid = [](uint32_t number) { return static_cast<uint16_t>(kFirstPmtPid + number % kPmtPids); };
    const auto last = static_cast<uint8_t>((count - 1) / kProgramsOfSection);
    build::StreamBuilder stream;
    stream.Packet(kPcrPid, build::Bytes(184));
    for (uint32_t first = 1; first <= count; first += kProgramsOfSection) {
        std::vector<build::PatProgram> programs;
        for (uint32_t number = first; number <= std::min(first + kProgramsOfSection - 1, count); ++number)
            programs.push_back({static_cast<uint16_t>(number), pmtPid(number)});
        const auto section = static_cast<uint8_t>(first / kProgramsOfSection);
        stream.Section(0, build::Pat(1, programs, {.sectionNumber = section, .lastSectionNumber = last}));
    }
    stream.Section(0, build::ShortSection(0xFE, {}));
    for (uint32_t number = 1; number <= count; ++number) {
        stream.Section(pmtPid(number), build::Pmt({.program = static_cast<uint16_t>(number), .pcrPid = kPcrPid}));
        stream.Section(pmtPid(number), build::ShortSection(0xFE, {}));
    }
    stream.Null();
    return stream.bytes();
}

// Time and memory grow with the number of programs, and not with its square.
void Programs(benchmark::State& state) {
    const auto count = static_cast<uint32_t>(state.range(0));
    const auto stream = ManyPrograms(count);
    for (auto _ : state) {
        const auto filter = MakeObject<Filter>();
        filter->StartStreaming();
        InChunks(stream, [&](const uint8_t* data, int32_t length) {
            filter->AddData(&data, &length);
            filter->ParseData();
        });
        ComPtr<IDvbProgramMapTable> table;
        if (filter->GetProgramMapTable(count, table.Put()) != S_OK)
            state.SkipWithError("the last program has no table");
        filter->StopStreaming();
    }
    ReportBytes(state, stream);
}

BENCHMARK(BareLoop)->Unit(benchmark::kMillisecond);
BENCHMARK(InputCopy)->Unit(benchmark::kMillisecond);
BENCHMARK(SyncAndHeaderWalk)->Unit(benchmark::kMillisecond);
BENCHMARK(WholePath)->Unit(benchmark::kMillisecond);
BENCHMARK(Programs)->Arg(4'000)->Arg(32'000)->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace tessel::bench
