#include "core/stream/TsHeader.h"
#include "proppages/PageText.h"
#include "proppages/PinPages.h"
#include "proppages/Resources.h"

namespace tessel {

using namespace page;

namespace {

constexpr uintptr_t kTimer = 1;
constexpr uint32_t kTimerPeriod = 1000;

}  // namespace

CPropPageTSPin::CPropPageTSPin(IUnknown* outer)
    : CBasePropertyPage("CPropPageTSPin", outer, kOutputPinsDialog, StringResource(kStringOutPins)) {}

HRESULT CPropPageTSPin::OnDisconnect() {
    m_filter.Disconnect();
    return S_OK;
}

HRESULT CPropPageTSPin::OnActivate() {
    Dialog().SetTimer(kTimer, kTimerPeriod);
    return S_OK;
}

intptr_t CPropPageTSPin::OnReceiveMessage(uint32_t message, uintptr_t wParam, intptr_t lParam) {
    if (message == WM_INITDIALOG) {
        for (const OLECHAR* title : {u"PID Found", u"Scrambled", u"Mapped"})
            Dialog().AddColumn(kPinPids, title);
        m_pin = 0;
        m_rows.clear();
        Dialog().Check(kFirstPin, true);
    } else if (message == WM_COMMAND) {
        const auto button = static_cast<int32_t>(wParam & 0xFFFF) - kFirstPin;
        if (button < 0 || button >= kPinButtons)
            return 0;
        m_pin = static_cast<size_t>(button);
    } else if (message != WM_TIMER) {
        return CBasePropertyPage::OnReceiveMessage(message, wParam, lParam);
    }
    Refresh();
    return 1;
}

void CPropPageTSPin::Refresh() {
    const std::vector<OutputPin> pins = m_filter.OutputPins();
    for (int32_t i = 0; i < kPinButtons; ++i)
        Dialog().Enable(kFirstPin + i, static_cast<size_t>(i) < pins.size());
    const std::set<ULONG> mapped = m_pin < pins.size() ? pins[m_pin].Mapped() : std::set<ULONG>();

    std::vector<PidRow> rows;
    for (ULONG pid = 0; pid < kPidCount; ++pid) {
        const PidRow row{pid, m_filter.HasPackets(pid), m_filter.IsScrambled(pid), mapped.contains(pid)};
        if (row.found || row.mapped)
            rows.push_back(row);
    }
    // Special values, and whatever else a client has mapped.
    for (auto pid = mapped.lower_bound(kPidCount); pid != mapped.end(); ++pid)
        rows.push_back({*pid, false, false, true});
    if (rows == m_rows)
        return;
    m_rows = std::move(rows);
    Dialog().ClearRows(kPinPids);
    for (const PidRow& row : m_rows) {
        const std::u16string pid = PidText(row.pid);
        Dialog().AddRow(kPinPids, {row.found ? pid : u"", row.scrambled ? u"Scrambled" : u"", row.mapped ? pid : u""},
                        row.pid);
    }
}

}  // namespace tessel
