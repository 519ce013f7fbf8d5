// What happens to table packets: assembly, CRC, decoding.
#include <benchmark/benchmark.h>

#include "tables/Crc32.h"
#include "tables/ProgramMapTable.h"
#include "tables/SectionFilter.h"
#include "tables/ServiceDescriptionTable.h"
#include "tables/TableFactory.h"
#include "tests/support/StreamBuilder.h"

namespace tessel::bench {
namespace {

// An SDT of twenty services, about a kilobyte: sections of this size are the larger ones of a broadcast.
build::Bytes LargeSdt() {
    build::SdtFields sdt;
    sdt.transportStreamId = 1;
    sdt.originalNetworkId = 1;
    for (uint16_t id = 1; id <= 20; ++id) {
        build::SdtService service;
        service.serviceId = id;
        service.descriptors = {
            build::ServiceDescriptor(1, build::Text("A provider of services"), build::Text("A name of a service"))};
        sdt.services.push_back(service);
    }
    return build::Sdt(sdt);
}

build::Bytes TypicalPmt() {
    build::PmtFields pmt;
    pmt.program = 1;
    pmt.pcrPid = 0x101;
    pmt.streams = {{0x1B, 0x101, {build::StreamIdentifier(1)}},
                   {0x04, 0x102, {build::Language("deu")}},
                   {0x04, 0x103, {build::Language("fra")}},
                   {0x06, 0x104, {build::Ac3()}}};
    return build::Pmt(pmt);
}

void SetBytes(benchmark::State& state, size_t bytes) {
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(bytes));
}

void CrcBytewise(benchmark::State& state) {
    const build::Bytes section = LargeSdt();
    for (auto _ : state)
        benchmark::DoNotOptimize(Mpeg2Crc32Bytewise(section));
    SetBytes(state, section.size());
}

void Crc(benchmark::State& state) {
    const build::Bytes section = LargeSdt();
    for (auto _ : state)
        benchmark::DoNotOptimize(Mpeg2Crc32(section));
    SetBytes(state, section.size());
}

// The packets of one section over and over, CRC included.
void SectionAssembly(benchmark::State& state) {
    build::StreamBuilder stream;
    for (int i = 0; i < 16; ++i)  // continuity_counter comes round
        stream.Section(0x11, LargeSdt());
    SectionFilter filter(0x11);
    for (auto _ : state) {
        for (size_t at = 0; at < stream.bytes().size(); at += build::kPacketSize) {
            const uint8_t* packet = stream.bytes().data() + at;
            const bool hasAdaptation = (packet[3] & 0x20) != 0;
            const int offset = hasAdaptation ? 5 + packet[4] : 4;
            filter.AssembleSection(packet + offset, 188 - offset, (packet[1] & 0x40) != 0, false, packet[3] & 0x0F);
            benchmark::DoNotOptimize(filter.TakeCompleted().data());
        }
    }
    SetBytes(state, stream.bytes().size());
}

template <class Factory>
void Decode(benchmark::State& state, const build::Bytes& section, uint32_t tableId) {
    Factory factory;
    for (auto _ : state) {
        ComPtr<IDvbTableEx> table;
        factory.CreateTable(tableId, 0, table.Put());
        if (table->AddSection(section.data(), static_cast<int32_t>(section.size())) != IDvbTableEx::kComplete)
            state.SkipWithError("the table was refused");
    }
    SetBytes(state, section.size());
}

void DecodePmt(benchmark::State& state) {
    Decode<ProgramMapTableFactory>(state, TypicalPmt(), kProgramMapTable);
}

void DecodeSdt(benchmark::State& state) {
    Decode<ServiceDescriptionTableFactory>(state, LargeSdt(), kServiceDescriptionTable);
}

BENCHMARK(CrcBytewise);
BENCHMARK(Crc);
BENCHMARK(SectionAssembly);
BENCHMARK(DecodePmt);
BENCHMARK(DecodeSdt);

}  // namespace
}  // namespace tessel::bench
