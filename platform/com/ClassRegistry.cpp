#include "platform/com/ClassRegistry.h"

#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <filesystem>

#include "platform/com/GuidText.h"
#include "platform/com/Utf8.h"

namespace {

constexpr std::string_view kClassPrefix = "class ";
constexpr const char* kVariable = "TESSEL_REGISTRY";

std::string_view Environment(const char* name) {
    const char* value = std::getenv(name);
    return value != nullptr ? value : "";
}

std::string ClassKey(const CLSID& id) {
    return std::string(kClassPrefix) + GuidToText(id);
}

std::optional<DWORD> NumberFromText(std::string_view text) {
    DWORD number = 0;
    if (!text.starts_with("0x"))
        return std::nullopt;
    const char* end = text.data() + text.size();
    const auto read = std::from_chars(text.data() + 2, end, number, 16);
    return read.ec == std::errc() && read.ptr == end ? std::optional(number) : std::nullopt;
}

// "input rendered: NAME"
std::optional<RegisteredPin> PinFromText(std::string_view text) {
    const size_t colon = text.find(": ");
    if (colon == std::string_view::npos)
        return std::nullopt;
    RegisteredPin pin;
    pin.name = text.substr(colon + 2);
    text = text.substr(0, colon);
    for (size_t space = 0; space != std::string_view::npos; text.remove_prefix(space + 1)) {
        space = text.find(' ');
        const std::string_view word = text.substr(0, space);
        if (word == "output")
            pin.output = true;
        else if (word == "rendered")
            pin.rendered = true;
        else if (word == "zero")
            pin.zero = true;
        else if (word == "many")
            pin.many = true;
        else if (word != "input")
            return std::nullopt;
        if (space == std::string_view::npos)
            break;
    }
    return pin;
}

std::optional<RegisteredPin::MediaType> TypeFromText(std::string_view text) {
    const size_t space = text.find(' ');
    if (space == std::string_view::npos)
        return std::nullopt;
    const auto major = GuidFromText(text.substr(0, space));
    const auto minor = GuidFromText(text.substr(space + 1));
    return major && minor ? std::optional(RegisteredPin::MediaType{*major, *minor}) : std::nullopt;
}

std::optional<RegisteredFilter> FilterFromValues(const RegistryValues& values) {
    const auto id = GuidFromText(FindValue(values, "class"));
    const auto merit = NumberFromText(FindValue(values, "merit"));
    if (!id || !merit)
        return std::nullopt;
    RegisteredFilter filter;
    filter.id = *id;
    filter.merit = *merit;
    filter.name = FindValue(values, "name");
    for (const auto& [name, value] : values) {
        if (name == "pin") {
            const auto pin = PinFromText(value);
            if (!pin)
                return std::nullopt;
            filter.pins.push_back(*pin);
        } else if (name == "type") {
            const auto type = TypeFromText(value);
            if (!type || filter.pins.empty())
                return std::nullopt;
            filter.pins.back().types.push_back(*type);
        }
    }
    return filter;
}

}  // namespace

std::string CategoryKey(const CLSID& category) {
    return "category " + GuidToText(category);
}

std::string FilterKey(const CLSID& category, std::string_view instance) {
    return CategoryKey(category) + " filter " + std::string(instance);
}

std::string CClassRegistry::DefaultPath() {
    if (const auto path = Environment(kVariable); !path.empty())
        return std::string(path);
    std::filesystem::path folder = Environment("XDG_DATA_HOME");
    if (!folder.is_absolute())
        folder = std::filesystem::path(Environment("HOME")) / ".local/share";
    return folder / "tessel" / "registry";
}

CClassRegistry::CClassRegistry() : m_file(DefaultPath()) {
    if (Environment(kVariable).empty())
        m_folder = std::filesystem::path(DefaultPath()).parent_path();
}

HRESULT CClassRegistry::Read() {
    const HRESULT result = m_file.Read(&m_text);
    if (FAILED(result))
        return result;
    m_badLine = ParseRegistry(m_text, &m_keys);
    return m_badLine == 0 ? S_OK : REGDB_E_INVALIDVALUE;
}

HRESULT CClassRegistry::Begin() {
    std::error_code error;
    if (!m_folder.empty() && !std::filesystem::create_directories(m_folder, error) && error)
        return ResultOfError(error.value());
    HRESULT result = m_file.Lock();
    if (SUCCEEDED(result))
        result = Read();
    if (FAILED(result))
        m_file.Unlock();
    return result;
}

HRESULT CClassRegistry::Commit() {
    const std::string text = FormatRegistry(m_keys);
    const bool isSame = text == m_text || (m_text.empty() && m_keys.empty());
    const HRESULT result = isSame ? S_OK : m_file.Replace(text);
    m_file.Unlock();
    return result;
}

void CClassRegistry::RegisterClass(const CLSID& id, const OLECHAR* name, const std::string& server) {
    m_keys[ClassKey(id)] = {{"name", Utf8FromUtf16(name)}, {"server", server}, {"threading", "Both"}};
}

void CClassRegistry::UnregisterClass(const CLSID& id) {
    m_keys.erase(ClassKey(id));
}

std::optional<RegisteredClass> CClassRegistry::FindClass(const CLSID& id) const {
    const auto found = m_keys.find(ClassKey(id));
    if (found == m_keys.end())
        return std::nullopt;
    const RegistryValues& values = found->second;
    return RegisteredClass{id, std::string(FindValue(values, "name")), std::string(FindValue(values, "server")),
                           std::string(FindValue(values, "threading"))};
}

std::vector<RegisteredClass> CClassRegistry::Classes() const {
    std::vector<RegisteredClass> classes;
    for (auto key = m_keys.lower_bound(std::string(kClassPrefix)); key != m_keys.end(); ++key) {
        if (!key->first.starts_with(kClassPrefix))
            break;
        if (const auto id = GuidFromText(key->first.substr(kClassPrefix.size())))
            if (auto found = FindClass(*id))
                classes.push_back(std::move(*found));
    }
    return classes;
}

std::vector<RegisteredFilter> CClassRegistry::Filters(const CLSID& category) const {
    const std::string prefix = FilterKey(category, {});
    std::vector<RegisteredFilter> filters;
    for (auto key = m_keys.lower_bound(prefix); key != m_keys.end() && key->first.starts_with(prefix); ++key) {
        auto filter = FilterFromValues(key->second);
        if (!filter)
            continue;
        filter->instance = key->first.substr(prefix.size());
        filters.push_back(std::move(*filter));
    }
    return filters;
}
