// The sample cache: a bounded queue of samples evicted oldest first, and the averages the
// hosts receive, rounded to the nearest integer with ties to even.
#include "probe/cache.h"

#include "probe/messages.h"

#include <algorithm>
#include <cmath>

Cache* myCache = nullptr;

namespace {

constexpr float KB_PER_MB = 1024.0f;

unsigned int roundedAverage(double sum, unsigned int divisor) {
    return static_cast<unsigned int>(std::rint(sum / divisor));
}

} // namespace

Cache::Cache(unsigned int minCacheSize, unsigned int maxVirtualMemory,
             unsigned int maxPhysicalMemory)
    : cacheSize_(minCacheSize), minCacheSize_(minCacheSize), maxVirtualMemory_(maxVirtualMemory),
      maxPhysicalMemory_(maxPhysicalMemory) {}

void Cache::addToCache(unsigned int idle, unsigned int vmemFree, unsigned int physMemFree,
                       unsigned int swappedIn, unsigned int swappedOut) {
    samples_.emplace_back(idle, vmemFree, physMemFree, swappedIn, swappedOut);
    ++added_;
    resizeCache();
    lastIdle_ = idle;
    lastVmemFree_ = vmemFree;
    highestIdle_ = std::max(highestIdle_, idle);
    lastTime_.now();
    history_.add(
        {std::time_t{lastTime_.Seconds()}, idle, vmemFree, physMemFree, swappedIn, swappedOut});
    LogResultsCached(idle, vmemFree, physMemFree, swappedIn, swappedOut);
}

void Cache::setCacheSize(unsigned int size) {
    cacheSize_ = std::max(size, minCacheSize_);
    resizeCache();
}

void Cache::resizeCache() {
    while (samples_.size() > cacheSize_) {
        samples_.pop_front();
    }
}

std::unique_ptr<StatsPacket> Cache::getAverageOfNIdleValues(unsigned int n) const {
    const auto held = static_cast<unsigned int>(samples_.size());
    if (held == 0 || n == 0) {
        return nullptr;
    }
    const unsigned int count = std::min(n, held);
    // Idle and swap counts add up as 32-bit integers (wrapping); memory in floats.
    std::uint32_t idleSum = 0, swappedInSum = 0, swappedOutSum = 0;
    float virtualSum = 0, physicalSum = 0;
    for (auto sample = samples_.end() - count; sample != samples_.end(); ++sample) {
        idleSum += sample->getIdle();
        swappedInSum += sample->getSwappedIn();
        swappedOutSum += sample->getSwappedOut();
        virtualSum += static_cast<float>(sample->getVirtualMemFree());
        physicalSum += static_cast<float>(sample->getPhysMemFree());
    }
    // Kb become Mb only here, after averaging, so the one rounding step sees the exact mean.
    return std::make_unique<StatsPacket>(
        roundedAverage(idleSum, count), roundedAverage(virtualSum / KB_PER_MB, count),
        roundedAverage(physicalSum / KB_PER_MB, count), roundedAverage(swappedInSum, count),
        roundedAverage(swappedOutSum, count));
}
