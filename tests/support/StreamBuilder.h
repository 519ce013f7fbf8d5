// Writes transport streams by name, so that a test reads as the stream it makes.
//
// It shares no code with the demultiplexer, its CRC included: what it writes is an independent
// account of the standards. Every field that a broken multiplexer gets wrong can be made to lie.
// What fits no field at all throws std::length_error or std::invalid_argument.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>

#include "tests/support/SectionBuilder.h"

namespace tessel::build {

constexpr size_t kPacketSize = 188;
constexpr int64_t kPcrPerSecond = 27'000'000;
constexpr int64_t kPtsPerSecond = 90'000;
constexpr uint16_t kNullPid = 0x1FFF;

// ISO/IEC 13818-1, 2.4.3.2 and 2.4.3.4.
struct PacketOptions {
    bool unitStart = false;
    bool transportError = false;
    uint8_t scrambling = 0;                  // transport_scrambling_control
    std::optional<uint8_t> continuity = {};  // sent as it is; the PID counts on from there
    bool duplicate = false;                  // the packet is sent twice
    bool discontinuity = false;
    bool randomAccess = false;
    std::optional<int64_t> pcr = {};               // 27 MHz
    size_t stuffing = 0;                           // least number of adaptation field stuffing bytes
    std::optional<uint8_t> adaptationLength = {};  // adaptation_field_length sent in place of the true one
};

struct SectionOptions {
    Bytes lead = {};                      // bytes before the first section, over which pointer_field points
    std::optional<uint8_t> pointer = {};  // pointer_field of the first packet in place of the true one
    PacketOptions packet = {};            // of the first packet; unitStart is set for it
};

// ISO/IEC 13818-1, 2.4.3.6. Times are in 90 kHz; values beyond 33 bits wrap.
struct PesOptions {
    std::optional<int64_t> pts = {};
    std::optional<int64_t> dts = {};
    bool unbounded = false;               // PES_packet_length 0, allowed for video
    std::optional<uint16_t> length = {};  // PES_packet_length in place of the true one
    bool aligned = false;                 // data_alignment_indicator
    size_t headerStuffing = 0;
    PacketOptions packet = {};  // of the first packet; unitStart is set for it, scrambling is kept for all
};

// The PES packet alone, without transport packets.
Bytes PesPacket(uint8_t streamId, const Bytes& data, const PesOptions& options = {});

// The same packets in 192-byte units: four bytes before each.
Bytes Units192(std::span<const uint8_t> packets, std::array<uint8_t, 4> prefix = {});

// Appends packets and counts continuity_counter for each PID.
class StreamBuilder {
public:
    const Bytes& bytes() const { return m_bytes; }
    Bytes& bytes() { return m_bytes; }
    size_t packets() const { return m_bytes.size() / kPacketSize; }

    // A payload that leaves room gets adaptation field stuffing; an empty one makes a packet of an adaptation
    // field alone, which does not count continuity_counter.
    StreamBuilder& Packet(uint16_t pid, std::span<const uint8_t> payload, const PacketOptions& options = {});
    StreamBuilder& Null();
    StreamBuilder& Pcr(uint16_t pid, int64_t pcr, PacketOptions options = {});

    // Begins in a packet of its own and fills its last packet with 0xFF.
    StreamBuilder& Section(uint16_t pid, const Bytes& section, const SectionOptions& options = {});
    // One directly behind the other: the tail of one and the start of the next share a packet.
    StreamBuilder& Sections(uint16_t pid, const std::vector<Bytes>& sections, const SectionOptions& options = {});

    StreamBuilder& Pes(uint16_t pid, uint8_t streamId, const Bytes& data, const PesOptions& options = {});

    // The continuity_counter that the next packet with payload gets.
    uint8_t NextContinuity(uint16_t pid) const { return m_continuity.at(pid); }

    // The bytes of payload that a packet with these options has room for.
    static size_t Room(const PacketOptions& options);

private:
    Bytes m_bytes;
    std::array<uint8_t, 0x2000> m_continuity{};
};

}  // namespace tessel::build
