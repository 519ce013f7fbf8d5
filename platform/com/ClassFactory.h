// Classes that a module makes: its table of them, and their factories.
#pragma once

#include <memory>
#include <new>
#include <span>
#include <string>

#include "platform/com/FilterMapper.h"

inline constexpr HRESULT CLASS_E_CLASSNOTAVAILABLE = MakeResult(0x80040111);

class IClassFactory : public IUnknown {
public:
    static constexpr IID kIid = MakeGuid("{00000001-0000-0000-C000-000000000046}");

    // outer: the object that is to own the new one, or null; then iid is that of IUnknown (else E_NOINTERFACE).
    virtual HRESULT CreateInstance(IUnknown* outer, const IID& iid, void** out) = 0;
    // While there are locks the module stays.
    virtual HRESULT LockServer(BOOL lock) = 0;

protected:
    ~IClassFactory() = default;
};

// A new object, its count 0 as at birth, or null and a failure in result.
using ClassCreator = CUnknown* (*)(IUnknown* outer, HRESULT* result);

struct ModuleClass {
    const OLECHAR* name;
    CLSID id;
    ClassCreator create;
    const REGFILTER2* filter;  // null for what is no filter
};

// A creator of Object, which is constructed with the outer one and then initialised:
// CreateObject<CFilter, [](CFilter& filter) { return filter.Init(); }>.
template <class Object, auto kInit = [](Object&) { return S_OK; }>
CUnknown* CreateObject(IUnknown* outer, HRESULT* result) try {
    const auto release = [](CUnknown* object) { object->NonDelegatingRelease(); };
    auto* object = new (std::nothrow) Object(outer);
    if (object == nullptr) {
        *result = E_OUTOFMEMORY;
        return nullptr;
    }
    // Its initialisation may count references for a moment, and must not end it.
    object->NonDelegatingAddRef();
    std::unique_ptr<CUnknown, decltype(release)> own(object, release);
    *result = kInit(*object);
    if (FAILED(*result))
        return nullptr;
    own->ForgetReference();
    return own.release();
} catch (const std::bad_alloc&) {
    *result = E_OUTOFMEMORY;
    return nullptr;
}

// What a module's entry points do, over its table.

// iid: of IUnknown or IClassFactory.
HRESULT GetClassObject(std::span<const ModuleClass> classes, const CLSID& id, const IID& iid, void** out);
// S_OK when no object and no lock of this module is alive, else S_FALSE.
HRESULT CanUnloadNow();
// All classes with server, the module's path, and the filters among them in the default category.
HRESULT RegisterClasses(std::span<const ModuleClass> classes, const std::string& server,
                        const std::shared_ptr<CClassRegistry>& registry);
HRESULT UnregisterClasses(std::span<const ModuleClass> classes, const std::shared_ptr<CClassRegistry>& registry);
