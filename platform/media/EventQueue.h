// The events of a graph, on their way from its filters to the application.
#pragma once

#include <array>
#include <condition_variable>
#include <mutex>
#include <vector>

#include "platform/media/GraphInterfaces.h"

struct MediaEvent {
    LONG code = 0;
    LONG_PTR param1 = 0;
    LONG_PTR param2 = 0;
};

// An object of its own: filters hold it, and may post from any thread while their graph ends.
class CMediaEventQueue final : public CUnknown, public IMediaEventSink {
public:
    // Beyond it, nobody reads them and the new ones are refused.
    static constexpr size_t kMaxEvents = 1024;

    CMediaEventQueue() : CUnknown("CMediaEventQueue", nullptr) {}

    DECLARE_IUNKNOWN
    HRESULT NonDelegatingQueryInterface(const IID& iid, void** out) override;

    // EC_COMPLETE goes on when every renderer has sent it.
    HRESULT Notify(LONG code, LONG_PTR param1, LONG_PTR param2) override;

    // The next event; E_ABORT when none came in time. INFINITE waits without limit.
    HRESULT GetEvent(MediaEvent* out, DWORD milliseconds);
    // A new stream begins: forgets who completed the last one, and an EC_COMPLETE not yet read.
    void Restart(std::vector<LONG_PTR> renderers);

private:
    // Guards all below. Not a CCritSec, which cannot be waited on; nothing is called out with it held.
    std::mutex m_mutex;
    std::condition_variable m_arrived;
    // A ring: what tells of the end of a stream, or that memory is out, needs none.
    std::array<MediaEvent, kMaxEvents> m_events;
    size_t m_first = 0;
    size_t m_count = 0;
    std::vector<LONG_PTR> m_renderers;
    std::vector<LONG_PTR> m_pending;  // renderers that have not completed; keeps room for all
};
