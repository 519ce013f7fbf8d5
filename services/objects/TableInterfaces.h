// What clients read tables and their entries through.
//
// Getters write their value, or a new reference, through a valid out pointer and return S_OK.
#pragma once

#include "platform/com/Unknown.h"
#include "platform/media/MediaType.h"
#include "services/objects/Collections.h"

namespace tessel {

// The tables that are decoded, DVB and ATSC side by side.
inline constexpr uint32_t kProgramAssociationTable = 0x00;
inline constexpr uint32_t kProgramMapTable = 0x02;
inline constexpr uint32_t kServiceDescriptionTable = 0x42;  // of the actual transport stream
inline constexpr uint32_t kServiceDescriptionTableOther = 0x46;
inline constexpr uint32_t kMasterGuideTable = 0xC7;
inline constexpr uint32_t kVirtualChannelTable = 0xC8;  // terrestrial
inline constexpr uint32_t kCableVirtualChannelTable = 0xC9;

class IDvbTable : public IUnknown {
public:
    static constexpr IID kIid = MakeGuid("{8476AE42-679B-4D03-9E5C-96C3BBA90C7F}");

    virtual HRESULT Reserved1() = 0;                                 // E_FAIL
    virtual HRESULT IsComplete() = 0;                                // S_OK or S_FALSE
    virtual HRESULT Reserved2(uint32_t first, uint32_t second) = 0;  // E_FAIL
    virtual HRESULT Reserved3(uint32_t first) = 0;                   // E_FAIL
    virtual HRESULT GetLastSectionNumber(uint32_t* out) = 0;         // E_POINTER for null
    // S_OK received, S_FALSE not, E_INVALIDARG outside 0 to 255.
    virtual HRESULT IsSectionPresent(int32_t sectionNumber) = 0;
};

// Program association table, ISO/IEC 13818-1 clause 2.4.4.3.
class IDvbProgramAssociationTable : public IDvbTable {
public:
    static constexpr IID kIid = MakeGuid("{D5387BFC-9F2A-4944-B308-0E282BC89DE4}");

    virtual HRESULT GetTransportStreamId(uint32_t* out) = 0;
    // IDvbProgramAssociation items in section order, keyed by program_number.
    virtual HRESULT GetAssociations(IDvbMapping** out) = 0;
};

class IDvbProgramAssociation : public IUnknown {
public:
    static constexpr IID kIid = MakeGuid("{7877C6BD-0B4C-477F-A430-6191FB54F68E}");

    virtual HRESULT GetProgramNumber(uint32_t* out) = 0;  // 0: the PID is the network PID
    virtual HRESULT GetPid(uint32_t* out) = 0;
};

// Program map table, ISO/IEC 13818-1 clause 2.4.4.8.
class IDvbProgramMapTable : public IDvbTable {
public:
    static constexpr IID kIid = MakeGuid("{E560BB55-73FD-4129-BA6D-DCA380903BB7}");

    virtual HRESULT GetProgramNumber(uint32_t* out) = 0;
    virtual HRESULT GetPcrPid(uint32_t* out) = 0;
    virtual HRESULT GetDescriptors(IDvbMapping** out) = 0;    // keyed by descriptor tag
    virtual HRESULT GetComponents(IDvbCollection** out) = 0;  // IDvbComponentEx items in section order
};

// One elementary stream of a program.
class IDvbComponent : public IUnknown {
public:
    static constexpr IID kIid = MakeGuid("{D0D18577-EA21-4986-8AEB-76E7E36102CE}");

    virtual HRESULT GetPid(uint32_t* out) = 0;
    virtual HRESULT GetStreamType(uint32_t* out) = 0;
    virtual HRESULT GetDescriptors(IDvbMapping** out) = 0;  // keyed by descriptor tag
};

class IDvbComponentEx : public IDvbComponent {
public:
    static constexpr IID kIid = MakeGuid("{10664EB2-6FAD-4182-9468-4AB393D41D7B}");

    // Fills every field; E_NOTIMPL, and nothing written, where the system has no type for the stream.
    virtual HRESULT GetMediaType(AM_MEDIA_TYPE* out) = 0;
    // First language of the ISO 639 language descriptor, first character in bits 23..16; 0 for none.
    virtual HRESULT GetLanguage(uint32_t* out) = 0;
    // S_OK when the component carries a CA_descriptor, else S_FALSE.
    virtual HRESULT IsScrambled() = 0;
};

// Service description table, EN 300 468 clause 5.2.3.
class IDvbServiceDescriptionTable : public IDvbTable {
public:
    static constexpr IID kIid = MakeGuid("{A10E94D5-62F0-483F-B741-C1F19B551A1F}");

    virtual HRESULT GetTransportStreamId(uint32_t* out) = 0;
    virtual HRESULT GetOriginalNetworkId(uint32_t* out) = 0;
    // IDvbServiceDescription items in section order, keyed by service_id.
    virtual HRESULT GetServiceDescriptions(IDvbMapping** out) = 0;
    virtual HRESULT GetServiceMultiMap(IDvbMapping** out) = 0;  // always empty
};

class IDvbServiceDescription : public IUnknown {
public:
    static constexpr IID kIid = MakeGuid("{7E2C2845-1D1E-49FA-8D3F-2C684F6F6F47}");

    virtual HRESULT GetServiceId(uint32_t* out) = 0;
    virtual HRESULT GetDescriptors(IDvbMapping** out) = 0;  // keyed by descriptor tag
};

// The filter's table interface for clients and for what the filter owns.
class ITableDecoder : public IUnknown {
public:
    static constexpr IID kIid = MakeGuid("{5E6B1C0A-7D53-4C86-9B0D-2F4AC51E93D7}");

    // Makes the filter assemble the sections of a PID: E_INVALIDARG above 8191, E_ACCESSDENIED when it
    // already does, E_OUTOFMEMORY. The first two arguments say what for (-1: any table); nobody stores them.
    virtual HRESULT AddTablePid(uint32_t tableId, uint32_t tableIdExtension, uint32_t pid) = 0;
    // The current tables of a table_id in ascending order of key. E_POINTER, E_NOINTERFACE for a table_id
    // that is not decoded, E_OUTOFMEMORY; an empty list is S_OK.
    virtual HRESULT EnumTables(uint32_t tableId, IDvbCollection** out) = 0;
    // E_POINTER, E_NOTIMPL for a table_id that is not decoded, E_NOINTERFACE while there is no complete
    // version of that key.
    virtual HRESULT GetTable(uint32_t tableId, uint32_t key, IDvbTable** out) = 0;
};

}  // namespace tessel
