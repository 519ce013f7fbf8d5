#include "services/ServiceList.h"

#include "Classes/MultiPlatform/GenUtilMP.h"
#include "descriptors/DescriptorInterfaces.h"
#include "tables/TableFactory.h"

namespace tessel {

namespace {

constexpr uint32_t kUndefinedServiceType = 0x80;
constexpr uint32_t kNoTable = 0xFFFFFFFF;

// ATSC service_type (A/65 table 6.7) in the terms of the DVB service_type (EN 300 468 table 87).
uint32_t ServiceTypeOfAtsc(uint32_t atscServiceType) {
    switch (atscServiceType) {
    case 1:
        return 0x0B;
    case 2:
        return 0x01;
    case 3:
        return 0x02;
    case 4:
        return 0x0C;
    default:
        return kUndefinedServiceType;
    }
}

// The table_id of the sections that a table_type of the MGT stands for (A/65 table 6.3).
uint32_t TableIdOfTableType(uint32_t tableType) {
    struct Range {
        uint32_t first, last, tableId;
    };
    constexpr Range kRanges[] = {
        {0x0000, 0x0001, 0xC8}, {0x0002, 0x0003, 0xC9}, {0x0004, 0x0004, 0xCC}, {0x0005, 0x0005, 0xD4},
        {0x0100, 0x017F, 0xCB}, {0x0200, 0x027F, 0xCC}, {0x0301, 0x03FF, 0xCA}, {0x1400, 0x14FF, 0xD3},
    };
    for (const Range& range : kRanges)
        if (tableType >= range.first && tableType <= range.last)
            return range.tableId;
    return kNoTable;
}

constexpr uint32_t kEventInformationTable = 0xCB;
constexpr uint32_t kExtendedTextTable = 0xCC;

uint32_t Param(IGetSetParam* object, uint32_t id) {
    uint32_t value = 0;
    object->GetParam(id, &value);
    return value;
}

}  // namespace

CDvbServices::CDvbServices(CCritSec& tableLock, IServiceListOwner& owner)
    : m_lock(tableLock), m_owner(owner), m_services(MakeObject<DvbMapping>()) {}

HRESULT CDvbServices::TableComplete(uint32_t tableId, uint32_t key) {
    CScopedLock lock(&m_lock);
    switch (tableId) {
    case kProgramAssociationTable:
        return OnPat(key);
    case kProgramMapTable:
        return OnPmt(key);
    case kServiceDescriptionTable:
        return OnSdt(key);
    case kMasterGuideTable:
        return OnMgt(key);
    case kVirtualChannelTable:
    case kCableVirtualChannelTable:
        return OnVct(key);
    default:
        return S_OK;
    }
}

HRESULT CDvbServices::TableChanging(uint32_t tableId, uint32_t) {
    CScopedLock lock(&m_lock);
    switch (tableId) {
    case kProgramAssociationTable:
        m_patComplete = false;
        break;
    case kServiceDescriptionTable:
        m_sdtComplete = false;
        break;
    case kVirtualChannelTable:
    case kCableVirtualChannelTable:
        m_vctComplete = false;
        break;
    default:
        break;
    }
    return S_OK;
}

HRESULT CDvbServices::IsComplete() {
    CScopedLock lock(&m_lock);
    return (m_sdtComplete || m_vctComplete) && IsPmtComplete() == S_OK ? S_OK : S_FALSE;
}

HRESULT CDvbServices::IsPmtComplete() {
    CScopedLock lock(&m_lock);
    return m_patComplete && m_pendingPmts.empty() ? S_OK : S_FALSE;
}

HRESULT CDvbServices::Reset() {
    Detach();
    return S_OK;
}

std::vector<ComPtr<IUnknown>> CDvbServices::Detach() {
    CScopedLock lock(&m_lock);
    m_patComplete = m_sdtComplete = m_vctComplete = false;
    m_pendingPmts.clear();
    return m_services ? m_services->Detach() : std::vector<ComPtr<IUnknown>>();
}

HRESULT CDvbServices::GetServices(IDvbMapping** out) {
    if (out == nullptr)
        return E_POINTER;
    CScopedLock lock(&m_lock);
    *out = ComPtr<IDvbMapping>(m_services.Get()).Detach();
    return *out != nullptr ? S_OK : E_FAIL;
}

HRESULT CDvbServices::GetTransportStreamId(uint32_t* out) {
    CScopedLock lock(&m_lock);
    if (out != nullptr)
        *out = m_transportStreamId;
    return S_OK;
}

HRESULT CDvbServices::GetOriginalNetworkId(uint32_t* out) {
    CScopedLock lock(&m_lock);
    if (out != nullptr)
        *out = m_originalNetworkId;
    return S_OK;
}

template <class I>
HRESULT CDvbServices::GetTableAs(uint32_t tableId, uint32_t key, ComPtr<I>& table) {
    ComPtr<IDvbTable> any;
    const HRESULT result = m_owner.GetTable(tableId, key, any.Put());
    if (FAILED(result))
        return result;
    table = any.As<I>();
    return table ? S_OK : E_FAIL;
}

ComPtr<_IDvbService> CDvbServices::FindService(uint32_t programNumber) {
    const auto key = static_cast<int32_t>(programNumber);
    if (!m_services)
        return nullptr;
    if (auto known = LookupAs<_IDvbService>(m_services.Get(), key))
        return known;
    const auto made = MakeObject<DvbService>(programNumber);
    ComPtr<_IDvbService> service(made.Get());
    if (!service || FAILED(m_services->AddKeyed(key, service.Get())))
        return nullptr;
    return service;
}

HRESULT CDvbServices::OnPat(uint32_t key) {
    CScopedLock lock(&m_lock);
    m_transportStreamId = key;
    ComPtr<IDvbProgramAssociationTable> pat;
    HRESULT result = GetTableAs(kProgramAssociationTable, key, pat);
    if (FAILED(result))
        return result;
    ComPtr<IDvbMapping> associations;
    result = pat->GetAssociations(associations.Put());
    if (FAILED(result))
        return result;

    m_pendingPmts.clear();
    for (int32_t i = 0; const auto association = ItemAs<IDvbProgramAssociation>(associations.Get(), i); ++i) {
        uint32_t pid = 0;
        uint32_t programNumber = 0;
        association->GetPid(&pid);
        association->GetProgramNumber(&programNumber);
        if (programNumber == 0)
            continue;  // the network PID
        // One that is known raises no event when it comes again.
        ComPtr<IDvbTable> known;
        if (FAILED(m_owner.GetTable(kProgramMapTable, programNumber, known.Put())))
            m_pendingPmts.insert(programNumber);
        const auto service = FindService(programNumber).As<IGetSetParam>();
        if (!service)
            continue;
        service->SetParam(param::kPmtPid, pid);
        // Programs may share a PID: all but the first are refused here, and decoded all the same.
        m_owner.RequestTablePid(kProgramMapTable, programNumber, pid);
    }
    m_patComplete = true;
    return S_OK;
}

HRESULT CDvbServices::OnPmt(uint32_t key) {
    CScopedLock lock(&m_lock);
    ComPtr<IDvbProgramMapTable> pmt;
    const HRESULT result = GetTableAs(kProgramMapTable, key, pmt);
    if (FAILED(result))
        return result;
    uint32_t pcrPid = 0;
    pmt->GetPcrPid(&pcrPid);
    if (!m_owner.IsPidPresent(pcrPid))
        return E_FAIL;

    const ComPtr<_IDvbService> service = FindService(key);
    if (!service)
        return S_OK;
    service.As<IGetSetParam>()->SetParam(param::kPcrPid, pcrPid);
    ComPtr<IDvbCollection> components;
    pmt->GetComponents(components.Put());
    for (int32_t i = 0; const auto component = ItemAs<IDvbComponentEx>(components.Get(), i); ++i)
        service->AddComponent(component.Get());
    m_pendingPmts.erase(key);
    return S_OK;
}

HRESULT CDvbServices::OnSdt(uint32_t key) {
    CScopedLock lock(&m_lock);
    m_originalNetworkId = key >> 16;
    ComPtr<IDvbServiceDescriptionTable> sdt;
    HRESULT result = GetTableAs(kServiceDescriptionTable, key, sdt);
    if (FAILED(result))
        return result;
    ComPtr<IDvbMapping> entries;
    result = sdt->GetServiceDescriptions(entries.Put());
    if (FAILED(result))
        return result;
    for (int32_t i = 0; const auto entry = ItemAs<IDvbServiceDescription>(entries.Get(), i); ++i)
        ApplyServiceDescription(entry.Get());
    m_sdtComplete = true;
    return S_OK;
}

void CDvbServices::ApplyServiceDescription(IDvbServiceDescription* entry) {
    uint32_t serviceId = 0;
    ComPtr<IDvbMapping> descriptors;
    entry->GetServiceId(&serviceId);
    if (serviceId == 0 || FAILED(entry->GetDescriptors(descriptors.Put())))
        return;
    const auto service = FindService(serviceId).As<IGetSetCOMParam>();
    if (!service)
        return;

    if (const auto description = LookupAs<IDvbDescService>(descriptors.Get(), tag::kService)) {
        uint32_t serviceType = 0;
        CBstr name;
        CBstr provider;
        if (SUCCEEDED(description->GetServiceType(&serviceType)) &&
            SUCCEEDED(description->GetServiceName(name.Put())) &&
            SUCCEEDED(description->GetProviderName(provider.Put()))) {
            service->SetParam(param::kServiceType, serviceType);
            service->SetStringParam(param::kServiceName, name.Get());
            service->SetStringParam(param::kProviderName, provider.Get());
        }
    }
    const auto params = ComPtr<IDvbServiceDescription>(entry).As<IGetSetParam>();
    ComPtr<IUnknown> conditionalAccess;
    if (SUCCEEDED(descriptors->Lookup(tag::kConditionalAccess, conditionalAccess.Put())) ||
        (params && Param(params.Get(), param::kScrambled) == 1))
        service->SetParam(param::kScrambled, 1);
}

HRESULT CDvbServices::OnVct(uint32_t key) {
    CScopedLock lock(&m_lock);
    m_transportStreamId = key;
    ComPtr<IGetSetCOMParam> vct;
    HRESULT result = GetTableAs(kVirtualChannelTable, key, vct);
    if (FAILED(result))
        return result;
    ComPtr<IDvbCollection> channels;
    result = vct->GetCOMParam(param::kVirtualChannels, IDvbCollection::kIid, reinterpret_cast<void**>(channels.Put()));
    if (FAILED(result))
        return result;
    for (int32_t i = 0; const auto channel = ItemAs<IGetSetCOMParam>(channels.Get(), i); ++i)
        ApplyChannel(channel.Get());
    m_vctComplete = true;
    return S_OK;
}

void CDvbServices::ApplyChannel(IGetSetCOMParam* channel) {
    const uint32_t programNumber = Param(channel, param::kProgramNumber);
    ComPtr<IDvbMapping> descriptors;
    if (programNumber == 0 || FAILED(channel->GetCOMParam(param::kDescriptors, IDvbMapping::kIid,
                                                          reinterpret_cast<void**>(descriptors.Put()))))
        return;
    const auto service = FindService(programNumber).As<IGetSetCOMParam>();
    if (!service)
        return;
    CBstr name;
    channel->GetStringParam(param::kShortName, name.Put());
    service->SetStringParam(param::kServiceName, name.Get());
    service->SetParam(param::kServiceType, ServiceTypeOfAtsc(Param(channel, param::kServiceType)));
    for (const uint32_t id : {param::kMajorChannel, param::kMinorChannel, param::kSourceId})
        service->SetParam(id, Param(channel, id));
}

HRESULT CDvbServices::OnMgt(uint32_t key) {
    CScopedLock lock(&m_lock);
    ComPtr<IGetSetCOMParam> mgt;
    HRESULT result = GetTableAs(kMasterGuideTable, key, mgt);
    if (FAILED(result))
        return result;
    ComPtr<IDvbCollection> guides;
    result = mgt->GetCOMParam(param::kTableGuides, IDvbCollection::kIid, reinterpret_cast<void**>(guides.Put()));
    if (FAILED(result))
        return result;
    for (int32_t i = 0; const auto guide = ItemAs<IGetSetParam>(guides.Get(), i); ++i) {
        const uint32_t tableId = TableIdOfTableType(Param(guide.Get(), param::kTableType));
        if (tableId == kEventInformationTable || tableId == kExtendedTextTable)
            m_owner.RequestTablePid(tableId, 0, Param(guide.Get(), param::kTablePid));
    }
    return S_OK;
}

HRESULT CDvbServices::FinishWithoutNames() {
    ComPtr<DvbMapping> kept = MakeObject<DvbMapping>();
    CScopedLock lock(&m_lock);
    if (IsComplete() == S_OK)
        return S_OK;
    if (!m_patComplete)
        return E_FAIL;
    if (!kept)
        return E_OUTOFMEMORY;
    const bool noNames = !m_sdtComplete && !m_vctComplete;

    uint32_t count = 0;
    for (int32_t i = 0; const auto service = ItemAs<IGetSetParam>(m_services.Get(), i); ++i) {
        const uint32_t serviceId = Param(service.Get(), param::kServiceId);
        if (m_pendingPmts.contains(serviceId))
            continue;
        if (SUCCEEDED(kept->AddKeyed(static_cast<int32_t>(serviceId), service.Get())))
            ++count;
        if (noNames)
            service->SetParam(param::kServiceType, kUndefinedServiceType);
    }
    if (count == 0)
        return E_FAIL;
    std::swap(kept, m_services);
    m_pendingPmts.clear();
    if (noNames) {
        m_originalNetworkId = 0;
        m_sdtComplete = true;
    }
    return S_OK;
}

}  // namespace tessel
