#include "tests/support/ProgramBuilder.h"

namespace tessel::build {

namespace {

constexpr int64_t kWrap = int64_t{1} << 33;

}  // namespace

ElementaryStream Video(uint16_t pid, size_t pesSize, uint8_t streamType) {
    return {.pid = pid, .streamType = streamType, .streamId = 0xE0, .pesSize = pesSize};
}

ElementaryStream Audio(uint16_t pid, size_t pesSize, uint8_t streamType) {
    return {.pid = pid, .streamType = streamType, .streamId = 0xC0, .pesSize = pesSize};
}

ProgrammeBuilder& ProgrammeBuilder::Tables() {
    std::vector<PatProgram> programs;
    for (const Programme& programme : m_programmes) {
        programs.push_back({programme.number, programme.pmtPid});
        m_stream.Pcr(programme.pcrPid, (m_time % kWrap) * 300);
    }
    m_stream.Section(0, Pat(m_transportStreamId, programs));
    m_stream.Section(0, ShortSection(0xFE, {}));
    for (const Programme& programme : m_programmes) {
        PmtFields fields{.program = programme.number, .pcrPid = programme.pcrPid};
        for (const ElementaryStream& stream : programme.streams)
            fields.streams.push_back({stream.streamType, stream.pid, stream.descriptors});
        m_stream.Section(programme.pmtPid, Pmt(fields, {.version = programme.pmtVersion}));
        m_stream.Section(programme.pmtPid, ShortSection(0xFE, {}));
    }
    return *this;
}

ProgrammeBuilder& ProgrammeBuilder::Frames(size_t count) {
    for (; count > 0; --count, m_time += kFrame) {
        for (const Programme& programme : m_programmes) {
            m_stream.Pcr(programme.pcrPid, (m_time % kWrap) * 300);
            for (const ElementaryStream& stream : programme.streams) {
                Bytes& payload = m_payloads[stream.pid];
                const int64_t pts = (m_time + kLead + stream.ptsOffset) % kWrap;
                m_stamps[stream.pid].push_back({payload.size(), pts});
                Bytes data(stream.pesSize);
                // Bytes that say where they are from and that never look like a start code.
                for (size_t i = 0; i < data.size(); ++i)
                    data[i] = static_cast<uint8_t>(2 + (payload.size() + i + stream.pid) % 251);
                payload.insert(payload.end(), data.begin(), data.end());
                m_stream.Pes(stream.pid, stream.streamId, data, {.pts = pts, .unbounded = stream.streamId == 0xE0});
            }
        }
    }
    return *this;
}

ProgrammeBuilder& ProgrammeBuilder::SetTime(int64_t time) {
    m_time = time;
    return *this;
}

ProgrammeBuilder& ProgrammeBuilder::Padding(size_t packets) {
    for (; packets > 0; --packets)
        m_stream.Null();
    return *this;
}

}  // namespace tessel::build
