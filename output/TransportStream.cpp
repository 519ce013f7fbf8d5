#include "output/TransportStream.h"

#include <algorithm>
#include <cstring>
#include <new>

#include "output/PidMap.h"

namespace tessel {

namespace {

constexpr int32_t kFirstCapacity = 0x30000;
constexpr int32_t kLastCapacity = 0x300000;
// Fewer bytes a PID are not worth a wake-up.
constexpr int64_t kWorthwhile = 1800;
constexpr int32_t kCountOfAll = 11;

}  // namespace

HRESULT CTransportStream::OnActive() {
    m_cache.reset(new (std::nothrow) ByteBuffer);
    m_capacity = kFirstCapacity;
    return m_cache && m_cache->Allocate(static_cast<uint32_t>(m_capacity)) ? S_OK : E_OUTOFMEMORY;
}

void CTransportStream::OnReset() {
    if (m_cache)
        m_cache->Clear();
}

int32_t CTransportStream::PendingBytes(bool startPending, bool eosPending) {
    const int32_t buffered = m_cache ? m_cache->Available() : 0;
    return startPending || eosPending || m_full || buffered >= kWorthwhile * m_pidCount ? buffered : 0;
}

HRESULT CTransportStream::MakeRoom() {
    while (m_cache->Available() + kTransportPacketSize > m_cache->Capacity()) {
        if (m_capacity >= kLastCapacity)
            return E_OUTOFMEMORY;
        const int32_t capacity = std::min(m_capacity + m_capacity / 2, kLastCapacity);
        if (!m_cache->Grow(static_cast<uint32_t>(capacity)))
            return E_OUTOFMEMORY;
        m_capacity = capacity;
    }
    return S_OK;
}

HRESULT CTransportStream::AddAll(std::span<const OfferedPacket> packets, size_t* taken) {
    for (const OfferedPacket& packet : packets) {
        const HRESULT result = MakeRoom();
        if (FAILED(result))
            return result;
        m_cache->AppendPiece(packet.bytes, kTransportPacketSize);
        SetBytesIn(m_bytesIn.load(std::memory_order_relaxed) + kTransportPacketSize);
        ++*taken;
    }
    return S_OK;
}

bool CTransportStream::UpdateMapping(IEnumPIDMap* mapping) {
    mapping->Reset();
    m_pidCount = 0;
    PID_MAP entry{};
    while (mapping->Next(1, &entry, nullptr) == S_OK) {
        ++m_pidCount;
        if (entry.ulPID == ALL_PIDS) {
            m_pidCount = kCountOfAll;
            break;
        }
    }
    return CStreamExecutor::UpdateMapping(mapping);
}

int32_t CTransportStream::TakeDataFromCache(IMediaSample* sample, int32_t bytes, bool) {
    const int32_t count = std::min(bytes, m_cache ? m_cache->Available() : 0);
    uint8_t* target = nullptr;
    if (sample != nullptr && FAILED(sample->GetPointer(&target)))
        return 0;
    if (target != nullptr)
        std::memcpy(target, m_cache->ReadPointer(), static_cast<size_t>(count));
    if (count > 0) {
        m_cache->Skip(count);
        Consumed(count);
    }
    return count;
}

}  // namespace tessel
