#include "platform/ui/DialogWindow.h"

#include <algorithm>
#include <new>
#include <utility>

#include "platform/com/ComPtr.h"

class CDialogWindow::Work {
public:
    explicit Work(CDialogWindow& dialog) : m_dialog(dialog), m_keep(&dialog) { ++m_dialog.m_depth; }
    ~Work() {
        --m_dialog.m_depth;
        m_dialog.TellChanges();
    }

    Work(const Work&) = delete;
    Work& operator=(const Work&) = delete;

private:
    CDialogWindow& m_dialog;
    const ComPtr<IDialog> m_keep;
};

CDialogWindow::CDialogWindow(const DialogTemplate& dialog, IDialogHandler* handler,
                             std::shared_ptr<CMessageQueue> queue)
    : CUnknown("CDialogWindow", nullptr), m_handler(handler), m_queue(std::move(queue)) {
    for (const ControlTemplate& control : dialog.controls)
        m_controls.push_back({control.id, control.kind, control.rect, control.text, control.enabled});
}

HRESULT CDialogWindow::NonDelegatingQueryInterface(const IID& iid, void** out) {
    if (out != nullptr && iid == IDialog::kIid)
        return GetInterface<IDialog>(this, out);
    return CUnknown::NonDelegatingQueryInterface(iid, out);
}

HRESULT CDialogWindow::Initialise() {
    intptr_t answer = 0;
    return Dispatch(WM_INITDIALOG, 0, 0, &answer);
}

void CDialogWindow::Attach(IDialogParent* parent) {
    m_parent = parent;
    parent->OnDialogCreated(this);
}

void CDialogWindow::Destroy() {
    const ComPtr<IDialog> keep(this);
    m_handler = nullptr;
    m_timers.clear();
    if (IDialogParent* parent = std::exchange(m_parent, nullptr))
        parent->OnDialogDestroyed();
}

const CDialogWindow::Control* CDialogWindow::Find(int32_t id) const {
    const auto found =
        std::find_if(m_controls.begin(), m_controls.end(), [id](const Control& control) { return control.id == id; });
    return found != m_controls.end() ? &*found : nullptr;
}

CDialogWindow::Control* CDialogWindow::Find(int32_t id) {
    return const_cast<Control*>(std::as_const(*this).Find(id));
}

int32_t CDialogWindow::FirstSelected(const Control& control) {
    const auto found =
        std::find_if(control.rows.begin(), control.rows.end(), [](const Row& row) { return row.selected; });
    return found != control.rows.end() ? static_cast<int32_t>(found - control.rows.begin()) : -1;
}

ControlState CDialogWindow::StateOf(const Control& control) {
    ControlState state;
    state.id = control.id;
    state.kind = control.kind;
    state.rect = control.rect;
    state.text = control.text.c_str();
    state.enabled = control.enabled;
    state.checked = control.checked;
    state.columns = static_cast<int32_t>(control.columns.size());
    state.rows = static_cast<int32_t>(control.rows.size());
    state.selected = FirstSelected(control);
    return state;
}

HRESULT CDialogWindow::GetControl(int32_t index, ControlState* out) {
    if (out == nullptr)
        return E_POINTER;
    if (index < 0 || static_cast<size_t>(index) >= m_controls.size())
        return E_INVALIDARG;
    *out = StateOf(m_controls[static_cast<size_t>(index)]);
    return S_OK;
}

HRESULT CDialogWindow::FindControl(int32_t id, ControlState* out) {
    if (out == nullptr)
        return E_POINTER;
    const Control* control = Find(id);
    if (control == nullptr)
        return E_INVALIDARG;
    *out = StateOf(*control);
    return S_OK;
}

HRESULT CDialogWindow::GetColumn(int32_t id, int32_t column, const OLECHAR** title) {
    if (title == nullptr)
        return E_POINTER;
    *title = nullptr;
    const Control* control = Find(id);
    if (control == nullptr || column < 0 || static_cast<size_t>(column) >= control->columns.size())
        return E_INVALIDARG;
    *title = control->columns[static_cast<size_t>(column)].c_str();
    return S_OK;
}

