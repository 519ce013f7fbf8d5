#include "bench/BenchStream.h"

#include "tests/support/StreamBuilder.h"

namespace tessel::bench {

namespace {

constexpr size_t kSharedSize = 768 * 1024 * 1024;
constexpr uint16_t kPmtPids[] = {0x100, 0x200};
constexpr uint16_t kVideoPids[] = {0x101, 0x201};
constexpr uint16_t kAudioPids[] = {0x102, 0x202};

struct TableSection {
    uint16_t pid;
    build::Bytes section;
};

std::vector<TableSection> Tables() {
    std::vector<TableSection> tables;
    tables.push_back({0x0000, build::Pat(1, {{1, kPmtPids[0]}, {2, kPmtPids[1]}})});
    for (uint16_t i = 0; i < 2; ++i) {
        build::PmtFields pmt;
        pmt.program = static_cast<uint16_t>(i + 1);
        pmt.pcrPid = kVideoPids[i];
        pmt.streams = {{0x1B, kVideoPids[i], {build::StreamIdentifier(1)}},
                       {0x04, kAudioPids[i], {build::Language("deu")}}};
        tables.push_back({kPmtPids[i], build::Pmt(pmt)});
    }
    build::SdtFields sdt;
    sdt.transportStreamId = 1;
    sdt.originalNetworkId = 1;
    for (uint16_t id = 1; id <= 2; ++id) {
        build::SdtService service;
        service.serviceId = id;
        service.descriptors = {build::ServiceDescriptor(1, build::Text("Provider"), build::Text("Service"))};
        sdt.services.push_back(service);
    }
    tables.push_back({0x0011, build::Sdt(sdt)});
    return tables;
}

}  // namespace

std::vector<uint8_t> MakeStream(size_t size) {
    const std::vector<TableSection> tables = Tables();
    const build::Bytes payload(184, 0xA5);
    build::StreamBuilder stream;
    stream.bytes().reserve(size + build::kPacketSize);
    for (size_t packet = 0; stream.bytes().size() < size; ++packet) {
        const size_t programme = packet & 1;
        if (packet % 50 == 0) {
            const TableSection& table = tables[packet / 50 % tables.size()];
            stream.Section(table.pid, table.section);
        } else if (packet % 100 < 2) {
            stream.Pcr(kVideoPids[programme], static_cast<int64_t>(packet) * 8000);
        } else {
            stream.Packet(packet % 10 < 8 ? kVideoPids[programme] : kAudioPids[programme], payload);
        }
    }
    return std::move(stream.bytes());
}

const std::vector<uint8_t>& SharedStream() {
    static const std::vector<uint8_t> stream = MakeStream(kSharedSize);
    return stream;
}

}  // namespace tessel::bench
