// Which property pages an object has.
#pragma once

#include "platform/com/Unknown.h"

// An array of identifiers in task memory.
struct CAUUID {
    ULONG cElems = 0;
    GUID* pElems = nullptr;
};

class ISpecifyPropertyPages : public IUnknown {
public:
    static constexpr IID kIid = MakeGuid("{B196B28B-BAB4-101A-B69C-00AA00341D07}");

    // The caller frees the array with CoTaskMemFree.
    virtual HRESULT GetPages(CAUUID* out) = 0;

protected:
    ~ISpecifyPropertyPages() = default;
};
