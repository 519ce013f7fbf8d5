// The pages whose "Map" does something: services and PAT.
#include "core/stream/TsHeader.h"
#include "proppages/PageText.h"
#include "proppages/Resources.h"
#include "proppages/TablePages.h"

namespace tessel {

using namespace page;

namespace {

// Beside program numbers, which have 16 bits.
constexpr intptr_t kAllPrograms = 0x10000;

// stream_type, ISO/IEC 13818-1 table 2-34: private sections and the section types of ISO/IEC 13818-6.
bool CarriesSections(uint32_t streamType) {
    return streamType == 0x05 || (streamType >= 0x0A && streamType <= 0x0D);
}

// 0x1FFF: the program has no clock.
std::optional<uint32_t> PcrPidOf(IDvbProgramMapTable& table) {
    const uint32_t pid = ValueOf(table, &IDvbProgramMapTable::GetPcrPid);
    return pid != kNullPid ? std::optional(pid) : std::nullopt;
}

std::vector<ComPtr<IDvbComponentEx>> ComponentsOf(IDvbProgramMapTable& table) {
    ComPtr<IDvbCollection> components;
    table.GetComponents(components.Put());
    return ItemsOf<IDvbComponentEx>(components.Get());
}

uint32_t PidOf(IDvbComponent& component) {
    return ValueOf(component, &IDvbComponent::GetPid);
}

}  // namespace

CPropPageServices::CPropPageServices(IUnknown* outer) : CTablePage("CPropPageServices", outer, kStringServices) {}

void CPropPageServices::InitTable() {
    Dialog().AddColumn(kTableList, u"Component");
    Dialog().Enable(kOtherStreams, false);
}

std::vector<CTablePage::Choice> CPropPageServices::Choices() {
    std::vector<Choice> choices;
    for (const auto& service : TheFilter().Services())
        choices.push_back({ServiceTitle(*service), ValueOf(*service, &IDvbService::GetServiceId)});
    return choices;
}

void CPropPageServices::FillRows(intptr_t key) {
    const auto table = TheFilter().ProgramMap(static_cast<uint32_t>(key));
    if (!table)
        return;
    if (const auto pid = PcrPidOf(*table))
        AddRow({Hex4(*pid) + u", " + std::u16string(kPcrText)}, *pid);
    for (const auto& component : ComponentsOf(*table))
        AddRow({Hex4(PidOf(*component)) + u", " + ComponentText(*component)}, PidOf(*component));
}

std::optional<uint32_t> CPropPageServices::SelectionIndex(uint32_t serviceId) {
    uint32_t index = 0;
    for (const auto& service : TheFilter().Services()) {
        const bool present = TheFilter().HasPackets(*service);
        if (ValueOf(*service, &IDvbService::GetServiceId) == serviceId)
            return present ? std::optional(index) : std::nullopt;
        index += present ? 1 : 0;
    }
    return std::nullopt;
}

void CPropPageServices::OnRowsSelected() {
    const intptr_t chosen = Dialog().SelectedData(kTableChoice);
    Dialog().Enable(kTableMap,
                    chosen != CDialogWindow::kNoData && SelectionIndex(static_cast<uint32_t>(chosen)).has_value());
}

void CPropPageServices::OnMap() {
    const auto index = SelectionIndex(static_cast<uint32_t>(Dialog().SelectedData(kTableChoice)));
    const HRESULT result = index ? TheFilter().parameters->SetParam(kParamSelectService, *index) : E_FAIL;
    if (FAILED(result))
        return Dialog().MessageBox(u"The service has no video and no audio that can be delivered now.");
    SetDirty();
}

CPropPageProgramAssociationTable::CPropPageProgramAssociationTable(IUnknown* outer)
    : CTablePage("CPropPageProgramAssociationTable", outer, kStringPat) {}

void CPropPageProgramAssociationTable::InitTable() {
    Dialog().AddColumn(kTableList, u"PID");
    Dialog().AddColumn(kTableList, u"Content");
    Dialog().Enable(kOtherStreams, false);
}

std::vector<ComPtr<IDvbProgramAssociation>> CPropPageProgramAssociationTable::Associations() {
    ComPtr<IDvbTable> table;
    TheFilter().information->GetTable(kProgramAssociationTable, table.Put());
    ComPtr<IDvbMapping> associations;
    if (const auto pat = table.As<IDvbProgramAssociationTable>())
        pat->GetAssociations(associations.Put());
    return ItemsOf<IDvbProgramAssociation>(associations.Get());
}

std::vector<CTablePage::Choice> CPropPageProgramAssociationTable::Choices() {
    std::vector<Choice> choices;
    for (const auto& association : Associations()) {
        if (choices.empty())
            choices.push_back({u"All programs", kAllPrograms});
        const uint32_t program = ValueOf(*association, &IDvbProgramAssociation::GetProgramNumber);
        if (const auto service = TheFilter().Service(program))
            choices.push_back({ServiceTitle(*service), program});
    }
    return choices;
}

void CPropPageProgramAssociationTable::FillRows(intptr_t key) {
    m_rows.clear();
    for (const auto& association : Associations())
        if (key == kAllPrograms || key == ValueOf(*association, &IDvbProgramAssociation::GetProgramNumber))
            AddProgram(*association);
}

void CPropPageProgramAssociationTable::AddProgram(IDvbProgramAssociation& association) {
    const uint32_t program = ValueOf(association, &IDvbProgramAssociation::GetProgramNumber);
    const uint32_t tablePid = ValueOf(association, &IDvbProgramAssociation::GetPid);
    const auto add = [this](uint32_t pid, std::u16string text, std::optional<Mappable> mappable = {}) {
        AddRow({Hex4(pid), std::move(text)}, pid);
        m_rows.push_back(mappable);
    };
    if (program == 0)
        return add(tablePid, u"Network Information Table");
    add(tablePid, ProgramMapText(program, TheFilter().Service(program).Get()));
    const auto table = TheFilter().ProgramMap(program);
    if (!table)
        return;
    if (const auto pid = PcrPidOf(*table))
        add(*pid, u"# " + std::u16string(kPcrText));
    for (const auto& component : ComponentsOf(*table)) {
        const bool sections = CarriesSections(ValueOf<IDvbComponent>(*component, &IDvbComponent::GetStreamType));
        add(PidOf(*component), u"# " + ComponentText(*component),
            Mappable{PidOf(*component), sections ? MEDIA_MPEG2_PSI : MEDIA_ELEMENTARY_STREAM});
    }
}

std::optional<CPropPageProgramAssociationTable::Mappable> CPropPageProgramAssociationTable::SelectedComponent() {
    for (const int32_t row : Dialog().SelectedRows(kTableList))
        if (static_cast<size_t>(row) < m_rows.size() && m_rows[static_cast<size_t>(row)])
            return m_rows[static_cast<size_t>(row)];
    return std::nullopt;
}

void CPropPageProgramAssociationTable::OnRowsSelected() {
    Dialog().Enable(kTableMap, SelectedComponent().has_value());
}

std::optional<OutputPin> CPropPageProgramAssociationTable::FreePin(const Mappable& component, HRESULT* result) {
    for (OutputPin& pin : TheFilter().OutputPins()) {
        const uint32_t kind = pin.Kind();
        if ((kind == 0 || kind == KindOf(component.content)) && !pin.IsConnected() && pin.Mapped().empty())
            return std::move(pin);
    }
    return TheFilter().CreatePin(u"PID " + Hex4(component.pid), result);
}

void CPropPageProgramAssociationTable::OnMap() {
    const auto component = SelectedComponent();
    if (!component)
        return;
    HRESULT result = S_OK;
    const auto pin = FreePin(*component, &result);
    if (!pin)
        return Dialog().MessageBox(u"There is no free pin, and none could be made: " + WhyNoPin(result));
    result = pin->Map({component->pid}, component->content);
    if (FAILED(result))
        return Dialog().MessageBox(u"Pin '" + pin->name + u"' does not take PID " + Hex4(component->pid) + u": " +
                                   WhyNotTaken(result, component->content));
    Dialog().SetText(kTableInfo, Hex4(component->pid) + u" is on pin '" + pin->name + u"'");
    SetDirty();
}

}  // namespace tessel
