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
    // What is read at each end of the file to find a point, and behind a place to find the next one.
    static constexpr int64_t kSearchLimit = 10'485'760;
    // Where points stand farther apart than that: how much of the stream is looked through for the one to begin at.
    static constexpr int64_t kMostSearched = 8 * kSearchLimit;

    // The file outlives the index. dataStart: of the first packet.
    CSeekIndex(IStream& file, int32_t packetSize, int64_t dataStart, const SeekMaster& master);

    // The first and the last point, which is not earlier. False when there is none, or none near the end.
    bool Build();

    // Finds the point to begin at for *target, which is moved into the file, and makes it the current one.
    // E_FAIL: there is none any more, or none within reach.
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
    // Reads what the point stands for, up to limit, and fills in all but filePos and time. previous: of the point
    // before, if that is known.
    void Refine(SeekPoint* point, int64_t limit, REFERENCE_TIME previous);
    void RefineVideo(SeekPoint* point, int64_t limit);
    void RefineAudio(SeekPoint* point, int64_t limit, REFERENCE_TIME previous);
    // The time at which the audio from that point to limit is over; kUnknown when that cannot be told.
    REFERENCE_TIME WalkAudio(const SeekPoint& point, int64_t limit);

    // The three steps from a time to its point. The first two are false where points stand too far apart.
    bool Narrow(REFERENCE_TIME target, Bracket* bracket);
    bool WalkUp(REFERENCE_TIME target, Bracket* bracket);
    bool SearchSparse(REFERENCE_TIME target, Bracket* bracket);
    // The last point before end that is not later than the target becomes the bracket's. isEmpty: nothing of the stream
    // is between from and end.
    bool FindBelow(REFERENCE_TIME target, int64_t from, int64_t end, Bracket* bracket, bool* isEmpty);
    // The first time stamp, of a point or not, that a short look from there on finds.
    std::optional<REFERENCE_TIME> StampAt(int64_t from);
    // From a place where nothing is found of the stream towards another one, the first where something is, but for so
    // much as StampAt looks at; else the other one.
    int64_t CrossGap(int64_t from, int64_t to);
    // Packets stand one behind the other, so most places can be made to hit one.
    int64_t Align(int64_t position) const { return position - (position - m_dataStart) % m_packetSize; }
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
