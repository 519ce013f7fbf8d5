// Property pages and the frame that shows them.
#pragma once

#include "platform/ui/Dialog.h"

inline constexpr DWORD PROPPAGESTATUS_DIRTY = 1;

inline constexpr uint32_t SW_HIDE = 0;
inline constexpr uint32_t SW_SHOWNORMAL = 1;

// Texts in task memory, or null.
struct PROPPAGEINFO {
    ULONG cb = sizeof(PROPPAGEINFO);
    OLECHAR* pszTitle = nullptr;
    SIZE size;
    OLECHAR* pszDocString = nullptr;
    OLECHAR* pszHelpFile = nullptr;
    DWORD dwHelpContext = 0;
};

class IPropertyPageSite : public IUnknown {
public:
    static constexpr IID kIid = MakeGuid("{B196B28C-BAB4-101A-B69C-00AA00341D07}");

    virtual HRESULT OnStatusChange(DWORD flags) = 0;
    virtual HRESULT GetLocaleID(uint32_t* out) = 0;
    virtual HRESULT GetPageContainer(IUnknown** out) = 0;
    virtual HRESULT TranslateAccelerator(MSG* message) = 0;

protected:
    ~IPropertyPageSite() = default;
};

class IPropertyPage : public IUnknown {
public:
    static constexpr IID kIid = MakeGuid("{B196B28D-BAB4-101A-B69C-00AA00341D07}");

    // E_UNEXPECTED for a site when there is one; null lets go of it.
    virtual HRESULT SetPageSite(IPropertyPageSite* site) = 0;
    // Makes the dialog in parent, on the calling thread, to which it belongs from then on.
    virtual HRESULT Activate(IDialogParent* parent, const RECT* rect, BOOL modal) = 0;
    virtual HRESULT Deactivate() = 0;
    virtual HRESULT GetPageInfo(PROPPAGEINFO* out) = 0;
    // One object to show, or none: count 0 lets go of it.
    virtual HRESULT SetObjects(ULONG count, IUnknown** objects) = 0;
    virtual HRESULT Show(uint32_t command) = 0;
    virtual HRESULT Move(const RECT* rect) = 0;
    virtual HRESULT IsPageDirty() = 0;  // S_OK or S_FALSE
    virtual HRESULT Apply() = 0;
    virtual HRESULT Help(const OLECHAR* folder) = 0;
    virtual HRESULT TranslateAccelerator(MSG* message) = 0;

protected:
    ~IPropertyPage() = default;
};
