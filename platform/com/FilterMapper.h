// Registration of filters: in categories, with their pins and the media types of these.
#pragma once

#include <memory>

#include "platform/com/Unknown.h"

class CClassRegistry;
class IMoniker;

// The category of filters that are registered in none of their own.
inline constexpr CLSID CLSID_LegacyAmFilterCategory = MakeGuid("{083863F1-70DE-11D0-BD40-00A0C911CE86}");

struct REGPINTYPES {
    const CLSID* clsMajorType;
    const CLSID* clsMinorType;
};

struct REGFILTERPINS {
    const OLECHAR* strName;
    BOOL bRendered;
    BOOL bOutput;
    BOOL bZero;                        // there may be none of it
    BOOL bMany;                        // there may be more than one
    const CLSID* clsConnectsToFilter;  // not used, as the next
    const OLECHAR* strConnectsToPin;
    ULONG nMediaTypes;
    const REGPINTYPES* lpMediaType;
};

struct REGFILTER2 {
    DWORD dwVersion;  // 1
    DWORD dwMerit;
    ULONG cPins;
    const REGFILTERPINS* rgPins;
};

class IFilterMapper2 : public IUnknown {
public:
    static constexpr IID kIid = MakeGuid("{B79BB0B0-33C1-11D1-ABE1-00A0C905F375}");

    // A category that exists gets the new merit and description.
    virtual HRESULT CreateCategory(const CLSID& category, DWORD merit, const OLECHAR* description) = 0;
    // category: null for the default. instance: null for the text of the identifier. S_FALSE when there is none.
    // A category goes with its last filter.
    virtual HRESULT UnregisterFilter(const CLSID* category, const OLECHAR* instance, const CLSID& filter) = 0;
    // Takes the place of an instance of the same name. moniker: null. E_INVALIDARG for a version other than 1.
    virtual HRESULT RegisterFilter(const CLSID& filter, const OLECHAR* name, IMoniker** moniker, const CLSID* category,
                                   const OLECHAR* instance, const REGFILTER2* data) = 0;

protected:
    ~IFilterMapper2() = default;
};

// A mapper over registry, which says when its changes are written. E_OUTOFMEMORY.
HRESULT CreateFilterMapper(std::shared_ptr<CClassRegistry> registry, IFilterMapper2** out);
