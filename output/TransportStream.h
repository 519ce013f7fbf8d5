// The content that delivers whole transport packets.
#pragma once

#include "output/StreamExecutor.h"

namespace tessel {

// Samples hold whole packets, carry no times and are never sync points.
class CTransportStream final : public CStreamExecutor {
public:
    CTransportStream(CTsOutputPin& pin, IOutputHost& host) : CStreamExecutor(pin, host) {}

private:
    HRESULT OnActive() override OS_REQUIRES(m_lock);
    void OnInactive() override OS_REQUIRES(m_lock) { m_cache.reset(); }
    void OnReset() override OS_REQUIRES(m_lock);
    int32_t PendingBytes(bool startPending, bool eosPending) override OS_REQUIRES(m_lock);
    HRESULT AddAll(std::span<const OfferedPacket> packets, size_t* taken) override OS_REQUIRES(m_lock);
    bool UpdateMapping(IEnumPIDMap* mapping) override OS_REQUIRES(m_lock);
    int32_t TakeDataFromCache(IMediaSample* sample, int32_t bytes, bool startPending) override OS_REQUIRES(m_lock);

    HRESULT MakeRoom() OS_REQUIRES(m_lock);

    // Null while inactive.
    std::unique_ptr<ByteBuffer> m_cache OS_GUARDED_BY(m_lock);
    int32_t m_capacity OS_GUARDED_BY(m_lock) = 0;
    // Mapped PIDs; more than a pin with few has when it takes all.
    int32_t m_pidCount OS_GUARDED_BY(m_lock) = 1;
};

}  // namespace tessel
