#include "filters/TableEventThread.h"

#include <new>

#include "filters/threads/RALThread.h"
#include "services/objects/ServiceInterfaces.h"

namespace tessel {

namespace {

constexpr size_t kStackSize = 65'536;
constexpr uint32_t kEndWait = 1000;

}  // namespace

CTableEventThread::CTableEventThread(Filter filter) : m_shared(std::make_shared<Shared>()) {
    m_shared->filter = std::move(filter);
}

CTableEventThread::~CTableEventThread() {
    Stop();
    {
        CScopedLock lock(&m_shared->filterLock);
        m_shared->closed = true;
    }
    m_shared->sinks.Clear();
}

HRESULT CTableEventThread::Start() {
    CScopedLock lock(&m_lock);
    if (m_thread)
        return S_OK;
    m_queue = std::make_shared<CMessageQueue>();
    m_thread = CThread::Create(kStackSize, [shared = m_shared, queue = m_queue] {
        NameThread("ts-events");
        return Run(*shared, *queue);
    });
    return m_thread ? S_OK : kThreadNotCreated;
}

void CTableEventThread::Stop() {
    std::shared_ptr<CThread> thread;
    {
        CScopedLock lock(&m_lock);
        std::swap(thread, m_thread);
        if (m_queue)
            m_queue->Post(WM_QUIT);
        m_queue = nullptr;
    }
    // One that takes longer ends behind its callback, with what it needs.
    if (thread && !thread->IsCurrent())
        thread->Wait(kEndWait);
}

void CTableEventThread::Post(uint32_t message, uint32_t tableId, uint32_t key) {
    CScopedLock lock(&m_lock);
    // A queue that is full is the client's doing, who does not come back from a callback.
    if (m_queue && !m_queue->Post(message, tableId, static_cast<int32_t>(key)) && !m_queue->IsFull())
        throw std::bad_alloc();
}

void CTableEventThread::ForgetServices() {
    ++m_shared->generation;
}

void CTableEventThread::TellReset() {
    m_shared->sinks.ForEach([](IUnknown& sink) { static_cast<IDvbTableEvents&>(sink).OnReset(); });
}

uint32_t CTableEventThread::Run(Shared& shared, CMessageQueue& queue) {
    for (;;) {
        const MSG message = queue.Get();
        if (message.message == WM_QUIT)
            return static_cast<uint32_t>(message.wParam);
        try {
            Tell(shared, message);
        } catch (const std::bad_alloc&) {
            CScopedLock lock(&shared.filterLock);
            if (!shared.closed)
                shared.filter.outOfMemory();
        }
        if (shared.closed)
            return 0;
    }
}

void CTableEventThread::Tell(Shared& shared, const MSG& message) {
    const auto tableId = static_cast<uint32_t>(message.wParam);
    const auto key = static_cast<uint32_t>(message.lParam);
    shared.sinks.ForEach([&](IUnknown& sink) {
        const auto events = ComPtr<IUnknown>(&sink).As<IDvbTableEvents2>();
        if (events && message.message == kMessageTableStale)
            events->OnTableStale(tableId, key);
        else if (events && message.message == kMessageTableReady)
            events->OnTableReady(tableId, key);
    });
    if (message.message == kMessageTableReady)
        AnnounceServices(shared);
}

bool CTableEventThread::AskComplete(Shared& shared) {
    CScopedLock lock(&shared.filterLock);
    return !shared.closed && shared.filter.isComplete();
}

void CTableEventThread::AnnounceServices(Shared& shared) {
    uint32_t announced = shared.announced;
    const uint32_t generation = shared.generation;
    if (announced == generation || !AskComplete(shared) || generation != shared.generation)
        return;
    if (!shared.announced.compare_exchange_strong(announced, generation))
        return;
    shared.sinks.ForEach([](IUnknown& sink) { static_cast<IDvbTableEvents&>(sink).OnServicesReady(); });
}

}  // namespace tessel
