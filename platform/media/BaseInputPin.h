// The base class of input pins.
#pragma once

#include "platform/media/BasePin.h"

// A derived class calls Receive first and takes the sample when the result is S_OK.
class CBaseInputPin : public CBasePin, public IMemInputPin {
public:
    DECLARE_IUNKNOWN
    HRESULT NonDelegatingQueryInterface(const IID& iid, void** out) override;

    HRESULT BeginFlush() override;
    HRESULT EndFlush() override;

    HRESULT GetAllocator(IMemAllocator** out) override;
    HRESULT NotifyAllocator(IMemAllocator* allocator, BOOL readOnly) override;
    HRESULT GetAllocatorRequirements(ALLOCATOR_PROPERTIES*) override { return E_NOTIMPL; }
    // The result of CheckStreaming; or, for a sample with a new type that the pin refuses, the stream ends
    // with EC_ERRORABORT and the result is VFW_E_INVALIDMEDIATYPE. A new type that it takes becomes the
    // pin's own.
    HRESULT Receive(IMediaSample* sample) override;
    HRESULT ReceiveMultiple(IMediaSample** samples, LONG count, LONG* processed) override;
    HRESULT ReceiveCanBlock() override { return S_OK; }

    HRESULT BreakConnect() override;
    HRESULT Inactive() override;
    // S_OK when samples are welcome; S_FALSE in a flush.
    virtual HRESULT CheckStreaming();
    bool IsFlushing() const { return m_flushing; }

protected:
    CBaseInputPin(const char* objectName, CBaseFilter* filter, const OLECHAR* name)
        : CBasePin(objectName, filter, name, PINDIR_INPUT) {}

    std::atomic<bool> m_flushing{false};

private:
    ComPtr<IMemAllocator> m_allocator OS_GUARDED_BY(m_connection);
};
