#include "descriptors/NameTable.h"

#include <algorithm>
#include <charconv>
#include <iterator>

namespace tessel {

std::u16string NameTable::GetName(uint32_t key) const {
    const auto row = std::ranges::lower_bound(m_rows, key, {}, &Row::key);
    if (row != m_rows.end() && row->key == key)
        return std::u16string(row->name);
    char digits[8];
    const auto written = std::to_chars(std::begin(digits), std::end(digits), key, 16);
    std::u16string name(m_name);
    name.push_back(u'[');
    name.append(std::begin(digits), written.ptr);
    name.push_back(u']');
    return name;
}

namespace {

// Some names are misspelt; clients compare them, so they stay.
constexpr NameTable::Row kDescriptorTagRows[] = {
    {0x02, u"VideoStream"},
    {0x03, u"AudioStream"},
    {0x04, u"Hierarchy"},
    {0x05, u"Registration"},
    {0x06, u"DataStreamAlignment"},
    {0x07, u"TargentBackgroundGrid"},
    {0x08, u"VideoWindow"},
    {0x09, u"ConditionalAccess"},
    {0x0A, u"ISO639Language"},
    {0x0B, u"SystemClock"},
    {0x0C, u"MultiplexBufferUtilization"},
    {0x0D, u"Copyright"},
    {0x0E, u"MaximumBitrate"},
    {0x0F, u"PrivateDataIndicator"},
    {0x10, u"SmoothingBuffer"},
    {0x11, u"STD"},
    {0x12, u"IBP"},
    {0x13, u"CarouselIdentifier"},
    {0x14, u"AssociationTag"},
    {0x15, u"DeferredAssociationTags"},
    {0x17, u"NPTReference"},
    {0x18, u"NPTEndpoint"},
    {0x19, u"StreamMode"},
    {0x1A, u"StreamEvent"},
    {0x1B, u"MPEG4Video"},
    {0x1C, u"MPEG4Audio"},
    {0x1D, u"IOD"},
    {0x1E, u"SL"},
    {0x1F, u"FMC"},
    {0x20, u"ExternalESId"},
    {0x21, u"MuxCode"},
    {0x22, u"FmtBufferSize"},
    {0x23, u"MultiplexBuffer"},
    {0x24, u"ConstantLabeling"},
    {0x25, u"MetadataPointer"},
    {0x26, u"Metadata"},
    {0x27, u"MetadataSTD"},
    {0x28, u"AVCVideo"},
    {0x29, u"IPMP"},
    {0x30, u"AVCTimig"},
    {0x40, u"NetworkName"},
    {0x41, u"ServiceList"},
    {0x42, u"Stuffing"},
    {0x43, u"SatelliteDeliverySystem"},
    {0x44, u"CableDeliverySystem"},
    {0x45, u"VbiData"},
    {0x46, u"VbiTeletext"},
    {0x47, u"BouquetName"},
    {0x48, u"Service"},
    {0x49, u"CountryAvailability"},
    {0x4A, u"Linkage"},
    {0x4B, u"NVODReference"},
    {0x4C, u"TimeShiftedService"},
    {0x4D, u"ShortEvent"},
    {0x4E, u"ExtendedEvent"},
    {0x4F, u"TimeShiftedEvent"},
    {0x50, u"Component"},
    {0x51, u"Mosaic"},
    {0x52, u"StreamIdentifier"},
    {0x53, u"CaIdentifier"},
    {0x54, u"Content"},
    {0x55, u"ParentalRating"},
    {0x56, u"Teletext"},
    {0x57, u"Telephone"},
    {0x58, u"LocalTimeOffset"},
    {0x59, u"Subtitling"},
    {0x5A, u"TerrestrialDeliverySystem"},
    {0x5B, u"MultilingualNetworkName"},
    {0x5C, u"MultilingualBouquetName"},
    {0x5D, u"MultilingualServiceName"},
    {0x5E, u"MultilingualComponent"},
    {0x5F, u"PrivateDataSpecifier"},
    {0x60, u"ServiceMove"},
    {0x61, u"ShortSmoothingBuffer"},
    {0x62, u"FrequencyList"},
    {0x63, u"PartialTransportStream"},
    {0x64, u"DataBroadcast"},
    {0x65, u"CaSystem"},
    {0x66, u"DataBroadcastId"},
    {0x67, u"TransportStream"},
    {0x68, u"Dsng"},
    {0x69, u"Pdc"},
    {0x6A, u"Ac3"},
    {0x6B, u"AncillaryData"},
    {0x6C, u"CellList"},
    {0x6D, u"CellFrequencyLink"},
    {0x6E, u"AnnouncementSupport"},
    {0x6F, u"ApplicationSignalling"},
    {0x70, u"AdaptationFieldData"},
    {0x71, u"ServiceIdentifier"},
    {0x72, u"ServiceAvailability"},
    {0x73, u"DefaultAuthority"},
    {0x74, u"RelatedContent"},
    {0x75, u"TVAId"},
    {0x76, u"ContentIdentifier"},
    {0x77, u"TimesliceFecIdentifier"},
    {0x78, u"ECMRepetitionRate"},
    {0x88, u"ServiceListName"},
    {0x89, u"Synoptic"},
    {0x91, u"Language"},
    {0x92, u"Region"},
};

constexpr NameTable::Row kStreamTypeRows[] = {
    {0x00, u"Reserved"},
    {0x01, u"ISO11172 Video"},
    {0x02, u"ISO13818-2 Video"},
    {0x03, u"ISO11172 Audio"},
    {0x04, u"ISO13818-3 Audio"},
    {0x05, u"ISO13818-1 PrivateSections"},
    {0x06, u"ISO13818-1 PrivatePES"},
    {0x07, u"ISO13522 MHEG"},
    {0x08, u"ISO13818-1 DSMCC"},
    {0x09, u"H222.1"},
    {0x0A, u"ISO13818-6 TypeA"},
    {0x0B, u"ISO13818-6 TypeB"},
    {0x0C, u"ISO13818-6 TypeC"},
    {0x0D, u"ISO13818-6 TypeD"},
    {0x0E, u"ISO13818-1 Auxilary"},
    {0x0F, u"ISO13818-7 Audio"},
    {0x10, u"ISO14496-2 Video"},
    {0x11, u"ISO14496-3 Audio"},
    {0x12, u"ISO14496 SL Stream PES"},
    {0x13, u"ISO14496 SL Stream ISO13818-1 Sections"},
    {0x14, u"ISO13818-6 Synchronized Download Protocol"},
    {0x15, u"Metadata PES packets"},
    {0x16, u"Metadata metadata_sections"},
    {0x17, u"Metadata ISO13818-6 Data Carousel"},
    {0x18, u"Metadata ISO13818-6 Object Carousel"},
    {0x19, u"Metadata ISO13818-6 Synchronized Download Protocol"},
    {0x1A, u"ISO13818-11 IPMP"},
    {0x1B, u"ISO14496-10 Video (AVC)"},
    {0x7F, u"IPMP stream"},
    {0x81, u"ATSC AC3 Audio"},
};

constexpr NameTable::Row kServiceTypeRows[] = {
    {0x00, u"Reserved"},
    {0x01, u"DigitalTelevision"},
    {0x02, u"DigitalRadio"},
    {0x03, u"Teletext"},
    {0x04, u"NearVideoOnDemandReference"},
    {0x05, u"NearVideoOnDemandTimeShifted"},
    {0x06, u"Mosaic"},
    {0x07, u"PALCodedSignal"},
    {0x08, u"SECAMCodedSignal"},
    {0x09, u"D_D2_MAC"},
    {0x0A, u"FMRadio"},
    {0x0B, u"NTSCCodedSignal"},
    {0x0C, u"DataBroadcast"},
    {0x0D, u"CommonInterfaceUsage"},
    {0x0E, u"RCSMap"},
    {0x0F, u"RCSFLS"},
    {0x10, u"DvbMhp"},
    {0x80, u"Undefined"},
    {0x88, u"Mpeg1L2Radio"},
    {0x90, u"SDTV MPEG2 MP@ML"},
    {0x98, u"HDTV MPEG2 MP@HL"},
};

consteval NameTable Sorted(std::u16string_view name, std::span<const NameTable::Row> rows) {
    if (!std::ranges::is_sorted(rows, std::ranges::less_equal{}, &NameTable::Row::key))
        throw "rows are searched by halves";
    return {name, rows};
}

constexpr NameTable kDescriptorTags = Sorted(u"DescriptorTag", kDescriptorTagRows);
constexpr NameTable kStreamTypes = Sorted(u"StreamType", kStreamTypeRows);
constexpr NameTable kServiceTypes = Sorted(u"ServiceType", kServiceTypeRows);

}  // namespace

const NameTable& DescriptorTagNames() {
    return kDescriptorTags;
}

const NameTable& StreamTypeNames() {
    return kStreamTypes;
}

const NameTable& ServiceTypeNames() {
    return kServiceTypes;
}

}  // namespace tessel
