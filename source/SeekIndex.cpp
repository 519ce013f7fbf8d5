#include "source/SeekIndex.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>

#include "core/stream/PesHeader.h"

namespace tessel {

namespace {

constexpr REFERENCE_TIME kTwoSeconds = 20'000'000;
constexpr REFERENCE_TIME kTolerance = 100;  // a time so little before a point is the point's
constexpr int64_t kLeastStep = 10;          // bytes between two points
constexpr REFERENCE_TIME kLeastBiasStep = 10'000;
constexpr int kMostRounds = 64;
constexpr int kMostSlowRounds = 2;
// Broadcasts have a time stamp in every 0.7 s of a stream, ISO/IEC 13818-1 clause 2.7.4.
constexpr int64_t kProbe = 524'288;
// Pictures are sent in another order than they are shown in, but by less than that.
constexpr REFERENCE_TIME kReordering = 10'000'000;

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
    Refine(&m_first, m_first.filePos + kSearchLimit, kUnknown);
    m_first.time = m_first.startTime;
    m_first.endTime = std::max(m_first.endTime, m_first.time + 1);
    SeekPoint second;
    int64_t step = kSearchLimit;
    if (Find(m_first.filePos + m_packetSize, m_first.filePos + kSearchLimit, &second)) {
        m_first.endTime = std::max(second.time, m_first.time + 1);
        step = std::max(second.filePos - m_first.filePos, kLeastStep);
    }
    if (!FindLast(2 * step))
        return false;
    if (m_last.filePos == m_first.filePos) {
        m_first.endTime = m_last.endTime;
        m_last = m_first;
    }
    return m_last.endTime > 0;
}

bool CSeekIndex::FindLast(int64_t span) {
    STATSTG status;
    if (FAILED(m_file.Stat(&status, 0)))
        return false;
    const auto size = static_cast<int64_t>(status.cbSize);
    REFERENCE_TIME previous = kUnknown;
    for (bool found = false; !found;) {
        // The bytes in front of the first packet are none of the stream's.
        const int64_t start = std::max(size - span, m_dataStart);
        SeekPoint point;
        for (bool more = Find(start, size, &point); more; more = FindNext(size, &point)) {
            if (point.time < m_first.time)
                continue;  // a wrong time stamp, or another recording
            previous = found ? m_last.time : kUnknown;
            m_last = point;
            found = true;
        }
        if (!found && (start == m_dataStart || span >= kSearchLimit))
            return false;
        span = std::min(2 * span, kSearchLimit);
    }
    Refine(&m_last, size, previous);
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
    Bracket bracket{near ? m_current : m_first, m_last.filePos};
    const bool found = (near || Narrow(*target, &bracket)) && WalkUp(*target, &bracket);
    if (!found && !SearchSparse(*target, &bracket))
        return E_FAIL;
    SeekPoint point = bracket.lower;
    // The file is another one than it was.
    SeekPoint again;
    if (!Find(point.filePos, point.filePos + kSearchLimit, &again) || again.filePos != point.filePos)
        return E_FAIL;
    if (point.filePos == m_first.filePos)
        point = m_first;
    else
        Refine(&point, point.filePos + kSearchLimit, kUnknown);
    m_current = point;
    return S_OK;
}

bool CSeekIndex::Narrow(REFERENCE_TIME target, Bracket* bracket) {
    SeekPoint& lower = bracket->lower;
    SeekPoint upper = m_last;
    if (m_current.time != kUnknown)
        (IsAtOrBelow(m_current, target) ? lower : upper) = m_current;
    // No point begins between end and upper.
    int64_t& end = bracket->end;
    end = upper.filePos;
    REFERENCE_TIME bias = std::max<REFERENCE_TIME>(lower.endTime - lower.time, 0);
    int64_t width = end - lower.filePos;
    int slow = 0;  // rounds that have not halved it
    for (int round = 0; round < kMostRounds && upper.time > lower.time; ++round) {
        const double rate =
            static_cast<double>(upper.filePos - lower.filePos) / static_cast<double>(upper.time - lower.time);
        const double ahead = static_cast<double>(target - lower.time) - static_cast<double>(bias);
        const double most = static_cast<double>(std::max<int64_t>(upper.filePos - lower.filePos, 0));
        // A time stamp that is far off leads every guess astray; halves find the place all the same.
        const int64_t guess = slow >= kMostSlowRounds
                                  ? lower.filePos + (end - lower.filePos) / 2
                                  : lower.filePos + std::llround(std::clamp(ahead * rate, 0.0, most));
        const int64_t start = std::max(Align(guess), lower.filePos);
        const REFERENCE_TIME nextBias = std::max(bias + bias / 2, bias + kLeastBiasStep);
        if (start >= end) {
            bias = nextBias;  // nothing new is to be read there
            continue;
        }
        const int64_t limit = std::min(start + kSearchLimit, end);
        SeekPoint point;
        if (!Find(start, limit, &point)) {
            if (limit < end)
                return false;
            if (start == lower.filePos)
                break;
            end = start;
            bias = nextBias;
        } else if (IsAtOrBelow(point, target)) {
            const bool again = point.filePos == lower.filePos;
            lower = point;
            if (point.time > target - kTwoSeconds || (again && slow >= kMostSlowRounds))
                break;
            if (again)
                slow = kMostSlowRounds;
        } else {
            upper = point;
            end = start;
            if (start == lower.filePos)
                break;
        }
        if (end - lower.filePos > width / 2) {
            ++slow;
        } else {
            width = end - lower.filePos;
            slow = 0;
        }
    }
    return true;
}

bool CSeekIndex::WalkUp(REFERENCE_TIME target, Bracket* bracket) {
    SeekPoint& kept = bracket->lower;
    const int64_t most = kept.filePos + kMostSearched;
    int64_t limit = std::min(kept.filePos + kSearchLimit, bracket->end);
    SeekPoint point;
    for (bool more = Find(kept.filePos + m_packetSize, limit, &point); more; more = FindNext(limit, &point)) {
        if (!IsAtOrBelow(point, target))
            return true;
        kept = point;
        if (kept.filePos > most)
            return false;
        limit = std::min(kept.filePos + kSearchLimit, bracket->end);
    }
    return limit == bracket->end;
}

bool CSeekIndex::SearchSparse(REFERENCE_TIME target, Bracket* bracket) {
    const int64_t lowest = bracket->lower.filePos + m_packetSize;
    // All time stamps show the way to where they pass the target. Where there are none, those above decide.
    int64_t low = lowest;
    int64_t end = bracket->end;
    bool isGap = false;  // nothing is at end
    while (end - low > kProbe) {
        const int64_t middle = Align(low + (end - low) / 2);
        int64_t at = middle;
        auto time = StampAt(middle);
        const bool isEmpty = !time;
        if (isEmpty && !isGap) {
            at = CrossGap(middle, end);
            time = at < end ? StampAt(at) : std::nullopt;
        }
        if (time && *time <= target + kReordering) {
            low = at;
        } else {
            end = middle;
            isGap = isEmpty;
        }
    }
    // From there back to the last point.
    for (int64_t searched = 0; searched < kMostSearched; searched += kSearchLimit) {
        const int64_t from = std::max(end - kSearchLimit, lowest);
        isGap = true;
        if (FindBelow(target, from, end, bracket, &isGap) || from == lowest)
            return true;
        end = isGap ? CrossGap(from, lowest) + kProbe : from;
    }
    return false;
}

bool CSeekIndex::FindBelow(REFERENCE_TIME target, int64_t from, int64_t end, Bracket* bracket, bool* isEmpty) {
    bool found = false;
    ScannedPes pes;
    bool more = m_scanner.MoveTo(from);
    while (more && m_scanner.ReadPes(end, CPesScanner::Depth::kAccessPoint, &pes)) {
        *isEmpty = false;
        if (!pes.pts || !pes.isAccessPoint)
            continue;
        const SeekPoint point{.filePos = pes.filePos, .time = TimeOf(*pes.pts)};
        more = IsAtOrBelow(point, target);
        if (more)
            bracket->lower = point;
        found |= more;
    }
    return found;
}

std::optional<REFERENCE_TIME> CSeekIndex::StampAt(int64_t from) {
    ScannedPes pes;
    const bool moved = m_scanner.MoveTo(from);
    while (moved && m_scanner.ReadPes(from + kProbe, CPesScanner::Depth::kAccessPoint, &pes))
        if (pes.pts)
            return TimeOf(*pes.pts);
    return std::nullopt;
}

int64_t CSeekIndex::CrossGap(int64_t from, int64_t to) {
    int64_t found = to;
    for (int64_t step = kProbe; std::abs(to - from) > step; step *= 2) {
        const int64_t next = Align(from + (to > from ? step : -step));
        if (StampAt(next)) {
            found = next;
            break;
        }
        from = next;
    }
    while (std::abs(found - from) > kProbe) {
        const int64_t middle = Align(from + (found - from) / 2);
        (StampAt(middle) ? found : from) = middle;
    }
    return found;
}

}  // namespace tessel
