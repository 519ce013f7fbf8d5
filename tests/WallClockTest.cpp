// The wall clock on a counter that stands still until it is told to move, and its advises.
#include <gtest/gtest.h>

#include <atomic>
#include <vector>

#include "filters/WallClock.h"

namespace tessel {
namespace {

constexpr uint32_t kBound = 60000;
constexpr int64_t kDay = 86'400'000;  // milliseconds
constexpr REFERENCE_TIME kMs = kUnitsPerMillisecond;

#define WAIT_FOR(waitable) ASSERT_TRUE((waitable).Wait(kBound)) << "waited for " #waitable

class ManualCounter final : public CPerformanceCounter {
public:
    explicit ManualCounter(int64_t milliseconds = 0, int64_t frequency = 1'000'000'000) : m_frequency(frequency) {
        Move(milliseconds);
    }
    int64_t Count() const override { return m_count; }
    int64_t Frequency() const override { return m_frequency; }
    void Move(int64_t milliseconds) { m_count += milliseconds * (m_frequency / 1000); }

    std::atomic<int64_t> m_count{0};

private:
    const int64_t m_frequency;
};

// A clock of another maker, which takes its time to answer.
class OtherClock final : public CUnknown, public IReferenceClock {
public:
    OtherClock(REFERENCE_TIME time, ManualCounter& counter, int64_t slow = 0, HRESULT result = S_OK)
        : CUnknown("OtherClock", nullptr), m_time(time), m_counter(counter), m_slow(slow), m_result(result) {}
    DECLARE_IUNKNOWN
    HRESULT NonDelegatingQueryInterface(const IID& iid, void** out) override {
        return iid == IReferenceClock::kIid ? GetInterface<IReferenceClock>(this, out)
                                            : CUnknown::NonDelegatingQueryInterface(iid, out);
    }
    HRESULT GetTime(REFERENCE_TIME* out) override {
        m_counter.Move(m_slow);
        *out = m_time;
        return m_result;
    }
    HRESULT AdviseTime(REFERENCE_TIME, REFERENCE_TIME, HEVENT, DWORD_PTR*) override { return E_NOTIMPL; }
    HRESULT AdvisePeriodic(REFERENCE_TIME, REFERENCE_TIME, HSEMAPHORE, DWORD_PTR*) override { return E_NOTIMPL; }
    HRESULT Unadvise(DWORD_PTR) override { return E_NOTIMPL; }

private:
    const REFERENCE_TIME m_time;
    ManualCounter& m_counter;
    const int64_t m_slow;
    const HRESULT m_result;
};

struct Clock {
    explicit Clock(const CPerformanceCounter& counter) : clock(new CWallClock(nullptr, &result, counter)) {}
    CWallClock* operator->() const { return clock.Get(); }

