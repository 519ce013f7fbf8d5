// An extension of the documented descriptors.
#pragma once

#include <cstdint>
#include <span>

#include "platform/com/Unknown.h"

namespace tessel {

// The bytes behind tag and length as they were sent, for whoever reads more of them than the descriptor's class does.
// They live as long as the descriptor.
class IDescriptorBytes : public IUnknown {
public:
    static constexpr IID kIid = MakeGuid("{5C1F6E0B-6A57-4F0B-9B0D-8E3C6E2D7A41}");

    virtual std::span<const uint8_t> Bytes() const = 0;
};

}  // namespace tessel
