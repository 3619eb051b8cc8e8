// Hash dictionary growth, duplicate refusal and removal, and the sorted pointer list. Expiry
// and the assocs that own their values run in the DNS cache's test, their only user.
#include "lib/dictionary.h"

#include <gtest/gtest.h>

#include <vector>

#include "lib/sortedlist.h"

namespace {

struct Entry {
    explicit Entry(unsigned key) : key(key) {}
    unsigned key;
    bool operator==(const Entry& other) const { return key == other.key; }
    std::uint32_t HashValue() const { return key; }
};

// Four buckets: 7 and 11 share one, and the 13th item makes the table rebuild itself.
TEST(Dictionary, RefusesEqualItemsRemovesByKeyAndFindsAllAfterARebuild) {
    KyDictionary<Entry> table(4);
    Entry first(7), again(7), other(11);
    EXPECT_EQ(table.Insert(&first), Success);
    EXPECT_EQ(table.Insert(&again), Failure);
    EXPECT_EQ(table.Insert(&other), Success);
    EXPECT_EQ(table.Remove(Entry(7)), &first);
    EXPECT_EQ(table.Remove(Entry(7)), nullptr);
    EXPECT_EQ(table.Find(Entry(11)), &other);
    EXPECT_EQ(table.Remove(Entry(11)), &other);

    for (unsigned key = 0; key <= 12; ++key) {
        ASSERT_EQ(table.Insert(new Entry(key)), Success);
    }
    for (unsigned key = 0; key <= 12; ++key) {
        const Entry* found = table.Find(Entry(key));
        ASSERT_NE(found, nullptr);
        EXPECT_EQ(found->key, key);
    }
    EXPECT_EQ(table.Find(Entry(13)), nullptr);
    table.Flush(true);
    EXPECT_EQ(table.Length(), 0u);
}

struct Stamp {
    int time;
    bool operator<(const Stamp& other) const { return time < other.time; }
};

TEST(SortedList, SortsAscendingWithDuplicates) {
    std::vector<Stamp> stamps{{5}, {1}, {9}, {5}, {0}, {3}};
    KyISortedList<Stamp> list;
    for (Stamp& stamp : stamps)
        list.Insert(&stamp);
    list.Sort();
    std::vector<int> times;
    for (const Stamp* stamp : list)
        times.push_back(stamp->time);
    EXPECT_EQ(times, (std::vector<int>{0, 1, 3, 5, 5, 9}));
}

} // namespace
