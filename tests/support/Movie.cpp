#include "tests/support/Movie.h"

#include <algorithm>
#include <iterator>

namespace tessel {

using build::Bytes;

const GUID& TypeOf(Coding coding) {
    return coding == Coding::kMpeg2   ? MEDIASUBTYPE_MPEG2_VIDEO
           : coding == Coding::kMpeg4 ? MEDIASUBTYPE_MPEG4_VIDEO
                                      : MEDIASUBTYPE_AVC_VIDEO;
}

Movie::Movie(const MovieOptions& options) : m_options(options), m_time(options.start) {
    Tables(1);
}

Movie& Movie::Tables(uint16_t transportStreamId) {
    stream.Pcr(kPcrPid, m_time * 300);
    const bool two = m_options.otherPcrPid != 0;
    Table(0, two ? build::Pat(transportStreamId, {{1, kPmtPid}, {2, kOtherPmtPid}})
                 : build::Pat(transportStreamId, {{1, kPmtPid}}));
    if (two)
        Table(kOtherPmtPid,
              build::Pmt({.program = 2, .pcrPid = m_options.otherPcrPid, .streams = {{0x03, kOtherPid}}}));
    build::PmtFields fields{.program = 1, .pcrPid = kPcrPid};
    const bool avc = m_options.coding != Coding::kMpeg2 && m_options.coding != Coding::kMpeg4;
    const uint8_t type = m_options.coding == Coding::kMpeg2 ? 0x02 : avc ? 0x1B : 0x10;
    if (m_options.video)
        fields.streams.push_back({type, kVideoPid});
    fields.streams.push_back({0x03, kAudioPid});
    if (m_options.twins) {
        fields.streams.push_back({type, kVideoTwin});
        fields.streams.push_back({0x03, kAudioTwin});
    }
    Table(kPmtPid, build::Pmt(fields));
    if (m_options.named)
        Table(0x11, build::Sdt({.transportStreamId = transportStreamId, .services = {{1}}}));
    return *this;
}

Movie& Movie::Frames(size_t count) {
    for (; count > 0; --count, ++m_frames, m_time += kFrame) {
        if (m_time >= kWrap && wrap == 0)
            wrap = stream.bytes().size();
        stream.Pcr(kPcrPid, m_time % kWrap * 300);
        const int64_t pts = (m_time + m_lead + kWrap) % kWrap;
        const size_t inGroup = m_frames % m_options.gop;
        const auto later = static_cast<int64_t>(m_options.leading);
        if (inGroup == 0 && m_options.video)
            points.push_back({stream.bytes().size(), Now() + later * kFrameTime, video.size(), audio.size()});
        if (m_options.video)
            Add(kVideoPid, 0xE0, Picture(inGroup),
                pts + (inGroup == 0                   ? later
                       : inGroup <= m_options.leading ? -1
                                                      : 0) *
                          kFrame,
                video);
        if (!m_options.video)
            points.push_back({stream.bytes().size(), Now(), video.size(), audio.size()});
        Bytes frame = Filler(576);
        const uint8_t header[] = {0xFF, 0xFD, 0xA4, 0x00};  // layer II, 192 kbit/s, 48 kHz
        std::copy(std::begin(header), std::end(header), frame.begin());
        Add(kAudioPid, 0xC0, frame, pts, audio);
    }
    return *this;
}

Movie& Movie::Padding() {
    for (int i = 0; i < 5; ++i)
        stream.Null();
    return *this;
}

void Movie::Table(uint16_t pid, const Bytes& section) {
    stream.Section(pid, section);
    stream.Section(pid, build::ShortSection(0xFE, {}));
}

void Movie::Add(uint16_t pid, uint8_t id, const Bytes& data, int64_t pts, Bytes& all) {
    all.insert(all.end(), data.begin(), data.end());
    stream.Pes(pid, id, data, {.pts = pts, .unbounded = id == 0xE0});
}

// Nothing in it looks like a start code or a sync word.
Bytes Movie::Filler(size_t size) {
    Bytes bytes(size);
    for (uint8_t& byte : bytes)
        byte = static_cast<uint8_t>(2 + m_filler++ % 65);
    return bytes;
}

// Some bytes before the headers move them over the packets' edges.
Bytes Movie::Picture(size_t inGroup) {
    const bool key = inGroup == 0;
    const size_t reference = key ? m_options.firstReference : inGroup;
    const auto mpeg2 = [&] {
        build::BitWriter picture;
        picture.Put(0x100, 32).Put(reference, 10).Put(1, 3).Put(0xFFFF, 16).Put(0, 3);
        picture.Put(0x1B5, 32).Put(0x8FFFF, 20).Put(0, 2).Put(m_options.structure, 2);
        picture.Put(0x10, 6).Put(m_options.repeatFirst, 1).Put(0, 1).Put(0x8080, 16);
        build::BitWriter sequence;
        sequence.Put(0x1B3, 32).Put(0x2D0240, 24).Put(2, 4).Put(m_options.frameRate, 4).Put(0xFFFFE018, 32);
        sequence.Put(0x1B5, 32).Put(0x148A000100, 40).Put(m_options.rateExtension, 3).Put(0, 5);
        return key ? build::Join({sequence.bytes(), picture.bytes()}) : picture.bytes();
    };
    Bytes headers;
    switch (m_options.coding) {
    case Coding::kMpeg2:
        headers = mpeg2();
        break;
    case Coding::kMpeg4:
        headers = {0, 0, 1, 0xB6, static_cast<uint8_t>(key ? 0x10 : 0x50)};
        break;
    case Coding::kAvcParameters:
        headers = key ? Bytes{0, 0, 1, 9, 0x10, 0, 0, 0, 1, 0x67, 0x42, 0, 0, 1, 0x65, 0x88}
                      : Bytes{0, 0, 1, 9, 0x30, 0, 0, 0, 1, 0x41, 0x9A, 0, 0, 1, 0x67, 0x42};
        break;
    case Coding::kAvcIdr:
        headers = key ? Bytes{0, 0, 1, 0x65, 0x88} : Bytes{0, 0, 1, 0x01, 0x9A, 0, 0, 1, 0x65};
        break;
    case Coding::kAvcRecovery:
        // Another message, of 260 bytes, comes before it.
        headers = {0, 0, 1, 6, 5, 0xFF, 5};
        headers.resize(headers.size() + 260, 0x55);
        headers = build::Join({headers, {static_cast<uint8_t>(key ? 6 : 1), 1, 0x84, 0x80, 0, 0, 1, 0x41, 0x9A}});
        break;
    case Coding::kOther:
        break;
    }
    const size_t size = m_options.pictureSize * (1 + m_frames / 100 % m_options.sizes);
    return build::Join({Filler(inGroup == 0 ? (m_frames * 7) % 200 : 0), headers, Filler(size)});
}

}  // namespace tessel
