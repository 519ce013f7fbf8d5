// Makes the property pages.
#pragma once

#include "platform/com/Unknown.h"

namespace tessel {

// A new page with a count of 0, for outer to aggregate if it is not null; null and E_OUTOFMEMORY in result, which
// must be valid.
CUnknown* CreatePropPageServices(IUnknown* outer, HRESULT* result);
CUnknown* CreatePropPageProgramAssociationTable(IUnknown* outer, HRESULT* result);
CUnknown* CreatePropPageServiceDescriptionTable(IUnknown* outer, HRESULT* result);
CUnknown* CreatePropPageNetworkInformationTable(IUnknown* outer, HRESULT* result);
CUnknown* CreatePropPageServiceGuideTable(IUnknown* outer, HRESULT* result);
CUnknown* CreatePropPageGenreLookupTable(IUnknown* outer, HRESULT* result);
CUnknown* CreatePropPageConditionalAccessTable(IUnknown* outer, HRESULT* result);
CUnknown* CreatePropPageVirtualChannelTable(IUnknown* outer, HRESULT* result);
CUnknown* CreatePropPagePIDmapping(IUnknown* outer, HRESULT* result);
CUnknown* CreatePropPageTSPin(IUnknown* outer, HRESULT* result);

}  // namespace tessel
