// The table store: for every table instance the last complete version, and the one being collected.
//
// It is organised by table_id: a TableDecoder owns one factory and the records of its table instances,
// each identified by a 32-bit key (the table_id_extension; for the SDT original_network_id << 16 |
// transport_stream_id). It has no lock of its own: its owner calls it under the table lock.
#pragma once

#include <array>
#include <map>
#include <memory>
#include <span>
#include <vector>

#include "platform/com/ComPtr.h"
#include "tables/DvbTable.h"
#include "tables/TableFactory.h"

namespace tessel {

// Told of table changes, inside the table lock.
class ITableStoreEvents {
public:
    // A section of a new version came for a complete table.
    virtual HRESULT OnTableStale(uint32_t tableId, uint32_t key) = 0;
    // A table became current. A failure makes the store drop it, to be collected again.
    virtual HRESULT OnTableReady(uint32_t tableId, uint32_t key) = 0;

protected:
    ~ITableStoreEvents() = default;
};

struct TableRecord {
    ComPtr<IDvbTableEx> pending;  // being collected
    ComPtr<IDvbTableEx> current;  // complete
};

using TableRecords = std::map<uint32_t, TableRecord>;

class TableDecoder {
public:
    // A stream that invents keys for ever gets no more records than 16-bit keys have values.
    static constexpr size_t kMaxRecords = 65'536;

    TableDecoder(ITableStoreEvents& owner, std::unique_ptr<ITableFactory> factory, uint32_t tableId)
        : m_owner(owner), m_factory(std::move(factory)), m_tableId(tableId) {}

    HRESULT AddSection(std::span<const uint8_t> section);

    HRESULT GetTable(uint32_t key, IDvbTable** out) const;
    // The table of the lowest key.
    HRESULT GetFirstTable(IDvbTable** out) const;
    HRESULT EnumTables(IDvbCollection** out) const;
    const TableRecords& Records() const { return m_records; }

    // Takes all records out, so that the caller can release them after its locks.
    TableRecords Detach() { return std::exchange(m_records, {}); }

private:
    static HRESULT CurrentOf(const TableRecord& record, IDvbTable** out);

    ITableStoreEvents& m_owner;
    const std::unique_ptr<ITableFactory> m_factory;
    const uint32_t m_tableId;
    TableRecords m_records;
};

class TableStore {
public:
    explicit TableStore(ITableStoreEvents& owner) : m_owner(owner) {}

    // Decodes tableId from now on, with what factory makes. False when out of memory.
    bool AddDecoder(uint32_t tableId, std::unique_ptr<ITableFactory> factory);

    // Hands a section to the decoder of its table_id; without one nothing happens.
    void Dispatch(std::span<const uint8_t> section);

    HRESULT GetTable(uint32_t tableId, uint32_t key, IDvbTable** out) const;
    HRESULT GetFirstTable(uint32_t tableId, IDvbTable** out) const;
    HRESULT EnumTables(uint32_t tableId, IDvbCollection** out) const;

    struct Version {
        uint32_t tableId;
        uint32_t key;
        uint8_t version;
    };
    // Every current table, by table_id and key.
    std::vector<Version> Versions() const;

    // By table_id.
    using Detached = std::array<TableRecords, 256>;
    // Takes every table out of the store, so that the caller can release them after its locks.
    Detached Detach();

private:
    const TableDecoder* Slot(uint32_t tableId) const;

    ITableStoreEvents& m_owner;
    std::array<std::unique_ptr<TableDecoder>, 256> m_slots;
};

}  // namespace tessel
