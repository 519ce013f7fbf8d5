// A part of a file by time: what the user asks for, and the bytes that it is.
#pragma once

#include <optional>
#include <string>

#include "core/stream/PesHeader.h"
#include "source/TsSource.h"
#include "tools/tessel/Failure.h"
#include "tools/tessel/Services.h"

namespace tessel::tool {

// What keeps path from being cut by time.
Failure CannotCut(const std::string& path, const std::string& reason);

// 100 ns, from the first picture or sound of a file on.
struct TimeSpan {
    std::optional<int64_t> from;
    std::optional<int64_t> to;

    bool IsWhole() const { return !from && !to; }
};

// "90", "1:30", "0:01:30.5"; an empty text is not given. Misuse for anything else, and where nothing lies between.
TimeSpan ParseTimeSpan(const std::string& from, const std::string& to);

// "0:01:30.50"
std::string TimeText(int64_t time);

// The stream by which a file is timed, and the PID with its clock.
struct TimingStream {
    const ComponentInfo* component;
    uint32_t pcrPid;
};

// The first clear video, else the first clear audio; of that service alone if one is given.
std::optional<TimingStream> FindTimingStream(const std::vector<ServiceInfo>& services,
                                             std::optional<uint32_t> serviceId = std::nullopt);

// An unconnected pin of the source that delivers that stream; null when there is no room.
ComPtr<IPin> MapTimingPin(IBaseFilter* source, const ComponentInfo& component);

// The sync byte of a packet and what a parser wants to see behind it.
inline constexpr int64_t kLookAheadBytes = 7;

// Bytes of a file. end: so much behind the beginning of the packet that no longer belongs to the part, that a parser
// knows the one before for a whole one.
struct ByteRange {
    int64_t begin = 0;
    int64_t beginTime = 0;  // 100 ns, as of TimeSpan
    int64_t end = INT64_MAX;
    // 90 kHz; what is decoded from then on comes within the bytes all the same, for it is sent ahead.
    int64_t endTimestamp = kNoTimestamp;
};

// Makes the source, which has opened path and is stopped, begin and end with that part. It begins where decoding may,
// at or before from, and ends in front of the first clock reference that is not before to. Failure when it cannot be
// sought in, or from is behind its end.
ByteRange SeekToPart(CTsSource& source, const TimingStream& stream, const TimeSpan& span, const std::string& path);
// The same by a source of its own. Failure when there is none, or no stream to time the file by.
ByteRange FindPart(const std::string& path, const std::optional<TimingStream>& stream, const PidSet& latePids,
                   const TimeSpan& span);

}  // namespace tessel::tool
