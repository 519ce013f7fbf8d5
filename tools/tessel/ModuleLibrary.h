// The module as a program finds it: a file beside this one, known by its four entry points alone.
#pragma once

#include <string>

#include "platform/com/Result.h"

namespace tessel::tool {

// Loaded for the life of this object.
class ModuleLibrary {
public:
    // Fails when there is none, or when what is there is no module.
    ModuleLibrary();
    ~ModuleLibrary();
    ModuleLibrary(const ModuleLibrary&) = delete;
    ModuleLibrary& operator=(const ModuleLibrary&) = delete;

    const std::string& Path() const { return m_path; }

    // Registration in the file of that path; empty: in the user's own.
    HRESULT Register(const std::string& registry) const { return Call(m_register, registry); }
    HRESULT Unregister(const std::string& registry) const { return Call(m_unregister, registry); }

private:
    using EntryPoint = HRESULT (*)();

    void* Find(const char* name) const;
    HRESULT Call(EntryPoint entry, const std::string& registry) const;

    const std::string m_path;
    void* m_library = nullptr;
    EntryPoint m_register = nullptr;
    EntryPoint m_unregister = nullptr;
};

}  // namespace tessel::tool
