// KyDSparseArray: an index-addressed array that grows in fixed steps and remembers which
// slots hold a value; KyISparseArray is the same over item pointers (the event loop's
// per-descriptor tables). The list family is built on it.
#pragma once

#include <cstddef>

#include "lib/bitset.h"
#include "lib/dvector.h"

template <typename T>
class KyDSparseArray {
public:
    explicit KyDSparseArray(std::size_t step = 10, std::size_t initialSize = 0)
        : step_(step == 0 ? 1 : step), slots_(initialSize), occupied_(initialSize) {}

    // Grows to the next multiple of the step that covers i, so tables indexed by
    // descriptor number stay small and grow in a predictable way.
    void Set(std::size_t i, const T& value) {
        if (i >= slots_.Size()) {
            slots_.Resize(step_ * (i / step_ + 1));
        }
        slots_[i] = value;
        occupied_.Set(i);
    }

    // A free slot always holds the empty value, so reading never needs the mark.
    void Unset(std::size_t i) {
        if (i < slots_.Size()) {
            slots_[i] = T{};
        }
        occupied_.Unset(i);
    }

    bool IsSet(std::size_t i) const { return occupied_.IsSet(i); }
    T operator[](std::size_t i) const { return i < slots_.Size() ? slots_[i] : T{}; }
    std::size_t Size() const { return slots_.Size(); }
    std::size_t Step() const { return step_; }

    void Flush() {
        slots_.Zero();
        occupied_.Zero();
    }

    // Direct slot access for the containers built on top; i must be below Size().
    T& Slot(std::size_t i) { return slots_[i]; }
    const T& Slot(std::size_t i) const { return slots_[i]; }

private:
    std::size_t step_;
    KyDVector<T> slots_;
    KyBitSet occupied_;
};

template <typename T>
class KyISparseArray : public KyDSparseArray<T*> {
public:
    using KyDSparseArray<T*>::KyDSparseArray;
};
