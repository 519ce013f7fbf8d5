// Descriptor objects, what clients read from them, and the descriptor loop.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "descriptors/DescriptorLoop.h"

namespace tessel {
namespace {

using Bytes = std::vector<uint8_t>;

DescriptorContext ContextOf(uint8_t descriptorTag) {
    return descriptorTag == tag::kService || descriptorTag == tag::kDataBroadcast ? DescriptorContext::kService
                                                                                  : DescriptorContext::kComponent;
}

HRESULT ParseResult(uint8_t descriptorTag, const Bytes& payload) {
    return MakeDescriptor(ContextOf(descriptorTag), descriptorTag)->Parse(Bytes(payload));
}

// The interface I of a descriptor that must parse.
template <class I>
ComPtr<I> Parsed(uint8_t descriptorTag, const Bytes& payload) {
    const auto descriptor = MakeDescriptor(ContextOf(descriptorTag), descriptorTag);
    EXPECT_EQ(descriptor->Parse(Bytes(payload)), S_OK);
    return descriptor.As<I>();
}

template <class I>
uint32_t Value(I* object, HRESULT (I::*getter)(uint32_t*)) {
    uint32_t value = 0xDEADBEEF;
    EXPECT_EQ((object->*getter)(&value), S_OK);
    return value;
}

template <class I>
std::u16string Text(I* object, HRESULT (I::*getter)(BSTR*)) {
    CBstr text;
    EXPECT_EQ((object->*getter)(text.Put()), S_OK);
    return text ? std::u16string(text.View()) : u"<none>";
}

uint32_t Param(IGetSetParam* object, uint32_t id) {
    uint32_t value = 0xDEADBEEF;
    EXPECT_EQ(object->GetParam(id, &value), S_OK) << std::hex << id;
    return value;
}

TEST(Descriptors, PayloadsCutShortAreRefused) {
    struct Case {
        uint8_t tag;
        Bytes shortest;  // parses; nothing shorter does
        HRESULT refusal;
    };
    const Case cases[] = {
        {0x02, {0x00, 0, 0}, E_FAIL},
        {0x02, {0x04}, E_FAIL},
        {0x05, {'H', 'D', 'M', 'V'}, E_INVALIDARG},
        {0x09, {0x0B, 0x00, 0xE1, 0x23}, E_INVALIDARG},
        {0x28, {77, 0, 30, 0}, E_FAIL},
        {0x48, {0x01, 0, 0}, E_FAIL},
        {0x48, {0x01, 2, 'a', 'b', 1, 'c'}, E_FAIL},
        {0x52, {7}, E_FAIL},
        {0x64, {0, 1, 2, 0, 'g', 'e', 'r', 0}, E_FAIL},
        {0x64, {0, 1, 2, 2, 9, 9, 'g', 'e', 'r', 1, 'x'}, E_FAIL},
        {0x66, {0x00, 0x0A}, E_FAIL},
        {0x6A, {0x00}, E_FAIL},
        {0x6A, {0x80, 0x42}, E_FAIL},
        {0x6A, {0xF0, 1, 2, 3, 4}, E_FAIL},
        {0x6A, {0x10, 4}, E_FAIL},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(ParseResult(c.tag, c.shortest), S_OK) << std::hex << int{c.tag};
        Bytes longer = c.shortest;
        longer.push_back(0xFF);
        EXPECT_EQ(ParseResult(c.tag, longer), S_OK) << std::hex << int{c.tag};
        for (Bytes cut = c.shortest; !cut.empty();) {
            cut.pop_back();
            EXPECT_EQ(ParseResult(c.tag, cut), c.refusal) << std::hex << int{c.tag} << " length " << cut.size();
        }
    }
    for (const uint8_t list : {0x0A, 0x56, 0x59, 0xC0})
        EXPECT_EQ(ParseResult(list, {}), S_OK) << std::hex << int{list};
}

TEST(Descriptors, VideoStream) {
    const auto read = [](const Bytes& payload) {
        const auto video = Parsed<IDvbDescVideoStream>(0x02, payload);
        std::vector<uint32_t> v(8);
        EXPECT_EQ(video->GetProfileAndLevel(&v[0]), S_OK);
        EXPECT_EQ(video->GetInfo(&v[1], &v[2], &v[3], &v[4], &v[5], &v[6], &v[7]), S_OK);
        EXPECT_EQ(video->GetProfileAndLevel(nullptr), S_OK);
        EXPECT_EQ(video->GetInfo(nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr), S_OK);
        return v;
    };
    // profile and level, then: multiple rates, rate, MPEG-1, constrained, still, chroma, rate extension
    using V = std::vector<uint32_t>;
    EXPECT_EQ(read({0x1A, 0xC8, 0x5F}), (V{0x48, 0, 3, 0, 1, 0, 1, 0}));
    EXPECT_EQ(read({0xC1, 0x44, 0xA0}), (V{0x44, 1, 8, 0, 0, 1, 2, 1}));
    EXPECT_EQ(read({0x2C, 0xC8, 0xFF}), (V{0x4A, 0, 5, 1, 0, 0, 1, 0})) << "MPEG-1 reads no further";
}

TEST(Descriptors, ConditionalAccessKeepsPrivateDataAndIsParsedOnce) {
    auto object = MakeDescriptor(DescriptorContext::kComponent, tag::kConditionalAccess);
    const auto access = object.As<IDvbDescConditionalAccess>();
    EXPECT_EQ(Value(access.Get(), &IDvbDescConditionalAccess::GetCaPid), 8192u);
    EXPECT_EQ(object->Parse(Bytes{1, 2, 3}), E_INVALIDARG);
    EXPECT_EQ(object->Parse(Bytes{0x0B, 0x00, 0xE1, 0x23}), S_OK);
    EXPECT_EQ(object->Parse(Bytes{0x01, 0x00, 0xE1, 0x24, 9}), E_ACCESSDENIED);
    EXPECT_EQ(Value(access.Get(), &IDvbDescConditionalAccess::GetCaSystemId), 0x0B00u);
    EXPECT_EQ(Value(access.Get(), &IDvbDescConditionalAccess::GetCaPid), 0xE123u);
    EXPECT_EQ(Value(access.Get(), &IDvbDescConditionalAccess::GetPrivateDataLength), 0u);
    EXPECT_EQ(access->GetCaPid(nullptr), E_POINTER);
    EXPECT_EQ(access->GetPrivateData(nullptr, 4), E_POINTER);

    const auto longer = Parsed<IDvbDescConditionalAccess>(0x09, {0, 1, 0, 2, 7, 8, 9});
    EXPECT_EQ(Value(longer.Get(), &IDvbDescConditionalAccess::GetPrivateDataLength), 3u);
    Bytes part(2);
    EXPECT_EQ(longer->GetPrivateData(part.data(), 2), S_OK);
    EXPECT_EQ(part, (Bytes{7, 8}));
    Bytes more(5, 0x55);
    EXPECT_EQ(longer->GetPrivateData(more.data(), 5), S_OK);
    EXPECT_EQ(more, (Bytes{7, 8, 9, 0x55, 0x55}));
}

TEST(Descriptors, ServiceAndDataBroadcastTexts) {
    const auto service =
        Parsed<IDvbDescService>(0x48, {0x19, 4, 0x10, 0x00, 0x02, 0xA1, 6, 'O', 'n', 'e', 0, 'x', 'y', 0xFF});
    EXPECT_EQ(Value(service.Get(), &IDvbDescService::GetServiceType), 0x19u);
    EXPECT_EQ(Text(service.Get(), &IDvbDescService::GetProviderName), u"Ą");
    EXPECT_EQ(Text(service.Get(), &IDvbDescService::GetServiceName), u"One") << "up to the first zero";
    EXPECT_EQ(service->GetServiceName(nullptr), E_POINTER);
    const auto unnamed = Parsed<IDvbDescService>(0x48, {0x01, 0, 0});
    EXPECT_EQ(Text(unnamed.Get(), &IDvbDescService::GetProviderName), u"") << "empty is a text";
    const auto unparsed = MakeDescriptor(DescriptorContext::kService, tag::kService).As<IDvbDescService>();
    EXPECT_EQ(Text(unparsed.Get(), &IDvbDescService::GetServiceName), u"<none>");

    const auto broadcast = Parsed<IDvbDescDataBroadcast>(
        0x64, {0x01, 0x23, 0x45, 2, 0xAA, 0xBB, 'D', 'E', 'U', 5, 'H', 'a', 'l', 'l', 'o', 'x'});
    EXPECT_EQ(Value(broadcast.Get(), &IDvbDescDataBroadcast::GetDataBroadcastId), 0x0123u);
    EXPECT_EQ(Value(broadcast.Get(), &IDvbDescDataBroadcast::GetComponentTag), 0x45u);
    EXPECT_EQ(Value(broadcast.Get(), &IDvbDescDataBroadcast::GetLanguage), 0x676572u);
    EXPECT_EQ(Text(broadcast.Get(), &IDvbDescDataBroadcast::GetText), u"Hallo");
}

TEST(Descriptors, RegistrationAndAc3) {
    const auto registration = Parsed<IGetSetParam>(0x05, {'A', 'C', '-', '3', 1});
    EXPECT_EQ(Param(registration.Get(), param::kFormatIdentifier), 0x41432D33u);
    EXPECT_EQ(registration->GetParam(param::kFormatIdentifier, nullptr), E_POINTER);
    EXPECT_EQ(registration->GetParam(12345, nullptr), E_POINTER);
    bool present = false;
    uint32_t type = 0;
    EXPECT_EQ(Parsed<IDvbDescAC3>(0x6A, {0xA0, 0x42, 0x07})->GetComponentType(&present, &type), S_OK);
    EXPECT_TRUE(present);
    EXPECT_EQ(type, 0x42u);
    const auto without = Parsed<IDvbDescAC3>(0x6A, {0x40, 0x08});
    EXPECT_EQ(without->GetComponentType(&present, &type), S_OK);
    EXPECT_FALSE(present);
    EXPECT_EQ(type, 0u) << "the next field's byte is not this one's";
    EXPECT_EQ(without->GetComponentType(nullptr, &type), E_POINTER);
}

TEST(Descriptors, LanguagesAndTeletextPages) {
    const auto object = MakeDescriptor(DescriptorContext::kComponent, tag::kISO639Language);
    const auto languages = object.As<IDvbDescISO639Language>();
    ASSERT_EQ(object->Parse(Bytes{'G', 'E', 'R', 1, 'f', 'r', 'a', 3, 'e', 'n', 'g'}), S_OK);
    EXPECT_EQ(Value(languages.Get(), &IDvbDescISO639Language::GetCount), 2u) << "the third is cut off";
    EXPECT_EQ(languages->GetCount(nullptr), S_OK);
    ComPtr<IDvbDescISO639LanguageItem> item;
    ASSERT_EQ(languages->GetItem(1, item.Put()), S_OK);
    EXPECT_EQ(Value(item.Get(), &IDvbDescISO639LanguageItem::GetLanguage), 0x667265u);
    EXPECT_EQ(Value(item.Get(), &IDvbDescISO639LanguageItem::GetAudioType), 3u);
    EXPECT_EQ(item->GetAudioType(nullptr), S_OK);
    EXPECT_TRUE(item.As<IGetSetParam>());
    EXPECT_FALSE(item.As<IDvbDescriptor>());
    EXPECT_EQ(languages->GetItem(0, nullptr), E_POINTER);
    for (const uint32_t index : {2u, 0xFFFFFFFFu}) {
        IDvbDescISO639LanguageItem* out = item.Get();
        EXPECT_EQ(languages->GetItem(index, &out), E_INVALIDARG);
        EXPECT_EQ(out, nullptr);
    }
    ASSERT_EQ(object->Parse(Bytes{'s', 'p', 'a', 0}), S_OK);
    EXPECT_EQ(Value(languages.Get(), &IDvbDescISO639Language::GetCount), 1u) << "parsing again starts again";
    EXPECT_EQ(Value(item.Get(), &IDvbDescISO639LanguageItem::GetAudioType), 3u) << "a held item lives on";

    const auto pages = Parsed<IDvbDescTeletext>(0x56, {'d', 'e', 'u', 0x2B, 0x99, 0, 'd'});
    EXPECT_EQ(Value(pages.Get(), &IDvbDescTeletext::GetCount), 1u);
    ComPtr<IDvbDescTeletextItem> page;
    ASSERT_EQ(pages->GetItem(0, page.Put()), S_OK);
    EXPECT_EQ(Value(page.Get(), &IDvbDescTeletextItem::GetMagazineNumber), 3u);
    EXPECT_EQ(Value(page.Get(), &IDvbDescTeletextItem::GetPageNumber), 0x99u);
    EXPECT_EQ(page->GetLanguage(nullptr), S_OK);
}

// A loop, what it leaves of it (tags in order) and what it reports.
TEST(DescriptorLoop, KeepsTheFirstOfEachTagThatParses) {
    using C = DescriptorContext;
    struct Case {
        const char* what;
        C context;
        Bytes loop;
        Bytes tags;
        bool sawConditionalAccess;
        bool overran;
    };
    const Case cases[] = {
        {"nothing", C::kComponent, {}, {}, false, false},
        {"unknown tags, empty payloads", C::kComponent, {0xC1, 0, 0xC0, 2, 1, 2, 0xC1, 0}, {0xC1, 0xC0}, false, false},
        {"a CA_descriptor that does not parse", C::kComponent, {0x09, 1, 0, 0x52, 1, 7}, {0x52}, true, false},
        {"generic only", C::kGenericOnly, {0x09, 1, 0, 0x05, 0, 0x05, 0}, {0x09, 0x05}, true, false},
        {"the first does not parse, the second does", C::kComponent, {0x52, 0, 0x52, 1, 8}, {0x52}, false, false},
        {"a tag without its length", C::kComponent, {0x52, 1, 7, 0x09}, {0x52}, true, true},
        {"a payload one byte too long", C::kComponent, {0x52, 1, 7, 0x09, 5, 0, 0, 0, 0}, {0x52}, true, true},
        {"a payload that ends with the loop", C::kComponent, {0x09, 4, 0, 0, 0, 0}, {0x09}, true, false},
        {"what follows an overrun is lost", C::kComponent, {0xC0, 200, 0x52, 1, 7}, {}, false, true},
        {"the smallest service", C::kService, {0x48, 3, 1, 0, 0}, {0x48}, false, false},
        {"a service tag in a component is generic", C::kComponent, {0x48, 0}, {0x48}, false, false},
        {"a component tag in a service is generic", C::kService, {0x52, 0}, {0x52}, false, false},
    };
    for (const Case& c : cases) {
        const auto descriptors = MakeObject<DvbMapping>();
        const DescriptorLoopResult result = ParseDescriptorLoop(Bytes(c.loop), c.context, *descriptors);
        EXPECT_EQ(result.sawConditionalAccess, c.sawConditionalAccess) << c.what;
        EXPECT_EQ(result.overran, c.overran) << c.what;
        Bytes tags;
        for (int32_t i = 0; const auto descriptor = ItemAs<IDvbDescriptor>(descriptors.Get(), i); ++i)
            tags.push_back(static_cast<uint8_t>(Value(descriptor.Get(), &IDvbDescriptor::GetTag)));
        EXPECT_EQ(tags, c.tags) << c.what;
        for (const uint8_t kept : c.tags)
            EXPECT_TRUE(LookupAs<IDvbDescriptor>(descriptors.Get(), kept)) << c.what;
    }
}

}  // namespace
}  // namespace tessel
