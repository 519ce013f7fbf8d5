#include "core/stream/PacketParser.h"

#include <cstring>
#include <new>

namespace tessel {

namespace {

const uint8_t* FindSync(const uint8_t* bytes, int32_t count) {
    return static_cast<const uint8_t*>(std::memchr(bytes, kSyncByte, static_cast<size_t>(count)));
}

bool SyncRepeats(const uint8_t* sync, int32_t size) {
    return sync[size] == kSyncByte && sync[2 * size] == kSyncByte && sync[3 * size] == kSyncByte;
}

}  // namespace

HRESULT PacketParser::CreateBuffer() {
    if (!m_buffer)
        m_buffer.reset(new (std::nothrow) ByteBuffer);
    if (!m_buffer)
        return E_OUTOFMEMORY;
    m_buffer->Clear();
    // Without memory the buffer keeps capacity 0, and AddData says so.
    m_buffer->Allocate(static_cast<uint32_t>(m_requestedCapacity));
    return S_OK;
}

void PacketParser::ResetPositions() {
    m_streamPosition = 0;
    m_bytesReceived = 0;
    m_arrivals.clear();
    m_currentArrival = {INT64_MIN, 0};
}

HRESULT PacketParser::AddData(const uint8_t** data, int32_t* length) {
    if (!m_buffer)
        return E_UNEXPECTED;
    const int32_t copied = m_buffer->Append(*data, *length);
    if (copied == 0)
        return E_OUTOFMEMORY;
    *data += copied;
    *length -= copied;
    m_bytesReceived += copied;
    return S_OK;
}

std::span<uint8_t> PacketParser::Reserve(int32_t length) {
    return m_buffer ? m_buffer->Reserve(length) : std::span<uint8_t>();
}

void PacketParser::Commit(int32_t written) {
    if (m_buffer)
        m_buffer->Commit(written);
}

HRESULT PacketParser::FlushBuffer() {
    if (!m_buffer)
        return E_UNEXPECTED;
    m_streamPosition += m_buffer->Available();
    m_buffer->Clear();
    return S_OK;
}

HRESULT PacketParser::DetectPacketSize() {
    // Three packets of the larger size and the look-ahead.
    constexpr int32_t kDetectionWindow = 3 * kTimestampedPacketSize + kLookAhead;
    if (!m_buffer)
        return E_UNEXPECTED;
    // While an in-place write is open nothing can be consumed, so nothing is decided.
    while (!m_buffer->Held() && m_buffer->Available() >= kDetectionWindow) {
        const uint8_t* start = m_buffer->ReadPointer();
        const int32_t available = m_buffer->Available();
        const uint8_t* sync = FindSync(start, available);
        if (sync == nullptr) {
            Consume(available);
            break;
        }
        const auto skipped = static_cast<int32_t>(sync - start);
        if (available - skipped <= kDetectionWindow) {
            Consume(skipped);
            break;
        }
        const int32_t size = SyncRepeats(sync, kTransportPacketSize)     ? kTransportPacketSize
                             : SyncRepeats(sync, kTimestampedPacketSize) ? kTimestampedPacketSize
                                                                         : 0;
        if (size != 0) {
            m_packetSize = size;
            Consume(skipped);
            return S_OK;
        }
        Consume(skipped + 1);
    }
    TakeArrivals();
    return E_ABORT;
}

const uint8_t* PacketParser::SearchSync() {
    while (m_buffer->Available() >= m_packetSize + kLookAhead) {
        const uint8_t* start = m_buffer->ReadPointer();
        const int32_t available = m_buffer->Available();
        const uint8_t* sync = FindSync(start, available);
        if (sync == nullptr) {
            Consume(available);
            return nullptr;
        }
        const auto skipped = static_cast<int32_t>(sync - start);
        Consume(skipped);
        if (available - skipped <= m_packetSize + kLookAhead)
            return nullptr;
        if (sync[m_packetSize] == kSyncByte)
            return sync;
        Consume(1);
    }
    return nullptr;
}

void PacketParser::TakeArrivals() {
    while (!m_arrivals.empty() && m_arrivals.front().position <= m_streamPosition) {
        m_currentArrival = m_arrivals.front();
        m_arrivals.pop_front();
    }
}

}  // namespace tessel
