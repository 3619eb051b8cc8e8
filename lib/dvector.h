// KyDVector: the library's plain heap array of values with an explicit size. The sparse
// array (and through it every list) stores its slots in one; std::vector sits underneath
// and already keeps the leading elements on a resize.
#pragma once

#include <cstddef>
#include <vector>

template <typename T>
class KyDVector {
public:
    explicit KyDVector(std::size_t size = 0) : items_(size) {}

    // Keeps the first min(old size, n) elements; new slots hold the empty value.
    void Resize(std::size_t n) { items_.resize(n); }
    void Zero() {
        for (T& item : items_) {
            item = T{};
        }
    }
    std::size_t Size() const { return items_.size(); }

    // Unchecked, like a raw array: callers keep indices below Size().
    T& operator[](std::size_t i) { return items_[i]; }
    const T& operator[](std::size_t i) const { return items_[i]; }

    T* begin() { return items_.data(); }
    T* end() { return items_.data() + items_.size(); }
    const T* begin() const { return items_.data(); }
    const T* end() const { return items_.data() + items_.size(); }

private:
    std::vector<T> items_;
};
