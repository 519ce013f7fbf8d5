#include "tests/support/StreamBuilder.h"

#include <algorithm>
#include <stdexcept>

namespace tessel::build {

namespace {

constexpr size_t kHeaderSize = 4;
constexpr uint64_t kTimeMask = (uint64_t{1} << 33) - 1;

bool HasAdaptationField(const PacketOptions& options) {
    return options.discontinuity || options.randomAccess || options.pcr || options.stuffing > 0 ||
           options.adaptationLength;
}

// ISO/IEC 13818-1, 2.4.3.5.
void PutPcr(BitWriter& out, int64_t pcr) {
    constexpr int64_t kWrap = int64_t{300} << 33;
    const int64_t value = (pcr % kWrap + kWrap) % kWrap;
    out.Put(static_cast<uint64_t>(value / 300), 33).Put(63, 6).Put(static_cast<uint64_t>(value % 300), 9);
}

// PTS or DTS with their marker bits, ISO/IEC 13818-1, 2.4.3.7.
void PutTime(BitWriter& out, uint8_t prefix, int64_t time) {
    const uint64_t value = static_cast<uint64_t>(time) & kTimeMask;
    out.Put(prefix, 4).Put(value >> 30, 3).Put(1, 1).Put(value >> 15, 15).Put(1, 1).Put(value, 15).Put(1, 1);
}

// ISO/IEC 13818-1, 2.4.3.6: these stream ids carry their data directly after PES_packet_length.
bool HasPesHeader(uint8_t streamId) {
    constexpr uint8_t kPlain[] = {0xBC, 0xBE, 0xBF, 0xF0, 0xF1, 0xF2, 0xF8, 0xFF};
    return std::find(std::begin(kPlain), std::end(kPlain), streamId) == std::end(kPlain);
}

Bytes PesHeader(const PesOptions& options) {
    BitWriter times;
    if (options.pts)
        PutTime(times, options.dts ? 3 : 2, *options.pts);
    if (options.dts)
        PutTime(times, 1, *options.dts);
    const Bytes stuffing(options.headerStuffing, 0xFF);
    BitWriter out;
    out.Put(2, 2).Put(0, 3).Put(options.aligned, 1).Put(0, 2);
    out.Put(options.pts.has_value(), 1).Put(options.dts.has_value(), 1).Put(0, 6);
    out.Put(times.bytes().size() + stuffing.size(), 8).Put(times.bytes()).Put(stuffing);
    return out.bytes();
}

}  // namespace

Bytes PesPacket(uint8_t streamId, const Bytes& data, const PesOptions& options) {
    const Bytes header = HasPesHeader(streamId) ? PesHeader(options) : Bytes{};
    const size_t length = options.unbounded ? 0 : options.length.value_or(header.size() + data.size());
    if (length > 0xFFFF)
        throw std::length_error("PES_packet_length");
    BitWriter out;
    out.Put(1, 24).Put(streamId, 8).Put(length, 16).Put(header).Put(data);
    return out.bytes();
}

Bytes Units192(std::span<const uint8_t> packets, std::array<uint8_t, 4> prefix) {
    Bytes units;
    for (; !packets.empty(); packets = packets.subspan(std::min(kPacketSize, packets.size()))) {
        const auto packet = packets.first(std::min(kPacketSize, packets.size()));
        units.insert(units.end(), prefix.begin(), prefix.end());
        units.insert(units.end(), packet.begin(), packet.end());
    }
    return units;
}

size_t StreamBuilder::Room(const PacketOptions& options) {
    size_t used = kHeaderSize + options.stuffing + (options.pcr ? 6 : 0);
    if (HasAdaptationField(options))
        used += 2;
    if (used > kPacketSize)
        throw std::length_error("adaptation field");
    return kPacketSize - used;
}

StreamBuilder& StreamBuilder::Packet(uint16_t pid, std::span<const uint8_t> payload, const PacketOptions& options) {
    const size_t room = Room(options);
    if (pid > kNullPid || payload.size() > room)
        throw std::length_error("packet");
    const bool adaptation = HasAdaptationField(options) || payload.size() < room;
    uint8_t& next = m_continuity[pid];
    const uint8_t counter = options.continuity.value_or(payload.empty() ? next - 1 : next) & 15;
    if (options.continuity || !payload.empty())
        next = (counter + 1) & 15;

    BitWriter out;
    out.Put(0x47, 8).Put(options.transportError, 1).Put(options.unitStart, 1).Put(0, 1).Put(pid, 13);
    out.Put(options.scrambling, 2).Put(adaptation, 1).Put(!payload.empty(), 1).Put(counter, 4);
    if (adaptation) {
        const size_t length = kPacketSize - kHeaderSize - 1 - payload.size();
        out.Put(options.adaptationLength.value_or(static_cast<uint8_t>(length)), 8);
        if (length > 0) {
            out.Put(options.discontinuity, 1).Put(options.randomAccess, 1).Put(0, 1);
            out.Put(options.pcr.has_value(), 1).Put(0, 4);
        }
        if (options.pcr)
            PutPcr(out, *options.pcr);
        out.Put(Bytes(kPacketSize - payload.size() - out.bytes().size(), 0xFF));
    }
    out.Put(payload);
    for (int times = options.duplicate ? 2 : 1; times > 0; --times)
        m_bytes.insert(m_bytes.end(), out.bytes().begin(), out.bytes().end());
    return *this;
}

StreamBuilder& StreamBuilder::Null() {
    return Packet(kNullPid, Bytes(kPacketSize - kHeaderSize, 0xFF), {.continuity = 0});
}

StreamBuilder& StreamBuilder::Pcr(uint16_t pid, int64_t pcr, PacketOptions options) {
    options.pcr = pcr;
    return Packet(pid, {}, options);
}

StreamBuilder& StreamBuilder::Section(uint16_t pid, const Bytes& section, const SectionOptions& options) {
    return Sections(pid, {section}, options);
}

StreamBuilder& StreamBuilder::Sections(uint16_t pid, const std::vector<Bytes>& sections,
                                       const SectionOptions& options) {
    const Bytes joined = Join({options.lead, Join(sections)});
    std::span<const uint8_t> rest = joined;
    size_t toStart = options.lead.size();  // from rest to the next section start
    auto following = sections.begin();
    PacketOptions packet = options.packet;
    bool lie = options.pointer.has_value();

    while (!rest.empty()) {
        const size_t room = Room(packet);
        Bytes payload;
        // A section start needs its pointer_field and a first byte in the same packet.
        packet.unitStart = lie || (following != sections.end() && toStart + 1 < room);
        if (packet.unitStart)
            payload.push_back(lie ? *options.pointer : static_cast<uint8_t>(toStart));
        size_t take = std::min(rest.size(), room - payload.size());
        if (!packet.unitStart && following != sections.end())
            take = std::min(take, toStart);  // stuffed up to the next packet, which then starts it
        payload.insert(payload.end(), rest.begin(), rest.begin() + static_cast<ptrdiff_t>(take));
        payload.resize(room, 0xFF);
        rest = rest.subspan(take);
        while (following != sections.end() && toStart < take)
            toStart += (following++)->size();
        toStart -= std::min(toStart, take);
        Packet(pid, payload, packet);
        packet = {};
        lie = false;
    }
    return *this;
}

StreamBuilder& StreamBuilder::Pes(uint16_t pid, uint8_t streamId, const Bytes& data, const PesOptions& options) {
    const Bytes pes = PesPacket(streamId, data, options);
    std::span<const uint8_t> rest = pes;
    PacketOptions packet = options.packet;
    packet.unitStart = true;
    while (!rest.empty()) {
        const size_t take = std::min(rest.size(), Room(packet));
        Packet(pid, rest.first(take), packet);
        rest = rest.subspan(take);
        packet = {.scrambling = packet.scrambling};
    }
    return *this;
}

}  // namespace tessel::build
