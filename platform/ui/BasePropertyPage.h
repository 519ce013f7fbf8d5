// The base class of property pages.
#pragma once

#include <memory>

#include "platform/com/ComPtr.h"
#include "platform/ui/DialogWindow.h"
#include "platform/ui/PropertyPage.h"

// One thread calls a page, but for PostToPage. Between OnActivate and OnDeactivate there is a dialog.
class CBasePropertyPage : public CUnknown, public IPropertyPage, private IDialogHandler {
public:
    // dialog and title live as long as the page.
    CBasePropertyPage(const char* name, IUnknown* outer, const DialogTemplate& dialog, const OLECHAR* title);
    ~CBasePropertyPage() override;

    DECLARE_IUNKNOWN
    HRESULT NonDelegatingQueryInterface(const IID& iid, void** out) override;

    HRESULT SetPageSite(IPropertyPageSite* site) override;
    HRESULT Activate(IDialogParent* parent, const RECT* rect, BOOL modal) override;
    HRESULT Deactivate() override;
    HRESULT GetPageInfo(PROPPAGEINFO* out) override;
    HRESULT SetObjects(ULONG count, IUnknown** objects) override;
    HRESULT Show(uint32_t command) override;
    HRESULT Move(const RECT* rect) override;
    HRESULT IsPageDirty() override { return m_dirty ? S_OK : S_FALSE; }
    HRESULT Apply() override;
    HRESULT Help(const OLECHAR*) override { return E_NOTIMPL; }
    HRESULT TranslateAccelerator(MSG*) override { return E_NOTIMPL; }

protected:
    // The object to show; a failure leaves the page without one.
    virtual HRESULT OnConnect(IUnknown* object) = 0;
    virtual HRESULT OnDisconnect() = 0;
    virtual HRESULT OnActivate() { return S_OK; }
    virtual HRESULT OnDeactivate() { return S_OK; }
    virtual HRESULT OnApplyChanges() { return S_OK; }
    // 0 for what the page does not know.
    virtual intptr_t OnReceiveMessage(uint32_t, uintptr_t, intptr_t) { return 0; }

    // Only while there is one.
    CDialogWindow& Dialog() { return *m_dialog; }
    bool IsActive() const { return static_cast<bool>(m_dialog); }
    // Something was changed: the site hears of it, and may deactivate the page, as a parent may in MessageBox. So
    // either comes last in what a page does about a message.
    void SetDirty();
    // From any thread; false when the queue is full. The message comes to OnReceiveMessage when the dialog's owner
    // pumps.
    bool PostToPage(uint32_t message) { return m_queue->Post(message); }

private:
    intptr_t HandleMessage(uint32_t message, uintptr_t wParam, intptr_t lParam) final;

    const DialogTemplate& m_template;
    const OLECHAR* const m_title;
    const std::shared_ptr<CMessageQueue> m_queue;
    ComPtr<IPropertyPageSite> m_site;
    ComPtr<CDialogWindow> m_dialog;
    bool m_objectSet = false;
    bool m_dirty = false;
};
