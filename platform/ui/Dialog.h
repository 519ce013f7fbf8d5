// Dialogs that nobody draws: what a page and whoever shows it know of each other.
//
// A dialog belongs to the thread that made it, but for what others post to its page's queue. The owner
// plays the user (Click, TypeText, ...) and pumps the queue; the page answers by changing controls; the
// owner is told which, and reads their state. Sizes are in dialog units. Texts are what the page wrote,
// and that may be anything that a broadcaster sent.
#pragma once

#include <span>

#include "platform/com/Unknown.h"
#include "platform/os/MessageQueue.h"

struct RECT {
    LONG left = 0;
    LONG top = 0;
    LONG right = 0;
    LONG bottom = 0;
};
struct SIZE {
    LONG cx = 0;
    LONG cy = 0;
};

// Messages to a page; WM_USER and above are its own.
inline constexpr uint32_t WM_NOTIFY = 0x004E;      // lParam: an NMITEMACTIVATE
inline constexpr uint32_t WM_INITDIALOG = 0x0110;  // before the dialog is seen
inline constexpr uint32_t WM_COMMAND = 0x0111;     // wParam: control id, and what happened in the upper 16 bits
inline constexpr uint32_t WM_TIMER = 0x0113;       // wParam: the timer's id

// What happened to a control: in WM_COMMAND, and in WM_NOTIFY for list views.
inline constexpr uint32_t BN_CLICKED = 0;
inline constexpr uint32_t CBN_SELCHANGE = 1;
inline constexpr uint32_t EN_CHANGE = 0x0300;
inline constexpr uint32_t NM_CLICK = 0xFFFFFFFE;
inline constexpr uint32_t NM_KILLFOCUS = 0xFFFFFFF8;
inline constexpr uint32_t LVN_ITEMACTIVATE = 0xFFFFFF8E;

struct NMHDR {
    uintptr_t idFrom = 0;
    uint32_t code = 0;
};
struct NMITEMACTIVATE {
    NMHDR hdr;
    int32_t iItem = -1;
};

enum class ControlKind : int32_t {
    kStatic,
    kPushButton,
    kCheckBox,
    kRadioButton,  // at most one of a dialog is checked
    kEdit,
    kDropDownList,
    kListView,  // rows of cells under column titles; several rows may be selected
};

// A dialog as its page brings it.
struct ControlTemplate {
    int32_t id;
    ControlKind kind;
    RECT rect;
    const OLECHAR* text = u"";
    bool enabled = true;
};
struct DialogTemplate {
    int32_t id;
    SIZE size;
    std::span<const ControlTemplate> controls;
};

// What a control shows. Pointers hold until the dialog is called the next time.
struct ControlState {
    int32_t id = 0;
    ControlKind kind = ControlKind::kStatic;
    RECT rect;
    const OLECHAR* text = nullptr;  // a list view shows it while it has no rows
    BOOL enabled = 0;
    BOOL checked = 0;
    int32_t columns = 0;    // of a list view
    int32_t rows = 0;       // of a list view or a drop-down list, which has one cell a row
    int32_t selected = -1;  // the first selected row
};
struct RowState {
    intptr_t data = 0;  // the page's own
    BOOL selected = 0;
};

// Every call but the getters returns S_FALSE where a disabled control ignores it, E_INVALIDARG for a
// control, row or column that is not there or cannot do it, E_OUTOFMEMORY, and E_UNEXPECTED once the page
// has destroyed the dialog.
class IDialog : public IUnknown {
public:
    static constexpr IID kIid = MakeGuid("{A5744FEA-7C29-4751-BB92-B14AC1A849B4}");

    // Controls in tab order; E_INVALIDARG past the end.
    virtual HRESULT GetControl(int32_t index, ControlState* out) = 0;
    virtual HRESULT FindControl(int32_t id, ControlState* out) = 0;
    virtual HRESULT GetColumn(int32_t id, int32_t column, const OLECHAR** title) = 0;
    virtual HRESULT GetRow(int32_t id, int32_t row, RowState* out) = 0;
    virtual HRESULT GetCell(int32_t id, int32_t row, int32_t column, const OLECHAR** text) = 0;

    // The user's part: each changes the control as the user's hand would, then tells the page.
    virtual HRESULT Click(int32_t id) = 0;                                           // buttons
    virtual HRESULT TypeText(int32_t id, const OLECHAR* text) = 0;                   // edits: the whole text
    virtual HRESULT SelectRows(int32_t id, const int32_t* rows, int32_t count) = 0;  // lists; a drop-down: one
    virtual HRESULT ActivateRow(int32_t id, int32_t row) = 0;                        // list views: a double click
    virtual HRESULT LeaveControl(int32_t id) = 0;  // list views: another has the focus

    // Gives the page a message at once; its answer, and 0 once the dialog is destroyed.
    virtual intptr_t SendMessage(uint32_t message, uintptr_t wParam, intptr_t lParam) = 0;
    // Gives the page what was posted and the timers that are due; without any it waits for the first, and
    // returns S_FALSE when none has come in time.
    virtual HRESULT ProcessMessages(uint32_t milliseconds) = 0;

protected:
    ~IDialog() = default;
};

// The window that a dialog lies in, as its owner brings it. Called on the dialog's thread.
class IDialogParent {
public:
    virtual void OnDialogCreated(IDialog* dialog) = 0;
    // Once a control for each message that the page has worked on.
    virtual void OnControlChanged(int32_t id) = 0;
    // The page has to tell the user something.
    virtual void OnMessageBox(const OLECHAR* text) = 0;
    // The last call.
    virtual void OnDialogDestroyed() = 0;

protected:
    ~IDialogParent() = default;
};
