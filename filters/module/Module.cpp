#include "filters/module/Module.h"

#include <dlfcn.h>

#include <exception>
#include <filesystem>
#include <new>

#include "filters/module/ClassTable.h"
#include "platform/com/ClassRegistry.h"
#include "platform/com/ComPtr.h"

#define MODULE_ENTRY extern "C" __attribute__((visibility("default")))

namespace tessel {
namespace {

// This module's file; empty when the system does not say.
std::string ModulePath() {
    Dl_info info{};
    if (dladdr(reinterpret_cast<void*>(&DllCanUnloadNow), &info) == 0 || info.dli_fname == nullptr)
        return {};
    std::error_code error;
    const std::filesystem::path path = std::filesystem::canonical(info.dli_fname, error);
    return error ? std::string() : path.string();
}

HRESULT Register(const std::shared_ptr<CClassRegistry>& registry) {
    const std::string path = ModulePath();
    if (path.empty())
        return E_UNEXPECTED;
    HRESULT result = RegisterClasses(ModuleClasses(), path, registry);
    if (FAILED(result))
        return result;
    ComPtr<IFilterMapper2> mapper;
    result = CreateFilterMapper(registry, mapper.Put());
    if (SUCCEEDED(result))
        result = mapper->CreateCategory(CLSID_AuxiliaryFilters, kMerit, kAuxiliaryFiltersName);
    for (const ModuleClass& entry : ModuleClasses())
        if (SUCCEEDED(result) && entry.filter != nullptr)
            result = mapper->RegisterFilter(entry.id, entry.name, nullptr, &CLSID_AuxiliaryFilters, entry.name,
                                            entry.filter);
    return result;
}

HRESULT Unregister(const std::shared_ptr<CClassRegistry>& registry) {
    ComPtr<IFilterMapper2> mapper;
    const HRESULT result = CreateFilterMapper(registry, mapper.Put());
    if (FAILED(result))
        return result;
    for (const ModuleClass& entry : ModuleClasses())
        if (entry.filter != nullptr)
            mapper->UnregisterFilter(&CLSID_AuxiliaryFilters, entry.name, entry.id);
    return UnregisterClasses(ModuleClasses(), registry);
}

HRESULT ChangeRegistry(HRESULT (*change)(const std::shared_ptr<CClassRegistry>&)) try {
    const auto registry = std::make_shared<CClassRegistry>();
    HRESULT result = registry->Begin();
    if (SUCCEEDED(result))
        result = change(registry);
    return SUCCEEDED(result) ? registry->Commit() : result;
} catch (const std::bad_alloc&) {
    return E_OUTOFMEMORY;
} catch (const std::exception&) {
    return E_FAIL;
}

}  // namespace
}  // namespace tessel

MODULE_ENTRY HRESULT DllGetClassObject(const CLSID& id, const IID& iid, void** out) {
    return GetClassObject(tessel::ModuleClasses(), id, iid, out);
}

MODULE_ENTRY HRESULT DllCanUnloadNow() {
    return CanUnloadNow();
}

MODULE_ENTRY HRESULT DllRegisterServer() {
    return tessel::ChangeRegistry(tessel::Register);
}

MODULE_ENTRY HRESULT DllUnregisterServer() {
    return tessel::ChangeRegistry(tessel::Unregister);
}
