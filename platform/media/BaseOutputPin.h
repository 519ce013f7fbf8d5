// The base class of output pins.
#pragma once

#include "platform/media/BasePin.h"

// Delivery may run on one thread while another breaks the connection: each call holds what it uses.
class CBaseOutputPin : public CBasePin {
public:
    HRESULT BeginFlush() override { return E_UNEXPECTED; }
    HRESULT EndFlush() override { return E_UNEXPECTED; }
    // Nothing comes in here; a derived class whose filter ends its stream through the pin overrides it.
    HRESULT EndOfStream() override { return E_UNEXPECTED; }
    HRESULT NewSegment(REFERENCE_TIME, REFERENCE_TIME, double) override { return E_UNEXPECTED; }

    HRESULT CheckConnect(IPin* other) override;
    HRESULT CompleteConnect(IPin* other) override;
    HRESULT BreakConnect() override;
    // Commits and decommits the allocator.
    HRESULT Active() override;
    HRESULT Inactive() override;

    // The receiver's allocator, or else one of this pin's, with the properties of DecideBufferSize.
    virtual HRESULT DecideAllocator(IMemInputPin* input, IMemAllocator** out);
    // request: what the receiver asks for, zeros if nothing. Ends in SetProperties.
    virtual HRESULT DecideBufferSize(IMemAllocator* allocator, ALLOCATOR_PROPERTIES* request) = 0;
    virtual HRESULT InitAllocator(IMemAllocator** out);
    // See IMemAllocator::GetBuffer.
    virtual HRESULT GetDeliveryBuffer(IMediaSample** out, const REFERENCE_TIME* start, const REFERENCE_TIME* end,
                                      DWORD flags);
    // What these hand on downstream; VFW_E_NOT_CONNECTED without a receiver. S_FALSE of Deliver: it wants
    // no more.
    virtual HRESULT Deliver(IMediaSample* sample);
    virtual HRESULT DeliverEndOfStream();
    virtual HRESULT DeliverBeginFlush();
    virtual HRESULT DeliverEndFlush();
    virtual HRESULT DeliverNewSegment(REFERENCE_TIME start, REFERENCE_TIME stop, double rate);

protected:
    CBaseOutputPin(const char* objectName, CBaseFilter* filter, const OLECHAR* name)
        : CBasePin(objectName, filter, name, PINDIR_OUTPUT) {}

    ComPtr<IMemAllocator> Allocator() const;

private:
    HRESULT OfferAllocator(IMemInputPin& input, IMemAllocator& allocator, const ALLOCATOR_PROPERTIES& wanted);

    ComPtr<IMemInputPin> m_input OS_GUARDED_BY(m_connection);
    ComPtr<IMemAllocator> m_allocator OS_GUARDED_BY(m_connection);
};
