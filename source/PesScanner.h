// The PES packets of one stream of a file, from any place on.
#pragma once

#include <optional>

#include "core/stream/PesReader.h"
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

// Reads a file packet by packet, for the PES packets of one PID.
class CPesFile {
public:
    CPesFile(IStream& file, int32_t packetSize, uint32_t pid) : m_reader(file, packetSize), m_pid(pid) {}

    // See CPacketReader.
    bool MoveTo(int64_t position);
    int64_t Position() const { return m_reader.Position(); }

    // The next packet; see CPacketReader::ReadPacket.
    bool Next(int64_t limit);
    // What it holds, valid until the next: nothing when it is of another PID, damaged or scrambled.
    const PesPart& Part() const { return m_part; }

private:
    CPacketReader m_reader;
    const uint32_t m_pid;
    PesReader m_pes;
    PesPart m_part;
};

class CPesScanner {
public:
    enum class Depth {
        kAccessPoint,  // no further than it takes to tell whether it is one
        kWhole,
    };
    // How far behind the limit a PES packet that begins before it is looked at.
    static constexpr int64_t kLookAhead = 65'536;

    CPesScanner(IStream& file, int32_t packetSize, uint32_t pid, AccessRule rule)
        : m_file(file, packetSize, pid), m_pictures(rule) {}

    bool MoveTo(int64_t position);
    // False when none begins before limit.
    bool ReadPes(int64_t limit, Depth depth, ScannedPes* out);

private:
    CPesFile m_file;
    CPictureScanner m_pictures;
    bool m_held = false;  // the packet that was read last is still to be looked at
};

}  // namespace tessel
