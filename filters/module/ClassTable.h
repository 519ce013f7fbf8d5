// The classes that the module makes, and how their filters are registered.
#pragma once

#include <span>

#include "platform/com/ClassFactory.h"

namespace tessel {

std::span<const ModuleClass> ModuleClasses();

// The category that the filters are registered in besides the default one.
inline constexpr CLSID CLSID_AuxiliaryFilters = MakeGuid("{5F710207-CF33-40FA-B819-E3AEE47ED0B7}");
inline constexpr const OLECHAR* kAuxiliaryFiltersName = u"Corvane Auxiliary Filters";
// Of the category and of every filter.
inline constexpr DWORD kMerit = 0x200000;

}  // namespace tessel
