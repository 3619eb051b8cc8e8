// HostListMgr: the registry of subscribed hosts. It adds and removes subscriptions, expires
// them hourly, forwards each load-tool run's average to every host, and derives the load
// tool's rate and window and the cache size from the subscriptions. Static members only.
#pragma once

#include <list>
#include <memory>
#include <set>
#include <unordered_map>

#include "lib/event.h"
#include "lib/time.h"
#include "lib/unistring.h"
#include "probe/host.h"

class KyEventLoop;

class HostListMgr {
public:
    HostListMgr() = delete;

    using Hosts = std::list<std::unique_ptr<Host>>;
    static constexpr unsigned int REGULAR_TIMEOUT_SECONDS = 3600;
    static constexpr unsigned int MIN_CACHE_ENTRIES = 2;

    // Arms the hourly expiry check; a second call moves the check, it does not add one.
    static void init(KyEventLoop* loop);
    // Null for a duplicate id or a host whose name did not resolve.
    static Host* addHost(const KyUniString& hostname, unsigned int port, unsigned int sampleRateMs,
                         unsigned int windowSize, unsigned int replyFrequencyMs,
                         unsigned int percentChange, unsigned int id, const KyUniString& version,
                         unsigned int statMask);
    static bool removeHost(unsigned int id);
    static void regularTimeoutCB(KyCallback<KyEvent::cbdispatch>*, KyEvent::cbdispatch reason);
    // The expiry check against a given time, without re-arming; returns how many went.
    static unsigned int expireHosts(const KyTimeVal& now);
    static void percentChangeCheck(unsigned int idle);
    // Derives everything afresh from the configuration and every host.
    static void setLoadToolParameters();

    // In order of addition.
    static const Hosts& getHostList() { return registry().HostList; }
    static Host* findHost(unsigned int id);
    static KyEventLoop* getEventLoop() { return eventloop; }

private:
    // Membership changes keep the derived tool parameters up to date incrementally: only
    // when the fastest rate moves does every host's averaging depth need re-deriving.
    struct Registry {
        Hosts HostList;                                         // owns the hosts
        std::unordered_map<unsigned int, Hosts::iterator> byId; // the same hosts, by id
        std::multiset<unsigned int> rates;                      // every host's sample rate
        std::multiset<unsigned int> entries;                    // every host's cache entries
        unsigned int toolRate = 0; // the rate the entries were derived at
    };
    // Never destroyed: hosts cancel their timers on the loop, which static destruction
    // may already have taken down; process exit reclaims them.
    static Registry& registry();
    static void armRegularTimer(const KyTimeVal& now);
    // Takes the host out of the list and the indexes; the caller deletes it.
    static std::unique_ptr<Host> unlink(Hosts::iterator at);
    static unsigned int fastestRate();
    static void deriveEntries(Host& host);
    static void applyToolParameters();
    // After a membership change: re-derives everything only when the tool rate moved.
    static void retune(Host* added);

    static KyEventLoop* eventloop;
    static KyStaticCallback<KyEvent::cbdispatch> regularTimeoutcb;
    static KyTimeVal nextCheck;
    static bool checkArmed;
};
