// End-to-end with a real HAProxy (Debian's haproxy) in front of the daemon's agent port:
// the server's effective weight follows the idle the load tool reports, hostgauge-ctl drain
// turns the server to DRAIN within two agent intervals, maint to MAINT, and ready brings it
// back, all read through HAProxy's own stats socket.
#include <gtest/gtest.h>

#include <sys/un.h>

#include <cstdio>

#include "tests/e2e/daemon_fixture.h"

namespace {

using namespace e2e;

constexpr const char* kHaproxy = "/usr/sbin/haproxy";
constexpr auto kAgentInterval = 500ms;

// One HAProxy process with a generated configuration in the daemon's directory.
class Haproxy {
public:
    Haproxy(const fs::path& dir, unsigned short serverPort, unsigned short agentPort)
        : socket_(dir / "haproxy.sock") {
        const fs::path config = dir / "haproxy.cfg";
        writeFile(config, "global\n    stats socket " + socket_.string() +
                              " mode 600 level admin\ndefaults\n    mode tcp\n"
                              "    timeout connect 1s\n    timeout client 5s\n"
                              "    timeout server 5s\nfrontend in\n    bind 127.0.0.1:" +
                              std::to_string(freePort()) +
                              "\n    default_backend farm\nbackend farm\n    server s1 127.0.0.1:" +
                              std::to_string(serverPort) +
                              " weight 100 check inter 1s agent-check agent-port " +
                              std::to_string(agentPort) + " agent-inter " +
                              std::to_string(kAgentInterval.count()) + "ms\n");
        pid_ = ::fork();
        if (pid_ == 0) {
            if (std::freopen((dir / "haproxy.out").c_str(), "w", stdout) &&
                std::freopen((dir / "haproxy.out").c_str(), "a", stderr))
                ::execl(kHaproxy, "haproxy", "-db", "-f", config.c_str(), nullptr);
            std::_Exit(127);
        }
    }
    ~Haproxy() {
        ::kill(pid_, SIGKILL);
        ::waitpid(pid_, nullptr, 0);
    }

    // s1's status and weight (columns 18 and 19 of its line in `show stat`, as in
    // "DRAIN (agent)/0"), or "" while HAProxy is not answering.
    std::string statusAndWeight() const {
        const int fd = ::socket(AF_UNIX, SOCK_STREAM, 0);
        sockaddr_un address{AF_UNIX, {}};
        std::snprintf(address.sun_path, sizeof address.sun_path, "%s", socket_.c_str());
        std::string answer;
        char buffer[4096];
        if (::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0 &&
            ::send(fd, "show stat\n", 10, MSG_NOSIGNAL) == 10)
            for (ssize_t n; (n = ::recv(fd, buffer, sizeof buffer, 0)) > 0;)
                answer.append(buffer, std::size_t(n));
        ::close(fd);
        for (const auto& row : lines(answer)) {
            std::vector<std::string> fields;
            std::istringstream in(row);
            for (std::string field; std::getline(in, field, ',');)
                fields.push_back(field);
            if (row.starts_with("farm,s1,") && fields.size() > 18)
                return fields[17] + "/" + fields[18];
        }
        return "";
    }
    testing::AssertionResult shows(const std::string& expected) const {
        if (waitFor([&] { return statusAndWeight() == expected; }))
            return testing::AssertionSuccess();
        return testing::AssertionFailure() << "HAProxy shows " << statusAndWeight();
    }

private:
    fs::path socket_;
    pid_t pid_ = -1;
};

TEST(Haproxy, WeightFollowsIdleAndDrainMaintAndReadyShowInItsStats) {
    if (!fs::exists(kHaproxy))
        GTEST_SKIP() << "haproxy is not installed (apt-get install haproxy; scripts/deps.sh)";
    Daemon daemon;
    const unsigned short agentPort = freePort();
    daemon.set("agentport", std::to_string(agentPort));
    daemon.toolPrints(toolRun(40));
    ASSERT_TRUE(daemon.startServing());
    const std::string socket = "-s " + (daemon.dir() / "hostgauge.sock").string() + " ";
    Haproxy haproxy(daemon.dir(), daemon.port(), agentPort);

    ASSERT_TRUE(haproxy.shows("UP/40"));
    daemon.toolPrints(toolRun(70));
    EXPECT_TRUE(haproxy.shows("UP/70"));

    ASSERT_EQ(ctl(socket + "drain").status, 0);
    const auto drained = std::chrono::steady_clock::now();
    EXPECT_TRUE(haproxy.shows("DRAIN (agent)/0"));
    EXPECT_LE(std::chrono::steady_clock::now() - drained, 2 * kAgentInterval + 200ms)
        << "DRAIN later than two agent intervals";

    ASSERT_EQ(ctl(socket + "maint").status, 0);
    EXPECT_TRUE(haproxy.shows("MAINT/0"));
    ASSERT_EQ(ctl(socket + "ready").status, 0);
    EXPECT_TRUE(haproxy.shows("UP/70"));
}

} // namespace
