// The program clocks by themselves, and behind the filter base with sinks.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <limits>
#include <optional>
#include <thread>
#include <vector>

#include "tests/support/FilterFixture.h"

namespace tessel {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr uint16_t kPid = 0x101;
constexpr int64_t kMax = std::numeric_limits<int64_t>::max();
constexpr int64_t kMin = std::numeric_limits<int64_t>::min();
constexpr int64_t kStep = 1'080'000;    // 40 ms of 27 MHz
constexpr int64_t kStepTime = 400'000;  // 40 ms of 100 ns
constexpr int64_t kStepBytes = 18'800;
constexpr ArrivalRecord kNoArrival = {kMin, 0};

// The filter as the clocks see it, and packets fed to them.
class Host final : public IPcrClockOwner {
public:
    explicit Host(bool live) { clocks.SetLive(live); }

    HRESULT SetPcrDiscont(PcrClock& clock) override OS_NO_THREAD_SAFETY_ANALYSIS {
        return refuses ? E_FAIL : clocks.SetPcrDiscont(clock);
    }
    std::vector<int32_t> PcrPids() override { return used; }
    REFERENCE_TIME CurrentStreamTime() override { return streamTime; }
    void NotifyDiscontinuity(int32_t pid) override {
        jumps.push_back(pid);
        if (duringNotice)
            duringNotice();
    }
    void NotifyClockChange(const PcrClock& clock) override {
        changes.push_back(clock);
        if (duringNotice)
            duringNotice();
    }

    void Feed(uint16_t pid, const build::PacketOptions& options, int64_t position, ArrivalRecord arrival = kNoArrival) {
        build::StreamBuilder stream;
        stream.Packet(pid, {}, options);
        const uint8_t* packet = stream.bytes().data();
        clocks.AdjustPcr(packet, DecodeTsHeader(packet), DecodeAdaptationFieldHeader(packet), position, arrival);
    }
    void Pcr(int64_t pcr, int64_t position, ArrivalRecord arrival = kNoArrival, uint16_t pid = kPid) {
        Feed(pid, {.pcr = pcr}, position, arrival);
    }
    // The PCR number n of a steady stream from PCR 0, position 0.
    void Steady(int64_t n, ArrivalRecord arrival = kNoArrival) { Pcr(n * kStep, n * kStepBytes, arrival); }
    // As that, its first byte arriving late by that much.
    void SteadyLate(int64_t n, int64_t late) { Steady(n, {n * kStepBytes, n * kStepTime + late}); }

    std::optional<PcrClock> Clock(int32_t pid = kPid) {
        CScopedLock lock(&clocks.Lock());
        const PcrClock* clock = clocks.Find(pid);
        return clock == nullptr ? std::nullopt : std::optional(*clock);
    }
    std::vector<int32_t> ClockPids() {
        std::vector<int32_t> pids;
        clocks.ForEach([&pids](const PcrClock& clock) { pids.push_back(clock.pid); });
        return pids;
    }
    void MakeClock() {
        clocks.EndUpdate(PcrClocks::Stale::kDrop, PcrClocks::Missing::kMake);
        ASSERT_TRUE(Clock().has_value());
    }

