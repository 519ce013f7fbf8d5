// What the two ATSC tables share: a list of entries and a descriptor list, read by parameter id.
#pragma once

#include <span>

#include "Classes/MultiPlatform/ByteReader.h"
#include "services/objects/Collections.h"
#include "tables/DvbTable.h"

namespace tessel {

// An entry with a descriptor list: answers kDescriptors through GetCOMParam.
class AtscEntry : public ParameterObject {
public:
    HRESULT GetCOMParam(uint32_t id, const IID& iid, void** out) override;

protected:
    explicit AtscEntry(const char* name);

    // Reads the descriptor loop; E_FAIL when it runs past the end.
    HRESULT ParseDescriptors(ByteReader& reader, uint16_t length);

private:
    const ComPtr<DvbMapping> m_descriptors;
};

class AtscTable : public DvbTableObject<IDvbTable> {
public:
    // A section that fails again and again adds entries up to this.
    static constexpr uint32_t kMaxEntries = 65'535;

    // Ids: kDescriptors (always empty) and the entry list's.
    HRESULT GetCOMParam(uint32_t id, const IID& iid, void** out) override;

protected:
    AtscTable(const char* name, uint32_t tableId, uint32_t entriesId);

    void ResetTable() override;

    // Reads count entries with Entry::ParseEntry and keeps them; the first failure is returned.
    template <class Entry>
    HRESULT ParseEntries(ByteReader& reader, uint32_t count) {
        for (uint32_t i = 0; i < count; ++i) {
            const auto entry = MakeObject<Entry>();
            HRESULT result = entry ? entry->ParseEntry(reader) : E_OUTOFMEMORY;
            if (FAILED(result))
                return result;
            AddEntry(static_cast<IGetSetCOMParam*>(entry.Get()));
        }
        return S_OK;
    }

private:
    void AddEntry(IUnknown* entry);

    const uint32_t m_entriesId;
    const ComPtr<DvbMapping> m_descriptors;
    const ComPtr<DvbCollection> m_entries;
};

}  // namespace tessel
