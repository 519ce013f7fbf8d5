// The filter that pushes an input into splitters: several get the same bytes, each through a pin of its own.
#pragma once

#include <vector>

#include "core/stream/PacketParser.h"
#include "platform/media/BaseOutputPin.h"
#include "platform/media/MemAllocator.h"

namespace tessel::tool {

class PushSource final : public CBaseFilter {
public:
    // The fewer the handovers between threads, the less they cost; the more memory, too.
    static constexpr LONG kSampleSize = 1024 * 1024;

    explicit PushSource(size_t pins);

    int GetPinCount() override { return static_cast<int>(m_pins.size()); }
    std::shared_ptr<CBasePin> GetPin(int index) override;

    // A sample of kSampleSize bytes to fill. The thread that fills also delivers; there is no other.
    HRESULT GetSample(IMediaSample** out);
    // Returns when every receiver has taken the bytes; the first result that is not S_OK.
    HRESULT Push(IMediaSample* sample);
    // To every receiver, each of which then takes apart what it has.
    HRESULT End();

private:
    class Pin;

    CCritSec m_stateLock;
    // One for all pins: what one has filled, all deliver.
    const ComPtr<CMemAllocator> m_allocator;
    std::vector<std::shared_ptr<Pin>> m_pins;
};

}  // namespace tessel::tool
