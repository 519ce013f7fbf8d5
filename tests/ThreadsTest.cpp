// Events, queues, threads and the worker thread's gate and stop.
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <algorithm>
#include <functional>
#include <vector>

#include "filters/threads/RALExecutorThread.h"
#include "platform/os/MessageQueue.h"
#include "platform/os/Semaphore.h"

namespace tessel {
namespace {

// Long enough for any machine; only a failing test waits so long.
constexpr uint32_t kBound = 60000;
constexpr size_t kImpossibleStack = SIZE_MAX / 4;

#define WAIT_FOR(waitable) ASSERT_TRUE((waitable).Wait(kBound)) << "waited for " #waitable

std::shared_ptr<CThread> Spawn(std::function<void()> body) {
    auto thread = CThread::Create(0, [body = std::move(body)] {
        body();
        return 0u;
    });
    EXPECT_TRUE(thread);
    return thread;
}

// An executor made of functions; not counted, as the thread does not count on it.
class Task final : public IRALThreadExecutor {
public:
    explicit Task(std::function<uint32_t()> run) : m_run(std::move(run)) {}
    ~Task() {
        if (m_destroyed)
            m_destroyed->Set();
    }

    HRESULT QueryInterface(const IID&, void**) override { return E_NOINTERFACE; }
    ULONG AddRef() override { return 1; }
    ULONG Release() override { return 1; }
    HRESULT OnThreadStart() override {
        if (m_onStart)
            m_onStart();
        return m_startResult;
    }
    HRESULT OnThreadEnd() override {
        ++m_ends;
        return S_OK;
    }
    uint32_t DoOneThreadTask() override {
        ++m_tasks;
        return m_run();
    }

