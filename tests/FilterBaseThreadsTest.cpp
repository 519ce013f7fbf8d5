// Clients read tables and services, and ask for PIDs, while the parser meets version after version and
// one transport stream after another.
#include <gtest/gtest.h>

#include <functional>
#include <thread>

#include "tests/support/FilterFixture.h"
#include "tests/support/GraphFixture.h"
#include "tests/support/ProgramBuilder.h"

namespace tessel {
namespace {

constexpr int kStreams = 6;
constexpr uint8_t kVersions = 8;
constexpr uint16_t kPrograms = 5;

// Versions that differ in their components, so that a mixed table shows.
build::Bytes MakeStream(uint16_t transportStreamId) {
    TableStream stream;
    for (uint8_t version = 0; version < kVersions; ++version) {
        std::vector<build::PatProgram> programs;
        for (uint16_t program = 1; program <= kPrograms; ++program)
            programs.push_back({program, static_cast<uint16_t>(0x100 * program)});
        stream.Table(0, build::Pat(transportStreamId, programs, {.version = version}));
        for (uint16_t program = 1; program <= kPrograms; ++program) {
            const auto pid = static_cast<uint16_t>(0x100 * program);
            stream.Packet(pid + 1, build::Bytes(184), {.scrambling = version % 2 == 0 ? uint8_t{0} : uint8_t{2}});
            const std::vector<build::PmtStream> streams(version + 1u, {2, static_cast<uint16_t>(pid + 1), {}, {}});
            stream.Table(pid,
                         build::Pmt({.program = program, .pcrPid = static_cast<uint16_t>(pid + 1), .streams = streams},
                                    {.version = version}));
        }
        const auto name = build::Text(version % 2 == 0 ? "Even even even" : "Odd");
        stream.Table(0x11, build::Sdt({.transportStreamId = transportStreamId,
                                       .services = {{1, {build::ServiceDescriptor(1, name, name)}}}},
                                      {.version = version}));
    }
    return stream.Take();
}

uint32_t CountOf(IDvbCollection* list) {
    uint32_t count = 0;
    list->GetCount(&count);
    return count;
}

TEST(FilterBaseThreads, ClientsSeeWholeTablesAndServices) {
    const auto filter = MakeFilter(StreamingMode::kStream, 20'000);
    RecordingSink sink;
    sink.sectionPids = {0x700};
    filter->Router().Attach(&sink);
    std::atomic<bool> parsing{true};
    std::atomic<int> broken{0};

    const std::function<void()> clients[] = {
        [&] {
            for (uint32_t program = 1; program <= kPrograms; ++program) {
                ComPtr<IDvbTable> table;
                if (filter->GetTable(2, program, table.Put()) != S_OK)
                    continue;
                uint32_t version = 0;
                ComPtr<IDvbCollection> components;
                table.As<IGetSetParam>()->GetParam(param::kVersionNumber, &version);
                table.As<IDvbProgramMapTable>()->GetComponents(components.Put());
                broken += CountOf(components.Get()) != version + 1 || table->IsComplete() != S_OK;
            }
            ComPtr<IDvbTable> pat;
            if (filter->GetFirstTable(0, pat.Put()) == S_OK) {
                ComPtr<IDvbMapping> associations;
                pat.As<IDvbProgramAssociationTable>()->GetAssociations(associations.Put());
                broken += CountOf(associations.Get()) != kPrograms;
            }
        },
        [&] {
            ComPtr<IDvbCollection> list;
            broken += filter->EnumTables(2, list.Put()) != S_OK || CountOf(list.Get()) > kPrograms;
            broken += filter->TableVersions().size() > kPrograms + 2u;
        },
        [&] {
            ComPtr<IDvbMapping> list;
            broken += filter->Services()->GetServices(list.Put()) != S_OK;
            for (int32_t i = 0; const auto service = ItemAs<IDvbService>(list.Get(), i); ++i) {
                uint32_t id = 0;
                uint32_t pcrPid = 0;
                CBstr name;
                CBstr provider;
                ComPtr<IDvbCollection> components;
                service->GetServiceId(&id);
                service->GetPcrPid(&pcrPid);
                service->GetName(name.Put());
                service->GetProviderName(provider.Put());
                service->GetComponents(components.Put());
                service->IsScrambled();
                broken += pcrPid != 0 && pcrPid != 0x100 * id + 1;
                broken += name && name.View() != u"Odd" && name.View() != u"Even even even";
            }
            filter->Services()->IsComplete();
            filter->Services()->IsPmtComplete();
        },
        [&] {
            for (uint32_t pid = 0x600; pid < 0x620; ++pid) {
                filter->AddTablePid(0xFFFFFFFF, 0, pid);
                filter->Router().Want(&sink, pid - 0x500, pid % 2 == 0);
                broken += filter->PidStatus().IsScrambled(pid) ? 1 : 0;
            }
            broken += filter->CurrentTransportStreamId() > kStreams;
            filter->Router().SetDeliverable(&sink, true);
        },
    };
    std::vector<std::thread> threads;
    for (const auto& client : clients)
        threads.emplace_back([&] {
            do
                client();
            while (parsing);
        });
    for (uint16_t transportStreamId = 1; transportStreamId <= kStreams; ++transportStreamId)
        filter->Feed(MakeStream(transportStreamId));
    parsing = false;
    for (std::thread& thread : threads)
        thread.join();

    EXPECT_EQ(broken, 0);
    EXPECT_EQ(filter->Services()->IsComplete(), S_OK);
    EXPECT_EQ(filter->TableVersions().size(), kPrograms + 2u);
    for (const auto& version : filter->TableVersions())
        EXPECT_EQ(version.version, kVersions - 1);
}

TEST(FilterThreads, HoldTheFilterWhileTheyWaitInAReceiver) {
    const auto token = MakeObject<ManualClock>();  // any object that the filter holds until it goes
    const auto references = [&token] {
        token->AddRef();
        return token->Release();
    };
    const int32_t objects = CUnknown::ObjectsActive();
    CEvent reached(EventReset::kManual);
    CEvent open(EventReset::kManual);
    auto graph = std::make_unique<SplitterGraph>();
    uint32_t cookie = 0;
    ASSERT_EQ(graph->splitter->Advise(static_cast<IReferenceClock*>(token.Get()), &cookie), S_OK);
    graph->Add(u"t", MEDIATYPE_Stream, MEDIASUBTYPE_MPEG2_TRANSPORT, {ALL_PIDS}, MEDIA_TRANSPORT_PACKET)
        .OnSample([&](IMediaSample&) {
            reached.Set();
            EXPECT_TRUE(open.Wait(kTestWait)) << "waited for the test";
            return S_OK;
        });
    ASSERT_EQ(graph->Run(), S_OK);
    build::ProgrammeBuilder builder({{.streams = {build::Video(0x111)}}});
    ASSERT_EQ(graph->source->Push(builder.Tables().Frames(10).Take()), S_OK);
    EXPECT_TRUE(reached.Wait(kTestWait));
    graph.reset();  // waits two seconds for the thread, and then leaves it
    EXPECT_EQ(references(), 2u);
    open.Set();
    EXPECT_TRUE(Eventually([&] { return references() == 1 && CUnknown::ObjectsActive() == objects; }));
}

}  // namespace
}  // namespace tessel
