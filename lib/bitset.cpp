// Word-wise bit storage for KyBitSet and its ascending iterator.
#include "lib/bitset.h"

#include <bit>

KyBitSet::KyBitSet(std::size_t size) {
    Resize(size);
}

void KyBitSet::Resize(std::size_t size) {
    words_.resize((size + kWordBits - 1) / kWordBits, 0);
}

void KyBitSet::Set(std::size_t bit) {
    if (bit >= Size()) {
        Resize(bit + 1);
    }
    words_[bit / kWordBits] |= std::uint64_t{1} << (bit % kWordBits);
}

void KyBitSet::Unset(std::size_t bit) {
    if (bit < Size()) {
        words_[bit / kWordBits] &= ~(std::uint64_t{1} << (bit % kWordBits));
    }
}

bool KyBitSet::IsSet(std::size_t bit) const {
    return bit < Size() && (words_[bit / kWordBits] >> (bit % kWordBits)) & 1;
}

void KyBitSet::Zero() {
    for (auto& word : words_) {
        word = 0;
    }
}

bool KyBitSet::IsEmpty() const {
    for (auto word : words_) {
        if (word != 0) {
            return false;
        }
    }
    return true;
}

std::size_t KyBitSet::Count() const {
    std::size_t count = 0;
    for (auto word : words_) {
        count += static_cast<std::size_t>(std::popcount(word));
    }
    return count;
}

long KyBitSetIter::NextOne() {
    const std::size_t size = set_.Size();
    while (next_ < size) {
        const std::size_t index = next_ / KyBitSet::kWordBits;
        const std::size_t offset = next_ % KyBitSet::kWordBits;
        const std::uint64_t rest = set_.words_[index] >> offset;
        if (rest == 0) {
            next_ = (index + 1) * KyBitSet::kWordBits;
            continue;
        }
        const std::size_t found = next_ + static_cast<std::size_t>(std::countr_zero(rest));
        next_ = found + 1;
        return static_cast<long>(found);
    }
    return -1;
}
