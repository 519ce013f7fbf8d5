// The texts that people see for codes and descriptors.
#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include "descriptors/DescriptorLoop.h"
#include "descriptors/DescriptorText.h"
#include "descriptors/NameTable.h"

namespace tessel {
namespace {

using Bytes = std::vector<uint8_t>;

TEST(NameTable, KnowsRowsAndShowsOtherKeysAsNumbers) {
    const struct {
        const NameTable& table;
        uint32_t key;
        const char16_t* name;
    } cases[] = {
        {DescriptorTagNames(), 0x02, u"VideoStream"},
        {DescriptorTagNames(), 0x07, u"TargentBackgroundGrid"},  // misspelt; clients compare it
        {DescriptorTagNames(), 0x92, u"Region"},
        {DescriptorTagNames(), 0x93, u"DescriptorTag[93]"},
        {DescriptorTagNames(), 0x102, u"DescriptorTag[102]"},
        {StreamTypeNames(), 0x00, u"Reserved"},
        {StreamTypeNames(), 0x81, u"ATSC AC3 Audio"},
        {StreamTypeNames(), 0xFFFFFF81, u"StreamType[ffffff81]"},
        {ServiceTypeNames(), 0x0F, u"RCSFLS"},
        {ServiceTypeNames(), 0x11, u"ServiceType[11]"},
    };
    for (const auto& [table, key, name] : cases)
        EXPECT_EQ(table.GetName(key), name);
}

ComPtr<IDvbDescriptor> Descriptor(uint8_t descriptorTag, const Bytes& payload) {
    const auto context = descriptorTag == tag::kService ? DescriptorContext::kService : DescriptorContext::kComponent;
    const auto object = MakeDescriptor(context, descriptorTag);
    EXPECT_EQ(object->Parse(payload), S_OK);
    return object.As<IDvbDescriptor>();
}

std::u16string Rendered(IDvbDescriptor* descriptor) {
    std::vector<OLECHAR> buffer(kDescriptorTextUnits, u'#');
    RenderDescriptor(buffer, descriptor);
    return buffer.data();
}

Bytes Repeated(size_t count, const Bytes& item) {
    Bytes bytes;
    for (size_t i = 0; i < count; ++i)
        bytes.insert(bytes.end(), item.begin(), item.end());
    return bytes;
}

struct Example {
    uint8_t tag;
    Bytes payload;
    std::u16string text;
};

const Example kExamples[] = {
    {0x02, {0x1A, 0x48, 0x5F}, u"VideoStream(MP@ML, 25 fps)"},
    {0x02, {0x08, 0x14, 0x00}, u"VideoStream(HP@HL, 23.976 fps)"},
    {0x02, {0x40, 0x40, 0x00}, u"VideoStream(MP@, 60 fps)"},
    {0x02, {0x00, 0x48, 0x00}, u"VideoStream(MP@ML, ?? fps)"},
    {0x02, {0xCC}, u"VideoStream(MP@LL, ?? fps, MPEG1 (multi))"},
    {0x05, {'A', 'C', '-', '3'}, u"Registration(AC-3)"},
    {0x05, {0x00, 0x1F, 0x20, 0xE9}, u"Registration(.. é)"},
    {0x0A, {}, u"ISO639Language()"},
    {0x0A, {'d', 'e', 'u', 0}, u"ISO639Language(ger, Undefined)"},
    {0x0A,
     {0, 'd', 'e', 1, 0, 0, 0, 2, 0xFF, 0xFF, 0xFF, 3, 'x', 'y', 0, 4},
     u"ISO639Language(ger, CleanEffects, Unknown, HearingImpaired, Invalid, VisualImpairedComments, "
     u"xy, <unknown AudioType>)"},
    {0x28, {0x4D, 0, 30, 0}, u"AVCVideo(Main@3.0)"},
    {0x28, {100, 0, 41, 0}, u"AVCVideo(?P@4.1)"},
    {0x48, {1, 3, 'O', 'n', 'e', 3, 'T', 'w', 'o'}, u"Service(DigitalTelevision, 'One', 'Two')"},
    {0x48, {0x19, 0, 0}, u"Service(ServiceType[19], '<NoProvider>', '<NoName>')"},
    // Two characters beyond the basic plane: no buffer may end in the middle of one.
    {0x48,
     {2, 0, 9, 0x11, 0xD8, 0x3D, 0xDE, 0x00, 0xD8, 0x3D, 0xDE, 0x01},
     u"Service(DigitalRadio, '<NoProvider>', '\U0001F600\U0001F601')"},
    {0x52, {0xE1}, u"StreamIdentifier(225)"},
    {0x56, {}, u"Teletext()"},
    {0x56, {'g', 'e', 'r', 0x09, 0}, u"Teletext(ger, InitialTeletextPage)"},
    {0x56,
     {'f', 'r', 'a', 0x28, 0, 'f', 'r', 'a', 0x30, 0},
     u"Teletext(fre, SubtitleForHearingImpairedPeople, fre, <unknown TeletextType>)"},
    {0x59, {}, u"Subtitling()"},
    {0x59, {'g', 'e', 'r', 0x10, 0, 1, 0xFF, 0xFF}, u"Subtitling([ger, NormalNoAspect, (1, 65535)])"},
    {0x59,
     {'g', 'e', 'r', 0x23, 0, 1, 0, 2, 'g', 'e', 'r', 0x24, 0, 1, 0, 2},
     u"Subtitling([ger, HearingImpairedAspect221_100, (1, 2)], [ger, <Unknown Type>, (1, 2)])"},
    {0x66, {0x01, 0x06}, u"DataBroadcastId(262)"},
    // Without a renderer of their own.
    {0x09, {0, 1, 0, 2}, u"ConditionalAccess"},
    {0x6A, {0}, u"Ac3"},
    {0xC1, {1, 2}, u"DescriptorTag[c1]"},
};

TEST(DescriptorText, OfEveryKind) {
    for (const Example& example : kExamples)
        EXPECT_EQ(Rendered(Descriptor(example.tag, example.payload).Get()), example.text);
    EXPECT_EQ(Rendered(nullptr), u"");
}

TEST(DescriptorText, IsTheBareNameWhenOnlyTheTagIsKnown) {
    for (const Example& example : kExamples) {
        const auto generic = MakeDescriptor(DescriptorContext::kGenericOnly, example.tag).As<IDvbDescriptor>();
        EXPECT_EQ(Rendered(generic.Get()), example.text.substr(0, example.text.find(u'(')));
    }
}

// Renders into size units between canaries and holds what came out to text.
void ExpectCut(IDvbDescriptor* descriptor, const std::u16string& text, size_t size) {
    constexpr OLECHAR kCanary = 0xA5C3;
    const auto exact = std::make_unique<OLECHAR[]>(size);  // the sanitizers see a step past this one
    RenderDescriptor({exact.get(), size}, descriptor);
    std::vector<OLECHAR> guarded(size + 16, kCanary);
    RenderDescriptor(std::span(guarded).subspan(8, size), descriptor);
    for (size_t i = 0; i < 8; ++i)
        ASSERT_TRUE(guarded[i] == kCanary && guarded[guarded.size() - 1 - i] == kCanary) << size;
    if (size == 0)
        return;
    size_t kept = std::min(size - 1, text.size());
    if (kept > 0 && kept < text.size() && text[kept] >= 0xDC00 && text[kept] < 0xE000)
        --kept;
    EXPECT_EQ(std::u16string(exact.get()), text.substr(0, kept)) << size;
    EXPECT_EQ(std::u16string(guarded.data() + 8), text.substr(0, kept)) << size;
}

TEST(DescriptorText, IsCutAndTerminatedInEverySmallBuffer) {
    for (const Example& example : kExamples) {
        const auto descriptor = Descriptor(example.tag, example.payload);
        for (size_t size = 0; size <= 64; ++size)
            ExpectCut(descriptor.Get(), example.text, size);
    }
}

TEST(DescriptorText, LongestOnesFit) {
    const Example longest[] = {
        {0x0A, Repeated(63, {0, 0, 0, 3}), u"Unknown, VisualImpairedComments)"},
        {0x56, Repeated(51, {0, 0, 0, 0x28, 0}), u"Unknown, SubtitleForHearingImpairedPeople)"},
        {0x59, Repeated(31, {0, 0, 0, 0x23, 0xFF, 0xFF, 0xFF, 0xFF}),
         u"HearingImpairedAspect221_100, (65535, 65535)])"},
    };
    for (const Example& example : longest) {
        const std::u16string text = Rendered(Descriptor(example.tag, example.payload).Get());
        EXPECT_TRUE(text.ends_with(example.text)) << int{example.tag};
    }
}

}  // namespace
}  // namespace tessel
