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

// The 13th item in four buckets makes the table rebuild itself before it goes in.
TEST(Dictionary, FindsEveryItemAfterARebuild) {
    KyDictionary<Entry> table(4);
    for (unsigned key = 0; key <= 12; ++key) {
        ASSERT_EQ(table.Insert(new Entry(key)), Success);
    }
    for (unsigned key = 0; key <= 12; ++key) {
        const Entry* found = table.Find(Entry(key));
        ASSERT_NE(found, nullptr);
        EXPECT_EQ(found->key, key);
    }
    table.Flush(true);
    EXPECT_EQ(table.Length(), 0u);
}

TEST(Dictionary, RefusesEqualItemsAndRemovesByKey) {
    KyDictionary<Entry> table(4);
    Entry first(7);
    Entry again(7);
    Entry other(11); // same bucket as 7
    EXPECT_EQ(table.Insert(&first), Success);
    EXPECT_EQ(table.Insert(&again), Failure);
    EXPECT_EQ(table.Insert(&other), Success);
    EXPECT_EQ(table.Length(), 2u);
    EXPECT_EQ(table.Find(Entry(7)), &first);
    EXPECT_EQ(table.Find(Entry(3)), nullptr);

    EXPECT_EQ(table.Remove(Entry(7)), &first);
    EXPECT_EQ(table.Remove(Entry(7)), nullptr);
    EXPECT_EQ(table.Find(Entry(11)), &other);
    EXPECT_EQ(table.Length(), 1u);
    table.Flush(false);
}

struct Stamp {
    int time;
    bool operator<(const Stamp& other) const { return time < other.time; }
};

TEST(SortedList, SortsAscendingWithDuplicatesAfterARemoval) {
    std::vector<Stamp> stamps{{5}, {1}, {9}, {5}, {0}, {7}, {3}, {1}};
    KyISortedList<Stamp> list;
    for (Stamp& stamp : stamps)
        list.Insert(&stamp);
    list.Remove(std::size_t{0});
    list.Sort();
    std::vector<int> times;
    for (const Stamp* stamp : list)
        times.push_back(stamp->time);
    EXPECT_EQ(times, (std::vector<int>{0, 1, 1, 3, 5, 7, 9}));
}

} // namespace
