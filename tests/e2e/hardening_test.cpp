// End-to-end tests of the daemon against misbehaving clients: a peer that resets while a
// large reply is queued, a slow reader of a big status report, connections that never
// speak, and a storm of connections under a low descriptor limit.
#include <gtest/gtest.h>

#include <sys/ioctl.h>
#include <sys/resource.h>

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

// True once the daemon has closed fd: end of file (or a reset) with nothing received.
bool closedSilently(int fd) {
    char byte;
    const ssize_t got = ::recv(fd, &byte, 1, MSG_DONTWAIT);
    return got == 0 || (got < 0 && errno == ECONNRESET);
}

// Peers that reset while most of a report is still queued leave the daemon serving, and a
// slow reader with a small receive buffer still gets the whole report. A client that asks
// for a big report and then stops reading loses its connection once the reply has made no
// progress for the write limit; one that resets before asking anything is let go at once,
// not after the idle limit. The report is larger than the kernel takes into its socket
// buffers (4 MiB here).
// One daemon with 16,000 subscriptions serves every part: none of them changes what it
// reports. Its write limit is 2 s, its idle limit long enough for none to matter.
TEST(Hardening, BigReportsReachResettingSlowAndStalledReadersAsTheyShould) {
    constexpr unsigned kSubscriptions = 16000;
    Daemon daemon;
    Subscriber drain; // never read: the kernel drops the rest
    daemon.toolPrints(toolRun(50));
    daemon.setEnv("HOSTGAUGE_WRITE_LIMIT_MS", "2000");
    daemon.setEnv("HOSTGAUGE_IDLE_LIMIT_MS", "30000");
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
    std::string report;
    std::vector<char> buffer(32768);
    pollfd ready{fd, POLLIN, 0};
    for (ssize_t got; ::poll(&ready, 1, 10000) == 1 &&
                      (got = ::recv(fd, buffer.data(), buffer.size(), 0)) > 0;) {
        report.append(buffer.data(), std::size_t(got));
        std::this_thread::sleep_for(5ms);
    }
    ::close(fd);
    EXPECT_EQ(count(report, "<connection>"), kSubscriptions);
    EXPECT_TRUE(report.ends_with("</connection></cvnlbreply>"))
        << report.substr(report.size() > 80 ? report.size() - 80 : 0);
    EXPECT_EQ(daemon.log().find("Hostgauge stopped"), std::string::npos);

    // The daemon's end of a client's connection, once it has accepted it.
    const auto accepted = [&](int client) {
        std::string inode;
        waitFor([&] { return holdsSocket(daemon.pid(), inode = peerSocketInode(client)); });
        return inode;
    };
    const auto held = [&](const std::string& inode) { return holdsSocket(daemon.pid(), inode); };

    // Timed from the request, on the daemon's socket alone: on a loaded machine, reading the
    // log back could take longer than the write limit itself.
    const int stuck = connectTo(daemon.port(), 4096);
    const std::string stuckEnd = accepted(stuck);
    ASSERT_TRUE(held(stuckEnd));
    const auto asked = std::chrono::steady_clock::now();
    ASSERT_EQ(::send(stuck, kStatus.data(), kStatus.size(), 0), ssize_t(kStatus.size()));
    EXPECT_TRUE(waitFor([&] { return !held(stuckEnd); }, 20s))
        << "a reply nobody reads keeps its connection";
    EXPECT_GE(std::chrono::steady_clock::now() - asked, 1500ms)
        << "closed before the write limit: the reply did not stall";
    ::close(stuck);

    // A reset is seen at once, long before the idle limit.
    const int resets = connectTo(daemon.port());
    const std::string resetEnd = accepted(resets);
    ASSERT_TRUE(held(resetEnd));
    ::setsockopt(resets, SOL_SOCKET, SO_LINGER, &abort, sizeof abort);
    ::close(resets);
    EXPECT_TRUE(waitFor([&] { return !held(resetEnd); }, 10s));
    EXPECT_EQ(daemon.log().find("Bad request (length 0)"), std::string::npos)
        << "a reset is no silent client";
}

TEST(Hardening, SilentConnectionsAreClosedAfterTheIdleLimitWhileOthersAreServed) {
    Daemon daemon;
    daemon.toolPrints(toolRun(50));
    daemon.setEnv("HOSTGAUGE_IDLE_LIMIT_MS", "1500");
    ASSERT_TRUE(daemon.startServing());

    std::vector<int> silent;
    for (int i = 0; i < 200; ++i) {
        silent.push_back(connectTo(daemon.port()));
        ASSERT_GE(silent.back(), 0);
    }
    const auto opened = std::chrono::steady_clock::now();
    EXPECT_NE(request(daemon.port(), kStatus).find("</cvnlbreply>"), std::string::npos)
        << "served while 200 connections sit idle";
    if (std::chrono::steady_clock::now() - opened < 1200ms) {
        EXPECT_FALSE(closedSilently(silent.front())) << "not before the limit";
    }

    EXPECT_TRUE(waitFor([&] { return std::all_of(silent.begin(), silent.end(), closedSilently); }));
    const auto elapsed = std::chrono::steady_clock::now() - opened;
    EXPECT_GT(elapsed, 1400ms);
    EXPECT_LT(elapsed, 5s) << "the limit from the environment was not taken";
    for (int fd : silent)
        ::close(fd);
    // One line per silent connection, with the empty request.
    EXPECT_TRUE(waitFor([&] { return count(daemon.log(), "Bad request (length 0)") == 200; }));
    EXPECT_NE(request(daemon.port(), kStatus).find("</cvnlbreply>"), std::string::npos);
}

TEST(Hardening, AConnectionStormUnderALowDescriptorLimitNeitherSpinsNorFloodsTheLog) {
    Daemon daemon;
    daemon.toolPrints(toolRun(50));
    // The daemon inherits a soft limit of 64 descriptors; this process gets its own back.
    rlimit saved{};
    ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &saved), 0);
    rlimit low = saved;
    low.rlim_cur = 64;
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &low), 0);
    const bool serving = daemon.startServing();
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &saved), 0);
    ASSERT_TRUE(serving);
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
