// From bytes to packets: the input buffer, packet size and sync, stream positions and arrival times.
//
// The parser works in place: there is no queue, and a packet is handed on as a pointer into the buffer, or into the
// caller's bytes.
// It has no lock; its owner calls one operation at a time.
#pragma once

#include <algorithm>
#include <cstdint>
#include <deque>
#include <memory>
#include <span>

#include "Classes/MultiPlatform/ByteBuffer.h"
#include "core/stream/TsHeader.h"
#include "platform/com/Result.h"

namespace tessel {

using REFERENCE_TIME = int64_t;  // 100 ns units

// When the first byte of an input sample arrived.
struct ArrivalRecord {
    int64_t position;     // BytesReceived before that byte; INT64_MIN for none
    REFERENCE_TIME time;  // stream time of the arrival
};

// What a handler wants after a packet.
enum class ParserStep {
    kGoOn,
    kRefused,  // stop, leaving the packet unread
    kPause,    // stop behind the packet
    kAgain,    // stop, and hand it over once more
};

// Of ParseData: the handler has something to do before the next packet.
inline constexpr HRESULT kParsePaused = 2;

class PacketParser {
public:
    static constexpr int32_t kDefaultCapacity = 819'200;

    explicit PacketParser(int32_t requestedCapacity) : m_requestedCapacity(requestedCapacity) {}

    // Makes the buffer if there is none (E_OUTOFMEMORY) and empties it.
    HRESULT CreateBuffer();
    void DestroyBuffer() { m_buffer.reset(); }
    // Both positions, no arrivals.
    void ResetPositions(int64_t position = 0);

    // Copies as many bytes as fit; moves the caller's pointer on and its length down by that number.
    // E_UNEXPECTED without a buffer, E_OUTOFMEMORY when nothing fits.
    HRESULT AddData(const uint8_t** data, int32_t* length);
    // Remembers that the next byte added arrives at time.
    void NoteArrival(REFERENCE_TIME time) { m_arrivals.push_back({m_bytesReceived, time}); }

    // An in-place write of up to length bytes; empty when there is no room.
    std::span<uint8_t> Reserve(int32_t length);
    void Commit(int32_t written);

    // Throws away what is buffered; it counts as consumed. E_UNEXPECTED without a buffer.
    HRESULT FlushBuffer();

    // Finds four sync bytes at an equal spacing of 188 or 192 bytes and stops at the first of them.
    // E_ABORT when more data is needed; E_UNEXPECTED without a buffer.
    HRESULT DetectPacketSize();

    // Hands every complete packet to handler. A packet is complete when the next sync byte and 6 bytes
    // more are there. S_OK when the data ran out; S_FALSE when the handler refused a packet; kParsePaused;
    // E_UNEXPECTED without a buffer.
    // A handler has an operation ParserStep ParsePacket(const uint8_t* packet); packet: 188 bytes. It is no interface,
    // so that its work stands in the loop.
    template <class Handler>
    HRESULT ParseData(Handler& handler);
    // As ParseData, on what the buffer holds and then on the caller's bytes where they lie: only those that complete a
    // packet of the buffer are copied. Moves the caller's pointer on and its length down by what was taken; the rest,
    // if there is any, is for AddData. S_FALSE with nothing done when the buffer holds more than the start of a packet.
    template <class Handler>
    HRESULT ParseInPlace(Handler& handler, const uint8_t** data, int32_t* length);

    int32_t PacketSize() const { return m_packetSize; }
    void SetPacketSize(int32_t size) { m_packetSize = size; }
    // Input bytes consumed: the offset in the stream of the byte at the read offset.
    int64_t StreamPosition() const { return m_endPosition - (m_end - m_at); }
    int64_t BytesReceived() const { return m_bytesReceived; }
    const ArrivalRecord& CurrentArrival() const { return m_currentArrival; }

private:
    // What is being parsed, by a call that is under way.
    template <class Handler>
    HRESULT Run(Handler& handler);
    // The next packet; null when more data is needed.
    const uint8_t* SkipUntilSync() {
        const uint8_t* const packet = m_at;
        if (m_end - packet > m_packetSize + kLookAhead && packet[0] == kSyncByte && packet[m_packetSize] == kSyncByte)
            [[likely]]
            return packet;
        return SearchSync();
    }
    const uint8_t* SearchSync();
    // From here to LeaveBuffer the buffer's bytes are the ones that are parsed.
    void EnterBuffer();
    void LeaveBuffer();
    void TakeArrivals();

    // Bytes that must follow the second sync byte before a packet is taken.
    static constexpr int32_t kLookAhead = 6;
    // Enough to take every packet that begins among bytes too few for one.
    static constexpr int32_t kJoined = 2 * (kTimestampedPacketSize + kLookAhead + 1);

    std::unique_ptr<ByteBuffer> m_buffer;
    const int32_t m_requestedCapacity;
    int32_t m_packetSize = kTransportPacketSize;
    // The bytes that are being parsed, none between calls, and the stream position of their end.
    const uint8_t* m_at = nullptr;
    const uint8_t* m_end = nullptr;
    int64_t m_endPosition = 0;
    int64_t m_bytesReceived = 0;
    std::deque<ArrivalRecord> m_arrivals;
    ArrivalRecord m_currentArrival{INT64_MIN, 0};
};

template <class Handler>
HRESULT PacketParser::Run(Handler& handler) {
    while (const uint8_t* packet = SkipUntilSync()) {
        if (!m_arrivals.empty())
            TakeArrivals();
        const ParserStep step = handler.ParsePacket(packet);
        if (step == ParserStep::kGoOn) [[likely]] {
            m_at += m_packetSize;
            continue;
        }
        if (step == ParserStep::kRefused)
            return S_FALSE;
        if (step == ParserStep::kPause)
            m_at += m_packetSize;
        return kParsePaused;
    }
    // Those of bytes that were no packets go too.
    TakeArrivals();
    return S_OK;
}

template <class Handler>
HRESULT PacketParser::ParseData(Handler& handler) {
    if (!m_buffer)
        return E_UNEXPECTED;
    if (m_buffer->Held())
        return S_OK;
    EnterBuffer();
    const HRESULT result = Run(handler);
    LeaveBuffer();
    return result;
}

template <class Handler>
HRESULT PacketParser::ParseInPlace(Handler& handler, const uint8_t** data, int32_t* length) {
    if (!m_buffer)
        return E_UNEXPECTED;
    if (m_buffer->Held() || m_buffer->Available() > kTimestampedPacketSize + kLookAhead)
        return S_FALSE;
    const auto take = [&](int32_t count) {
        *data += count;
        *length -= count;
        m_bytesReceived += count;
    };
    if (const int32_t before = m_buffer->Available(); before > 0) {
        const int32_t joined = m_buffer->Append(*data, std::min(*length, kJoined));
        take(joined);
        const HRESULT result = ParseData(handler);
        const int32_t left = m_buffer->Available();
        if (result != S_OK || left > joined)
            return result;
        // The copies of what is left are not needed.
        take(-left);
        m_buffer->Clear();
    }
    m_at = *data;
    m_end = *data + *length;
    m_endPosition += *length;
    const HRESULT result = Run(handler);
    take(static_cast<int32_t>(m_at - *data));
    m_endPosition -= m_end - m_at;
    m_at = m_end = nullptr;
    return result;
}

}  // namespace tessel