    std::function<void()> m_onStart;
    HRESULT m_startResult = S_OK;
    std::atomic<int> m_tasks{0};
    std::atomic<int> m_ends{0};
    std::shared_ptr<CEvent> m_destroyed;
    RALThreadPtr<CRALExecutorThread> m_thread;

private:
    const std::function<uint32_t()> m_run;
};

std::shared_ptr<CEvent> MakeEvent(EventReset reset = EventReset::kAuto) {
    return std::make_shared<CEvent>(reset);
}

RALThreadPtr<CRALExecutorThread> MakeWoken(Task& task, const std::shared_ptr<CEvent>& wake) {
    auto thread = MakeRALThread<CRALExecutorThread>(&task);
    EXPECT_EQ(thread->SetWake(wake), S_OK);
    return thread;
}

TEST(Event, AutoResetGivesOneWaitASettingAndManualAllUntilReset) {
    CEvent automatic(EventReset::kAuto);
    CEvent manual(EventReset::kManual, true);
    automatic.Set();
    automatic.Set();
    EXPECT_TRUE(automatic.Wait(0));
    EXPECT_FALSE(automatic.Wait(0));
    EXPECT_FALSE(automatic.Wait(1));
    EXPECT_TRUE(manual.Wait(0));
    EXPECT_TRUE(manual.Wait(0));
    manual.Reset();
    EXPECT_FALSE(manual.Wait(1));

    // A setting that woke two would leave the last one over.
    CSemaphore passed;
    std::vector<std::shared_ptr<CThread>> waiters;
    for (int i = 0; i < 4; ++i)
        waiters.push_back(Spawn([&] {
            if (automatic.Wait(kBound))
                passed.Release();
        }));
    for (size_t i = 0; i < waiters.size(); ++i) {
        automatic.Set();
        WAIT_FOR(passed);
    }
    for (const auto& waiter : waiters)
        WAIT_FOR(*waiter);
    EXPECT_FALSE(automatic.IsSet());
}

// A wait that ends as the setting comes must not keep it from the thread that still waits.
TEST(Event, EverySettingIsTakenWhileSomeWaitsEnd) {
    CEvent event(EventReset::kAuto);
    CSemaphore taken;
    std::atomic<bool> over{false};
    std::vector<std::shared_ptr<CThread>> waiters;
    for (const uint32_t patience : {1u, 1u, kBound})
        waiters.push_back(Spawn([&, patience] {
            while (!over)
                if (event.Wait(patience))
                    taken.Release();
        }));
    for (int i = 0; i < 3000; ++i) {
        event.Set();
        WAIT_FOR(taken);
        if (i % 50 == 0)
            Sleep(1);  // so that waits end
    }
    over = true;
    event.Set();  // for the patient one, or one that ends anyway
    for (const auto& waiter : waiters) {
        event.Set();
        WAIT_FOR(*waiter);
    }
}

TEST(MessageQueue, KeepsTheOrderOfEachPosterAndQuitsBehindAll) {
    constexpr uint32_t kPosters = 3;
    constexpr uint32_t kEach = 1000;
    const auto queue = std::make_shared<CMessageQueue>();
    std::vector<std::shared_ptr<CThread>> posters;
    for (uint32_t p = 0; p < kPosters; ++p)
        posters.push_back(Spawn([queue, p] {
            for (uint32_t i = 0; i < kEach; ++i)
                queue->Post(WM_USER + p, i, -static_cast<intptr_t>(i));
        }));
    const auto reader = CThread::Create(0, [queue] {
        uint32_t next[kPosters] = {};
        for (;;) {
            const MSG message = queue->Get();
            if (message.message == WM_QUIT)
                return static_cast<uint32_t>(message.wParam) + (next[0] + next[1] + next[2]);
            uint32_t& expected = next[message.message - WM_USER];
            EXPECT_EQ(message.wParam, expected);
            EXPECT_EQ(message.lParam, -static_cast<intptr_t>(expected));
            ++expected;
        }
    });
    for (const auto& poster : posters)
        WAIT_FOR(*poster);
    queue->Post(WM_QUIT, 7);
    WAIT_FOR(*reader);
    EXPECT_EQ(reader->ExitCode(), 7 + kPosters * kEach);
}

TEST(MessageQueue, PeeksAndIsBoundedButAlwaysTakesTheQuit) {
    CMessageQueue queue;
    MSG message;
    EXPECT_FALSE(queue.Peek(&message, true));
    EXPECT_FALSE(queue.Wait(1));
    for (size_t i = 0; i < CMessageQueue::kMaxMessages; ++i)
        ASSERT_TRUE(queue.Post(WM_USER, i));
    EXPECT_FALSE(queue.Post(WM_USER));
    EXPECT_TRUE(queue.Post(WM_QUIT));
    EXPECT_FALSE(queue.Post(WM_QUIT));
    EXPECT_TRUE(queue.Wait(0));
    uintptr_t expected = 0;
    for (const bool remove : {false, true, true}) {
        ASSERT_TRUE(queue.Peek(&message, remove));
        EXPECT_EQ(message.wParam, expected);
        expected += remove;
    }
}

TEST(Thread, HasRoomReleasesWhatItHeldAndDoesNotWaitForItself) {
    const auto held = std::make_shared<int>(1);
    std::weak_ptr<int> watched = held;
    std::shared_ptr<CThread> thread;
    CEvent go(EventReset::kManual);
    thread = CThread::Create(65536, [&thread, &go, held = std::shared_ptr<int>(held)] {
        go.Wait(kBound);
        volatile char room[768 * 1024];
        for (size_t i = 0; i < sizeof(room); i += 4096)
            room[i] = 1;
        return thread->IsCurrent() && !thread->Wait(INFINITE) ? 5u + room[0] : 0u;
    });
    ASSERT_TRUE(thread);
    EXPECT_FALSE(thread->HasEnded());
    EXPECT_FALSE(thread->IsCurrent());
    go.Set();
    WAIT_FOR(*thread);
    EXPECT_EQ(thread->ExitCode(), 6u);
    EXPECT_EQ(watched.use_count(), 1);
    EXPECT_FALSE(CThread::Create(kImpossibleStack, [] { return 0u; }));
}

TEST(RALThread, OperationsWithoutAThreadSaySoAndChangeNothing) {
    const auto task = std::make_shared<Task>([] { return INFINITE; });
    const auto expectMissing = [](CRALThread& thread) {
        EXPECT_EQ(thread.Resume(1), kThreadMissing);
        EXPECT_EQ(thread.Pause(), kThreadMissing);
        EXPECT_EQ(thread.Stop(), kThreadMissing);
        EXPECT_EQ(thread.SetIdealProcessor(0), kThreadMissing);
    };
    const auto thread = MakeRALThread<CRALExecutorThread>(task);
    expectMissing(*thread);
    EXPECT_EQ(thread->Start(nullptr, kImpossibleStack), kThreadNotCreated);
    expectMissing(*thread);

    task->m_startResult = E_FAIL;
    EXPECT_EQ(thread->Start(nullptr, 65536), kThreadEndedAtStart);
    EXPECT_EQ(thread->Stop(), S_OK);
    expectMissing(*thread);
    task->m_startResult = S_OK;
    EXPECT_EQ(thread->Start(nullptr, 65536), S_OK) << "a thread that ended can be started again";
    EXPECT_EQ(thread->Start(nullptr, 65536), E_UNEXPECTED);
    EXPECT_EQ(thread->SetWake(MakeEvent()), E_UNEXPECTED);
    EXPECT_EQ(thread->SetIdealProcessor(0), S_OK);
    EXPECT_EQ(thread->Stop(), S_OK);

    CRALExecutorThread unshared(task);
    EXPECT_EQ(unshared.Start(nullptr, 65536), kThreadNotCreated);
    EXPECT_EQ(CRALThread::DefaultProcedure(nullptr), 0xA2008001u);
    EXPECT_EQ(task->m_tasks, 0);
    EXPECT_EQ(task->m_ends, 1) << "no end notice without a start";

    const auto own = [](CRALThread* self) { return static_cast<uint32_t>(self->OnThreadEnd()); };
    EXPECT_EQ(thread->Start(own, 0), kThreadEndedAtStart);
    EXPECT_EQ(task->m_ends, 2);
}

TEST(RALThread, AWakingOutlastsAPauseButNotAStop) {
    CSemaphore began;
    CSemaphore finish;
    Task task([&] {
        began.Release();
        EXPECT_TRUE(finish.Wait(kBound));
        return 0u;
    });
    const auto wake = MakeEvent();
    const auto thread = MakeWoken(task, wake);
    ASSERT_EQ(thread->Start(nullptr, 65536), S_OK);
    wake->Set();
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(thread->Resume(1), S_OK);
        WAIT_FOR(began);
        EXPECT_EQ(thread->Pause(), S_OK);
        wake->Set();
        finish.Release();
    }
    EXPECT_EQ(thread->Stop(), S_OK);
    EXPECT_EQ(task.m_tasks, 2);
}

TEST(RALThread, AfterAPauseAtMostOneTaskBegins) {
    Task task([] { return 0u; });
    const auto wake = MakeEvent();
    const auto thread = MakeWoken(task, wake);
    ASSERT_EQ(thread->Start(nullptr, 65536), S_OK);
    for (int round = 0; round < 5000; ++round) {
        thread->Resume(0);
        wake->Set();
        for (int i = 0; i < round % 7; ++i)
            sched_yield();
        thread->Pause();
        const int before = task.m_tasks;
        for (int i = 0; i < 5; ++i) {
            wake->Set();
            sched_yield();
        }
        ASSERT_LE(task.m_tasks - before, 1) << "round " << round;
    }
}

TEST(RALThread, AStopBeforeTheStartNoticeCounts) {
    CEvent coming(EventReset::kManual);
    CEvent release(EventReset::kManual);
    Task task([] { return 0u; });
    task.m_onStart = [&] {
        coming.Set();
        EXPECT_TRUE(release.Wait(kBound));
    };
    const auto wake = MakeEvent();
    const auto thread = MakeWoken(task, wake);
    const auto starter = Spawn([&] { thread->Start(nullptr, 65536); });
    WAIT_FOR(coming);
    const auto stopper = Spawn([&] { EXPECT_EQ(thread->Stop(), S_OK); });
    WAIT_FOR(*wake);
    release.Set();
    WAIT_FOR(*starter);
    WAIT_FOR(*stopper);
    EXPECT_TRUE(thread->WaitForEnd(kBound));
    EXPECT_EQ(task.m_tasks, 0);
}

TEST(RALThread, PrioritiesAreTriedAndAnyIsTolerated) {
    CSemaphore ran;
    std::atomic<int> nice{0};
    Task task([&] {
        nice = getpriority(PRIO_PROCESS, 0);
        ran.Release();
        return 0u;
    });
    const auto wake = MakeEvent();
    const auto thread = MakeWoken(task, wake);
    ASSERT_EQ(thread->Start(nullptr, 65536), S_OK);
    std::vector<int> seen;
    for (const int32_t priority : {0, -1, -2, -15, 1, 2, 15, 12345, INT32_MIN, INT32_MAX}) {
        EXPECT_EQ(thread->Resume(priority), S_OK) << priority;
        wake->Set();
        WAIT_FOR(ran);
        seen.push_back(nice);
        thread->Pause();
    }
    // Every system lets a thread step back, so these four took effect.
    EXPECT_TRUE(std::is_sorted(seen.begin(), seen.begin() + 4));
    EXPECT_LT(seen[0], seen[3]);
}

TEST(RALThread, ATaskThatHangsIsLeftWithItsExecutorAlive) {
    CEvent entered(EventReset::kManual);
    const auto release = MakeEvent(EventReset::kManual);
    const auto destroyed = MakeEvent(EventReset::kManual);
    auto task = std::make_shared<Task>([&entered, release] {
        entered.Set();
        EXPECT_TRUE(release->Wait(kBound));
        return 0u;
    });
    task->m_destroyed = destroyed;
    auto thread = MakeRALThread<CRALExecutorThread>(task);
    const auto left = thread->shared_from_this();
    ASSERT_EQ(thread->Start(nullptr, 65536), S_OK);
    thread->Resume(1);
    WAIT_FOR(entered);
    EXPECT_EQ(thread->Stop(), S_OK);
    EXPECT_EQ(thread->Stop(), kThreadMissing);
    EXPECT_FALSE(thread->WaitForEnd(0));
    EXPECT_EQ(thread->Start(nullptr, 65536), E_UNEXPECTED) << "two threads on one object";
    thread.reset();
    task.reset();
    EXPECT_FALSE(destroyed->IsSet()) << "the task is still inside its executor";
    release->Set();
    WAIT_FOR(*destroyed);
    EXPECT_TRUE(left->WaitForEnd(kBound)) << "waited for the thread left behind";
}

TEST(RALThread, AThreadStopsItselfOrDestroysItsOwner) {
    for (const bool destroy : {false, true}) {
        const auto destroyed = MakeEvent(EventReset::kManual);
        std::shared_ptr<Task> task;
        task = std::make_shared<Task>([&] {
            if (destroy)
                task.reset();
            else
                EXPECT_EQ(task->m_thread->Stop(), S_OK);
            return 0u;
        });
        task->m_destroyed = destroyed;
        task->m_thread = MakeRALThread<CRALExecutorThread>(task);
        const auto thread = task->m_thread->shared_from_this();
        ASSERT_EQ(thread->Start(nullptr, 65536), S_OK);
        thread->Resume(1);
        EXPECT_TRUE(thread->WaitForEnd(kBound)) << "waited for the thread that stopped itself";
        EXPECT_EQ(thread->Stop(), kThreadMissing);
        EXPECT_EQ(destroyed->IsSet(), destroy);
        EXPECT_TRUE(destroy || task->m_tasks == 1);
    }
}

TEST(RALThread, StartsStopsPausesAndResumesRaceWithoutHangingOrDoubling) {
    std::atomic<int> inside{0};
    Task task([&] {
        EXPECT_EQ(++inside, 1) << "two threads run one task";
        --inside;
        return 0u;
    });
    const auto wake = MakeEvent();
    const auto thread = MakeWoken(task, wake);
    std::vector<std::shared_ptr<CThread>> controllers;
    for (int c = 0; c < 3; ++c)
        controllers.push_back(Spawn([&, c] {
            for (int i = 0; i < 200; ++i) {
                const HRESULT started = thread->Start(nullptr, 65536);
                EXPECT_TRUE(started == S_OK || started == kThreadEndedAtStart || started == E_UNEXPECTED);
                thread->Resume(i % 3);
                wake->Set();
                thread->Pause();
                if ((i + c) % 2 == 0)
                    thread->Stop();
                else
                    thread->Resume(1);
            }
        }));
    for (const auto& controller : controllers)
        WAIT_FOR(*controller);
    thread->Stop();
    ASSERT_TRUE(thread->WaitForEnd(kBound)) << "waited for the end after the last stop";
}

}  // namespace
}  // namespace tessel
