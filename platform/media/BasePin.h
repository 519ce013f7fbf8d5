// The base class of pins.
#pragma once

#include <atomic>
#include <memory>
#include <string>

#include "platform/com/ComPtr.h"
#include "platform/media/BaseFilter.h"

// No lock is held while the other pin is called, so that two filters cannot lock each other out. The
// connection has a lock of its own that calls nothing out; flags are atomics, because the threads that
// deliver read them without the filter's lock.
class CBasePin : public CUnknown, public IPin {
public:
    DECLARE_IUNKNOWN
    HRESULT NonDelegatingQueryInterface(const IID& iid, void** out) override;
    // A reference to a pin holds its filter too.
    ULONG NonDelegatingAddRef() override;
    ULONG NonDelegatingRelease() override;

    HRESULT Connect(IPin* receiver, const AM_MEDIA_TYPE* type) override;
    HRESULT ReceiveConnection(IPin* connector, const AM_MEDIA_TYPE* type) override;
    HRESULT Disconnect() override;
    HRESULT ConnectedTo(IPin** out) override;
    HRESULT ConnectionMediaType(AM_MEDIA_TYPE* out) override;
    HRESULT QueryPinInfo(PIN_INFO* out) override;
    HRESULT QueryDirection(PIN_DIRECTION* out) override;
    HRESULT QueryId(OLECHAR** out) override;
    HRESULT QueryAccept(const AM_MEDIA_TYPE* type) override;
    HRESULT EnumMediaTypes(IEnumMediaTypes** out) override;
    HRESULT QueryInternalConnections(IPin**, ULONG*) override { return E_NOTIMPL; }
    HRESULT EndOfStream() override { return S_OK; }
    HRESULT NewSegment(REFERENCE_TIME, REFERENCE_TIME, double) override { return S_OK; }

    // A derived class says which types it takes: S_OK, or VFW_E_TYPE_NOT_ACCEPTED.
    virtual HRESULT CheckMediaType(const AM_MEDIA_TYPE* type) = 0;
    // The types it offers, from position 0 on; VFW_S_NO_MORE_ITEMS behind the last. None here.
    virtual HRESULT GetMediaType(int position, CMediaType* out);
    // Keeps the type of the connection. CheckMediaType has accepted it.
    virtual HRESULT SetMediaType(const AM_MEDIA_TYPE* type);
    // Before the types are tried: VFW_E_INVALID_DIRECTION for a pin of the same direction.
    virtual HRESULT CheckConnect(IPin* other);
    // After both sides agreed. A failure ends the attempt.
    virtual HRESULT CompleteConnect(IPin*) { return S_OK; }
    // Undoes CheckConnect and CompleteConnect, also after an attempt that failed between them.
    virtual HRESULT BreakConnect() { return S_OK; }
    // The filter leaves the stopped state, returns to it, starts to run.
    virtual HRESULT Active() { return S_OK; }
    virtual HRESULT Inactive();
    virtual HRESULT Run(REFERENCE_TIME) { return S_OK; }
    virtual LONG GetMediaTypeVersion() { return m_typeVersion; }

    const std::u16string& Name() const { return m_name; }
    bool IsConnected() const { return m_isConnected; }
    ComPtr<IPin> GetConnected() const;
    // A copy of the type given last.
    HRESULT CurrentMediaType(CMediaType& out) const;

protected:
    // objectName: the class name. The filter outlives the pin. Made by MakePin only.
    CBasePin(const char* objectName, CBaseFilter* filter, const OLECHAR* name, PIN_DIRECTION direction);

    // Breaks this side of the connection whatever the filter's state: the pin is about to go.
    void DropConnection();
    // The list of media types has changed.
    void IncrementTypeVersion() { ++m_typeVersion; }

    CBaseFilter* const m_filter;
    const PIN_DIRECTION m_direction;
    // A delivery failed: no more data until the next activation or end of a flush.
    std::atomic<bool> m_runTimeError{false};
    // Guards the connection. What it held is released after it.
    mutable CCritSec m_connection{"pin connection", kMediaLeafRank};

private:
    class Attempt;

    HRESULT AgreeMediaType(IPin& receiver, const AM_MEDIA_TYPE* type);
    HRESULT TryMediaTypes(IPin& receiver, const AM_MEDIA_TYPE* partial, IPin& from);
    HRESULT AttemptConnection(IPin& receiver, const AM_MEDIA_TYPE& type);
    void SetConnected(IPin* other);

    const std::u16string m_name;
    std::atomic<LONG> m_typeVersion{0};
    // One attempt at a time; who comes second is refused, not kept waiting.
    std::atomic<bool> m_changing{false};
    std::atomic<bool> m_isConnected{false};
    ComPtr<IPin> m_connected OS_GUARDED_BY(m_connection);
    CMediaType m_mediaType OS_GUARDED_BY(m_connection);
};

// A new pin for its filter's list. It lives until the list and all clients have let go of it; what the
// list holds does not count as a reference to the filter. May throw std::bad_alloc.
template <class Pin, class... Arguments>
std::shared_ptr<Pin> MakePin(Arguments&&... arguments) {
    Pin* const pin = new Pin(std::forward<Arguments>(arguments)...);
    pin->CUnknown::NonDelegatingAddRef();
    return std::shared_ptr<Pin>(pin, [](Pin* last) { last->CUnknown::NonDelegatingRelease(); });
}
