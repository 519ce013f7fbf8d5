#include "descriptors/DescriptorLoop.h"

#include <algorithm>
#include <new>

#include "Classes/MultiPlatform/ByteReader.h"
#include "descriptors/DescriptorItems.h"
#include "descriptors/Descriptors.h"

namespace tessel {

namespace {

struct TypedTag {
    uint8_t tag;
    ComPtr<DescriptorBase> (*make)();
};

template <class Class>
ComPtr<DescriptorBase> Make() {
    return ComPtr<DescriptorBase>(new (std::nothrow) Class);
}

constexpr TypedTag kComponentTags[] = {
    {tag::kVideoStream, Make<DescVideoStream>},
    {tag::kRegistration, Make<DescRegistration>},
    {tag::kConditionalAccess, Make<DescConditionalAccess>},
    {tag::kISO639Language, Make<DescISO639Language>},
    {tag::kAVCVideo, Make<DescAVCVideo>},
    {tag::kStreamIdentifier, Make<DescStreamIdentifier>},
    {tag::kTeletext, Make<DescTeletext>},
    {tag::kSubtitling, Make<DescSubtitling>},
    {tag::kDataBroadcastId, Make<DescDataBroadcastId>},
    {tag::kAc3, Make<DescAc3>},
};

constexpr TypedTag kServiceTags[] = {
    {tag::kConditionalAccess, Make<DescConditionalAccess>},
    {tag::kService, Make<DescService>},
    {tag::kDataBroadcast, Make<DescDataBroadcast>},
};

std::span<const TypedTag> TypedTags(DescriptorContext context) {
    switch (context) {
    case DescriptorContext::kComponent:
        return kComponentTags;
    case DescriptorContext::kService:
        return kServiceTags;
    default:
        return {};
    }
}

void AddDescriptor(std::span<const uint8_t> payload, DescriptorContext context, uint8_t descriptorTag,
                   DvbMapping& descriptors) {
    if (descriptors.Contains(descriptorTag))
        return;  // it would be dropped: not worth parsing
    try {
        const auto descriptor = MakeDescriptor(context, descriptorTag);
        if (descriptor && SUCCEEDED(descriptor->Parse(payload))) {
            descriptor->KeepBytes(payload);
            descriptors.AddKeyed(descriptorTag, static_cast<IGetSetCOMParam*>(descriptor.Get()));
        }
    } catch (const std::bad_alloc&) {
        // Left out: the table is worth more than one descriptor.
    }
}

}  // namespace

ComPtr<DescriptorBase> MakeDescriptor(DescriptorContext context, uint8_t descriptorTag) {
    const auto tags = TypedTags(context);
    const auto typed = std::ranges::find(tags, descriptorTag, &TypedTag::tag);
    return typed != tags.end() ? typed->make() : ComPtr<DescriptorBase>(new (std::nothrow) DescGeneric(descriptorTag));
}

DescriptorLoopResult ParseDescriptorLoop(std::span<const uint8_t> loop, DescriptorContext context,
                                         DvbMapping& descriptors) {
    DescriptorLoopResult result;
    ByteReader reader(loop);
    while (reader.Remaining() != 0) {
        const uint8_t descriptorTag = reader.U8();
        if (descriptorTag == tag::kConditionalAccess)
            result.sawConditionalAccess = true;
        const auto payload = reader.Take(reader.U8());
        if (!reader.Ok()) {
            result.overran = true;
            break;
        }
        AddDescriptor(payload, context, descriptorTag, descriptors);
    }
    return result;
}

}  // namespace tessel
