// Hash dictionary growth, duplicate refusal, removal and expiry, the assoc items, and the
// sorted pointer list.
#include "lib/dictionary.h"

#include <gtest/gtest.h>

#include <vector>

#include "lib/sortedlist.h"

namespace {

struct Entry {
    Entry(unsigned key, bool expirable = true) : key(key), expirable(expirable) {}
    unsigned key;
    bool expirable;
    bool operator==(const Entry& other) const { return key == other.key; }
    std::uint32_t HashValue() const { return key; }
    KyStatus CanItemBeExpired() const { return AsStatus(expirable); }
};

TEST(Dictionary, RebuildsBeforeInsertingPastThreeTimesTheBuckets) {
    KyDictionary<Entry> table(4);
    for (unsigned key = 0; key < 12; ++key) {
        ASSERT_EQ(table.Insert(new Entry(key)), Success);
    }
    EXPECT_EQ(table.BucketCount(), 4u);
    ASSERT_EQ(table.Insert(new Entry(12)), Success);
    EXPECT_EQ(table.BucketCount(), 16u);
    EXPECT_EQ(table.RebuildAllowance(), 26);
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

TEST(Dictionary, ExpiresOnlyWillingItemsDownToTheLimit) {
    KyDictionary<Entry> stubborn(4, 2);
    std::vector<Entry> kept;
    for (unsigned key = 0; key < 6; ++key) {
        kept.emplace_back(key, false);
    }
    for (Entry& entry : kept) {
        stubborn.Insert(&entry);
    }
    EXPECT_EQ(stubborn.Expire(), False);
    EXPECT_EQ(stubborn.Length(), 6u);
    stubborn.Flush(false);

    KyDictionary<Entry> mixed(4, 3);
    for (unsigned key = 0; key < 10; ++key) {
        mixed.Insert(new Entry(key, key % 2 == 0));
    }
    EXPECT_EQ(mixed.Expire(), True);
    EXPECT_EQ(mixed.Length(), 5u); // only the five even keys were willing
    for (unsigned key = 1; key < 10; key += 2) {
        EXPECT_NE(mixed.Find(Entry(key)), nullptr);
    }
    mixed.SetExpiryLimit(10);
    EXPECT_EQ(mixed.Expire(), False);
    mixed.Flush(true);
}

struct Value {
    explicit Value(int& live, bool expirable = true) : live(live), expirable(expirable) { ++live; }
    ~Value() { --live; }
    int& live;
    bool expirable;
    KyStatus CanItemBeExpired() const { return AsStatus(expirable); }
};

TEST(Dictionary, AssocsCompareByKeyAndOwnValuesWhenAsked) {
    int live = 0;
    using Owning = KyDIAssocOwnsMemory<unsigned, Value>;
    KyDictionary<KyDIAssoc<unsigned, Value>> table(2, 1);
    table.Insert(new Owning(1, new Value(live, false)));
    table.Insert(new Owning(2, new Value(live, true)));
    KyDIAssoc<unsigned, Value> duplicate(2);
    EXPECT_EQ(table.Insert(&duplicate), Failure);
    EXPECT_EQ(live, 2);
    EXPECT_EQ(table.Expire(), True);
    EXPECT_EQ(live, 1);
    ASSERT_NE(table.Find(KyDIAssoc<unsigned, Value>(1)), nullptr);
    EXPECT_EQ(table.Delete(KyDIAssoc<unsigned, Value>(1)), Success);
    EXPECT_EQ(live, 0);

    KyDictionary<KyDDAssoc<unsigned, int>> plain;
    plain.Insert(new KyDDAssoc<unsigned, int>(5, 50));
    EXPECT_EQ(plain.Find(KyDDAssoc<unsigned, int>(5))->Value(), 50);
    plain.Flush(true);
}

struct Stamp {
    int time;
    int order;
    bool operator<(const Stamp& other) const { return time < other.time; }
};

TEST(SortedList, SortsAscendingWithDuplicatesAndAfterRemoval) {
    std::vector<Stamp> stamps{{5, 0}, {1, 1}, {9, 2}, {5, 3}, {0, 4}, {7, 5}, {3, 6}, {1, 7}};
    KyISortedList<Stamp> list;
    for (Stamp& stamp : stamps) {
        list.Insert(&stamp);
    }
    list.Sort();
    std::vector<int> times;
    for (Stamp* stamp : list) {
        times.push_back(stamp->time);
    }
    EXPECT_EQ(times, (std::vector<int>{0, 1, 1, 3, 5, 5, 7, 9}));

    list.Remove(std::size_t{0});
    Stamp late{4, 8};
    list.Insert(&late);
    list.Sort();
    times.clear();
    for (Stamp* stamp : list) {
        times.push_back(stamp->time);
    }
    EXPECT_EQ(times, (std::vector<int>{1, 1, 3, 4, 5, 5, 7, 9}));

    KyISortedList<Stamp> single;
    single.Insert(&late);
    single.Sort();
    EXPECT_EQ(single[0], &late);
}

} // namespace
