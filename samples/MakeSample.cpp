// make_sample FOLDER OUTPUT: multiplexes the elementary streams that samples/make-sample put into FOLDER.
#include <fstream>
#include <iostream>
#include <iterator>
#include <stdexcept>
#include <string>

#include "samples/ElementaryStreams.h"
#include "samples/Multiplexer.h"
#include "samples/Subtitles.h"
#include "samples/Teletext.h"

namespace tessel::sample {
namespace {

using namespace build;
using namespace std::string_view_literals;

constexpr uint16_t kTransportStreamId = 0x0457;
constexpr uint16_t kOriginalNetworkId = 0xFF01;  // for private temporary use
constexpr uint16_t kPatPid = 0x0000;
constexpr uint16_t kSdtPid = 0x0011;
constexpr uint16_t kPsipPid = 0x1FFB;
constexpr uint8_t kPrivateStream = 0xBD;

struct Programme {
    uint16_t id, pmt;
};
constexpr Programme kA = {101, 0x100};
constexpr Programme kB = {102, 0x200};
constexpr Programme kC = {103, 0x300};

enum : uint16_t {
    kVideoA = 0x101,
    kGermanA,
    kFrenchA,
    kTeletextA,
    kSubtitlesA,
    kVideoB = 0x201,
    kEnglishB,
    kFrenchB,
    kVideoC = 0x301,
    kAudioC,
    kControlC,
    kPcrC = 0x30F,
};

constexpr double kAudioLead = 0.25;  // what an audio decoder's buffer holds
constexpr double kSubtitleLead = 0.3;
constexpr double kTeletextLead = 0.1;  // a teletext decoder holds hardly more than a field's lines
constexpr int64_t kProgrammeTime = 24 * kPtsPerSecond / 10;

Bytes Load(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    Bytes bytes{std::istreambuf_iterator<char>(file), {}};
    if (bytes.empty())
        throw std::runtime_error("cannot read " + path);
    return bytes;
}

// EN 300 468, A.2: a selector, then the characters of its table.
Bytes Cyrillic(std::u16string_view text) {
    Bytes bytes = {0x01};  // ISO 8859-5
    for (const char16_t unit : text)
        bytes.push_back(static_cast<uint8_t>(unit < 0x80 ? unit : unit - 0x360));
    return bytes;
}

Bytes Ucs2(std::u16string_view text) {
    BitWriter out;
    out.Put(0x11, 8);
    for (const char16_t unit : text)
        out.Put(unit, 16);
    return out.bytes();
}

AccessUnits TeletextUnits() {
    // Codes 1 to 7 are colours, 015 is double height over two rows.
    const std::vector<std::string> rows = {
        "",
        "  \015TESSEL SAMPLE",
        "",
        "",
        "  Gr}~e aus dem \003Videotext\007, Seite 100",
        "",
        "  Eine Seite mit \002wenigen\007 Zeilen,",
        "  immer wieder gesendet.",
        "",
        "  \006{ | } ~ sind hier Umlaute.",
        "",
        "  \001100\007.. \005Anfang",
    };
    const Bytes page = TeletextPageData(0x00, " 100 TESSEL Mo 05 Jan \00312:00:00", rows);
    AccessUnits units;
    for (int64_t time = 0; time < kProgrammeTime; time += kPtsPerSecond / 5)
        units.push_back({page, time, time});
    return units;
}

AccessUnits SubtitleUnits() {
    AccessUnits units;
    unsigned version = 0;
    for (int64_t time = kPtsPerSecond / 5; time + kPtsPerSecond < kProgrammeTime; time += kPtsPerSecond) {
        units.push_back({SubtitleShow(version++, "TESSEL"), time, time});
        const int64_t end = time + kPtsPerSecond * 4 / 5;
        units.push_back({SubtitleHide(version++), end, end});
    }
    return units;
}

// Units of the usual sizes; the multiplexer makes their content unreadable.
AccessUnits ScrambledUnits(int64_t period, size_t size, size_t firstOfTwelve) {
    AccessUnits units;
    for (int64_t time = 0; time < kProgrammeTime; time += period)
        units.push_back({Bytes(units.size() % 12 == 0 ? firstOfTwelve : size), time, time});
    return units;
}

std::vector<ElementaryStream> Streams(const std::string& folder) {
    const PesOptions aligned = {.aligned = true};
    const PesOptions scrambled = {.packet = {.scrambling = 2}};
    return {
        {kVideoA, 0xE0, SplitMpegVideo(Load(folder + "/a-video.m2v")), 0.5, aligned},
        {kGermanA, 0xC0, SplitMpegAudio(Load(folder + "/a-deu.mp2"), 4), kAudioLead, aligned},
        {kFrenchA, 0xC1, SplitMpegAudio(Load(folder + "/a-fra.mp2"), 4), kAudioLead, aligned},
        {kTeletextA,
         kPrivateStream,
         TeletextUnits(),
         kTeletextLead,
         {.aligned = true, .headerStuffing = kTeletextHeaderStuffing}},
        {kSubtitlesA, kPrivateStream, SubtitleUnits(), kSubtitleLead, aligned},
        {kVideoB, 0xE0, SplitAvcVideo(Load(folder + "/b-video.h264")), 0.5, {.unbounded = true, .aligned = true}},
        {kEnglishB, kPrivateStream, SplitAc3Audio(Load(folder + "/b-eng.ac3"), 2), kAudioLead, aligned},
        {kFrenchB, 0xC0, SplitAdtsAudio(Load(folder + "/b-fra.aac"), 4), kAudioLead, aligned},
        {kVideoC, 0xE0, ScrambledUnits(kPtsPerSecond / 25, 500, 1500), 0.5, scrambled},
        {kAudioC, kPrivateStream, ScrambledUnits(64 * kPtsPerSecond / 1000, 512, 512), kAudioLead, scrambled},
    };
}

Bytes PmtOfA() {
    const std::vector<PmtStream> streams = {
        {0x02, kVideoA, {VideoStream(), StreamIdentifier(1)}},
        {0x03, kGermanA, {Language("deu"), StreamIdentifier(2)}},
        {0x03, kFrenchA, {Language("fra"), StreamIdentifier(3)}},
        {0x06, kTeletextA, {Teletext({{"deu", 1, 1, 0x00}}), StreamIdentifier(4)}},
        {0x06, kSubtitlesA, {Subtitling({{"deu", 0x10, kSubtitlePage, kSubtitlePage}}), StreamIdentifier(5)}},
    };
    return Pmt({.program = kA.id, .pcrPid = kVideoA, .streams = streams});
}

Bytes PmtOfB() {
    const Bytes mono = Ac3({.componentType = 0x40, .bsid = 8});
    const std::vector<PmtStream> streams = {
        {0x1B, kVideoB, {AvcVideo(77, 13), StreamIdentifier(1)}},
        {0x06, kEnglishB, {Language("eng"), mono, StreamIdentifier(2)}},
        {0x0F, kFrenchB, {Language("fra"), StreamIdentifier(3)}},
    };
    return Pmt({.program = kB.id, .pcrPid = kVideoB, .streams = streams});
}

Bytes PmtOfC() {
    const Bytes access = ConditionalAccess(0x00FF, kControlC);
    const std::vector<PmtStream> streams = {
        {0x02, kVideoC, {access, VideoStream()}},
        {0x81, kAudioC, {access, Language("deu")}},
    };
    return Pmt({.program = kC.id, .pcrPid = kPcrC, .streams = streams});
}

// Four character tables: ISO 8859-5, UCS-2, ISO 8859-9 and ISO 8859-2.
Bytes Names() {
    const Bytes a = ServiceDescriptor(0x01, Cyrillic(u"Тессера"), Cyrillic(u"Мозаика"));
    const Bytes b = ServiceDescriptor(0x16, Text("\5Mosa\357que"), Ucs2(u"Ψηφιδωτό モザイク"));
    const Bytes c = ServiceDescriptor(0x01, Text("Tessel"), Text("\020\000\002Mozaika p\263atna"sv));
    const SdtService scrambled = {.serviceId = kC.id, .descriptors = {c}, .freeCaMode = true};
    return Sdt({.transportStreamId = kTransportStreamId,
                .originalNetworkId = kOriginalNetworkId,
                .services = {{kA.id, {a}}, {kB.id, {b}}, scrambled}});
}

Bytes Channels() {
    return Vct(
        kTransportStreamId,
        {
            {.shortName = u"TESS-A", .major = 7, .minor = 1, .program = kA.id, .sourceId = 1},
            {.shortName = u"TESS-B", .major = 7, .minor = 2, .program = kB.id, .sourceId = 2},
            {.shortName = u"TESS-C", .major = 7, .minor = 3, .program = kC.id, .sourceId = 3, .accessControlled = true},
        });
}

std::vector<TableRound> Rounds() {
    using Table = TableRound::Table;
    const Table pat = {kPatPid, Pat(kTransportStreamId, {{kA.id, kA.pmt}, {kB.id, kB.pmt}, {kC.id, kC.pmt}})};
    const Table pmtA = {kA.pmt, PmtOfA()};
    const Table pmtB = {kB.pmt, PmtOfB()};
    const Table pmtC = {kC.pmt, PmtOfC()};
    const Table sdt = {kSdtPid, Names()};
    const Table vct = {kPsipPid, Channels()};
    const auto vctSize = static_cast<uint32_t>(vct.section.size());
    const Table mgt = {kPsipPid, Mgt({{.tableType = 0x0000, .pid = kPsipPid, .numberBytes = vctSize}})};
    const Table control = {kControlC, ShortSection(0x80, Bytes(40, 0x5A))};

    // A section is whole only when its PID starts the next one. The second PAT ends the first, so that the tables
    // behind it are looked at in the first round already. The later of VCT and SDT names a service, and its PMT
    // makes it complete; so the rounds go on VCT, SDT, PMT, and a service has its long name once it is complete.
    std::vector<TableRound> rounds = {{0.0, {pat, pat, mgt, vct, pmtA, pmtB, pmtC, sdt, control}}};
    for (const double time : {0.1, 0.5, 1.0, 1.5, 2.0, 2.5})
        rounds.push_back({time, {pat, mgt, vct, sdt, pmtA, pmtB, pmtC, control}});
    return rounds;
}

}  // namespace
}  // namespace tessel::sample

int main(int argc, char** argv) {
    using namespace tessel::sample;
    if (argc != 3) {
        std::cerr << "usage: make_sample FOLDER OUTPUT\n";
        return 2;
    }
    try {
        const Bytes stream = Run({.firstPcr = 10 * kPcrPerSecond,
                                  .packetTicks = kPcrPerSecond * 188 * 8 / 1'600'000,
                                  .pcrPids = {kVideoA, kVideoB, kPcrC},
                                  .streams = Streams(argv[1]),
                                  .rounds = Rounds()});
        std::ofstream file(argv[2], std::ios::binary);
        file.write(reinterpret_cast<const char*>(stream.data()), static_cast<std::streamsize>(stream.size()));
        if (!file.flush())
            throw std::runtime_error(std::string("cannot write ") + argv[2]);
    } catch (const std::exception& error) {
        std::cerr << "make_sample: " << error.what() << '\n';
        return 1;
    }
    return 0;
}
