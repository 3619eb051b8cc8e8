// The way out of the daemon, run in a child process: what processExit tears down, the
// closing log line, the exit status, and that static destruction after exit is safe
// with the log set-up still alive.
#include <filesystem>
#include <memory>

#include <gtest/gtest.h>

#include "probe/logging.h"
#include "probe/pidfile.h"
#include "probe/processexit.h"
#include "tests/lib/logtemp.h"

namespace {

TEST(ProcessExit, RemovesThePidFileLogsTheCodeAndExitsWithIt) {
    LogTempDir dir;
    auto stop = [&](int code, bool withPidFile) {
        bootLogger = std::make_unique<Logging>(KyUniString(dir.Path()), "*/*/*:exit.log");
        if (withPidFile) {
            myPidFile = new PidFile(KyUniString(dir.Path()));
            if (!std::filesystem::exists(dir / "hostgauge.pid")) {
                std::_Exit(1);
            }
        }
        processExit(code); // the log set-up is left for static destruction on purpose
    };
    EXPECT_EXIT(stop(604, true), testing::ExitedWithCode(604 & 0xff), "");
    EXPECT_FALSE(std::filesystem::exists(dir / "hostgauge.pid"));
    // Start-up may stop before most objects exist.
    EXPECT_EXIT(stop(4, false), testing::ExitedWithCode(4), "");

    const auto records = ParseRecords(ReadWhole(dir / "exit.log"));
    ASSERT_EQ(records.size(), 2u);
    EXPECT_EQ(records[0].text, "Hostgauge stopped - exitcode 604.");
    EXPECT_EQ(records[1].text, "Hostgauge stopped - exitcode 4.");
}

} // namespace
