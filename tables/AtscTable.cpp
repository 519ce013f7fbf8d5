#include "tables/AtscTable.h"

#include "descriptors/DescriptorLoop.h"

namespace tessel {

namespace {

HRESULT Ask(IUnknown* object, const IID& iid, void** out) {
    if (out == nullptr)
        return E_POINTER;
    *out = nullptr;
    return object != nullptr ? object->QueryInterface(iid, out) : E_FAIL;
}

}  // namespace

AtscEntry::AtscEntry(const char* name) : ParameterObject(name), m_descriptors(MakeObject<DvbMapping>()) {}

HRESULT AtscEntry::GetCOMParam(uint32_t id, const IID& iid, void** out) {
    return id == param::kDescriptors ? Ask(m_descriptors.Get(), iid, out) : S_FALSE;
}

HRESULT AtscEntry::ParseDescriptors(ByteReader& reader, uint16_t length) {
    if (!m_descriptors)
        return E_OUTOFMEMORY;
    const auto loop = reader.Take(length);
    if (!reader.Ok())
        return E_FAIL;
    ParseDescriptorLoop(loop, DescriptorContext::kGenericOnly, *m_descriptors.Get());
    return S_OK;
}

AtscTable::AtscTable(const char* name, uint32_t tableId, uint32_t entriesId)
    : DvbTableObject(name, tableId),
      m_entriesId(entriesId),
      m_descriptors(MakeObject<DvbMapping>()),
      m_entries(MakeObject<DvbCollection>()) {}

HRESULT AtscTable::GetCOMParam(uint32_t id, const IID& iid, void** out) {
    if (id == param::kDescriptors)
        return Ask(m_descriptors.Get(), iid, out);
    if (id == m_entriesId)
        return Ask(m_entries.Get(), iid, out);
    return S_FALSE;
}

void AtscTable::AddEntry(IUnknown* entry) {
    uint32_t count = 0;
    if (m_entries && SUCCEEDED(m_entries->GetCount(&count)) && count < kMaxEntries)
        m_entries->Add(entry);
}

void AtscTable::ResetTable() {
    DvbTable::ResetTable();
    if (m_descriptors)
        m_descriptors->Clear();
    if (m_entries)
        m_entries->Clear();
}

}  // namespace tessel
