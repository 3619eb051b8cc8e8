// Tests of the CPU speed rating arithmetic, with the timed loop replaced by a fixed speed so
// the tests do not burn a processor second each.
#include "probe/bogomips.h"

#include <gtest/gtest.h>

namespace {

// A processor that runs `loopsPerMicro` loop turns per microsecond of processor time.
Bogomips::LoopTimer speed(unsigned int& loopsPerMicro) {
    return [&loopsPerMicro](int loops) {
        return static_cast<std::clock_t>(static_cast<unsigned int>(loops) / loopsPerMicro);
    };
}

TEST(BogomipsTest, ScalesByProcessorsAndFactor) {
    unsigned int loopsPerMicro = 400; // 400,000,000 loops per second: 800 per processor
    EXPECT_EQ(Bogomips(4, 80, speed(loopsPerMicro)).getBestBogo(), 2560);
    EXPECT_EQ(Bogomips(1, 80, speed(loopsPerMicro)).getBestBogo(), 800);
    EXPECT_EQ(Bogomips(0, 50, speed(loopsPerMicro)).getBestBogo(), 800) << "0 processors is 1";

    // The loop count is divided by the ticks before scaling, so fractions are lost:
    // 2^29 loops in 1,000,001 ticks is 536 per tick.
    EXPECT_EQ(Bogomips::rate(1u << 29, 1000001, 1, 80), 1072);
    EXPECT_EQ(Bogomips::rate(1u << 29, 1000001, 3, 80), 2572); // 3216 * 80 / 100
}

TEST(BogomipsTest, FactorAboveHundredIsUsedOnceThenCapped) {
    unsigned int loopsPerMicro = 400;
    Bogomips rating(2, 150, speed(loopsPerMicro));
    EXPECT_EQ(rating.getBestBogo(), 2400) << "1600 * 150 / 100 in the first measurement";
    ASSERT_TRUE(rating.calculate());
    EXPECT_EQ(rating.getCurrentBogo(), 1280) << "1600 * 80 / 100 afterwards";
    EXPECT_EQ(rating.getBestBogo(), 2400);
    EXPECT_EQ(rating.getLowestBogo(), 1280);
}

TEST(BogomipsTest, BestOnlyGrowsAndLowestOnlyFalls) {
    unsigned int loopsPerMicro = 400;
    Bogomips rating(1, 80, speed(loopsPerMicro));
    loopsPerMicro = 100;
    ASSERT_TRUE(rating.calculate());
    EXPECT_EQ(rating.getBestBogo(), 800);
    EXPECT_EQ(rating.getLowestBogo(), 200);
    loopsPerMicro = 1000;
    ASSERT_TRUE(rating.calculate());
    EXPECT_EQ(rating.getBestBogo(), 2000);
    EXPECT_EQ(rating.getLowestBogo(), 200);
}

TEST(BogomipsTest, NoSecondLongTryKeepsThePreviousRatings) {
    unsigned int loopsPerMicro = 400;
    bool stalled = false;
    Bogomips rating(1, 80, [&](int loops) -> std::clock_t {
        return stalled ? 0 : static_cast<unsigned int>(loops) / loopsPerMicro;
    });
    stalled = true;
    EXPECT_FALSE(rating.calculate());
    EXPECT_EQ(rating.getBestBogo(), 800);
    EXPECT_EQ(rating.getCurrentBogo(), 800);

    Bogomips never(1, 80, [](int) -> std::clock_t { return 999999; });
    EXPECT_EQ(never.getBestBogo(), 0);
}

TEST(BogomipsTest, DelayLoopTakesProcessorTime) {
    const std::clock_t start = std::clock();
    Bogomips::delay(50000000);
    EXPECT_GT(std::clock() - start, 0) << "the loop must not be optimised away";
}

} // namespace
