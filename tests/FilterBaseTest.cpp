// The data path from bytes to tables and outputs.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tables/ProgramMapTable.h"
#include "tests/support/FilterFixture.h"

namespace tessel {
namespace {

using build::Bytes;
using build::Pat;
using build::Pmt;
using build::StreamBuilder;
using testing::ElementsAre;
using testing::IsEmpty;

const Bytes kPayload(184, 0x22);

bool Has(const ComPtr<BareFilter>& filter, uint32_t tableId, uint32_t key) {
    ComPtr<IDvbTable> table;
    return filter->GetTable(tableId, key, table.Put()) == S_OK;
}

uint32_t ServiceCount(const ComPtr<BareFilter>& filter) {
    ComPtr<IDvbMapping> list;
    uint32_t count = 99;
    filter->Services()->GetServices(list.Put());
    list->GetCount(&count);
    return count;
}

// One program, everything that a complete list needs.
TableStream CompleteStream(uint16_t transportStreamId, uint16_t pmtPid = 0x100) {
    TableStream stream;
    stream.Packet(0x101, kPayload);
    stream.Table(0, Pat(transportStreamId, {{1, pmtPid}}))
        .Table(pmtPid, Pmt({.program = 1, .pcrPid = 0x101, .streams = {{2, 0x101}}}))
        .Table(0x11, build::Sdt({.transportStreamId = transportStreamId, .services = {{1}}}));
    return stream;
}

TEST(PacketRouter, OffersWhatEachSinkWantsInOrderOfAttachment) {
    RecordingSink a, b, c;
    PacketRouter router;
    for (RecordingSink* sink : {&a, &b, &c})
        ASSERT_TRUE(router.Attach(sink));
    router.Want(&a, 0x10, true);
    router.Want(&b, 0x10, true);
    router.Want(&b, 0x2000, true);  // no PID
    router.WantTables(&b, true);
    router.WantAll(&c, true);
    const auto offer = [&](uint16_t pid, bool hasFilter) {
        const TsHeader header = {0x47000010u | pid << 8};
        return router.OfferPacket(kPayload.data(), header, {}, hasFilter);
    };
    offer(0x10, false);
    offer(0x11, true);
    offer(0x12, false);
    EXPECT_THAT(a.Pids(), ElementsAre(0x10));
    EXPECT_THAT(b.packets, ElementsAre(std::pair(0x10, false), std::pair(0x11, true)));
    EXPECT_THAT(c.Pids(), ElementsAre(0x10, 0x11, 0x12));

    // The sinks behind a detached one keep their own wishes.
    router.Detach(&a);
    router.Detach(&a);
    EXPECT_EQ(router.Sinks().size(), 2u);
    router.WantAll(&c, false);
    router.Want(&c, 0x13, true);
    offer(0x10, false);
    offer(0x11, true);
    offer(0x13, false);
    EXPECT_EQ(a.packets.size(), 1u);
    EXPECT_THAT(b.Pids(), ElementsAre(0x10, 0x11, 0x10, 0x11));
    EXPECT_THAT(c.Pids(), ElementsAre(0x10, 0x11, 0x12, 0x13));
    router.Detach(&b);
    RecordingSink late;
    ASSERT_TRUE(router.Attach(&late));
    offer(0x10, true);
    EXPECT_THAT(late.packets, IsEmpty()) << "a new sink inherits nothing";

    std::vector<RecordingSink> many(PacketRouter::kMaxSinks);
    for (size_t i = router.Sinks().size(); i < PacketRouter::kMaxSinks; ++i)
        EXPECT_TRUE(router.Attach(&many[i]));
    EXPECT_FALSE(router.Attach(&many[0]));
}

// Whether the parser would have to wait: every sink refuses, or cannot take any packet.
TEST(PacketRouter, SaysWhenEverySinkRefuses) {
    RecordingSink a, b;
    PacketRouter router;
    const TsHeader header = {0x47001010};
    const auto refused = [&] { return router.OfferPacket(kPayload.data(), header, {}, false); };
    EXPECT_FALSE(refused()) << "no sinks";
    router.Attach(&a);
    router.Attach(&b);
    router.WantAll(&a, true);
    router.WantAll(&b, true);
    EXPECT_FALSE(refused());
    a.refuse = true;
    EXPECT_FALSE(refused());
    b.refuse = true;
    EXPECT_TRUE(refused());
    router.WantAll(&b, false);
    EXPECT_FALSE(refused()) << "who does not want a packet is not in the way of it";
    router.SetDeliverable(&b, false);
    EXPECT_TRUE(refused());
    router.WantAll(&a, false);
    EXPECT_FALSE(refused());
    router.Detach(&a);
    EXPECT_TRUE(refused()) << "what is left cannot take any";
}

// What becomes of a packet with a PAT section, at the tables and at a sink that wants all.
TEST(FilterBase, DropsPacketsThatCannotBeRead) {
    const struct {
        const char* name;
        build::PacketOptions options;
        bool table;
        bool offered;
        bool scrambled;
    } cases[] = {
        {"plain", {}, true, true, false},
        {"with an adaptation field", {.stuffing = 100}, true, true, false},
        {"damaged", {.transportError = true}, false, false, false},
        {"scrambled", {.scrambling = 2}, false, false, true},
        {"adaptation field over the whole packet", {.stuffing = 1, .adaptationLength = 183}, false, false, false},
        {"adaptation field beyond the packet", {.stuffing = 1, .adaptationLength = 184}, false, false, false},
        {"adaptation field far beyond", {.stuffing = 1, .adaptationLength = 255}, false, false, false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const auto filter = MakeFilter();
        RecordingSink sink;
        filter->Router().Attach(&sink);
        filter->Router().WantAll(&sink, true);
        TableStream stream;
        stream.Section(0, Pat(1, {}), {.packet = c.options});
        filter->Feed(stream.Take());
        EXPECT_EQ(sink.packets.size(), c.offered ? 1u : 0u);
        EXPECT_TRUE(filter->PidStatus().IsPresent(0));
        EXPECT_EQ(filter->PidStatus().IsScrambled(0), c.scrambled);
        filter->Feed(stream.Table(0, Pat(1, {})).Take());
        EXPECT_FALSE(filter->PidStatus().IsScrambled(0)) << "the last packet counts";
        EXPECT_TRUE(Has(filter, 0, 1));
        EXPECT_EQ(sink.sections.size(), c.table ? 2u : 1u);
    }
}

TEST(FilterBase, ADiscontinuityIndicatorJoinsASectionOverAGap) {
    for (const bool announced : {false, true}) {
        const auto filter = MakeFilter();
        std::vector<build::PatProgram> many;
        for (uint16_t program = 1; program <= 60; ++program)
            many.push_back({program, 0x100});
        const Bytes pat = build::Join({Bytes{0}, Pat(1, many)});  // pointer_field and 252 bytes
        TableStream stream;
        stream.Packet(0, {pat.data(), 184}, {.unitStart = true});
        stream.Packet(0, {pat.data() + 184, pat.size() - 184}, {.continuity = 9, .discontinuity = announced});
        filter->Feed(stream.Table(0, build::ShortSection(0xFE, {})).Take());
        EXPECT_EQ(ServiceCount(filter), announced ? 60u : 0u);
    }
}

TEST(FilterBase, ANewTransportStreamStartsOver) {
    const auto filter = MakeFilter();
    RecordingSink sink;
    sink.sectionPids = {0x30, 0x31};
    filter->Router().Attach(&sink);
    TableStream stream = CompleteStream(5);
    filter->Feed(stream.Take());
    ASSERT_EQ(filter->Services()->IsComplete(), S_OK);
    ComPtr<IDvbTable> old;
    ASSERT_EQ(filter->GetFirstTable(0, old.Put()), S_OK);
    EXPECT_EQ(filter->AddTablePid(2, 1, 0x100), E_ACCESSDENIED);

    // A PAT of two sections: the one that announces the stream is decoded into the fresh store.
    const auto part = [](uint16_t program, uint8_t number) {
        return Pat(6, {{program, 0x200}}, {.sectionNumber = number, .lastSectionNumber = 1});
    };
    filter->Feed(stream.Table(0, part(1, 0)).Take());
    EXPECT_EQ(filter->CurrentTransportStreamId(), 6u);
    EXPECT_THAT(filter->TableVersions(), IsEmpty());
    EXPECT_EQ(ServiceCount(filter), 0u);
    filter->Feed(stream.Table(0, part(2, 1)).Take());
    EXPECT_TRUE(Has(filter, 0, 6));
    EXPECT_EQ(ServiceCount(filter), 2u);
    EXPECT_EQ(old->IsComplete(), S_OK);

    // The PMT PID of the old stream is free; the sink's PIDs and the fixed ones are still read.
    EXPECT_EQ(filter->AddTablePid(2, 1, 0x100), S_OK);
    for (const uint32_t pid : {0x00u, 0x11u, 0x1FFBu, 0x30u, 0x31u, 0x200u})
        EXPECT_EQ(filter->AddTablePid(2, 1, pid), E_ACCESSDENIED) << std::hex << pid;
    const Bytes section = build::LongSection(0xC0, 1, {1, 2, 3});
    sink.sections.clear();
    filter->Feed(stream.Table(0x31, section).Take());
    EXPECT_THAT(sink.sections, ElementsAre(std::pair(0x31u, section)));
}

TEST(FilterBase, AResetForgetsTheStreamAndReadsItAgain) {
    const auto filter = MakeFilter();
    RecordingSink sink;
    sink.sectionPids = {0x30, 0x2000};
    filter->Router().Attach(&sink);
    for (int round = 0; round < 2; ++round) {
        filter->Feed(CompleteStream(5).Take());
        ASSERT_EQ(filter->Services()->IsComplete(), S_OK);
        filter->InternalReset();
        EXPECT_EQ(filter->CurrentTransportStreamId(), 0u);
        EXPECT_FALSE(filter->PidStatus().IsPresent(0x101));
        EXPECT_THAT(filter->TableVersions(), IsEmpty());
        EXPECT_EQ(ServiceCount(filter), 0u);
        EXPECT_EQ(filter->AddTablePid(0, 0, 0x30), E_ACCESSDENIED);
        EXPECT_EQ(filter->AddTablePid(0, 0, 0x100), S_OK);
    }
    EXPECT_EQ(filter->AddTablePid(0, 0, 0x2000), E_INVALIDARG);
    EXPECT_EQ(filter->AddTablePid(0, 0, 0xFFFFFFFF), E_INVALIDARG);
}

TEST(FilterBase, DecodesThePmtsThatShareAPidAndTheTablesOfTheGuide) {
    const auto filter = MakeFilter();
    TableStream stream;
    stream.Packet(0x101, kPayload);
    stream.Table(0, Pat(1, {{1, 0x100}, {2, 0x100}}))
        .Table(0x100, Pmt({.program = 2, .pcrPid = 0x101}))
        .Table(0x100, Pmt({.program = 1, .pcrPid = 0x101}))
        .Table(0x1FFB, build::Mgt({{0x0100, 0x1D00}}))
        .Table(0x1FFB, build::Vct(1, {{.shortName = u"CH1", .program = 1}}));
    filter->Feed(stream.Take());
    EXPECT_EQ(filter->Services()->IsComplete(), S_OK);
    EXPECT_EQ(filter->AddTablePid(0xCB, 0, 0x1D00), E_ACCESSDENIED);
}

// A stream may have tens of thousands of programs, so one more must not cost a copy of all.
TEST(ProgramMapTables, ShareWhatHasNotChanged) {
    constexpr uint32_t kPrograms = 2'000;
    const ComPtr<IDvbProgramMapTable> table(MakeObject<DvbProgramMapTable>().Get());
    const auto references = [&table] {
        table->AddRef();
        return table->Release();
    };
    std::vector<std::shared_ptr<const ProgramMapTables>> all = {std::make_shared<const ProgramMapTables>()};
    for (uint32_t number = kPrograms; number > 0; --number)
        all.push_back(all.back()->With(number, table));
    EXPECT_LT(references(), kPrograms * 256) << "of those that are still there";
    all.push_back(all.back()->With(7, nullptr));
    all.push_back(all.back()->With(9, table));
    EXPECT_FALSE(all.back()->Find(7));
    EXPECT_TRUE(all.back()->Find(kPrograms) && all.front()->IsEmpty() && !all.back()->IsEmpty());
    uint32_t last = 0;
    uint32_t count = 0;
    all.back()->ForEach([&](uint32_t number, IDvbProgramMapTable&) {
        EXPECT_GT(number, last);
        last = number;
        ++count;
    });
    EXPECT_EQ(count, kPrograms - 1);
}

// What the tables say reaches the services: each step's sections, and what is known after it.
TEST(FilterBase, ServicesFollowTheTables) {
    constexpr uint16_t kPcrPid = 0x101;
    const build::SectionHeader half = {.version = 1, .lastSectionNumber = 1};
    const build::SectionHeader rest = {.version = 1, .sectionNumber = 1, .lastSectionNumber = 1};
    const auto sdt = [](const build::SectionHeader& header) {
        return build::Sdt({.transportStreamId = 5, .services = {{1}}}, header);
    };
    const Bytes pat = Pat(5, {{1, 0x100}, {2, 0x100}});
    const Bytes second = Pmt({.program = 2, .pcrPid = kPcrPid, .streams = {{2, 0x201}}});
    const Bytes first = Pmt({.program = 1, .pcrPid = kPcrPid, .streams = {{2, 0x201}}});
    const struct {
        const char* what;
        bool pcrPid;  // with a packet of it in front
        std::vector<std::pair<uint16_t, Bytes>> sections;
        HRESULT complete;
        size_t programs;  // whose tables count
        uint32_t first;   // of them, when it is there
    } steps[] = {
        {"no packet of the PCR PID",
         false,
         {{0, pat}, {0x100, second}, {0x100, first}, {0x11, sdt({})}},
         S_FALSE,
         0,
         0},
        {"the tables once more", true, {{0x100, second}}, S_FALSE, 1, 0},
        {"the lower key comes last", false, {{0x100, first}}, S_OK, 2, 1},
        {"a version that is changing", false, {{0x11, sdt(half)}}, S_FALSE, 2, 1},
        {"that has changed", false, {{0x11, sdt(rest)}}, S_OK, 2, 1},
        {"another transport stream", false, {{0, Pat(6, {{3, 0x300}})}}, S_FALSE, 0, 0},
    };
    const auto filter = MakeFilter();
    TableStream stream;
    for (const auto& step : steps) {
        SCOPED_TRACE(step.what);
        if (step.pcrPid)
            stream.Packet(kPcrPid, kPayload);
        for (const auto& [pid, section] : step.sections)
            stream.Table(pid, section);
        filter->Feed(stream.Take());
        EXPECT_EQ(filter->IsServiceInformationComplete(), step.complete);
        ComPtr<IDvbTable> table;
        uint32_t program = 0;
        if (filter->GetFirstTable(2, table.Put()) == S_OK)
            table.As<IDvbProgramMapTable>()->GetProgramNumber(&program);
        EXPECT_EQ(program, step.first);
        size_t programs = 0;
        filter->CurrentProgramMapTables()->ForEach([&programs](uint32_t, IDvbProgramMapTable&) { ++programs; });
        EXPECT_EQ(programs, step.programs);
    }
}

TEST(FilterBase, OutputsGetASectionAfterTheTablesAndBeforeItsPacket) {
    class Sink final : public IPacketSink {
    public:
        explicit Sink(CTsFilterBase& filter) : m_filter(filter) {}
        int DeliverPacket(const uint8_t*, const TsHeader&, const AdaptationFieldHeader&, bool) override {
            order += 'p';
            return 0;
        }
        int DeliverSection(const TsHeader&, std::span<const uint8_t>) override {
            ComPtr<IDvbTable> table;
            order += m_filter.GetTable(0, 1, table.Put()) == S_OK ? 'S' : 's';
            return 1;
        }
        std::string order;

    private:
        CTsFilterBase& m_filter;
    };
    const auto filter = MakeFilter();
    Sink sink(*filter);
    filter->Router().Attach(&sink);
    filter->Router().WantTables(&sink, true);
    TableStream stream;
    filter->Feed(stream.Section(0, Pat(1, {})).Section(0, Pat(1, {})).Packet(7, kPayload).Null().bytes());
    EXPECT_EQ(sink.order, "pSp");
}

TEST(FilterBase, FileModeStopsAtAPacketThatEveryOutputRefuses) {
    for (const StreamingMode mode : {StreamingMode::kFile, StreamingMode::kStream}) {
        const auto filter = MakeFilter(mode);
        RecordingSink a, b;
        for (RecordingSink* sink : {&a, &b}) {
            filter->Router().Attach(sink);
            filter->Router().WantAll(sink, true);
            sink->refuse = true;
        }
        StreamBuilder stream;
        stream.Packet(0x10, kPayload).Section(0, Pat(1, {})).Section(0, Pat(1, {})).Packet(0x11, kPayload).Null();
        EXPECT_EQ(filter->Feed(stream.bytes()), mode == StreamingMode::kFile ? S_FALSE : S_OK);
        if (mode != StreamingMode::kFile) {
            EXPECT_EQ(a.packets.size(), 4u);
            continue;
        }
        EXPECT_EQ(filter->ParseData(), S_FALSE);
        EXPECT_EQ(filter->Parser().StreamPosition(), 0);
        a.refuse = false;
        EXPECT_EQ(filter->ParseData(), S_OK) << "one that takes it is enough";
        EXPECT_THAT(a.Pids(), ElementsAre(0x10, 0x10, 0x10, 0, 0, 0x11));
    }
}

// A packet that is offered twice is assembled twice; its section must come once and whole.
TEST(FilterBase, ARefusedSectionPacketIsNotAssembledTwice) {
    const auto filter = MakeFilter(StreamingMode::kFile);
    RecordingSink sink;
    filter->Router().Attach(&sink);
    filter->Router().WantTables(&sink, true);
    const Bytes first = Pat(1, {{1, 0x100}});
    const Bytes second = Pat(1, {{1, 0x100}}, {.version = 1});
    StreamBuilder stream;
    stream.Section(0, first).Section(0, second).Section(0, build::ShortSection(0xFE, {})).Null();
    sink.refusals = 2;
    EXPECT_EQ(filter->Feed(stream.bytes()), S_FALSE);
    for (int i = 0; i < 6; ++i)
        filter->ParseData();
    EXPECT_EQ(sink.packets.size(), 9u);
    EXPECT_THAT(sink.sections, ElementsAre(std::pair(0u, first), std::pair(0u, second)));
}

}  // namespace
}  // namespace tessel
