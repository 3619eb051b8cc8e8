// Lists, sparse arrays and bit sets: ordering, packing after removal while walking,
// growth in steps, iteration and ownership of items.
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
}

TEST(SparseArray, GrowsInStepsAndIteratesSetBitsInOrder) {
    KyDSparseArray<int> array(10);
    array.Set(25, 7);
    EXPECT_EQ(array.Size(), 30u);
    EXPECT_FALSE(array.IsSet(24));
    EXPECT_EQ(array[1000], 0);
    array.Unset(25);
    EXPECT_EQ(array[25], 0);

    KyBitSet set(8);
    for (std::size_t bit : {130u, 2u, 64u, 63u, 0u}) {
        set.Set(bit);
    }
    set.Unset(2);
    EXPECT_EQ(set.Count(), 4u);
    EXPECT_FALSE(set.IsSet(99999));
    KyBitSetIter it(set);
    std::vector<long> seen;
    for (long bit = it.NextOne(); bit >= 0; bit = it.NextOne()) {
        seen.push_back(bit);
    }
    EXPECT_EQ(seen, (std::vector<long>{0, 63, 64, 130}));
}

} // namespace
