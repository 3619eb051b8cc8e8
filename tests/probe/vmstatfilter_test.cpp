// Tests of the load-tool output filter: header skipping per run, the 22-column scan,
// rejection of unrecognised output, the run average and the filter factory.
#include "probe/cache.h"
#include "probe/vmstatfilter.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>

namespace {

const std::string kHeaders = "kthr memory page\n r b w swap free\n 0 0 0 9 9 0 0 0 0 0 0 0 0 0 0 "
                             "0 0 0 0 1 1 98\n";

// A 22-column sample line with the given idle, free swap, free memory and paging columns.
std::string sample(int idle, long swap = 4096, long memory = 2048, int in = 0, int out = 0) {
    return "0 0 0 " + std::to_string(swap) + " " + std::to_string(memory) + " 0 0 " +
           std::to_string(in) + " " + std::to_string(out) + " 0 0 0 0 0 0 0 0 0 0 1 1 " +
           std::to_string(idle) + "\n";
}

class VmstatFilterTest : public ::testing::Test {
protected:
    void SetUp() override { myCache = &cache; }
    void TearDown() override { myCache = nullptr; }

    // Feeds one chunk as ChildManager does: a writable, NUL-terminated copy.
    bool feed(const std::string& chunk) {
        std::string text = chunk;
        return filter.doFiltering(text.data(), static_cast<int>(text.size()), result);
    }

    Cache cache{10, 1u << 30, 1u << 30};
    VmstatFilter filter{2000000, 1000000};
    int result = 0;
};

TEST_F(VmstatFilterTest, SkipsThreeLinesPerRunAcrossCalls) {
    EXPECT_FALSE(feed(""));
    EXPECT_FALSE(feed("kthr memory")) << "an unterminated heading is not complete";

    filter.resetFilter();
    const auto secondLineEnd = kHeaders.find('\n', kHeaders.find('\n') + 1) + 1;
    EXPECT_TRUE(feed(kHeaders.substr(0, secondLineEnd)));
    EXPECT_EQ(result, -1);
    EXPECT_TRUE(feed(kHeaders.substr(secondLineEnd)));
    EXPECT_EQ(result, -1);
    EXPECT_EQ(cache.getLength(), 0u) << "the since-boot sample is not cached";

    EXPECT_TRUE(feed(sample(40))) << "headers stay skipped for the rest of the run";
    EXPECT_EQ(result, 40);
    EXPECT_EQ(cache.getLength(), 1u);

    filter.resetFilter();
    EXPECT_TRUE(feed(sample(7) + sample(8) + sample(9) + sample(60)));
    EXPECT_EQ(result, 60) << "a new run skips its first three lines again";
}

TEST_F(VmstatFilterTest, AveragesTheRunWithTiesToEvenAndCapsIdle) {
    ASSERT_TRUE(feed(kHeaders + sample(50) + sample(51)));
    EXPECT_EQ(result, 50);

    filter.resetFilter();
    ASSERT_TRUE(feed(kHeaders + sample(51)));
    ASSERT_TRUE(feed(sample(52))) << "the sum carries across calls of one run";
    EXPECT_EQ(result, 52);

    filter.resetFilter();
    ASSERT_TRUE(feed(kHeaders + sample(101)));
    EXPECT_EQ(result, 100);
    EXPECT_EQ(cache.getLastIdle(), 100u);
    ASSERT_TRUE(feed(sample(-1))) << "negative idle compares as a huge unsigned";
    EXPECT_EQ(cache.getLastIdle(), 100u);
}

TEST_F(VmstatFilterTest, RejectsMoreThanThreeSuccessiveBadLines) {
    const std::string bad = "procs -----------memory----------\n";
    const std::string shortLine = "1 2 3 4 5 6 7 8 9 10 11 12 13 14 15 16 17 18 19 20 21\n";
    const std::string wordInside = "1 2 3 x 5 6 7 8 9 10 11 12 13 14 15 16 17 18 19 20 21 22\n";
    EXPECT_TRUE(feed(kHeaders + bad + shortLine + wordInside + sample(20)));
    EXPECT_EQ(result, 20);

    EXPECT_TRUE(feed(bad + bad + bad + sample(30) + bad + bad + bad + sample(40)))
        << "a good line restarts the count";
    EXPECT_EQ(result, 30);

    const auto cached = cache.getLength();
    EXPECT_FALSE(feed(sample(90) + bad + bad + bad + bad + sample(10)));
    EXPECT_EQ(cache.getLength(), cached + 1) << "lines before the rejection stay cached";
}

TEST_F(VmstatFilterTest, UnterminatedLastLineEndsTheCall) {
    std::string text = kHeaders + sample(10) + sample(20);
    text.pop_back();
    EXPECT_FALSE(feed(text));
    EXPECT_EQ(cache.getLength(), 2u) << "complete lines are cached before the refusal";

    const std::string extra = "1 2 3 4 5 6 7 8 9 10 11 12 13 14 15 16 17 18 19 20 21 22 23 24\n";
    EXPECT_TRUE(feed(extra)) << "columns past the 22nd are ignored";
    EXPECT_EQ(cache.getLastIdle(), 22u);
}

TEST(FilterFactoryTest, KnowsOnlyTheExactVmstatName) {
    EXPECT_NE(std::unique_ptr<BaseFilter>(BaseFilter::createFilter("vmstatFilter", 1, 1)), nullptr);
    for (const char* name : {"VmstatFilter", "sarFilter", ""})
        EXPECT_EQ(BaseFilter::createFilter(name, 1, 1), nullptr) << name;
}

} // namespace
