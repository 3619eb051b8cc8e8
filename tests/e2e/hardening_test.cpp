// End-to-end tests of the daemon against misbehaving clients: a peer that resets while a
// large reply is queued, slow and stalled readers of a big status report, and a storm of
// connections under a low descriptor limit.
#include <gtest/gtest.h>

#include <sys/ioctl.h>

#include "tests/e2e/daemon_fixture.h"

namespace {

using namespace e2e;

const std::string& kStatus = kStatusRequest;

std::size_t count(const std::string& text, const std::string& what) {
    std::size_t found = 0;
    for (auto at = text.find(what); at != std::string::npos; at = text.find(what, at + 1))
        ++found;
    return found;
}

// Peers that reset while most of a report is still queued leave the daemon serving, a slow
// reader with a small receive buffer still gets the whole report, and one that stops reading
// is cut off after the write limit (2 s). The report of 16,000 subscriptions is larger than
// the kernel takes into its socket buffers (4 MiB here).
TEST(Hardening, BigReportsReachResettingSlowAndStalledReadersAsTheyShould) {
    constexpr unsigned kSubscriptions = 16000;
    Daemon daemon;
    Subscriber drain; // never read: the kernel drops the rest
    daemon.toolPrints(toolRun(50));
    daemon.setEnv("HOSTGAUGE_WRITE_LIMIT_MS", "2000");
    daemon.set("maxhosts", "20000");
    ASSERT_TRUE(daemon.startServing());
    for (unsigned id = 1; id <= kSubscriptions; ++id)
        ASSERT_TRUE(daemon.subscribe(id, drain.port(), 3600000, 100)) << id;
    const linger abort{1, 0};
    for (int round = 0; round < 3; ++round) {
        const int fd = connectTo(daemon.port(), 4096);
        ASSERT_GE(fd, 0);
        ASSERT_EQ(::send(fd, kStatus.data(), kStatus.size(), 0), ssize_t(kStatus.size()));
        // Half-closed first, as `nc -N` does: the reset then turns the daemon's next write
        // into EPIPE, which would raise SIGPIPE.
        ::shutdown(fd, SHUT_WR);
        // Once the first bytes arrive, the rest of the report waits for the peer.
        ASSERT_TRUE(waitFor([&] {
            int unread = 0;
            return ::ioctl(fd, FIONREAD, &unread) == 0 && unread > 0;
        }));
        ::setsockopt(fd, SOL_SOCKET, SO_LINGER, &abort, sizeof abort);
        ::close(fd); // a reset, with most of the report still queued
    }

    const int fd = connectTo(daemon.port(), 8192);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(::send(fd, kStatus.data(), kStatus.size(), 0), ssize_t(kStatus.size()));
    const std::string report = receiveAll(fd, 10s, 5ms).text;
    ::close(fd);
    EXPECT_EQ(count(report, "<connection>"), kSubscriptions);
    EXPECT_TRUE(report.ends_with("</connection></cvnlbreply>"))
        << report.substr(report.size() > 80 ? report.size() - 80 : 0);
    EXPECT_EQ(daemon.log().find("Hostgauge stopped"), std::string::npos);

    // A reader that stops gets what the kernel had queued and then the close: once the reply
    // has stalled for the write limit, the daemon gives up on it.
    const int stuck = connectTo(daemon.port(), 4096);
    ASSERT_EQ(::send(stuck, kStatus.data(), kStatus.size(), 0), ssize_t(kStatus.size()));
    std::this_thread::sleep_for(4s);
    const Received partial = receiveAll(stuck);
    ::close(stuck);
    EXPECT_TRUE(partial.closed) << "the daemon kept a reply nobody reads";
    EXPECT_LT(count(partial.text, "<connection>"), kSubscriptions) << "the reply was not cut short";
}

TEST(Hardening, AConnectionStormUnderALowDescriptorLimitNeitherSpinsNorFloodsTheLog) {
    Daemon daemon;
    daemon.toolPrints(toolRun(50));
    daemon.limitDescriptors(64);
    ASSERT_TRUE(daemon.startServing());
    const pid_t pid = daemon.pid();

    const auto before = cpuTime(pid);
    std::vector<int> storm;
    for (int i = 0; i < 300; ++i) {
        const int fd = connectTo(daemon.port());
        if (fd >= 0)
            storm.push_back(fd);
    }
    EXPECT_GT(storm.size(), 200u) << "the kernel queues what the daemon cannot take";
    std::this_thread::sleep_for(3s);
    const auto spent = cpuTime(pid) - before;
    EXPECT_LT(spent, 500ms) << "out of descriptors for three seconds";
    EXPECT_EQ(count(daemon.log(), "Failed to accept new connection"), 1u);
    EXPECT_NE(daemon.log().find("Too many open files"), std::string::npos);

    for (int fd : storm)
        ::close(fd);
    std::string report;
    EXPECT_TRUE(waitFor([&] {
        report = request(daemon.port(), kStatus);
        return report.find("</cvnlbreply>") != std::string::npos;
    })) << "served again once the storm is gone";
    EXPECT_EQ(::kill(pid, 0), 0);
    EXPECT_EQ(daemon.log().find("Hostgauge stopped"), std::string::npos);
}

} // namespace
