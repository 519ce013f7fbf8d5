#include "tables/MasterGuideTable.h"

#include "tables/TableFactory.h"

namespace tessel {

HRESULT TableGuide::ParseEntry(ByteReader& reader) {
    // An entry without descriptors has 11 bytes, but it is only read with one more behind it: in a whole
    // section the table-level descriptor length follows.
    if (reader.Remaining() < 12)
        return E_FAIL;
    m_tableType = reader.U16();
    m_tablePid = reader.U16() & 0x1FFF;
    m_tableVersion = reader.U8() & 0x1F;
    m_numberBytes = reader.U32();
    return ParseDescriptors(reader, reader.U16() & 0x0FFF);
}

HRESULT TableGuide::GetParam(uint32_t id, uint32_t* out) {
    uint32_t value = 0;
    switch (id) {
    case param::kTableType:
        value = m_tableType;
        break;
    case param::kTablePid:
        value = m_tablePid;
        break;
    case param::kTableVersion:
        value = m_tableVersion;
        break;
    case param::kNumberBytes:
        value = m_numberBytes;
        break;
    default:
        return IGetSetCOMParamImpl::GetParam(id, out);
    }
    return out != nullptr ? HandOutValue(value, out) : E_POINTER;
}

AtscMasterGuideTable::AtscMasterGuideTable()
    : AtscTable("AtscMasterGuideTable", kMasterGuideTable, param::kTableGuides) {}

HRESULT AtscMasterGuideTable::ParseSection(uint32_t tableId, uint32_t, std::span<const uint8_t> payload) {
    if (tableId != kMasterGuideTable)
        return E_FAIL;
    ByteReader reader(payload);
    reader.Skip(1);  // protocol_version
    const uint32_t tablesDefined = reader.U16();
    return reader.Ok() ? ParseEntries<TableGuide>(reader, tablesDefined) : E_FAIL;
}

}  // namespace tessel
