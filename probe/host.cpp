// One subscription's life: name resolution and the first timer at construction, a packet
// on every reply tick re-armed from the moment of handling, and the extra packet when the
// load moved enough at the end of a load-tool run.
#include "probe/host.h"

#include <algorithm>
#include <ctime>

#include "lib/dlist.h"
#include "lib/dns.h"
#include "lib/eventloop.h"
#include "probe/adminstate.h"
#include "probe/bogomips.h"
#include "probe/bootstrap.h"
#include "probe/cache.h"
#include "probe/hostlistmgr.h"
#include "probe/messages.h"
#include "probe/responder.h"

namespace {

constexpr unsigned int MS_PER_SECOND = 1000;
constexpr unsigned int DEFAULT_HOST_LIFETIME = 86400;

// The difference taken as a signed 32-bit value and made absolute, in unsigned arithmetic
// so that the most negative difference does not overflow.
std::uint32_t absoluteDifference(std::uint32_t difference) {
    return static_cast<std::int32_t>(difference) < 0 ? 0u - difference : difference;
}

bool outOfRotation() {
    return myAdminState != nullptr && myAdminState->outOfRotation();
}

// While the operator keeps the server out of rotation its load reads as no idle time at
// all, so that balancers steer new work elsewhere.
std::unique_ptr<StatsPacket> averageOf(unsigned int entries) {
    auto packet = myCache ? myCache->getAverageOfNIdleValues(entries) : nullptr;
    if (packet && outOfRotation()) {
        packet =
            std::make_unique<StatsPacket>(0, packet->getVirtualMemFree(), packet->getPhysMemFree(),
                                          packet->getSwappedIn(), packet->getSwappedOut());
    }
    return packet;
}

} // namespace

Host::Host(const KyUniString& hostname, unsigned int port, unsigned int sampleRateMs,
           unsigned int windowSize, unsigned int replyFrequencyMs, unsigned int percentChange,
           unsigned int id, KyUniString version, unsigned int statMask)
    : hostname_(hostname), port_(port), sampleRate_(sampleRateMs / MS_PER_SECOND),
      windowSize_(windowSize),
      replyFrequency_(std::max(replyFrequencyMs / MS_PER_SECOND, MIN_REPLY_FREQUENCY)),
      percentChange_(percentChange), id_(id), version_(std::move(version)), statMask_(statMask),
      replyCallback_(this, &Host::sendResultsCB) {
    Bootstrap::checkSampleRateAndWindowSize(sampleRate_, windowSize_);
    goLive();
}

Host::~Host() {
    KyEventLoop* loop = HostListMgr::getEventLoop();
    if (live_ && loop != nullptr) {
        // The withdrawal reaches sendResultsCB with reason 1, which does not re-arm.
        loop->RemoveTimeoutEvent(nextSend_, &replyCallback_);
    }
}

void Host::goLive() {
    KyDList<KyInetAddr> addresses;
    const int result = KyDNS::GetAddressList(hostname_, addresses, false);
    if (result != KyDNS::Ok || addresses.IsEmpty()) {
        LogAddressLookupFail(hostname_, result);
        return;
    }
    KyEventLoop* loop = HostListMgr::getEventLoop();
    if (loop == nullptr) {
        return;
    }
    address_ = addresses[0];
    address_.Port(port_);
    const KyTimeVal now;
    expiry_ = now;
    expiry_ += myBootstrap ? myBootstrap->getHostLifeTime() : DEFAULT_HOST_LIFETIME;
    armReplyTimer(now);
    live_ = true;
    lastTime_ = now;
}

void Host::armReplyTimer(const KyTimeVal& now) {
    nextSend_ = now;
    nextSend_ += replyFrequency_;
    HostListMgr::getEventLoop()->AddTimeoutEvent(nextSend_, &replyCallback_);
}

void Host::sendResultsCB(KyCallback<KyEvent::cbdispatch>*, KyEvent::cbdispatch reason) {
    if (reason != KyEvent::Fired) {
        return;
    }
    if (auto packet = averageOf(cacheEntries_)) {
        sendLoad(packet.get());
    } else {
        LogCacheEmpty(hostname_);
    }
    armReplyTimer(KyTimeVal());
}

void Host::sendLoad(StatsPacket* packet) {
    if (myResponder == nullptr ||
        myResponder->sendLoadPacket(static_cast<unsigned int>(std::time(nullptr)), version_, id_,
                                    packet, statMask_, address_, hostname_) != Success) {
        return;
    }
    lastIdle_ = packet->getIdle();
    lastVmemFree_ = packet->getVirtualMemFree();
    lastPmemFree_ = packet->getPhysMemFree();
    lastBogo_ = myBogomips ? static_cast<std::uint32_t>(myBogomips->getBestBogo()) : 0;
    lastTime_.now();
}

bool Host::loadMoved(unsigned int idle, const StatsPacket& packet) const {
    if ((statMask_ & CPU) && absoluteDifference(lastIdle_ - idle) >= percentChange_ &&
        absoluteDifference(lastIdle_ - packet.getIdle()) >= percentChange_) {
        return true;
    }
    // A configured maximum of 0 would divide by zero; the memory test is skipped then.
    const unsigned int maxVirtual = myBootstrap ? myBootstrap->getMaxVirtualMem() : 0;
    if (!(statMask_ & VMEM) || maxVirtual == 0) {
        return false;
    }
    // The packet is in Mb and the maximum in the configured unit: the scale is kept as is.
    const std::uint32_t product = (lastVmemFree_ - packet.getVirtualMemFree()) * 100u;
    return absoluteDifference(product) / maxVirtual >= percentChange_;
}

void Host::percentChange(unsigned int idle) {
    if (outOfRotation()) {
        idle = 0;
    }
    auto packet = averageOf(cacheEntries_);
    if (!packet) {
        LogCacheEmpty(hostname_);
        return;
    }
    if (loadMoved(idle, *packet)) {
        sendLoad(packet.get());
    }
}
