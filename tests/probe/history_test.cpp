// The history ring keeps the newest entries, oldest first, and overwrites in order.
#include <gtest/gtest.h>

#include "probe/history.h"

TEST(History, KeepsTheNewestEntriesOldestFirst) {
    History history;
    history.add({1, 1});
    ASSERT_EQ(history.size(), 1u);
    // Past the capacity, each new entry replaces the oldest.
    for (std::uint32_t i = 2; i <= History::CAPACITY + 5; ++i) {
        history.add({std::time_t(i), i});
    }
    ASSERT_EQ(history.size(), History::CAPACITY);
    EXPECT_EQ(history.at(0).idle, 6u);
    EXPECT_EQ(history.at(History::CAPACITY - 1).idle, History::CAPACITY + 5);
    for (std::size_t i = 1; i < history.size(); ++i) {
        ASSERT_EQ(history.at(i).idle, history.at(i - 1).idle + 1) << i;
    }
}
