// The packets of a stream file, from any place on.
#pragma once

#include <optional>

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
    // 188 bytes, valid until the next call; null at the end of what can be read, and when there is none before limit.
    const uint8_t* ReadPacket(int64_t limit = INT64_MAX);
    // Of the packet read last, in the file.
    int64_t Position() const { return m_position; }
    // The byte that could not be read, which was taken for the end.
    std::optional<int64_t> Unreadable() const {
        return FAILED(m_result) ? std::optional(m_readPosition) : std::nullopt;
    }

private:
    friend class PacketParser;

    ParserStep ParsePacket(const uint8_t* packet);
    bool ReadMore();

    IStream& m_file;
    PacketParser m_parser{kReadSize};
    const uint8_t* m_packet = nullptr;
    int64_t m_position = 0;
    int64_t m_readPosition = 0;  // of what is read next
    HRESULT m_result = S_OK;     // of the last read
};

// One step of reading a file into a buffer: how many bytes came into the bytes that were reserved. Without any the
// result says whether the file is at its end or cannot be read.
HRESULT ReadFile(IStream& file, std::span<uint8_t> reserved, int32_t* read);

}  // namespace tessel
