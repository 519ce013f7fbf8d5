// The entry points of the module, cvneTessel.ax: all that it shows of itself.
#pragma once

#include "platform/com/Guid.h"
#include "platform/com/Result.h"

extern "C" {

// A factory of one of the classes. iid: of IUnknown or IClassFactory, else E_NOINTERFACE. CLASS_E_CLASSNOTAVAILABLE.
HRESULT DllGetClassObject(const CLSID& id, const IID& iid, void** out);

// S_OK when no object and no lock of the module is alive, else S_FALSE.
HRESULT DllCanUnloadNow();

// All or nothing: writes the classes, and the filters with their pins in the default category and in the module's own,
// to the class registry.
HRESULT DllRegisterServer();
HRESULT DllUnregisterServer();

}  // extern "C"
