#include "source/SeekIndex.h"

#include <algorithm>
#include <cmath>

#include "core/stream/PesHeader.h"

namespace tessel {

namespace {

constexpr REFERENCE_TIME kTwoSeconds = 20'000'000;
constexpr REFERENCE_TIME kTolerance = 100;  // a time so little before a point is the point's
constexpr int64_t kLeastStep = 10;          // bytes between two points
constexpr int64_t kSlack = 10'240;
constexpr REFERENCE_TIME kLeastBiasStep = 10'000;
constexpr int kMostRounds = 64;
constexpr int kMostSlowRounds = 2;

constexpr int64_t kHalfWrap = int64_t{1} << 32;

}  // namespace

CSeekIndex::CSeekIndex(IStream& file, int32_t packetSize, int64_t dataStart, const SeekMaster& master)
    : m_file(file),
      m_packetSize(packetSize),
      m_dataStart(dataStart),
      m_master(master),
      m_scanner(file, packetSize, master.pid, RuleOf(master)) {}

AccessRule CSeekIndex::RuleOf(const SeekMaster& master) {
    if (master.isAudio)
        return AccessRule::kEveryStamp;
    if (master.subtype == MEDIASUBTYPE_MPEG2_VIDEO || master.subtype == MEDIASUBTYPE_MPEG1Payload)
        return AccessRule::kMpeg2;
    if (master.subtype == MEDIASUBTYPE_MPEG4_VIDEO)
        return AccessRule::kMpeg4;
    return master.subtype == MEDIASUBTYPE_AVC_VIDEO ? AccessRule::kAvc : AccessRule::kEveryStamp;
}

REFERENCE_TIME CSeekIndex::TimeOf(int64_t pts) const {
    // The recording has crossed the wrap of the time stamps.
    if (m_master.pcrOrigin / 300 - pts > kHalfWrap)
        pts += kTimestampWrap;
    return (pts * 3'000 - 10 * m_master.pcrOrigin) / 27 + m_master.timeOrigin;
}

bool CSeekIndex::Find(int64_t from, int64_t limit, SeekPoint* out) {
    return m_scanner.MoveTo(from) && FindNext(limit, out);
}

bool CSeekIndex::FindNext(int64_t limit, SeekPoint* out) {
    ScannedPes pes;
    while (m_scanner.ReadPes(limit, CPesScanner::Depth::kAccessPoint, &pes)) {
        if (!pes.pts || !pes.isAccessPoint)
            continue;
        *out = {.filePos = pes.filePos, .time = TimeOf(*pes.pts)};
        return true;
    }
    return false;
}

bool CSeekIndex::Build() {
    if (!Find(m_dataStart, m_dataStart + kSearchLimit, &m_first))
        return false;
    Refine(&m_first, kUnknown);
    m_first.time = m_first.startTime;
    m_first.endTime = std::max(m_first.endTime, m_first.time + 1);
    SeekPoint second;
    if (!Find(m_first.filePos + m_packetSize, m_first.filePos + kSearchLimit, &second)) {
        m_last = m_first;
        return true;
    }
    m_first.endTime = std::max(second.time, m_first.time + 1);
    return FindLast(2 * std::max(second.filePos - m_first.filePos, kLeastStep));
}

bool CSeekIndex::FindLast(int64_t span) {
    STATSTG status;
    if (FAILED(m_file.Stat(&status, 0)))
        return false;
    const auto size = static_cast<int64_t>(status.cbSize);
    REFERENCE_TIME previous = kUnknown;
    bool found = false;
    for (int64_t from = size - span; !found; from -= span) {
        // The bytes in front of the first packet are none of the stream's; from there on all has been looked at.
        const int64_t start = std::max(from, m_dataStart);
        SeekPoint point;
        for (bool more = Find(start, start + span + kSlack, &point); more;
             more = FindNext(point.filePos + span + kSlack, &point)) {
            previous = found ? m_last.time : kUnknown;
            m_last = point;
            found = true;
        }
        if (!found && (start == m_dataStart || size - start > kSearchLimit))
            return false;
    }
    Refine(&m_last, previous);
    return true;
}

bool CSeekIndex::IsAtOrBelow(const SeekPoint& point, REFERENCE_TIME target) const {
    return point.time - kTolerance <= target;
}

HRESULT CSeekIndex::MoveTo(REFERENCE_TIME* target) {
    if (*target >= m_last.endTime)
        *target = m_last.endTime - 1;
    if (IsAtOrBelow(m_last, *target)) {
        m_current = m_last;
        return S_OK;
    }
    if (*target < m_first.endTime) {
        *target = std::max<REFERENCE_TIME>(*target, 0);
        m_current = m_first;
        return S_OK;
    }
    const bool isSet = m_current.time != kUnknown;
    if (isSet && IsAtOrBelow(m_current, *target) && *target < m_current.endTime - kTolerance)
        return S_OK;
    const bool near = isSet && IsAtOrBelow(m_current, *target) && *target < m_current.time + kTwoSeconds;
    SeekPoint point = WalkUp(near ? Bracket{m_current, m_last.filePos} : SearchBelow(*target), *target);
    // The file is another one than it was.
    SeekPoint found;
    if (!Find(point.filePos, point.filePos + kSearchLimit, &found) || found.filePos != point.filePos)
        return E_FAIL;
    if (point.filePos == m_first.filePos)
        point = m_first;
    else
        Refine(&point, kUnknown);
    m_current = point;
    return S_OK;
}

CSeekIndex::Bracket CSeekIndex::SearchBelow(REFERENCE_TIME target) {
    SeekPoint lower = m_first;
    SeekPoint upper = m_last;
    if (m_current.time != kUnknown)
        (IsAtOrBelow(m_current, target) ? lower : upper) = m_current;
    // No point begins between end and upper. Guesses stay below high.
    int64_t end = upper.filePos;
    int64_t high = end;
    REFERENCE_TIME bias = std::max<REFERENCE_TIME>(lower.endTime - lower.time, 0);
    int64_t width = high - lower.filePos;
    int slow = 0;  // rounds that have not halved it
    for (int round = 0; round < kMostRounds && upper.time > lower.time; ++round) {
        const double rate =
            static_cast<double>(upper.filePos - lower.filePos) / static_cast<double>(upper.time - lower.time);
        const double ahead = static_cast<double>(target - lower.time) - static_cast<double>(bias);
        const double most = static_cast<double>(std::max<int64_t>(upper.filePos - lower.filePos, 0));
        // A time stamp that is far off leads every guess astray; halves find the place all the same.
        const int64_t guess = slow >= kMostSlowRounds
                                  ? lower.filePos + (high - lower.filePos) / 2
                                  : lower.filePos + std::llround(std::clamp(ahead * rate, 0.0, most));
        // Packets stand one behind the other, so most guesses can be made to hit one.
        const int64_t start = std::max(guess - (guess - m_dataStart) % m_packetSize, lower.filePos);
        const REFERENCE_TIME nextBias = std::max(bias + bias / 2, bias + kLeastBiasStep);
        if (start >= high) {
            bias = nextBias;  // nothing new is to be read there
            continue;
        }
        const int64_t limit = std::min(start + kSearchLimit, end);
        SeekPoint point;
        if (!Find(start, limit, &point)) {
            if (start == lower.filePos)
                break;
            high = start;
            if (limit == end)
                end = start;
            bias = nextBias;
        } else if (IsAtOrBelow(point, target)) {
            if (point.filePos >= high)
                high = end;
            const bool again = point.filePos == lower.filePos;
            lower = point;
            if (point.time > target - kTwoSeconds || (again && slow >= kMostSlowRounds))
                break;
            if (again)
                slow = kMostSlowRounds;
        } else {
            upper = point;
            high = end = start;
            if (start == lower.filePos)
                break;
        }
        if (high - lower.filePos > width / 2) {
            ++slow;
        } else {
            width = high - lower.filePos;
            slow = 0;
        }
    }
    return {lower, end};
}

SeekPoint CSeekIndex::WalkUp(const Bracket& bracket, REFERENCE_TIME target) {
    SeekPoint kept = bracket.lower;
    SeekPoint point;
    for (bool more = Find(kept.filePos + m_packetSize, bracket.end, &point); more;
         more = FindNext(bracket.end, &point)) {
        if (!IsAtOrBelow(point, target))
            break;
        kept = point;
    }
    return kept;
}

}  // namespace tessel
