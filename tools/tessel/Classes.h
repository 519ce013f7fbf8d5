// The classes of the module: what they are, and their registration.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "platform/com/ClassRegistry.h"

namespace tessel::tool {

struct ClassInfo {
    RegisteredClass entry;                   // as this module registers it
    std::optional<RegisteredFilter> filter;  // none: a property page
    std::optional<std::string> server;       // the module that is registered for it, this or another
    bool IsRegistered() const { return server == entry.server; }
};

// registry: the path of the file, or empty for the user's own. Filters first, by name.
std::vector<ClassInfo> ReadClasses(const std::string& registry);
std::string ClassesAsJson(const std::vector<ClassInfo>& classes);
std::string ClassesAsText(const std::vector<ClassInfo>& classes);

// What was done, for people.
std::string RegisterModule(const std::string& registry);
std::string UnregisterModule(const std::string& registry);

}  // namespace tessel::tool
