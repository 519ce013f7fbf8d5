// What a seek point stands for: when its first picture is shown, how long its pictures are, and when it is over.
#include <algorithm>
#include <memory>
#include <vector>

#include "output/parsers/AudioFrameWalk.h"
#include "source/SeekIndex.h"

namespace tessel {

namespace {

// Steps of time stamps that are those of pictures.
constexpr REFERENCE_TIME kShortestFrame = 80'000;
constexpr REFERENCE_TIME kLongestFrame = 2'000'000;

int32_t ShortestStep(const std::vector<REFERENCE_TIME>& sorted) {
    REFERENCE_TIME shortest = 0;
    for (size_t i = 1; i < sorted.size(); ++i)
        if (const REFERENCE_TIME step = sorted[i] - sorted[i - 1]; step > 0 && (shortest == 0 || step < shortest))
            shortest = step;
    return shortest >= kShortestFrame && shortest <= kLongestFrame ? static_cast<int32_t>(shortest)
                                                                   : kDefaultFrameDuration;
}

}  // namespace

void CSeekIndex::Refine(SeekPoint* point, int64_t limit, REFERENCE_TIME previous) {
    point->startTime = point->time;
    if (m_master.isAudio)
        RefineAudio(point, limit, previous);
    else if (m_scanner.MoveTo(point->filePos))
        RefineVideo(point, limit);
    point->endTime = std::max(point->endTime, point->time + 1);
}

void CSeekIndex::RefineVideo(SeekPoint* point, int64_t limit) {
    std::vector<REFERENCE_TIME> stamps;
    REFERENCE_TIME next = kUnknown;
    int64_t halfPictures = 0;
    ScannedPes first{};
    ScannedPes pes{};
    for (bool isFirst = true; m_scanner.ReadPes(limit, CPesScanner::Depth::kWhole, &pes); isFirst = false) {
        if (isFirst)
            first = pes;
        if (!isFirst && pes.pts && pes.isAccessPoint) {
            next = TimeOf(*pes.pts);
            break;
        }
        halfPictures += pes.halfPictures;
        if (pes.pts)
            stamps.push_back(TimeOf(*pes.pts));
    }
    stamps.push_back(point->time);
    if (RuleOf(m_master) == AccessRule::kMpeg2) {
        point->frameDuration = first.frameDuration;
        // Where no headers of groups stand, it counts on from unit to unit.
        const int64_t reference = first.temporalReference.value_or(0);
        point->startTime = 2 * reference < halfPictures || reference == 0
                               ? point->time - reference * first.frameDuration
                               : *std::min_element(stamps.begin(), stamps.end());
        point->endTime = point->startTime + halfPictures * first.frameDuration / 2;
    } else {
        std::sort(stamps.begin(), stamps.end());
        point->frameDuration = ShortestStep(stamps);
        point->startTime = stamps.front();
        point->endTime = stamps.back() + point->frameDuration;
    }
    if (next > point->time)
        point->endTime = next;
}

void CSeekIndex::RefineAudio(SeekPoint* point, int64_t limit, REFERENCE_TIME previous) {
    point->frameDuration = 0;
    SeekPoint next;
    if (Find(point->filePos + m_packetSize, limit, &next) && next.time > point->time) {
        point->endTime = next.time;
        return;
    }
    point->endTime = WalkAudio(*point, limit);
    if (point->endTime <= point->time && previous != kUnknown)
        point->endTime = point->time + (point->time - previous);
}

REFERENCE_TIME CSeekIndex::WalkAudio(const SeekPoint& point, int64_t limit) {
    std::unique_ptr<cvneDataParser::FrameParser> parser;
    if (cvneDataParser::CreateParser(m_master.subtype, &parser) != S_OK)
        return kUnknown;
    CPesFile file(m_file, m_packetSize, m_master.pid);
    if (!file.MoveTo(point.filePos))
        return kUnknown;
    cvneDataParser::AudioFrameWalk walk(*parser);
    while (file.Next(limit)) {
        if (file.Part().pts != kNoTimestamp)
            walk.Restart(TimeOf(file.Part().pts));
        if (FAILED(walk.Append(file.Part().payload)))
            return kUnknown;
    }
    return walk.Time();
}

}  // namespace tessel
