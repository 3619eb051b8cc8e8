// Tests of the load-tool child manager: the tool's argument vector, the pipe buffer's
// growth, the run cycle driven by hand against a scripted tool, the stop signals' exit
// codes, and the fork retries.
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
#include <cstdio>
#include <cstring>
#include <string>
#include <sys/wait.h>
#include <unistd.h>

namespace {

std::vector<std::string> arguments(const ToolCommand& command) {
    std::vector<std::string> result;
    for (const char* const* arg = command.argv(); *arg != nullptr; ++arg) {
        result.emplace_back(*arg);
    }
    return result;
}

TEST(ToolCommandTest, SplitsThePathOnceAtTheFirstSpace) {
    ToolCommand bare("/usr/bin/vmstat");
    bare.setIntervalAndCount(5, 11);
    EXPECT_EQ(arguments(bare), (std::vector<std::string>{"/usr/bin/vmstat", "5", "11"}));

    ToolCommand options("/usr/bin/vmstat -S -x");
    options.setIntervalAndCount(30, 121);
    options.setIntervalAndCount(2, 26); // replaces the first pair
    EXPECT_EQ(arguments(options),
              (std::vector<std::string>{"/usr/bin/vmstat", "-S -x", "2", "26"}));
}

TEST(ToolOutputBufferTest, GrowsBeforeAReadCouldOverflowIt) {
    ToolOutputBuffer buffer;
    ASSERT_TRUE(buffer.allocate());
    std::memset(buffer.writePosition(), 'a', 700);
    buffer.appended(700);
    ASSERT_TRUE(buffer.needsToGrow(700)) << "324 < 700 + 350";
    ASSERT_TRUE(buffer.grow());
    EXPECT_EQ(buffer.spaceLeft(), 1348) << "doubled, the text kept";

    std::memset(buffer.writePosition(), 'b', 1348);
    buffer.appended(1348);
    EXPECT_EQ(std::strlen(buffer.text()), 2048u) << "a read that fills the block still fits";
    buffer.clear();
    EXPECT_EQ(buffer.spaceLeft(), 2048) << "the block never shrinks";
}

// True when the child died of SIGKILL (or was reaped already), within two seconds.
bool wasKilled(pid_t pid) {
    int status = 0;
    pid_t reaped = 0;
    for (int tries = 0; tries < 200 && (reaped = ::waitpid(pid, &status, WNOHANG)) == 0; ++tries)
        ::usleep(10000);
    return reaped == -1 ? errno == ECHILD : WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL;
}

// Runs a shell script in place of the configured tool, or fails every fork.
class ScriptedProcess : public KyUnixProcess {
public:
    KyStatus Fork(ForkParams& params) override {
        ++forks;
        if (failForks) {
            return Failure;
        }
        argv_[2] = script.c_str();
        params.ExecCommand(argv_);
        return KyUnixProcess::Fork(params);
    }

    std::string script = "exit 0";
    bool failForks = false;
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

// A stop by signal leaves the loop with the code the operators' scripts know, and says which
// signal it was. One manager takes all three: its handlers stay registered with the process.
TEST_F(ChildManagerTest, StopSignalsEndTheLoopWithTheirExitCodes) {
    LogTempDir dir;
    bootLogger = std::make_unique<Logging>(KyUniString(dir.Path()), "*/*/*:stop.log");
    manager = std::make_unique<ChildManager>(loop, &filter);
    const struct {
        int signal;
        int code;
        std::string name;
    } stops[] = {{SIGINT, 603, "SIGINT"}, {SIGTERM, 604, "SIGTERM"}, {SIGPIPE, 606, "SIGPIPE"}};
    for (const auto& stop : stops) {
        SCOPED_TRACE(stop.name);
        // Raised from inside the loop: the process records signals only while it runs.
        Call<> raiser{[&](int reason) {
            if (reason == KyEvent::Fired)
                ::raise(stop.signal);
        }};
        loop.AddTimeoutEvent(KyTimeVal(), &raiser);
        EXPECT_EQ(RunGuarded(loop), stop.code);
        const auto records = ParseRecords(ReadLog(dir / "stop.log"));
        ASSERT_FALSE(records.empty());
        EXPECT_NE(records.back().text.find("by signal " + stop.name + "."), std::string::npos)
            << records.back().text;
    }
    EXPECT_EQ(ParseRecords(ReadLog(dir / "stop.log")).size(), std::size(stops));
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

TEST_F(ChildManagerTest, GivesUpAfterFiveFailedForks) {
    // Each pause is reported as [attempt:seconds]; the process ends with 11 after the fifth.
    EXPECT_EXIT(
        {
            // The exit path deletes the process-wide objects; this fixture's rating lives
            // on the stack.
            myBogomips = nullptr;
            process.failForks = true;
            ChildManager failing(loop, &filter);
            unsigned int pauses = 0;
            failing.setRetrySleep([&pauses](unsigned int seconds) {
                std::fprintf(stderr, "[%u:%u]", ++pauses, seconds);
            });
            failing.forkChild();
        },
        ::testing::ExitedWithCode(11), "\\[5:30\\]$");
}

} // namespace
