// Tests of the sample cache: bounded size with oldest-first eviction, and the averages of
// the newest samples with their rounding and unit conversion.
#include "probe/cache.h"

#include <gtest/gtest.h>

namespace {

void addIdle(Cache& cache, unsigned int idle) {
    cache.addToCache(idle, 0, 0, 0, 0);
}

TEST(CacheTest, EvictsOldestFirstAndKeepsTheMinimumSize) {
    Cache cache(10, 786432, 262144);
    addIdle(cache, 100);
    for (unsigned int idle = 1; idle <= 9; ++idle) {
        addIdle(cache, idle);
    }
    cache.setCacheSize(4);
    EXPECT_EQ(cache.getLength(), 10u) << "never below the minimum";

    addIdle(cache, 0);
    EXPECT_EQ(cache.getLength(), 10u);
    EXPECT_EQ(cache.getAverageOfNIdleValues(10)->getIdle(), 4u) << "the 100 went first: 45 / 10";

    cache.setCacheSize(20);
    for (unsigned int idle = 0; idle < 10; ++idle) {
        addIdle(cache, 100);
    }
    EXPECT_EQ(cache.getLength(), 20u) << "growing lets the cache fill";
    cache.setCacheSize(12);
    EXPECT_EQ(cache.getLength(), 12u);
    // Of the older batch only 9 and 0 are left: (9 + 0 + 1000) / 12 = 84.08.
    EXPECT_EQ(cache.getAverageOfNIdleValues(12)->getIdle(), 84u);
}

TEST(CacheTest, AveragesTheNewestSamplesDividingByWhatIsThere) {
    Cache cache(10, 0, 0);
    EXPECT_EQ(cache.getAverageOfNIdleValues(5), nullptr);

    for (unsigned int idle : {90u, 10u, 20u, 30u}) {
        addIdle(cache, idle);
    }
    EXPECT_EQ(cache.getAverageOfNIdleValues(3)->getIdle(), 20u) << "the oldest is skipped";
    EXPECT_EQ(cache.getAverageOfNIdleValues(50)->getIdle(), 38u) << "150 / 4, not / 50";
    EXPECT_EQ(cache.getAverageOfNIdleValues(0), nullptr);
}

TEST(CacheTest, RoundsHalvesToEvenAndConvertsMemoryToMbOnlyAfterAveraging) {
    Cache low(10, 0, 0);
    addIdle(low, 40);
    addIdle(low, 41);
    EXPECT_EQ(low.getAverageOfNIdleValues(2)->getIdle(), 40u);

    Cache high(10, 0, 0);
    high.addToCache(41, 1536, 2560, 2, 2);
    high.addToCache(42, 1536, 2560, 3, 5);
    auto packet = high.getAverageOfNIdleValues(2);
    EXPECT_EQ(packet->getIdle(), 42u);
    EXPECT_EQ(packet->getVirtualMemFree(), 2u) << "1.5 Mb";
    EXPECT_EQ(packet->getPhysMemFree(), 2u) << "2.5 Mb";
    EXPECT_EQ(packet->getSwappedIn(), 2u) << "2.5";
    EXPECT_EQ(packet->getSwappedOut(), 4u) << "3.5";

    // Each sample alone is under half a Mb, so converting per sample would give 0.
    Cache small(10, 0, 0);
    small.addToCache(0, 500, 1000, 0, 0);
    small.addToCache(0, 500, 1000, 0, 0);
    small.addToCache(0, 1100, 2400, 0, 0);
    packet = small.getAverageOfNIdleValues(3);
    EXPECT_EQ(packet->getVirtualMemFree(), 1u);
    EXPECT_EQ(packet->getPhysMemFree(), 1u);
    EXPECT_EQ(small.getLastVmemFree(), 1100u);
}

} // namespace
