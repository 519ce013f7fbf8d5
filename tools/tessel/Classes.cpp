#include "tools/tessel/Classes.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <nlohmann/json.hpp>

#include "platform/com/GuidText.h"
#include "tools/tessel/Failure.h"
#include "tools/tessel/Memory.h"
#include "tools/tessel/ModuleLibrary.h"
#include "tools/tessel/Utf8.h"

namespace tessel::tool {

namespace {

using Json = nlohmann::ordered_json;

// For a registry that only tells what a module has to register.
class TemporaryFolder {
public:
    TemporaryFolder() {
        std::error_code error;
        m_path = (std::filesystem::temp_directory_path(error) / "tessel-XXXXXX").string();
        if (error || mkdtemp(m_path.data()) == nullptr)
            throw Failure(m_path + ": cannot make a temporary folder: " + std::strerror(errno));
    }
    ~TemporaryFolder() {
        // What a registry writes, taken away without memory: there may be none.
        for (const char* name : {"registry", "registry.lock", "registry.new"}) {
            char path[PATH_MAX];
            std::snprintf(path, sizeof(path), "%s/%s", m_path.c_str(), name);
            unlink(path);
        }
        rmdir(m_path.c_str());
    }
    TemporaryFolder(const TemporaryFolder&) = delete;
    TemporaryFolder& operator=(const TemporaryFolder&) = delete;

    std::string File(const char* name) const { return m_path + "/" + name; }

private:
    std::string m_path;
};

std::string HexText(uint32_t value) {
    char text[11];
    std::snprintf(text, sizeof(text), "0x%08X", value);
    return text;
}

[[noreturn]] void Fail(const std::string& path, const char* what, HRESULT result) {
    const int error = ErrorOfResult(result);
    if (error == EWOULDBLOCK)
        throw Failure(path + ": " + what + ": another program has held the lock for ten seconds");
    throw Failure(path + ": " + what + ": " +
                  (error != 0 ? std::strerror(error) : HexText(static_cast<uint32_t>(result))));
}

std::string PathOf(const std::string& registry) {
    return registry.empty() ? CClassRegistry::DefaultPath() : registry;
}

void Read(CClassRegistry& registry, const std::string& path) {
    const HRESULT result = registry.Read();
    if (result == REGDB_E_INVALIDVALUE)
        throw Failure(path + ": line " + std::to_string(registry.BadLine()) + " is not of a class registry");
    if (FAILED(result))
        Fail(path, "cannot read the class registry", result);
}

// What the module has to register, told by a registration that nobody sees.
std::vector<ClassInfo> OwnClasses(const ModuleLibrary& module) {
    const TemporaryFolder folder;
    const std::string path = folder.File("registry");
    const HRESULT result = module.Register(path);
    if (FAILED(result))
        Fail(module.Path(), "cannot tell its classes", result);
    CClassRegistry registry(path);
    Read(registry, path);
    std::vector<ClassInfo> classes;
    for (RegisteredClass& entry : registry.Classes())
        classes.push_back({std::move(entry), std::nullopt, std::nullopt});
    for (const RegisteredFilter& filter : registry.Filters(CLSID_LegacyAmFilterCategory))
        for (ClassInfo& info : classes)
            if (info.entry.id == filter.id)
                info.filter = filter;
    const auto place = [](const ClassInfo& info) { return std::pair(!info.filter, info.entry.name); };
    std::ranges::sort(classes, {}, place);
    return classes;
}

std::vector<ClassInfo> ReadClasses(const ModuleLibrary& module, const std::string& registry) {
    const std::string path = PathOf(registry);
    CClassRegistry registered(path);
    Read(registered, path);
    std::vector<ClassInfo> classes = OwnClasses(module);
    for (ClassInfo& info : classes)
        if (auto entry = registered.FindClass(info.entry.id))
            info.server = std::move(entry->server);
    return classes;
}

std::string CountText(size_t count, const char* done, const std::string& path) {
    return std::to_string(count) + (count == 1 ? " class " : " classes ") + done + ToTerminal(path) + "\n";
}

Json ToJson(const RegisteredPin& pin) {
    Json types = Json::array();
    for (const RegisteredPin::MediaType& type : pin.types)
        types.push_back({{"major", GuidToText(type.major)}, {"minor", GuidToText(type.minor)}});
    return {{"name", pin.name}, {"direction", pin.output ? "output" : "input"}, {"media_types", std::move(types)}};
}

std::string RegisteredText(const ClassInfo& info) {
    if (info.IsRegistered())
        return "yes";
    return info.server ? "by " + ToTerminal(*info.server) : "no";
}

}  // namespace

std::vector<ClassInfo> ReadClasses(const std::string& registry) {
    return ReadClasses(ModuleLibrary(), registry);
}

std::string ClassesAsJson(const std::vector<ClassInfo>& classes) {
    const SpareMemory spare;
    Json list = Json::array();
    for (const ClassInfo& info : classes) {
        Json entry = {{"name", info.entry.name},
                      {"clsid", GuidToText(info.entry.id)},
                      {"kind", info.filter ? "filter" : "page"},
                      {"registered", info.IsRegistered()},
                      {"server", info.server ? Json(*info.server) : Json(nullptr)}};
        if (info.filter) {
            entry["merit"] = info.filter->merit;
            entry["pins"] = Json::array();
            for (const RegisteredPin& pin : info.filter->pins)
                entry["pins"].push_back(ToJson(pin));
        }
        list.push_back(std::move(entry));
    }
    // A path need not be UTF-8.
    return list.dump(2, ' ', false, Json::error_handler_t::replace) + "\n";
}

std::string ClassesAsText(const std::vector<ClassInfo>& classes) {
    std::vector<Row> rows = {{"NAME", "KIND", "MERIT", "PINS", "CLASS", "REGISTERED"}};
    for (const ClassInfo& info : classes) {
        std::string pins;
        if (info.filter)
            for (const RegisteredPin& pin : info.filter->pins)
                pins += (pins.empty() ? "" : ", ") + ToTerminal(pin.name);
        rows.push_back({ToTerminal(info.entry.name), info.filter ? "filter" : "page",
                        info.filter ? HexText(info.filter->merit) : "-", pins.empty() ? "-" : pins,
                        GuidToText(info.entry.id), RegisteredText(info)});
    }
    return Columned(rows, "");
}

std::string RegisterModule(const std::string& registry) {
    const ModuleLibrary module;
    const size_t count = ReadClasses(module, registry).size();
    const HRESULT result = module.Register(registry);
    if (FAILED(result))
        Fail(PathOf(registry), "cannot register", result);
    return CountText(count, "registered in ", PathOf(registry));
}

std::string UnregisterModule(const std::string& registry) {
    const ModuleLibrary module;
    const std::vector<ClassInfo> classes = ReadClasses(module, registry);
    const auto count = std::ranges::count_if(classes, [](const ClassInfo& info) { return info.server.has_value(); });
    const HRESULT result = module.Unregister(registry);
    if (FAILED(result))
        Fail(PathOf(registry), "cannot unregister", result);
    return CountText(static_cast<size_t>(count), "taken out of ", PathOf(registry));
}

}  // namespace tessel::tool
