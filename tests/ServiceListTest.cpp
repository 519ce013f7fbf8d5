// The service list: what PAT, PMT, SDT, VCT and MGT make of the services.
#include "services/ServiceList.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Classes/MultiPlatform/LockRanks.h"
#include "descriptors/DescriptorInterfaces.h"
#include "tables/TableStore.h"
#include "tests/support/SectionBuilder.h"

namespace tessel {
namespace {

using build::Bytes;
using build::Pat;
using build::Pmt;
using build::Sdt;
using build::Text;
using build::Vct;
using testing::ElementsAre;
using testing::IsEmpty;

// A service list on a table store of its own; sections go in, services come out.
class ServiceListTest : public testing::Test, private ITableStoreEvents, private IServiceListOwner {
protected:
    ServiceListTest() : m_store(*this), m_list(m_lock, *this) {
        m_store.AddDecoder(0x00, std::make_unique<ProgramAssociationTableFactory>());
        m_store.AddDecoder(0x02, std::make_unique<ProgramMapTableFactory>());
        m_store.AddDecoder(0x42, std::make_unique<ServiceDescriptionTableFactory>());
        m_store.AddDecoder(0xC7, std::make_unique<MasterGuideTableFactory>());
        m_store.AddDecoder(0xC8, std::make_unique<VirtualChannelTableFactory>());
    }

    void Send(std::initializer_list<Bytes> sections) {
        for (const Bytes& section : sections)
            m_store.Dispatch(section);
    }

    ComPtr<IDvbMapping> List() {
        ComPtr<IDvbMapping> list;
        EXPECT_EQ(m_list.GetServices(list.Put()), S_OK);
        return list;
    }
    std::vector<uint32_t> Ids() {
        std::vector<uint32_t> ids;
        const auto list = List();
        for (int32_t i = 0; const auto service = ItemAs<IDvbService>(list.Get(), i); ++i)
            service->GetServiceId(&ids.emplace_back());
        return ids;
    }
    ComPtr<IDvbService> Service(int32_t id) { return LookupAs<IDvbService>(List().Get(), id); }
    uint32_t Param(int32_t id, uint32_t which) {
        uint32_t value = 0xDEAD;
        if (const auto service = LookupAs<IGetSetParam>(List().Get(), id))
            service->GetParam(which, &value);
        return value;
    }
    std::u16string Name(int32_t id) {
        CBstr name;
        Service(id)->GetName(name.Put());
        return std::u16string(name.View());
    }
    size_t Components(int32_t id) {
        ComPtr<IDvbCollection> components;
        uint32_t count = 0;
        Service(id)->GetComponents(components.Put());
        components->GetCount(&count);
        return count;
    }
    uint32_t NetworkId() {
        uint32_t id = 0xDEAD;
        m_list.GetOriginalNetworkId(&id);
        return id;
    }
    uint32_t StreamId() {
        uint32_t id = 0xDEAD;
        m_list.GetTransportStreamId(&id);
        return id;
    }

    HRESULT GetTable(uint32_t tableId, uint32_t key, IDvbTable** out) override {
        return m_store.GetTable(tableId, key, out);
    }
    HRESULT RequestTablePid(uint32_t tableId, uint32_t extension, uint32_t pid) override {
        m_asked.emplace_back(tableId, extension, pid);
        return S_OK;
    }
    bool IsPidPresent(uint32_t pid) const override { return pid != m_absentPid; }
    HRESULT OnTableStale(uint32_t tableId, uint32_t key) override { return m_list.TableChanging(tableId, key); }
    HRESULT OnTableReady(uint32_t tableId, uint32_t key) override { return m_list.TableComplete(tableId, key); }

