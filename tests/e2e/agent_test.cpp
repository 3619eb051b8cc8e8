// End-to-end: the agent port answers real client sockets (silent, talkative, resetting);
// hostgauge-ctl drains, puts in maintenance and readies the daemon over its admin socket,
// which every report follows and which a restart keeps; the allow list refuses clients and
// datagram destinations; the subscription cap refuses one CREATE too many.
#include <gtest/gtest.h>

#include <sys/stat.h>

#include "tests/e2e/daemon_fixture.h"

namespace {

using namespace e2e;

// Everything the agent port sends until it closes; "RESET" when the connection was reset
// instead of closed, so a reply destroyed by a reset cannot pass for a short one.
std::string agentAnswer(unsigned short port, const std::string& send = "") {
    const int fd = connectTo(port);
    if (fd < 0)
        return "NO CONNECTION";
    if (!send.empty())
        ::send(fd, send.data(), send.size(), MSG_NOSIGNAL);
    const Received answer = receiveAll(fd);
    ::close(fd);
    return answer.reset ? "RESET" : answer.text;
}

struct AgentDaemon : Daemon {
    AgentDaemon() {
        set("agentport", std::to_string(agentPort));
        toolPrints(toolRun(40));
    }
    std::string socket() const { return "-s " + (dir() / "hostgauge.sock").string() + " "; }
    bool agentSays(const std::string& start) const {
        return waitFor([&] { return agentAnswer(agentPort).rfind(start, 0) == 0; });
    }
    const unsigned short agentPort = freePort();
};

TEST(AgentPort, AnswersEveryClientAndFollowsDrainAndMaintenanceAcrossARestart) {
    AgentDaemon daemon;
    writeFile(daemon.dir() / "linger", "60");
    ASSERT_TRUE(daemon.startServing());
    ASSERT_TRUE(daemon.agentSays("40% up # idle 40% rating "));
    EXPECT_NE(agentAnswer(daemon.agentPort).find(" samples 3\n"), std::string::npos);

    // What a balancer sends with agent-send is read and dropped; the line still arrives
    // whole and the close is orderly, even for more than a socket buffer of input.
    EXPECT_EQ(agentAnswer(daemon.agentPort, std::string(256 * 1024, 'x')).rfind("40% up # ", 0),
              0u);

    for (int i = 0; i < 20; ++i) {
        const int fd = connectTo(daemon.agentPort);
        const linger abort{1, 0};
        ::setsockopt(fd, SOL_SOCKET, SO_LINGER, &abort, sizeof abort);
        ::close(fd);
    }
    const auto agent = ctl("agent -p " + std::to_string(daemon.agentPort));
    EXPECT_EQ(agent.status, 0);
    EXPECT_EQ(agent.out.rfind("40% up # idle 40% rating ", 0), 0u) << agent.out;
    ASSERT_TRUE(daemon.running());

    // Drain and maintenance through the admin socket reach every report and survive a restart.
    struct stat status {};
    ASSERT_EQ(::stat((daemon.dir() / "hostgauge.sock").c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777, 0600u);
    EXPECT_EQ(ctl(daemon.socket() + "state").out, "ready\n");

    // A subscriber hears of the drain at once, not at its next tick (a tool run that never
    // ends leaves no run's end to carry it either).
    Subscriber subscriber;
    const auto create = [&](unsigned id) {
        return request(daemon.port(), createRequest(id, subscriber.port()));
    };
    EXPECT_NE(create(7).find("<stats>cpu=40 </stats>"), std::string::npos);
    const auto first = subscriber.receive(15s);
    ASSERT_TRUE(first.has_value());
    EXPECT_NE(first->find("<stats>cpu=40 </stats>"), std::string::npos) << *first;
    EXPECT_EQ(ctl(daemon.socket() + "drain").out, "drain\n");
    const auto packet = subscriber.receive(5s);
    ASSERT_TRUE(packet.has_value());
    EXPECT_NE(packet->find("<stats>cpu=0 </stats>"), std::string::npos) << *packet;
    EXPECT_EQ(agentAnswer(daemon.agentPort), "0% drain # drained by operator\n");
    EXPECT_NE(create(8).find("<stats>cpu=0 </stats>"), std::string::npos);
    const auto shown = ctl(daemon.socket() + "-p " + std::to_string(daemon.port()) + " status");
    EXPECT_NE(shown.out.substr(0, shown.out.find('\n')).find(", state drain"), std::string::npos)
        << shown.out;
    const auto refused = ctl("-p " + std::to_string(daemon.port()) + " kill 99");
    EXPECT_EQ(refused.status, 3) << refused.out;
    EXPECT_TRUE(daemon.waitForLog("changed the hostgauge state from ready to drain."));

    ::kill(daemon.pid(), SIGPIPE); // a stop like any other, with its own exit code
    ASSERT_EQ(daemon.waitExit(), 606 % 256);
    EXPECT_FALSE(fs::exists(daemon.dir() / "hostgauge.sock"));
    fs::remove(daemon.dir() / "hostgauge.pid");
    daemon.start();
    ASSERT_TRUE(
        waitFor([&] { return fs::exists(daemon.dir() / "hostgauge.pid"); }, kStartDeadline));
    EXPECT_EQ(agentAnswer(daemon.agentPort), "0% drain # drained by operator\n");

    EXPECT_EQ(ctl(daemon.socket() + "maint").out, "maint\n");
    EXPECT_EQ(agentAnswer(daemon.agentPort), "maint # maintenance by operator\n");
    EXPECT_EQ(ctl(daemon.socket() + "ready").out, "ready\n");
    EXPECT_TRUE(daemon.agentSays("40% up ready # idle 40% "));
}

TEST(Access, AllowListRefusesClientsAndDestinationsAndTheCapRefusesOneTooMany) {
    AgentDaemon refusing;
    refusing.set("allow", "192.0.2.0/24");
    ASSERT_TRUE(refusing.startServing());
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(request(refusing.port(), kStatusRequest), "");
        EXPECT_EQ(agentAnswer(refusing.agentPort), "");
    }
    ASSERT_TRUE(refusing.waitForLog("Refused a connection from 127.0.0.1 to port "));
    std::size_t records = 0;
    for (const auto& message : refusing.messages())
        records += message.rfind("Refused a connection from 127.0.0.1", 0) == 0;
    EXPECT_EQ(records, 2u) << "once per port within the minute";

    AgentDaemon capped;
    capped.set("allow", "127.0.0.0/8,bad/8");
    capped.set("maxhosts", "2");
    ASSERT_TRUE(capped.startServing());
    Subscriber subscriber;
    const auto create = [&](unsigned id, const std::string& host) {
        std::string text = createRequest(id, subscriber.port());
        text.replace(text.find("127.0.0.1"), 9, host);
        return request(capped.port(), text);
    };
    EXPECT_NE(create(1, "192.0.2.1").find("destination not allowed"), std::string::npos);
    EXPECT_NE(create(1, "127.0.0.1").find("type=\"create\""), std::string::npos);
    EXPECT_NE(create(2, "127.0.0.2").find("type=\"create\""), std::string::npos);
    EXPECT_NE(create(3, "127.0.0.1").find("subscription limit reached"), std::string::npos);
    request(capped.port(), killRequest(2));
    EXPECT_NE(create(3, "127.0.0.1").find("type=\"create\""), std::string::npos);
    EXPECT_TRUE(capped.waitForLog("has the value bad/8 which is invalid."));
}

} // namespace
