// What the filters, pins and the graph know of each other.
//
// A reference to a pin holds its filter. Connections hold the pins of both sides, so that two connected
// filters hold each other until they are disconnected; a graph does that when a filter leaves it.
#pragma once

#include "platform/media/Allocator.h"
#include "platform/media/PersistStream.h"
#include "platform/media/ReferenceClock.h"

// Ranks of the media layer's own locks: the graph's is taken before any of a filter, the others call
// nothing out and may be taken under all.
inline constexpr int kMediaGraphRank = -100;
inline constexpr int kMediaLeafRank = 1000;

using LONG_PTR = intptr_t;

class IBaseFilter;
class IEnumFilters;
class IEnumMediaTypes;
class IEnumPins;
class IFilterGraph;

enum FILTER_STATE : int32_t { State_Stopped = 0, State_Paused = 1, State_Running = 2 };
enum PIN_DIRECTION : int32_t { PINDIR_INPUT = 0, PINDIR_OUTPUT = 1 };

inline constexpr size_t MAX_PIN_NAME = 128;
inline constexpr size_t MAX_FILTER_NAME = 128;

// Filter and graph come with a reference; longer names are cut.
struct PIN_INFO {
    IBaseFilter* pFilter = nullptr;
    PIN_DIRECTION dir = PINDIR_INPUT;
    OLECHAR achName[MAX_PIN_NAME] = {};
};
struct FILTER_INFO {
    OLECHAR achName[MAX_FILTER_NAME] = {};
    IFilterGraph* pGraph = nullptr;
};

class IPin : public IUnknown {
public:
    static constexpr IID kIid = MakeGuid("{56A86891-0AD4-11CE-B03A-0020AF0BA770}");

    // A null type, or one that leaves something open: both pins' types are tried until one is accepted.
    virtual HRESULT Connect(IPin* receiver, const AM_MEDIA_TYPE* type) = 0;
    virtual HRESULT ReceiveConnection(IPin* connector, const AM_MEDIA_TYPE* type) = 0;
    // Breaks this pin's side; S_FALSE when there is nothing to break.
    virtual HRESULT Disconnect() = 0;
    virtual HRESULT ConnectedTo(IPin** out) = 0;
    virtual HRESULT ConnectionMediaType(AM_MEDIA_TYPE* out) = 0;
    virtual HRESULT QueryPinInfo(PIN_INFO* out) = 0;
    virtual HRESULT QueryDirection(PIN_DIRECTION* out) = 0;
    // The text for FindPin, in task memory.
    virtual HRESULT QueryId(OLECHAR** out) = 0;
    // S_OK for yes, anything else for no.
    virtual HRESULT QueryAccept(const AM_MEDIA_TYPE* type) = 0;
    virtual HRESULT EnumMediaTypes(IEnumMediaTypes** out) = 0;
    virtual HRESULT QueryInternalConnections(IPin** out, ULONG* count) = 0;
    virtual HRESULT EndOfStream() = 0;
    virtual HRESULT BeginFlush() = 0;
    virtual HRESULT EndFlush() = 0;
    virtual HRESULT NewSegment(REFERENCE_TIME start, REFERENCE_TIME stop, double rate) = 0;

protected:
    ~IPin() = default;
};

// The transport of samples: what an input pin has besides IPin.
class IMemInputPin : public IUnknown {
public:
    static constexpr IID kIid = MakeGuid("{56A8689D-0AD4-11CE-B03A-0020AF0BA770}");

    virtual HRESULT GetAllocator(IMemAllocator** out) = 0;
    virtual HRESULT NotifyAllocator(IMemAllocator* allocator, BOOL readOnly) = 0;
    virtual HRESULT GetAllocatorRequirements(ALLOCATOR_PROPERTIES* out) = 0;
    virtual HRESULT Receive(IMediaSample* sample) = 0;
    virtual HRESULT ReceiveMultiple(IMediaSample** samples, LONG count, LONG* processed) = 0;
    virtual HRESULT ReceiveCanBlock() = 0;

protected:
    ~IMemInputPin() = default;
};

// An input pin that takes changes while its filter runs.
class IPinConnection : public IUnknown {
public:
    static constexpr IID kIid = MakeGuid("{4A9A62D3-27D4-403D-91E9-89F540E55534}");

    virtual HRESULT DynamicQueryAccept(const AM_MEDIA_TYPE* type) = 0;
    virtual HRESULT NotifyEndOfStream(HEVENT event) = 0;
    virtual HRESULT IsEndPin() = 0;
    virtual HRESULT DynamicDisconnect() = 0;

protected:
    ~IPinConnection() = default;
};

