// The PES packets of one stream of a file, from any place on.
#pragma once

#include <optional>

#include "core/stream/PesHeader.h"
#include "source/PacketReader.h"
#include "source/PictureScanner.h"

namespace tessel {

struct ScannedPes {
    int64_t filePos;  // of the transport packet that it begins in
    std::optional<int64_t> pts;
    bool isAccessPoint;
    // Of a whole one
    int32_t halfPictures;
    std::optional<int32_t> temporalReference;
    int32_t frameDuration;
};

// The payload of a packet of that PID; empty when it has none, or is another's, damaged or scrambled.
std::span<const uint8_t> PayloadOf(const uint8_t* packet, uint32_t pid);

// Whether the packet with that payload begins a PES packet.
bool BeginsPes(const uint8_t* packet, std::span<const uint8_t> payload);

class CPesScanner {
public:
    enum class Depth {
        kAccessPoint,  // no further than it takes to tell whether it is one
        kWhole,
    };
    // How far behind the limit a PES packet that begins before it is looked at.
    static constexpr int64_t kLookAhead = 65'536;

    CPesScanner(IStream& file, int32_t packetSize, uint32_t pid, AccessRule rule)
        : m_reader(file, packetSize), m_pid(pid), m_pictures(rule) {}

    bool MoveTo(int64_t position);
    // False when none begins before limit.
    bool ReadPes(int64_t limit, Depth depth, ScannedPes* out);

private:
    void Begin(std::span<const uint8_t> payload, ScannedPes* out);
    void Add(std::span<const uint8_t> payload);

    CPacketReader m_reader;
    const uint32_t m_pid;
    CPictureScanner m_pictures;
    // A packet that was read and is still to be looked at.
    const uint8_t* m_held = nullptr;
    size_t m_headerLeft = 0;  // bytes of the PES header that are still to come
};

}  // namespace tessel
