// The dialog behind IDialog: its controls, and what a page does with them.
#pragma once

#include <chrono>
#include <memory>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "platform/ui/Dialog.h"

// Who gets a dialog's messages.
class IDialogHandler {
public:
    virtual intptr_t HandleMessage(uint32_t message, uintptr_t wParam, intptr_t lParam) = 0;

protected:
    ~IDialogHandler() = default;
};

// A page's calls change controls and send the page nothing. Those with an id that is not there, or a row
// that is not there, do nothing and return nothing of use. They throw std::bad_alloc only.
class CDialogWindow final : public CUnknown, public IDialog {
public:
    // Row data of a row that is not there.
    static constexpr intptr_t kNoData = -1;

    // handler gets the messages until Destroy; the page and its dialog share queue.
    CDialogWindow(const DialogTemplate& dialog, IDialogHandler* handler, std::shared_ptr<CMessageQueue> queue);

    DECLARE_IUNKNOWN
    HRESULT NonDelegatingQueryInterface(const IID& iid, void** out) override;

    // Sends WM_INITDIALOG.
    HRESULT Initialise();
    // Shows the dialog to its parent, which hears of every change from then on.
    void Attach(IDialogParent* parent);
    // From then on there is neither a page nor a parent.
    void Destroy();

    // IDialog
    HRESULT GetControl(int32_t index, ControlState* out) override;
    HRESULT FindControl(int32_t id, ControlState* out) override;
    HRESULT GetColumn(int32_t id, int32_t column, const OLECHAR** title) override;
    HRESULT GetRow(int32_t id, int32_t row, RowState* out) override;
    HRESULT GetCell(int32_t id, int32_t row, int32_t column, const OLECHAR** text) override;
    HRESULT Click(int32_t id) override;
    HRESULT TypeText(int32_t id, const OLECHAR* text) override;
    HRESULT SelectRows(int32_t id, const int32_t* rows, int32_t count) override;
    HRESULT ActivateRow(int32_t id, int32_t row) override;
    HRESULT LeaveControl(int32_t id) override;
    intptr_t SendMessage(uint32_t message, uintptr_t wParam, intptr_t lParam) override;
    HRESULT ProcessMessages(uint32_t milliseconds) override;

    void SetText(int32_t id, std::u16string_view text);
    std::u16string Text(int32_t id) const;
    void Enable(int32_t id, bool enabled);
    void Check(int32_t id, bool checked);
    bool IsChecked(int32_t id) const;

    void AddColumn(int32_t id, std::u16string_view title);
    void ClearRows(int32_t id);
    // A row at the end; the first cell alone for a drop-down list.
    void AddRow(int32_t id, std::vector<std::u16string> cells, intptr_t data);
    void DeleteRow(int32_t id, int32_t row);
    int32_t RowCount(int32_t id) const;
    std::u16string CellText(int32_t id, int32_t row, int32_t column) const;
    intptr_t RowData(int32_t id, int32_t row) const;
    // -1 when none has it.
    int32_t FindRow(int32_t id, intptr_t data) const;
    // In ascending order.
    std::vector<int32_t> SelectedRows(int32_t id) const;
    // Of a drop-down list; kNoData when nothing is selected.
    intptr_t SelectedData(int32_t id) const;
    // -1: none.
    void SelectRow(int32_t id, int32_t row);

    // WM_TIMER comes every so many milliseconds while the owner pumps.
    void SetTimer(uintptr_t id, uint32_t milliseconds);
    void KillTimer(uintptr_t id);
    void MessageBox(std::u16string_view text);

private:
    using Clock = std::chrono::steady_clock;

    struct Row {
        std::vector<std::u16string> cells;
        intptr_t data;
        bool selected;
    };
    struct Control {
        int32_t id;
        ControlKind kind;
        RECT rect;
        std::u16string text;
        bool enabled;
        bool checked = false;
        std::vector<std::u16string> columns = {};
        std::vector<Row> rows = {};

        bool HasRow(int32_t row) const { return row >= 0 && static_cast<size_t>(row) < rows.size(); }
    };
    struct Timer {
        uintptr_t id;
        std::chrono::milliseconds period;
        Clock::time_point due;
    };

    // While one is there, changes wait to be told, and the dialog lives.
    class Work;

    const Control* Find(int32_t id) const;
    Control* Find(int32_t id);
    static int32_t FirstSelected(const Control& control);
    static ControlState StateOf(const Control& control);
    // S_OK when the user can use a control of that kind.
    HRESULT CheckUse(const Control* control, bool rightKind) const;
    HRESULT Command(int32_t id, uint32_t what);
    HRESULT Notify(int32_t id, uint32_t what, int32_t row);
    HRESULT Dispatch(uint32_t message, uintptr_t wParam, intptr_t lParam, intptr_t* answer);
    bool DispatchPosted();
    bool DispatchTimers();
    void Touch(int32_t id);
    void TellChanges();

    IDialogHandler* m_handler;
    IDialogParent* m_parent = nullptr;
    const std::shared_ptr<CMessageQueue> m_queue;
    std::vector<Control> m_controls;
    std::vector<Timer> m_timers;
    std::set<int32_t> m_changed;
    int32_t m_depth = 0;
};
