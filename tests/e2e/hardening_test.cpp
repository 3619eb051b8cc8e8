// End-to-end tests of the daemon against misbehaving clients: a peer that resets while a
// large reply is queued, a slow reader of a big status report, connections that never
// speak, and a storm of connections under a low descriptor limit.
#include <gtest/gtest.h>

#include <sys/ioctl.h>
#include <sys/resource.h>

#include <memory>

#include "tests/e2e/daemon_fixture.h"

namespace {

using namespace e2e;

const std::string& kStatus = kStatusRequest;

// Subscriptions that never tick (an hour's reply frequency) to one UDP port, one connection
// each as a load balancer would make them; false at the first one refused.
bool subscribe(const Daemon& daemon, unsigned count, unsigned short udpPort) {
    for (unsigned id = 1; id <= count; ++id) {
        const std::string create = createRequest(id, udpPort, 3600000, 100, "<stat>cpu</stat>");
        if (request(daemon.port(), create).find("type=\"create\"") == std::string::npos) {
            ADD_FAILURE() << "subscription " << id << " refused";
            return false;
        }
    }
    return true;
}

std::size_t count(const std::string& text, const std::string& what) {
    std::size_t found = 0;
    for (auto at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) {
        ++found;
    }
    return found;
}

// Reads until the daemon closes, `chunk` bytes at a time with a pause between reads.
std::string readSlowly(int fd, std::size_t chunk, std::chrono::milliseconds pause) {
    std::string reply;
    std::vector<char> buffer(chunk);
    pollfd ready{fd, POLLIN, 0};
    while (::poll(&ready, 1, 10000) == 1) {
        const ssize_t got = ::recv(fd, buffer.data(), buffer.size(), 0);
        if (got <= 0) {
            break;
        }
        reply.append(buffer.data(), std::size_t(got));
        std::this_thread::sleep_for(pause);
    }
    return reply;
}

// True once the daemon has closed fd: end of file (or a reset) with nothing received.
bool closedSilently(int fd) {
    char byte;
    const ssize_t got = ::recv(fd, &byte, 1, MSG_DONTWAIT);
    return got == 0 || (got < 0 && errno == ECONNRESET);
}

// One daemon with 16,000 subscriptions serves the tests of big reports: none of them changes
// what it reports. Its write limit is 2 s, its idle limit long enough for none to matter.
class ManySubscriptions : public ::testing::Test {
protected:
    static constexpr unsigned kSubscriptions = 16000;
    static void SetUpTestSuite() {
        daemon_ = std::make_unique<Daemon>();
        drain_ = std::make_unique<Subscriber>();
        daemon_->toolPrints(toolRun(50));
        daemon_->setEnv("HOSTGAUGE_WRITE_LIMIT_MS", "2000");
        daemon_->setEnv("HOSTGAUGE_IDLE_LIMIT_MS", "30000");
        daemon_->set("maxhosts", "20000");
        ready_ = daemon_->startServing() && subscribe(*daemon_, kSubscriptions, drain_->port());
    }
    static void TearDownTestSuite() {
        daemon_.reset();
        drain_.reset();
    }
    void SetUp() override { ASSERT_TRUE(ready_) << "no daemon with every subscription"; }

