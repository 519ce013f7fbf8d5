#include "tools/tessel/FrameList.h"

#include <algorithm>

namespace tessel::tool {

namespace {

// Several frames of the longest: what is still unconfirmed at the front of so much is none.
constexpr size_t kWindow = 16 * 1024;
constexpr double kStampsPerSecond = 90'000;

}  // namespace

FrameList::FrameList(uint32_t pid, cvneDataParser::FrameParser& parser, Taker taker)
    : m_pid(pid), m_parser(parser), m_taker(std::move(taker)) {}

int FrameList::DeliverPacket(const uint8_t* packet, const TsHeader& header, const AdaptationFieldHeader& adaptation,
                             bool) {
    if (header.Pid() != m_pid)
        return 0;
    const PesPart part = m_pes.Read(packet, header, adaptation);
    if (!part.follows)
        OnGap();
    if (part.pts != kNoTimestamp)
        m_stamps.push_back({m_position + static_cast<int64_t>(m_bytes.size()), part.pts});
    m_begun |= part.begins;
    if (m_begun)
        m_bytes.insert(m_bytes.end(), part.payload.begin(), part.payload.end());
    if (m_bytes.size() >= 2 * kWindow)
        Walk(false);
    return 0;
}

// The frame that the gap is in would be taken for a whole one wherever its end looks like the next.
void FrameList::OnGap() {
    Walk(true);
    m_nextTime.reset();
    m_stamps.clear();
}

void FrameList::Finish() {
    Walk(true);
}

void FrameList::Walk(bool last) {
    size_t done = 0;
    while (done < m_bytes.size() && (last || m_bytes.size() - done >= kWindow)) {
        const uint8_t* const begin = m_bytes.data() + done;
        const size_t count = std::min(m_bytes.size() - done, kWindow);
        cvneDataParser::FrameRecord frame;
        BOOL complete = 0;
        if (m_parser.FindFrame(begin, static_cast<int32_t>(count), 0, &frame, &complete) != S_OK) {
            // Its search is over at the first sync word that deceives it, and may have left out what lies behind.
            const uint8_t* sync = begin;
            auto left = static_cast<int32_t>(count);
            const auto header = static_cast<size_t>(m_parser.GetHeaderSize());
            if (SUCCEEDED(m_parser.FindSync(&sync, &left)))
                done += static_cast<size_t>(sync - begin) + 1;
            else
                done += last && count < kWindow ? count : count - std::min(count, header - 1);
            continue;
        }
        const auto before = static_cast<size_t>(frame.start - begin);
        const bool toEnd =
            last && done + before + frame.length == m_bytes.size() && m_parser.WholeLength() == frame.length;
        if (complete || toEnd) {
            Take(m_position + static_cast<int64_t>(done + before), frame.length, frame.samplesPerFrame);
            done += before + frame.length;
        } else {
            // With more bytes behind it, it may yet be one.
            done += std::max<size_t>(before, 1);
        }
    }
    m_bytes.erase(m_bytes.begin(), m_bytes.begin() + static_cast<std::ptrdiff_t>(done));
    m_position += static_cast<int64_t>(done);
}

void FrameList::Take(int64_t position, uint32_t length, uint32_t samples) {
    // A time stamp is that of the first frame that begins in its PES packet.
    for (; !m_stamps.empty() && m_stamps.front().position <= position; m_stamps.pop_front())
        m_nextTime = static_cast<double>(m_stamps.front().pts) / kStampsPerSecond;
    const WAVEFORMATEX& format = m_parser.Format();
    m_taker({position, length, samples, format.nSamplesPerSec, format.nChannels, m_nextTime});
    if (m_nextTime && format.nSamplesPerSec != 0)
        *m_nextTime += static_cast<double>(samples) / format.nSamplesPerSec;
}

}  // namespace tessel::tool
