// The service list: one DvbService per program, built from PAT, PMT, SDT and VCT as they come.
//
// DVB and ATSC merge on program_number (the service_id, and the VCT's program_number): the table applied
// last decides the fields that it carries. Services stay while the transport stream lasts.
#pragma once

#include <cstdint>
#include <set>
#include <vector>

#include "platform/com/ComPtr.h"
#include "platform/os/CritSec.h"
#include "services/objects/Collections.h"
#include "services/objects/DvbService.h"
#include "services/objects/ServiceInterfaces.h"

namespace tessel {

// What the service list needs of its filter.
class IServiceListOwner {
public:
    virtual HRESULT GetTable(uint32_t tableId, uint32_t key, IDvbTable** out) = 0;
    // Has the sections of a PID assembled, from inside the table lock; the results are those of
    // ITableDecoder::AddTablePid.
    virtual HRESULT RequestTablePid(uint32_t tableId, uint32_t tableIdExtension, uint32_t pid) = 0;
    // Whether packets of pid have come since the last reset.
    virtual bool IsPidPresent(uint32_t pid) const = 0;

protected:
    ~IServiceListOwner() = default;
};

// Every operation takes the filter's table lock.
class CDvbServices {
public:
    CDvbServices(CCritSec& tableLock, IServiceListOwner& owner);
    virtual ~CDvbServices() = default;

    // Applies a table that became current. A failure asks for it to be dropped and collected again: a program
    // map table waits so for the first packet of its PCR PID.
    virtual HRESULT TableComplete(uint32_t tableId, uint32_t key);
    // A new version of a table has begun.
    virtual HRESULT TableChanging(uint32_t tableId, uint32_t key);
    // S_OK when the PAT, every PMT, and an SDT or a VCT have been applied; else S_FALSE.
    virtual HRESULT IsComplete();
    virtual HRESULT Reset();
    // IDvbService items in order of creation, keyed by program_number.
    virtual HRESULT GetServices(IDvbMapping** out);
    // A null out is tolerated.
    virtual HRESULT GetTransportStreamId(uint32_t* out);
    virtual HRESULT GetOriginalNetworkId(uint32_t* out);  // 0 while unknown
    // S_OK when the PAT and every PMT have been applied; else S_FALSE.
    virtual HRESULT IsPmtComplete();
    // Completes the list of a stream without names: services whose PMT never came are dropped, and service
    // types become 0x80 where neither SDT nor VCT came. E_FAIL without a PAT or when no service would be left.
    virtual HRESULT FinishWithoutNames();

    // Reset, with the services in the result, for a caller that releases them after its locks.
    std::vector<ComPtr<IUnknown>> Detach();

private:
    virtual HRESULT OnPat(uint32_t key);
    virtual HRESULT OnPmt(uint32_t key);
    virtual HRESULT OnSdt(uint32_t key);
    virtual HRESULT OnVct(uint32_t key);
    virtual HRESULT OnMgt(uint32_t key);

    // The service of a program, made when there is none; null when it cannot be made.
    ComPtr<_IDvbService> FindService(uint32_t programNumber) OS_REQUIRES(m_lock);
    void ApplyServiceDescription(IDvbServiceDescription* entry) OS_REQUIRES(m_lock);
    void ApplyChannel(IGetSetCOMParam* channel) OS_REQUIRES(m_lock);

    template <class I>
    HRESULT GetTableAs(uint32_t tableId, uint32_t key, ComPtr<I>& table);

    CCritSec& m_lock;
    IServiceListOwner& m_owner;
    uint32_t m_transportStreamId OS_GUARDED_BY(m_lock) = 0;
    uint32_t m_originalNetworkId OS_GUARDED_BY(m_lock) = 0;
    ComPtr<DvbMapping> m_services OS_GUARDED_BY(m_lock);
    bool m_patComplete OS_GUARDED_BY(m_lock) = false;
    bool m_sdtComplete OS_GUARDED_BY(m_lock) = false;
    bool m_vctComplete OS_GUARDED_BY(m_lock) = false;
    std::set<uint32_t> m_pendingPmts OS_GUARDED_BY(m_lock);  // program_numbers
};

}  // namespace tessel
