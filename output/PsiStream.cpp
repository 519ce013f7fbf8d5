#include "output/PsiStream.h"

#include <cstring>
#include <new>

#include "Classes/MultiPlatform/GenUtilMP.h"
#include "output/TsOutputPin.h"
#include "platform/media/MediaResult.h"

namespace tessel {

namespace {

constexpr LONG kBufferSize = 4096;
constexpr LONG kBufferSizeWithPid = 4128;

}  // namespace

LONG CPSIStream::GetBufferSize() const {
    return m_pin.PutsPidBeforeSections() ? kBufferSizeWithPid : kBufferSize;
}

HRESULT CPSIStream::TakeSection(const TsHeader& header, std::span<const uint8_t> section) {
    const uint32_t epoch = Epoch();
    if (!IsActive())
        return E_UNEXPECTED;
    ComPtr<IMediaSample> sample;
    const HRESULT result = m_pin.GetDeliveryBuffer(sample.Put(), nullptr, nullptr, AM_GBF_NOWAIT);
    if (result == VFW_E_NOT_COMMITTED)
        return S_FALSE;
    if (FAILED(result) || !sample)
        return E_OUTOFMEMORY;
    uint8_t* target = nullptr;
    if (FAILED(sample->GetPointer(&target)) || target == nullptr)
        return E_FAIL;
    const size_t prefix = m_pin.PutsPidBeforeSections() ? 2 : 0;
    if (prefix + section.size() > static_cast<size_t>(sample->GetSize()))
        return S_FALSE;
    if (prefix != 0) {
        target[0] = static_cast<uint8_t>(header.Pid() >> 8);
        target[1] = static_cast<uint8_t>(header.Pid());
    }
    std::memcpy(target + prefix, section.data(), section.size());
    sample->SetActualDataLength(static_cast<LONG>(prefix + section.size()));
    CScopedLock lock(&m_lock);
    if (epoch != Epoch())
        return S_FALSE;
    try {
        m_queue.push_back(std::move(sample));
    } catch (const std::bad_alloc&) {
        return E_OUTOFMEMORY;
    }
    ++m_bytesIn;
    return S_OK;
}

HRESULT CPSIStream::SendData(int32_t budget, int32_t* sent, bool) {
    const uint32_t epoch = Epoch();
    for (*sent = 0; *sent < budget; ++*sent) {
        ComPtr<IMediaSample> sample;
        {
            CScopedLock lock(&m_lock);
            // After a delivery that took long, what is queued may be another stream's.
            if (m_queue.empty() || epoch != Epoch())
                break;
            sample = std::move(m_queue.front());
            m_queue.pop_front();
            ++m_bytesOut;
        }
        sample->SetTime(nullptr, nullptr);
        sample->SetMediaTime(nullptr, nullptr);
        sample->SetSyncPoint(1);
        const HRESULT result = m_pin.DeliverSample(sample.Get());
        sample.Reset();
        m_pin.OnRoomMade();
        if (result != S_OK)
            return result;
    }
    return S_OK;
}

void CPSIStream::OnReset() {
    m_queue.clear();
}

}  // namespace tessel
