#include "platform/com/ClassFactory.h"

#include <atomic>

#include "platform/com/ClassRegistry.h"
#include "platform/com/ComPtr.h"

namespace {

std::atomic<int32_t> g_locks{0};

class CClassFactory final : public CUnknown, public IClassFactory {
public:
    explicit CClassFactory(const ModuleClass& entry) : CUnknown("CClassFactory", nullptr), m_entry(entry) {}

    DECLARE_IUNKNOWN
    HRESULT NonDelegatingQueryInterface(const IID& iid, void** out) override {
        if (out != nullptr && iid == IClassFactory::kIid)
            return GetInterface<IClassFactory>(this, out);
        return CUnknown::NonDelegatingQueryInterface(iid, out);
    }

    HRESULT CreateInstance(IUnknown* outer, const IID& iid, void** out) override {
        if (out == nullptr)
            return E_POINTER;
        *out = nullptr;
        // Any other interface would count its references on outer, and nobody could let go of the object itself.
        if (outer != nullptr && iid != IUnknown::kIid)
            return E_NOINTERFACE;
        HRESULT result = S_OK;
        CUnknown* object = m_entry.create(outer, &result);
        if (object == nullptr)
            return FAILED(result) ? result : E_FAIL;
        object->NonDelegatingAddRef();
        result = object->NonDelegatingQueryInterface(iid, out);
        object->NonDelegatingRelease();
        return result;
    }

    HRESULT LockServer(BOOL lock) override {
        if (lock) {
            ++g_locks;
            return S_OK;
        }
        int32_t locks = g_locks;
        while (locks > 0 && !g_locks.compare_exchange_weak(locks, locks - 1)) {
        }
        return locks > 0 ? S_OK : E_UNEXPECTED;
    }

private:
    const ModuleClass& m_entry;
};

}  // namespace

HRESULT GetClassObject(std::span<const ModuleClass> classes, const CLSID& id, const IID& iid, void** out) {
    if (out == nullptr)
        return E_POINTER;
    *out = nullptr;
    if (iid != IUnknown::kIid && iid != IClassFactory::kIid)
        return E_NOINTERFACE;
    for (const ModuleClass& entry : classes) {
        if (entry.id != id)
            continue;
        const ComPtr<IClassFactory> factory(new (std::nothrow) CClassFactory(entry));
        return factory ? factory->QueryInterface(iid, out) : E_OUTOFMEMORY;
    }
    return CLASS_E_CLASSNOTAVAILABLE;
}

HRESULT CanUnloadNow() {
    return g_locks == 0 && CUnknown::ObjectsActive() == 0 ? S_OK : S_FALSE;
}

HRESULT RegisterClasses(std::span<const ModuleClass> classes, const std::string& server,
                        const std::shared_ptr<CClassRegistry>& registry) {
    ComPtr<IFilterMapper2> mapper;
    HRESULT result = CreateFilterMapper(registry, mapper.Put());
    for (const ModuleClass& entry : classes) {
        if (FAILED(result))
            break;
        registry->RegisterClass(entry.id, entry.name, server);
        if (entry.filter != nullptr)
            result = mapper->RegisterFilter(entry.id, entry.name, nullptr, nullptr, nullptr, entry.filter);
    }
    return result;
}

HRESULT UnregisterClasses(std::span<const ModuleClass> classes, const std::shared_ptr<CClassRegistry>& registry) {
    ComPtr<IFilterMapper2> mapper;
    HRESULT result = CreateFilterMapper(registry, mapper.Put());
    for (const ModuleClass& entry : classes) {
        if (FAILED(result))
            break;
        registry->UnregisterClass(entry.id);
        if (entry.filter != nullptr)
            result = mapper->UnregisterFilter(nullptr, nullptr, entry.id);
    }
    return FAILED(result) ? result : S_OK;
}
