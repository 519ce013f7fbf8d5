// Files of one programme, of which a test knows every byte: where its access points stand and what they show.
#pragma once

#include <cstdint>
#include <vector>

#include "platform/media/MediaType.h"
#include "platform/media/ReferenceTime.h"
#include "tests/support/StreamBuilder.h"

namespace tessel {

constexpr uint16_t kVideoPid = 0x111;
constexpr uint16_t kAudioPid = 0x112;
constexpr uint16_t kVideoTwin = 0x113;
constexpr uint16_t kAudioTwin = 0x114;
constexpr uint16_t kPcrPid = 0x101;
constexpr uint16_t kPmtPid = 0x100;
constexpr uint16_t kOtherPmtPid = 0x200;
constexpr uint16_t kOtherPid = 0x212;
constexpr int64_t kWrap = int64_t{1} << 33;

enum class Coding { kMpeg2, kMpeg4, kAvcParameters, kAvcIdr, kAvcRecovery, kOther };

// Of the pin that takes the video.
const GUID& TypeOf(Coding coding);

struct MovieOptions {
    Coding coding = Coding::kMpeg2;
    size_t gop = 10;              // frames
    int64_t start = 90'000;       // of the PCR, 90 kHz
    bool named = true;            // with an SDT
    uint16_t otherPcrPid = 0;     // of a second programme, if not 0, with audio on kOtherPid
    uint16_t firstReference = 0;  // temporal_reference of the first picture of a group
    bool video = true;
    bool twins = false;  // the program map table lists a second video and audio stream, of which nothing comes
    size_t pictureSize = 3'000;
    size_t sizes = 1;    // every 100 frames the pictures become larger by pictureSize, so many times, and small again
    size_t leading = 0;  // pictures of a group that are shown before its first
    // MPEG-2: frame_rate_code, frame_rate_extension_n, picture_structure, repeat_first_field
    uint8_t frameRate = 3;
    uint8_t rateExtension = 0;
    uint8_t structure = 3;
    uint8_t repeatFirst = 0;
};

// A file of 25 frames a second: a PCR, then a PES packet of video and one of audio. Remembers what stands where.
class Movie {
public:
    static constexpr int64_t kLead = 45'000;  // from the PCR to the time stamp
    static constexpr int64_t kFrame = 3'600;
    static constexpr REFERENCE_TIME kFrameTime = 400'000;

    struct Point {
        size_t filePos;
        REFERENCE_TIME time;
        size_t video;  // bytes of the stream before it
        size_t audio;
    };

    explicit Movie(const MovieOptions& options = {});

    Movie& Tables(uint16_t transportStreamId);
    Movie& Frames(size_t count);
    Movie& Skip(int64_t by) {
        m_time += by;
        return *this;
    }
    // From the PCR to the time stamps that follow.
    Movie& SetLead(int64_t lead) {
        m_lead = lead;
        return *this;
    }
    // So that the packets before it are parsed.
    Movie& Padding();
    // Media time of the frame that comes next.
    REFERENCE_TIME Now() const { return (m_time + m_lead - m_options.start) * 1000 / 9; }

    build::StreamBuilder stream;
    std::vector<Point> points;
    build::Bytes video;
    build::Bytes audio;
    size_t wrap = 0;  // where the PCR has wrapped

private:
    void Table(uint16_t pid, const build::Bytes& section);
    void Add(uint16_t pid, uint8_t id, const build::Bytes& data, int64_t pts, build::Bytes& all);
    build::Bytes Filler(size_t size);
    build::Bytes Picture(size_t inGroup);

    const MovieOptions m_options;
    int64_t m_time;
    int64_t m_lead = kLead;
    size_t m_frames = 0;
    size_t m_filler = 0;
};

}  // namespace tessel
