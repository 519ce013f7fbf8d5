// When the bytes of a recording are due in live mode.
#include <gtest/gtest.h>

#include "tools/tessel/Pacer.h"

namespace tessel::tool {
namespace {

constexpr int64_t kTick = 27'000'000 / 25;  // 40 ms
constexpr REFERENCE_TIME kStep = 400'000;

TEST(Pacer, FollowsTheClockAndGoesOnAtItsRateOverAJump) {
    Pacer pacer;
    EXPECT_FALSE(pacer.IsKnown());
    pacer.OnPcr(5'000, 100);
    EXPECT_EQ(pacer.DueAt(100), 0);
    EXPECT_EQ(pacer.DueAt(1'000'000), 0) << "no rate yet";
    pacer.OnPcr(5'000 + kTick, 1'100);
    EXPECT_EQ(pacer.DueAt(1'100), kStep);
    EXPECT_EQ(pacer.DueAt(1'600), kStep * 3 / 2);
    pacer.OnPcr(5'000 + 2 * kTick, 3'100);  // half the rate
    EXPECT_EQ(pacer.DueAt(3'100), 2 * kStep);
    EXPECT_EQ(pacer.DueAt(4'100), kStep * 5 / 2);
    for (const int64_t jump : {int64_t{0}, 100 * int64_t{27'000'000}}) {
        Pacer copy = pacer;
        copy.OnPcr(jump, 5'100);
        EXPECT_EQ(copy.DueAt(5'100), 3 * kStep) << "at the last rate";
        copy.OnPcr(jump + kTick, 6'100);
        EXPECT_EQ(copy.DueAt(6'100), 4 * kStep) << "at the new one";
    }
}

}  // namespace
}  // namespace tessel::tool
