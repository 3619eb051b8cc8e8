// The event loop with real descriptors and timeouts: ordering of timeouts, wall-clock
// steps, dispatch while registrations change, bad descriptors and leaving.
#include "lib/eventloop.h"
#include "tests/lib/loopcall.h"

#include <gtest/gtest.h>
#include <string>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>

namespace {

KyTimeVal In(std::uint32_t micros) {
    return KyTimeVal() + KyTimeVal(0, micros);
}

struct SocketPair {
    SocketPair() { socketpair(AF_UNIX, SOCK_STREAM, 0, fd); }
    ~SocketPair() {
        for (int f : fd)
            if (f >= 0)
                close(f);
    }
    int fd[2] = {-1, -1};
};

class EventLoopTest : public ::testing::Test {
protected:
    // A process object of its own, so signal registrations die with the test.
    void SetUp() override { the_current_process = &process; }
    KyUnixProcess process;
    KyEventLoop loop{&process};
};

// A descriptor that never drains keeps poll returning at once; due timeouts still fire
// in every pass, earliest first, and one added for "now" by a callback waits a pass.
TEST_F(EventLoopTest, DueTimeoutsFireInEveryPassWhileADescriptorStaysReady) {
    SocketPair busy;
    ASSERT_EQ(write(busy.fd[1], "x", 1), 1);
    long passes = 0;
    Call<> onBusy{[&](int) {
        if (++passes > 1000000)
            loop.ExitEventLoop(98); // timeouts starved
    }};
    std::vector<std::string> fired;
    auto note = [&](const char* name) { fired.push_back(name + ("@" + std::to_string(passes))); };
    Call<> later{[&](int) { note("later"); }};
    Call<> a{[&](int) {
        note("a");
        loop.AddTimeoutEvent(KyTimeVal(), &later);
    }};
    Call<> b{[&](int) { note("b"); }};
    Call<> end{[&](int) { loop.ExitEventLoop(passes > 2 ? 0 : 97); }};
    loop.AddFileEvent(busy.fd[0], true, false, &onBusy);
    loop.AddTimeoutEvent(In(30000), &end);
    loop.AddTimeoutEvent(KyTimeVal(1, 1), &b);
    loop.AddTimeoutEvent(KyTimeVal(1, 0), &a);
    EXPECT_EQ(loop.EnterEventLoop(), 0);
    EXPECT_EQ(fired, (std::vector<std::string>{"a@1", "b@1", "later@2"}));
}

// Fake clocks: the wall clock steps an hour forward and then two back while the monotonic
// clock moves on by ten seconds; timeouts keep their distance from the time they were set.
std::uint64_t fakeWall = 0, fakeMonotonic = 0;

TEST_F(EventLoopTest, WallClockStepsMoveNoTimeout) {
    constexpr std::uint64_t second = 1000000;
    fakeWall = 1700000000 * second;
    fakeMonotonic = 500 * second;
    loop.SetClocks([] { return fakeWall; }, [] { return fakeMonotonic; });
    auto wallIn = [](std::int64_t seconds) {
        const std::uint64_t at = fakeWall + seconds * second;
        return KyTimeVal(std::uint32_t(at / second), std::uint32_t(at % second));
    };
    std::vector<std::string> fired;
    Call<> a{[&](int) { fired.push_back("a"); }};
    Call<> b{[&](int) { fired.push_back("b"); }};
    // Always ready: each run of the loop is two passes, the second ends it.
    SocketPair ready;
    ASSERT_EQ(write(ready.fd[1], "x", 1), 1);
    int dispatches = 0;
    Call<> onReady{[&](int) {
        if (++dispatches % 2 == 0)
            loop.ExitEventLoop(0);
    }};
    loop.AddFileEvent(ready.fd[0], true, false, &onReady);
    loop.AddTimeoutEvent(wallIn(10), &a);
    loop.AddTimeoutEvent(wallIn(20), &b);

    fakeWall += 3600 * second;
    EXPECT_EQ(loop.EnterEventLoop(), 0);
    EXPECT_TRUE(fired.empty());

    fakeWall -= 7200 * second;
    fakeMonotonic += 10 * second;
    EXPECT_EQ(loop.EnterEventLoop(), 0);
    EXPECT_EQ(fired, std::vector<std::string>{"a"});
    EXPECT_EQ(loop.TimeoutCount(), 1u);
}

TEST_F(EventLoopTest, CallbackChangesRegistrationsDuringDispatch) {
    SocketPair first, second;
    ASSERT_EQ(write(first.fd[1], "x", 1), 1);
    ASSERT_EQ(write(second.fd[1], "y", 1), 1);
    std::vector<std::string> calls;
    Call<> onWrite{[&](int) { calls.push_back("write"); }};
    Call<> onSecond{[&](int) { calls.push_back("second"); }};
    // Reading the first descriptor withdraws its own write and the whole second entry.
    Call<> onFirst{[&](int) {
        calls.push_back("first");
        loop.RemoveFileEvent(first.fd[0], false, true, nullptr);
        loop.RemoveFileEvent(second.fd[0], true, false, nullptr);
        loop.RemoveFileEvent(first.fd[0], true, false, nullptr);
        loop.ExitEventLoop(5);
    }};
    loop.AddFileEvent(first.fd[0], true, true, &onFirst);
    loop.AddFileEvent(first.fd[0], false, true, &onWrite); // replaces the write event
    loop.AddFileEvent(second.fd[0], true, false, &onSecond);
    EXPECT_EQ(loop.PollCount(), 2u);
    EXPECT_EQ(RunGuarded(loop), 5);
    EXPECT_EQ(calls, std::vector<std::string>{"first"});
    EXPECT_EQ(loop.PollCount(), 0u);
    EXPECT_EQ(loop.RemoveFileEvent(first.fd[0], true, true, nullptr), False);
}

// Both timeouts are due in the same pass; the exit from the first stops the second.
TEST_F(EventLoopTest, NoTimeoutRunsAfterTheExit) {
    Call<> leave{[&](int) { loop.ExitEventLoop(3); }};
    Call<> never{[&](int) { ADD_FAILURE() << "loop ran on after ExitEventLoop"; }};
    loop.AddTimeoutEvent(KyTimeVal(1, 0), &leave);
    loop.AddTimeoutEvent(KyTimeVal(2, 0), &never);
    EXPECT_EQ(loop.EnterEventLoop(), 3);
    EXPECT_EQ(loop.TimeoutCount(), 1u);
}

TEST_F(EventLoopTest, ClosedDescriptorIsReportedAndUnregistered) {
    // Captured first: the capture file must not take over the number closed below.
    testing::internal::CaptureStderr();
    int fds[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, fds), 0);
    Call<> cb{[](int) {}};
    loop.AddFileEvent(fds[0], true, true, &cb);
    close(fds[0]);
    close(fds[1]);
    EXPECT_EQ(RunGuarded(loop, KyTimeVal(0, 20000)), 99);
    const std::string err = testing::internal::GetCapturedStderr();
    EXPECT_NE(err.find("bad read file descriptor " + std::to_string(fds[0])), std::string::npos);
    EXPECT_EQ(loop.PollCount(), 0u);
}

} // namespace
