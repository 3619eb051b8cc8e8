// Lists, sparse arrays and bit sets: ordering, packing after removal, growth in steps,
// iteration and ownership of items.
#include "lib/dlist.h"

#include <gtest/gtest.h>

#include <vector>

#include "lib/bitset.h"
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

TEST(DList, RemovalPacksAndKeepsInsertionOrder) {
    KyDList<char> list;
    list.Insert('a');
    list.Insert('b');
    list.Insert('c');
    const auto before = list.Stamp();

    KyDListIterator<char> it(list);
    ++it;
    ++it;
    ASSERT_EQ(it.Current(), 'b');
    list.Remove(it);
    EXPECT_NE(list.Stamp(), before);
    EXPECT_EQ(list.Length(), 2u);
    ASSERT_TRUE(++it);
    EXPECT_EQ(it.Current(), 'c');
    EXPECT_FALSE(++it);

    list.Insert('d');
    EXPECT_EQ(Walk(list), (std::vector<char>{'a', 'c', 'd'}));
    EXPECT_EQ(list[2], 'd');

    EXPECT_EQ(list.RemoveValue('a'), Success);
    EXPECT_EQ(list.RemoveValue('x'), Failure);
    EXPECT_EQ(Walk(list), (std::vector<char>{'c', 'd'}));
}

TEST(DList, WalkingRemovesGrowsAndResets) {
    KyDList<int> list(2);
    for (int i = 0; i < 25; ++i) {
        list.Insert(i);
    }
    KyDListIterator<int> it(list);
    while (++it) {
        if (it.Current() % 3 != 0) {
            list.Remove(it);
        }
    }
    EXPECT_FALSE(++it);
    EXPECT_EQ(Walk(list), (std::vector<int>{0, 3, 6, 9, 12, 15, 18, 21, 24}));
    it.Reset();
    ASSERT_TRUE(++it);
    EXPECT_EQ(it.Current(), 0);

    list.Flush();
    KyDListIterator<int> none(list);
    EXPECT_FALSE(++none);
    list.Insert(42);
    EXPECT_EQ(Walk(list), (std::vector<int>{42}));
}

struct Counted {
    explicit Counted(int& live) : live_(live) { ++live_; }
    ~Counted() { --live_; }
    int& live_;
};

TEST(IList, FlushDeletesOnlyWhenAsked) {
    int live = 0;
    KyIList<Counted> list;
    Counted kept(live);
    list.Insert(&kept);
    list.Flush(false);
    list.Insert(new Counted(live));
    list.Flush(true);
    EXPECT_EQ(live, 1);
    EXPECT_EQ(list.Length(), 0u);
}

TEST(SparseArray, GrowsInStepsAndReadsEmptySlots) {
    KyDSparseArray<int> array(10);
    array.Set(25, 7);
    EXPECT_EQ(array.Size(), 30u);
    EXPECT_FALSE(array.IsSet(24));
    EXPECT_EQ(array[24], 0);
    EXPECT_EQ(array[1000], 0);
    array.Set(30, 1);
    EXPECT_EQ(array.Size(), 40u);
    array.Unset(25);
    EXPECT_FALSE(array.IsSet(25));
    EXPECT_EQ(array[25], 0);
}

TEST(BitSet, IteratesMembersInAscendingOrder) {
    KyBitSet set(8);
    for (std::size_t bit : {130u, 2u, 64u, 63u, 0u}) {
        set.Set(bit);
    }
    set.Unset(2);
    set.Unset(5000);
    EXPECT_EQ(set.Count(), 4u);
    EXPECT_TRUE(set.IsSet(130));
    EXPECT_FALSE(set.IsSet(131));
    EXPECT_FALSE(set.IsSet(99999));

    KyBitSetIter it(set);
    std::vector<long> seen;
    for (long bit = it.NextOne(); bit >= 0; bit = it.NextOne()) {
        seen.push_back(bit);
    }
    EXPECT_EQ(seen, (std::vector<long>{0, 63, 64, 130}));
    EXPECT_LT(it.NextOne(), 0);

    set.Zero();
    EXPECT_TRUE(set.IsEmpty());
    KyBitSetIter empty(set);
    EXPECT_LT(empty.NextOne(), 0);
}

} // namespace
