#include "descriptors/DescriptorText.h"

#include <algorithm>
#include <charconv>
#include <iterator>

#include "descriptors/LanguageCode.h"
#include "descriptors/NameTable.h"
#include "platform/com/ComPtr.h"
#include "services/objects/Collections.h"
#include "services/objects/Parameters.h"

namespace tessel {

namespace {

// Appends to the text in a buffer until it is full.
class TextWriter {
public:
    explicit TextWriter(std::span<OLECHAR> buffer) : m_free(buffer) {
        if (!m_free.empty())
            m_free.front() = u'\0';
    }

    TextWriter& operator<<(std::u16string_view text) {
        if (m_free.empty())
            return *this;
        size_t count = std::min(text.size(), m_free.size() - 1);
        const bool cut = count < text.size();
        if (cut && count > 0 && (text[count - 1] & 0xFC00) == 0xD800)
            --count;  // no half of a surrogate pair
        *std::copy_n(text.begin(), count, m_free.begin()) = u'\0';
        m_free = cut ? std::span<OLECHAR>() : m_free.subspan(count);
        return *this;
    }

    TextWriter& operator<<(uint32_t number) {
        char digits[10];
        const auto written = std::to_chars(std::begin(digits), std::end(digits), number);
        return *this << std::u16string(std::begin(digits), written.ptr);
    }

private:
    std::span<OLECHAR> m_free;  // behind the text, from its zero unit on; empty once something was cut
};

template <size_t N>
std::u16string_view NameOf(const NameTable::Row (&rows)[N], uint32_t key, std::u16string_view otherwise) {
    const auto* row = std::ranges::find(rows, key, &NameTable::Row::key);
    return row != std::end(rows) ? row->name : otherwise;
}

template <class I>
ComPtr<I> Ask(IDvbDescriptor* descriptor) {
    return ComPtr<IDvbDescriptor>(descriptor).As<I>();
}

constexpr NameTable::Row kProfiles[] = {{1, u"HP@"}, {2, u"SPAT@"}, {3, u"SNR@"}, {4, u"MP@"}, {5, u"SP@"}};
constexpr NameTable::Row kLevels[] = {{4, u"HL"}, {6, u"1440"}, {8, u"ML"}, {10, u"LL"}};
constexpr NameTable::Row kFrameRates[] = {{1, u"23.976 fps"}, {2, u"24 fps"}, {3, u"25 fps"},    {4, u"29.97 fps"},
                                          {5, u"30 fps"},     {6, u"50 fps"}, {7, u"59.94 fps"}, {8, u"60 fps"}};

constexpr NameTable::Row kAvcProfiles[] = {{0x42, u"BaseLine@"}, {0x4D, u"Main@"}, {0x58, u"Extended@"}};

constexpr NameTable::Row kAudioTypes[] = {
    {0, u"Undefined"}, {1, u"CleanEffects"}, {2, u"HearingImpaired"}, {3, u"VisualImpairedComments"}};

constexpr NameTable::Row kTeletextTypes[] = {{0, u"Reserved"},
                                             {1, u"InitialTeletextPage"},
                                             {2, u"SubtitlePage"},
                                             {3, u"AdditionalInformationPage"},
                                             {4, u"ProgrammeSchedulePage"},
                                             {5, u"SubtitleForHearingImpairedPeople"}};

constexpr NameTable::Row kSubtitlingTypes[] = {
    {0x10, u"NormalNoAspect"},
    {0x11, u"NormalAspect4_3"},
    {0x12, u"NormalAspect16_9"},
    {0x13, u"NormalAspect221_100"},
    {0x20, u"HearingImpairedNoAspect"},
    {0x21, u"HearingImpairedAspect4_3"},
    {0x22, u"HearingImpairedAspect16_9"},
    {0x23, u"HearingImpairedAspect221_100"},
};

void Write(TextWriter& text, IDvbDescISO639LanguageItem& item) {
    uint32_t language = 0;
    uint32_t audioType = 0;
    item.GetLanguage(&language);
    item.GetAudioType(&audioType);
    text << LanguageName(language) << u", " << NameOf(kAudioTypes, audioType, u"<unknown AudioType>");
}

void Write(TextWriter& text, IDvbDescTeletextItem& item) {
    uint32_t language = 0;
    uint32_t type = 0;
    item.GetLanguage(&language);
    item.GetTeletextType(&type);
    text << LanguageName(language) << u", " << NameOf(kTeletextTypes, type, u"<unknown TeletextType>");
}

void Write(TextWriter& text, IGetSetParam& subtitle) {
    const auto field = [&](uint32_t id) {
        uint32_t value = 0;
        subtitle.GetParam(id, &value);
        return value;
    };
    text << u"[" << LanguageName(field(param::kLanguage)) << u", "
         << NameOf(kSubtitlingTypes, field(param::kSubtitlingType), u"<Unknown Type>") << u", ("
         << field(param::kCompositionPageId) << u", " << field(param::kAncillaryPageId) << u")]";
}

template <class I, class Item>
void RenderItems(std::span<OLECHAR> buffer, std::u16string_view name, IDvbDescriptor* descriptor) {
    TextWriter text(buffer);
    text << name;
    const auto list = Ask<I>(descriptor);
    if (!list)
        return;
    text << u"(";
    uint32_t count = 0;
    list->GetCount(&count);
    std::u16string_view separator;
    for (uint32_t i = 0; i < count; ++i) {
        ComPtr<Item> item;
        if (FAILED(list->GetItem(i, item.Put())))
            continue;
        text << separator;
        Write(text, *item);
        separator = u", ";
    }
    text << u")";
}

// name(NUMBER), where the descriptor answers I.
template <class I>
void RenderNumber(std::span<OLECHAR> buffer, std::u16string_view name, HRESULT (I::*getter)(uint32_t*),
                  IDvbDescriptor* descriptor) {
    TextWriter text(buffer);
    text << name;
    if (const auto typed = Ask<I>(descriptor)) {
        uint32_t number = 0;
        (typed.Get()->*getter)(&number);
        text << u"(" << number << u")";
    }
}

// What is missing is said, for an empty pair of quotation marks looks like a mistake of ours.
void WriteName(TextWriter& text, IDvbDescService& service, HRESULT (IDvbDescService::*getter)(BSTR*),
               std::u16string_view otherwise) {
    CBstr name;
    (service.*getter)(name.Put());
    text << u", '" << (name.View().empty() ? otherwise : name.View()) << u"'";
}

void RenderVideoStream(std::span<OLECHAR> buffer, IDvbDescriptor* descriptor) {
    TextWriter text(buffer);
    text << u"VideoStream";
    const auto video = Ask<IDvbDescVideoStream>(descriptor);
    if (!video)
        return;
    uint32_t profileAndLevel = 0;
    uint32_t multipleFrameRate = 0;
    uint32_t frameRateCode = 0;
    uint32_t mpeg1Only = 0;
    video->GetProfileAndLevel(&profileAndLevel);
    video->GetInfo(&multipleFrameRate, &frameRateCode, &mpeg1Only, nullptr, nullptr, nullptr, nullptr);
    text << u"(" << NameOf(kProfiles, profileAndLevel >> 4, {}) << NameOf(kLevels, profileAndLevel & 0xF, {}) << u", "
         << NameOf(kFrameRates, frameRateCode, u"?? fps") << (mpeg1Only != 0 ? u", MPEG1" : u"")
         << (multipleFrameRate != 0 ? u" (multi)" : u"") << u")";
}

void RenderRegistration(std::span<OLECHAR> buffer, IDvbDescriptor* descriptor) {
    TextWriter text(buffer);
    text << u"Registration";
    uint32_t identifier = 0;
    const auto parameters = Ask<IGetSetParam>(descriptor);
    if (!parameters || parameters->GetParam(param::kFormatIdentifier, &identifier) != S_OK)
        return;
    OLECHAR characters[4];
    for (OLECHAR& character : characters) {
        character = identifier >> 24;
        if (character < 0x20)
            character = u'.';
        identifier <<= 8;
    }
    text << u"(" << std::u16string_view(characters, std::size(characters)) << u")";
}

void RenderISO639Language(std::span<OLECHAR> buffer, IDvbDescriptor* descriptor) {
    RenderItems<IDvbDescISO639Language, IDvbDescISO639LanguageItem>(buffer, u"ISO639Language", descriptor);
}

void RenderAVCVideo(std::span<OLECHAR> buffer, IDvbDescriptor* descriptor) {
    TextWriter text(buffer);
    text << u"AVCVideo";
    const auto video = Ask<IDvbDescAVCVideo>(descriptor);
    if (!video)
        return;
    uint32_t profileIdc = 0;
    uint32_t levelIdc = 0;
    video->GetProfileLevel(&profileIdc, &levelIdc);
    text << u"(" << NameOf(kAvcProfiles, profileIdc, u"?P@") << levelIdc / 10 << u"." << levelIdc % 10 << u")";
}

void RenderService(std::span<OLECHAR> buffer, IDvbDescriptor* descriptor) {
    TextWriter text(buffer);
    text << u"Service";
    const auto service = Ask<IDvbDescService>(descriptor);
    if (!service)
        return;
    uint32_t type = 0;
    service->GetServiceType(&type);
    text << u"(" << ServiceTypeNames().GetName(type);
    WriteName(text, *service, &IDvbDescService::GetProviderName, u"<NoProvider>");
    WriteName(text, *service, &IDvbDescService::GetServiceName, u"<NoName>");
    text << u")";
}

void RenderStreamIdentifier(std::span<OLECHAR> buffer, IDvbDescriptor* descriptor) {
    RenderNumber(buffer, u"StreamIdentifier", &IDvbDescStreamIdentifier::GetComponentTag, descriptor);
}

void RenderTeletext(std::span<OLECHAR> buffer, IDvbDescriptor* descriptor) {
    RenderItems<IDvbDescTeletext, IDvbDescTeletextItem>(buffer, u"Teletext", descriptor);
}

void RenderSubtitling(std::span<OLECHAR> buffer, IDvbDescriptor* descriptor) {
    TextWriter text(buffer);
    text << u"Subtitling";
    ComPtr<IDvbCollection> subtitles;
    const auto parameters = Ask<IGetSetCOMParam>(descriptor);
    if (!parameters || parameters->GetCOMParam(param::kSubtitles, IDvbCollection::kIid,
                                               reinterpret_cast<void**>(subtitles.Put())) != S_OK)
        return;
    text << u"(";
    for (int32_t i = 0; const auto subtitle = ItemAs<IGetSetParam>(subtitles.Get(), i); ++i) {
        text << (i > 0 ? u", " : u"");
        Write(text, *subtitle);
    }
    text << u")";
}

void RenderDataBroadcastId(std::span<OLECHAR> buffer, IDvbDescriptor* descriptor) {
    RenderNumber(buffer, u"DataBroadcastId", &IDvbDescDataBroadcastId::GetDataBroadcastId, descriptor);
}

}  // namespace

void RenderDescriptor(std::span<OLECHAR> buffer, IDvbDescriptor* descriptor) {
    TextWriter text(buffer);
    if (descriptor == nullptr)
        return;
    uint32_t descriptorTag = 0;
    descriptor->GetTag(&descriptorTag);
    switch (descriptorTag) {
    case tag::kVideoStream:
        return RenderVideoStream(buffer, descriptor);
    case tag::kRegistration:
        return RenderRegistration(buffer, descriptor);
    case tag::kISO639Language:
        return RenderISO639Language(buffer, descriptor);
    case tag::kAVCVideo:
        return RenderAVCVideo(buffer, descriptor);
    case tag::kService:
        return RenderService(buffer, descriptor);
    case tag::kStreamIdentifier:
        return RenderStreamIdentifier(buffer, descriptor);
    case tag::kTeletext:
        return RenderTeletext(buffer, descriptor);
    case tag::kSubtitling:
        return RenderSubtitling(buffer, descriptor);
    case tag::kDataBroadcastId:
        return RenderDataBroadcastId(buffer, descriptor);
    default:
        text << DescriptorTagNames().GetName(descriptorTag);
    }
}

}  // namespace tessel
