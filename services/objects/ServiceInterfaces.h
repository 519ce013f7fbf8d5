// The client's view of services, and the interfaces through which the filters and their clients meet.
#pragma once

#include "platform/com/Bstr.h"
#include "platform/com/Unknown.h"
#include "services/objects/Collections.h"
#include "services/objects/TableInterfaces.h"

namespace tessel {

class IDvbService : public IUnknown {
public:
    static constexpr IID kIid = MakeGuid("{C85E4F4A-0EE8-48A6-A238-C77101E6FF04}");

    virtual HRESULT GetServiceId(uint32_t* out) = 0;
    virtual HRESULT GetServiceType(uint32_t* out) = 0;
    // New strings that the caller frees; null where there is none.
    virtual HRESULT GetName(BSTR* out) = 0;
    virtual HRESULT GetProviderName(BSTR* out) = 0;
    virtual HRESULT GetPcrPid(uint32_t* out) = 0;
    virtual HRESULT GetComponents(IDvbCollection** out) = 0;
    virtual HRESULT Reserved1(void* argument, void** out) = 0;  // E_POINTER for a null, else E_NOTIMPL
    virtual HRESULT IsScrambled() = 0;                          // S_OK or S_FALSE
};

// What the service list adds; clients leave it alone.
class _IDvbService : public IDvbService {
public:
    static constexpr IID kIid = MakeGuid("{908418A0-3142-47DE-8664-520117EB20D1}");

    // Appends; a component with a CA_descriptor that is video or audio marks the service scrambled.
    virtual HRESULT AddComponent(IDvbComponentEx* component) = 0;
};

class IDvbServiceInformation : public IUnknown {
public:
    static constexpr IID kIid = MakeGuid("{12AC5E30-C799-4171-B58E-3FF1FD88CD54}");

    virtual HRESULT Reset() = 0;
    virtual HRESULT IsServiceInformationComplete() = 0;  // S_OK or S_FALSE
    virtual HRESULT AdviseEvents(IUnknown* sink, uint32_t* cookie) = 0;
    virtual HRESULT UnadviseEvents(uint32_t cookie) = 0;
    // The table of that table_id with the lowest key.
    virtual HRESULT GetTable(uint32_t tableId, IDvbTable** out) = 0;
    virtual HRESULT GetProgramMapTable(uint32_t programNumber, IDvbProgramMapTable** out) = 0;
};

class IDvbServiceInformationEx : public IDvbServiceInformation {
public:
    static constexpr IID kIid = MakeGuid("{8D1671C0-AB75-4B87-8A84-ED75D87D132A}");

    virtual HRESULT GetTransportStreamId(uint32_t* out) = 0;
    virtual HRESULT GetOriginalNetworkId(uint32_t* out) = 0;
    virtual HRESULT GetServices(IDvbMapping** out) = 0;  // IDvbService items keyed by program_number
};

// Registers sinks that are told which PIDs the filter reads sections from.
class IDvbPidMapper : public IUnknown {
public:
    static constexpr IID kIid = MakeGuid("{0ECC298E-C6E3-4EF3-8772-102B38C7E1C7}");

    virtual HRESULT Advise(IUnknown* sink, uint32_t* cookie) = 0;
    virtual HRESULT Unadvise(uint32_t cookie) = 0;
};

// Sinks: clients implement them, the filters ignore their results.
//
// IDvbTableEvents has no identifier: a sink is stored as given and called through this interface, so
// a client with several bases passes this one.
class IDvbTableEvents : public IUnknown {
public:
    virtual HRESULT OnServicesReady() = 0;  // the service list became complete, once a reset
    virtual HRESULT OnReset() = 0;          // a client called Reset
};

class IDvbTableEvents2 : public IDvbTableEvents {
public:
    static constexpr IID kIid = MakeGuid("{8FCF95F1-C32F-4769-A078-B507969A716E}");

    virtual HRESULT OnTableReady(uint32_t tableId, uint32_t key) = 0;
    virtual HRESULT OnTableStale(uint32_t tableId, uint32_t key) = 0;
};

class IDvbPidMapperEvents : public IUnknown {
public:
    static constexpr IID kIid = MakeGuid("{4A8BD6F3-2835-4F42-AD0F-797ACE84B05A}");

    virtual HRESULT OnPidUsed(uint32_t tableId, uint32_t pid) = 0;
    virtual HRESULT OnPidsReset() = 0;
};

}  // namespace tessel
