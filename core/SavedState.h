// What a filter saves: its output pins, what each delivers, and their PID maps.
//
// 32-bit little-endian integers: the number of pins; for each the size of its name in bytes, the name in UTF-16LE
// with its terminating zero, the content kind, the number of entries, the entries: a special value first, then the
// PIDs in ascending order.
#pragma once

#include <string>
#include <vector>

#include "core/OutputPinList.h"
#include "platform/com/Stream.h"

namespace tessel {

struct SavedPin {
    std::u16string name;
    uint32_t contentKind = 0;
    std::vector<ULONG> entries;
};

HRESULT WritePins(IStream& stream, const std::vector<SavedPin>& pins);
// E_FAIL for more pins than a filter has, for a name or an entry list of impossible size, and at the end of the
// stream.
HRESULT ReadPins(IStream& stream, std::vector<SavedPin>* out);

}  // namespace tessel
