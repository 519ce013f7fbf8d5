// The filter base as a filter of its own, with a small buffer: the targets make one a run.
#pragma once

#include <vector>

#include "core/TsFilterBase.h"
#include "fuzz/FuzzReaders.h"
#include "fuzz/FuzzSupport.h"

namespace tessel {

class FuzzFilter final : public CTsFilterBase {
public:
    FuzzFilter(StreamingMode mode, int32_t capacity) : CTsFilterBase("FuzzFilter", capacity) {
        Require(SetMode(mode, 0) == S_OK && StartStreaming() == S_OK);
    }

    // Adds and parses all of bytes; false when the outputs leave no room.
    bool Push(std::span<const uint8_t> bytes) {
        const uint8_t* data = bytes.data();
        auto length = static_cast<int32_t>(bytes.size());
        while (length > 0) {
            const HRESULT added = AddData(&data, &length);
            Require(added == S_OK || added == E_OUTOFMEMORY);
            if (added != S_OK)
                return false;
            const HRESULT parsed = ParseData();
            Require(parsed == S_OK || (parsed == S_FALSE && Mode() == StreamingMode::kFile));
        }
        return true;
    }

    // Every table and service.
    void ReadAll(size_t bytesFed) {
        for (const TableStore::Version& version : TableVersions()) {
            ComPtr<IDvbTable> table;
            Require(GetTable(version.tableId, version.key, table.Put()) == S_OK);
            ReadTable(table.Get(), bytesFed);
            ComPtr<IDvbCollection> list;
            uint32_t count = 0;
            Require(EnumTables(version.tableId, list.Put()) == S_OK && list->GetCount(&count) == S_OK && count > 0);
        }
        ReadServices(*Services());
    }

protected:
    REFERENCE_TIME CurrentStreamTime() override { return ++m_time; }

private:
    REFERENCE_TIME m_time = 0;
};

}  // namespace tessel
