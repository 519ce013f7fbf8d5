#include "output/OutputMediaTypes.h"

#include <algorithm>

namespace tessel {

const OutputMediaType kOutputMediaTypes[kOutputMediaTypeCount] = {
    {MEDIATYPE_Stream, MEDIASUBTYPE_MPEG2_TRANSPORT},
    {MEDIATYPE_Stream, KSDATAFORMAT_SUBTYPE_BDA_MPEG2_TRANSPORT},
    {MEDIATYPE_Video, MEDIASUBTYPE_MPEG2_VIDEO},
    {MEDIATYPE_Video, MEDIASUBTYPE_MPEG1Payload},
    {MEDIATYPE_Video, MEDIASUBTYPE_AVC_VIDEO},
    {MEDIATYPE_Video, MEDIASUBTYPE_MPEG4_VIDEO},
    {MEDIATYPE_Audio, MEDIASUBTYPE_MPEG2_AUDIO},
    {MEDIATYPE_Audio, MEDIASUBTYPE_MPEG1Payload},
    {MEDIATYPE_Audio, MEDIASUBTYPE_DOLBY_AC3},
    {MEDIATYPE_Audio, MEDIASUBTYPE_AAC_AUDIO},
    {MEDIATYPE_Stream, MEDIASUBTYPE_DVB_SUBTITLE},
    {MEDIATYPE_Stream, MEDIASUBTYPE_PRIVATE_STREAM},
    {MEDIATYPE_MPEG2_SECTIONS, GUID_NULL},
    {MEDIATYPE_MPEG2_SECTIONS, MEDIASUBTYPE_SECTIONS_WITH_PID},
};

OutputMediaTypeRange MediaTypesOf(ContentKind kind) {
    switch (kind) {
    case ContentKind::kTransportPackets:
        return {0, 2};
    case ContentKind::kElementaryStream:
        return {2, 10};
    case ContentKind::kPsiSections:
        return {12, 2};
    case ContentKind::kNone:
        break;
    }
    return {0, kOutputMediaTypeCount};
}

bool IsMediaTypeOf(ContentKind kind, const AM_MEDIA_TYPE& type) {
    const OutputMediaTypeRange range = MediaTypesOf(kind);
    const auto* const first = kOutputMediaTypes + range.first;
    return std::any_of(first, first + range.count, [&type](const OutputMediaType& row) {
        return row.majortype == type.majortype && row.subtype == type.subtype;
    });
}

ContentKind ContentOf(const AM_MEDIA_TYPE& type) {
    if (type.majortype == MEDIATYPE_MPEG2_SECTIONS)
        return ContentKind::kPsiSections;
    const bool elementary = type.majortype == MEDIATYPE_Video || type.majortype == MEDIATYPE_Audio ||
                            type.subtype == MEDIASUBTYPE_DVB_SUBTITLE || type.subtype == MEDIASUBTYPE_PRIVATE_STREAM;
    return elementary ? ContentKind::kElementaryStream : ContentKind::kTransportPackets;
}

}  // namespace tessel
