// Containers: lists (packing after removal while walking), sparse arrays and bit sets,
// and the hash dictionary (growth, duplicates, removal).
#include "lib/dlist.h"

#include <gtest/gtest.h>

#include <vector>

#include "lib/bitset.h"
#include "lib/dictionary.h"
#include "lib/sparsearray.h"

namespace {

template <typename T>
std::vector<T> Walk(KyDList<T>& list) {
    std::vector<T> seen;
    KyDListIterator<T> it(list);
    while (++it) {
        seen.push_back(it.Current());
    }
    return seen;
}

// Removing the walked element packs the list and the walk goes on with the next one.
TEST(DList, RemovalWhileWalkingPacksAndKeepsInsertionOrder) {
    KyDList<int> list(2);
    for (int i = 0; i < 25; ++i) {
        list.Insert(i);
    }
    const auto before = list.Stamp();
    KyDListIterator<int> it(list);
    while (++it) {
        if (it.Current() % 3 != 0) {
            list.Remove(it);
        }
    }
    EXPECT_NE(list.Stamp(), before);
    EXPECT_EQ(Walk(list), (std::vector<int>{0, 3, 6, 9, 12, 15, 18, 21, 24}));
    EXPECT_EQ(list[2], 6);
    EXPECT_EQ(list.RemoveValue(0), Success);
    EXPECT_EQ(list.RemoveValue(1), Failure);
    list.Insert(42);
    EXPECT_EQ(list.Length(), 9u);
    EXPECT_EQ(list[8], 42);

    list.Flush();
    EXPECT_EQ(Walk(list), std::vector<int>{});
}

// The list's storage: slots grow in steps and unset ones read as empty; the bits that
// mark them are found in order across words.
TEST(SparseArray, GrowsInStepsAndReadsEmptySlots) {
    KyDSparseArray<int> array(10);
    array.Set(25, 7);
    EXPECT_EQ(array.Size(), 30u);
    EXPECT_FALSE(array.IsSet(24));
    EXPECT_EQ(array[1000], 0);
    array.Unset(25);
    EXPECT_EQ(array[25], 0);
    KyBitSet set(8);
    for (std::size_t bit : {130u, 64u, 63u}) {
        set.Set(bit);
    }
    EXPECT_FALSE(set.IsSet(99999));
    KyBitSetIter it(set);
    EXPECT_EQ(it.NextOne(), 63);
    EXPECT_EQ(it.NextOne(), 64);
    EXPECT_EQ(it.NextOne(), 130);
}

struct Entry {
    explicit Entry(unsigned key) : key(key) {}
    unsigned key;
    bool operator==(const Entry& other) const { return key == other.key; }
    std::uint32_t HashValue() const { return key; }
};

// Properties keep their entries here. Four buckets: thirteen items make the table rebuild
// itself, and every one is found after it.
TEST(Dictionary, RefusesEqualItemsRemovesByKeyAndFindsAllAfterARebuild) {
    KyDictionary<Entry> table(4);
    Entry first(7), again(7);
    EXPECT_EQ(table.Insert(&first), Success);
    EXPECT_EQ(table.Insert(&again), Failure);
    EXPECT_EQ(table.Remove(Entry(7)), &first);
    EXPECT_EQ(table.Remove(Entry(7)), nullptr);
    for (unsigned key = 0; key <= 12; ++key) {
        ASSERT_EQ(table.Insert(new Entry(key)), Success);
    }
    for (unsigned key = 0; key <= 13; ++key) {
        EXPECT_EQ(table.Find(Entry(key)) != nullptr, key < 13) << key;
    }
    table.Flush(true);
    EXPECT_EQ(table.Length(), 0u);
}

} // namespace
