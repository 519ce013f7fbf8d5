// The pages that only show: SDT, VCT, and those that have nothing to show.
#include "proppages/TablePages.h"

#include "proppages/PageText.h"
#include "proppages/Resources.h"

namespace tessel {

using namespace page;

namespace {

uint32_t CurrentTransportStream(const Filter& filter) {
    uint32_t id = 0;
    filter.information->GetTransportStreamId(&id);
    return id;
}

std::vector<ComPtr<IDvbTable>> TablesOf(const Filter& filter, uint32_t tableId) {
    ComPtr<IDvbCollection> tables;
    filter.tables->EnumTables(tableId, tables.Put());
    return ItemsOf<IDvbTable>(tables.Get());
}

template <class I>
ComPtr<I> TableOf(const Filter& filter, uint32_t tableId, intptr_t key) {
    ComPtr<IDvbTable> table;
    filter.tables->GetTable(tableId, static_cast<uint32_t>(key), table.Put());
    return table.As<I>();
}

std::u16string AccessText(bool scrambled) {
    return scrambled ? u"Scrambled" : u"Free";
}

}  // namespace

CPropPageServiceDescriptionTable::CPropPageServiceDescriptionTable(IUnknown* outer)
    : CTablePage("CPropPageServiceDescriptionTable", outer, kStringSdt) {}

HRESULT CPropPageServiceDescriptionTable::NonDelegatingQueryInterface(const IID& iid, void** out) {
    if (out != nullptr && iid == IDvbTableEvents2::kIid)
        return GetInterface<IDvbTableEvents2>(this, out);
    return CTablePage::NonDelegatingQueryInterface(iid, out);
}

HRESULT CPropPageServiceDescriptionTable::OnTableReady(uint32_t tableId, uint32_t) {
    // The PAT tells which transport stream is this one.
    if (tableId == kServiceDescriptionTable || tableId == kProgramAssociationTable)
        PostRefresh();
    return S_OK;
}

void CPropPageServiceDescriptionTable::InitTable() {
    for (const OLECHAR* title : {u"Service", u"Access", u"Descriptors"})
        Dialog().AddColumn(kTableList, title);
}

std::vector<CTablePage::Choice> CPropPageServiceDescriptionTable::Choices() {
    Dialog().SetText(kTableInfo, {});
    const uint32_t current = CurrentTransportStream(TheFilter());
    const bool others = Dialog().IsChecked(kOtherStreams);
    std::vector<Choice> choices;
    for (const auto& table : TablesOf(TheFilter(), kServiceDescriptionTable)) {
        const auto sdt = table.As<IDvbServiceDescriptionTable>();
        if (!sdt)
            continue;
        const uint32_t stream = ValueOf(*sdt, &IDvbServiceDescriptionTable::GetTransportStreamId);
        if (others || stream == current)
            choices.push_back({u"TSID=" + Hex4(stream) + u"/ONID=" +
                                   Hex4(ValueOf(*sdt, &IDvbServiceDescriptionTable::GetOriginalNetworkId)),
                               ParamOf(sdt.Get(), param::kTableIdExtension)});
    }
    return choices;
}

void CPropPageServiceDescriptionTable::FillRows(intptr_t key) {
    const auto table = TableOf<IDvbServiceDescriptionTable>(TheFilter(), kServiceDescriptionTable, key);
    if (!table)
        return;
    Dialog().SetText(kTableInfo, u"TransportStreamId: " +
                                     Hex4(ValueOf(*table, &IDvbServiceDescriptionTable::GetTransportStreamId)) +
                                     u"\nOriginalNetworkId: " +
                                     Hex4(ValueOf(*table, &IDvbServiceDescriptionTable::GetOriginalNetworkId)));
    ComPtr<IDvbMapping> services;
    table->GetServiceDescriptions(services.Put());
    for (const auto& service : ItemsOf<IDvbServiceDescription>(services.Get())) {
        ComPtr<IDvbMapping> descriptors;
        service->GetDescriptors(descriptors.Put());
        const uint32_t id = ValueOf(*service, &IDvbServiceDescription::GetServiceId);
        AddRow(
            {Hex4(id), AccessText(ParamOf(service.Get(), param::kScrambled) != 0), DescriptorTexts(descriptors.Get())},
            id);
    }
}

CPropPageVirtualChannelTable::CPropPageVirtualChannelTable(IUnknown* outer)
    : CTablePage("CPropPageVirtualChannelTable", outer, kStringVct) {}

void CPropPageVirtualChannelTable::InitTable() {
    for (const OLECHAR* title : {u"Channel", u"Service", u"Access", u"Descriptors"})
        Dialog().AddColumn(kTableList, title);
}

std::vector<CTablePage::Choice> CPropPageVirtualChannelTable::Choices() {
    const uint32_t current = CurrentTransportStream(TheFilter());
    const bool others = Dialog().IsChecked(kOtherStreams);
    std::vector<Choice> choices;
    for (const auto& table : TablesOf(TheFilter(), kVirtualChannelTable)) {
        const uint32_t stream = ParamOf(table.Get(), param::kTableIdExtension);
        if (others || stream == current)
            choices.push_back({u"TSID=" + Hex4(stream), stream});
    }
    return choices;
}

void CPropPageVirtualChannelTable::FillRows(intptr_t key) {
    const auto table = TableOf<IGetSetCOMParam>(TheFilter(), kVirtualChannelTable, key);
    if (!table)
        return;
    ComPtr<IDvbCollection> channels;
    table->GetCOMParam(param::kVirtualChannels, IDvbCollection::kIid, reinterpret_cast<void**>(channels.Put()));
    for (const auto& channel : ItemsOf<IGetSetCOMParam>(channels.Get())) {
        const auto value = [&](uint32_t id) { return ParamOf(channel.Get(), id); };
        CBstr name;
        channel->GetStringParam(param::kShortName, name.Put());
        ComPtr<IDvbMapping> descriptors;
        channel->GetCOMParam(param::kDescriptors, IDvbMapping::kIid, reinterpret_cast<void**>(descriptors.Put()));
        AddRow({Decimal(value(param::kMajorChannel)) + u"." + Decimal(value(param::kMinorChannel)),
                u"TSID=" + Hex4(value(param::kChannelTsid)) + u"/SID=" + Hex4(value(param::kProgramNumber)) + u", '" +
                    std::u16string(name.View()) + u"'",
                AccessText(value(param::kAccessControlled) != 0), DescriptorTexts(descriptors.Get())},
               value(param::kProgramNumber));
    }
}

void CPropPageNotDecoded::InitTable() {
    Dialog().SetText(kTableList, u"Not decoded");
    Dialog().Enable(kOtherStreams, false);
}

CPropPageNetworkInformationTable::CPropPageNetworkInformationTable(IUnknown* outer)
    : CPropPageNotDecoded("CPropPageNetworkInformationTable", outer, kStringNit) {}

CPropPageServiceGuideTable::CPropPageServiceGuideTable(IUnknown* outer)
    : CPropPageNotDecoded("CPropPageServiceGuideTable", outer, kStringSgt) {}

CPropPageGenreLookupTable::CPropPageGenreLookupTable(IUnknown* outer)
    : CPropPageNotDecoded("CPropPageGenreLookupTable", outer, kStringGlt) {}

CPropPageConditionalAccessTable::CPropPageConditionalAccessTable(IUnknown* outer)
    : CPropPageNotDecoded("CPropPageConditionalAccessTable", outer, kStringCat) {}

}  // namespace tessel
