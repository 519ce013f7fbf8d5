// Identifiers as text, for files and people.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "platform/com/Guid.h"

// "{01234567-89AB-CDEF-0123-456789ABCDEF}".
std::string GuidToText(const GUID& guid);
// The same text, in capitals or not; nothing for any other.
std::optional<GUID> GuidFromText(std::string_view text);
