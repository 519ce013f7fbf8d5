#include "tables/TableStore.h"

#include <new>

#include "services/objects/Collections.h"
#include "tables/SectionHeader.h"

namespace tessel {

HRESULT TableDecoder::AddSection(std::span<const uint8_t> section) {
    if (section.size() < SectionHeader::kSize)
        return E_FAIL;
    const auto length = static_cast<int32_t>(section.size());
    const uint32_t key = m_factory->GetTableKey(section);

    auto found = m_records.find(key);
    if (found == m_records.end()) {
        if (m_records.size() >= kMaxRecords)
            return E_FAIL;
        try {
            found = m_records.try_emplace(key).first;
        } catch (const std::bad_alloc&) {
            return E_FAIL;
        }
    }
    TableRecord& record = found->second;

    if (record.current && !record.pending) {
        if (record.current->IsSameVersion(section.data(), length) != 0)
            return S_OK;
        m_owner.OnTableStale(m_tableId, key);
    }
    if (!record.pending) {
        const HRESULT result = m_factory->CreateTable(m_tableId, key, record.pending.Put());
        if (FAILED(result))
            return result;
    }
    const HRESULT result = record.pending->AddSection(section.data(), length);
    if (result != IDvbTableEx::kComplete)
        return result;

    record.current = std::move(record.pending);
    record.pending.Reset();
    if (FAILED(m_owner.OnTableReady(m_tableId, key))) {
        record.current.Reset();
        record.pending.Reset();
    }
    return S_OK;
}

HRESULT TableDecoder::CurrentOf(const TableRecord& record, IDvbTable** out) {
    if (!record.current)
        return E_NOINTERFACE;
    return SUCCEEDED(record.current->QueryInterface(IDvbTable::kIid, reinterpret_cast<void**>(out))) ? S_OK : E_FAIL;
}

HRESULT TableDecoder::GetTable(uint32_t key, IDvbTable** out) const {
    const auto found = m_records.find(key);
    return found == m_records.end() ? E_NOINTERFACE : CurrentOf(found->second, out);
}

HRESULT TableDecoder::GetFirstTable(IDvbTable** out) const {
    return m_records.empty() ? E_NOINTERFACE : CurrentOf(m_records.begin()->second, out);
}

HRESULT TableDecoder::EnumTables(IDvbCollection** out) const {
    const auto list = MakeObject<DvbCollection>();
    if (!list)
        return E_OUTOFMEMORY;
    for (const auto& [key, record] : m_records) {
        ComPtr<IDvbTable> table;
        if (SUCCEEDED(CurrentOf(record, table.Put())))
            list->Add(table.Get());
    }
    *out = ComPtr<IDvbCollection>(list.Get()).Detach();
    return S_OK;
}

bool TableStore::AddDecoder(uint32_t tableId, std::unique_ptr<ITableFactory> factory) {
    auto& slot = m_slots.at(tableId);
    slot.reset(factory ? new (std::nothrow) TableDecoder(m_owner, std::move(factory), tableId) : nullptr);
    return slot != nullptr;
}

const TableDecoder* TableStore::Slot(uint32_t tableId) const {
    return tableId < m_slots.size() ? m_slots[tableId].get() : nullptr;
}

void TableStore::Dispatch(std::span<const uint8_t> section) {
    if (section.empty())
        return;
    if (TableDecoder* decoder = m_slots[section[0]].get())
        decoder->AddSection(section);
}

HRESULT TableStore::GetTable(uint32_t tableId, uint32_t key, IDvbTable** out) const {
    if (out == nullptr)
        return E_POINTER;
    *out = nullptr;
    const TableDecoder* decoder = Slot(tableId);
    return decoder == nullptr ? E_NOTIMPL : decoder->GetTable(key, out);
}

HRESULT TableStore::GetFirstTable(uint32_t tableId, IDvbTable** out) const {
    if (out == nullptr)
        return E_POINTER;
    *out = nullptr;
    const TableDecoder* decoder = Slot(tableId);
    return decoder == nullptr ? E_NOTIMPL : decoder->GetFirstTable(out);
}

HRESULT TableStore::EnumTables(uint32_t tableId, IDvbCollection** out) const {
    if (out == nullptr)
        return E_POINTER;
    *out = nullptr;
    const TableDecoder* decoder = Slot(tableId);
    return decoder == nullptr ? E_NOINTERFACE : decoder->EnumTables(out);
}

std::vector<TableStore::Version> TableStore::Versions() const {
    std::vector<Version> versions;
    for (uint32_t tableId = 0; tableId < m_slots.size(); ++tableId) {
        if (!m_slots[tableId])
            continue;
        for (const auto& [key, record] : m_slots[tableId]->Records())
            if (record.current)
                versions.push_back({tableId, key, record.current->GetVersion()});
    }
    return versions;
}

TableStore::Detached TableStore::Detach() {
    Detached detached;
    for (size_t tableId = 0; tableId < m_slots.size(); ++tableId)
        if (m_slots[tableId])
            detached[tableId] = m_slots[tableId]->Detach();
    return detached;
}

}  // namespace tessel
