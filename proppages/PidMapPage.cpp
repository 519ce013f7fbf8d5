#include <algorithm>

#include "core/stream/TsHeader.h"
#include "proppages/PageText.h"
#include "proppages/PinPages.h"
#include "proppages/Resources.h"

namespace tessel {

using namespace page;

namespace {

// The PIDs below carry tables, ISO/IEC 13818-1 table 2-3; pins deliver no elementary stream of them.
constexpr ULONG kFirstStreamPid = 0x10;

}  // namespace

CPropPagePIDmapping::CPropPagePIDmapping(IUnknown* outer)
    : CBasePropertyPage("CPropPagePIDmapping", outer, kPidMapDialog, StringResource(kStringPidMap)) {}

HRESULT CPropPagePIDmapping::OnDisconnect() {
    m_filter.Disconnect();
    m_pin.clear();
    m_pids.clear();
    return S_OK;
}

intptr_t CPropPagePIDmapping::OnReceiveMessage(uint32_t message, uintptr_t wParam, intptr_t lParam) {
    switch (message) {
    case WM_INITDIALOG:
        Init();
        break;
    case WM_COMMAND:
        OnCommand(wParam & 0xFFFF, static_cast<uint32_t>(wParam >> 16));
        break;
    case WM_NOTIFY: {
        const auto& notice = *reinterpret_cast<const NMITEMACTIVATE*>(lParam);
        OnNotify(static_cast<uint32_t>(notice.hdr.idFrom), notice.hdr.code);
        break;
    }
    default:
        return CBasePropertyPage::OnReceiveMessage(message, wParam, lParam);
    }
    return 1;
}

void CPropPagePIDmapping::Init() {
    for (const int32_t list : {kFreePids, kMappedPids}) {
        Dialog().AddColumn(list, u"PID");
        Dialog().AddColumn(list, u"Content");
    }
    Dialog().AddRow(kContent, {u"Transport packets"}, MEDIA_TRANSPORT_PACKET);
    Dialog().AddRow(kContent, {u"Elementary stream"}, MEDIA_ELEMENTARY_STREAM);
    Dialog().AddRow(kContent, {u"PSI sections"}, MEDIA_MPEG2_PSI);
    Dialog().SelectRow(kContent, 0);
    m_pidTyped = false;
    Refill();
}

void CPropPagePIDmapping::OnCommand(uint32_t id, uint32_t what) {
    if (id == kPinChoice && what == CBN_SELCHANGE) {
        const auto chosen = Dialog().SelectedRows(kPinChoice);
        ChoosePin(chosen.empty() ? std::u16string() : Dialog().CellText(kPinChoice, chosen[0], 0));
    } else if ((id == kContent && what == CBN_SELCHANGE) || (id == kPinName && what == EN_CHANGE)) {
        FillPids();
    } else if (id == kPid && what == EN_CHANGE) {
        m_pidTyped = !Trimmed(Dialog().Text(kPid)).empty();
        FillPids();
    } else if (id == kUpdate) {
        Refill();
    } else if (id == kMap) {
        Map();
    } else if (id == kUnmap) {
        Unmap();
    }
}

void CPropPagePIDmapping::OnNotify(uint32_t id, uint32_t what) {
    const bool selected = !Dialog().SelectedRows(static_cast<int32_t>(id)).empty();
    if (id == kFreePids && selected && what != NM_KILLFOCUS)
        m_pidTyped = false;
    UpdateButtons();
    if (what == LVN_ITEMACTIVATE && id == kFreePids)
        Map();
    else if (what == LVN_ITEMACTIVATE && id == kMappedPids)
        Unmap();
}

void CPropPagePIDmapping::UpdateButtons() {
    Dialog().Enable(kMap, m_pidTyped || !Dialog().SelectedRows(kFreePids).empty());
    Dialog().Enable(kUnmap, !Dialog().SelectedRows(kMappedPids).empty());
}

void CPropPagePIDmapping::Refill() {
    Dialog().ClearRows(kPinChoice);
    int32_t chosen = 0;
    int32_t row = 0;
    for (const OutputPin& pin : m_filter.OutputPins()) {
        Dialog().AddRow(kPinChoice, {pin.name}, row);
        if (pin.name == m_pin)
            chosen = row;
        ++row;
    }
    Dialog().SelectRow(kPinChoice, chosen);
    ChoosePin(Dialog().CellText(kPinChoice, chosen, 0));
}

void CPropPagePIDmapping::ChoosePin(const std::u16string& name) {
    if (m_pin != name) {
        // What the pin before it delivers is no choice for this one.
        const auto pin = FindPin(name);
        const uint32_t kind = pin ? pin->Kind() : 0;
        Dialog().SelectRow(kContent, kind != 0 ? static_cast<int32_t>(kind) - 1 : 0);
    }
    m_pin = name;
    FillPids();
}

std::optional<OutputPin> CPropPagePIDmapping::FindPin(const std::u16string& name) {
    for (OutputPin& pin : m_filter.OutputPins())
        if (pin.name == name)
            return std::move(pin);
    return std::nullopt;
}

MEDIA_SAMPLE_CONTENT CPropPagePIDmapping::Content() {
    return static_cast<MEDIA_SAMPLE_CONTENT>(Dialog().SelectedData(kContent));
}

void CPropPagePIDmapping::FillPids() {
    const auto pin = FindPin(m_pin);
    m_pids = pin ? pin->Mapped() : std::set<uint32_t>();
    ShowContent();
    const auto texts = PidTexts(m_filter);
    Dialog().ClearRows(kMappedPids);
    for (const uint32_t pid : m_pids) {
        const auto text = texts.find(pid);
        Dialog().AddRow(kMappedPids, {PidText(pid), text != texts.end() ? text->second : std::u16string()}, pid);
    }
    FillFreePids(Content(), texts);
    UpdateButtons();
}

std::u16string CPropPagePIDmapping::PinNameToMapOn() {
    const std::u16string typed(Trimmed(Dialog().Text(kPinName)));
    return typed.empty() ? m_pin : typed;
}

void CPropPagePIDmapping::ShowContent() {
    // What a pin in use delivers is not the user's to choose.
    const auto pin = FindPin(PinNameToMapOn());
    const uint32_t kind = pin ? pin->Kind() : 0;
    const bool fixed = kind != 0 && (pin->IsConnected() || !pin->Mapped().empty());
    if (fixed)
        Dialog().SelectRow(kContent, static_cast<int32_t>(kind) - 1);
    Dialog().Enable(kContent, !fixed);
}

void CPropPagePIDmapping::FillFreePids(MEDIA_SAMPLE_CONTENT content, const std::map<ULONG, std::u16string>& texts) {
    Dialog().ClearRows(kFreePids);
    const auto add = [this](ULONG pid, const std::u16string& text) {
        if (!m_pids.contains(pid))
            Dialog().AddRow(kFreePids, {PidText(pid), text}, pid);
    };
    if (content == MEDIA_TRANSPORT_PACKET)
        add(ALL_PIDS, {});
    if (content != MEDIA_ELEMENTARY_STREAM)
        add(ALL_TABLES, {});
    for (ULONG pid = content == MEDIA_ELEMENTARY_STREAM ? kFirstStreamPid : 0; pid < kPidCount; ++pid) {
        const auto text = texts.find(pid);
        if (text != texts.end())
            add(pid, text->second);
        else if (m_filter.HasPackets(pid))
            add(pid, {});
    }
}

std::optional<std::vector<ULONG>> CPropPagePIDmapping::PidsToMap() {
    if (m_pidTyped) {
        const std::u16string text = Dialog().Text(kPid);
        if (const auto pid = ReadPid(text))
            return std::vector<ULONG>{*pid};
        Dialog().MessageBox(u"'" + text + u"' is not a PID. A PID is a hexadecimal number up to 1fff, \"" +
                            PidText(ALL_PIDS) + u"\" or \"" + PidText(ALL_TABLES) + u"\".");
        return std::nullopt;
    }
    std::vector<ULONG> pids;
    for (const int32_t row : Dialog().SelectedRows(kFreePids))
        pids.push_back(static_cast<ULONG>(Dialog().RowData(kFreePids, row)));
    return pids.empty() ? std::nullopt : std::optional(std::move(pids));
}

std::optional<OutputPin> CPropPagePIDmapping::PinToMapOn(bool* created) {
    const std::u16string name = PinNameToMapOn();
    if (auto pin = FindPin(name))
        return pin;
    if (Trimmed(Dialog().Text(kPinName)).empty()) {
        Dialog().MessageBox(u"The chosen pin is not there any more.");
        return std::nullopt;
    }
    HRESULT result = S_OK;
    auto pin = m_filter.CreatePin(name, &result);
    if (!pin)
        Dialog().MessageBox(u"Pin '" + name + u"' could not be made: " + WhyNoPin(result));
    *created = pin.has_value();
    return pin;
}

void CPropPagePIDmapping::Map() {
    const auto pids = PidsToMap();
    bool created = false;
    const auto pin = pids ? PinToMapOn(&created) : std::nullopt;
    if (!pin)
        return;
    const HRESULT result = pin->Map(*pids, Content());
    if (FAILED(result)) {
        const std::u16string content = Dialog().CellText(kContent, Dialog().FindRow(kContent, Content()), 0);
        if (created)
            m_filter.demultiplexer->DeleteOutputPin(pin->name.c_str());
        Refill();
        return Dialog().MessageBox(u"Pin '" + pin->name + u"' does not take the PIDs as " + content + u": " +
                                   WhyNotTaken(result, Content()));
    }
    m_pin = pin->name;
    m_pidTyped = false;
    Dialog().SetText(kPid, {});
    Dialog().SetText(kPinName, {});
    Refill();
    SetDirty();
}

void CPropPagePIDmapping::Unmap() {
    const auto pin = FindPin(m_pin);
    auto rows = Dialog().SelectedRows(kMappedPids);
    if (!pin || rows.empty())
        return;
    std::vector<ULONG> pids;
    std::reverse(rows.begin(), rows.end());  // so that the numbers of those to come stay right
    for (const int32_t row : rows) {
        const auto pid = static_cast<ULONG>(Dialog().RowData(kMappedPids, row));
        pids.push_back(pid);
        m_pids.erase(pid);
        Dialog().DeleteRow(kMappedPids, row);
    }
    pin->Unmap(pids);
    FillPids();
    SetDirty();
}

}  // namespace tessel
