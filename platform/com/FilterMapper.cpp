#include "platform/com/FilterMapper.h"

#include <cstdio>
#include <new>
#include <string>

#include "platform/com/ClassRegistry.h"
#include "platform/com/GuidText.h"
#include "platform/com/Utf8.h"

namespace {

std::string NumberText(DWORD number) {
    char text[11];
    std::snprintf(text, sizeof(text), "0x%08X", number);
    return text;
}

std::string PinText(const REGFILTERPINS& pin) {
    std::string text = pin.bOutput ? "output" : "input";
    if (pin.bRendered)
        text += " rendered";
    if (pin.bZero)
        text += " zero";
    if (pin.bMany)
        text += " many";
    return text + ": " + Utf8FromUtf16(pin.strName);
}

std::string InstanceName(const OLECHAR* instance, const CLSID& filter) {
    return instance != nullptr ? Utf8FromUtf16(instance) : GuidToText(filter);
}

const CLSID& CategoryOrDefault(const CLSID* category) {
    return category != nullptr ? *category : CLSID_LegacyAmFilterCategory;
}

class CFilterMapper final : public CUnknown, public IFilterMapper2 {
public:
    explicit CFilterMapper(std::shared_ptr<CClassRegistry> registry)
        : CUnknown("CFilterMapper", nullptr), m_registry(std::move(registry)) {}

    DECLARE_IUNKNOWN
    HRESULT NonDelegatingQueryInterface(const IID& iid, void** out) override {
        if (out != nullptr && iid == IFilterMapper2::kIid)
            return GetInterface<IFilterMapper2>(this, out);
        return CUnknown::NonDelegatingQueryInterface(iid, out);
    }

    HRESULT CreateCategory(const CLSID& category, DWORD merit, const OLECHAR* description) override try {
        if (description == nullptr)
            return E_POINTER;
        m_registry->Keys()[CategoryKey(category)] = {{"name", Utf8FromUtf16(description)},
                                                     {"merit", NumberText(merit)}};
        return S_OK;
    } catch (const std::bad_alloc&) {
        return E_OUTOFMEMORY;
    }

    HRESULT UnregisterFilter(const CLSID* category, const OLECHAR* instance, const CLSID& filter) override try {
        RegistryKeys& keys = m_registry->Keys();
        const CLSID& owner = CategoryOrDefault(category);
        if (keys.erase(FilterKey(owner, InstanceName(instance, filter))) == 0)
            return S_FALSE;
        const std::string prefix = FilterKey(owner, {});
        const auto next = keys.lower_bound(prefix);
        if (next == keys.end() || !next->first.starts_with(prefix))
            keys.erase(CategoryKey(owner));
        return S_OK;
    } catch (const std::bad_alloc&) {
        return E_OUTOFMEMORY;
    }

    HRESULT RegisterFilter(const CLSID& filter, const OLECHAR* name, IMoniker** moniker, const CLSID* category,
                           const OLECHAR* instance, const REGFILTER2* data) override try {
        if (name == nullptr || data == nullptr)
            return E_POINTER;
        if (moniker != nullptr || data->dwVersion != 1)
            return E_INVALIDARG;
        RegistryValues values = {
            {"class", GuidToText(filter)}, {"name", Utf8FromUtf16(name)}, {"merit", NumberText(data->dwMerit)}};
        for (ULONG i = 0; i < data->cPins; ++i) {
            const REGFILTERPINS& pin = data->rgPins[i];
            values.emplace_back("pin", PinText(pin));
            for (ULONG k = 0; k < pin.nMediaTypes; ++k) {
                const REGPINTYPES& type = pin.lpMediaType[k];
                values.emplace_back("type", GuidToText(*type.clsMajorType) + " " + GuidToText(*type.clsMinorType));
            }
        }
        m_registry->Keys()[FilterKey(CategoryOrDefault(category), InstanceName(instance, filter))] = std::move(values);
        return S_OK;
    } catch (const std::bad_alloc&) {
        return E_OUTOFMEMORY;
    }

private:
    const std::shared_ptr<CClassRegistry> m_registry;
};

}  // namespace

HRESULT CreateFilterMapper(std::shared_ptr<CClassRegistry> registry, IFilterMapper2** out) {
    if (out == nullptr)
        return E_POINTER;
    *out = new (std::nothrow) CFilterMapper(std::move(registry));
    if (*out == nullptr)
        return E_OUTOFMEMORY;
    (*out)->AddRef();
    return S_OK;
}
