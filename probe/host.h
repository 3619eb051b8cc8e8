// Host: one load balancer's subscription. It keeps the subscriber's address and
// parameters, the values it was last sent, and its own reply timer on the event loop;
// the host registry (HostListMgr) owns every Host and drives its percent-change test.
#pragma once

#include <cstdint>

#include "lib/event.h"
#include "lib/inetaddr.h"
#include "lib/time.h"
#include "lib/unistring.h"

class StatsPacket;

class Host {
public:
    // Stat mask bits: what the subscriber's packets carry.
    static constexpr unsigned int CPU = 1;
    static constexpr unsigned int BOGO = 2;
    static constexpr unsigned int VMEM = 4;
    static constexpr unsigned int MIN_REPLY_FREQUENCY = 10; // seconds
    static constexpr unsigned int NULLVALUE = 4294967295u;

    // Rates arrive in milliseconds and are kept in seconds. The host is live only when its
    // name resolved and its reply timer is armed.
    Host(const KyUniString& hostname, unsigned int port, unsigned int sampleRateMs,
         unsigned int windowSize, unsigned int replyFrequencyMs, unsigned int percentChange,
         unsigned int id, KyUniString version, unsigned int statMask);
    ~Host();
    Host(const Host&) = delete;
    Host& operator=(const Host&) = delete;

    void sendResultsCB(KyCallback<KyEvent::cbdispatch>*, KyEvent::cbdispatch reason);
    // The last values change only when the datagram actually left.
    void sendLoad(StatsPacket* packet);
    // Sends an extra packet when the load moved by at least the host's threshold.
    void percentChange(unsigned int idle);
    bool isExpired(const KyTimeVal& now) const { return expiry_ <= now; }

    const KyUniString& getHostname() const { return hostname_; }
    unsigned int getPort() const { return port_; }
    unsigned int getSampleRate() const { return sampleRate_; }
    unsigned int getWindowSize() const { return windowSize_; }
    unsigned int getReplyFrequency() const { return replyFrequency_; }
    unsigned int getPercentChange() const { return percentChange_; }
    unsigned int getId() const { return id_; }
    unsigned int getStatMask() const { return statMask_; }
    unsigned int getLastIdle() const { return lastIdle_; }
    unsigned int getLastBogo() const { return lastBogo_; }
    unsigned int getLastVmemFree() const { return lastVmemFree_; }
    const KyTimeVal& getLastTime() const { return lastTime_; }
    bool getLiveHost() const { return live_; }
    unsigned int getCacheEntries() const { return cacheEntries_; }
    void setCacheEntries(unsigned int entries) { cacheEntries_ = entries; }

private:
    // Resolves the name and arms the first reply; leaves the host not live on failure.
    void goLive();
    void armReplyTimer(const KyTimeVal& now);
    bool loadMoved(unsigned int idle, const StatsPacket& packet) const;

    KyUniString hostname_;
    bool live_ = false;
    KyInetAddr address_;
    std::uint32_t port_;
    std::uint32_t sampleRate_;
    std::uint32_t windowSize_;
    std::uint32_t replyFrequency_;
    std::uint32_t percentChange_;
    std::uint32_t id_;
    KyUniString version_;
    std::uint32_t statMask_;
    std::uint32_t lastIdle_ = 0;
    std::uint32_t lastVmemFree_ = 0;
    std::uint32_t lastPmemFree_ = 0;
    std::uint32_t lastBogo_ = 0;
    KyTimeVal lastTime_;
    KyTimeVal nextSend_;
    KyTimeVal expiry_;
    std::uint32_t cacheEntries_ = 0;
    KySimpleCallback<KyEvent::cbdispatch, Host> replyCallback_;
};
