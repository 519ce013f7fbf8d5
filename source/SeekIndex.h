// The times of a stream file: its first and last time stamps, and the way from a time to a place in the file.
#pragma once

#include "core/stream/PcrClocks.h"
#include "platform/media/MediaType.h"
#include "source/PesScanner.h"

namespace tessel {

// An access unit group of the master stream that begins where decoding may begin.
struct SeekPoint {
    int64_t filePos = 0;                            // of the transport packet that starts its PES packet
    REFERENCE_TIME time = kUnknown;                 // of its PTS
    REFERENCE_TIME endTime = kUnknown;              // where the next one begins, or what it holds is over
    REFERENCE_TIME startTime = 0;                   // of what is shown first
    int32_t frameDuration = kDefaultFrameDuration;  // 0 for audio
};

// The stream that times the file, and the clock that times the stream.
struct SeekMaster {
    uint32_t pid = kNullPid;
    bool isAudio = false;
    GUID subtype = GUID_NULL;
    int64_t pcrOrigin = 0;  // 27 MHz
    REFERENCE_TIME timeOrigin = 0;

    bool operator==(const SeekMaster&) const = default;
};

// One thread at a time, which nobody else moves the file under.
class CSeekIndex {
public:
    // What is read at each end of the file to find a time stamp, and behind a place to find the next one.
    static constexpr int64_t kSearchLimit = 10'485'760;

    // The file outlives the index. dataStart: of the first packet.
    CSeekIndex(IStream& file, int32_t packetSize, int64_t dataStart, const SeekMaster& master);

    // The first and the last point. False when there is none, or none near the end.
    bool Build();

    // Finds the point to begin at for *target, which is moved into the file, and makes it the current one.
    // E_FAIL: there is none any more.
    HRESULT MoveTo(REFERENCE_TIME* target);

    const SeekPoint& First() const { return m_first; }
    const SeekPoint& Last() const { return m_last; }
    const SeekPoint& Current() const { return m_current; }

private:
    // A point at or below a time, and a place before which the last such point stands.
    struct Bracket {
        SeekPoint lower;
        int64_t end;
    };

    static AccessRule RuleOf(const SeekMaster& master);

    REFERENCE_TIME TimeOf(int64_t pts) const;
    // The next point that begins at from or behind it, and before limit.
    bool Find(int64_t from, int64_t limit, SeekPoint* out);
    bool FindNext(int64_t limit, SeekPoint* out);
    bool FindLast(int64_t span);
    // Reads what the point stands for, and fills in all but filePos and time. previous: of the point before, if that is
    // known.
    void Refine(SeekPoint* point, REFERENCE_TIME previous);
    void RefineVideo(SeekPoint* point);
    void RefineAudio(SeekPoint* point, REFERENCE_TIME previous);
    // The time at which the audio from that point to the end of the file is over; kUnknown when that cannot be told.
    REFERENCE_TIME WalkAudio(const SeekPoint& point);
    Bracket SearchBelow(REFERENCE_TIME target);
    SeekPoint WalkUp(const Bracket& bracket, REFERENCE_TIME target);
    bool IsAtOrBelow(const SeekPoint& point, REFERENCE_TIME target) const;

    IStream& m_file;
    const int32_t m_packetSize;
    const int64_t m_dataStart;
    const SeekMaster m_master;
    CPesScanner m_scanner;
    SeekPoint m_first;
    SeekPoint m_last;
    SeekPoint m_current;
};

}  // namespace tessel
