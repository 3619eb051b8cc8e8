// Tests of the load-tool child manager: the run cycle driven by hand against a scripted
// tool, its waits after empty runs, and the tool's end with the manager.
#include "lib/eventloop.h"
#include "probe/bogomips.h"
#include "probe/cache.h"
#include "probe/childmanager.h"
#include "probe/logging.h"
#include "probe/vmstatfilter.h"
#include "tests/lib/logtemp.h"
#include "tests/lib/loopcall.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <string>
#include <sys/wait.h>
#include <unistd.h>

namespace {

// True when the child died of SIGKILL (or was reaped already), within two seconds.
bool wasKilled(pid_t pid) {
    int status = 0;
    pid_t reaped = 0;
    for (int tries = 0; tries < 200 && (reaped = ::waitpid(pid, &status, WNOHANG)) == 0; ++tries)
        ::usleep(10000);
    return reaped == -1 ? errno == ECHILD : WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL;
}

// Runs a shell script in place of the configured tool.
class ScriptedProcess : public KyUnixProcess {
public:
    KyStatus Fork(ForkParams& params) override {
        ++forks;
        argv_[2] = script.c_str();
        params.ExecCommand(argv_);
        return KyUnixProcess::Fork(params);
    }

    std::string script = "exit 0";
    int forks = 0;

private:
    const char* argv_[4] = {"/bin/sh", "-c", nullptr, nullptr};
};

const std::string kRun = "printf 'h1\\nh2\\n0 0 0 0 0 0 0 0 0 0 0 0 0 0 0 0 0 0 0 0 0 1\\n";

std::string runPrinting(int idle) {
    return kRun + "0 0 0 2048 1024 0 0 3 4 0 0 0 0 0 0 0 0 0 0 1 1 " + std::to_string(idle) +
           "\\n'";
}

class ChildManagerTest : public ::testing::Test {
protected:
    void SetUp() override {
        the_current_process = &process;
        myCache = &cache;
        myBogomips = &bogomips;
    }
    void TearDown() override {
        manager.reset();
        bootLogger.reset();
        myCache = nullptr;
        myBogomips = nullptr;
        the_current_process = nullptr;
    }

    void start(const std::string& script) {
        process.script = script;
        manager = std::make_unique<ChildManager>(loop, &filter);
        manager->setSampleRateAndWindowSize(5, 10);
        ASSERT_GT(manager->forkChild(), 0);
    }
    // Reads as the loop would until the run is over (and the next one started, unless the
    // run cached nothing and the next fork waits).
    void finishRun() {
        const int pid = manager->getChildPid();
        for (int reads = 0; reads < 100 && manager->getChildPid() == pid && manager->isReading();
             ++reads) {
            manager->readpipeCB(nullptr, KyEvent::Fired);
        }
    }

    ScriptedProcess process;
    KyEventLoop loop{&process};
    Cache cache{10, 1u << 30, 1u << 30};
    VmstatFilter filter{1u << 30, 1u << 30};
    int ratings = 0;
    std::chrono::steady_clock::time_point now{};
    Bogomips bogomips{1, 80,
                      [this](std::uint64_t loops) -> std::clock_t {
                          ++ratings;
                          return static_cast<std::clock_t>(loops);
                      },
                      [this] { return now; }};
    std::unique_ptr<ChildManager> manager;
};

TEST_F(ChildManagerTest, EndsARunAfterTwoEmptyReadsAndStartsTheNext) {
    start(runPrinting(94));
    const int ratingsBefore = ratings;
    now += Bogomips::RERATE_AFTER; // the rating is stale from here on
    finishRun();
    EXPECT_EQ(cache.getLastIdle(), 94u);
    EXPECT_EQ(ratings, ratingsBefore) << "94 is not idle enough to re-rate";
    EXPECT_EQ(process.forks, 2);

    process.script = runPrinting(95); // for the run after the one now running
    finishRun();
    finishRun();
    EXPECT_GT(ratings, ratingsBefore) << "95 re-rates a stale rating";
    EXPECT_EQ(cache.getLength(), 3u);
}

// The monotonic clock the loop's timeouts run on, moved by hand.
std::uint64_t fakeMonotonic = 0;
std::uint64_t realWall() {
    return std::uint64_t(KyTimeVal().Seconds()) * 1000000 + KyTimeVal().Microseconds();
}

// Runs that cache nothing wait before the next fork: 1 s, doubling, at most the sample
// rate (5 s here); a run that caches a sample ends the waiting. The fifth empty run in a
// row is reported, the sixth is not (the reminders come a hundred runs apart).
TEST_F(ChildManagerTest, RunsThatCacheNothingWaitLongerBeforeTheNextFork) {
    LogTempDir dir;
    bootLogger = std::make_unique<Logging>(KyUniString(dir.Path()), "*/*/*:tool.log");
    fakeMonotonic = 1000000000;
    loop.SetClocks(realWall, [] { return fakeMonotonic; });
    // One pass of the loop after `seconds` have gone by: true if the tool was started again.
    auto forksAfter = [this](double seconds) {
        const int before = process.forks;
        fakeMonotonic += static_cast<std::uint64_t>(seconds * 1e6);
        RunGuarded(loop, KyTimeVal(0, 0));
        return process.forks > before;
    };
    start("exit 0");
    finishRun();
    // The death of the tool, reported after the pipe already ended its run, ends nothing more.
    manager->deadkidCB(nullptr, {manager->getChildPid(), 0, 0});
    EXPECT_EQ(manager->getEmptyRuns(), 1u);
    EXPECT_TRUE(forksAfter(1.05));
    for (const unsigned wait : {2u, 4u, 5u, 5u}) {
        finishRun();
        EXPECT_EQ(manager->getRetryWait(), wait);
        EXPECT_FALSE(forksAfter(wait - 0.05)) << "forked early after an empty run";
        EXPECT_TRUE(forksAfter(0.1)) << "no fork " << wait << " s after an empty run";
    }
    EXPECT_EQ(manager->getEmptyRuns(), 5u);
    process.script = runPrinting(50);
    finishRun(); // the empty run before the script changed
    EXPECT_EQ(manager->getEmptyRuns(), 6u);
    const std::string log = ReadLog(dir / "tool.log");
    EXPECT_NE(log.find("did not return any data on 5 successive"), std::string::npos) << log;
    EXPECT_EQ(log.find("did not return any data on 6"), std::string::npos);
    ASSERT_TRUE(forksAfter(5.1));
    finishRun();
    EXPECT_EQ(manager->getRetryWait(), 0u);
    EXPECT_EQ(manager->getEmptyRuns(), 0u);
}

TEST_F(ChildManagerTest, IgnoresTheDeathOfAnotherChild) {
    start("exec sleep 30");
    const int pid = manager->getChildPid();
    manager->deadkidCB(nullptr, {pid + 100000, 0, 9});
    EXPECT_EQ(manager->getWrongChildCount(), 1u);
    EXPECT_EQ(manager->getChildPid(), pid);
    EXPECT_EQ(::kill(pid, 0), 0) << "the current tool keeps running";
    manager.reset();
    EXPECT_TRUE(wasKilled(pid)) << "destroying the manager kills the tool";
}

} // namespace