HRESULT CDialogWindow::GetRow(int32_t id, int32_t row, RowState* out) {
    if (out == nullptr)
        return E_POINTER;
    const Control* control = Find(id);
    if (control == nullptr || !control->HasRow(row))
        return E_INVALIDARG;
    const Row& found = control->rows[static_cast<size_t>(row)];
    out->data = found.data;
    out->selected = found.selected;
    return S_OK;
}

HRESULT CDialogWindow::GetCell(int32_t id, int32_t row, int32_t column, const OLECHAR** text) {
    if (text == nullptr)
        return E_POINTER;
    *text = nullptr;
    const Control* control = Find(id);
    if (control == nullptr || !control->HasRow(row) || column < 0)
        return E_INVALIDARG;
    const auto& cells = control->rows[static_cast<size_t>(row)].cells;
    if (static_cast<size_t>(column) >= cells.size())
        return E_INVALIDARG;
    *text = cells[static_cast<size_t>(column)].c_str();
    return S_OK;
}

HRESULT CDialogWindow::CheckUse(const Control* control, bool rightKind) const {
    if (m_handler == nullptr)
        return E_UNEXPECTED;
    if (control == nullptr || !rightKind)
        return E_INVALIDARG;
    return control->enabled ? S_OK : S_FALSE;
}

HRESULT CDialogWindow::Click(int32_t id) {
    const Work work(*this);
    Control* control = Find(id);
    const bool radio = control != nullptr && control->kind == ControlKind::kRadioButton;
    const bool box = control != nullptr && control->kind == ControlKind::kCheckBox;
    const bool button = control != nullptr && control->kind == ControlKind::kPushButton;
    if (const HRESULT use = CheckUse(control, radio || box || button); use != S_OK)
        return use;
    if (box)
        Check(id, !control->checked);
    if (radio)
        Check(id, true);
    return Command(id, BN_CLICKED);
}

HRESULT CDialogWindow::TypeText(int32_t id, const OLECHAR* text) {
    const Work work(*this);
    if (text == nullptr)
        return E_POINTER;
    const Control* control = Find(id);
    const HRESULT use = CheckUse(control, control != nullptr && control->kind == ControlKind::kEdit);
    if (use != S_OK)
        return use;
    try {
        SetText(id, text);
    } catch (const std::bad_alloc&) {
        return E_OUTOFMEMORY;
    }
    return Command(id, EN_CHANGE);
}

HRESULT CDialogWindow::SelectRows(int32_t id, const int32_t* rows, int32_t count) {
    const Work work(*this);
    Control* control = Find(id);
    const bool dropDown = control != nullptr && control->kind == ControlKind::kDropDownList;
    const bool list = control != nullptr && control->kind == ControlKind::kListView;
    if (const HRESULT use = CheckUse(control, (dropDown && count == 1) || (list && count >= 0)); use != S_OK)
        return use;
    if (rows == nullptr && count > 0)
        return E_POINTER;
    const std::span<const int32_t> chosen(rows, static_cast<size_t>(count));
    if (!std::all_of(chosen.begin(), chosen.end(), [control](int32_t row) { return control->HasRow(row); }))
        return E_INVALIDARG;
    for (Row& row : control->rows)
        row.selected = false;
    for (const int32_t row : chosen)
        control->rows[static_cast<size_t>(row)].selected = true;
    Touch(id);
    return dropDown ? Command(id, CBN_SELCHANGE) : Notify(id, NM_CLICK, FirstSelected(*control));
}

HRESULT CDialogWindow::ActivateRow(int32_t id, int32_t row) {
    const Work work(*this);
    const Control* control = Find(id);
    const HRESULT use = CheckUse(control, control != nullptr && control->kind == ControlKind::kListView);
    if (use != S_OK)
        return use;
    if (!control->HasRow(row))
        return E_INVALIDARG;
    SelectRow(id, row);
    return Notify(id, LVN_ITEMACTIVATE, row);
}

HRESULT CDialogWindow::LeaveControl(int32_t id) {
    const Control* control = Find(id);
    const HRESULT use = CheckUse(control, control != nullptr && control->kind == ControlKind::kListView);
    return use == S_OK ? Notify(id, NM_KILLFOCUS, -1) : use;
}

