// The packets of a stream file, from any place on.
#pragma once

#include "core/stream/PacketParser.h"
#include "platform/com/Stream.h"

namespace tessel {

// Finds packets as the parser does, so the last one of the file is held back.
class CPacketReader {
public:
    static constexpr int32_t kReadSize = 65'536;

    // The file outlives the reader, and nobody else moves it meanwhile.
    CPacketReader(IStream& file, int32_t packetSize);

    // False when there is no memory, or the file does not say where it is.
    bool MoveTo(int64_t position);
    // 188 bytes, valid until the next call; null at the end of what can be read.
    const uint8_t* ReadPacket();
    // Of the packet read last, in the file.
    int64_t Position() const { return m_position; }

private:
    friend class PacketParser;

    ParserStep ParsePacket(const uint8_t* packet);
    bool ReadMore();

    IStream& m_file;
    PacketParser m_parser{kReadSize};
    const uint8_t* m_packet = nullptr;
    int64_t m_position = 0;
};

// One step of reading a file into a buffer: how many bytes came into the bytes that were reserved. 0 at the end and
// when the file cannot be read.
int32_t ReadFile(IStream& file, std::span<uint8_t> reserved);

}  // namespace tessel
