// Whole descriptor loops; the first byte chooses where the loop stands.
#include "descriptors/DescriptorLoop.h"
#include "fuzz/FuzzSupport.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    using namespace tessel;
    if (size == 0)
        return 0;
    const auto context = static_cast<DescriptorContext>(data[0] % 3);
    const std::span<const uint8_t> loop(data + 1, size - 1);
    const auto descriptors = MakeObject<DvbMapping>();
    const DescriptorLoopResult result = ParseDescriptorLoop(loop, context, *descriptors);

    uint32_t count = 0;
    descriptors->GetCount(&count);
    Require(count <= loop.size() / 2 && count <= 256);
    for (uint32_t i = 0; i < count; ++i) {
        const auto descriptor = ItemAs<IDvbDescriptor>(descriptors.Get(), static_cast<int32_t>(i));
        uint32_t tag = 0;
        descriptor->GetTag(&tag);
        Require(LookupAs<IDvbDescriptor>(descriptors.Get(), static_cast<int32_t>(tag)).Get() == descriptor.Get());
    }
    Require(result.sawConditionalAccess || !descriptors->Contains(tag::kConditionalAccess));
    Require(!result.overran || !loop.empty());
    return 0;
}
