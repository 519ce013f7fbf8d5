// One service (program) of the transport stream, as its tables describe it so far.
#pragma once

#include "platform/com/ComPtr.h"
#include "services/objects/Collections.h"
#include "services/objects/Parameters.h"
#include "services/objects/ServiceInterfaces.h"
#include "services/objects/SharedText.h"

namespace tessel {

// The service list keeps writing to a service while clients read it; each call sees whole values.
class DvbService final : public CUnknown, public _IDvbService, public IGetSetCOMParamImpl {
public:
    explicit DvbService(uint32_t serviceId);

    DECLARE_IUNKNOWN
    HRESULT NonDelegatingQueryInterface(const IID& iid, void** out) override;

    HRESULT GetServiceId(uint32_t* out) override;
    HRESULT GetServiceType(uint32_t* out) override;
    HRESULT GetName(BSTR* out) override;
    HRESULT GetProviderName(BSTR* out) override;
    HRESULT GetPcrPid(uint32_t* out) override;
    HRESULT GetComponents(IDvbCollection** out) override;
    HRESULT Reserved1(void* argument, void** out) override;
    HRESULT IsScrambled() override;
    HRESULT AddComponent(IDvbComponentEx* component) override;

    // Ids: kServiceId (read only), kServiceType, kPcrPid, kPmtPid, kScrambled, kMajorChannel,
    // kMinorChannel, kSourceId.
    HRESULT SetParam(uint32_t id, uint32_t value) override;
    HRESULT GetParam(uint32_t id, uint32_t* out) override;
    // Ids: kServiceName, kProviderName; a null text stores none.
    HRESULT SetStringParam(uint32_t id, const OLECHAR* text) override;

    using IGetSetCOMParamImpl::Reserved1;

    // A stream has 8,192 PIDs; what a program map table that changes for ever adds beyond stays out.
    static constexpr uint32_t kMaxComponents = 8192;

private:
    uint32_t* Field(uint32_t id) OS_REQUIRES(m_lock);

    const uint32_t m_serviceId;

    CCritSec m_lock{"service", kRankLeaf};
    uint32_t m_serviceType OS_GUARDED_BY(m_lock) = 0;
    uint32_t m_pcrPid OS_GUARDED_BY(m_lock) = 0;
    uint32_t m_pmtPid OS_GUARDED_BY(m_lock) = 0;
    uint32_t m_scrambled OS_GUARDED_BY(m_lock) = 0;
    uint32_t m_majorChannel OS_GUARDED_BY(m_lock) = 0;
    uint32_t m_minorChannel OS_GUARDED_BY(m_lock) = 0;
    uint32_t m_sourceId OS_GUARDED_BY(m_lock) = 0;
    SharedText m_providerName OS_GUARDED_BY(m_lock);
    SharedText m_serviceName OS_GUARDED_BY(m_lock);

    const ComPtr<DvbCollection> m_components;
};

}  // namespace tessel
