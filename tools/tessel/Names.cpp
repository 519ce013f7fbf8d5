#include "tools/tessel/Names.h"

#include <algorithm>
#include <iterator>

#include "descriptors/NameTable.h"
#include "tools/tessel/Utf8.h"

namespace tessel::tool {

namespace {

struct Row {
    uint32_t key;
    const char* name;
};

// ISO/IEC 13818-1 table 2-34, beyond the AVC of its first editions.
constexpr Row kStreamTypes[] = {
    {0x1C, "ISO14496-3 Audio (raw)"},         {0x1D, "ISO14496-17 Text"},
    {0x1E, "ISO23002-3 Auxiliary Video"},     {0x1F, "ISO14496-10 Video (SVC)"},
    {0x20, "ISO14496-10 Video (MVC)"},        {0x21, "ISO15444-1 Video (JPEG 2000)"},
    {0x22, "ISO13818-2 Video (second view)"}, {0x23, "ISO14496-10 Video (second view)"},
    {0x24, "ISO23008-2 Video (HEVC)"},        {0x25, "ISO23008-2 Video (HEVC, temporal subset)"},
    {0x26, "ISO14496-10 Video (MVCD)"},       {0x27, "Timeline and External Media"},
    {0x2D, "ISO23008-3 Audio (MPEG-H)"},      {0x2E, "ISO23008-3 Audio (MPEG-H, auxiliary)"},
    {0x33, "ISO23090-3 Video (VVC)"},         {0x34, "ISO23090-3 Video (VVC, temporal subset)"},
};

// ANSI/SCTE 27, ANSI/SCTE 35 clause 8.1, A/52 annex G, SMPTE RP 227.
constexpr Row kPrivateStreamTypes[] = {
    {0x82, "SCTE 27 Subtitles"},
    {0x86, "SCTE 35 Splice Information"},
    {0x87, "ATSC E-AC3 Audio"},
    {0xEA, "SMPTE 421M Video (VC-1)"},
};

// Whoever registers "HDMV" counts differently.
constexpr uint32_t kHdmv = 0x48444D56;
constexpr Row kHdmvStreamTypes[] = {
    {0x80, "HDMV LPCM Audio"},
    {0x81, "HDMV AC3 Audio"},
    {0x82, "HDMV DTS Audio"},
    {0x83, "HDMV TrueHD Audio"},
    {0x84, "HDMV E-AC3 Audio"},
    {0x85, "HDMV DTS-HD Audio"},
    {0x86, "HDMV DTS-HD Audio (lossless)"},
    {0x90, "HDMV Presentation Graphics"},
    {0x91, "HDMV Interactive Graphics"},
    {0x92, "HDMV Text Subtitles"},
};

// ISO/IEC 13818-1 table 2-45, EN 300 468 table 12.
constexpr Row kDescriptorTags[] = {
    {0x2A, "AVCTimingAndHRD"},
    {0x2B, "MPEG2AACAudio"},
    {0x2C, "FlexMuxTiming"},
    {0x2D, "MPEG4Text"},
    {0x2E, "MPEG4AudioExtension"},
    {0x2F, "AuxiliaryVideoStream"},
    {0x31, "MVCExtension"},
    {0x32, "J2KVideo"},
    {0x33, "MVCOperationPoint"},
    {0x34, "MPEG2StereoscopicVideoFormat"},
    {0x35, "StereoscopicProgramInfo"},
    {0x36, "StereoscopicVideoInfo"},
    {0x37, "TransportProfile"},
    {0x38, "HEVCVideo"},
    {0x3F, "MPEGExtension"},
    {0x79, "S2SatelliteDeliverySystem"},
    {0x7A, "EnhancedAC3"},
    {0x7B, "DTS"},
    {0x7C, "AAC"},
    {0x7D, "XAITLocation"},
    {0x7E, "FTAContentManagement"},
    {0x7F, "Extension"},
};

// EN 300 468 table 87.
constexpr Row kServiceTypes[] = {
    {0x11, "MPEG2HDTelevision"},
    {0x16, "AVCSDTelevision"},
    {0x17, "AVCSDNearVideoOnDemandTimeShifted"},
    {0x18, "AVCSDNearVideoOnDemandReference"},
    {0x19, "AVCHDTelevision"},
    {0x1A, "AVCHDNearVideoOnDemandTimeShifted"},
    {0x1B, "AVCHDNearVideoOnDemandReference"},
    {0x1C, "AVCHDStereoscopicTelevision"},
    {0x1F, "HEVCTelevision"},
    {0x20, "HEVCUHDTelevision"},
};

template <size_t N>
const char* Find(const Row (&rows)[N], uint32_t key) {
    const auto* const row = std::ranges::find(rows, key, &Row::key);
    return row != std::end(rows) ? row->name : nullptr;
}

// The library's name, unless another is known.
std::string NameOf(const char* known, const NameTable& names, uint32_t key) {
    return known != nullptr ? known : ToUtf8(names.GetName(key));
}

}  // namespace

std::string StreamTypeName(uint32_t streamType, uint32_t registration) {
    const char* known = Find(kStreamTypes, streamType);
    if (registration == kHdmv && known == nullptr)
        known = Find(kHdmvStreamTypes, streamType);
    else if (known == nullptr)
        known = Find(kPrivateStreamTypes, streamType);
    return NameOf(known, StreamTypeNames(), streamType);
}

std::string DescriptorTagName(uint32_t tag) {
    return NameOf(Find(kDescriptorTags, tag), DescriptorTagNames(), tag);
}

std::string ServiceTypeName(uint32_t serviceType) {
    return NameOf(Find(kServiceTypes, serviceType), ServiceTypeNames(), serviceType);
}

}  // namespace tessel::tool
