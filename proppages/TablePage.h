// What the pages over one table have in common: a drop-down list chooses what the list view shows.
#pragma once

#include <atomic>
#include <optional>
#include <string>
#include <vector>

#include "platform/ui/BasePropertyPage.h"
#include "proppages/PageFilter.h"

namespace tessel {

class CTablePage : public CBasePropertyPage {
protected:
    struct Choice {
        std::u16string text;
        intptr_t key;
    };

    // title: a string resource.
    CTablePage(const char* name, IUnknown* outer, int32_t title);

    // What there is to choose from now.
    virtual std::vector<Choice> Choices() = 0;
    // Adds the rows of what is chosen; the list is empty. Not called while there is nothing to choose.
    virtual void FillRows(intptr_t key) = 0;
    // Once, before the first of them: columns, and what is disabled.
    virtual void InitTable() = 0;
    virtual void OnMap() {}
    virtual void OnRowsSelected() {}

    // Reads the filter anew. What was chosen stays chosen if it is still there.
    void Refresh();
    // From any thread: the page refreshes on its own.
    void PostRefresh();

    // The filter tells sink of table events until the page is deactivated.
    HRESULT AdviseEvents(IUnknown* sink);

    HRESULT OnConnect(IUnknown* object) override { return m_filter.Connect(object); }
    HRESULT OnDisconnect() override;
    HRESULT OnDeactivate() override;
    intptr_t OnReceiveMessage(uint32_t message, uintptr_t wParam, intptr_t lParam) override;

    const page::Filter& TheFilter() const { return m_filter; }
    void AddRow(std::vector<std::u16string> cells, intptr_t data = CDialogWindow::kNoData);

private:
    void RefillRows();
    void OnCommand(uint32_t id, uint32_t what);

    page::Filter m_filter;
    std::optional<uint32_t> m_cookie;
    // A refresh is on its way; one is enough for all that happens before it.
    std::atomic<bool> m_refreshPosted{false};
};

}  // namespace tessel
