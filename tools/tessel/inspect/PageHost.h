// A property page, its dialog, and the user that a browser plays.
#pragma once

#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "platform/com/ComPtr.h"
#include "platform/ui/PropertyPage.h"

namespace tessel::tool {

using Json = nlohmann::ordered_json;

// How text that a stream may have sent is shown: nothing in it can hide, or turn what stands beside it.
std::string ShownText(std::u16string_view text);

using PageCreator = CUnknown* (*)(IUnknown*, HRESULT*);

// All calls on one thread.
class PageHost final : public IDialogParent {
public:
    // key: what the browser calls the page. Failure when there is no page to be had.
    PageHost(std::string key, PageCreator create, IUnknown* filter);
    ~PageHost();
    PageHost(const PageHost&) = delete;
    PageHost& operator=(const PageHost&) = delete;

    const std::string& Key() const { return m_key; }
    const std::string& Title() const { return m_title; }
    IDialog& Dialog() { return *m_dialog; }

    // Gives the page what was posted to it.
    void Pump();
    // The dialog as it is, when it has changed since the last call.
    bool HasChanged() const { return m_changed; }
    Json Snapshot();

    // Has a page with that list view fill it anew; a row that was selected stays so if it is still there.
    void Update(int32_t list);

    // What a browser asks for: {"control", "action", "rows" | "text", "rev"}. The answer: {"result", "messages"}, or
    // {"error"}.
    Json Act(const Json& request);
    // What the page has told the user since the last call.
    std::vector<std::string> TakeMessages();

    ControlState State(int32_t control) const;
    std::string Text(int32_t control) const;
    // The row of a list whose first cell is text; -1 for none.
    int32_t FindRow(int32_t control, std::u16string_view text) const;

private:
    void OnDialogCreated(IDialog* dialog) override { m_dialog = ComPtr<IDialog>(dialog); }
    void OnControlChanged(int32_t) override { m_changed = true; }
    void OnMessageBox(const OLECHAR* text) override;
    void OnDialogDestroyed() override { m_dialog.Reset(); }

    std::vector<std::u16string> Cells(int32_t control, int32_t row) const;
    Json ControlAsJson(const ControlState& state) const;
    void AddList(Json& control, const ControlState& state) const;
    HRESULT Play(int32_t control, const std::string& action, const Json& request);
    HRESULT Select(int32_t control, const Json& rows, uint64_t revision, bool activate);
    uint64_t Revision(int32_t control) const;

    const std::string m_key;
    std::string m_title;
    SIZE m_size;
    ComPtr<IPropertyPage> m_page;
    ComPtr<IDialog> m_dialog;
    bool m_changed = true;
    std::vector<std::string> m_messages;
};

// UTF-16 of what a person typed; nothing behind the first 256 units, or behind a null character.
std::u16string TypedText(const std::string& utf8);

}  // namespace tessel::tool
