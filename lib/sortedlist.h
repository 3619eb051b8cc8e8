// KyISortedList: a pointer list that can be put in ascending order of its items (the
// event loop keeps its timeouts in one). The sort is a plain quicksort around the middle
// element and is not stable: equal items end up in no particular order.
#pragma once

#include <cstddef>
#include <utility>

#include "lib/dlist.h"

template <typename T>
class KyISortedList : public KyIList<T> {
public:
    using KyIList<T>::KyIList;

    // Orders the items by T's operator<. The list is always packed, so the compaction
    // step that precedes sorting has nothing to do.
    void Sort() {
        if (this->Length() > 1) {
            QuickSort(0, static_cast<long>(this->Length()) - 1);
        }
    }

private:
    void Swap(long a, long b) { std::swap((*this)[Index(a)], (*this)[Index(b)]); }
    static std::size_t Index(long i) { return static_cast<std::size_t>(i); }

    // The middle element goes to the front as pivot; everything strictly below it is
    // gathered behind it, then the pivot moves between the two parts.
    void QuickSort(long low, long high) {
        if (low >= high) {
            return;
        }
        Swap(low, (low + high) / 2);
        long last = low;
        for (long i = low + 1; i <= high; ++i) {
            if (*(*this)[Index(i)] < *(*this)[Index(low)]) {
                Swap(++last, i);
            }
        }
        Swap(low, last);
        QuickSort(low, last - 1);
        QuickSort(last + 1, high);
    }
};