    static inline std::unique_ptr<Daemon> daemon_;
    static inline std::unique_ptr<Subscriber> drain_; // never read: the kernel drops the rest
    static inline bool ready_ = false;
};

TEST_F(ManySubscriptions, APeerThatResetsWhileAReplyIsQueuedLeavesTheDaemonServing) {
    for (int round = 0; round < 3; ++round) {
        const int fd = connectTo(daemon_->port(), 4096);
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
        const linger abort{1, 0};
        ::setsockopt(fd, SOL_SOCKET, SO_LINGER, &abort, sizeof abort);
        ::close(fd); // a reset, with most of the report still queued
    }

    const std::string report = request(daemon_->port(), kStatus);
    EXPECT_EQ(count(report, "<connection>"), kSubscriptions);
    EXPECT_EQ(::kill(daemon_->pid(), 0), 0) << "still running";
    EXPECT_EQ(daemon_->log().find("Hostgauge stopped"), std::string::npos);
}

TEST_F(ManySubscriptions, ASlowReaderGetsTheWholeReportOfSixteenThousandSubscriptions) {
    const int fd = connectTo(daemon_->port(), 8192);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(::send(fd, kStatus.data(), kStatus.size(), 0), ssize_t(kStatus.size()));
    const std::string report = readSlowly(fd, 32768, 5ms);
    ::close(fd);
    EXPECT_EQ(count(report, "<connection>"), kSubscriptions);
    EXPECT_EQ(report.rfind("</connection></cvnlbreply>"), report.size() - 26)
        << "ends with " << report.substr(report.size() > 80 ? report.size() - 80 : 0);
}

// A client that asks for a big report and then stops reading loses its connection once the
// reply has made no progress for the write limit; one that resets before asking anything is
// let go at once, not after the idle limit. The report is larger than the kernel takes into
// its socket buffers (4 MiB here).
TEST_F(ManySubscriptions, ConnectionsThatStopReadingOrResetAreClosedWithoutWaitingForEver) {
    // The daemon's end of a client's connection, once it has accepted it.
    const auto accepted = [&](int client) {
        std::string inode;
        waitFor([&] { return holdsSocket(daemon_->pid(), inode = peerSocketInode(client)); });
        return inode;
    };
    const auto held = [&](const std::string& inode) { return holdsSocket(daemon_->pid(), inode); };

    // Timed from the request, on the daemon's socket alone: on a loaded machine, reading the
    // log back could take longer than the write limit itself.
    const int stuck = connectTo(daemon_->port(), 4096);
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
    const int resets = connectTo(daemon_->port());
    const std::string resetEnd = accepted(resets);
    ASSERT_TRUE(held(resetEnd));
    const linger abort{1, 0};
    ::setsockopt(resets, SOL_SOCKET, SO_LINGER, &abort, sizeof abort);
    ::close(resets);
    EXPECT_TRUE(waitFor([&] { return !held(resetEnd); }, 10s));
    EXPECT_EQ(daemon_->log().find("Bad request (length 0)"), std::string::npos)
        << "a reset is no silent client";
}

class Hardening : public ::testing::Test {
protected:
    void SetUp() override { daemon_.toolPrints(toolRun(50)); }
    Daemon daemon_;
};

TEST_F(Hardening, SilentConnectionsAreClosedAfterTheIdleLimitWhileOthersAreServed) {
    daemon_.setEnv("HOSTGAUGE_IDLE_LIMIT_MS", "1500");
    ASSERT_TRUE(daemon_.startServing());

    std::vector<int> silent;
    for (int i = 0; i < 200; ++i) {
        silent.push_back(connectTo(daemon_.port()));
        ASSERT_GE(silent.back(), 0);
    }
    const auto opened = std::chrono::steady_clock::now();
    EXPECT_NE(request(daemon_.port(), kStatus).find("</cvnlbreply>"), std::string::npos)
        << "served while 200 connections sit idle";
    if (std::chrono::steady_clock::now() - opened < 1200ms) {
        EXPECT_FALSE(closedSilently(silent.front())) << "not before the limit";
    }

    EXPECT_TRUE(waitFor([&] { return std::all_of(silent.begin(), silent.end(), closedSilently); }));
    const auto elapsed = std::chrono::steady_clock::now() - opened;
    EXPECT_GT(elapsed, 1400ms);
    EXPECT_LT(elapsed, 5s) << "the limit from the environment was not taken";
    for (int fd : silent) {
        ::close(fd);
    }
    // One line per silent connection, with the empty request.
    EXPECT_TRUE(waitFor([&] { return count(daemon_.log(), "Bad request (length 0)") == 200; }));
    EXPECT_NE(request(daemon_.port(), kStatus).find("</cvnlbreply>"), std::string::npos);
}

TEST_F(Hardening, AConnectionStormUnderALowDescriptorLimitNeitherSpinsNorFloodsTheLog) {
    // The daemon inherits a soft limit of 64 descriptors; this process gets its own back.
    rlimit saved{};
    ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &saved), 0);
    rlimit low = saved;
    low.rlim_cur = 64;
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &low), 0);
    const bool serving = daemon_.startServing();
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &saved), 0);
    ASSERT_TRUE(serving);
    const pid_t pid = daemon_.pid();

    const auto before = cpuTime(pid);
    std::vector<int> storm;
    for (int i = 0; i < 300; ++i) {
        const int fd = connectTo(daemon_.port());
        if (fd >= 0) {
            storm.push_back(fd);
        }
    }
    EXPECT_GT(storm.size(), 200u) << "the kernel queues what the daemon cannot take";
    std::this_thread::sleep_for(3s);
    const auto spent = cpuTime(pid) - before;
    EXPECT_LT(spent, 500ms) << "out of descriptors for three seconds";
    EXPECT_EQ(count(daemon_.log(), "Failed to accept new connection"), 1u);
    EXPECT_NE(daemon_.log().find("Too many open files"), std::string::npos);

    for (int fd : storm) {
        ::close(fd);
    }
    std::string report;
    EXPECT_TRUE(waitFor([&] {
        report = request(daemon_.port(), kStatus);
        return report.find("</cvnlbreply>") != std::string::npos;
    })) << "served again once the storm is gone";
    EXPECT_EQ(::kill(pid, 0), 0);
    EXPECT_EQ(daemon_.log().find("Hostgauge stopped"), std::string::npos);
}

} // namespace
