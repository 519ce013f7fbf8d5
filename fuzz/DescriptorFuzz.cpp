// The payloads of one descriptor class, that of the tag TESSEL_FUZZ_TAG, and all that a client can ask it.
#include <memory>
#include <string_view>
#include <vector>

#include "descriptors/DescriptorLoop.h"
#include "descriptors/DescriptorText.h"
#include "descriptors/LanguageCode.h"
#include "descriptors/NameTable.h"
#include "fuzz/FuzzSupport.h"

namespace tessel {
namespace {

constexpr uint8_t kTag = TESSEL_FUZZ_TAG;

void ReadLanguage(uint32_t language) {
    Require(language <= 0xFFFFFF && LanguageName(language).size() <= 7);
}

// Names end at their first zero unit.
void ReadText(const CBstr& text) {
    Require(text.View().find(u'\0') == text.View().npos);
}

void Read(IDvbDescVideoStream& video) {
    uint32_t value[8] = {};
    video.GetProfileAndLevel(&value[0]);
    video.GetInfo(&value[1], &value[2], &value[3], &value[4], &value[5], &value[6], &value[7]);
    Require(value[0] < 128 && value[2] < 16 && value[6] < 4);
}

void Read(IDvbDescConditionalAccess& access) {
    uint32_t value = 0;
    access.GetCaSystemId(&value);
    Require(value <= 0xFFFF);
    access.GetCaPid(&value);
    Require(value <= 0xFFFF);
    access.GetPrivateDataLength(&value);
    std::vector<uint8_t> data(value + 1);
    for (const uint32_t size : {0u, value / 2, value, ~0u})
        Require(access.GetPrivateData(data.data(), size) == S_OK);
}

void ReadItem(IDvbDescISO639LanguageItem& item) {
    uint32_t value = 0;
    item.GetLanguage(&value);
    ReadLanguage(value);
    item.GetAudioType(&value);
    Require(value < 256);
}

void ReadItem(IDvbDescTeletextItem& item) {
    uint32_t value = 0;
    item.GetLanguage(&value);
    ReadLanguage(value);
    item.GetTeletextType(&value);
    Require(value < 32);
    item.GetMagazineNumber(&value);
    Require(value < 8);
    item.GetPageNumber(&value);
    Require(value < 256);
}

template <class Item, class I>
void ReadItems(I& list) {
    uint32_t count = 0;
    list.GetCount(&count);
    for (uint32_t i = 0; i < count; ++i) {
        ComPtr<Item> item;
        Require(list.GetItem(i, item.Put()) == S_OK);
        ReadItem(*item);
    }
    ComPtr<Item> none;
    Require(list.GetItem(count, none.Put()) == E_INVALIDARG && list.GetItem(~0u, none.Put()) == E_INVALIDARG);
}

void Read(IDvbDescISO639Language& languages) {
    ReadItems<IDvbDescISO639LanguageItem>(languages);
}

void Read(IDvbDescTeletext& pages) {
    ReadItems<IDvbDescTeletextItem>(pages);
}

void Read(IDvbDescService& service) {
    uint32_t type = 0;
    service.GetServiceType(&type);
    Require(!ServiceTypeNames().GetName(type).empty());
    CBstr name;
    Require(service.GetProviderName(name.Put()) == S_OK && name);
    ReadText(name);
    Require(service.GetServiceName(name.Put()) == S_OK && name);
    ReadText(name);
}

void Read(IDvbDescDataBroadcast& broadcast) {
    uint32_t value = 0;
    broadcast.GetDataBroadcastId(&value);
    broadcast.GetComponentTag(&value);
    broadcast.GetLanguage(&value);
    ReadLanguage(value);
    CBstr text;
    Require(broadcast.GetText(text.Put()) == S_OK && text);
    ReadText(text);
}

void Read(IDvbDescAC3& audio) {
    bool present = false;
    uint32_t value = 0;
    audio.GetComponentType(&present, &value);
    Require(present || value == 0);
}

// The others give numbers that were stored, and any will do.
template <class I>
void Read(I&) {}

void ReadParameters(IGetSetCOMParam& parameters) {
    uint32_t value = 0;
    Require(parameters.GetParam(param::kFormatIdentifier, &value) == (kTag == tag::kRegistration ? S_OK : S_FALSE));
    ComPtr<IDvbCollection> subtitles;
    const HRESULT found =
        parameters.GetCOMParam(param::kSubtitles, IDvbCollection::kIid, reinterpret_cast<void**>(subtitles.Put()));
    Require(found == (kTag == tag::kSubtitling ? S_OK : S_FALSE));
    for (int32_t i = 0; const auto subtitle = ItemAs<IGetSetCOMParam>(subtitles.Get(), i); ++i) {
        Require(subtitle->GetParam(param::kLanguage, &value) == S_OK);
        ReadLanguage(value);
        for (const uint32_t id : {param::kSubtitlingType, param::kCompositionPageId, param::kAncillaryPageId})
            Require(subtitle->GetParam(id, &value) == S_OK && value <= 0xFFFF);
    }
}

// The whole text, and cuts of it that end in the right place.
void ReadDisplayText(IDvbDescriptor* descriptor) {
    std::vector<OLECHAR> whole(kDescriptorTextUnits);
    RenderDescriptor(whole, descriptor);
    const size_t length = std::u16string_view(whole.data()).size();
    Require(length > 0 && length + 1 < kDescriptorTextUnits);
    for (const size_t size : {size_t{0}, size_t{1}, length / 2, length, length + 1}) {
        const auto part = std::make_unique<OLECHAR[]>(size);
        RenderDescriptor({part.get(), size}, descriptor);
        Require(size == 0 || std::u16string_view(whole.data()).starts_with(part.get()));
        Require(size <= length || std::u16string_view(part.get()).size() == length);
    }
}

template <class... Interfaces>
int ReadAs(const ComPtr<IDvbDescriptor>& descriptor) {
    int answered = 0;
    const auto read = [&](const auto& typed) {
        if (typed) {
            Read(*typed);
            ++answered;
        }
    };
    (read(descriptor.As<Interfaces>()), ...);
    return answered;
}

}  // namespace
}  // namespace tessel

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    using namespace tessel;
    constexpr bool kOfService = kTag == tag::kService || kTag == tag::kDataBroadcast;
    const auto object = MakeDescriptor(kOfService ? DescriptorContext::kService : DescriptorContext::kComponent, kTag);
    const HRESULT parsed = object->Parse({data, size});
    Require(parsed == S_OK || FAILED(parsed));
    if (FAILED(parsed))
        return 0;
    const auto descriptor = object.As<IDvbDescriptor>();
    uint32_t read = 0;
    Require(descriptor->GetTag(&read) == S_OK && read == kTag);
    Require(!DescriptorTagNames().GetName(read).empty());
    const int answered = ReadAs<IDvbDescVideoStream, IDvbDescAVCVideo, IDvbDescConditionalAccess,
                                IDvbDescISO639Language, IDvbDescTeletext, IDvbDescService, IDvbDescStreamIdentifier,
                                IDvbDescDataBroadcast, IDvbDescDataBroadcastId, IDvbDescAC3>(descriptor);
    Require(answered == (kTag == tag::kRegistration || kTag == tag::kSubtitling ? 0 : 1));
    ReadParameters(*descriptor.As<IGetSetCOMParam>());
    ReadDisplayText(descriptor.Get());
    return 0;
}
