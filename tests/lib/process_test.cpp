// KyUnixProcess against real children, pipes and signals: exit reports, reaping,
// a child whose exec fails, signal dispatch order, and identity switches (as root).
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

TEST_F(ProcessTest, ChildExitReportsCodeOrSignal) {
    std::vector<Info> exits;
    Call<Info> onExit{[&](Info info) {
        exits.push_back(info);
        if (exits.size() == 2)
            loop.ExitEventLoop(0);
    }};
    pid_t exited = Spawn(&onExit, [] { return 3; });
    pid_t killed = Spawn(&onExit, [] { return pause(), 0; });
    ASSERT_GT(exited, 0);
    ASSERT_GT(killed, 0);
    EXPECT_EQ(process.Children().size(), 2u);
    kill(killed, SIGKILL);

    ASSERT_EQ(Run(), 0);
    ASSERT_EQ(exits.size(), 2u);
    for (const Info& info : exits) {
        bool normal = info.pid == exited;
        EXPECT_EQ(info.pid, normal ? exited : killed);
        EXPECT_EQ(info.code, normal ? 3 : 0);
        EXPECT_EQ(info.signal, normal ? 0 : SIGKILL);
    }
    EXPECT_TRUE(process.Children().empty());
    EXPECT_EQ(process.RemoveSIGCHLDCallback(exited), Failure); // removed after dispatch
}

TEST_F(ProcessTest, TwoExitsBeforeWakingAreReapedInOnePass) {
    std::vector<pid_t> reported;
    Call<Info> onExit{[&](Info info) { reported.push_back(info.pid); }};
    pid_t a = Spawn(&onExit, [] { return 0; });
    pid_t b = Spawn(&onExit, [] { return 0; });
    ASSERT_GT(a, 0);
    ASSERT_GT(b, 0);
    // Wait until both are zombies, without reaping them.
    for (pid_t pid : {a, b}) {
        siginfo_t info{};
        waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOWAIT);
    }
    EXPECT_EQ(process.ProcessSignals(), True);
    EXPECT_EQ(reported.size(), 2u);
    EXPECT_NE(std::find(reported.begin(), reported.end(), a), reported.end());
    EXPECT_NE(std::find(reported.begin(), reported.end(), b), reported.end());
    EXPECT_EQ(process.ProcessSignals(), False);
}

TEST_F(ProcessTest, ExitCallbackMayWithdrawAnotherChildsCallback) {
    int calls = 0;
    pid_t first = 0, other = 0;
    Call<Info> onExit{[&](Info info) {
        ++calls;
        process.RemoveSIGCHLDCallback(info.pid == first ? other : first);
    }};
    first = Spawn(&onExit, [] { return 0; });
    other = Spawn(&onExit, [] { return 0; });
    for (pid_t pid : {first, other}) {
        siginfo_t info{};
        waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOWAIT);
    }
    process.ProcessSignals();
    EXPECT_EQ(calls, 1);
}

// The load tool's output comes back through the pipe, read until the child's end closes.
TEST_F(ProcessTest, PipeCarriesTheChildsOutputUpToItsEnd) {
    const char* argv[] = {"echo", "hello", nullptr};
    KyUnixProcess::ForkParams params;
    params.ExecCommand(argv);
    params.WantPipe(true);
    ASSERT_EQ(process.Fork(params), Success);
    ASSERT_GT(params.ChildPid(), 0);
    const int fd = params.PipeDescriptor();
    std::string received;
    Call<int> onRead{[&](int) {
        char buffer[64];
        ssize_t n = read(fd, buffer, sizeof buffer);
        if (n > 0)
            return received.append(buffer, static_cast<std::size_t>(n)), void();
        loop.RemoveFileEvent(fd, true, false, nullptr);
        loop.ExitEventLoop(0);
    }};
    loop.AddFileEvent(fd, true, false, &onRead);
    EXPECT_EQ(Run(), 0);
    EXPECT_EQ(received, "hello\n");
    close(fd);
    waitpid(params.ChildPid(), nullptr, 0);
}

// A command that cannot run ends its child at once with 127, writing nothing: the copy of
// the caller never returns from Fork.
TEST_F(ProcessTest, CommandThatCannotRunEndsTheChildWith127) {
    const char* argv[] = {"/nonexistent/hostgauge-tool", "-S", nullptr};
    KyUnixProcess::ForkParams params;
    params.ExecCommand(argv);
    params.WantPipe(true);
    int code = -1;
    Call<Info> onExit{[&](Info info) { code = info.code, loop.ExitEventLoop(0); }};
    params.SetCallback(&onExit);
    const KyStatus status = process.Fork(params);
    if (params.ChildPid() == 0) {
        _exit(7); // Fork came back in the child
    }
    ASSERT_EQ(status, Success);
    EXPECT_FALSE(params.ChildExecProcessFailure());
    char buffer[256];
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
    EXPECT_EQ(process.CatchCount(SIGUSR2), 2u);

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

TEST_F(ProcessTest, UsersAreLookedUpAndSwitchedToAsRoot) {
    EXPECT_FALSE(KyUnixUser("no-such-user-hostgauge").IsValid());
    if (geteuid() != 0)
        GTEST_SKIP() << "switching identities needs root; running as uid " << geteuid();
    const KyUnixUser& nobody = NobodyUser();
    if (!nobody.IsValid())
        GTEST_SKIP() << "this system has neither a 'nobody' nor a 'nouser' account";

    long uid = static_cast<long>(nobody.Uid());
    ASSERT_EQ(process.SwitchEffectiveUser(uid), Success);
    EXPECT_EQ(geteuid(), nobody.Uid());
    EXPECT_EQ(uid, 0);
    ASSERT_EQ(process.SwitchEffectiveUser(uid), Success); // and back

    ASSERT_EQ(process.BecomeNobody(), Success);
    EXPECT_EQ(geteuid(), nobody.Uid());
    EXPECT_EQ(getegid(), nobody.Gid());
    // Root is looked up by name: its ids come from the password database.
    ASSERT_EQ(process.BecomeRoot(), Success);
    EXPECT_EQ(geteuid(), 0u);
    EXPECT_EQ(getegid(), 0u);
    EXPECT_FALSE(process.UserSwitchFailed());

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
