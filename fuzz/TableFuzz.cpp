// Sections of one table, that of TESSEL_FUZZ_TABLE_ID, as its decoder gets them: with any lengths and versions.
//
// The input is a sequence of records: 16 bits and a section. Of the bits, 0 to 11 are the section's size; the
// section keeps its own table_id with bit 14, and the table list refuses what becomes complete with bit 15.
#include <memory>
#include <vector>

#include "Classes/MultiPlatform/ByteReader.h"
#include "fuzz/FuzzReaders.h"
#include "fuzz/FuzzSupport.h"
#include "tables/TableStore.h"
#include "tests/support/SectionBuilder.h"

namespace tessel {
namespace {

constexpr uint8_t kTableId = TESSEL_FUZZ_TABLE_ID;

std::unique_ptr<ITableFactory> MakeFactory() {
    switch (kTableId) {
    case kProgramAssociationTable:
        return std::make_unique<ProgramAssociationTableFactory>();
    case kProgramMapTable:
        return std::make_unique<ProgramMapTableFactory>();
    case kServiceDescriptionTable:
        return std::make_unique<ServiceDescriptionTableFactory>();
    case kMasterGuideTable:
        return std::make_unique<MasterGuideTableFactory>();
    case kVirtualChannelTable:
        return std::make_unique<VirtualChannelTableFactory>();
    }
    std::abort();
}

class Owner final : public ITableStoreEvents {
public:
    HRESULT OnTableStale(uint32_t tableId, uint32_t key) override {
        Require(tableId == kTableId && IsCurrent(key));
        return S_OK;
    }

    HRESULT OnTableReady(uint32_t tableId, uint32_t key) override {
        Require(tableId == kTableId && IsCurrent(key));
        return m_refuse ? E_FAIL : S_OK;
    }

    bool IsCurrent(uint32_t key) const {
        ComPtr<IDvbTable> table;
        return m_decoder.GetTable(key, table.Put()) == S_OK && table->IsComplete() == S_OK;
    }

    void Add(std::span<const uint8_t> section, bool refuse) {
        m_refuse = refuse;
        const HRESULT result = m_decoder.AddSection(section);
        Require(result == S_OK || result == IDvbTableEx::kIncomplete || FAILED(result));
        m_bytesFed += section.size();
    }

    void ReadAll() const {
        ComPtr<IDvbCollection> list;
        Require(m_decoder.EnumTables(list.Put()) == S_OK);
        int32_t count = 0;
        for (const auto& [key, record] : m_decoder.Records())
            if (record.current)
                ReadTable(ItemAs<IDvbTable>(list.Get(), count++).Get(), m_bytesFed);
        ComPtr<IDvbTable> first;
        Require(m_decoder.GetFirstTable(first.Put()) == S_OK || !first);
    }

    // Whatever came before, a sound table of another key is taken.
    void RequireGoodTable() {
        uint16_t key = 0;
        while (m_decoder.Records().contains(key))
            ++key;
        const build::Bytes payload(kTableId == kProgramMapTable ? 4 : 3);
        Add(build::LongSection(kTableId, key, payload), false);
        Require(IsCurrent(key));
    }

private:
    bool m_refuse = false;
    size_t m_bytesFed = 0;
    TableDecoder m_decoder{*this, MakeFactory(), kTableId};
};

}  // namespace
}  // namespace tessel

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    using namespace tessel;
    const NoObjectsLeft check;
    Owner owner;
    for (ByteReader reader({data, size}); reader.Remaining() > 2;) {
        const uint16_t head = reader.U16();
        const auto bytes = reader.TakeUpTo(head & 0x0FFF);
        // A copy of its own, so that a read beyond its end shows.
        std::vector<uint8_t> section(bytes.begin(), bytes.end());
        if (!section.empty() && (head & 0x4000) == 0)
            section[0] = kTableId;
        owner.Add(section, (head & 0x8000) != 0);
    }
    owner.ReadAll();
    owner.RequireGoodTable();
    return 0;
}
