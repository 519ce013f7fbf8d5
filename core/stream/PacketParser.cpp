#include "core/stream/PacketParser.h"

#include <cstring>
#include <new>

namespace tessel {

namespace {

const uint8_t* FindSync(const uint8_t* bytes, const uint8_t* end) {
    return static_cast<const uint8_t*>(std::memchr(bytes, kSyncByte, static_cast<size_t>(end - bytes)));
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
    if (m_buffer->Allocate(static_cast<uint32_t>(m_requestedCapacity)))
        return S_OK;
    m_buffer.reset();
    return E_OUTOFMEMORY;
}

void PacketParser::ResetPositions(int64_t position) {
    m_at = m_end = nullptr;  // a handler may have left by an exception
    m_endPosition = position;
    m_bytesReceived = position;
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
    m_endPosition += m_buffer->Available();
    m_buffer->Clear();
    return S_OK;
}

HRESULT PacketParser::DetectPacketSize() {
    // Three packets of the larger size and the look-ahead.
    constexpr int32_t kDetectionWindow = 3 * kTimestampedPacketSize + kLookAhead;
    if (!m_buffer)
        return E_UNEXPECTED;
    // While an in-place write is open nothing can be consumed, so nothing is decided.
    if (m_buffer->Held())
        return E_ABORT;
    EnterBuffer();
    HRESULT result = E_ABORT;
    while (m_end - m_at >= kDetectionWindow) {
        const uint8_t* sync = FindSync(m_at, m_end);
        m_at = sync != nullptr ? sync : m_end;
        if (m_end - m_at <= kDetectionWindow)
            break;
        const int32_t size = SyncRepeats(m_at, kTransportPacketSize)     ? kTransportPacketSize
                             : SyncRepeats(m_at, kTimestampedPacketSize) ? kTimestampedPacketSize
                                                                         : 0;
        if (size != 0) {
            m_packetSize = size;
            result = S_OK;
            break;
        }
        ++m_at;
    }
    LeaveBuffer();
    if (result != S_OK)
        TakeArrivals();
    return result;
}

const uint8_t* PacketParser::SearchSync() {
    while (m_end - m_at >= m_packetSize + kLookAhead) {
        const uint8_t* sync = FindSync(m_at, m_end);
        m_at = sync != nullptr ? sync : m_end;
        if (m_end - m_at <= m_packetSize + kLookAhead)
            return nullptr;
        if (sync[m_packetSize] == kSyncByte)
            return sync;
        ++m_at;
    }
    return nullptr;
}

void PacketParser::EnterBuffer() {
    m_at = m_buffer->ReadPointer();
    m_end = m_at + m_buffer->Available();
    m_endPosition += m_buffer->Available();
}

void PacketParser::LeaveBuffer() {
    m_buffer->Skip(static_cast<int32_t>(m_at - m_buffer->ReadPointer()));
    m_endPosition -= m_end - m_at;
    m_at = m_end = nullptr;
}

void PacketParser::TakeArrivals() {
    while (!m_arrivals.empty() && m_arrivals.front().position <= StreamPosition()) {
        m_currentArrival = m_arrivals.front();
        m_arrivals.pop_front();
    }
}

}  // namespace tessel