HRESULT CDialogWindow::Command(int32_t id, uint32_t what) {
    intptr_t answer = 0;
    return Dispatch(WM_COMMAND, what << 16 | static_cast<uint32_t>(id), 0, &answer);
}

HRESULT CDialogWindow::Notify(int32_t id, uint32_t what, int32_t row) {
    const NMITEMACTIVATE notice{{static_cast<uintptr_t>(id), what}, row};
    intptr_t answer = 0;
    return Dispatch(WM_NOTIFY, static_cast<uintptr_t>(id), reinterpret_cast<intptr_t>(&notice), &answer);
}

intptr_t CDialogWindow::SendMessage(uint32_t message, uintptr_t wParam, intptr_t lParam) {
    intptr_t answer = 0;
    Dispatch(message, wParam, lParam, &answer);
    return answer;
}

HRESULT CDialogWindow::Dispatch(uint32_t message, uintptr_t wParam, intptr_t lParam, intptr_t* answer) {
    if (m_handler == nullptr)
        return E_UNEXPECTED;
    const Work work(*this);
    try {
        *answer = m_handler->HandleMessage(message, wParam, lParam);
        return S_OK;
    } catch (const std::bad_alloc&) {
        return E_OUTOFMEMORY;
    }
}

bool CDialogWindow::DispatchPosted() {
    // No more than fit the queue, so that a page that posts to itself cannot hold its owner.
    bool any = false;
    MSG message;
    for (size_t i = 0; i < CMessageQueue::kMaxMessages && m_handler != nullptr && m_queue->Peek(&message, true); ++i) {
        SendMessage(message.message, message.wParam, message.lParam);
        any = true;
    }
    return any;
}

bool CDialogWindow::DispatchTimers() {
    const Clock::time_point now = Clock::now();
    std::vector<uintptr_t> due;
    for (Timer& timer : m_timers) {
        if (timer.due > now)
            continue;
        timer.due = now + timer.period;
        due.push_back(timer.id);
    }
    for (const uintptr_t id : due)
        SendMessage(WM_TIMER, id, 0);
    return !due.empty();
}

HRESULT CDialogWindow::ProcessMessages(uint32_t milliseconds) {
    const ComPtr<IDialog> keep(this);
    const Clock::time_point begin = Clock::now();
    for (;;) {
        if (m_handler == nullptr)
            return E_UNEXPECTED;
        try {
            const bool posted = DispatchPosted();
            if (DispatchTimers() || posted)
                return S_OK;
        } catch (const std::bad_alloc&) {
            return E_OUTOFMEMORY;
        }
        const Clock::time_point now = Clock::now();
        const auto spent = std::chrono::duration_cast<std::chrono::milliseconds>(now - begin).count();
        if (milliseconds != INFINITE && spent >= int64_t{milliseconds})
            return S_FALSE;
        uint32_t wait = milliseconds == INFINITE ? INFINITE : milliseconds - static_cast<uint32_t>(spent);
        for (const Timer& timer : m_timers) {
            const auto left = std::chrono::ceil<std::chrono::milliseconds>(timer.due - now).count();
            wait = std::min(wait, static_cast<uint32_t>(std::max<int64_t>(left, 0)));
        }
        m_queue->Wait(wait);
    }
}

void CDialogWindow::Touch(int32_t id) {
    m_changed.insert(id);
    if (m_depth == 0)
        TellChanges();
}

void CDialogWindow::TellChanges() {
    if (m_depth != 0)
        return;
    for (const int32_t id : std::exchange(m_changed, {}))
        // The parent may have the page go at any of them.
        if (m_parent != nullptr)
            m_parent->OnControlChanged(id);
}

void CDialogWindow::SetText(int32_t id, std::u16string_view text) {
    Control* control = Find(id);
    if (control == nullptr || control->text == text)
        return;
    control->text = text;
    Touch(id);
}

std::u16string CDialogWindow::Text(int32_t id) const {
    const Control* control = Find(id);
    return control != nullptr ? control->text : std::u16string();
}

void CDialogWindow::Enable(int32_t id, bool enabled) {
    Control* control = Find(id);
    if (control == nullptr || control->enabled == enabled)
        return;
    control->enabled = enabled;
    Touch(id);
}

