// The agent line at its edges: weights clamped so load alone never drains, "ready" only
// when announced, the operator's states overriding any reading, and no weight before the
// first sample. The plain readings and states are seen end to end (e2e/agent_test).
#include "probe/agentreply.h"

#include <gtest/gtest.h>

namespace {

using Mode = AdminState::Mode;

TEST(AgentReply, LineForEachStateAndReading) {
    const AgentReply::Reading busy{0, 2116, 3};
    const AgentReply::Reading idle{100, 1800, 1};
    struct Case {
        Mode mode;
        bool announce;
        std::optional<AgentReply::Reading> reading;
        std::string line;
    } const cases[] = {
        {Mode::Ready, false, busy, "1% up # idle 0% rating 2116 samples 3\n"},
        {Mode::Ready, false, idle, "100% up # idle 100% rating 1800 samples 1\n"},
        {Mode::Ready, false, std::nullopt, "up # no load samples yet\n"},
        {Mode::Ready, true, std::nullopt, "up ready # no load samples yet\n"},
        {Mode::Drain, true, std::nullopt, "0% drain # drained by operator\n"},
        {Mode::Maint, false, idle, "maint # maintenance by operator\n"},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(AgentReply::format(c.mode, c.announce, c.reading), c.line);
    }
}

} // namespace
