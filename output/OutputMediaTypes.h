// The media types that an output pin offers and takes, and what content each of them stands for.
#pragma once

#include <cstddef>
#include <cstdint>

#include "platform/media/MediaType.h"

namespace tessel {

// What an output pin delivers. The values are those of pin parameter 300 and of the saved state.
enum class ContentKind : int32_t {
    kNone = 0,
    kTransportPackets = 1,
    kElementaryStream = 2,
    kPsiSections = 3,
};

inline constexpr GUID MEDIATYPE_MPEG2_PES = MakeGuid("{E06D8020-DB46-11CF-B4D1-00805F6CBBEA}");
// Sections; with the second subtype two bytes in front of each give its PID.
inline constexpr GUID MEDIATYPE_MPEG2_SECTIONS = MakeGuid("{78C4E641-0ED1-11D3-BC6B-00A0C90D63B5}");
inline constexpr GUID MEDIASUBTYPE_SECTIONS_WITH_PID = MakeGuid("{C962FB74-003C-4218-BB41-E74170B88635}");
inline constexpr GUID MEDIASUBTYPE_PRIVATE_STREAM = MakeGuid("{59465BA2-A0A0-448A-AE54-2860D6CDC83B}");

struct OutputMediaType {
    GUID majortype;
    GUID subtype;
};

inline constexpr size_t kOutputMediaTypeCount = 14;
extern const OutputMediaType kOutputMediaTypes[kOutputMediaTypeCount];

// The types of a kind of content: a part of the table; of kNone all.
struct OutputMediaTypeRange {
    size_t first;
    size_t count;
};
OutputMediaTypeRange MediaTypesOf(ContentKind kind);

bool IsMediaTypeOf(ContentKind kind, const AM_MEDIA_TYPE& type);
// The content that a pin gets with that type.
ContentKind ContentOf(const AM_MEDIA_TYPE& type);

}  // namespace tessel
