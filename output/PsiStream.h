// The content that delivers PSI sections, one a sample.
#pragma once

#include <deque>

#include "output/StreamExecutor.h"

namespace tessel {

// A section goes into a sample as soon as it comes; the pin's allocator, with its 20 buffers, is the queue's limit.
class CPSIStream final : public CStreamExecutor {
public:
    CPSIStream(CTsOutputPin& pin, IOutputHost& host) : CStreamExecutor(pin, host) {}

    LONG GetBufferCount() const override { return 20; }
    LONG GetBufferSize() const override;

    // A count of sections.
    HRESULT SendData(int32_t budget, int32_t* sent, bool startPending) override;
    // E_OUTOFMEMORY when no sample is free. A section that is longer than a sample is dropped.
    HRESULT TakeSection(const TsHeader& header, std::span<const uint8_t> section) override;

private:
    void OnReset() override OS_REQUIRES(m_lock);
    int32_t PendingBytes(bool, bool) override OS_REQUIRES(m_lock) { return static_cast<int32_t>(m_queue.size()); }
    // Packets are nothing to it.
    HRESULT AddAll(std::span<const OfferedPacket> packets, size_t* taken) override OS_REQUIRES(m_lock) {
        *taken = packets.size();
        return S_OK;
    }

    std::deque<ComPtr<IMediaSample>> m_queue OS_GUARDED_BY(m_lock);
};

}  // namespace tessel
