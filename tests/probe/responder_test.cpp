// The load datagram: its text byte for byte where the end-to-end tests do not look (no stats,
// the rating alone, the largest id), and the failure report when the network stack refuses
// the datagram. The CPU and memory items are checked end to end (e2e/subscribe_test).
#include <gtest/gtest.h>

#include "probe/host.h"
#include "tests/probe/subscription_world.h"

namespace {

std::string packetText(unsigned mask, StatsPacket const& packet, unsigned id = 7,
                       std::uint32_t seqno = 1100000000) {
    KyOSStream text;
    Responder::buildLoadPacket(text, id, seqno, packet, mask);
    return text.Str().AsUtf8();
}

TEST(ResponderText, EmptyAndBogoOnlyStatsAndTheLargestNumbers) {
    SubscriptionWorld world;
    const StatsPacket packet(87, 512, 128, 0, 0);
    EXPECT_EQ(packetText(0, packet), "<?xml version=\"1.0\"?><cvnlbdata><id>7</id><seqno>"
                                     "1100000000</seqno><stats></stats></cvnlbdata>");
    EXPECT_EQ(packetText(Host::BOGO, packet, 4294967295u, 0),
              "<?xml version=\"1.0\"?><cvnlbdata><id>4294967295</id><seqno>0</seqno><stats>"
              "bogo=4312 </stats></cvnlbdata>");
}

TEST(ResponderSend, RefusedDatagramIsReportedAndLeavesTheHostsLastValues) {
    SubscriptionWorld world;
    // Broadcast without SO_BROADCAST: sendto fails with EACCES.
    Host* host = HostListMgr::addHost(KyUniString("255.255.255.255"), 9, 5000, 3, 30000, 10, 3,
                                      KyUniString("1.0"), Host::CPU | Host::BOGO);
    ASSERT_NE(host, nullptr);
    const KyTimeVal created = host->getLastTime();
    StatsPacket packet(50, 1, 1, 0, 0);
    host->sendLoad(&packet);
    EXPECT_TRUE(world.Logged(":9. Error was ioError, errno was 13."));
    EXPECT_EQ(host->getLastIdle(), 0u);
    EXPECT_EQ(host->getLastTime(), created);
}

} // namespace
