// The operator's state: kept across objects (restarts) through its file, a corrupt or
// missing file read as ready, a state that still changes when the file cannot be written,
// and "ready" announced only in the minute after a drain or maintenance was lifted.
#include "probe/adminstate.h"

#include <sys/stat.h>

#include <gtest/gtest.h>

#include "tests/lib/logtemp.h"

namespace {

using Mode = AdminState::Mode;

TEST(AdminState, SurvivesRestartsThroughItsFile) {
    LogTempDir dir;
    {
        AdminState fresh{KyUniString(dir.Path())};
        EXPECT_EQ(fresh.mode(), Mode::Ready);
        EXPECT_TRUE(fresh.set(Mode::Drain));
        EXPECT_TRUE(fresh.outOfRotation());
    }
    EXPECT_EQ(ReadWhole(dir / "hostgauge.state"), "drain\n");
    struct stat status {};
    ASSERT_EQ(::stat((dir / "hostgauge.state").c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777, 0600u);
    EXPECT_FALSE(std::filesystem::exists(dir / "hostgauge.state.new"));

    AdminState restarted{KyUniString(dir.Path())};
    EXPECT_EQ(restarted.mode(), Mode::Drain);
    EXPECT_TRUE(restarted.set(Mode::Maint));
    EXPECT_EQ(AdminState{KyUniString(dir.Path())}.mode(), Mode::Maint);

    WriteWhole(dir / "hostgauge.state", "dra1n\n");
    EXPECT_EQ(AdminState{KyUniString(dir.Path())}.mode(), Mode::Ready);
}

TEST(AdminState, ChangesEvenWhenTheFileCannotBeWritten) {
    AdminState nowhere{KyUniString("/nonexistent/hostgauge-test")};
    EXPECT_FALSE(nowhere.set(Mode::Drain));
    EXPECT_EQ(nowhere.mode(), Mode::Drain);
}

TEST(AdminState, AnnouncesReadyOnlyForAMinuteAfterALift) {
    LogTempDir dir;
    AdminState state{KyUniString(dir.Path())};
    const KyTimeVal start(1000000, 0);
    EXPECT_FALSE(state.announceReady(start)) << "never drained";
    state.set(Mode::Drain, start);
    EXPECT_FALSE(state.announceReady(start));
    state.set(Mode::Ready, start + KyTimeVal(10, 0));
    EXPECT_TRUE(state.announceReady(start + KyTimeVal(69, 0)));
    EXPECT_FALSE(state.announceReady(start + KyTimeVal(70, 0)));
    state.set(Mode::Maint, start + KyTimeVal(20, 0));
    EXPECT_FALSE(state.announceReady(start + KyTimeVal(21, 0)));
}

} // namespace