    HRESULT result = S_OK;
    ComPtr<CWallClock> clock;
};

TEST(WallClock, CountsMillisecondsOfAnyCounterWithoutOverflow) {
    struct Case {
        int64_t frequency;
        int64_t start;
        int64_t step;
        REFERENCE_TIME first;
        REFERENCE_TIME passed;
    };
    for (const Case c : {
             Case{1'000'000'000, 0, 40'000'000, 0, 400'000},
             Case{1'000'000'000, 1'999'999, 1, 1 * kMs, 1 * kMs},
             Case{1'000'000'000, 400 * kDay * 1'000'000, 40'000'000, 400 * kDay * kMs, 400'000},
             Case{3'579'545, 3'579'545 * 7, 3'579'545, 7000 * kMs, 1000 * kMs},
             Case{3, 1, 1, 333 * kMs, 333 * kMs},
         }) {
        ManualCounter counter(0, c.frequency);
        counter.m_count = c.start;
        const Clock clock(counter);
        EXPECT_EQ(clock->GetPrivateTime(), c.first) << c.frequency;
        counter.m_count += c.step;
        EXPECT_EQ(clock->GetPrivateTime() - c.first, c.passed) << c.frequency;
    }
    EXPECT_EQ(Clock(ManualCounter(0, 0)).result, E_FAIL);
}

TEST(WallClock, NeverRunsBackwards) {
    ManualCounter counter(5000);
    const Clock clock(counter);
    const auto expect = [&](int64_t step, HRESULT result, int64_t expected) {
        counter.Move(step);
        REFERENCE_TIME time = 0;
        EXPECT_EQ(clock->GetTime(&time), result) << step;
        EXPECT_EQ(time, expected * kMs) << step;
    };
    EXPECT_EQ(clock->GetTime(nullptr), E_POINTER);
    expect(0, S_OK, 5000);
    expect(0, S_FALSE, 5000);
    expect(-1000, S_FALSE, 5000);
    expect(1001, S_OK, 5001);

    // The private time follows another clock back at once, the time waits for it.
    const ComPtr<OtherClock> other(new OtherClock(4990 * kMs, counter));
    clock->SetSyncSource(other.Get());
    EXPECT_EQ(clock->GetPrivateTime(), 4990 * kMs);
    expect(11, S_FALSE, 5001);
    expect(1, S_OK, 5002);
}

TEST(WallClock, GoesOnFromTheClockItFollowsOrReplaces) {
    constexpr int64_t kStart = 1'000'000;
    ManualCounter counter(kStart);
    const Clock clock(counter);
    const ComPtr<OtherClock> slow(new OtherClock(5000 * kMs, counter, 6));
    const ComPtr<OtherClock> failing(new OtherClock(7, counter, 6, E_FAIL));
    const ComPtr<OtherClock> last(new OtherClock(MAX_TIME - 1, counter));
    CWallClock* const self = clock.clock.Get();
    struct Case {
        const char* what;
        IReferenceClock* source;
        int64_t expected;  // milliseconds, right after
    };
    for (const Case c : {
             Case{"itself, and none before: its own counter", self, kStart + 10},
             Case{"another: its time, and half of what the question took", slow.Get(), 5003},
             Case{"none: runs on", nullptr, 5013},
             Case{"one that fails: runs on", failing.Get(), 5029},
             Case{"another again", slow.Get(), 5003},
             Case{"itself: the time of the one before", self, 5003},
             Case{"itself again: runs on", self, 5013},
             Case{"none after itself: runs on", nullptr, 5023},
             Case{"one that fails, then itself", failing.Get(), 5039},
             Case{"itself when the one before fails: its own counter", self, kStart + 10 * 10 + 6 * 6},
         }) {
        counter.Move(10);
        clock->SetSyncSource(c.source);
        EXPECT_EQ(clock->GetPrivateTime(), c.expected * kMs) << c.what;
    }
    clock->SetSyncSource(last.Get());
    counter.Move(10);
    EXPECT_EQ(clock->GetPrivateTime(), MAX_TIME) << "stays at the end of time";
}

TEST(WallClock, KnowsItselfInsideItsOwnerAndHoldsOnlyOthers) {
    class Owner final : public CUnknown {
    public:
        explicit Owner(const CPerformanceCounter& counter)
            : CUnknown("Owner", nullptr), m_clock(GetOwner(), &m_result, counter) {}
        HRESULT NonDelegatingQueryInterface(const IID& iid, void** out) override {
            return iid == IReferenceClock::kIid ? m_clock.NonDelegatingQueryInterface(iid, out)
                                                : CUnknown::NonDelegatingQueryInterface(iid, out);
        }
        HRESULT m_result = S_OK;
        CWallClock m_clock;
    };
    ManualCounter counter(100);
    auto* const raw = new Owner(counter);
    const ComPtr<IUnknown> owner(raw->GetOwner());
    auto clock = owner.As<IReferenceClock>();
    ASSERT_TRUE(clock);
    EXPECT_EQ(clock.As<IUnknown>().Get(), owner.Get());
    const ComPtr<OtherClock> other(new OtherClock(5, counter));
    const auto references = [](IUnknown* object) {
        object->AddRef();
        return object->Release();
    };
    raw->m_clock.SetSyncSource(clock.Get());
    EXPECT_EQ(references(owner.Get()), 2u) << "a clock that held itself would never end";
    raw->m_clock.SetSyncSource(other.Get());
    EXPECT_EQ(references(other->GetOwner()), 2u);
    raw->m_clock.SetSyncSource(nullptr);
    EXPECT_EQ(references(other->GetOwner()), 1u);
}

TEST(Advise, RefusesWhatNeverComes) {
    ManualCounter counter(0);
    const Clock clock(counter);
    CEvent event(EventReset::kAuto);
    CSemaphore semaphore;
    DWORD_PTR cookie = 9;
    EXPECT_EQ(clock->AdviseTime(1, 1, &event, nullptr), E_POINTER);
    EXPECT_EQ(clock->AdviseTime(1, 1, nullptr, &cookie), E_POINTER);
    EXPECT_EQ(clock->AdvisePeriodic(1, 1, nullptr, &cookie), E_POINTER);
    for (const auto& [base, stream] :
         {std::pair<REFERENCE_TIME, REFERENCE_TIME>{0, 0}, {-5, 5}, {MAX_TIME, 0}, {MAX_TIME, 1}, {INT64_MIN, -1}})
        EXPECT_EQ(clock->AdviseTime(base, stream, &event, &cookie), E_INVALIDARG) << base;
    for (const auto& [start, period] : {std::pair<REFERENCE_TIME, REFERENCE_TIME>{0, 1}, {MAX_TIME, 1}, {1, 0}})
        EXPECT_EQ(clock->AdvisePeriodic(start, period, &semaphore, &cookie), E_INVALIDARG) << start;
    EXPECT_EQ(cookie, 0u);
    EXPECT_EQ(clock->Unadvise(0), S_FALSE);
}

TEST(Advise, SignalsOnceInTheOrderOfTime) {
    ManualCounter counter(1000);
    const Clock clock(counter);
    CEvent first(EventReset::kManual);
    CEvent second(EventReset::kManual);
    CEvent cancelled(EventReset::kManual);
    CEvent past(EventReset::kManual);
    DWORD_PTR cookies[4];
    EXPECT_EQ(clock->AdviseTime(1000 * kMs, 10 * kMs, &second, &cookies[0]), S_OK);
    EXPECT_EQ(clock->AdviseTime(1010 * kMs, -1 * kMs, &first, &cookies[1]), S_OK);
    EXPECT_EQ(clock->AdviseTime(1000 * kMs, 5 * kMs, &cancelled, &cookies[2]), S_OK);
    EXPECT_EQ(clock->Unadvise(cookies[2]), S_OK);
    EXPECT_EQ(clock->Unadvise(cookies[2]), S_FALSE);
    EXPECT_EQ(clock->AdviseTime(1, 0, &past, &cookies[3]), S_OK);
    WAIT_FOR(past);
    EXPECT_FALSE(first.IsSet());

    counter.Move(9);
    clock->TriggerThread();
    WAIT_FOR(first);
    EXPECT_FALSE(second.IsSet());
    counter.Move(1);
    clock->TriggerThread();
    WAIT_FOR(second);
    EXPECT_FALSE(cancelled.IsSet());
    EXPECT_EQ(clock->Unadvise(cookies[0]), S_FALSE);

    // A step of the time is looked at without being asked for.
    first.Reset();
    EXPECT_EQ(clock->AdviseTime(0, kDay * kMs, &first, &cookies[0]), S_OK);
    Sleep(10);  // so that the advise thread most likely sleeps
    const ComPtr<OtherClock> other(new OtherClock(2 * kDay * kMs, counter));
    clock->SetSyncSource(other.Get());
    WAIT_FOR(first);
}

TEST(Advise, ReleasesOneForEveryPeriodThatPassed) {
    ManualCounter counter(1000);
    const Clock clock(counter);
    CSemaphore ticks;
    DWORD_PTR cookie = 0;
    // All that is due up to now has been signalled when this has.
    const auto settle = [&] {
        CEvent mark(EventReset::kAuto);
        DWORD_PTR marked = 0;
        EXPECT_EQ(clock->AdviseTime(0, clock->GetPrivateTime(), &mark, &marked), S_OK);
        EXPECT_TRUE(mark.Wait(kBound)) << "waited for the advise thread";
    };
    const auto taken = [&ticks] {
        int count = 0;
        while (ticks.Wait(0))
            ++count;
        return count;
    };
    ASSERT_EQ(clock->AdvisePeriodic(1010 * kMs, 5 * kMs, &ticks, &cookie), S_OK);
    for (const auto& [step, expected] : {std::pair{9, 0}, {1, 1}, {4, 0}, {1, 1}, {14, 2}, {5, 1}, {1, 1}}) {
        counter.Move(step);
        settle();
        EXPECT_EQ(taken(), expected) << step;
    }
    EXPECT_EQ(clock->Unadvise(cookie), S_OK);
    counter.Move(100);
    settle();
    EXPECT_EQ(taken(), 0);

    // A jump over more periods than anyone could count one by one, and a next time beyond all times.
    ASSERT_EQ(clock->AdvisePeriodic(1, 1, &ticks, &cookie), S_OK);
    CSemaphore once;
    ASSERT_EQ(clock->AdvisePeriodic(2, MAX_TIME, &once, &cookie), S_OK);
    counter.Move(1000 * kDay);
    settle();
    WAIT_FOR(ticks);
    EXPECT_TRUE(once.Wait(0));
    EXPECT_FALSE(once.Wait(0));
}

TEST(WallClock, StaysMonotonousWhileSourcesAndAdvisesChange) {
    ManualCounter counter(0);
    const Clock clock(counter);
    const ComPtr<OtherClock> other(new OtherClock(500 * kMs, counter, 1));
    std::vector<std::shared_ptr<CThread>> threads;
    for (int t = 0; t < 2; ++t)
        threads.push_back(CThread::Create(0, [&clock] {
            REFERENCE_TIME last = 0;
            for (int i = 0; i < 2000; ++i) {
                REFERENCE_TIME time = 0;
                EXPECT_GE(clock->GetTime(&time), S_OK);
                EXPECT_GE(time, last);
                last = time;
                // The event goes right after: nothing may be signalled once Unadvise has returned.
                CEvent event(EventReset::kAuto);
                DWORD_PTR cookie = 0;
                EXPECT_EQ(clock->AdviseTime(time, i % 3 + 1, &event, &cookie), S_OK);
                clock->Unadvise(cookie);
            }
            return 0u;
        }));
    for (int i = 0; i < 2000; ++i) {
        IReferenceClock* const sources[] = {other.Get(), nullptr, clock.clock.Get()};
        clock->SetSyncSource(sources[i % 3]);
        counter.Move(1);
    }
    for (const auto& thread : threads)
        WAIT_FOR(*thread);
}

}  // namespace
}  // namespace tessel
