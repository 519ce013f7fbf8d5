#include "tools/tessel/Info.h"

#include <algorithm>
#include <cctype>

#include "descriptors/DescriptorText.h"
#include "descriptors/NameTable.h"
#include "services/objects/Parameters.h"
#include "tables/TableFactory.h"
#include "tools/tessel/Failure.h"
#include "tools/tessel/Utf8.h"

namespace tessel::tool {

namespace {

constexpr int64_t kByteLimit = 10'000'000;
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

// Three letters or digits; what a broken descriptor holds is no language.
std::optional<std::string> LanguageText(uint32_t code) {
    const std::string text = {static_cast<char>(code >> 16), static_cast<char>(code >> 8), static_cast<char>(code)};
    const bool plain = std::all_of(text.begin(), text.end(), [](char c) {
        return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9');
    });
    return plain ? std::optional(text) : std::nullopt;
}

std::optional<std::string> MediaText(IDvbComponentEx* component) {
    AM_MEDIA_TYPE type;
    if (FAILED(component->GetMediaType(&type)))
        return std::nullopt;
    const struct {
        GUID majortype;
        GUID subtype;
        const char* text;
    } rows[] = {
        {MEDIATYPE_Video, MEDIASUBTYPE_MPEG1Payload, "video/mpeg1"},
        {MEDIATYPE_Video, MEDIASUBTYPE_MPEG2_VIDEO, "video/mpeg2"},
        {MEDIATYPE_Video, MEDIASUBTYPE_MPEG4_VIDEO, "video/mpeg4"},
        {MEDIATYPE_Video, MEDIASUBTYPE_AVC_VIDEO, "video/h264"},
        {MEDIATYPE_Audio, MEDIASUBTYPE_MPEG1Payload, "audio/mpeg1"},
        {MEDIATYPE_Audio, MEDIASUBTYPE_MPEG2_AUDIO, "audio/mpeg2"},
        {MEDIATYPE_Audio, MEDIASUBTYPE_AAC_AUDIO, "audio/aac"},
        {MEDIATYPE_Audio, MEDIASUBTYPE_DOLBY_AC3, "audio/ac3"},
        {KSDATAFORMAT_TYPE_VBI, KSDATAFORMAT_SUBTYPE_TELETEXT, "vbi/teletext"},
        {MEDIATYPE_Stream, MEDIASUBTYPE_DVB_SUBTITLE, "subtitle/dvb"},
    };
    for (const auto& row : rows)
        if (row.majortype == type.majortype && row.subtype == type.subtype)
            return row.text;
    return std::nullopt;
}

DescriptorInfo DescribeDescriptor(IDvbDescriptor* descriptor) {
    const uint32_t tag = Value(descriptor, &IDvbDescriptor::GetTag);
    OLECHAR text[kDescriptorTextUnits];
    RenderDescriptor(text, descriptor);
    return {tag, ToUtf8(DescriptorTagNames().GetName(tag)), ToUtf8(text)};
}

ComponentInfo DescribeComponent(IDvbComponentEx* component) {
    ComponentInfo info;
    info.pid = Value<IDvbComponent>(component, &IDvbComponent::GetPid);
    info.streamType = Value<IDvbComponent>(component, &IDvbComponent::GetStreamType);
    info.streamTypeName = ToUtf8(StreamTypeNames().GetName(info.streamType));
    info.language = LanguageText(Value<IDvbComponentEx>(component, &IDvbComponentEx::GetLanguage));
    info.scrambled = component->IsScrambled() == S_OK;
    info.media = MediaText(component);
    ComPtr<IDvbMapping> descriptors;
    component->GetDescriptors(descriptors.Put());
    for (int32_t i = 0; const auto descriptor = ItemAs<IDvbDescriptor>(descriptors.Get(), i); ++i)
        info.descriptors.push_back(DescribeDescriptor(descriptor.Get()));
    return info;
}

std::optional<uint32_t> PidOrNone(uint32_t pid) {
    return pid != 0 && pid != kNullPid ? std::optional(pid) : std::nullopt;
}

ServiceInfo DescribeService(IDvbService* service, StreamReader& reader, bool named) {
    ServiceInfo info;
    info.id = Value<IDvbService>(service, &IDvbService::GetServiceId);
    info.name = TextOf(service, &IDvbService::GetName);
    info.provider = TextOf(service, &IDvbService::GetProviderName);
    // 0 is reserved: no table has told the type.
    if (const uint32_t type = Value<IDvbService>(service, &IDvbService::GetServiceType); named && type != 0) {
        info.type = type;
        info.typeName = ToUtf8(ServiceTypeNames().GetName(type));
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
    reader.GetTable(kProgramMapTable, info.id, table.Put());
    if (const auto pmt = table.As<IDvbProgramMapTable>()) {
        info.hasProgramMap = true;
        ComPtr<IDvbCollection> components;
        pmt->GetComponents(components.Put());
        for (int32_t i = 0; const auto component = ItemAs<IDvbComponentEx>(components.Get(), i); ++i)
            info.components.push_back(DescribeComponent(component.Get()));
    }
    return info;
}

bool HasTable(const std::vector<TableStore::Version>& tables, uint32_t tableId) {
    return std::any_of(tables.begin(), tables.end(), [&](const auto& table) { return table.tableId == tableId; });
}

// Complete, and no table that would add names or channel numbers is still on its way.
bool NothingMoreToCome(StreamReader& reader) {
    if (reader.Services()->IsComplete() != S_OK)
        return false;
    const auto tables = reader.TableVersions();
    return (HasTable(tables, kServiceDescriptionTable) || !reader.PidStatus().IsPresent(kServiceDescriptionPid)) &&
           (HasTable(tables, kVirtualChannelTable) || !reader.PidStatus().IsPresent(kPsipBasePid));
}

void ReadTables(InputFile& input, bool allPids, StreamReader& reader) {
    std::vector<uint8_t> head;
    for (auto bytes = input.Read(); !bytes.empty(); bytes = input.Read()) {
        reader.Push(bytes);
        if (input.BytesRead() <= kByteLimit)
            head.insert(head.end(), bytes.begin(), bytes.end());
        if (!allPids && (input.BytesRead() >= kByteLimit || NothingMoreToCome(reader)))
            break;
    }
    reader.Finish();
    // A program map table counts once packets of its PCR PID have been seen. In a short recording every copy
    // may come before the first of them: with the PIDs known, the tables are read once more.
    if (reader.FoundPackets() && reader.Services()->IsPmtComplete() != S_OK) {
        reader.Restart();
        reader.Push(head);
        reader.Finish();
    }
}

}  // namespace

StreamInfo ReadStreamInfo(InputFile& input, bool allPids) {
    const ComPtr<StreamReader> reader = MakeStreamReader();
    ReadTables(input, allPids, *reader);
    if (!reader->FoundPackets())
        throw Failure(NoStreamText(input));

    StreamInfo info;
    CDvbServices& list = *reader->Services();
    info.packetSize = reader->Parser().PacketSize();
    info.bytesRead = input.BytesRead();
    info.complete = list.IsComplete() == S_OK;
    info.tables = reader->TableVersions();
    info.named = HasTable(info.tables, kServiceDescriptionTable) || HasTable(info.tables, kVirtualChannelTable);
    uint32_t id = 0;
    if (HasTable(info.tables, kProgramAssociationTable)) {
        list.GetTransportStreamId(&id);
        info.transportStreamId = id;
    }
    if (HasTable(info.tables, kServiceDescriptionTable)) {
        list.GetOriginalNetworkId(&id);
        info.originalNetworkId = id;
    }

    // Closing the list drops services whose table never came; they are shown as far as they are known.
    ComPtr<IDvbMapping> services;
    list.GetServices(services.Put());
    if (!info.complete)
        list.FinishWithoutNames();
    for (int32_t i = 0; const auto service = ItemAs<IDvbService>(services.Get(), i); ++i)
        info.services.push_back(DescribeService(service.Get(), *reader, info.named));

    for (uint32_t pid = 0; pid < kPidCount; ++pid)
        if (reader->PidStatus().IsPresent(pid))
            info.pids.push_back({pid, reader->PidStatus().IsScrambled(pid)});
    return info;
}

}  // namespace tessel::tool
