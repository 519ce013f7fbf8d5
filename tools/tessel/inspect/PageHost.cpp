#include "tools/tessel/inspect/PageHost.h"

#include <algorithm>
#include <functional>

#include "platform/com/TaskMemory.h"
#include "proppages/Resources.h"
#include "tools/tessel/Pipeline.h"
#include "tools/tessel/Utf8.h"

namespace tessel::tool {

namespace {

constexpr size_t kMostTyped = 256;
constexpr HRESULT kStale = E_ABORT;

const char* KindName(ControlKind kind) {
    switch (kind) {
    case ControlKind::kStatic:
        return "text";
    case ControlKind::kPushButton:
        return "button";
    case ControlKind::kCheckBox:
        return "check";
    case ControlKind::kRadioButton:
        return "radio";
    case ControlKind::kEdit:
        return "edit";
    case ControlKind::kDropDownList:
        return "choice";
    case ControlKind::kListView:
        return "list";
    }
    return "text";
}

std::u16string_view View(const OLECHAR* text) {
    return text != nullptr ? std::u16string_view(text) : std::u16string_view();
}

// The lines of what the page itself laid out in lines.
std::string ShownLines(std::u16string_view text) {
    std::string shown;
    for (;;) {
        const size_t end = std::min(text.find(u'\n'), text.size());
        shown += ShownText(text.substr(0, end));
        if (end == text.size())
            return shown;
        shown += '\n';
        text.remove_prefix(end + 1);
    }
}

}  // namespace

std::string ShownText(std::u16string_view text) {
    return ToTerminal(ToUtf8(text));
}

std::u16string TypedText(const std::string& utf8) {
    std::u16string text;
    for (size_t i = 0; i < utf8.size() && utf8[i] != '\0';) {
        const auto first = static_cast<uint8_t>(utf8[i]);
        const size_t length = first < 0x80 ? 1 : first < 0xE0 ? 2 : first < 0xF0 ? 3 : 4;
        if (i + length > utf8.size() || text.size() + 2 > kMostTyped)
            break;
        char32_t c = length == 1 ? first : first & (0x7F >> length);
        for (size_t k = 1; k < length; ++k)
            c = c << 6 | (static_cast<uint8_t>(utf8[i + k]) & 0x3F);
        if (c >= 0x10000) {
            text += static_cast<char16_t>(0xD7C0 + (c >> 10));
            text += static_cast<char16_t>(0xDC00 + (c & 0x3FF));
        } else {
            text += static_cast<char16_t>(c);
        }
        i += length;
    }
    return text;
}

PageHost::PageHost(std::string key, PageCreator create, IUnknown* filter) : m_key(std::move(key)) {
    HRESULT result = S_OK;
    CUnknown* made = create(nullptr, &result);
    Check(result, "cannot make a page");
    // The first reference; the page comes with none.
    ComPtr<IUnknown> object;
    made->NonDelegatingQueryInterface(IUnknown::kIid, reinterpret_cast<void**>(object.Put()));
    m_page = object.As<IPropertyPage>();
    Check(m_page ? m_page->SetObjects(1, &filter) : E_NOINTERFACE, "cannot give a page the splitter");
    PROPPAGEINFO info;
    Check(m_page->GetPageInfo(&info), "cannot ask a page");
    m_title = ShownText(View(info.pszTitle));
    m_size = info.size;
    CoTaskMemFree(info.pszTitle);
    const RECT rect{0, 0, m_size.cx, m_size.cy};
    Check(m_page->Activate(this, &rect, 0), "cannot show a page");
}

PageHost::~PageHost() {
    m_page->Deactivate();
    m_page->SetObjects(0, nullptr);
}

void PageHost::Pump() {
    m_dialog->ProcessMessages(0);
}

void PageHost::OnMessageBox(const OLECHAR* text) {
    m_messages.push_back(ShownLines(View(text)));
}

std::vector<std::string> PageHost::TakeMessages() {
    return std::exchange(m_messages, {});
}

ControlState PageHost::State(int32_t control) const {
    ControlState state;
    m_dialog->FindControl(control, &state);
    return state;
}

std::string PageHost::Text(int32_t control) const {
    return ToUtf8(View(State(control).text));
}

std::vector<std::u16string> PageHost::Cells(int32_t control, int32_t row) const {
    std::vector<std::u16string> cells;
    const OLECHAR* text = nullptr;
    for (int32_t column = 0; m_dialog->GetCell(control, row, column, &text) == S_OK; ++column)
        cells.emplace_back(text);
    return cells;
}

void PageHost::Update(int32_t list) {
    ControlState state;
    if (m_dialog->FindControl(list, &state) != S_OK)
        return;
    const std::vector<std::u16string> selected = Cells(list, state.selected);
    m_dialog->Click(page::kUpdate);
    for (int32_t row = 0; !selected.empty() && row < State(list).rows; ++row)
        if (Cells(list, row) == selected) {
            m_dialog->SelectRows(list, &row, 1);
            return;
        }
}

int32_t PageHost::FindRow(int32_t control, std::u16string_view text) const {
    const OLECHAR* cell = nullptr;
    for (int32_t row = 0; m_dialog->GetCell(control, row, 0, &cell) == S_OK; ++row)
        if (View(cell) == text)
            return row;
    return -1;
}

// Tells rows that a browser has seen from those that are there now.
uint64_t PageHost::Revision(int32_t control) const {
    const ControlState state = State(control);
    size_t revision = static_cast<size_t>(state.rows);
    const auto mix = [&revision](size_t value) { revision = (revision ^ value) * 0x100000001B3; };
    for (int32_t row = 0; row < state.rows; ++row) {
        const OLECHAR* text = nullptr;
        for (int32_t column = 0; m_dialog->GetCell(control, row, column, &text) == S_OK; ++column)
            mix(std::hash<std::u16string_view>()(View(text)));
    }
    return revision & 0xFFFFFFFFFFFF;  // what a browser's numbers hold
}

Json PageHost::Snapshot() {
    m_changed = false;
    Json controls = Json::array();
    ControlState state;
    for (int32_t i = 0; m_dialog->GetControl(i, &state) == S_OK; ++i)
        controls.push_back(ControlAsJson(state));
    return {{"key", m_key}, {"title", m_title}, {"width", m_size.cx}, {"controls", std::move(controls)}};
}

Json PageHost::ControlAsJson(const ControlState& state) const {
    const bool edit = state.kind == ControlKind::kEdit;
    Json control = {
        {"id", state.id},
        {"kind", KindName(state.kind)},
        {"rect", {state.rect.left, state.rect.top, state.rect.right, state.rect.bottom}},
        {"text", edit ? ToUtf8(View(state.text)) : ShownLines(View(state.text))},  // what was typed is the user's own
        {"enabled", state.enabled != 0},
        {"checked", state.checked != 0},
    };
    if (state.kind == ControlKind::kListView || state.kind == ControlKind::kDropDownList)
        AddList(control, state);
    return control;
}

void PageHost::AddList(Json& control, const ControlState& state) const {
    const int32_t id = state.id;
    const OLECHAR* text = nullptr;
    Json columns = Json::array(), rows = Json::array(), selected = Json::array();
    for (int32_t column = 0; m_dialog->GetColumn(id, column, &text) == S_OK; ++column)
        columns.push_back(ShownText(View(text)));
    const int32_t rowCount = state.rows;
    for (int32_t row = 0; row < rowCount; ++row) {
        Json cells = Json::array();
        for (int32_t column = 0; m_dialog->GetCell(id, row, column, &text) == S_OK; ++column)
            cells.push_back(ShownText(View(text)));
        rows.push_back(std::move(cells));
        RowState rowState;
        if (m_dialog->GetRow(id, row, &rowState) == S_OK && rowState.selected)
            selected.push_back(row);
    }
    control["columns"] = std::move(columns);
    control["rows"] = std::move(rows);
    control["selected"] = std::move(selected);
    control["rev"] = Revision(id);
}

HRESULT PageHost::Select(int32_t control, const Json& rows, uint64_t revision, bool activate) {
    if (revision != Revision(control))
        return kStale;
    std::vector<int32_t> numbers;
    for (const Json& row : rows)
        numbers.push_back(row.get<int32_t>());
    if (activate)
        return numbers.size() == 1 ? m_dialog->ActivateRow(control, numbers[0]) : E_INVALIDARG;
    return m_dialog->SelectRows(control, numbers.data(), static_cast<int32_t>(numbers.size()));
}

HRESULT PageHost::Play(int32_t control, const std::string& action, const Json& request) {
    if (action == "click")
        return m_dialog->Click(control);
    if (action == "type")
        return m_dialog->TypeText(control, TypedText(request.at("text").get<std::string>()).c_str());
    if (action == "leave")
        return m_dialog->LeaveControl(control);
    if (action == "select" || action == "activate")
        return Select(control, request.at("rows"), request.at("rev").get<uint64_t>(), action == "activate");
    return E_INVALIDARG;
}

Json PageHost::Act(const Json& request) {
    const HRESULT result = Play(request.at("control").get<int32_t>(), request.at("action").get<std::string>(), request);
    if (result == kStale)
        return {{"error", "The list has changed meanwhile; choose again."}};
    if (FAILED(result))
        return {{"error", "The page does not do that."}};
    return {{"result", result == S_OK ? "done" : "disabled"}, {"messages", TakeMessages()}};
}

}  // namespace tessel::tool
