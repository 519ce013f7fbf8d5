// The table store: versions of table instances, their events, and what clients are given.
#include "tables/TableStore.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support/SectionBuilder.h"

namespace tessel {
namespace {

using build::Bytes;
using build::LongSection;
using build::Pat;
using build::Pmt;
using testing::ElementsAre;
using testing::IsEmpty;

struct Event {
    enum Kind { kStale, kReady } kind;
    uint32_t tableId;
    uint32_t key;
    bool operator==(const Event&) const = default;
};

class TableStoreTest : public testing::Test, private ITableStoreEvents {
protected:
    TableStoreTest() : m_store(*this) {
        EXPECT_TRUE(m_store.AddDecoder(0x00, std::make_unique<ProgramAssociationTableFactory>()));
        EXPECT_TRUE(m_store.AddDecoder(0x02, std::make_unique<ProgramMapTableFactory>()));
        EXPECT_TRUE(m_store.AddDecoder(0x42, std::make_unique<ServiceDescriptionTableFactory>()));
    }

    // The events that the sections raise.
    std::vector<Event> Dispatch(const std::vector<Bytes>& sections) {
        m_events.clear();
        for (const Bytes& section : sections)
            m_store.Dispatch(section);
        return m_events;
    }

    ComPtr<IDvbTable> Table(uint32_t tableId, uint32_t key) {
        ComPtr<IDvbTable> table;
        m_store.GetTable(tableId, key, table.Put());
        return table;
    }

    HRESULT Ask(uint32_t tableId, uint32_t key) {
        ComPtr<IDvbTable> table;
        return m_store.GetTable(tableId, key, table.Put());
    }

    static uint32_t Version(const ComPtr<IDvbTable>& table) {
        uint32_t version = 99;
        if (const auto params = table.As<IGetSetParam>())
            params->GetParam(param::kVersionNumber, &version);
        return version;
    }

    HRESULT OnTableStale(uint32_t tableId, uint32_t key) override {
        m_events.push_back({Event::kStale, tableId, key});
        return S_OK;
    }
    HRESULT OnTableReady(uint32_t tableId, uint32_t key) override {
        m_events.push_back({Event::kReady, tableId, key});
        EXPECT_EQ(Ask(tableId, key), S_OK) << "the table is current when the event comes";
        return m_readyResult;
    }

