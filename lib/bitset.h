// KyBitSet: a growable set of small non-negative integers, and KyBitSetIter, which walks
// the members in ascending order. The process object records pending signals in one, and
// the sparse array marks its occupied slots with one.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

class KyBitSet {
public:
    // Reserving room up front matters for the signal set: Set() on a bit inside the
    // current size never allocates, so it is safe in a signal handler.
    explicit KyBitSet(std::size_t size = 0);

    void Set(std::size_t bit);
    void Unset(std::size_t bit);
    bool IsSet(std::size_t bit) const;
    void Zero();
    bool IsEmpty() const;
    std::size_t Count() const;
    // Number of bits held without growing.
    std::size_t Size() const { return words_.size() * kWordBits; }
    void Resize(std::size_t size);

private:
    friend class KyBitSetIter;
    static constexpr std::size_t kWordBits = 64;

    std::vector<std::uint64_t> words_;
};

class KyBitSetIter {
public:
    explicit KyBitSetIter(const KyBitSet& set) : set_(set) {}

    // The next member above the last one returned, or -1 when there is none.
    long NextOne();
    void Reset() { next_ = 0; }

private:
    const KyBitSet& set_;
    std::size_t next_ = 0;
};
