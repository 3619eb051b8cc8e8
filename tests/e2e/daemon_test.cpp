// End-to-end tests of the hostgauge daemon on the shared fixture: the tool's arguments, the
// cached samples, the stop by signal with its exit codes and last log lines, and the
// clean-up of pid file and tool, also when the tool misbehaves.
#include "tests/e2e/daemon_fixture.h"

#include <gtest/gtest.h>

#include <algorithm>

namespace {

using namespace e2e;

const std::string kFakeTool = std::string(HOSTGAUGE_SOURCE_DIR) + "/tests/e2e/fakevmstat.sh";

// A pid counts as gone once it no longer exists or is only a zombie.
bool processGone(pid_t pid) {
    const std::string stat = ReadWhole("/proc/" + std::to_string(pid) + "/stat");
    return ::kill(pid, 0) != 0 || stat.find(") Z ") != std::string::npos;
}

// Whether the process has a handler for SIGHUP (bit 0 of SigCgt in its status).
bool catchesSighup(pid_t pid) {
    for (const auto& line : lines(ReadWhole("/proc/" + std::to_string(pid) + "/status")))
        if (line.starts_with("SigCgt:"))
            return std::stoull(line.substr(7), nullptr, 16) & 1;
    return false;
}

// Sends the signal and checks the exit status and the two closing log messages. A child's
// exit noticed in the same signal pass may be logged between them, so the signal line is
// looked for among the messages before the last one.
void expectStoppedBy(Daemon& daemon, int signal, const std::string& name, int code) {
    ::kill(daemon.pid(), signal);
    EXPECT_EQ(daemon.waitExit(), code & 0xff);
    const auto messages = daemon.messages();
    ASSERT_GE(messages.size(), 2u);
    EXPECT_TRUE(std::any_of(messages.begin(), messages.end() - 1, [&](const auto& text) {
        return text.ends_with(" signal " + name + ".");
    }));
    EXPECT_TRUE(messages.back().ends_with(" exitcode " + std::to_string(code) + "."));
}

TEST(DaemonTest, MeasuresUntilSigtermThenCleansUp) {
    Daemon daemon;
    daemon.toolPrints(toolRun(37, 1) + sampleLine(38, 4096));
    writeFile(daemon.dir() / "linger", "60");
    daemon.start();

    ASSERT_TRUE(daemon.waitForLog("idle=38", kStartDeadline)) << daemon.log();
    EXPECT_NE(daemon.log().find("\nHostgauge started.\n"), std::string::npos);
    EXPECT_NE(daemon.log().find("idle=37, swap=4096, "), std::string::npos);
    EXPECT_NE(daemon.log().find("physmemfree=2048, swappedin=3, swappedout=4."), std::string::npos);
    EXPECT_EQ(daemon.log().find("idle=99"), std::string::npos) << "the since-boot line is skipped";
    EXPECT_EQ(daemon.toolArgs(), std::vector<std::string>{"[-S][5][4]"});

    const fs::path pidFile = daemon.dir() / "hostgauge.pid";
    EXPECT_EQ(ReadWhole(pidFile), std::to_string(daemon.pid()));
    EXPECT_EQ(fs::status(pidFile).permissions() & fs::perms::all,
              fs::perms::owner_read | fs::perms::owner_write);

    const pid_t tool = std::stoi(daemon.toolPids().back());
    EXPECT_FALSE(processGone(tool));
    expectStoppedBy(daemon, SIGTERM, "SIGTERM", 604);
    EXPECT_FALSE(fs::exists(pidFile));
    EXPECT_TRUE(waitFor([&] { return processGone(tool); }, 5s)) << "the tool is killed";
}

// Log records wait in a buffer for the end of the loop pass. Every stop path above checks
// its closing records; these two cover the fork failures and a stop without any warning.
TEST(DaemonTest, ForkFailuresEndWithCodeElevenAndTheirRecordsLogged) {
#if defined(__SANITIZE_ADDRESS__)
    // The sanitizers' runtime opens files of its own (/proc/self/maps) and, with seven
    // descriptors, reports false errors of its own instead of the daemon's.
    GTEST_SKIP() << "seven descriptors leave the sanitizer runtime none of its own";
#endif
    Daemon daemon;
    // Standard descriptors, the loop's wake-up pipe and the two log files: no room for the
    // tool's pipe.
    daemon.limitDescriptors(7);
    daemon.start();
    // Each failed attempt sleeps 30 s; a signal cuts the sleep short once it is caught.
    ASSERT_TRUE(waitFor([&] { return catchesSighup(daemon.pid()); }, kStartDeadline));
    int status = -1;
    for (int round = 0; round < 300 && status < 0; ++round) {
        ::kill(daemon.pid(), SIGHUP);
        status = daemon.waitExit(1s);
    }
    EXPECT_EQ(status, 11);
    const auto messages = daemon.messages();
    ASSERT_GE(messages.size(), 2u) << daemon.log();
    EXPECT_TRUE(
        messages[messages.size() - 2].starts_with("Failed to fork a child process after 5"));
    EXPECT_TRUE(messages.back().ends_with(" exitcode 11."));
}

TEST(DaemonTest, RecordsReachTheLogBeforeTheDaemonWaitsSoAKillLosesNone) {
    Daemon daemon;
    writeFile(daemon.dir() / "linger", "60");
    ASSERT_TRUE(daemon.startServing());
    ASSERT_FALSE(request(daemon.port(), killRequest(4711)).empty());
    // Nothing but the daemon's own wait writes the request's records out.
    ASSERT_TRUE(daemon.waitForLog("4711")) << daemon.log();
    const std::string before = daemon.log();
    ::kill(daemon.pid(), SIGKILL);
    EXPECT_EQ(daemon.waitExit(), 128 + SIGKILL);
    EXPECT_EQ(daemon.log(), before);
    EXPECT_TRUE(before.ends_with("\n")) << "only whole records";
}

TEST(DaemonTest, SurvivesAToolThatMisbehaves) {
    Daemon daemon;
    daemon.set("probepath", kFakeTool);
    daemon.set("piddirectory", (daemon.dir() / "missing").string());
    daemon.toolPrints("procs\nmemory\npage\nthis\nis not\nvmstat\noutput\n");
    writeFile(daemon.dir() / "linger", "0.1");
    daemon.start();

    ASSERT_TRUE(daemon.waitForLog("has not been recognised by the data filter", kStartDeadline));
    EXPECT_EQ(daemon.toolArgs().front(), "[5][4]");

    // A run records its pid before it looks at the files, so the first run counted after a
    // change sees it; runs follow one another, so it has ended once the next one starts.
    fs::remove(daemon.dir() / "output"); // prints nothing
    ASSERT_TRUE(daemon.waitForRuns(daemon.toolPids().size() + 1));
    writeFile(daemon.dir() / "die", ""); // dies at once
    ASSERT_TRUE(daemon.waitForRuns(daemon.toolPids().size() + 2));
    fs::remove(daemon.dir() / "die");
    daemon.toolPrints(toolRun(55, 3000)); // floods the pipe

    EXPECT_TRUE(daemon.waitForLog("idle=55"));
    ASSERT_TRUE(daemon.running());
    EXPECT_FALSE(fs::exists(daemon.dir() / "missing")) << "no pid file, and no complaint";
    expectStoppedBy(daemon, SIGINT, "SIGINT", 603);
}

} // namespace
