// The history ring: the next entry overwrites the oldest once the ring is full.
#include "probe/history.h"

void History::add(const HistoryEntry& entry) {
    ring_[next_] = entry;
    next_ = (next_ + 1) % CAPACITY;
    if (count_ < CAPACITY) {
        ++count_;
    }
}

const HistoryEntry& History::at(std::size_t index) const {
    const std::size_t oldest = count_ < CAPACITY ? 0 : next_;
    return ring_[(oldest + index) % CAPACITY];
}
