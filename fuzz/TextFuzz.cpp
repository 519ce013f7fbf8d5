// Texts of any table, whole and through each converter.
#include <algorithm>

#include "descriptors/DvbText.h"
#include "fuzz/FuzzSupport.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    using namespace tessel;
    const std::u16string text = DecodeDvbText(data, static_cast<int32_t>(size));
    Require(text.size() <= size);
    for (const char16_t dropped : {u'\u0086', u'\u0087', u'\u008A'})
        Require((size != 0 && data[0] < 0x20) || text.find(dropped) == text.npos);

    for (uint32_t number = 0; number <= 17; ++number) {
        const MBToWC* converter = FindConverter(number);
        if (converter == nullptr)
            continue;
        for (std::span<const uint8_t> rest(data, size); !rest.empty();) {
            char16_t unit = 0;
            const size_t taken = converter->Convert(unit, rest);
            Require(taken >= 1 && taken <= std::min<size_t>(2, rest.size()));
            rest = rest.subspan(taken);
        }
    }
    return 0;
}
