#include "proppages/TablePage.h"

#include "proppages/Resources.h"

namespace tessel {

using namespace page;

namespace {

constexpr uint32_t kRefreshMessage = WM_USER + 1;

}  // namespace

CTablePage::CTablePage(const char* name, IUnknown* outer, int32_t title)
    : CBasePropertyPage(name, outer, kTableDialog, StringResource(title)) {}

void CTablePage::Refresh() {
    const intptr_t before = Dialog().SelectedData(kTableChoice);
    Dialog().ClearRows(kTableChoice);
    for (Choice& choice : Choices())
        Dialog().AddRow(kTableChoice, {std::move(choice.text)}, choice.key);
    const int32_t same = Dialog().FindRow(kTableChoice, before);
    Dialog().SelectRow(kTableChoice, same >= 0 ? same : 0);
    RefillRows();
}

void CTablePage::RefillRows() {
    Dialog().ClearRows(kTableList);
    if (Dialog().RowCount(kTableChoice) > 0)
        FillRows(Dialog().SelectedData(kTableChoice));
    OnRowsSelected();
}

void CTablePage::PostRefresh() {
    if (!m_refreshPosted.exchange(true) && !PostToPage(kRefreshMessage))
        m_refreshPosted = false;
}

HRESULT CTablePage::AdviseEvents(IUnknown* sink) {
    m_refreshPosted = false;
    uint32_t cookie = 0;
    const HRESULT result = m_filter.information->AdviseEvents(sink, &cookie);
    if (SUCCEEDED(result))
        m_cookie = cookie;
    return result;
}

HRESULT CTablePage::OnDeactivate() {
    if (m_cookie)
        m_filter.information->UnadviseEvents(*m_cookie);
    m_cookie.reset();
    return S_OK;
}

HRESULT CTablePage::OnDisconnect() {
    m_filter.Disconnect();
    return S_OK;
}

void CTablePage::AddRow(std::vector<std::u16string> cells, intptr_t data) {
    Dialog().AddRow(kTableList, std::move(cells), data);
}

intptr_t CTablePage::OnReceiveMessage(uint32_t message, uintptr_t wParam, intptr_t lParam) {
    switch (message) {
    case WM_INITDIALOG:
        InitTable();
        Refresh();
        break;
    case kRefreshMessage:
        m_refreshPosted = false;
        Refresh();
        break;
    case WM_COMMAND:
        OnCommand(wParam & 0xFFFF, static_cast<uint32_t>(wParam >> 16));
        break;
    case WM_NOTIFY:
        if (const auto& notice = *reinterpret_cast<const NMITEMACTIVATE*>(lParam); notice.hdr.code == NM_CLICK)
            OnRowsSelected();
        break;
    default:
        return CBasePropertyPage::OnReceiveMessage(message, wParam, lParam);
    }
    return 1;
}

void CTablePage::OnCommand(uint32_t id, uint32_t what) {
    if (id == kTableChoice && what == CBN_SELCHANGE) {
        RefillRows();
    } else if (id == kUpdate || id == kOtherStreams) {
        Refresh();
    } else if (id == kReset) {
        m_filter.information->Reset();
        if (IsActive())  // the filter has told its clients
            Refresh();
    } else if (id == kTableMap) {
        OnMap();
    }
}

}  // namespace tessel
