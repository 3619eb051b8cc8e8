// The host registry: subscriptions as stored, timers armed and cancelled, the
// percent-change rule, the tool parameters derived from the subscriptions, and expiry.
#include <gtest/gtest.h>

#include "probe/adminstate.h"
#include "tests/probe/subscription_world.h"

namespace {

Host* add(unsigned id, unsigned rateMs, unsigned window, unsigned mask = Host::CPU,
          unsigned port = 9, unsigned percent = 10, unsigned replyMs = 30000,
          char const* name = "127.0.0.1") {
    return HostListMgr::addHost(KyUniString(name), port, rateMs, window, replyMs, percent, id,
                                KyUniString("1.0"), mask);
}

void fillCache(unsigned idle, unsigned vmemKb) {
    for (int i = 0; i < 3; ++i) {
        myCache->addToCache(idle, vmemKb, 0, 0, 0);
    }
}

TEST(HostRegistry, AddAndRemoveKeepListTimersAndUnits) {
    SubscriptionWorld world;
    const std::size_t timers = eventloop.TimeoutCount();
    Host* host = add(7, 5000, 3, Host::CPU, 4711, 10, 3000);
    ASSERT_NE(host, nullptr);
    EXPECT_EQ(host->getSampleRate(), 5u);
    EXPECT_EQ(host->getReplyFrequency(), 10u); // 3 s raised to the minimum
    EXPECT_EQ(add(8, 2000, 3, Host::CPU, 1, 10, 999)->getReplyFrequency(), 10u);
    EXPECT_EQ(HostListMgr::findHost(8)->getSampleRate(), 5u); // the configured minimum rate
    EXPECT_EQ(add(7, 9000, 9), nullptr);                      // duplicate id, first one kept
    EXPECT_EQ(add(9, 5000, 3, Host::CPU, 1, 10, 30000, "no-such-host.invalid"), nullptr);
    EXPECT_TRUE(world.Logged("Failed to read the address for no-such-host.invalid from DNS"));
    EXPECT_EQ(HostListMgr::getHostList().front().get(), host);
    EXPECT_EQ(eventloop.TimeoutCount(), timers + 2);

    EXPECT_FALSE(HostListMgr::removeHost(99));
    EXPECT_TRUE(world.Logged("Remove Host: There are 2 host objects in the Host List."));
    EXPECT_TRUE(HostListMgr::removeHost(7));
    EXPECT_TRUE(world.Logged("Remove Host: There are 1 host objects in the Host List."));
    EXPECT_EQ(eventloop.TimeoutCount(), timers + 1);
    EXPECT_NE(add(7, 5000, 3), nullptr); // the id is free again
}

TEST(HostRegistry, PercentChangeNeedsBothIdleDifferencesTakenAbsolute) {
    SubscriptionWorld world;
    UdpReceiver receiver;
    Host* host = add(1, 5000, 3, Host::CPU, receiver.Port());
    ASSERT_EQ(host->getCacheEntries(), 3u); // 15 s of samples at the tool's 5 s rate
    fillCache(50, 0);
    host->sendLoad(myCache->getAverageOfNIdleValues(3).get());
    ASSERT_TRUE(receiver.Receive());

    const struct {
        unsigned samples, runAverage;
        bool sends;
    } steps[] = {{45, 38, false}, {38, 38, true}, {40, 40, false}, {60, 60, true}, {10, 10, true}};
    for (auto const& step : steps) { // last idle 50, then 38, 60 and 10 once sent
        fillCache(step.samples, 0);
        HostListMgr::percentChangeCheck(step.runAverage);
        EXPECT_EQ(receiver.Receive(step.sends ? 2000 : 100).has_value(), step.sends)
            << step.samples << " " << step.runAverage;
    }
    // Out of rotation a run reads as no idle at all: a fall of exactly the percentage is sent.
    AdminState drained{KyUniString("/nonexistent/hostgauge-test")};
    drained.set(AdminState::Mode::Drain);
    myAdminState = &drained;
    HostListMgr::percentChangeCheck(10);
    myAdminState = nullptr;
    EXPECT_TRUE(receiver.Receive());
    EXPECT_EQ(host->getLastIdle(), 0u);
}

TEST(HostRegistry, VirtualMemoryTestScalesByTheConfiguredMaximum) {
    SubscriptionWorld world(Settings{{"maxvirtualmemory", "1"}}); // 1024 in the filter's Kb
    UdpReceiver receiver;
    Host* host = add(1, 5000, 3, Host::VMEM, receiver.Port());
    fillCache(50, 0);
    host->sendLoad(myCache->getAverageOfNIdleValues(3).get());
    ASSERT_TRUE(receiver.Receive());
    fillCache(0, 102 * 1024); // 10200 / 1024 = 9; idle moves do not count without CPU
    host->percentChange(0);
    EXPECT_FALSE(receiver.Receive(100));
    fillCache(50, 103 * 1024); // 10300 / 1024 = 10
    host->percentChange(50);
    EXPECT_TRUE(receiver.Receive());
    EXPECT_EQ(host->getLastVmemFree(), 103u);
}

TEST(HostRegistry, ToolParametersRoundHalfWayValuesToEven) {
    SubscriptionWorld world(Settings{{"samplerate", "25"}, {"windowsize", "1"}});
    Host* first = add(1, 10000, 2);
    EXPECT_EQ(myChildManager->getSampleRate(), 10u);
    EXPECT_EQ(myChildManager->getWindowSize(), 2u); // span 25 at rate 10
    myBootstrap->setSampleRateAndWindowSize(35, 1);
    HostListMgr::setLoadToolParameters();
    EXPECT_EQ(myChildManager->getWindowSize(), 4u); // span 35 at rate 10

    add(2, 6000, 3);
    Host* third = add(3, 7000, 3);
    Host* fourth = add(4, 9000, 3);
    EXPECT_EQ(myChildManager->getSampleRate(), 6u);
    EXPECT_EQ(myChildManager->getWindowSize(), 6u); // 35 / 6 = 5.83
    EXPECT_EQ(first->getCacheEntries(), 3u);        // 20 / 6 = 3.33
    EXPECT_EQ(third->getCacheEntries(), 4u);        // 21 / 6 = 3.5
    EXPECT_EQ(fourth->getCacheEntries(), 4u);       // 27 / 6 = 4.5
    EXPECT_EQ(myCache->getCacheSize(), 4u);
    HostListMgr::removeHost(4);
    HostListMgr::removeHost(3);
    HostListMgr::removeHost(2);
    EXPECT_EQ(myChildManager->getSampleRate(), 10u);
    EXPECT_EQ(first->getCacheEntries(), 2u);
    HostListMgr::removeHost(1);
    EXPECT_EQ(myChildManager->getSampleRate(), 35u);
    EXPECT_EQ(myChildManager->getWindowSize(), 1u);
    EXPECT_EQ(myCache->getCacheSize(), 2u);
}

TEST(HostRegistry, ExpiryRemovesHostsWhoseLifetimeHasPassed) {
    SubscriptionWorld world; // host lifetime 100 s
    const std::size_t timers = eventloop.TimeoutCount();
    add(1, 5000, 3), add(2, 5000, 3), add(3, 5000, 3);
    KyTimeVal later;
    later += 50;
    EXPECT_EQ(HostListMgr::expireHosts(later), 0u);
    later += 60;
    HostListMgr::removeHost(2);
    EXPECT_EQ(HostListMgr::expireHosts(later), 2u);
    EXPECT_TRUE(HostListMgr::getHostList().empty());
    EXPECT_EQ(eventloop.TimeoutCount(), timers);
    EXPECT_TRUE(world.Logged("The host object for 127.0.0.1 with ID 3 has time-expired"));
    EXPECT_TRUE(world.Logged("Host timeout check: There are 0 host objects in the Host List."));
}

} // namespace
