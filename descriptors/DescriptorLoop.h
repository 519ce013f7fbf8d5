// Turns a descriptor loop of a table into descriptor objects, ISO/IEC 13818-1 clause 2.6.
#pragma once

#include <cstdint>
#include <span>

#include "descriptors/Descriptor.h"
#include "platform/com/ComPtr.h"
#include "services/objects/Collections.h"

namespace tessel {

// Where a loop stands decides which tags get a class of their own.
enum class DescriptorContext {
    kGenericOnly,  // program_info, ATSC entries
    kComponent,    // an elementary stream of a program map table
    kService,      // a service of a service description table
};

struct DescriptorLoopResult {
    bool sawConditionalAccess = false;  // a CA_descriptor's tag was read, whatever became of the descriptor
    bool overran = false;               // a descriptor ran past the loop and ended it
};

// Adds a descriptor of each tag of loop to descriptors under that tag: the first that parses, unless
// there is one already. Descriptors that do not parse, or find no memory, are left out.
DescriptorLoopResult ParseDescriptorLoop(std::span<const uint8_t> loop, DescriptorContext context,
                                         DvbMapping& descriptors);

// An unparsed object of the class for a tag; null when out of memory.
ComPtr<DescriptorBase> MakeDescriptor(DescriptorContext context, uint8_t descriptorTag);

}  // namespace tessel
