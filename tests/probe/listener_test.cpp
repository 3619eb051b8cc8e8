// Tests of the control listener and its circuits over real loopback connections: circuits
// leave nothing behind, pending connections are all served, a stalled loop closes no request
// unread. What a request gets back is tested end to end (tests/e2e/subscribe_test.cpp).
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "probe/listener.h"
#include "tests/lib/loopcall.h"
#include "tests/probe/subscription_world.h"

namespace {

unsigned short portOf(const Listener& listener) {
    sockaddr_in address{};
    socklen_t length = sizeof address;
    ::getsockname(listener.fileDescriptor(), reinterpret_cast<sockaddr*>(&address), &length);
    return ntohs(address.sin_port);
}

bool runUntil(const std::function<bool()>& done) {
    return RunUntil(eventloop, done);
}

// A listener on a kernel-chosen loopback port, served by the probe's loop.
class ListenerTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(listener_.startListener(0));
        port_ = portOf(listener_);
    }

    int connectClient() {
        const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(port_);
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        EXPECT_EQ(::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
        return fd;
    }

    // Collects what has arrived without blocking; true once anything came or the peer closed.
    static bool readAvailable(int fd, std::string& into, bool& closed) {
        char buffer[4096];
        for (;;) {
            const ssize_t count = ::recv(fd, buffer, sizeof buffer, MSG_DONTWAIT);
            if (count > 0) {
                into.append(buffer, std::size_t(count));
                continue;
            }
            closed = closed || count == 0 || (count < 0 && errno == ECONNRESET);
            return closed || !into.empty();
        }
    }

    bool settled() const {
        return listener_.liveCircuits() == 0 && listener_.pendingDeletions() == 0;
    }

    SubscriptionWorld world_;
    Listener listener_{eventloop};
    unsigned short port_ = 0;
};

TEST_F(ListenerTest, CircuitsLeaveNothingBehind) {
    const int silent = connectClient();
    ASSERT_TRUE(runUntil([&] { return listener_.liveCircuits() == 1; }));
    EXPECT_TRUE(listener_.accepting()) << "no client left waiting is no reason to pause";
    ::close(silent);
    EXPECT_TRUE(runUntil([&] { return settled(); })) << "a peer that only closes is cleaned up";

    // Circuits still open when the listener goes are deleted with it, and none of its timers
    // (a deletion waiting for the next pass among them) is left in the loop.
    const std::size_t timeouts = eventloop.TimeoutCount();
    auto second = std::make_unique<Listener>(eventloop);
    ASSERT_TRUE(second->startListener(0));
    int pair[2], gone[2];
    ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM, 0, pair), 0);
    ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM, 0, gone), 0);
    ::close(gone[1]);
    second->startNewConnection(pair[0]);
    second->startNewConnection(gone[0]);
    EXPECT_EQ(second->liveCircuits(), 1u);
    second.reset();
    EXPECT_EQ(eventloop.TimeoutCount(), timeouts);
    char byte;
    EXPECT_EQ(::read(pair[1], &byte, 1), 0) << "its connection is closed";
    ::close(pair[1]);
}

// Clients that are answered as they are accepted could keep the loop accepting for ever:
// a burst is taken in slices, and the timers of the same pass run between them.
TEST_F(ListenerTest, ABurstIsAnsweredInSlicesWithTheLoopsTimersBetween) {
    std::vector<int> clients(100);
    for (int& fd : clients) {
        fd = connectClient();
        ASSERT_EQ(::write(fd, "GET /?get&cvnlbinfo HTTP/1.0\r\n\r\n", 32), 32);
    }
    const auto answered = [&] {
        std::size_t count = 0;
        for (int fd : clients) {
            char byte;
            count += ::recv(fd, &byte, 1, MSG_DONTWAIT | MSG_PEEK) == 1;
        }
        return count;
    };
    RunGuarded(eventloop, KyTimeVal(0, 0)); // one pass, ended by a timer due at once
    const std::size_t first = answered();
    EXPECT_GT(first, 0u);
    EXPECT_LT(first, clients.size()) << "the timer waited for the whole burst";
    EXPECT_TRUE(runUntil([&] { return answered() == clients.size(); }));
    for (int fd : clients) {
        ::close(fd);
    }
    EXPECT_TRUE(runUntil([&] { return settled(); }));
}

// The loop stalls past the idle limit (a slow name look-up, say) and the request arrives
// during the stall: the sweep that runs in the same pass must leave that connection to be
// read, not close it as silent.
TEST_F(ListenerTest, AStalledLoopDoesNotCloseAConnectionWhoseRequestWaitsUnread) {
    ::setenv(Listener::IDLE_LIMIT_ENV, "200", 1);
    Listener patient(eventloop);
    ::unsetenv(Listener::IDLE_LIMIT_ENV);
    ASSERT_TRUE(patient.startListener(0));
    port_ = portOf(patient);
    const int client = connectClient();
    ASSERT_TRUE(runUntil([&] { return patient.liveCircuits() == 1; }));

    std::this_thread::sleep_for(std::chrono::milliseconds(300)); // past the idle limit
    int stall[2];
    ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM, 0, stall), 0);
    ASSERT_EQ(::write(stall[1], "x", 1), 1);
    Call<> slowLookup([&](int) {
        eventloop.RemoveFileEvent(stall[0], true, false, nullptr);
        ASSERT_EQ(::write(client, "GET /?get&cvnlbinfo HTTP/1.0\r\n\r\n", 32), 32);
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    });
    eventloop.AddFileEvent(stall[0], true, false, &slowLookup);

    std::string reply;
    bool closed = false;
    EXPECT_TRUE(runUntil([&] { return readAvailable(client, reply, closed) && closed; }));
    EXPECT_NE(reply.find("No Updates</cvnlbreply>"), std::string::npos) << reply;

    // A client that never speaks is closed once the limit from the environment has passed,
    // well inside runUntil's two seconds (the built-in limit is ten).
    const int silent = connectClient();
    std::string none;
    bool gone = false;
    EXPECT_TRUE(runUntil([&] { return readAvailable(silent, none, gone) && gone; }));
    EXPECT_EQ(none, "");
    for (int fd : {client, silent, stall[0], stall[1]}) {
        ::close(fd);
    }
}

} // namespace
