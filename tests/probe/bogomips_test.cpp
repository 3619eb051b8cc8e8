// Tests of the CPU speed rating arithmetic and its re-rating policy, with the timed loop
// replaced by a fixed speed and the monotonic clock by a settable one, so the tests do not
// burn a processor second each.
#include "probe/bogomips.h"

#include <gtest/gtest.h>

#include <climits>

namespace {

using namespace std::chrono_literals;

// A processor that runs `loopsPerMicro` loop turns per microsecond of processor time.
Bogomips::LoopTimer speed(std::uint64_t& loopsPerMicro) {
    return [&loopsPerMicro](std::uint64_t loops) {
        return static_cast<std::clock_t>(loops / loopsPerMicro);
    };
}

TEST(BogomipsTest, ScalesByProcessorsAndFactor) {
    std::uint64_t loopsPerMicro = 400; // 400,000,000 loops per second: 800 per processor
    EXPECT_EQ(Bogomips(4, 80, speed(loopsPerMicro)).getBestBogo(), 2560);
    EXPECT_EQ(Bogomips(1, 80, speed(loopsPerMicro)).getBestBogo(), 800);
    EXPECT_EQ(Bogomips(0, 50, speed(loopsPerMicro)).getBestBogo(), 800) << "0 processors is 1";

    // 5,000,000,000 loops per second: the count passes 2^32 before a try lasts a second,
    // and so do the loops per second.
    loopsPerMicro = 5000;
    EXPECT_EQ(Bogomips(4, 80, speed(loopsPerMicro)).getBestBogo(), 32000);

    // The loop count is divided by the ticks before scaling, so fractions are lost:
    // 2^29 loops in 1,000,001 ticks is 536 per tick.
    EXPECT_EQ(Bogomips::rate(1u << 29, 1000001, 1, 80), 1072);
    EXPECT_EQ(Bogomips::rate(1u << 29, 1000001, 3, 80), 2572); // 3216 * 80 / 100
    EXPECT_EQ(Bogomips::rate(1ull << 62, 1000000, INT_MAX, 80), INT_MAX) << "capped, not wrapped";
}

TEST(BogomipsTest, BestOnlyGrowsLowestOnlyFallsAndAFactorAboveHundredIsUsedOnce) {
    std::uint64_t loopsPerMicro = 400;
    Bogomips rating(2, 150, speed(loopsPerMicro));
    EXPECT_EQ(rating.getBestBogo(), 2400) << "1600 * 150 / 100 in the first measurement";
    EXPECT_EQ(rating.getLowestBogo(), 2400);
    ASSERT_TRUE(rating.calculate());
    EXPECT_EQ(rating.getCurrentBogo(), 1280) << "1600 * 80 / 100 afterwards";
    EXPECT_EQ(rating.getBestBogo(), 2400);
    EXPECT_EQ(rating.getLowestBogo(), 1280);
    Bogomips hundred(2, 100, speed(loopsPerMicro));
    ASSERT_TRUE(hundred.calculate());
    EXPECT_EQ(hundred.getCurrentBogo(), 1600) << "100 itself is kept";
    loopsPerMicro = 1000;
    ASSERT_TRUE(rating.calculate());
    EXPECT_EQ(rating.getBestBogo(), 3200);
    EXPECT_EQ(rating.getLowestBogo(), 1280);

    // Tries that never last a second: the loop count overflows and no rating is had.
    int tries = 0;
    Bogomips never(1, 80, [&tries](std::uint64_t) -> std::clock_t {
        ++tries;
        return 999999;
    });
    EXPECT_EQ(never.getBestBogo(), 0);
    EXPECT_EQ(tries, 63) << "2, 4, ... 2^63, then the doubling overflows";
}

TEST(BogomipsTest, RatesAgainOnlySixHoursAfterTheLastRatingStarted) {
    std::uint64_t loopsPerMicro = 400;
    auto now = std::chrono::steady_clock::time_point{} + 1000h;
    Bogomips rating(
        1, 80,
        [&](std::uint64_t loops) -> std::clock_t {
            now += 1s; // each try takes time, so the start of the rating is what counts
            return static_cast<std::clock_t>(loops / loopsPerMicro);
        },
        [&] { return now; });
    const auto constructed = now;
    loopsPerMicro = 1000;

    const auto second = constructed + 3h;
    now = second;
    ASSERT_TRUE(rating.calculate()) << "the second start-up rating";
    EXPECT_EQ(rating.getBestBogo(), 2000);

    loopsPerMicro = 2000;
    now = second + 6h - 1s;
    EXPECT_FALSE(rating.recalculateIfStale()) << "six hours after the first is not enough";
    EXPECT_EQ(rating.getBestBogo(), 2000);
    now = second + 6h;
    EXPECT_TRUE(rating.recalculateIfStale());
    EXPECT_EQ(rating.getBestBogo(), 4000);
}

} // namespace