    TableStore m_store;
    std::vector<Event> m_events;
    HRESULT m_readyResult = S_OK;
};

TEST_F(TableStoreTest, ATableBecomesCurrentOnceWithItsLastSection) {
    const auto part = [](uint8_t number) {
        return Pat(1, {{static_cast<uint16_t>(number + 1), 0x100}}, {.sectionNumber = number, .lastSectionNumber = 2});
    };
    EXPECT_THAT(Dispatch({part(0), part(2), part(0)}), IsEmpty());
    EXPECT_EQ(Ask(0, 1), E_NOINTERFACE);
    EXPECT_THAT(Dispatch({part(1)}), ElementsAre(Event{Event::kReady, 0, 1}));
    EXPECT_THAT(Dispatch({part(0), part(1), part(2)}), IsEmpty()) << "repetition";
}

TEST_F(TableStoreTest, TheOldVersionStaysUntilTheNewOneIsWhole) {
    const auto part = [](uint8_t version, uint8_t number) {
        return Pat(1, {{static_cast<uint16_t>(10 * version + number), 0x100}},
                   {.version = version, .sectionNumber = number, .lastSectionNumber = 1});
    };
    Dispatch({part(1, 0), part(1, 1)});
    const auto old = Table(0, 1);
    EXPECT_THAT(Dispatch({Pat(1, {}, {.version = 2, .currentNext = false})}), IsEmpty());
    EXPECT_THAT(Dispatch({part(2, 1)}), ElementsAre(Event{Event::kStale, 0, 1}));
    EXPECT_EQ(Table(0, 1).Get(), old.Get());
    EXPECT_THAT(Dispatch({part(2, 1)}), IsEmpty()) << "one event a change";
    // The version that is being collected gives way to a newer one.
    EXPECT_THAT(Dispatch({part(3, 0)}), IsEmpty());
    EXPECT_THAT(Dispatch({part(3, 1)}), ElementsAre(Event{Event::kReady, 0, 1}));
    EXPECT_EQ(Version(Table(0, 1)), 3u);
    EXPECT_EQ(Version(old), 1u);
    EXPECT_EQ(old->IsComplete(), S_OK) << "a client's table does not change";
    EXPECT_THAT(m_store.Versions(), ElementsAre(testing::Field(&TableStore::Version::version, 3)));
}

TEST_F(TableStoreTest, ARefusedTableIsDroppedAndCollectedAgain) {
    m_readyResult = E_FAIL;
    const Bytes pmt = Pmt({.program = 5});
    EXPECT_THAT(Dispatch({pmt, pmt}), ElementsAre(Event{Event::kReady, 2, 5}, Event{Event::kReady, 2, 5}));
    EXPECT_EQ(Ask(2, 5), E_NOINTERFACE);
    m_readyResult = S_OK;
    EXPECT_THAT(Dispatch({pmt, pmt}), ElementsAre(Event{Event::kReady, 2, 5}));
    m_readyResult = E_FAIL;
    EXPECT_THAT(Dispatch({Pmt({.program = 5}, {.version = 1})}),
                ElementsAre(Event{Event::kStale, 2, 5}, Event{Event::kReady, 2, 5}));
    EXPECT_EQ(Ask(2, 5), E_NOINTERFACE) << "a refused version takes the old one with it";
}

TEST_F(TableStoreTest, AnswersForTablesAndTableIdsItDoesNotHave) {
    Dispatch({Pmt({.program = 5}), Pat(1, {}, {.lastSectionNumber = 1})});
    ComPtr<IDvbTable> table;
    ComPtr<IDvbCollection> list;
    const struct {
        uint32_t tableId, key;
        HRESULT get, first, enumerate;
    } cases[] = {
        {0x02, 5, S_OK, S_OK, S_OK},
        {0x02, 0x10005, E_NOINTERFACE, S_OK, S_OK},
        {0x00, 1, E_NOINTERFACE, E_NOINTERFACE, S_OK},  // incomplete
        {0x42, 1, E_NOINTERFACE, E_NOINTERFACE, S_OK},  // none yet
        {0x01, 5, E_NOTIMPL, E_NOTIMPL, E_NOINTERFACE},
        {0xFFFFFFFF, 5, E_NOTIMPL, E_NOTIMPL, E_NOINTERFACE},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << c.tableId << " " << c.key);
        EXPECT_EQ(m_store.GetTable(c.tableId, c.key, table.Put()), c.get);
        EXPECT_EQ(static_cast<bool>(table), SUCCEEDED(c.get));
        EXPECT_EQ(m_store.GetFirstTable(c.tableId, table.Put()), c.first);
        EXPECT_EQ(m_store.EnumTables(c.tableId, list.Put()), c.enumerate);
        EXPECT_EQ(static_cast<bool>(list), SUCCEEDED(c.enumerate));
    }
    EXPECT_THAT(Dispatch({{}, {2}, {2, 0xB0, 4, 0, 5, 0xC1, 0}, LongSection(1, 5, {}), LongSection(0xC9, 5, {})}),
                IsEmpty());
}

TEST_F(TableStoreTest, ListsCurrentTablesByKeyAndKeepsDetachedOnesAlive) {
    Dispatch({Pmt({.program = 300}), Pmt({.program = 2}), Pmt({.program = 9}, {.lastSectionNumber = 1}),
              Pmt({.program = 40})});
    ComPtr<IDvbCollection> list;
    ASSERT_EQ(m_store.EnumTables(2, list.Put()), S_OK);
    std::vector<uint32_t> programs;
    for (int32_t i = 0; const auto pmt = ItemAs<IDvbProgramMapTable>(list.Get(), i); ++i)
        pmt->GetProgramNumber(&programs.emplace_back());
    EXPECT_THAT(programs, ElementsAre(2, 40, 300));

    m_events.clear();
    m_store.Detach();
    EXPECT_THAT(m_events, IsEmpty());
    EXPECT_EQ(Ask(2, 2), E_NOINTERFACE);
    EXPECT_TRUE(ItemAs<IDvbProgramMapTable>(list.Get(), 2));
    EXPECT_THAT(Dispatch({Pmt({.program = 2})}), ElementsAre(Event{Event::kReady, 2, 2}));
}

TEST_F(TableStoreTest, TheKeyOfAnSdtHasBothItsNetworkAndItsStream) {
    const auto sdt = [](uint16_t stream, uint16_t network) {
        return build::Sdt({.transportStreamId = stream, .originalNetworkId = network});
    };
    EXPECT_EQ(Dispatch({sdt(1, 7), sdt(2, 7), sdt(1, 8), sdt(1, 7)}).size(), 3u);
    for (const uint32_t key : {0x70001u, 0x70002u, 0x80001u})
        EXPECT_EQ(Ask(0x42, key), S_OK);
    EXPECT_EQ(Ask(0x42, 1), E_NOINTERFACE);
    ServiceDescriptionTableFactory factory;
    const Bytes whole = sdt(0x1234, 0x5678);
    EXPECT_EQ(factory.GetTableKey(whole), 0x56781234u);
    EXPECT_EQ(factory.GetTableKey(std::span(whole).first(9)), 0u);
    EXPECT_EQ(ProgramMapTableFactory().GetTableKey(std::span(whole).first(4)), 0u);
}

TEST_F(TableStoreTest, AStreamThatInventsKeysGetsABoundedStore) {
    Bytes sdt = build::Sdt({.transportStreamId = 0, .originalNetworkId = 0});
    for (uint32_t key = 0; key < TableDecoder::kMaxRecords + 100; ++key) {
        sdt[9] = static_cast<uint8_t>(key >> 16);
        sdt[3] = static_cast<uint8_t>(key >> 8);
        sdt[4] = static_cast<uint8_t>(key);
        m_store.Dispatch(sdt);
    }
    EXPECT_EQ(m_store.Versions().size(), TableDecoder::kMaxRecords);
    EXPECT_EQ(Ask(0x42, TableDecoder::kMaxRecords), E_NOINTERFACE);
    EXPECT_EQ(Ask(0x42, 0xFFFF), S_OK);
}

}  // namespace
}  // namespace tessel
