#include "proppages/Pages.h"

#include <new>

#include "proppages/PinPages.h"
#include "proppages/TablePages.h"

namespace tessel {

namespace {

template <class Page>
CUnknown* Create(IUnknown* outer, HRESULT* result) {
    try {
        CUnknown* page = new Page(outer);
        *result = S_OK;
        return page;
    } catch (const std::bad_alloc&) {
        *result = E_OUTOFMEMORY;
        return nullptr;
    }
}

}  // namespace

CUnknown* CreatePropPageServices(IUnknown* outer, HRESULT* result) {
    return Create<CPropPageServices>(outer, result);
}

CUnknown* CreatePropPageProgramAssociationTable(IUnknown* outer, HRESULT* result) {
    return Create<CPropPageProgramAssociationTable>(outer, result);
}

CUnknown* CreatePropPageServiceDescriptionTable(IUnknown* outer, HRESULT* result) {
    return Create<CPropPageServiceDescriptionTable>(outer, result);
}

CUnknown* CreatePropPageNetworkInformationTable(IUnknown* outer, HRESULT* result) {
    return Create<CPropPageNetworkInformationTable>(outer, result);
}

CUnknown* CreatePropPageServiceGuideTable(IUnknown* outer, HRESULT* result) {
    return Create<CPropPageServiceGuideTable>(outer, result);
}

CUnknown* CreatePropPageGenreLookupTable(IUnknown* outer, HRESULT* result) {
    return Create<CPropPageGenreLookupTable>(outer, result);
}

CUnknown* CreatePropPageConditionalAccessTable(IUnknown* outer, HRESULT* result) {
    return Create<CPropPageConditionalAccessTable>(outer, result);
}

CUnknown* CreatePropPageVirtualChannelTable(IUnknown* outer, HRESULT* result) {
    return Create<CPropPageVirtualChannelTable>(outer, result);
}

CUnknown* CreatePropPagePIDmapping(IUnknown* outer, HRESULT* result) {
    return Create<CPropPagePIDmapping>(outer, result);
}

CUnknown* CreatePropPageTSPin(IUnknown* outer, HRESULT* result) {
    return Create<CPropPageTSPin>(outer, result);
}

}  // namespace tessel
