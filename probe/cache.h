// The sample cache: the probe's one store of recent load samples. The output filter adds
// one CacheObject per sample line; subscribed hosts ask for the rounded average of the
// newest samples as a StatsPacket; the status report reads the newest values.
#pragma once

#include "lib/time.h"
#include "probe/history.h"

#include <cstdint>
#include <deque>
#include <memory>

// The five figures of one load reading, in the order they travel: idle percent, free
// virtual and physical memory, pages swapped in and out.
class LoadFigures {
public:
    LoadFigures(unsigned int idle, unsigned int virtualMemFree, unsigned int physMemFree,
                unsigned int swappedIn, unsigned int swappedOut)
        : idle_(idle), virtualMemFree_(virtualMemFree), physMemFree_(physMemFree),
          swappedIn_(swappedIn), swappedOut_(swappedOut) {}

    unsigned int getIdle() const { return idle_; }
    unsigned int getVirtualMemFree() const { return virtualMemFree_; }
    unsigned int getPhysMemFree() const { return physMemFree_; }
    unsigned int getSwappedIn() const { return swappedIn_; }
    unsigned int getSwappedOut() const { return swappedOut_; }

private:
    std::uint32_t idle_;
    std::uint32_t virtualMemFree_;
    std::uint32_t physMemFree_;
    std::uint32_t swappedIn_;
    std::uint32_t swappedOut_;
};

// One sample as the load tool reported it: memory in Kb, swap counts per interval.
class CacheObject : public LoadFigures {
public:
    using LoadFigures::LoadFigures;
};

// An averaged sample as it goes out to a host: memory in Mb.
class StatsPacket : public LoadFigures {
public:
    using LoadFigures::LoadFigures;
};

class Cache {
public:
    Cache(unsigned int minCacheSize, unsigned int maxVirtualMemory, unsigned int maxPhysicalMemory);

    void addToCache(unsigned int idle, unsigned int vmemFree, unsigned int physMemFree,
                    unsigned int swappedIn, unsigned int swappedOut);
    // Never below the minimum cache size; shrinking evicts the oldest samples at once.
    void setCacheSize(unsigned int size);
    void resizeCache();
    // Average of the newest min(n, samples held) samples; null for an empty cache or n = 0.
    std::unique_ptr<StatsPacket> getAverageOfNIdleValues(unsigned int n) const;

    unsigned int getLastIdle() const { return lastIdle_; }
    unsigned int getLastVmemFree() const { return lastVmemFree_; }
    const KyTimeVal& getLastTime() const { return lastTime_; }
    unsigned int getCacheSize() const { return cacheSize_; }
    std::size_t getLength() const { return samples_.size(); }
    // Samples cached since start-up.
    std::uint64_t getSamplesAdded() const { return added_; }
    // The newest samples with their times, kept apart from the cache's own size rules.
    const History& getHistory() const { return history_; }

private:
    std::deque<CacheObject> samples_; // oldest first
    unsigned int cacheSize_;
    unsigned int minCacheSize_;
    // Configured maxima, kept with the object that was built from them; no reading uses them.
    [[maybe_unused]] unsigned int maxVirtualMemory_;
    [[maybe_unused]] unsigned int maxPhysicalMemory_;
    unsigned int highestIdle_ = 0;
    unsigned int lastIdle_ = 0;
    unsigned int lastVmemFree_ = 0;
    KyTimeVal lastTime_;
    std::uint64_t added_ = 0;
    History history_;
};

// The probe's one cache, made at start-up.
extern Cache* myCache;
