#include "fuzz/FuzzReaders.h"

#include "descriptors/DescriptorInterfaces.h"
#include "fuzz/FuzzSupport.h"
#include "services/objects/Parameters.h"
#include "tables/AtscTable.h"
#include "tables/TableFactory.h"

namespace tessel {

namespace {

constexpr uint32_t kLastPid = 0x1FFF;
constexpr uint32_t kLast16 = 0xFFFF;

template <class I>
uint32_t Count(I& list) {
    uint32_t count = ~0u;
    Require(list.GetCount(&count) == S_OK);
    ComPtr<IUnknown> none;
    Require(FAILED(list.GetItem(-1, none.Put())) && FAILED(list.GetItem(static_cast<int32_t>(count), none.Put())));
    return count;
}

// key(item): what the item is found by.
template <class I, class Key>
void ReadMapping(IDvbMapping& list, size_t most, Key key) {
    const uint32_t count = Count(list);
    Require(count <= most);
    for (uint32_t i = 0; i < count; ++i) {
        const auto item = ItemAs<I>(&list, static_cast<int32_t>(i));
        Require(bool(item));
        const auto found = LookupAs<I>(&list, static_cast<int32_t>(key(*item)));
        Require(found.Get() == item.Get());
    }
}

void ReadDescriptors(IDvbMapping& descriptors) {
    ReadMapping<IDvbDescriptor>(descriptors, 256, [](IDvbDescriptor& descriptor) {
        uint32_t tag = ~0u;
        Require(descriptor.GetTag(&tag) == S_OK && tag < 256);
        return tag;
    });
}

template <class I>
void ReadDescriptorsOf(I& object) {
    ComPtr<IDvbMapping> descriptors;
    Require(object.GetDescriptors(descriptors.Put()) == S_OK && descriptors);
    ReadDescriptors(*descriptors);
}

void ReadDescriptorParam(IGetSetCOMParam& object) {
    ComPtr<IDvbMapping> descriptors;
    Require(object.GetCOMParam(param::kDescriptors, IDvbMapping::kIid, reinterpret_cast<void**>(descriptors.Put())) ==
            S_OK);
    ReadDescriptors(*descriptors);
}

void ReadFields(IGetSetParam& object, std::initializer_list<uint32_t> ids) {
    uint32_t value = 0;
    for (const uint32_t id : ids)
        Require(object.GetParam(id, &value) == S_OK && object.GetParam(id, nullptr) == E_POINTER);
    uint32_t untouched = 0x5A5A5A5A;
    Require(object.GetParam(0x7FFFFFFF, &untouched) == S_FALSE && untouched == 0x5A5A5A5A);
}

void Read(IDvbProgramAssociationTable& pat, size_t bytesFed) {
    uint32_t value = ~0u;
    Require(pat.GetTransportStreamId(&value) == S_OK && value <= kLast16);
    ComPtr<IDvbMapping> associations;
    Require(pat.GetAssociations(associations.Put()) == S_OK);
    ReadMapping<IDvbProgramAssociation>(*associations, bytesFed, [](IDvbProgramAssociation& association) {
        uint32_t pid = ~0u;
        uint32_t programNumber = ~0u;
        Require(association.GetPid(&pid) == S_OK && pid <= kLastPid);
        Require(association.GetProgramNumber(&programNumber) == S_OK && programNumber <= kLast16);
        return programNumber;
    });
}

void ReadComponents(IDvbCollection& components, size_t most) {
    const uint32_t count = Count(components);
    Require(count <= most);
    for (uint32_t i = 0; i < count; ++i) {
        const auto component = ItemAs<IDvbComponentEx>(&components, static_cast<int32_t>(i));
        Require(component && component.As<IDvbComponent>());
        uint32_t value = ~0u;
        Require(component->GetPid(&value) == S_OK && value <= kLastPid);
        Require(component->GetStreamType(&value) == S_OK && value < 256);
        Require(component->GetLanguage(&value) == S_OK && value <= 0xFFFFFF);
        Require(component->IsScrambled() == S_OK || component->IsScrambled() == S_FALSE);
        AM_MEDIA_TYPE type;
        const HRESULT known = component->GetMediaType(&type);
        Require(known == E_NOTIMPL || (known == S_OK && type.lSampleSize == 1 && type.pbFormat == nullptr));
        ReadDescriptorsOf(*component);
    }
}

void Read(IDvbProgramMapTable& pmt, size_t bytesFed) {
    uint32_t value = ~0u;
    Require(pmt.GetProgramNumber(&value) == S_OK && value <= kLast16);
    Require(pmt.GetPcrPid(&value) == S_OK && value <= kLastPid);
    ReadDescriptorsOf(pmt);
    ComPtr<IDvbCollection> components;
    Require(pmt.GetComponents(components.Put()) == S_OK);
    ReadComponents(*components, bytesFed);
}

void Read(IDvbServiceDescriptionTable& sdt, size_t bytesFed) {
    uint32_t value = ~0u;
    Require(sdt.GetTransportStreamId(&value) == S_OK && value <= kLast16);
    Require(sdt.GetOriginalNetworkId(&value) == S_OK && value <= kLast16);
    ComPtr<IDvbMapping> list;
    Require(sdt.GetServiceMultiMap(list.Put()) == S_OK && Count(*list) == 0);
    Require(sdt.GetServiceDescriptions(list.Put()) == S_OK);
    ReadMapping<IDvbServiceDescription>(*list, bytesFed, [](IDvbServiceDescription& service) {
        uint32_t serviceId = ~0u;
        Require(service.GetServiceId(&serviceId) == S_OK && serviceId <= kLast16);
        ReadDescriptorsOf(service);
        ReadFields(*ComPtr<IDvbServiceDescription>(&service).As<IGetSetCOMParam>(), {param::kScrambled});
        return serviceId;
    });
}

void ReadGuide(IGetSetCOMParam& guide) {
    ReadFields(guide, {param::kTableType, param::kTablePid, param::kTableVersion, param::kNumberBytes});
}

void ReadChannel(IGetSetCOMParam& channel) {
    ReadFields(channel, {param::kMajorChannel, param::kMinorChannel, param::kModulationMode, param::kCarrierFrequency,
                         param::kChannelTsid, param::kProgramNumber, param::kEtmLocation, param::kAccessControlled,
                         param::kHidden, param::kHideGuide, param::kServiceType, param::kSourceId});
    CBstr name;
    Require(channel.GetStringParam(param::kShortName, name.Put()) == S_OK && name.View().size() <= 7);
    Require(channel.GetStringParam(param::kShortName, nullptr) == E_POINTER);
}

void ReadAtsc(IGetSetCOMParam& table, size_t bytesFed) {
    ReadDescriptorParam(table);
    uint32_t tableId = 0;
    Require(table.GetParam(param::kTableId, &tableId) == S_OK);
    const bool guides = tableId == kMasterGuideTable;
    Require(guides || tableId == kVirtualChannelTable);
    ComPtr<IDvbCollection> entries;
    Require(table.GetCOMParam(guides ? param::kTableGuides : param::kVirtualChannels, IDvbCollection::kIid,
                              reinterpret_cast<void**>(entries.Put())) == S_OK);
    const uint32_t count = Count(*entries);
    Require(count <= AtscTable::kMaxEntries && count <= bytesFed);
    for (uint32_t i = 0; i < count; ++i) {
        const auto entry = ItemAs<IGetSetCOMParam>(entries.Get(), static_cast<int32_t>(i));
        Require(bool(entry));
        guides ? ReadGuide(*entry) : ReadChannel(*entry);
        ReadDescriptorParam(*entry);
    }
}

void ReadSectionsOf(IDvbTable& table) {
    Require(table.IsComplete() == S_OK);
    Require(table.IsSectionPresent(-1) == E_INVALIDARG && table.IsSectionPresent(256) == E_INVALIDARG);
    uint32_t last = ~0u;
    Require(table.GetLastSectionNumber(&last) == S_OK && last < 256);
    // A table in the short form is complete with its one section, and yet gives 1 as its last.
    int32_t number = 0;
    while (number <= static_cast<int32_t>(last) && table.IsSectionPresent(number) == S_OK)
        ++number;
    Require(number > static_cast<int32_t>(last) || (number == 1 && last == 1));
}

}  // namespace

void ReadTable(IDvbTable* table, size_t bytesFed) {
    Require(table != nullptr);
    ReadSectionsOf(*table);
    const ComPtr<IDvbTable> any(table);
    const auto parameters = any.As<IGetSetCOMParam>();
    Require(bool(parameters));
    if (const auto sdt = any.As<IDvbServiceDescriptionTable>()) {
        ReadFields(*parameters, {param::kTableIdExtension});
        Read(*sdt, bytesFed);
        return;
    }
    ReadFields(*parameters, {param::kTableId, param::kTableIdExtension, param::kVersionNumber});
    if (const auto pat = any.As<IDvbProgramAssociationTable>())
        Read(*pat, bytesFed);
    else if (const auto pmt = any.As<IDvbProgramMapTable>())
        Read(*pmt, bytesFed);
    else
        ReadAtsc(*parameters, bytesFed);
}

void ReadServices(CDvbServices& services) {
    Require(services.IsComplete() != S_OK || services.IsPmtComplete() == S_OK);
    uint32_t value = ~0u;
    Require(services.GetTransportStreamId(&value) == S_OK && value <= kLast16);
    Require(services.GetOriginalNetworkId(&value) == S_OK && value <= kLast16);
    ComPtr<IDvbMapping> list;
    Require(services.GetServices(list.Put()) == S_OK);
    ReadMapping<IDvbService>(*list, kLast16 + 1, [](IDvbService& service) {
        uint32_t serviceId = ~0u;
        Require(service.GetServiceId(&serviceId) == S_OK && serviceId <= kLast16);
        CBstr text;
        Require(service.GetName(text.Put()) == S_OK && service.GetProviderName(text.Put()) == S_OK);
        Require(service.IsScrambled() == S_OK || service.IsScrambled() == S_FALSE);
        const auto parameters = ComPtr<IDvbService>(&service).As<IGetSetCOMParam>();
        ReadFields(*parameters, {param::kServiceId, param::kServiceType, param::kPcrPid, param::kPmtPid,
                                 param::kScrambled, param::kMajorChannel, param::kMinorChannel, param::kSourceId});
        ComPtr<IDvbCollection> components;
        Require(service.GetComponents(components.Put()) == S_OK);
        ReadComponents(*components, DvbService::kMaxComponents);
        return serviceId;
    });
}

void FinishServices(CDvbServices& services) {
    const HRESULT result = services.FinishWithoutNames();
    Require((result == S_OK) == (services.IsComplete() == S_OK));
    ReadServices(services);
}

}  // namespace tessel
