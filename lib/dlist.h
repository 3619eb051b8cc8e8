// The list family: KyDList stores values in insertion order on a sparse array and keeps
// them packed; KyIList stores item pointers and deletes the items only when asked. Their
// iterators walk the elements once, in order. Lists are used throughout the library and
// the probe (cache samples, hosts, circuits, timeouts, address lists, split strings).
#pragma once

#include <cstddef>
#include <utility>

#include "lib/numbers.h"
#include "lib/sparsearray.h"

template <typename T>
class KyDListIterator;

template <typename T>
class KyDList {
public:
    // The step is both the first capacity and the growth step of the storage.
    explicit KyDList(std::size_t step = 10) : slots_(step) {}

    // Appends behind the last element, so iteration order is insertion order.
    KyStatus Insert(const T& item) {
        slots_.Set(end_, item);
        ++end_;
        ++count_;
        ++stamp_;
        return Success;
    }

    // Removes the element at index and at once closes the gap: later elements move down
    // one place, so indices stay dense and the end index equals the count again.
    void Remove(std::size_t index) {
        if (index >= count_) {
            return;
        }
        for (std::size_t j = index; j + 1 < end_; ++j) {
            slots_.Slot(j) = std::move(slots_.Slot(j + 1));
        }
        slots_.Unset(end_ - 1);
        --end_;
        --count_;
        ++stamp_;
    }

    // Removes the iterator's current element and steps the iterator back, so its next
    // advance yields the element that followed the removed one.
    void Remove(KyDListIterator<T>& iterator);

    // Removes the first element equal to value; Failure when there is none.
    KyStatus RemoveValue(const T& value) {
        const long index = Find(value);
        if (index < 0) {
            return Failure;
        }
        Remove(static_cast<std::size_t>(index));
        return Success;
    }

    // Index of the first element equal to value, or -1.
    long Find(const T& value) const {
        for (std::size_t i = 0; i < count_; ++i) {
            if (slots_.Slot(i) == value) {
                return static_cast<long>(i);
            }
        }
        return -1;
    }

    void Flush() {
        slots_.Flush();
        end_ = 0;
        count_ = 0;
        ++stamp_;
    }

    std::size_t Length() const { return count_; }
    bool IsEmpty() const { return count_ == 0; }
    // Changes with every insertion and removal, so a walker can tell the list moved on.
    unsigned long Stamp() const { return stamp_; }

    // Elements are packed, so position i is the i-th element; i must be below Length().
    T& operator[](std::size_t i) { return slots_.Slot(i); }
    const T& operator[](std::size_t i) const { return slots_.Slot(i); }

    T* begin() { return count_ == 0 ? nullptr : &slots_.Slot(0); }
    T* end() { return begin() + count_; }
    const T* begin() const { return count_ == 0 ? nullptr : &slots_.Slot(0); }
    const T* end() const { return begin() + count_; }

private:
    KyDSparseArray<T> slots_;
    std::size_t end_ = 0;
    std::size_t count_ = 0;
    unsigned long stamp_ = 0;
};

// Starts before the first element: each successful ++ moves onto the next one, and ++
// returns false once Length() elements have been visited.
//     KyDListIterator<T> it(list);
//     while (++it) { use(it.Current()); }
template <typename T>
class KyDListIterator {
public:
    explicit KyDListIterator(KyDList<T>& list) : list_(&list) {}

    bool operator++() {
        if (next_ >= list_->Length()) {
            return false;
        }
        ++next_;
        return true;
    }
    bool operator++(int) { return ++*this; }

    T& Current() const { return (*list_)[next_ - 1]; }
    // Position of the current element; only meaningful after a successful ++.
    std::size_t Index() const { return next_ - 1; }
    void Reset() { next_ = 0; }

private:
    friend class KyDList<T>;

    KyDList<T>* list_;
    std::size_t next_ = 0;
};

template <typename T>
void KyDList<T>::Remove(KyDListIterator<T>& iterator) {
    if (iterator.next_ == 0) {
        return;
    }
    Remove(iterator.next_ - 1);
    --iterator.next_;
}

// A list of item pointers. Destroying or flushing the list leaves the items alone unless
// Flush(true) asks for them to be deleted.
template <typename T>
class KyIList : public KyDList<T*> {
public:
    using KyDList<T*>::KyDList;

    void Flush(bool deleteItems = false) {
        if (deleteItems) {
            for (T* item : *this) {
                delete item;
            }
        }
        KyDList<T*>::Flush();
    }
};

template <typename T>
class KyIListIterator : public KyDListIterator<T*> {
public:
    explicit KyIListIterator(KyIList<T>& list) : KyDListIterator<T*>(list) {}
};
