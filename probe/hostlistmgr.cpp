// The host registry's list, its hourly expiry and the derivation of the load tool's
// parameters. Every change of membership re-derives the tool's rate, its window and the
// cache size.
#include "probe/hostlistmgr.h"

#include <algorithm>
#include <cmath>

#include "lib/eventloop.h"
#include "probe/bootstrap.h"
#include "probe/cache.h"
#include "probe/childmanager.h"
#include "probe/messages.h"

KyEventLoop* HostListMgr::eventloop = nullptr;
KyStaticCallback<KyEvent::cbdispatch> HostListMgr::regularTimeoutcb(&HostListMgr::regularTimeoutCB);
KyTimeVal HostListMgr::nextCheck(0, 0);
bool HostListMgr::checkArmed = false;

namespace {

unsigned int roundedRatio(double numerator, unsigned int denominator) {
    return static_cast<unsigned int>(std::rint(numerator / denominator));
}

} // namespace

HostListMgr::Registry& HostListMgr::registry() {
    static Registry* registry = new Registry;
    return *registry;
}

void HostListMgr::init(KyEventLoop* loop) {
    if (checkArmed && eventloop != nullptr) {
        eventloop->RemoveTimeoutEvent(nextCheck, &regularTimeoutcb);
    }
    eventloop = loop;
    armRegularTimer(KyTimeVal());
}

void HostListMgr::armRegularTimer(const KyTimeVal& now) {
    checkArmed = false;
    if (eventloop == nullptr) {
        return;
    }
    nextCheck = now;
    nextCheck += REGULAR_TIMEOUT_SECONDS;
    checkArmed = eventloop->AddTimeoutEvent(nextCheck, &regularTimeoutcb) == Success;
}

Host* HostListMgr::findHost(unsigned int id) {
    const auto& byId = registry().byId;
    const auto found = byId.find(id);
    return found == byId.end() ? nullptr : found->second;
}

Host* HostListMgr::addHost(const KyUniString& hostname, unsigned int port,
                           unsigned int sampleRateMs, unsigned int windowSize,
                           unsigned int replyFrequencyMs, unsigned int percentChange,
                           unsigned int id, const KyUniString& version, unsigned int statMask) {
    if (findHost(id) != nullptr) {
        return nullptr;
    }
    auto host = std::make_unique<Host>(hostname, port, sampleRateMs, windowSize, replyFrequencyMs,
                                       percentChange, id, version, statMask);
    if (!host->getLiveHost()) {
        return nullptr;
    }
    Registry& reg = registry();
    Host* added = host.get();
    reg.HostList.push_back(std::move(host));
    reg.byId.emplace(id, added);
    LogHostListLen("Add Host", static_cast<unsigned>(reg.HostList.size()));
    setLoadToolParameters();
    return added;
}

bool HostListMgr::removeHost(unsigned int id) {
    Registry& reg = registry();
    Host* doomed = findHost(id);
    if (doomed != nullptr) {
        const auto at = std::find_if(reg.HostList.begin(), reg.HostList.end(),
                                     [doomed](const auto& host) { return host.get() == doomed; });
        // Out of the list before it is deleted, so its timer withdrawal sees a consistent list.
        std::unique_ptr<Host> owned = std::move(*at);
        reg.HostList.erase(at);
        reg.byId.erase(id);
    }
    LogHostListLen("Remove Host", static_cast<unsigned>(reg.HostList.size()));
    if (doomed != nullptr) {
        setLoadToolParameters();
    }
    return doomed != nullptr;
}

void HostListMgr::regularTimeoutCB(KyCallback<KyEvent::cbdispatch>*, KyEvent::cbdispatch reason) {
    if (reason != KyEvent::Fired) {
        return;
    }
    const KyTimeVal now;
    expireHosts(now);
    armRegularTimer(now);
}

unsigned int HostListMgr::expireHosts(const KyTimeVal& now) {
    Registry& reg = registry();
    Hosts kept;
    kept.reserve(reg.HostList.size());
    unsigned int removed = 0;
    for (auto& host : reg.HostList) {
        if (!host->isExpired(now)) {
            kept.push_back(std::move(host));
            continue;
        }
        LogHostTimedOut(host->getHostname(), host->getId());
        reg.byId.erase(host->getId());
        host.reset();
        ++removed;
    }
    reg.HostList = std::move(kept);
    LogHostListLen("Host timeout check", static_cast<unsigned>(reg.HostList.size()));
    if (removed > 0) {
        setLoadToolParameters();
    }
    return removed;
}

void HostListMgr::percentChangeCheck(unsigned int idle) {
    for (const auto& host : registry().HostList) {
        host->percentChange(idle);
    }
}

// The tool samples at the fastest rate any host asked for, over a window that still covers
// the configured span; each host averages as many samples as its own span holds.
void HostListMgr::setLoadToolParameters() {
    if (myBootstrap == nullptr) {
        return;
    }
    const Hosts& hosts = registry().HostList;
    unsigned int rate = myBootstrap->getSampleRate();
    const std::uint32_t span = myBootstrap->getWindowSize() * myBootstrap->getSampleRate();
    for (const auto& host : hosts) {
        rate = std::min(rate, host->getSampleRate());
    }
    if (myChildManager != nullptr) {
        myChildManager->setSampleRateAndWindowSize(rate, roundedRatio(span, rate));
    }
    unsigned int largest = MIN_CACHE_ENTRIES;
    for (const auto& host : hosts) {
        unsigned int entries = roundedRatio(host->getSampleRate() * host->getWindowSize(), rate);
        if (entries == 0) {
            entries = MIN_CACHE_ENTRIES;
        }
        largest = std::max(largest, entries);
        host->setCacheEntries(entries);
    }
    if (myCache != nullptr) {
        myCache->setCacheSize(largest);
    }
}
