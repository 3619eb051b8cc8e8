// The host registry's list, its hourly expiry and the derivation of the load tool's
// parameters. Every change of membership re-derives the tool's rate, its window and the
// cache size.
#include "probe/hostlistmgr.h"

#include <algorithm>
#include <cmath>
#include <iterator>

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
    return found == byId.end() ? nullptr : found->second->get();
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
    reg.byId.emplace(id, reg.HostList.insert(reg.HostList.end(), std::move(host)));
    reg.rates.insert(added->getSampleRate());
    LogHostListLen("Add Host", static_cast<unsigned>(reg.HostList.size()));
    retune(added);
    return added;
}

std::unique_ptr<Host> HostListMgr::unlink(Hosts::iterator at) {
    Registry& reg = registry();
    std::unique_ptr<Host> host = std::move(*at);
    reg.HostList.erase(at);
    reg.byId.erase(host->getId());
    reg.rates.erase(reg.rates.find(host->getSampleRate()));
    if (const auto entries = reg.entries.find(host->getCacheEntries());
        entries != reg.entries.end()) {
        reg.entries.erase(entries);
    }
    return host;
}

bool HostListMgr::removeHost(unsigned int id) {
    Registry& reg = registry();
    const auto found = reg.byId.find(id);
    const bool removed = found != reg.byId.end();
    if (removed) {
        // Out of the list before it is deleted, so its timer withdrawal sees a consistent list.
        unlink(found->second).reset();
    }
    LogHostListLen("Remove Host", static_cast<unsigned>(reg.HostList.size()));
    if (removed) {
        retune(nullptr);
    }
    return removed;
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
    Hosts& hosts = registry().HostList;
    unsigned int removed = 0;
    for (auto at = hosts.begin(); at != hosts.end();) {
        const auto next = std::next(at);
        if ((*at)->isExpired(now)) {
            std::unique_ptr<Host> host = unlink(at);
            LogHostTimedOut(host->getHostname(), host->getId());
            ++removed;
        }
        at = next;
    }
    LogHostListLen("Host timeout check", static_cast<unsigned>(hosts.size()));
    if (removed > 0) {
        retune(nullptr);
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
    Registry& reg = registry();
    reg.toolRate = fastestRate();
    reg.entries.clear();
    for (const auto& host : reg.HostList) {
        deriveEntries(*host);
    }
    applyToolParameters();
}

void HostListMgr::retune(Host* added) {
    if (myBootstrap == nullptr) {
        return;
    }
    if (fastestRate() != registry().toolRate) {
        setLoadToolParameters();
        return;
    }
    if (added != nullptr) {
        deriveEntries(*added);
    }
    applyToolParameters();
}

unsigned int HostListMgr::fastestRate() {
    const auto& rates = registry().rates;
    const unsigned int configured = myBootstrap->getSampleRate();
    return rates.empty() ? configured : std::min(configured, *rates.begin());
}

void HostListMgr::deriveEntries(Host& host) {
    Registry& reg = registry();
    unsigned int entries = roundedRatio(host.getSampleRate() * host.getWindowSize(), reg.toolRate);
    if (entries == 0) {
        entries = MIN_CACHE_ENTRIES;
    }
    host.setCacheEntries(entries);
    reg.entries.insert(entries);
}

void HostListMgr::applyToolParameters() {
    const Registry& reg = registry();
    const std::uint32_t span = myBootstrap->getWindowSize() * myBootstrap->getSampleRate();
    if (myChildManager != nullptr) {
        myChildManager->setSampleRateAndWindowSize(reg.toolRate, roundedRatio(span, reg.toolRate));
    }
    const unsigned int largest = reg.entries.empty() ? 0 : *reg.entries.rbegin();
    if (myCache != nullptr) {
        myCache->setCacheSize(std::max(largest, MIN_CACHE_ENTRIES));
    }
}
