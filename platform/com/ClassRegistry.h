// The registry of classes: which module makes a class, and which filters there are in which category.
//
// One text file: the one that the environment variable TESSEL_REGISTRY names, else tessel/registry under
// XDG_DATA_HOME, else under ~/.local/share. See RegistryFile.h for what it survives.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/com/FilterMapper.h"
#include "platform/com/RegistryFile.h"
#include "platform/com/RegistryText.h"

// The file is no registry.
inline constexpr HRESULT REGDB_E_INVALIDVALUE = MakeResult(0x80040153);

// Texts are UTF-8.
struct RegisteredClass {
    CLSID id;
    std::string name;
    std::string server;  // the module's path
    std::string threading;
};

struct RegisteredPin {
    struct MediaType {
        GUID major;
        GUID minor;
    };
    std::string name;
    bool output = false;
    bool rendered = false;
    bool zero = false;
    bool many = false;
    std::vector<MediaType> types;
};

struct RegisteredFilter {
    std::string instance;
    std::string name;
    CLSID id;
    DWORD merit = 0;
    std::vector<RegisteredPin> pins;
};

// Either read once (Read), or changed as one: Begin, changes, Commit. What was not committed was never done. One
// thread at a time; throws nothing but std::bad_alloc.
class CClassRegistry {
public:
    static std::string DefaultPath();

    // The default one; Begin makes its folder.
    CClassRegistry();
    explicit CClassRegistry(const std::string& path) : m_file(path) {}

    HRESULT Read();
    // Takes the lock, which Commit gives back.
    HRESULT Begin();
    HRESULT Commit();
    // After REGDB_E_INVALIDVALUE: which line of the file is none of a registry.
    size_t BadLine() const { return m_badLine; }

    // Takes the place of what is registered for the class.
    void RegisterClass(const CLSID& id, const OLECHAR* name, const std::string& server);
    void UnregisterClass(const CLSID& id);
    std::optional<RegisteredClass> FindClass(const CLSID& id) const;
    // In the order of their identifiers.
    std::vector<RegisteredClass> Classes() const;
    // Of a category, in the order of their instances. Entries that a person has spoilt are left out.
    std::vector<RegisteredFilter> Filters(const CLSID& category) const;

    // For the filter mapper.
    RegistryKeys& Keys() { return m_keys; }

private:
    CRegistryFile m_file;
    std::string m_folder;  // to be made; or empty
    std::string m_text;    // as it was read
    RegistryKeys m_keys;
    size_t m_badLine = 0;
};

// The names of keys: of a category, and of a filter in it.
std::string CategoryKey(const CLSID& category);
std::string FilterKey(const CLSID& category, std::string_view instance);
