// The class registry as text: keys, each with named values in order.
//
//   [class {05A20097-501E-4CE4-965A-C1F2F1BEEC42}]
//   name = Corvane MPEG TS Splitter
//
// Blank lines and lines that begin with # say nothing. In texts \\ is a backslash and \x0A a byte.
#pragma once

#include <cstddef>
#include <map>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

using RegistryValues = std::vector<std::pair<std::string, std::string>>;
using RegistryKeys = std::map<std::string, RegistryValues>;

// The first value of that name; empty when there is none.
std::string_view FindValue(const RegistryValues& values, std::string_view name);

std::string FormatRegistry(const RegistryKeys& keys);
// The number of the first line that is none of a registry, 0 when all are. A key that comes twice is one.
size_t ParseRegistry(std::string_view text, RegistryKeys* out);
