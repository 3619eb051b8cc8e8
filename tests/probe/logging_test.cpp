// The probe's log set-up with its default filter: which messages reach the plain file,
// the structured file and standard error.
#include <filesystem>
#include <unistd.h>

#include <gtest/gtest.h>

#include "probe/bootstrap.h"
#include "probe/logging.h"
#include "probe/messages.h"
#include "tests/lib/logtemp.h"

namespace {

std::string Named(LogTempDir const& dir, std::string const& extension) {
    return dir / ("hostgauge" + std::to_string(getpid()) + "_error" + extension);
}

TEST(ProbeLogging, DefaultFilterRoutesByLevel) {
    LogTempDir dir;
    Logging logging(KyUniString(dir.Path()), Bootstrap::DEFAULT_LOGFILTER);
    LogStarted();
    EXPECT_TRUE(std::filesystem::is_empty(Named(dir, ".jsl"))) << "made at start-up";
    testing::internal::CaptureStderr();
    LogNewConnection("10.0.0.1");
    LogPipeFail(512, 4);
    LogBindFailed(3579, "in use");
    KyLog::Flush();
    const std::string console = testing::internal::GetCapturedStderr();

    EXPECT_EQ(ParseRecords(ReadWhole(Named(dir, ".log"))).size(), 4u)
        << "every level reaches the plain file";
    const std::string jsl = ReadWhole(Named(dir, ".jsl"));
    EXPECT_EQ(jsl.find("10.0.0.1"), std::string::npos);
    EXPECT_NE(jsl.find("category=hostgauge/child/error,"), std::string::npos);
    EXPECT_NE(jsl.find("category=hostgauge/listener/fatalerror,"), std::string::npos);
    EXPECT_EQ(console.find("errno is 4"), std::string::npos);
    EXPECT_NE(console.find("Failed to bind to port 3579, reason in use."), std::string::npos);
}

} // namespace
