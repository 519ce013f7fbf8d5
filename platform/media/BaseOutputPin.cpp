#include "platform/media/BaseOutputPin.h"

#include <new>

#include "platform/media/MediaResult.h"
#include "platform/media/MemAllocator.h"

HRESULT CBaseOutputPin::CheckConnect(IPin* other) {
    const HRESULT result = CBasePin::CheckConnect(other);
    if (FAILED(result))
        return result;
    ComPtr<IMemInputPin> input = ComPtr<IPin>(other).As<IMemInputPin>();
    if (!input)
        return E_NOINTERFACE;
    const CAutoLock lock(&m_connection);
    std::swap(m_input, input);
    return S_OK;
}

HRESULT CBaseOutputPin::CompleteConnect(IPin*) {
    ComPtr<IMemInputPin> input;
    {
        const CAutoLock lock(&m_connection);
        input = m_input;
    }
    if (!input)
        return VFW_E_NOT_CONNECTED;
    ComPtr<IMemAllocator> allocator;
    const HRESULT result = DecideAllocator(input.Get(), allocator.Put());
    if (FAILED(result))
        return result;
    const CAutoLock lock(&m_connection);
    std::swap(m_allocator, allocator);
    return S_OK;
}

HRESULT CBaseOutputPin::BreakConnect() {
    ComPtr<IMemInputPin> input;
    ComPtr<IMemAllocator> allocator;
    {
        const CAutoLock lock(&m_connection);
        std::swap(m_input, input);
        std::swap(m_allocator, allocator);
    }
    if (allocator)
        allocator->Decommit();
    return S_OK;
}

ComPtr<IMemAllocator> CBaseOutputPin::Allocator() const {
    const CAutoLock lock(&m_connection);
    return m_allocator;
}

HRESULT CBaseOutputPin::Active() {
    const auto allocator = Allocator();
    return allocator ? allocator->Commit() : VFW_E_NO_ALLOCATOR;
}

HRESULT CBaseOutputPin::Inactive() {
    m_runTimeError = false;
    const auto allocator = Allocator();
    return allocator ? allocator->Decommit() : VFW_E_NO_ALLOCATOR;
}

HRESULT CBaseOutputPin::DecideAllocator(IMemInputPin* input, IMemAllocator** out) {
    *out = nullptr;
    ALLOCATOR_PROPERTIES wanted;
    if (FAILED(input->GetAllocatorRequirements(&wanted)))
        wanted = ALLOCATOR_PROPERTIES{};
    if (wanted.cbAlign == 0)
        wanted.cbAlign = 1;
    ComPtr<IMemAllocator> allocator;
    if (SUCCEEDED(input->GetAllocator(allocator.Put())) && allocator &&
        SUCCEEDED(OfferAllocator(*input, *allocator, wanted))) {
        *out = allocator.Detach();
        return S_OK;
    }
    HRESULT result = InitAllocator(allocator.Put());
    if (SUCCEEDED(result))
        result = OfferAllocator(*input, *allocator, wanted);
    if (SUCCEEDED(result))
        *out = allocator.Detach();
    return result;
}

HRESULT CBaseOutputPin::OfferAllocator(IMemInputPin& input, IMemAllocator& allocator,
                                       const ALLOCATOR_PROPERTIES& wanted) {
    ALLOCATOR_PROPERTIES request = wanted;
    const HRESULT result = DecideBufferSize(&allocator, &request);
    return SUCCEEDED(result) ? input.NotifyAllocator(&allocator, 0) : result;
}

HRESULT CBaseOutputPin::InitAllocator(IMemAllocator** out) {
    *out = ComPtr<IMemAllocator>(new (std::nothrow) CMemAllocator()).Detach();
    return *out != nullptr ? S_OK : E_OUTOFMEMORY;
}

HRESULT CBaseOutputPin::GetDeliveryBuffer(IMediaSample** out, const REFERENCE_TIME* start, const REFERENCE_TIME* end,
                                          DWORD flags) {
    const auto allocator = Allocator();
    return allocator ? allocator->GetBuffer(out, start, end, flags) : VFW_E_NO_ALLOCATOR;
}

HRESULT CBaseOutputPin::Deliver(IMediaSample* sample) {
    ComPtr<IMemInputPin> input;
    {
        const CAutoLock lock(&m_connection);
        input = m_input;
    }
    return input ? input->Receive(sample) : VFW_E_NOT_CONNECTED;
}

HRESULT CBaseOutputPin::DeliverEndOfStream() {
    const auto receiver = GetConnected();
    return receiver ? receiver->EndOfStream() : VFW_E_NOT_CONNECTED;
}

HRESULT CBaseOutputPin::DeliverBeginFlush() {
    const auto receiver = GetConnected();
    return receiver ? receiver->BeginFlush() : VFW_E_NOT_CONNECTED;
}

HRESULT CBaseOutputPin::DeliverEndFlush() {
    const auto receiver = GetConnected();
    return receiver ? receiver->EndFlush() : VFW_E_NOT_CONNECTED;
}

HRESULT CBaseOutputPin::DeliverNewSegment(REFERENCE_TIME start, REFERENCE_TIME stop, double rate) {
    const auto receiver = GetConnected();
    return receiver ? receiver->NewSegment(start, stop, rate) : VFW_E_NOT_CONNECTED;
}
