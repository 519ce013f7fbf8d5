// Writes first inputs for the fuzz targets: make_seeds FOLDER makes a folder of seeds for each target in FOLDER.
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>

#include "tests/support/StreamBuilder.h"

namespace tessel::build {
namespace {

struct Seed {
    std::string target;
    Bytes bytes;
};
using Seeds = std::vector<Seed>;

struct TableSeed {
    uint8_t kind;  // of the service list's records
    std::string target;
    Bytes section;
};

std::vector<TableSeed> Tables() {
    const PmtFields movie = {.program = 1,
                             .pcrPid = 0x0200,
                             .descriptors = {Registration("HDMV"), ConditionalAccess(0x0500, 0x0300, Text("key"))},
                             .streams = {{0x02, 0x0200, {VideoStream()}},
                                         {0x03, 0x0201, {Languages({{"eng", 0}, {"deu", 3}})}},
                                         {0x06, 0x0202, {Ac3({.componentType = 0x42}), Language("fra")}},
                                         {0x06, 0x0203, {Teletext({{"deu", 1, 1, 0x00}, {"deu", 2, 1, 0x50}})}},
                                         {0x06, 0x0204, {Subtitling({{"eng", 0x10, 1, 2}})}}}};
    const PmtFields scrambled = {.program = 2,
                                 .pcrPid = 0x0210,
                                 .streams = {{0x1B, 0x0210, {AvcVideo(), ConditionalAccess(0x0100, 0x0301)}},
                                             {0x0F, 0x0211, {StreamIdentifier(7)}},
                                             {0x0B, 0x0212, {DataBroadcastId(0x0123, Text("selector"))}}}};
    const SdtFields names = {.transportStreamId = 7,
                             .originalNetworkId = 9,
                             .services = {{1, {ServiceDescriptor(1, Text("Provider"), Text("First"))}},
                                          {2, {ServiceDescriptor(0x19, Text("\x05P"), Text("\x15Second"))}, 4, true},
                                          {3, {DataBroadcast({.id = 5, .text = Text("Text")})}}}};
    const std::vector<VctChannel> channels = {
        {.shortName = u"ONE", .major = 5, .minor = 1, .program = 1, .sourceId = 11, .descriptors = {Language("eng")}},
        {.shortName = u"SEVENTH", .major = 5, .minor = 2, .program = 2, .sourceId = 12, .serviceType = 3}};
    const std::vector<MgtTable> guides = {{0x0000, 0x1FFB, 1, 100}, {0x0100, 0x1D00, 2, 200, {Language("eng")}}};
    return {{0, "pat", Pat(7, {{0, 0x0010}, {1, 0x0100}, {2, 0x0101}})},
            {0, "pat", Pat(7, {{1, 0x0100}}, {.version = 1, .lastSectionNumber = 1})},
            {0, "pat", Pat(7, {{2, 0x0101}}, {.version = 1, .sectionNumber = 1, .lastSectionNumber = 1})},
            {1, "pmt", Pmt(movie)},
            {1, "pmt", Pmt(scrambled)},
            {2, "sdt", Sdt(names)},
            {3, "mgt", Mgt(guides)},
            {4, "vct", Vct(7, channels)}};
}

uint8_t High(size_t value) {
    return static_cast<uint8_t>(value >> 8);
}

// A record of the table targets.
Bytes TableRecord(const Bytes& section) {
    return Join({{High(section.size()), static_cast<uint8_t>(section.size())}, section});
}

// A record of the service list target: without what the target writes itself.
Bytes ServiceRecord(const TableSeed& table) {
    const Bytes body(table.section.begin() + 3, table.section.end() - 4);
    return Join({{table.kind, High(body.size()), static_cast<uint8_t>(body.size())}, body});
}

void AddTables(Seeds& seeds) {
    Bytes all = {5, 0x02, 0x00, 5, 0x02, 0x10};  // packets of the PCR PIDs
    for (const TableSeed& table : Tables()) {
        const std::string target = table.target + "_fuzz";
        seeds.push_back({target, TableRecord(table.section)});
        // The same again, then as a new version.
        Bytes next = table.section;
        next[5] ^= 0x3E;
        seeds.push_back({target, Join({TableRecord(table.section), TableRecord(table.section), TableRecord(next)})});
        const Bytes record = ServiceRecord(table);
        seeds.push_back({"service_list_fuzz", record});
        all = Join({all, record, {6}});
    }
    seeds.push_back({"service_list_fuzz", Join({all, {7}, all, {0x87}, all})});
}

// Every table twice, between packets of the programs.
StreamBuilder Programs() {
    constexpr uint16_t kPids[] = {0x0000, 0x0100, 0x0011, 0x1FFB, 0x1FFB};
    StreamBuilder stream;
    for (int times = 0; times < 2; ++times) {
        stream.Pcr(0x0200, times * kPcrPerSecond);
        stream.Pes(0x0210, 0xE0, Bytes(200, 0x11), {.pts = times * kPtsPerSecond, .unbounded = true});
        for (const TableSeed& table : Tables())
            stream.Section(kPids[table.kind], table.section);
        stream.Packet(0x0200, Bytes(100, 0x22), {.scrambling = 2}).Null();
    }
    return stream;
}

void AddStreams(Seeds& seeds) {
    const Bytes stream = Programs().bytes();
    // Of the scripts byte 0 is the set-up and bytes 1 to 3 are the outputs; the rest are steps.
    const Bytes big = {
        0x20 | 3 << 2 | 2, 1, 0, 0, 0xF8, 0xF8, 0xF8, 0xF8, 0xF8, 0xF8, 0xF8, 0xF8, 0xF8, 0xF8, 0xF8, 0xF8};
    const Bytes live = {0x60 | 1 << 2, 0x23, 4, 2, 5, 0xFE, 0x7B, 0x7C, 0x01, 0xFF, 0x1F, 0xFE, 0x27, 0x2F, 0x37, 0x3F};
    const Bytes file = {
        0x40 | 2 << 2 | 3, 0x09, 0x12, 0, 0xF8, 0xF8, 5, 0xF8, 0x73, 0xF8, 0x74, 0xF8, 1, 0xF8, 5, 0xF8};
    const Bytes reset = {
        0x30 | 2 << 2 | 1, 3, 0, 0, 0xF8, 0xF8, 0xF8, 0xF8, 0xF8, 7, 0xF8, 0xF8, 0xF8, 0x0F, 0xF8, 0x17};
    for (const Bytes& script : {big, live, file, reset}) {
        seeds.push_back({"packet_path_fuzz", Join({script, stream})});
        seeds.push_back({"packet_path_fuzz", Join({script, Text("noise G"), Units192(stream)})});
    }
}

bool Write(const std::filesystem::path& folder, const Seeds& seeds) {
    int number = 0;
    for (const Seed& seed : seeds) {
        const auto target = folder / seed.target;
        std::filesystem::create_directories(target);
        std::ofstream file(target / ("seed-" + std::to_string(number++)), std::ios::binary);
        file.write(reinterpret_cast<const char*>(seed.bytes.data()), static_cast<std::streamsize>(seed.bytes.size()));
        file.close();
        if (!file)
            return false;
    }
    return true;
}

}  // namespace
}  // namespace tessel::build

int main(int argc, char** argv) {
    using namespace tessel::build;
    if (argc != 2) {
        std::fprintf(stderr, "usage: make_seeds FOLDER\n");
        return 2;
    }
    Seeds seeds;
    AddTables(seeds);
    AddStreams(seeds);
    try {
        if (Write(argv[1], seeds))
            return 0;
    } catch (const std::filesystem::filesystem_error& error) {
        std::fprintf(stderr, "make_seeds: %s\n", error.what());
        return 1;
    }
    std::fprintf(stderr, "make_seeds: cannot write to %s\n", argv[1]);
    return 1;
}
