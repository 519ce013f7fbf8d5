#include "platform/os/Thread.h"

#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <new>
#include <thread>
#include <utility>

// Shared by the thread and whoever holds its object.
struct CThread::State {
    Procedure procedure;
    CEvent ended{EventReset::kManual};
    std::atomic<uint32_t> exitCode{0};

    std::mutex mutex;
    pid_t id = 0;  // 0 before the beginning and from the end on: the system gives the number to others then
    int32_t priority = THREAD_PRIORITY_NORMAL;
    int nice = 0;  // what the system has it at

    void ApplyPriority();
};

namespace {

thread_local const void* t_current = nullptr;

// How much less than normal a thread of that priority wants of the processor.
int NiceStep(int32_t priority) {
    if (priority >= THREAD_PRIORITY_TIME_CRITICAL)
        return -15;
    if (priority >= THREAD_PRIORITY_HIGHEST)
        return -10;
    if (priority == THREAD_PRIORITY_ABOVE_NORMAL)
        return -5;
    if (priority == THREAD_PRIORITY_NORMAL)
        return 0;
    if (priority == THREAD_PRIORITY_BELOW_NORMAL)
        return 5;
    if (priority > THREAD_PRIORITY_IDLE)
        return 10;
    return 19;
}

// The system takes the thread's static data out of its stack: little, but much in a build that is
// watched by a sanitizer. Pages that are not touched cost nothing.
constexpr size_t kStaticData = size_t{1} << 20;

// What to ask for, in whole pages; 0 when that is beyond all memory.
size_t StackToAskFor(size_t usable) {
    const auto page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    if (usable > SIZE_MAX - kStaticData - page)
        return 0;
    return (std::max(usable, CThread::kMinStackSize) + kStaticData + page - 1) / page * page;
}

}  // namespace

void Sleep(uint32_t milliseconds) {
    std::this_thread::sleep_for(std::chrono::milliseconds(milliseconds));
}

void NameThread(const char* name) {
    pthread_setname_np(pthread_self(), name);
}

void YieldToOthers() {
    setpriority(PRIO_PROCESS, static_cast<id_t>(gettid()),
                std::min(getpriority(PRIO_PROCESS, 0) + NiceStep(THREAD_PRIORITY_LOWEST), 19));
}

// With the mutex held.
void CThread::State::ApplyPriority() {
    if (id == 0)
        return;
    // Normal is what the process as a whole was started with.
    const int wanted = std::clamp(getpriority(PRIO_PROCESS, static_cast<id_t>(getpid())) + NiceStep(priority), -20, 19);
    if (nice == wanted)
        return;
    if (setpriority(PRIO_PROCESS, static_cast<id_t>(id), wanted) == 0)
        nice = wanted;
}

std::shared_ptr<CThread> CThread::Create(size_t stackSize, Procedure procedure) {
    try {
        auto state = std::make_shared<State>();
        state->procedure = std::move(procedure);
        std::shared_ptr<CThread> thread(new CThread(state));
        auto argument = std::make_unique<std::shared_ptr<State>>(std::move(state));

        pthread_attr_t attributes;
        if (pthread_attr_init(&attributes) != 0)
            return nullptr;
        int error = pthread_attr_setstacksize(&attributes, StackToAskFor(stackSize));
        if (error == 0)
            error = pthread_create(&thread->m_handle, &attributes, &CThread::Run, argument.get());
        pthread_attr_destroy(&attributes);
        if (error != 0)
            return nullptr;
        thread->m_joined = false;
        (void)argument.release();
        return thread;
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
}

CThread::~CThread() {
    if (!m_joined)
        pthread_detach(m_handle);
}

void* CThread::Run(void* argument) {
    const std::unique_ptr<std::shared_ptr<State>> owner(static_cast<std::shared_ptr<State>*>(argument));
    State& state = **owner;
    t_current = &state;
    {
        const std::lock_guard lock(state.mutex);
        state.id = gettid();
        state.nice = getpriority(PRIO_PROCESS, 0);
        state.ApplyPriority();
    }
    state.exitCode = state.procedure();
    state.procedure = nullptr;
    {
        const std::lock_guard lock(state.mutex);
        state.id = 0;
    }
    state.ended.Set();
    return nullptr;
}

bool CThread::Wait(uint32_t milliseconds) {
    if (IsCurrent() || !m_state->ended.Wait(milliseconds))
        return false;
    const std::lock_guard lock(m_joinMutex);
    if (!m_joined) {
        pthread_join(m_handle, nullptr);
        m_joined = true;
    }
    return true;
}

bool CThread::HasEnded() const {
    return m_state->ended.IsSet();
}

bool CThread::IsCurrent() const {
    return t_current == m_state.get();
}

uint32_t CThread::ExitCode() const {
    return m_state->exitCode;
}

void CThread::SetPriority(int32_t priority) {
    const std::lock_guard lock(m_state->mutex);
    m_state->priority = priority;
    m_state->ApplyPriority();
}

int32_t CThread::Priority() const {
    const std::lock_guard lock(m_state->mutex);
    return m_state->priority;
}
