// History: the newest cached samples, up to a fixed number (an hour at a 5 s sample rate),
// with the time each arrived, for the status page's chart. A ring of plain entries: its
// memory is fixed at construction and nothing is allocated per sample.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <ctime>

struct HistoryEntry {
    std::time_t time = 0;
    std::uint32_t idle = 0;
    std::uint32_t virtualMemFree = 0; // Kb
    std::uint32_t physMemFree = 0;    // Kb
    std::uint32_t swappedIn = 0;
    std::uint32_t swappedOut = 0;
};

class History {
public:
    static constexpr std::size_t CAPACITY = 720;

    void add(const HistoryEntry& entry);
    std::size_t size() const { return count_; }
    // Oldest first: at(0) is the oldest entry kept, at(size() - 1) the newest.
    const HistoryEntry& at(std::size_t index) const;

private:
    std::array<HistoryEntry, CAPACITY> ring_{};
    std::size_t next_ = 0; // where the next entry goes
    std::size_t count_ = 0;
};
