// Display names for whoever uses the tool: those that the library documents, and beside them those that standards give
// to codes that it shows as numbers.
#pragma once

#include <cstdint>
#include <string>

namespace tessel::tool {

// registration: format_identifier of the program, 0 for none; it says whose the private types are.
std::string StreamTypeName(uint32_t streamType, uint32_t registration);
std::string DescriptorTagName(uint32_t tag);
std::string ServiceTypeName(uint32_t serviceType);

}  // namespace tessel::tool
