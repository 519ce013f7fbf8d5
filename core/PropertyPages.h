// The property pages of the filters.
#pragma once

#include <algorithm>
#include <span>

#include "platform/com/PropertyPages.h"
#include "platform/com/TaskMemory.h"

namespace tessel {

inline constexpr CLSID kPageServices = MakeGuid("{EDC4108C-47BC-46F4-85F5-E3B32B37416F}");
inline constexpr CLSID kPageProgramAssociationTable = MakeGuid("{16BC6888-F359-4C18-B061-FA41809F1E42}");
inline constexpr CLSID kPageServiceDescriptionTable = MakeGuid("{7C05A56A-4600-410B-9482-BCEB073377C7}");
inline constexpr CLSID kPageNetworkInformationTable = MakeGuid("{C8AF5993-6E41-4E64-A120-41B111F33A31}");
inline constexpr CLSID kPageServiceGuideTable = MakeGuid("{5A260328-79B2-4D6C-82CE-73AB70203861}");
inline constexpr CLSID kPageGenreLookupTable = MakeGuid("{1954BF10-E024-41B8-BFD9-975DBC1C0EBC}");
inline constexpr CLSID kPageConditionalAccessTable = MakeGuid("{446034CF-A673-4954-B1F1-425886307156}");
inline constexpr CLSID kPageVirtualChannelTable = MakeGuid("{BE9B4264-CD85-460F-B55A-0262A54A1066}");
inline constexpr CLSID kPagePidMapping = MakeGuid("{4C47A739-7296-44CE-A2C7-298E9B8C6AD9}");
inline constexpr CLSID kPageOutputPins = MakeGuid("{27AC42C8-A188-41E4-92B4-C2676ED5B888}");

// What ISpecifyPropertyPages::GetPages answers. E_POINTER, E_OUTOFMEMORY.
inline HRESULT HandOutPages(std::span<const CLSID> ids, CAUUID* out) {
    if (out == nullptr)
        return E_POINTER;
    *out = {};
    out->pElems = static_cast<GUID*>(CoTaskMemAlloc(ids.size_bytes()));
    if (out->pElems == nullptr)
        return E_OUTOFMEMORY;
    std::copy(ids.begin(), ids.end(), out->pElems);
    out->cElems = static_cast<ULONG>(ids.size());
    return S_OK;
}

}  // namespace tessel
