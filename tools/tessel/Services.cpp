#include "tools/tessel/Services.h"

#include <algorithm>

#include "Classes/MultiPlatform/ByteReader.h"
#include "core/stream/TsHeader.h"
#include "descriptors/DescriptorBytes.h"
#include "descriptors/DescriptorText.h"
#include "descriptors/LanguageCode.h"
#include "descriptors/NameTable.h"
#include "services/objects/Parameters.h"
#include "tables/TableFactory.h"
#include "tools/tessel/Names.h"
#include "tools/tessel/Utf8.h"

namespace tessel::tool {

namespace {

constexpr uint32_t kServiceDescriptionPid = 0x0011;
constexpr uint32_t kPsipBasePid = 0x1FFB;

template <class I>
using Getter = HRESULT (I::*)(uint32_t*);

template <class I>
uint32_t Value(I* object, Getter<I> getter) {
    uint32_t value = 0;
    (object->*getter)(&value);
    return value;
}

std::optional<std::string> TextOf(IDvbService* service, HRESULT (IDvbService::*getter)(BSTR*)) {
    CBstr text;
    if (FAILED((service->*getter)(text.Put())) || !text)
        return std::nullopt;
    return ToUtf8(text.View());
}

std::span<const uint8_t> BytesOf(IDvbMapping* descriptors, uint8_t tag) {
    const auto descriptor = LookupAs<IDescriptorBytes>(descriptors, tag);
    return descriptor ? descriptor->Bytes() : std::span<const uint8_t>();
}

// The library has no decoder for UTF-8 and makes nothing of it; EN 300 468 annex A selects it by 0x15.
void ReadUtf8(std::optional<std::string>& text, std::span<const uint8_t> sent) {
    constexpr uint8_t kUtf8Selector = 0x15;
    if (text == "" && !sent.empty() && sent.front() == kUtf8Selector)
        text = DecodeUtf8(sent.subspan(1));
}

// The names of a service that the library leaves empty, by the service descriptor, EN 300 468 clause 6.2.33.
void ReadUtf8Names(ServiceInfo& info, ITableDecoder& tables) {
    ComPtr<IDvbCollection> list;
    tables.EnumTables(kServiceDescriptionTable, list.Put());
    for (int32_t i = 0; const auto table = ItemAs<IDvbServiceDescriptionTable>(list.Get(), i); ++i) {
        ComPtr<IDvbMapping> services, descriptors;
        table->GetServiceDescriptions(services.Put());
        const auto service = LookupAs<IDvbServiceDescription>(services.Get(), static_cast<int32_t>(info.id));
        if (!service || FAILED(service->GetDescriptors(descriptors.Put())))
            continue;
        ByteReader reader(BytesOf(descriptors.Get(), tag::kService));
        reader.Skip(1);  // service_type
        ReadUtf8(info.provider, reader.Take(reader.U8()));
        ReadUtf8(info.name, reader.Take(reader.U8()));
    }
}

// Three letters or digits; what a broken descriptor holds is no language.
std::optional<std::string> LanguageText(uint32_t code) {
    const std::string text = {static_cast<char>(code >> 16), static_cast<char>(code >> 8), static_cast<char>(code)};
    const bool plain = std::all_of(text.begin(), text.end(), [](char c) {
        return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9');
    });
    return plain ? std::optional(text) : std::nullopt;
}

constexpr MediaKind kMediaKinds[] = {
    {MEDIATYPE_Video, MEDIASUBTYPE_MPEG1Payload, "video/mpeg1", "m1v"},
    {MEDIATYPE_Video, MEDIASUBTYPE_MPEG2_VIDEO, "video/mpeg2", "m2v"},
    {MEDIATYPE_Video, MEDIASUBTYPE_MPEG4_VIDEO, "video/mpeg4", "m4v"},
    {MEDIATYPE_Video, MEDIASUBTYPE_AVC_VIDEO, "video/h264", "h264"},
    {MEDIATYPE_Audio, MEDIASUBTYPE_MPEG1Payload, "audio/mpeg1", "mp2"},
    {MEDIATYPE_Audio, MEDIASUBTYPE_MPEG2_AUDIO, "audio/mpeg2", "mpa"},
    {MEDIATYPE_Audio, MEDIASUBTYPE_AAC_AUDIO, "audio/aac", "aac"},
    {MEDIATYPE_Audio, MEDIASUBTYPE_DOLBY_AC3, "audio/ac3", "ac3"},
    {KSDATAFORMAT_TYPE_VBI, KSDATAFORMAT_SUBTYPE_TELETEXT, "vbi/teletext", nullptr},
    {MEDIATYPE_Stream, MEDIASUBTYPE_DVB_SUBTITLE, "subtitle/dvb", "sub"},
};

const MediaKind* MediaOf(IDvbComponentEx* component) {
    AM_MEDIA_TYPE type;
    if (FAILED(component->GetMediaType(&type)))
        return nullptr;
    for (const MediaKind& kind : kMediaKinds)
        if (kind.majortype == type.majortype && kind.subtype == type.subtype)
            return &kind;
    return nullptr;
}

DescriptorInfo DescribeDescriptor(IDvbDescriptor* descriptor) {
    const uint32_t tag = Value(descriptor, &IDvbDescriptor::GetTag);
    OLECHAR text[kDescriptorTextUnits];
    RenderDescriptor(text, descriptor);
    const std::string documented = ToUtf8(DescriptorTagNames().GetName(tag));
    const std::string name = DescriptorTagName(tag);
    std::string rendered = ToUtf8(text);
    if (rendered.starts_with(documented))
        rendered.replace(0, documented.size(), name);
    return {tag, name, rendered};
}

// The languages of pages and subtitles, each once, in the order of the descriptor: "ger,fre".
std::optional<std::string> LanguagesOf(IDvbMapping* descriptors) {
    std::string languages;
    const auto add = [&languages](uint32_t code) {
        if (const auto language = LanguageText(code); language && languages.find(*language) == std::string::npos)
            languages += (languages.empty() ? "" : ",") + *language;
    };
    if (const auto teletext = LookupAs<IDvbDescTeletext>(descriptors, tag::kTeletext)) {
        ComPtr<IDvbDescTeletextItem> item;
        for (uint32_t i = 0; SUCCEEDED(teletext->GetItem(i, item.Put())); ++i)
            add(Value(item.Get(), &IDvbDescTeletextItem::GetLanguage));
    }
    if (const auto subtitling = LookupAs<IGetSetCOMParam>(descriptors, tag::kSubtitling)) {
        ComPtr<IDvbCollection> subtitles;
        subtitling->GetCOMParam(param::kSubtitles, IDvbCollection::kIid, reinterpret_cast<void**>(subtitles.Put()));
        for (int32_t i = 0; const auto subtitle = ItemAs<IGetSetParam>(subtitles.Get(), i); ++i) {
            uint32_t code = 0;
            if (subtitle->GetParam(param::kLanguage, &code) == S_OK)
                add(code);
        }
    }
    return languages.empty() ? std::nullopt : std::optional(languages);
}

// format_identifier of a registration, ISO/IEC 13818-1 clause 2.6.8; 0 where there is none.
uint32_t RegistrationOf(IDvbMapping* descriptors) {
    ByteReader reader(BytesOf(descriptors, tag::kRegistration));
    return reader.U32();
}

ComponentInfo DescribeComponent(IDvbComponentEx* component, uint32_t registration) {
    ComponentInfo info;
    info.pid = Value<IDvbComponent>(component, &IDvbComponent::GetPid);
    info.streamType = Value<IDvbComponent>(component, &IDvbComponent::GetStreamType);
    info.streamTypeName = StreamTypeName(info.streamType, registration);
    info.language = LanguageText(Value<IDvbComponentEx>(component, &IDvbComponentEx::GetLanguage));
    info.scrambled = component->IsScrambled() == S_OK;
    info.media = MediaOf(component);
    ComPtr<IDvbMapping> descriptors;
    component->GetDescriptors(descriptors.Put());
    if (!info.language)
        info.language = LanguagesOf(descriptors.Get());
    for (int32_t i = 0; const auto descriptor = ItemAs<IDvbDescriptor>(descriptors.Get(), i); ++i)
        info.descriptors.push_back(DescribeDescriptor(descriptor.Get()));
    return info;
}

std::optional<uint32_t> PidOrNone(uint32_t pid) {
    return pid != 0 && pid != kNullPid ? std::optional(pid) : std::nullopt;
}

}  // namespace

std::string CanonicalLanguage(const std::string& code) {
    const auto letter = [&code](size_t i) { return static_cast<uint8_t>(code[i]); };
    if (code.size() == 2)
        return LanguageText(NormaliseLanguage(0, letter(0), letter(1))).value_or(code);
    if (code.size() == 3)
        return LanguageText(NormaliseLanguage(letter(0), letter(1), letter(2))).value_or(code);
    return code;
}

ServiceInfo DescribeService(IDvbService* service, ITableDecoder& tables, bool named) {
    ServiceInfo info;
    info.id = Value<IDvbService>(service, &IDvbService::GetServiceId);
    info.name = TextOf(service, &IDvbService::GetName);
    info.provider = TextOf(service, &IDvbService::GetProviderName);
    if (info.name == "" || info.provider == "")
        ReadUtf8Names(info, tables);
    // 0 is reserved: no table has told the type.
    if (const uint32_t type = Value<IDvbService>(service, &IDvbService::GetServiceType); named && type != 0) {
        info.type = type;
        info.typeName = ServiceTypeName(type);
    }
    info.scrambled = service->IsScrambled() == S_OK;
    info.pcrPid = PidOrNone(Value<IDvbService>(service, &IDvbService::GetPcrPid));

    const auto params = ComPtr<IDvbService>(service).As<IGetSetParam>();
    const auto param = [&](uint32_t id) {
        uint32_t value = 0;
        params->GetParam(id, &value);
        return value;
    };
    info.pmtPid = PidOrNone(param(param::kPmtPid));
    const ChannelInfo channel = {param(param::kMajorChannel), param(param::kMinorChannel), param(param::kSourceId)};
    if (channel.major != 0 || channel.minor != 0 || channel.sourceId != 0)
        info.channel = channel;

    // The current table, not the service's own list: that one keeps the components of earlier versions.
    ComPtr<IDvbTable> table;
    tables.GetTable(kProgramMapTable, info.id, table.Put());
    if (const auto pmt = table.As<IDvbProgramMapTable>()) {
        info.hasProgramMap = true;
        ComPtr<IDvbCollection> components;
        ComPtr<IDvbMapping> descriptors;
        pmt->GetComponents(components.Put());
        pmt->GetDescriptors(descriptors.Put());
        const uint32_t registration = RegistrationOf(descriptors.Get());
        for (int32_t i = 0; const auto component = ItemAs<IDvbComponentEx>(components.Get(), i); ++i)
            info.components.push_back(DescribeComponent(component.Get(), registration));
    }
    return info;
}

const char* TableName(uint32_t tableId) {
    switch (tableId) {
    case kProgramAssociationTable:
        return "PAT";
    case kProgramMapTable:
        return "PMT";
    case kServiceDescriptionTable:
        return "SDT";
    case kMasterGuideTable:
        return "MGT";
    case kVirtualChannelTable:
        return "VCT";
    default:
        return "any";
    }
}

bool HasTable(ITableDecoder& tables, uint32_t tableId) {
    ComPtr<IDvbCollection> list;
    uint32_t count = 0;
    return SUCCEEDED(tables.EnumTables(tableId, list.Put())) && SUCCEEDED(list->GetCount(&count)) && count > 0;
}

bool NoNamesToCome(ITableDecoder& tables, const std::function<bool(uint32_t pid)>& isPresent) {
    return (HasTable(tables, kServiceDescriptionTable) || !isPresent(kServiceDescriptionPid)) &&
           (HasTable(tables, kVirtualChannelTable) || !isPresent(kPsipBasePid));
}

}  // namespace tessel::tool
