// The texts that people see for codes and descriptors.
#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "descriptors/DescriptorLoop.h"
#include "descriptors/DescriptorText.h"
#include "descriptors/NameTable.h"

namespace tessel {
namespace {

using Bytes = std::vector<uint8_t>;

std::u16string Wide(std::string_view ascii) {
    return {ascii.begin(), ascii.end()};
}

constexpr const char* kDescriptorTagRows =
    "02 VideoStream, 03 AudioStream, 04 Hierarchy, 05 Registration, 06 DataStreamAlignment, "
    "07 TargentBackgroundGrid, 08 VideoWindow, 09 ConditionalAccess, 0A ISO639Language, 0B SystemClock, "
    "0C MultiplexBufferUtilization, 0D Copyright, 0E MaximumBitrate, 0F PrivateDataIndicator, "
    "10 SmoothingBuffer, 11 STD, 12 IBP, 13 CarouselIdentifier, 14 AssociationTag, 15 DeferredAssociationTags, "
    "17 NPTReference, 18 NPTEndpoint, 19 StreamMode, 1A StreamEvent, 1B MPEG4Video, 1C MPEG4Audio, 1D IOD, "
    "1F FMC, 1E SL, 20 ExternalESId, 21 MuxCode, 22 FmtBufferSize, 23 MultiplexBuffer, 24 ConstantLabeling, "
    "25 MetadataPointer, 26 Metadata, 27 MetadataSTD, 28 AVCVideo, 29 IPMP, 30 AVCTimig, 40 NetworkName, "
    "41 ServiceList, 42 Stuffing, 43 SatelliteDeliverySystem, 44 CableDeliverySystem, 45 VbiData, "
    "46 VbiTeletext, 47 BouquetName, 48 Service, 49 CountryAvailability, 4A Linkage, 4B NVODReference, "
    "4C TimeShiftedService, 4D ShortEvent, 4E ExtendedEvent, 4F TimeShiftedEvent, 50 Component, 51 Mosaic, "
    "52 StreamIdentifier, 53 CaIdentifier, 54 Content, 55 ParentalRating, 56 Teletext, 57 Telephone, "
    "58 LocalTimeOffset, 59 Subtitling, 5A TerrestrialDeliverySystem, 5B MultilingualNetworkName, "
    "5C MultilingualBouquetName, 5D MultilingualServiceName, 5E MultilingualComponent, 5F PrivateDataSpecifier, "
    "60 ServiceMove, 61 ShortSmoothingBuffer, 62 FrequencyList, 63 PartialTransportStream, 64 DataBroadcast, "
    "65 CaSystem, 66 DataBroadcastId, 67 TransportStream, 68 Dsng, 69 Pdc, 6A Ac3, 6B AncillaryData, "
    "6C CellList, 6D CellFrequencyLink, 6E AnnouncementSupport, 6F ApplicationSignalling, "
    "70 AdaptationFieldData, 71 ServiceIdentifier, 72 ServiceAvailability, 73 DefaultAuthority, "
    "74 RelatedContent, 75 TVAId, 76 ContentIdentifier, 77 TimesliceFecIdentifier, 78 ECMRepetitionRate, "
    "88 ServiceListName, 89 Synoptic, 91 Language, 92 Region";

constexpr const char* kStreamTypeRows =
    "00 Reserved, 01 ISO11172 Video, 02 ISO13818-2 Video, 03 ISO11172 Audio, 04 ISO13818-3 Audio, "
    "05 ISO13818-1 PrivateSections, 06 ISO13818-1 PrivatePES, 07 ISO13522 MHEG, 08 ISO13818-1 DSMCC, 09 H222.1, "
    "0A ISO13818-6 TypeA, 0B ISO13818-6 TypeB, 0C ISO13818-6 TypeC, 0D ISO13818-6 TypeD, "
    "0E ISO13818-1 Auxilary, 0F ISO13818-7 Audio, 10 ISO14496-2 Video, 11 ISO14496-3 Audio, "
    "12 ISO14496 SL Stream PES, 13 ISO14496 SL Stream ISO13818-1 Sections, "
    "14 ISO13818-6 Synchronized Download Protocol, 15 Metadata PES packets, 16 Metadata metadata_sections, "
    "17 Metadata ISO13818-6 Data Carousel, 18 Metadata ISO13818-6 Object Carousel, "
    "19 Metadata ISO13818-6 Synchronized Download Protocol, 1A ISO13818-11 IPMP, 1B ISO14496-10 Video (AVC), "
    "7F IPMP stream, 81 ATSC AC3 Audio";

constexpr const char* kServiceTypeRows =
    "00 Reserved, 01 DigitalTelevision, 02 DigitalRadio, 03 Teletext, 04 NearVideoOnDemandReference, "
    "05 NearVideoOnDemandTimeShifted, 06 Mosaic, 07 PALCodedSignal, 08 SECAMCodedSignal, 09 D_D2_MAC, "
    "0A FMRadio, 0B NTSCCodedSignal, 0C DataBroadcast, 0D CommonInterfaceUsage, 0E RCSMap, 0F RCSFLS, "
    "10 DvbMhp, 80 Undefined, 88 Mpeg1L2Radio, 90 SDTV MPEG2 MP@ML, 98 HDTV MPEG2 MP@HL";

constexpr const char* kLinkageTypeRows =
    "00 Reserved, 01 InformationService, 02 EpgService, 03 CaReplacementService, "
    "04 TsWithCompleteNetworkBouquetSi, 05 ServiceReplacementService, 06 DataBroadcastService, 07 RcsMap, "
    "08 MobileHandover, 90 AstraServiceGuide";

std::map<uint32_t, std::string> Parsed(const char* rows) {
    std::map<uint32_t, std::string> names;
    std::istringstream stream(rows);
    for (std::string row; std::getline(stream >> std::ws, row, ',');)
        names.emplace(std::stoul(row.substr(0, 2), nullptr, 16), row.substr(3));
    return names;
}

TEST(NameTable, HasEveryNameAndShowsOtherKeysAsNumbers) {
    struct Case {
        const NameTable& table;
        const char* name;
        const char* rows;
        size_t count;
    };
    for (const Case& c : {Case{DescriptorTagNames(), "DescriptorTag", kDescriptorTagRows, 101},
                          Case{StreamTypeNames(), "StreamType", kStreamTypeRows, 30},
                          Case{ServiceTypeNames(), "ServiceType", kServiceTypeRows, 21},
                          Case{LinkageTypeNames(), "LinkageType", kLinkageTypeRows, 10}}) {
        const auto rows = Parsed(c.rows);
        ASSERT_EQ(rows.size(), c.count) << c.name;
        for (const uint32_t base : {0u, 0x100u, 0x10000u, 0xFFFFFF00u}) {
            for (uint32_t key = base; key - base < 0x100; ++key) {
                const auto row = rows.find(key);
                std::ostringstream number;
                number << c.name << '[' << std::hex << key << ']';
                const std::u16string name = Wide(row != rows.end() ? row->second : number.str());
                EXPECT_EQ(c.table.GetName(key), name) << number.str();
                EXPECT_EQ(c.table.GetKey(name), row != rows.end() ? static_cast<int32_t>(key) : -1) << number.str();
            }
        }
        EXPECT_EQ(c.table.GetKey(u""), -1);
        EXPECT_EQ(c.table.GetKey(u"reserved"), -1);
    }
}

using Renderer = void (*)(std::span<OLECHAR>, IDvbDescriptor*);

ComPtr<IDvbDescriptor> Descriptor(uint8_t descriptorTag, const Bytes& payload) {
    const auto context = descriptorTag == tag::kService ? DescriptorContext::kService : DescriptorContext::kComponent;
    const auto object = MakeDescriptor(context, descriptorTag);
    EXPECT_EQ(object->Parse(payload), S_OK);
    return object.As<IDvbDescriptor>();
}

std::u16string Rendered(Renderer render, IDvbDescriptor* descriptor) {
    std::vector<OLECHAR> buffer(kDescriptorTextUnits, u'#');
    render(buffer, descriptor);
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
    {0x02, {0x90, 0x26, 0x00}, u"VideoStream(SPAT@1440, 24 fps (multi))"},
    {0x02, {0x20, 0x3A, 0x00}, u"VideoStream(SNR@LL, 29.97 fps)"},
    {0x02, {0x28, 0x58, 0x00}, u"VideoStream(SP@ML, 30 fps)"},
    {0x02, {0x30, 0x00, 0x00}, u"VideoStream(, 50 fps)"},
    {0x02, {0x38, 0x65, 0x00}, u"VideoStream(, 59.94 fps)"},
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
    {0x28, {0x42, 0, 9, 0}, u"AVCVideo(BaseLine@0.9)"},
    {0x28, {0x4D, 0, 30, 0}, u"AVCVideo(Main@3.0)"},
    {0x28, {0x58, 0, 51, 0}, u"AVCVideo(Extended@5.1)"},
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
     {'f', 'r', 'a', 0,    0, 'f', 'r', 'a', 0x10, 0, 'f', 'r', 'a', 0x1F, 0,
      'f', 'r', 'a', 0x20, 0, 'f', 'r', 'a', 0x28, 0, 'f', 'r', 'a', 0x30, 0},
     u"Teletext(fre, Reserved, fre, SubtitlePage, fre, AdditionalInformationPage, fre, ProgrammeSchedulePage, "
     u"fre, SubtitleForHearingImpairedPeople, fre, <unknown TeletextType>)"},
    {0x59, {}, u"Subtitling()"},
    {0x59, {'g', 'e', 'r', 0x10, 0, 1, 0xFF, 0xFF}, u"Subtitling([ger, NormalNoAspect, (1, 65535)])"},
    {0x59,
     {'g', 'e', 'r', 0x11, 0, 1, 0, 2, 'g', 'e', 'r', 0x12, 0, 1, 0, 2, 'g', 'e', 'r', 0x13, 0, 1, 0, 2},
     u"Subtitling([ger, NormalAspect4_3, (1, 2)], [ger, NormalAspect16_9, (1, 2)], "
     u"[ger, NormalAspect221_100, (1, 2)])"},
    {0x59,
     {'g', 'e', 'r', 0x20, 0,   1,   0,   2,    'g', 'e', 'r', 0x21, 0,   1,   0,   2,    'g', 'e', 'r', 0x22,
      0,   1,   0,   2,    'g', 'e', 'r', 0x23, 0,   1,   0,   2,    'g', 'e', 'r', 0x24, 0,   1,   0,   2},
     u"Subtitling([ger, HearingImpairedNoAspect, (1, 2)], [ger, HearingImpairedAspect4_3, (1, 2)], "
     u"[ger, HearingImpairedAspect16_9, (1, 2)], [ger, HearingImpairedAspect221_100, (1, 2)], "
     u"[ger, <Unknown Type>, (1, 2)])"},
    {0x66, {0x01, 0x06}, u"DataBroadcastId(262)"},
    // Without a renderer of their own.
    {0x09, {0, 1, 0, 2}, u"ConditionalAccess"},
    {0x6A, {0}, u"Ac3"},
    {0xC1, {1, 2}, u"DescriptorTag[c1]"},
};

TEST(DescriptorText, OfEveryKind) {
    for (const Example& example : kExamples)
        EXPECT_EQ(Rendered(RenderDescriptor, Descriptor(example.tag, example.payload).Get()), example.text);
    EXPECT_EQ(Rendered(RenderDescriptor, nullptr), u"");
}

struct Kind {
    uint8_t tag;
    Renderer render;
    const char16_t* name;
};

constexpr Kind kKinds[] = {
    {0x02, RenderVideoStream, u"VideoStream"},
    {0x05, RenderRegistration, u"Registration"},
    {0x0A, RenderISO639Language, u"ISO639Language"},
    {0x28, RenderAVCVideo, u"AVCVideo"},
    {0x48, RenderService, u"Service"},
    {0x52, RenderStreamIdentifier, u"StreamIdentifier"},
    {0x56, RenderTeletext, u"Teletext"},
    {0x59, RenderSubtitling, u"Subtitling"},
    {0x66, RenderDataBroadcastId, u"DataBroadcastId"},
};

TEST(DescriptorText, IsTheBareNameWhenTheDescriptorIsOfAnotherKind) {
    for (const Kind& kind : kKinds) {
        EXPECT_EQ(Rendered(kind.render, nullptr), kind.name);
        for (const uint8_t other : {uint8_t{0x6A}, uint8_t{0xC1}, kind.tag == 0x05 ? uint8_t{0x59} : uint8_t{0x05}})
            EXPECT_EQ(
                Rendered(kind.render, MakeDescriptor(DescriptorContext::kComponent, other).As<IDvbDescriptor>().Get()),
                kind.name);
        const auto generic = MakeDescriptor(DescriptorContext::kGenericOnly, kind.tag).As<IDvbDescriptor>();
        EXPECT_EQ(Rendered(RenderDescriptor, generic.Get()), kind.name) << "the tag alone is not enough";
    }
}

// Renders into size units between canaries and holds what came out to text.
void ExpectCut(Renderer render, IDvbDescriptor* descriptor, const std::u16string& text, size_t size) {
    constexpr OLECHAR kCanary = 0xA5C3;
    const auto exact = std::make_unique<OLECHAR[]>(size);  // the sanitizers see a step past this one
    render({exact.get(), size}, descriptor);
    std::vector<OLECHAR> guarded(size + 16, kCanary);
    render(std::span(guarded).subspan(8, size), descriptor);
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
        const auto* kind = std::ranges::find(kKinds, example.tag, &Kind::tag);
        const Renderer own = kind != std::end(kKinds) ? kind->render : RenderDescriptor;
        for (size_t size = 0; size <= 64; ++size) {
            for (const Renderer render : {RenderDescriptor, own})
                ExpectCut(render, descriptor.Get(), example.text, size);
        }
    }
    for (const Kind& kind : kKinds)
        for (size_t size = 0; size <= 20; ++size)
            ExpectCut(kind.render, nullptr, kind.name, size);
}

TEST(DescriptorText, LongestOnesFit) {
    const Example longest[] = {
        {0x0A, Repeated(63, {0, 0, 0, 3}), u"Unknown, VisualImpairedComments)"},
        {0x56, Repeated(51, {0, 0, 0, 0x28, 0}), u"Unknown, SubtitleForHearingImpairedPeople)"},
        {0x59, Repeated(31, {0, 0, 0, 0x23, 0xFF, 0xFF, 0xFF, 0xFF}),
         u"HearingImpairedAspect221_100, (65535, 65535)])"},
    };
    for (const Example& example : longest) {
        const std::u16string text = Rendered(RenderDescriptor, Descriptor(example.tag, example.payload).Get());
        EXPECT_TRUE(text.ends_with(example.text)) << int{example.tag};
    }
}

}  // namespace
}  // namespace tessel
