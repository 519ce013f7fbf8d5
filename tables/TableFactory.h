// One factory a table type: makes empty table objects and reads the key of a section. None has state.
#pragma once

#include <cstdint>
#include <memory>
#include <span>

#include "tables/DvbTable.h"

namespace tessel {

class ITableFactory {
public:
    virtual ~ITableFactory() = default;

    // An empty table with one reference that the caller holds; E_OUTOFMEMORY.
    virtual HRESULT CreateTable(uint32_t tableId, uint32_t key, IDvbTableEx** out) = 0;
    // The table_id_extension; 0 for fewer than 5 bytes.
    virtual uint32_t GetTableKey(std::span<const uint8_t> section);
};

class ProgramAssociationTableFactory final : public ITableFactory {
public:
    HRESULT CreateTable(uint32_t tableId, uint32_t key, IDvbTableEx** out) override;
};

class ProgramMapTableFactory final : public ITableFactory {
public:
    HRESULT CreateTable(uint32_t tableId, uint32_t key, IDvbTableEx** out) override;
};

class ServiceDescriptionTableFactory final : public ITableFactory {
public:
    HRESULT CreateTable(uint32_t tableId, uint32_t key, IDvbTableEx** out) override;
    // original_network_id << 16 | transport_stream_id; 0 for fewer than 10 bytes.
    uint32_t GetTableKey(std::span<const uint8_t> section) override;
};

class MasterGuideTableFactory final : public ITableFactory {
public:
    HRESULT CreateTable(uint32_t tableId, uint32_t key, IDvbTableEx** out) override;
};

class VirtualChannelTableFactory final : public ITableFactory {
public:
    HRESULT CreateTable(uint32_t tableId, uint32_t key, IDvbTableEx** out) override;
};

}  // namespace tessel