void CDialogWindow::Check(int32_t id, bool checked) {
    Control* control = Find(id);
    if (control == nullptr)
        return;
    if (checked && control->kind == ControlKind::kRadioButton)
        for (Control& other : m_controls)
            if (other.kind == ControlKind::kRadioButton && other.checked && other.id != id) {
                other.checked = false;
                Touch(other.id);
            }
    if (control->checked == checked)
        return;
    control->checked = checked;
    Touch(id);
}

bool CDialogWindow::IsChecked(int32_t id) const {
    const Control* control = Find(id);
    return control != nullptr && control->checked;
}

void CDialogWindow::AddColumn(int32_t id, std::u16string_view title) {
    Control* control = Find(id);
    if (control == nullptr)
        return;
    control->columns.emplace_back(title);
    Touch(id);
}

void CDialogWindow::ClearRows(int32_t id) {
    Control* control = Find(id);
    if (control == nullptr || control->rows.empty())
        return;
    control->rows.clear();
    Touch(id);
}

void CDialogWindow::AddRow(int32_t id, std::vector<std::u16string> cells, intptr_t data) {
    Control* control = Find(id);
    if (control == nullptr)
        return;
    control->rows.push_back({std::move(cells), data, false});
    Touch(id);
}

void CDialogWindow::DeleteRow(int32_t id, int32_t row) {
    Control* control = Find(id);
    if (control == nullptr || !control->HasRow(row))
        return;
    control->rows.erase(control->rows.begin() + row);
    Touch(id);
}

int32_t CDialogWindow::RowCount(int32_t id) const {
    const Control* control = Find(id);
    return control != nullptr ? static_cast<int32_t>(control->rows.size()) : 0;
}

std::u16string CDialogWindow::CellText(int32_t id, int32_t row, int32_t column) const {
    const Control* control = Find(id);
    if (control == nullptr || !control->HasRow(row) || column < 0)
        return {};
    const auto& cells = control->rows[static_cast<size_t>(row)].cells;
    return static_cast<size_t>(column) < cells.size() ? cells[static_cast<size_t>(column)] : std::u16string();
}

intptr_t CDialogWindow::RowData(int32_t id, int32_t row) const {
    const Control* control = Find(id);
    return control != nullptr && control->HasRow(row) ? control->rows[static_cast<size_t>(row)].data : kNoData;
}

int32_t CDialogWindow::FindRow(int32_t id, intptr_t data) const {
    const Control* control = Find(id);
    if (control == nullptr)
        return -1;
    const auto found =
        std::find_if(control->rows.begin(), control->rows.end(), [data](const Row& row) { return row.data == data; });
    return found != control->rows.end() ? static_cast<int32_t>(found - control->rows.begin()) : -1;
}

std::vector<int32_t> CDialogWindow::SelectedRows(int32_t id) const {
    std::vector<int32_t> selected;
    if (const Control* control = Find(id))
        for (size_t i = 0; i < control->rows.size(); ++i)
            if (control->rows[i].selected)
                selected.push_back(static_cast<int32_t>(i));
    return selected;
}

intptr_t CDialogWindow::SelectedData(int32_t id) const {
    const Control* control = Find(id);
    return control != nullptr ? RowData(id, FirstSelected(*control)) : kNoData;
}

void CDialogWindow::SelectRow(int32_t id, int32_t row) {
    Control* control = Find(id);
    if (control == nullptr)
        return;
    for (size_t i = 0; i < control->rows.size(); ++i)
        control->rows[i].selected = static_cast<int32_t>(i) == row;
    Touch(id);
}

void CDialogWindow::SetTimer(uintptr_t id, uint32_t milliseconds) {
    KillTimer(id);
    const std::chrono::milliseconds period(milliseconds);
    m_timers.push_back({id, period, Clock::now() + period});
}

void CDialogWindow::KillTimer(uintptr_t id) {
    std::erase_if(m_timers, [id](const Timer& timer) { return timer.id == id; });
}

void CDialogWindow::MessageBox(std::u16string_view text) {
    if (m_parent != nullptr)
        m_parent->OnMessageBox(std::u16string(text).c_str());
}