    CCritSec m_lock{"tables", kRankTable};
    TableStore m_store;
    CDvbServices m_list;
    std::vector<std::tuple<uint32_t, uint32_t, uint32_t>> m_asked;
    uint32_t m_absentPid = 0xFFFF;
};

Bytes NamedSdt(uint16_t service, const char* name, uint8_t type = 1, const build::SectionHeader& header = {}) {
    return Sdt({.transportStreamId = 1,
                .originalNetworkId = 0x20,
                .services = {{service, {build::ServiceDescriptor(type, Text("Maker"), Text(name))}}}},
               header);
}

TEST_F(ServiceListTest, IsCompleteWithThePatEveryPmtAndNames) {
    Send({Pat(1, {{0, 0x10}, {2, 0x200}, {1, 0x100}})});
    EXPECT_THAT(Ids(), ElementsAre(2, 1)) << "the network PID is no service";
    EXPECT_THAT(m_asked, ElementsAre(std::tuple(2, 2, 0x200), std::tuple(2, 1, 0x100)));
    EXPECT_EQ(Param(2, param::kPmtPid), 0x200u);
    EXPECT_EQ(m_list.IsPmtComplete(), S_FALSE);
    Send({Pmt({.program = 1, .pcrPid = 0x101, .streams = {{2, 0x101}, {3, 0x102}}})});
    EXPECT_EQ(m_list.IsPmtComplete(), S_FALSE);
    Send({Pmt({.program = 2, .pcrPid = 0x201, .streams = {{2, 0x201}}})});
    EXPECT_EQ(m_list.IsPmtComplete(), S_OK);
    EXPECT_EQ(m_list.IsComplete(), S_FALSE);
    EXPECT_EQ(Components(1), 2u);
    EXPECT_EQ(Param(1, param::kPcrPid), 0x101u);
    Send({NamedSdt(1, "One")});
    EXPECT_EQ(m_list.IsComplete(), S_OK);
    EXPECT_EQ(StreamId(), 1u);
    EXPECT_EQ(NetworkId(), 0x20u);
    EXPECT_EQ(m_list.GetTransportStreamId(nullptr), S_OK);
    EXPECT_EQ(m_list.GetServices(nullptr), E_POINTER);
}

// Each change clears completeness until the new version is applied.
TEST_F(ServiceListTest, AChangingTableTakesCompletenessAway) {
    const build::SectionHeader half = {.version = 1, .lastSectionNumber = 1};
    const build::SectionHeader rest = {.version = 1, .sectionNumber = 1, .lastSectionNumber = 1};
    Send({Pat(1, {{1, 0x100}}), Pmt({.program = 1}), NamedSdt(1, "One")});
    ASSERT_EQ(m_list.IsComplete(), S_OK);
    Send({NamedSdt(1, "New", 1, half)});
    EXPECT_EQ(m_list.IsComplete(), S_FALSE);
    EXPECT_TRUE(Name(1) == u"One");
    Send({NamedSdt(2, "Two", 1, rest)});
    EXPECT_EQ(m_list.IsComplete(), S_OK);
    EXPECT_TRUE(Name(1) == u"New");
    Send({Pat(1, {{1, 0x100}}, half)});
    EXPECT_EQ(m_list.IsPmtComplete(), S_FALSE);
    Send({Pat(1, {{3, 0x300}}, rest)});
    EXPECT_EQ(m_list.IsPmtComplete(), S_FALSE) << "a new PAT waits for its PMTs";
    Send({Pmt({.program = 1}, {.version = 1}), Pmt({.program = 3})});
    EXPECT_EQ(m_list.IsComplete(), S_OK);
    EXPECT_THAT(Ids(), ElementsAre(1, 2, 3));
    Send({Pat(1, {{4, 0x400}}, {.version = 2}), Pat(1, {{3, 0x300}}, {.version = 3}),
          Pmt({.program = 3}, {.version = 1})});
    EXPECT_EQ(m_list.IsComplete(), S_OK) << "nothing waits for the PMT of a program that is gone";
    Send(
        {Vct(1, {}), Vct(1, {}, {.version = 1, .lastSectionNumber = 1}), NamedSdt(1, "", 1, {.lastSectionNumber = 1})});
    EXPECT_EQ(m_list.IsComplete(), S_FALSE) << "neither the SDT nor the VCT is there";
}

TEST_F(ServiceListTest, ANewPatWaitsForNoPmtThatIsKnown) {
    Send({Pat(1, {{1, 0x100}, {2, 0x200}}), Pmt({.program = 1}), NamedSdt(1, "One")});
    Send({Pat(1, {{1, 0x100}, {2, 0x200}}, {.version = 1}), Pmt({.program = 1})});
    EXPECT_EQ(m_list.IsComplete(), S_FALSE) << "the second has never come";
    Send({Pmt({.program = 2})});
    EXPECT_EQ(m_list.IsComplete(), S_OK);
    Send({Pat(1, {{1, 0x100}, {2, 0x200}}, {.version = 2}), Pmt({.program = 1}), Pmt({.program = 2})});
    EXPECT_EQ(m_list.IsComplete(), S_OK);
}

TEST_F(ServiceListTest, APmtWaitsForItsPcrPid) {
    m_absentPid = 0x101;
    Send({Pat(1, {{1, 0x100}})});
    const Bytes pmt = Pmt({.program = 1, .pcrPid = 0x101, .streams = {{2, 0x101}}});
    Send({pmt, pmt});
    EXPECT_EQ(m_list.IsPmtComplete(), S_FALSE);
    EXPECT_EQ(Components(1), 0u);
    m_absentPid = 0xFFFF;
    Send({pmt, pmt});
    EXPECT_EQ(m_list.IsPmtComplete(), S_OK);
    EXPECT_EQ(Components(1), 1u);
    // A later version adds its components; a refused one adds none.
    Send({Pmt({.program = 1, .pcrPid = 0x101, .streams = {{2, 0x101}, {3, 0x102}}}, {.version = 1})});
    EXPECT_EQ(Components(1), 3u);
}

TEST_F(ServiceListTest, TheSdtGivesNamesTypesAndScrambling) {
    const Bytes name = build::ServiceDescriptor(2, Text("Maker"), Text("Radio"));
    Send({Sdt({.transportStreamId = 1,
               .services = {{1, {name}},
                            {2, {build::ConditionalAccess(1, 2)}},
                            {3, {}, 4, true},
                            {4, {{tag::kService, 2, 1, 9}}},  // names that run past
                            {0, {name}}}}),
          Pat(1, {{1, 0x100}, {4, 0x100}})});
    EXPECT_THAT(Ids(), ElementsAre(1, 2, 3, 4));
    EXPECT_TRUE(Name(1) == u"Radio");
    EXPECT_EQ(Param(1, param::kServiceType), 2u);
    CBstr provider;
    Service(1)->GetProviderName(provider.Put());
    EXPECT_TRUE(provider.View() == u"Maker");
    EXPECT_EQ(Param(4, param::kServiceType), 0u);
    for (const auto& [id, scrambled] : {std::pair(1, 0u), {2, 1u}, {3, 1u}, {4, 0u}})
        EXPECT_EQ(Param(id, param::kScrambled), scrambled) << id;
    EXPECT_EQ(Param(2, param::kPmtPid), 0u) << "no program of the PAT";
    // A version without the descriptor leaves what was known.
    Send({Sdt({.transportStreamId = 1, .services = {{1}}}, {.version = 1})});
    EXPECT_TRUE(Name(1) == u"Radio");
}

TEST_F(ServiceListTest, TheVctGivesChannelsAndTheLastTableWins) {
    const Bytes sdt = NamedSdt(3, "Dvb", 0x19);
    Send({sdt, Vct(9, {{.shortName = u"CH1", .major = 7, .minor = 1, .program = 3, .sourceId = 5},
                       {.shortName = u"NONE", .program = 0}})});
    EXPECT_THAT(Ids(), ElementsAre(3));
    EXPECT_TRUE(Name(3) == u"CH1");
    EXPECT_EQ(Param(3, param::kServiceType), 1u);
    EXPECT_EQ(Param(3, param::kMajorChannel), 7u);
    EXPECT_EQ(Param(3, param::kMinorChannel), 1u);
    EXPECT_EQ(Param(3, param::kSourceId), 5u);
    EXPECT_EQ(StreamId(), 9u);
    Send({NamedSdt(3, "Dvb", 0x19, {.version = 1})});
    EXPECT_TRUE(Name(3) == u"Dvb");
    EXPECT_EQ(Param(3, param::kServiceType), 0x19u);
    EXPECT_EQ(Param(3, param::kMajorChannel), 7u);
}

TEST_F(ServiceListTest, TheMgtMakesEventsAndTextsRead) {
    std::vector<build::MgtTable> tables;
    for (const uint16_t type : {0x0000, 0x0002, 0x0004, 0x0005, 0x00FF, 0x0100, 0x017F, 0x0180, 0x0200, 0x027F, 0x0280})
        tables.push_back({type, static_cast<uint16_t>(tables.size() + 1)});
    Send({build::Mgt(tables)});
    EXPECT_THAT(m_asked, ElementsAre(std::tuple(0xCC, 0, 3), std::tuple(0xCB, 0, 6), std::tuple(0xCB, 0, 7),
                                     std::tuple(0xCC, 0, 9), std::tuple(0xCC, 0, 10)));
}

TEST_F(ServiceListTest, FinishesWithoutNames) {
    EXPECT_EQ(m_list.FinishWithoutNames(), E_FAIL) << "no PAT";
    Send({Pat(1, {{1, 0x100}, {2, 0x200}, {3, 0x300}})});
    EXPECT_EQ(m_list.FinishWithoutNames(), E_FAIL) << "no PMT";
    EXPECT_EQ(Ids().size(), 3u);
    EXPECT_EQ(Param(1, param::kServiceType), 0u);
    Send({Pmt({.program = 1}), Pmt({.program = 2})});
    const auto before = List();
    EXPECT_EQ(m_list.FinishWithoutNames(), S_OK);
    EXPECT_THAT(Ids(), ElementsAre(1, 2));
    EXPECT_EQ(Param(1, param::kServiceType), 0x80u);
    EXPECT_EQ(m_list.IsComplete(), S_OK);
    EXPECT_TRUE(LookupAs<IDvbService>(before.Get(), 3)) << "a list that a client has stays";
    EXPECT_EQ(m_list.FinishWithoutNames(), S_OK);
}

TEST_F(ServiceListTest, FinishingKeepsTheNamesThatCame) {
    Send({NamedSdt(1, "One"), NamedSdt(7, "Seven", 2, {.version = 1})});
    EXPECT_EQ(m_list.FinishWithoutNames(), E_FAIL) << "names without a PAT";
    Send({Pat(1, {{1, 0x100}, {2, 0x200}}), Pmt({.program = 1})});
    EXPECT_EQ(m_list.FinishWithoutNames(), S_OK);
    EXPECT_THAT(Ids(), ElementsAre(1, 7)) << "a service of the SDT alone waits for no PMT";
    EXPECT_EQ(Param(1, param::kServiceType), 1u);
    EXPECT_EQ(NetworkId(), 0x20u);
}

TEST_F(ServiceListTest, ResetForgetsAllButWhatClientsHold) {
    Send({Pat(1, {{1, 0x100}}), Pmt({.program = 1}), NamedSdt(1, "One")});
    const auto service = Service(1);
    EXPECT_EQ(m_list.Reset(), S_OK);
    m_store.Detach();
    EXPECT_EQ(m_list.IsPmtComplete(), S_FALSE);
    EXPECT_THAT(Ids(), IsEmpty());
    CBstr name;
    EXPECT_EQ(service->GetName(name.Put()), S_OK);
    EXPECT_TRUE(name.View() == u"One");
    Send({Pat(1, {{2, 0x100}}), Pmt({.program = 2})});
    EXPECT_THAT(Ids(), ElementsAre(2));
    EXPECT_EQ(m_list.IsComplete(), S_FALSE);
}

}  // namespace
}  // namespace tessel