// Next: S_FALSE when the list ended first; fetched may be null when count is 1. When the list has
// changed, VFW_E_ENUM_OUT_OF_SYNC until Reset.
class IEnumMediaTypes : public IUnknown {
public:
    static constexpr IID kIid = MakeGuid("{89C31040-846B-11CE-97D3-00AA0055595A}");

    // Each for DeleteMediaType.
    virtual HRESULT Next(ULONG count, AM_MEDIA_TYPE** out, ULONG* fetched) = 0;
    virtual HRESULT Skip(ULONG count) = 0;
    virtual HRESULT Reset() = 0;
    virtual HRESULT Clone(IEnumMediaTypes** out) = 0;

protected:
    ~IEnumMediaTypes() = default;
};

class IEnumPins : public IUnknown {
public:
    static constexpr IID kIid = MakeGuid("{56A86892-0AD4-11CE-B03A-0020AF0BA770}");

    virtual HRESULT Next(ULONG count, IPin** out, ULONG* fetched) = 0;
    virtual HRESULT Skip(ULONG count) = 0;
    virtual HRESULT Reset() = 0;
    virtual HRESULT Clone(IEnumPins** out) = 0;

protected:
    ~IEnumPins() = default;
};

class IEnumFilters : public IUnknown {
public:
    static constexpr IID kIid = MakeGuid("{56A86893-0AD4-11CE-B03A-0020AF0BA770}");

    virtual HRESULT Next(ULONG count, IBaseFilter** out, ULONG* fetched) = 0;
    virtual HRESULT Skip(ULONG count) = 0;
    virtual HRESULT Reset() = 0;
    virtual HRESULT Clone(IEnumFilters** out) = 0;

protected:
    ~IEnumFilters() = default;
};

class IMediaFilter : public IPersist {
public:
    static constexpr IID kIid = MakeGuid("{56A86899-0AD4-11CE-B03A-0020AF0BA770}");

    virtual HRESULT Stop() = 0;
    virtual HRESULT Pause() = 0;
    // start: the clock's time at which stream time is 0.
    virtual HRESULT Run(REFERENCE_TIME start) = 0;
    virtual HRESULT GetState(DWORD milliseconds, FILTER_STATE* out) = 0;
    virtual HRESULT SetSyncSource(IReferenceClock* clock) = 0;
    virtual HRESULT GetSyncSource(IReferenceClock** out) = 0;

protected:
    ~IMediaFilter() = default;
};

class IBaseFilter : public IMediaFilter {
public:
    static constexpr IID kIid = MakeGuid("{56A86895-0AD4-11CE-B03A-0020AF0BA770}");

    virtual HRESULT EnumPins(IEnumPins** out) = 0;
    virtual HRESULT FindPin(const OLECHAR* id, IPin** out) = 0;
    virtual HRESULT QueryFilterInfo(FILTER_INFO* out) = 0;
    // The filter does not hold the graph, which calls this with null before it ends.
    virtual HRESULT JoinFilterGraph(IFilterGraph* graph, const OLECHAR* name) = 0;
    virtual HRESULT QueryVendorInfo(OLECHAR** out) = 0;

protected:
    ~IBaseFilter() = default;
};

class IFilterGraph : public IUnknown {
public:
    static constexpr IID kIid = MakeGuid("{56A8689F-0AD4-11CE-B03A-0020AF0BA770}");

    virtual HRESULT AddFilter(IBaseFilter* filter, const OLECHAR* name) = 0;
    virtual HRESULT RemoveFilter(IBaseFilter* filter) = 0;
    virtual HRESULT EnumFilters(IEnumFilters** out) = 0;
    virtual HRESULT FindFilterByName(const OLECHAR* name, IBaseFilter** out) = 0;
    virtual HRESULT ConnectDirect(IPin* output, IPin* input, const AM_MEDIA_TYPE* type) = 0;
    virtual HRESULT Reconnect(IPin* pin) = 0;
    virtual HRESULT Disconnect(IPin* pin) = 0;
    virtual HRESULT SetDefaultSyncSource() = 0;

protected:
    ~IFilterGraph() = default;
};

// Where filters post their events. Called on any thread; it takes no lock of a filter.
class IMediaEventSink : public IUnknown {
public:
    static constexpr IID kIid = MakeGuid("{56A868A2-0AD4-11CE-B03A-0020AF0BA770}");

    virtual HRESULT Notify(LONG code, LONG_PTR param1, LONG_PTR param2) = 0;

protected:
    ~IMediaEventSink() = default;
};
