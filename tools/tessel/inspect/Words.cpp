#include "tools/tessel/inspect/Words.h"

#include <algorithm>
#include <cstdio>

#include "core/stream/TsHeader.h"
#include "proppages/PageText.h"
#include "tools/tessel/Failure.h"
#include "tools/tessel/PidList.h"
#include "tools/tessel/Utf8.h"
#include "tools/tessel/inspect/PageHost.h"

namespace tessel::tool {

namespace {

struct Row {
    uint32_t number;
    const char* words;
};

// By stream_type, ISO/IEC 13818-1 table 2-34, and what A/53 and SCTE 35 add.
constexpr Row kStreamTypes[] = {
    {0x01, "MPEG-1 video"},     {0x02, "MPEG-2 video"},   {0x03, "MPEG audio"},  {0x04, "MPEG-2 audio"},
    {0x05, "private tables"},   {0x06, "private data"},   {0x0A, "DSM-CC data"}, {0x0B, "DSM-CC messages"},
    {0x0C, "DSM-CC events"},    {0x0D, "DSM-CC tables"},  {0x0F, "AAC audio"},   {0x10, "MPEG-4 video"},
    {0x11, "AAC audio (LATM)"}, {0x15, "timed metadata"}, {0x1B, "H.264 video"}, {0x21, "JPEG 2000 video"},
    {0x24, "HEVC video"},       {0x33, "VVC video"},      {0x81, "AC-3 audio"},  {0x86, "splice messages"},
    {0x87, "E-AC-3 audio"},
};

// By descriptor_tag, of private data: EN 300 468 table 12.
constexpr Row kDescriptors[] = {
    {0x45, "VBI data"},   {0x46, "teletext (VBI)"}, {0x56, "teletext"},  {0x59, "DVB subtitles"},
    {0x6A, "AC-3 audio"}, {0x7A, "E-AC-3 audio"},   {0x7B, "DTS audio"}, {0x7C, "AAC audio"},
};
constexpr uint32_t kPrivatePes = 0x06;

template <size_t Count>
const char* Find(const Row (&rows)[Count], uint32_t number) {
    const auto found = std::ranges::find(rows, number, &Row::number);
    return found != std::end(rows) ? found->words : nullptr;
}

}  // namespace

std::string PidWords(ULONG pid) {
    if (pid >= kPidCount)
        return ShownText(page::PidText(pid));
    char text[24];
    std::snprintf(text, sizeof(text), "%u (0x%04X)", pid, pid);
    return text;
}

std::optional<ULONG> ReadPidWords(const std::string& typed) {
    const std::u16string text = TypedText(typed);
    const std::u16string_view trimmed = page::Trimmed(text);
    if (const auto special = page::ReadPid(trimmed); special >= kPidCount)
        return special;
    try {
        return ParsePid(ToUtf8(trimmed));
    } catch (const Misuse&) {
        return std::nullopt;
    }
}

std::string ComponentWords(const ComponentInfo& component) {
    // Who registers types of their own has names of their own.
    const bool isStandard = component.streamTypeName.find("HDMV") == std::string::npos;
    const char* words = isStandard ? Find(kStreamTypes, component.streamType) : nullptr;
    if (component.streamType == kPrivatePes)
        for (const DescriptorInfo& descriptor : component.descriptors)
            if (const char* better = Find(kDescriptors, descriptor.tag))
                words = better;
    return (words != nullptr ? words : component.streamTypeName) +
           (component.language ? ", " + *component.language : "");
}

}  // namespace tessel::tool
