#include "platform/ui/BasePropertyPage.h"

#include <new>

#include "platform/com/TaskMemory.h"

CBasePropertyPage::CBasePropertyPage(const char* name, IUnknown* outer, const DialogTemplate& dialog,
                                     const OLECHAR* title)
    : CUnknown(name, outer), m_template(dialog), m_title(title), m_queue(std::make_shared<CMessageQueue>()) {}

CBasePropertyPage::~CBasePropertyPage() {
    // Who still has the dialog must not reach a page that is gone.
    if (m_dialog)
        m_dialog->Destroy();
}

HRESULT CBasePropertyPage::NonDelegatingQueryInterface(const IID& iid, void** out) {
    if (out != nullptr && iid == IPropertyPage::kIid)
        return GetInterface<IPropertyPage>(this, out);
    return CUnknown::NonDelegatingQueryInterface(iid, out);
}

HRESULT CBasePropertyPage::SetPageSite(IPropertyPageSite* site) {
    if (site != nullptr && m_site)
        return E_UNEXPECTED;
    m_site = ComPtr<IPropertyPageSite>(site);
    return S_OK;
}

HRESULT CBasePropertyPage::Activate(IDialogParent* parent, const RECT* rect, BOOL) {
    if (parent == nullptr || rect == nullptr)
        return E_POINTER;
    if (!m_objectSet || m_dialog)
        return E_UNEXPECTED;
    MSG old;
    while (m_queue->Peek(&old, true)) {
    }
    try {
        m_dialog = ComPtr<CDialogWindow>(new CDialogWindow(m_template, this, m_queue));
        HRESULT result = m_dialog->Initialise();
        if (SUCCEEDED(result))
            result = OnActivate();
        if (FAILED(result)) {
            Deactivate();
            return result;
        }
        m_dialog->Attach(parent);
        return S_OK;
    } catch (const std::bad_alloc&) {
        Deactivate();
        return E_OUTOFMEMORY;
    }
}

HRESULT CBasePropertyPage::Deactivate() {
    if (!m_dialog)
        return E_UNEXPECTED;
    // A page that is released from within is kept to the end.
    const ComPtr<IUnknown> keep(GetOwner());
    OnDeactivate();
    const ComPtr<CDialogWindow> dialog = std::move(m_dialog);
    dialog->Destroy();
    return S_OK;
}

HRESULT CBasePropertyPage::GetPageInfo(PROPPAGEINFO* out) {
    if (out == nullptr)
        return E_POINTER;
    *out = PROPPAGEINFO();
    out->pszTitle = CopyToTaskMemory(m_title);
    if (out->pszTitle == nullptr)
        return E_OUTOFMEMORY;
    out->size = m_template.size;
    return S_OK;
}

HRESULT CBasePropertyPage::SetObjects(ULONG count, IUnknown** objects) {
    if (count == 0) {
        if (m_dialog)
            Deactivate();
        m_objectSet = false;
        return OnDisconnect();
    }
    if (objects == nullptr || objects[0] == nullptr)
        return E_POINTER;
    if (count != 1 || m_objectSet)
        return E_UNEXPECTED;
    const HRESULT result = OnConnect(objects[0]);
    m_objectSet = SUCCEEDED(result);
    if (!m_objectSet)
        OnDisconnect();
    return result;
}

HRESULT CBasePropertyPage::Show(uint32_t command) {
    if (!m_dialog)
        return E_UNEXPECTED;
    return command == SW_HIDE || command == SW_SHOWNORMAL ? S_OK : E_INVALIDARG;
}

HRESULT CBasePropertyPage::Move(const RECT* rect) {
    if (rect == nullptr)
        return E_POINTER;
    return m_dialog ? S_OK : E_UNEXPECTED;
}

HRESULT CBasePropertyPage::Apply() {
    if (!m_objectSet || !m_site)
        return E_UNEXPECTED;
    if (!m_dirty)
        return S_OK;
    const HRESULT result = OnApplyChanges();
    if (SUCCEEDED(result))
        m_dirty = false;
    return result;
}

void CBasePropertyPage::SetDirty() {
    m_dirty = true;
    if (m_site)
        m_site->OnStatusChange(PROPPAGESTATUS_DIRTY);
}

intptr_t CBasePropertyPage::HandleMessage(uint32_t message, uintptr_t wParam, intptr_t lParam) {
    // The page's callbacks may release it.
    const ComPtr<IUnknown> keep(GetOwner());
    return OnReceiveMessage(message, wParam, lParam);
}