    PcrClocks clocks{*this};
    std::vector<int32_t> used = {kPid};
    REFERENCE_TIME streamTime = 0;
    bool refuses = false;
    std::function<void()> duringNotice;
    std::vector<int32_t> jumps;
    std::vector<PcrClock> changes;
};

// Where the clock's timeline puts a PCR.
int64_t TimeOf(const PcrClock& clock, int64_t pcr) {
    return (10 * pcr - 10 * clock.pcrOrigin) / 27 + clock.timeOrigin;
}

TEST(PcrClocks, Jumps) {
    constexpr int64_t kSecond = 27'000'000;
    constexpr int64_t kWrap = (int64_t{1} << 33) * 300;
    // Two PCRs before the last: first, first + kStep, kStepBytes apart; the third comes kStepBytes later.
    struct Case {
        const char* name;
        bool live;
        int64_t first;
        int64_t third;
        bool jump;
        int64_t timeOrigin;  // after it; before it 9,000
        int32_t pcrDelta;
    };
    const Case cases[] = {
        {"live, as far ahead as allowed", true, 0, 2 * kStep + 1'000'000, false, 9'000, kStep + 1'000'000},
        {"live, as far behind as allowed", true, 0, 2 * kStep - 1'000'000, false, 9'000, kStep - 1'000'000},
        {"live, ahead", true, 0, 2 * kStep + 1'000'001, true, 9'000 + 2 * kStepTime, 0},
        {"live, behind", true, 0, 2 * kStep - 1'000'001, true, 9'000 + 2 * kStepTime, 0},
        {"live, wrap", true, kWrap - 2 * kStep, 0, true, 9'000 + 2 * kStepTime, 0},
        {"file, the same again", false, 0, kStep, false, 9'000, 0},
        {"file, one tick back", false, 0, kStep - 1, true, kMin, 0},
        {"file, one second", false, 0, kStep + kSecond, false, 9'000, kSecond},
        {"file, a tick more", false, 0, kStep + kSecond + 1, true, kMin, 0},
        {"file, two seconds", false, 0, kStep + 2 * kSecond, true, kMin, 0},
        {"file, wrap", false, kWrap - 2 * kStep, 0, true, kMin, 0},
    };
    for (const Case& test : cases) {
        SCOPED_TRACE(test.name);
        Host host(test.live);
        host.streamTime = 9'000;
        host.MakeClock();
        host.Pcr(test.first, 0);
        host.Pcr(test.first + kStep, kStepBytes);
        if (!test.live)
            host.clocks.ForEach([](PcrClock& clock) { clock.timeOrigin = 9'000; });
        host.Pcr(test.third, 2 * kStepBytes);
        const PcrClock clock = *host.Clock();
        EXPECT_EQ(host.jumps, test.jump ? std::vector<int32_t>{kPid} : std::vector<int32_t>{});
        EXPECT_EQ(clock.discontinuityCount, test.jump ? 1 : 0);
        EXPECT_EQ(clock.discontinuityPending, 0);
        EXPECT_EQ(clock.pcrOrigin, test.jump ? test.third : test.first);
        EXPECT_EQ(clock.timeOrigin, test.timeOrigin);
        EXPECT_EQ(clock.pcrDelta, test.pcrDelta);
        EXPECT_EQ(clock.byteDelta, test.jump ? 1 : kStepBytes);
    }
}

TEST(PcrClocks, DiscontinuityIndicatorTellsOnceAndTheNextPcrAnchors) {
    for (const bool live : {true, false}) {
        Host host(live);
        host.MakeClock();
        host.Steady(0);
        host.Steady(1);
        host.Feed(kPid, {.discontinuity = true}, kStepBytes + 188);
        EXPECT_THAT(host.jumps, ElementsAre(kPid));
        EXPECT_EQ(host.Clock()->discontinuityPending, 1);
        host.Feed(kPid, {.discontinuity = true}, kStepBytes + 376);
        EXPECT_EQ(host.clocks.SetPcrDiscont(kPid), S_OK);
        host.Feed(kPid + 1, {.discontinuity = true}, kStepBytes + 564);
        EXPECT_EQ(host.jumps.size(), 1u);
        EXPECT_EQ(host.Clock()->discontinuityCount, 1);

        host.Pcr(900 * kStep, 2 * kStepBytes);
        EXPECT_EQ(host.jumps.size(), 1u);
        EXPECT_EQ(host.Clock()->discontinuityPending, 0);
        EXPECT_EQ(host.Clock()->pcrOrigin, 900 * kStep);
        EXPECT_EQ(host.Clock()->timeOrigin, live ? 2 * kStepTime : kMin);
    }
    Host host(true);
    EXPECT_EQ(host.clocks.SetPcrDiscont(kPid), E_FAIL) << "no clock";
}

TEST(PcrClocks, UpdatesMakeAndDropClocks) {
    constexpr auto kDrop = PcrClocks::Stale::kDrop;
    constexpr auto kMake = PcrClocks::Missing::kMake;
    for (const bool live : {true, false}) {
        SCOPED_TRACE(live);
        Host host(live);
        const AdaptationFieldHeader pcr{0x0710};  // 7 bytes, PCR_flag
        host.Pcr(0, 0);
        EXPECT_THAT(host.ClockPids(), IsEmpty()) << "no update is open";
        EXPECT_FALSE(host.clocks.Wants(pcr));

        host.clocks.BeginUpdate(kDrop);
        host.clocks.BeginUpdate(kDrop);
        EXPECT_TRUE(host.clocks.Wants(pcr));
        EXPECT_FALSE(host.clocks.Wants({0x076F})) << "neither a PCR nor a discontinuity";
        host.Pcr(1, 0, kNoArrival, 0x30);
        host.Pcr(1, 0, kNoArrival, kNullPid);
        host.Feed(0x31, {.discontinuity = true}, 0);
        // A PCR_flag in a field too short for it.
        host.Feed(0x32, {.pcr = 1, .adaptationLength = uint8_t{6}}, 0);
        EXPECT_THAT(host.ClockPids(), ElementsAre(0x30));
        host.clocks.ForEach([](PcrClock& clock) { clock.timeOrigin = 5; });

        host.used = {kPid, -1, 0x1FFF, -2, kPid, 0x20};
        host.clocks.EndUpdate(kDrop, kMake);
        EXPECT_THAT(host.ClockPids(), ElementsAre(0x30)) << "one update is still open";
        host.clocks.EndUpdate(kDrop, kMake);
        if (live) {
            EXPECT_THAT(host.ClockPids(), ElementsAre(0x20, kPid));
        } else {
            EXPECT_THAT(host.ClockPids(), ElementsAre(0x20, 0x30, kPid));
            EXPECT_EQ(host.Clock(0x30)->timeOrigin, kMin);
        }
        EXPECT_EQ(host.Clock()->pcrOrigin, kMin);
        EXPECT_EQ(host.Clock()->byteDelta, 1);

        // An end without a beginning counts as the last, and does not cancel the next beginning.
        host.clocks.Clear();
        host.clocks.EndUpdate(kDrop, kMake);
        EXPECT_THAT(host.ClockPids(), ElementsAre(0x20, kPid));
        host.clocks.BeginUpdate(kDrop);
        host.Pcr(1, 0, kNoArrival, 0x30);
        EXPECT_TRUE(host.Clock(0x30).has_value());

        host.clocks.SetUpdateCount(0);
        EXPECT_TRUE(host.clocks.Wants(pcr));
        host.clocks.Clear();
        EXPECT_FALSE(host.clocks.Wants(pcr));
    }
}

TEST(PcrClocks, AFilterMayOnlyCountUpdatesAndRefuseDiscontinuities) {
    constexpr auto kKeep = PcrClocks::Stale::kKeep;
    Host host(false);
    host.MakeClock();
    host.Steady(0);
    host.Steady(1);
    host.clocks.ForEach([](PcrClock& clock) { clock.timeOrigin = 0; });
    host.used = {0x20};
    host.clocks.BeginUpdate(kKeep);
    host.clocks.EndUpdate(kKeep, PcrClocks::Missing::kLeave);
    EXPECT_THAT(host.ClockPids(), ElementsAre(kPid));
    EXPECT_EQ(host.Clock()->timeOrigin, 0);

    host.refuses = true;
    host.Pcr(500 * kStep, 2 * kStepBytes);
    host.Feed(kPid, {.discontinuity = true, .pcr = 2 * kStep}, 2 * kStepBytes);
    EXPECT_THAT(host.jumps, IsEmpty());
    EXPECT_EQ(host.Clock()->discontinuityPending, 0);
    EXPECT_EQ(host.Clock()->lastPcr, kStep);
    EXPECT_EQ(host.Clock()->pcrOrigin, 0);
    EXPECT_EQ(host.Clock()->timeOrigin, 0);
}

TEST(PcrClocks, ForTheFirst150MsArrivalsAreTakenAsTheyAre) {
    Host host(true);
    host.MakeClock();
    host.SteadyLate(0, 50);
    EXPECT_EQ(host.Clock()->timeOrigin, 50);
    // The packet came 1,880 bytes into its sample: a tenth of a step.
    host.Steady(1, {kStepBytes - 1'880, 1'000'000});
    EXPECT_EQ(TimeOf(*host.Clock(), kStep - kStep / 10), 1'000'000);
    host.SteadyLate(3, 7'000'000);
    EXPECT_EQ(host.Clock()->timeOrigin, 7'000'000);
    // 160 ms: from here on errors are smoothed.
    host.SteadyLate(4, 7'000'160);
    EXPECT_EQ(host.Clock()->timeOrigin, 7'000'000);
    EXPECT_EQ(host.Clock()->correction, 10);
    // Without an arrival there is nothing to compare with.
    host.Steady(5);
    EXPECT_EQ(host.Clock()->correction, 10);
}

// An error of 20 ms or more, ten PCRs long: s = (15 s + 200,000) / 16 reaches 95,105, the sum of s / 100
// 5,731, together more than 100,000.
TEST(PcrClocks, ALastingErrorIsFoldedIntoTheOriginOnce) {
    struct Case {
        const char* name;
        int64_t start;
        int64_t late;  // from the fourth PCR on
        int64_t timeOrigin;
        int64_t pcrOrigin;
    };
    const Case cases[] = {
        {"late", 1'000'000, 10'000'000, 1'095'105, 0},
        {"early", 1'000'000, -10'000'000, 904'895, 0},
        {"before time 0", 50'000, -200'000, 0, 121'783},  // 45,105 of 100 ns
    };
    for (const Case& test : cases) {
        SCOPED_TRACE(test.name);
        Host host(true);
        host.MakeClock();
        int64_t n = 0;
        for (; n < 4; ++n)
            host.SteadyLate(n, test.start);
        for (; n < 13; ++n)
            host.SteadyLate(n, test.start + test.late);
        EXPECT_THAT(host.changes, IsEmpty());
        const int64_t sign = test.late < 0 ? -1 : 1;
        EXPECT_EQ(host.Clock()->correction, sign * 88'112);
        EXPECT_EQ(host.Clock()->correctionSum, sign * 4'780);

        host.SteadyLate(n, test.start + test.late);
        ASSERT_EQ(host.changes.size(), 1u);
        EXPECT_EQ(host.changes[0].pid, kPid);
        EXPECT_EQ(host.changes[0].correction, sign * 95'105);
        for (const PcrClock& clock : {host.changes[0], *host.Clock()}) {
            EXPECT_EQ(clock.timeOrigin, test.timeOrigin);
            EXPECT_EQ(clock.pcrOrigin, test.pcrOrigin);
            EXPECT_NEAR(static_cast<double>(TimeOf(clock, 0)), static_cast<double>(test.start + sign * 95'105), 1);
        }
        EXPECT_EQ(host.Clock()->correction, 0);
        EXPECT_EQ(host.Clock()->correctionSum, 0);
        EXPECT_THAT(host.jumps, IsEmpty());
    }
}

TEST(PcrClocks, ExtremeValuesStayDefined) {
    const int64_t greatestPcr = (int64_t{1} << 33) * 300 - 1;
    const int64_t values[] = {0, 1, 188, int64_t{1} << 31, int64_t{1} << 32, kMax, kMin, kMin + 1, -1};
    const int64_t pcrs[] = {0, 1, 500'000, 5'000'000, greatestPcr};
    for (const int64_t position : values) {
        for (const int64_t time : values) {
            Host host(true);
            host.MakeClock();
            for (const int64_t pcr : pcrs) {
                host.Pcr(pcr, 188, {position, time});
                host.Pcr(pcr + 1, position, {188, time});
                host.Feed(kPid, {.discontinuity = true}, position);
                host.Pcr(pcr, position, {position, ~time});
                host.clocks.ForEach([&](PcrClock& clock) {
                    clock.pcrDelta = std::numeric_limits<int32_t>::min();
                    clock.byteDelta = -1;
                });
                host.Pcr(pcr, kMax, {kMin + 1, time});
            }
            EXPECT_EQ(host.Clock()->lastPcr, greatestPcr);
        }
    }
    // Twice at one position: a distance of 0 bytes counts as 1.
    Host host(true);
    host.MakeClock();
    host.Pcr(0, 188);
    host.Pcr(10, 188);
    EXPECT_EQ(host.Clock()->byteDelta, 0);
    host.Pcr(30, 190);
    EXPECT_THAT(host.jumps, IsEmpty());
    // No prediction is further off than what 64 bits hold, and a known time stays known.
    host.clocks.ForEach([](PcrClock& clock) { clock.timeOrigin = kMin + 1; });
    host.Pcr(greatestPcr, 192);
    EXPECT_THAT(host.jumps, ElementsAre(kPid));
    EXPECT_NE(host.Clock()->timeOrigin, kMin);
}

TEST(PcrClocks, AnOutputMayCallBackFromANotice) {
    enum Notice { kIndicator, kJump, kFold };
    for (const Notice notice : {kIndicator, kJump, kFold}) {
        SCOPED_TRACE(notice);
        Host host(true);
        host.MakeClock();
        for (int64_t n = 0; n < 4; ++n)
            host.SteadyLate(n, 0);
        // Another thread gets the lock during the notice, and deletes the clock.
        int calls = 0;
        host.duringNotice = [&] {
            ++calls;
            std::thread([&] {
                host.clocks.BeginUpdate(PcrClocks::Stale::kDrop);
                host.clocks.Clear();
            }).join();
            host.clocks.EndUpdate(PcrClocks::Stale::kDrop, PcrClocks::Missing::kMake);
        };
        if (notice == kIndicator)
            host.Feed(kPid, {.discontinuity = true, .pcr = 4 * kStep}, 4 * kStepBytes);
        else if (notice == kJump)
            host.Pcr(500 * kStep, 4 * kStepBytes);
        else
            for (int64_t n = 4; n < 14; ++n)
                host.SteadyLate(n, 10'000'000);
        EXPECT_EQ(calls, 1);
        EXPECT_EQ(host.Clock()->pcrOrigin, kMin) << "the step went on with the new clock";
        EXPECT_EQ(host.Clock()->discontinuityPending, 0);
    }
}

// A filter that arrivals reach at that time, and what comes in.
constexpr REFERENCE_TIME kNow = 4'000;

void Parse(BareFilter& filter, build::StreamBuilder& stream) {
    filter.m_time = kNow;
    filter.NoteArrival();
    filter.Feed(stream.Null().bytes());  // the last packet waits for what follows
    stream.bytes().clear();
}

std::vector<PcrClock> AllClocks(BareFilter& filter) {
    std::vector<PcrClock> clocks;
    filter.Clocks().ForEach([&clocks](const PcrClock& clock) { clocks.push_back(clock); });
    return clocks;
}

class Sink final : public IPacketSink {
public:
    explicit Sink(int32_t pid) : pcrPid(pid) {}
    int DeliverPacket(const uint8_t*, const TsHeader&, const AdaptationFieldHeader&, bool) override { return 0; }
    int DeliverSection(const TsHeader&, std::span<const uint8_t>) override { return 0; }
    int32_t GetPcrPid() const override { return pcrPid; }
    void NotifyDiscontinuity(int32_t code, IUnknown*) override { jumps += code; }
    void NotifyClockChange(const PcrClock&) override { ++changes; }

    const int32_t pcrPid;
    int jumps = 0;
    int changes = 0;
};

TEST(FilterClocks, FollowTheStreamTellTheSinksAndGoWithTheTransportStream) {
    for (const StreamingMode mode :
         {StreamingMode::kLive, StreamingMode::kStream, StreamingMode::kRecording, StreamingMode::kFile}) {
        SCOPED_TRACE(static_cast<int>(mode));
        const auto filter = MakeFilter(mode);
        Sink mine(kPid);
        Sink other(0x102);
        for (Sink* sink : {&mine, &other})
            filter->Router().Attach(sink);
        filter->BeginPcrUpdate();
        filter->EndPcrUpdate();

        build::StreamBuilder stream;
        // A section counts when the next one starts.
        stream.Section(0, build::Pat(1, {})).Section(0, build::Pat(1, {}));
        Parse(*filter, stream);
        EXPECT_THAT(AllClocks(*filter), IsEmpty()) << "a PAT of another stream came";
        filter->BeginPcrUpdate();
        filter->EndPcrUpdate();
        ASSERT_EQ(AllClocks(*filter).size(), 2u);

        const int64_t before = filter->Parser().StreamPosition();
        stream.Pcr(0x333, 5);
        stream.Pcr(kPid, 7, {.transportError = true});
        stream.Pcr(kPid, 8, {.scrambling = 2});
        stream.Pcr(kPid, 9, {.adaptationLength = uint8_t{184}});
        stream.Pcr(kPid, 1'000);
        Parse(*filter, stream);
        ASSERT_EQ(AllClocks(*filter).size(), 2u);
        const PcrClock clock = AllClocks(*filter)[0];
        EXPECT_EQ(clock.pcrOrigin, 1'000);
        EXPECT_EQ(clock.lastPosition, before + 188 + 4 * 188) << "the null packet before it came first";
        EXPECT_EQ(clock.timeOrigin, mode == StreamingMode::kLive ? kNow : kMin);

        stream.Pcr(kPid, 2'000, {.discontinuity = true});
        Parse(*filter, stream);
        EXPECT_EQ(mine.jumps, 1);
        EXPECT_EQ(other.jumps, 0);
        filter->Router().NotifyClockChange(clock);
        EXPECT_EQ(mine.changes + other.changes, 2) << "contents look for their PID themselves";

        stream.Section(0, build::Pat(2, {})).Section(0, build::Pat(2, {}));
        stream.Pcr(kPid, 3'000);
        Parse(*filter, stream);
        EXPECT_THAT(AllClocks(*filter), IsEmpty());
        EXPECT_EQ(filter->AddTablePid(0, 0, 0), E_ACCESSDENIED) << "the filter of the PAT stays";

        filter->EndPcrUpdate();
        filter->InternalReset();
        EXPECT_THAT(AllClocks(*filter), IsEmpty());
        for (Sink* sink : {&mine, &other})
            filter->Router().Detach(sink);
    }
}

}  // namespace
}  // namespace tessel
