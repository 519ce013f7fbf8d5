#include "samples/Multiplexer.h"

#include <algorithm>
#include <map>
#include <random>
#include <stdexcept>
#include <string>

namespace tessel::sample {

namespace {

using build::PacketOptions;
using build::StreamBuilder;

constexpr int64_t kTicksPerPts = build::kPcrPerSecond / build::kPtsPerSecond;
constexpr int64_t kPcrInterval = build::kPcrPerSecond * 30 / 1000;  // tables may delay the next one to 40 ms

int64_t Ticks(double seconds) {
    return static_cast<int64_t>(seconds * build::kPcrPerSecond);
}

// One elementary stream on its way out, cut as the packets are sent.
class Sender {
public:
    Sender(const ElementaryStream& stream, int64_t ptsOffset)
        : m_stream(stream), m_ptsOffset(ptsOffset), m_key(stream.pid), m_next(stream.units.begin()) {
        Load();
    }

    uint16_t Pid() const { return m_stream.pid; }
    bool Done() const { return m_rest.empty(); }
    int64_t Deadline() const { return m_deadline; }
    bool Ready(int64_t now) const { return !Done() && now >= m_deadline - Ticks(m_stream.lead); }

    void Send(StreamBuilder& out, int64_t now, PacketOptions options) {
        if (now >= m_deadline)
            throw std::runtime_error("PID " + std::to_string(Pid()) + " arrives too late; raise the rate");
        options.scrambling = m_stream.pes.packet.scrambling;
        options.unitStart = m_rest.size() == m_pes.size();
        options.randomAccess = options.unitStart && m_randomAccess;
        const size_t take = std::min(m_rest.size(), StreamBuilder::Room(options));
        out.Packet(Pid(), m_rest.first(take), options);
        m_rest = m_rest.subspan(take);
        if (m_rest.empty())
            Load();
    }

private:
    void Load() {
        if (m_next == m_stream.units.end())
            return;
        build::PesOptions options = m_stream.pes;
        options.pts = m_next->pts + m_ptsOffset;
        if (m_next->dts != m_next->pts)
            options.dts = m_next->dts + m_ptsOffset;
        m_pes = build::PesPacket(m_stream.streamId, m_next->data, options);
        if (options.packet.scrambling != 0) {
            for (uint8_t& byte : m_pes)
                byte ^= static_cast<uint8_t>(m_key());
        }
        m_rest = m_pes;
        m_deadline = (m_next->dts + m_ptsOffset) * kTicksPerPts;
        m_randomAccess = m_next->randomAccess;
        ++m_next;
    }

    const ElementaryStream& m_stream;
    const int64_t m_ptsOffset;
    std::mt19937 m_key;  // stands for a scrambling system: PES headers become unreadable too
    AccessUnits::const_iterator m_next;
    Bytes m_pes;
    std::span<const uint8_t> m_rest;
    int64_t m_deadline = 0;
    bool m_randomAccess = false;
};

}  // namespace

Bytes Run(const Multiplex& multiplex) {
    const int64_t ptsOffset = (multiplex.firstPcr + Ticks(multiplex.decoderDelay)) / kTicksPerPts;
    std::vector<Sender> senders;
    senders.reserve(multiplex.streams.size());
    for (const ElementaryStream& stream : multiplex.streams)
        senders.emplace_back(stream, ptsOffset);

    StreamBuilder out;
    std::map<uint16_t, int64_t> pcrDue;
    for (const uint16_t pid : multiplex.pcrPids)
        pcrDue[pid] = multiplex.firstPcr;
    auto round = multiplex.rounds.begin();
    const auto done = [](const Sender& sender) { return sender.Done(); };
    while (round != multiplex.rounds.end() || !std::all_of(senders.begin(), senders.end(), done)) {
        const int64_t now = multiplex.firstPcr + static_cast<int64_t>(out.packets()) * multiplex.packetTicks;
        if (round != multiplex.rounds.end() && now >= multiplex.firstPcr + Ticks(round->time)) {
            for (const TableRound::Table& table : round->tables)
                out.Section(table.pid, table.section);
            ++round;
            continue;
        }

        PacketOptions options;
        Sender* chosen = nullptr;
        const auto due = std::find_if(pcrDue.begin(), pcrDue.end(), [now](auto& pcr) { return now >= pcr.second; });
        for (Sender& sender : senders) {
            const bool wanted = due == pcrDue.end() || sender.Pid() == due->first;
            if (wanted && sender.Ready(now) && (!chosen || sender.Deadline() < chosen->Deadline()))
                chosen = &sender;
        }
        if (due != pcrDue.end()) {
            options.pcr = now;
            due->second = now + kPcrInterval;
        }
        if (chosen)
            chosen->Send(out, now, options);
        else if (due != pcrDue.end())
            out.Pcr(due->first, now);
        else
            out.Null();
    }
    return out.bytes();
}

}  // namespace tessel::sample
