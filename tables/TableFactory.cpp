#include "tables/TableFactory.h"

#include "services/objects/Collections.h"
#include "tables/MasterGuideTable.h"
#include "tables/ProgramAssociationTable.h"
#include "tables/ProgramMapTable.h"
#include "tables/ServiceDescriptionTable.h"
#include "tables/VirtualChannelTable.h"

namespace tessel {

namespace {

template <class Table, class... Args>
HRESULT Create(IDvbTableEx** out, Args... args) {
    *out = ComPtr<IDvbTableEx>(MakeObject<Table>(args...).Get()).Detach();
    return *out != nullptr ? S_OK : E_OUTOFMEMORY;
}

}  // namespace

uint32_t ITableFactory::GetTableKey(std::span<const uint8_t> section) {
    ByteReader reader(section);
    reader.Skip(3);
    return reader.U16();
}

HRESULT ProgramAssociationTableFactory::CreateTable(uint32_t, uint32_t, IDvbTableEx** out) {
    return Create<DvbProgramAssociationTable>(out);
}

HRESULT ProgramMapTableFactory::CreateTable(uint32_t, uint32_t, IDvbTableEx** out) {
    return Create<DvbProgramMapTable>(out);
}

HRESULT ServiceDescriptionTableFactory::CreateTable(uint32_t tableId, uint32_t, IDvbTableEx** out) {
    return Create<DvbServiceDescriptionTable>(out, tableId);
}

uint32_t ServiceDescriptionTableFactory::GetTableKey(std::span<const uint8_t> section) {
    ByteReader reader(section);
    reader.Skip(3);
    const uint32_t transportStreamId = reader.U16();
    reader.Skip(3);
    const uint32_t originalNetworkId = reader.U16();
    return reader.Ok() ? originalNetworkId << 16 | transportStreamId : 0;
}

HRESULT MasterGuideTableFactory::CreateTable(uint32_t, uint32_t, IDvbTableEx** out) {
    return Create<AtscMasterGuideTable>(out);
}

HRESULT VirtualChannelTableFactory::CreateTable(uint32_t, uint32_t, IDvbTableEx** out) {
    return Create<AtscVirtualChannelTable>(out);
}

}  // namespace tessel
