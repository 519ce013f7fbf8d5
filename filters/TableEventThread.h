// The thread that tells the splitter's clients about tables and services.
#pragma once

#include <atomic>
#include <functional>
#include <memory>

#include "Classes/MultiPlatform/GenUtilMP.h"
#include "Classes/MultiPlatform/LockRanks.h"
#include "filters/SinkList.h"
#include "platform/os/MessageQueue.h"
#include "platform/os/Thread.h"

namespace tessel {

inline constexpr uint32_t kMessageTableStale = 0x40A;
inline constexpr uint32_t kMessageTableReady = 0x40B;

// Client callbacks run on this thread and under no lock, so they may call the filter, and take their time: who
// waits for the thread's end does so for a second, and then leaves it to end behind its callback.
class CTableEventThread {
public:
    // What the thread asks of the filter, and tells it.
    struct Filter {
        std::function<bool()> isComplete;   // the service list
        std::function<void()> outOfMemory;  // clients have missed something
    };

    explicit CTableEventThread(Filter filter);
    ~CTableEventThread();

    CTableEventThread(const CTableEventThread&) = delete;
    CTableEventThread& operator=(const CTableEventThread&) = delete;

    // The sinks are IDvbTableEvents, stored as given.
    CSinkList& Sinks() { return m_shared->sinks; }

    // Nothing happens when the thread runs already. kThreadNotCreated.
    HRESULT Start();
    // What is posted already is told first.
    void Stop();
    // Throws std::bad_alloc.
    void Post(uint32_t message, uint32_t tableId, uint32_t key);
    // The services may be announced once more.
    void ForgetServices();
    // Tells every sink at once, on the calling thread.
    void TellReset();

private:
    // What the thread needs. It outlives the filter behind a callback that does not come back.
    struct Shared {
        CSinkList sinks;
        Filter filter;
        // Held while the filter is called, and to close.
        CCritSec filterLock{"event thread's filter", kRankEventFilter};
        std::atomic<bool> closed{false};  // the filter does not wait any more
        // Counted by what makes an announcement stale; the one that was announced last.
        std::atomic<uint32_t> generation{1};
        std::atomic<uint32_t> announced{0};
    };

    static uint32_t Run(Shared& shared, CMessageQueue& queue);
    static void Tell(Shared& shared, const MSG& message);
    static bool AskComplete(Shared& shared);
    static void AnnounceServices(Shared& shared);

    CCritSec m_lock{"event thread", kRankLeaf};
    const std::shared_ptr<Shared> m_shared;
    std::shared_ptr<CThread> m_thread OS_GUARDED_BY(m_lock);
    // The thread's own, so that one that was left finds its quit message.
    std::shared_ptr<CMessageQueue> m_queue OS_GUARDED_BY(m_lock);
};

}  // namespace tessel
