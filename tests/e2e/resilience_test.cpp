// End-to-end tests of the daemon left alone with a broken load tool: no copies of the daemon,
// no spinning, the failure logged now and then, measuring again once the tool works.
#include <gtest/gtest.h>

#include <sys/stat.h>

#include "tests/e2e/daemon_fixture.h"

namespace {

using namespace e2e;

constexpr const char* kToolFailed = "did not return any data on 5 successive iterations";

void writeScript(const fs::path& path, const std::string& body, fs::perms mode) {
    writeFile(path, "#!/bin/sh\n" + body + "\n");
    fs::permissions(path, mode);
}

// Processes other than `daemon` started with the daemon's command line: copies of it.
std::vector<pid_t> copiesOf(const Daemon& daemon) {
    std::vector<pid_t> copies;
    for (const auto& entry : fs::directory_iterator("/proc")) {
        const std::string name = entry.path().filename();
        std::string command = ReadWhole(entry.path() / "cmdline");
        std::replace(command.begin(), command.end(), '\0', ' ');
        if (name.find_first_not_of("0123456789") == std::string::npos &&
            std::stoi(name) != daemon.pid() &&
            command.starts_with("hostgauge " + daemon.dir().string()))
            copies.push_back(std::stoi(name));
    }
    return copies;
}

// A tool that cannot be executed, from the start (no execute permission) or from a later run
// on (removed while the daemon runs): each run ends at once, no copy of the daemon lives on,
// the pid file stays, and the failure is logged once after five runs.
TEST(Resilience, AToolThatCannotBeExecutedLeavesNoCopiesOfTheDaemon) {
    Daemon notExecutable, removed;
    writeScript(notExecutable.dir() / "tool", "exit 0", fs::perms::owner_read);
    notExecutable.set("probepath", (notExecutable.dir() / "tool").string() + " -S");
    writeScript(removed.dir() / "tool", "exit 0", fs::perms::owner_all);
    removed.set("probepath", (removed.dir() / "tool").string() + " -S");
    notExecutable.start();
    removed.start();
    ASSERT_TRUE(
        waitFor([&] { return fs::exists(removed.dir() / "hostgauge.pid"); }, kStartDeadline));
    fs::remove(removed.dir() / "tool");

    for (Daemon* daemon : {&notExecutable, &removed}) {
        ASSERT_TRUE(daemon->waitForLog(kToolFailed, 60s)) << daemon->dir();
        EXPECT_EQ(ReadWhole(daemon->dir() / "hostgauge.pid"), std::to_string(daemon->pid()));
        EXPECT_TRUE(copiesOf(*daemon).empty());
        ::kill(daemon->pid(), SIGTERM);
        EXPECT_EQ(daemon->waitExit(), 92);
        EXPECT_TRUE(copiesOf(*daemon).empty()) << "a copy outlived the daemon";
        EXPECT_EQ(daemon->log().find(kToolFailed), daemon->log().rfind(kToolFailed))
            << "logged once";
    }
}

// A tool that exits at once costs almost nothing while it stays broken, and once it prints
// samples again the daemon measures without a restart.
TEST(Resilience, AToolThatExitsAtOnceNeitherSpinsNorFloodsTheLogAndIsPickedUpWhenFixed) {
    Daemon daemon;
    const fs::path tool = daemon.dir() / "tool";
    writeScript(tool, "echo 'vmstat: -S requires an argument' >&2; exit 1", fs::perms::owner_all);
    daemon.set("probepath", tool.string() + " -S");
    ASSERT_TRUE(daemon.startServing());

    // The daemon's own log pair is there from start-up, private, with nothing from children.
    const std::string stem = "hostgauge" + std::to_string(daemon.pid()) + "_error";
    for (const char* extension : {".log", ".jsl"}) {
        struct stat info {};
        ASSERT_EQ(::stat((daemon.dir() / (stem + extension)).c_str(), &info), 0) << extension;
        EXPECT_EQ(info.st_mode & 0777, 0600u) << extension;
    }

    const auto cpuBefore = cpuTime(daemon.pid());
    const auto logBefore = daemon.log().size();
    std::this_thread::sleep_for(10s); // the measurement: what 10 s of a broken tool cost
    EXPECT_LT(cpuTime(daemon.pid()) - cpuBefore, 200ms) << "2 % of a core";
    EXPECT_LT(daemon.log().size() - logBefore, 20000u);
    EXPECT_NE(request(daemon.port(), kStatusRequest).find("No Updates"), std::string::npos);
    std::size_t logFiles = 0;
    for (const auto& entry : fs::directory_iterator(daemon.dir()))
        logFiles += entry.path().extension() == ".log" || entry.path().extension() == ".jsl";
    EXPECT_EQ(logFiles, 2u) << "the tool's runs leave no log files";

    daemon.toolPrints(toolRun(37));
    writeScript(tool, "exec '" HOSTGAUGE_SOURCE_DIR "/tests/e2e/fakevmstat.sh' \"$@\"",
                fs::perms::owner_all);
    EXPECT_TRUE(daemon.waitForLog("The following results have just been cached: idle=37"));
}

} // namespace
