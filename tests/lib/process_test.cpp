// KyUnixProcess against real children, pipes and signals: exit reports, reaping,
// a child whose exec fails, signal dispatch order, and a child run as another user (as root).
#include "lib/eventloop.h"
#include "tests/lib/loopcall.h"

#include <algorithm>
#include <csignal>
#include <fcntl.h>
#include <functional>
#include <gtest/gtest.h>
#include <string>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace {

using Info = KyUnixProcess::child_info;

class ProcessTest : public ::testing::Test {
protected:
    // Children may end before the loop runs; their signals must not be dropped.
    void SetUp() override {
        the_current_process = &process;
        process.StartSignals();
    }
    void TearDown() override { process.StopSignals(); }

    // Forks a child that runs body and exits with what it returns.
    pid_t Spawn(KyCallback<Info>* callback, const std::function<int()>& body) {
        KyUnixProcess::ForkParams params;
        params.SetCallback(callback);
        if (process.Fork(params) != Success)
            return -1;
        if (params.ChildPid() == 0)
            _exit(body());
        return params.ChildPid();
    }

    int Run() { return RunGuarded(loop); }

    KyUnixProcess process;
    KyEventLoop loop{&process};
};

// Exits that all happened before the loop woke are reaped in one pass, each with its code
// or signal; a callback may withdraw the callback of another child not reported yet.
TEST_F(ProcessTest, ExitsAreReapedInOnePassWithCodeOrSignalAndMayWithdrawEachOther) {
    std::vector<Info> reported;
    pid_t c = 0, d = 0;
    Call<Info> onExit{[&](Info info) { reported.push_back(info); }};
    Call<Info> withdraws{[&](Info info) {
        reported.push_back(info);
        process.RemoveSIGCHLDCallback(info.pid == c ? d : c);
    }};
    const pid_t a = Spawn(&onExit, [] { return 3; });
    const pid_t b = Spawn(&onExit, [] { return pause(), 0; });
    c = Spawn(&withdraws, [] { return 0; });
    d = Spawn(&withdraws, [] { return 0; });
    EXPECT_EQ(process.Children().size(), 4u);
    kill(b, SIGKILL);
    // Wait until all are zombies, without reaping them.
    for (pid_t pid : {a, b, c, d}) {
        siginfo_t info{};
        waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOWAIT);
    }
    EXPECT_EQ(process.ProcessSignals(), True);
    ASSERT_EQ(reported.size(), 3u);
    int fromAOrB = 0;
    for (const Info& info : reported) {
        fromAOrB += info.pid == a || info.pid == b;
        EXPECT_EQ(info.code, info.pid == a ? 3 : 0);
        EXPECT_EQ(info.signal, info.pid == b ? SIGKILL : 0);
    }
    EXPECT_EQ(fromAOrB, 2);
    EXPECT_EQ(process.ProcessSignals(), False);
    EXPECT_EQ(process.RemoveSIGCHLDCallback(a), Failure); // removed after dispatch
    waitpid(-1, nullptr, WNOHANG); // the withdrawn child, if the process left it
}

// A command that cannot run ends its child at once with 127, writing nothing to the pipe:
// the copy of the caller never returns from Fork. (The load tool's output through the
// pipe runs in the child manager's tests.)
TEST_F(ProcessTest, ACommandThatCannotRunEndsWith127) {
    int code = -1;
    Call<Info> onExit{[&](Info info) { code = info.code, loop.ExitEventLoop(0); }};
    const char* argv[] = {"/nonexistent/hostgauge-tool", nullptr};
    KyUnixProcess::ForkParams params;
    params.ExecCommand(argv);
    params.WantPipe(true);
    params.SetCallback(&onExit);
    ASSERT_EQ(process.Fork(params), Success);
    if (params.ChildPid() == 0)
        _exit(7); // Fork came back in the child
    char buffer[8];
    EXPECT_EQ(read(params.PipeDescriptor(), buffer, sizeof buffer), 0);
    close(params.PipeDescriptor());
    EXPECT_EQ(Run(), 0);
    EXPECT_EQ(code, KyUnixProcess::EXIT_EXEC_FAILED);
}

// Descriptors run out between the two pipes: Fork fails and leaves none of them open.
TEST_F(ProcessTest, NoRoomForTheErrorPipeClosesTheOutputPipe) {
#if defined(__SANITIZE_ADDRESS__)
    GTEST_SKIP() << "the sanitizer runtime needs descriptors of its own to check the failure path";
#endif
    const int lowest = dup(0);
    close(lowest);
    rlimit old{};
    getrlimit(RLIMIT_NOFILE, &old);
    const rlimit tight{static_cast<rlim_t>(lowest) + 2, old.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &tight), 0);
    KyUnixProcess::ForkParams params;
    params.WantPipe(true);
    params.WantErrorPipe(true);
    const KyStatus status = process.Fork(params);
    setrlimit(RLIMIT_NOFILE, &old);
    EXPECT_EQ(status, Failure);
    EXPECT_EQ(fcntl(lowest, F_GETFD), -1);
    EXPECT_EQ(fcntl(lowest + 1, F_GETFD), -1);
}

TEST_F(ProcessTest, SignalsDispatchInRegistrationOrderOnlyWhileEnabled) {
    std::vector<std::string> order;
    Call<int> first{[&](int) { order.push_back("first"); }};
    Call<int> second{[&](int) { order.push_back("second"); }};
    ASSERT_EQ(process.CatchSignal(SIGUSR2, &first), Success);
    ASSERT_EQ(process.CatchSignal(SIGUSR2, &second), Success);

    process.StopSignals();
    raise(SIGUSR2); // not recorded: the loop is not running
    EXPECT_EQ(process.ProcessSignals(), False);
    process.StartSignals();
    raise(SIGUSR2);
    raise(SIGUSR2); // recorded once more, dispatched once
    EXPECT_EQ(process.ProcessSignals(), True);
    process.StopSignals();
    EXPECT_EQ(order, (std::vector<std::string>{"first", "second"}));
}

TEST_F(ProcessTest, CommandsRunAsTheUserAskedFor) {
    EXPECT_FALSE(KyUnixUser("no-such-user-hostgauge").IsValid());
    if (geteuid() != 0)
        GTEST_SKIP() << "switching identities needs root; running as uid " << geteuid();
    const KyUnixUser& nobody = NobodyUser();
    if (!nobody.IsValid())
        GTEST_SKIP() << "this system has neither a 'nobody' nor a 'nouser' account";

    // A command started under another user runs as that user, real and effective.
    const char* argv[] = {"sh", "-c", "echo $(id -ru) $(id -u)", nullptr};
    KyUnixProcess::ForkParams params;
    params.ExecCommand(argv);
    params.WantPipe(true);
    params.SetUserId(nobody.Uid());
    ASSERT_EQ(process.Fork(params), Success);
    std::string ids(64, '\0');
    ids.resize(std::max<ssize_t>(0, read(params.PipeDescriptor(), ids.data(), ids.size())));
    EXPECT_EQ(ids, std::to_string(nobody.Uid()) + " " + std::to_string(nobody.Uid()) + "\n");
    close(params.PipeDescriptor());
    waitpid(params.ChildPid(), nullptr, 0);
}

} // namespace
