// hostgauge-ctl: its reading of replies, reports and datagrams on fixed texts, then the real
// program against a real daemon that runs in a temporary directory with the scripted load
// tool of the end-to-end tests: every command, refusals, a missing daemon, bad arguments.
#include "tools/ctl_report.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <netinet/in.h>
#include <sstream>
#include <string>
#include <sys/socket.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;

const std::string kCtl = std::string(HOSTGAUGE_TOOLS_DIR) + "/hostgauge-ctl";
const std::string kFakeTool = std::string(HOSTGAUGE_SOURCE_DIR) + "/tests/e2e/fakevmstat.sh";
const std::string kHead = "<?xml version=\"1.0\"?><cvnlbreply type=";

// Accepted replies are checked against the daemon below; these are the refusals it cannot
// easily be made to give: several texts at once, and the bare text of a bad length.
TEST(CtlReplyTest, RefusalsKeepOnlyTheErrorText) {
    const auto refused = ctl::ReadReply(kHead + "\"error\"><version>1.0</version><error>get /"
                                                "Error parsing version; Error parsing port; "
                                                "</error></cvnlbreply>");
    EXPECT_TRUE(refused.Failed());
    EXPECT_EQ(refused.error, "Error parsing version; Error parsing port");
    const auto bare = ctl::ReadReply("Message is either too short or too long to be valid\n");
    EXPECT_TRUE(bare.Failed());
    EXPECT_EQ(bare.error, "Message is either too short or too long to be valid");
}

TEST(CtlReplyTest, StatusTableAlignsItsRowsOrSaysThereAreNone) {
    const std::string probe = kHead + "\"get\"><version>1.0</version><port>3579</port><samplerate>"
                                      "5</samplerate><windowsize>3</windowsize><stats>cpu=93 "
                                      "bogo=4312 vmem=51234 </stats><time>T0</time>";
    const std::string line = "probe: port 3579, sample rate 5 s, window 3 samples, cpu=93 "
                             "bogo=4312 vmem=51234, measured T0\n";
    EXPECT_EQ(ctl::StatusTable(probe + "No Updates</cvnlbreply>"), line + "no subscriptions\n");
    EXPECT_EQ(ctl::StatusTable(
                  probe + "<connection><id>7</id><host>client7</host><port>4711</port>"
                          "<replyfrequency>30</replyfrequency><percentchange>10</percentchange>"
                          "<samplerate>1</samplerate><windowsize>15</windowsize><stats></stats>"
                          "<time>T1</time></connection></cvnlbreply>"),
              line + "ID  HOST     PORT  RATE  WINDOW  EVERY  CHANGE  LAST SENT  LAST STATS\n"
                     "7   client7  4711  1 s   15      30 s   10 %    T1         -\n");
}

TEST(CtlReplyTest, DatagramsOfAnotherShapeAreShownRawOnOneLine) {
    EXPECT_EQ(ctl::DatagramLine("12:00", "h:1", "hello\nthere"),
              "12:00 from h:1 unrecognised datagram: hello there");
    EXPECT_EQ(ctl::DatagramLine("12:00", "h:1", "<cvnlbdata><id>7</id></cvnlbdata>"),
              "12:00 from h:1 unrecognised datagram: <cvnlbdata><id>7</id></cvnlbdata>");
}

std::string readFile(const fs::path& path) {
    std::ifstream in(path);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

unsigned short freePort(int type = SOCK_STREAM) {
    const int fd = ::socket(AF_INET, type, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    ::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address);
    ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length);
    ::close(fd);
    return ntohs(address.sin_port);
}

struct Outcome {
    int status = -1;
    std::string out, err;
};

// One daemon for the whole suite: start-up rates the CPU, which takes seconds.
class CtlDaemonTest : public testing::Test {
protected:
    static void SetUpTestSuite() {
        char pattern[] = "/tmp/hostgauge-ctl-XXXXXX";
        dir_ = ::mkdtemp(pattern);
        port_ = std::to_string(freePort());
        std::ofstream(dir_ / "output")
            << "heading\nheading\n 0 0 0 1 1 0 0 0 0 0 0 0 0 0 0 0 1 1 1 1 1 99\n"
               " 0 0 0 4096 2048 0 0 3 4 0 0 0 0 0 0 0 100 200 300 1 1 37\n";
        std::ofstream properties(dir_ / "hostspread.properties");
        for (const auto& [key, value] : {std::pair{"logdirectory", dir_.string()},
                                         {"piddirectory", dir_.string()},
                                         {"probepath", kFakeTool + " -S"},
                                         {"port", port_}}) {
            properties << "corvane.config.hostspread." << key << "=" << value << "\n";
        }
        properties.close();
        pid_ = ::fork();
        if (pid_ == 0) {
            ::setenv("FAKEVMSTAT_DIR", dir_.c_str(), 1);
            const std::string out = (dir_ / "daemon.out").string();
            if (std::freopen(out.c_str(), "w", stdout) && std::freopen(out.c_str(), "a", stderr))
                ::execl(HOSTGAUGE_BIN, "hostgauge", dir_.c_str(), "1", nullptr);
            std::_Exit(127);
        }
        for (int tries = 0; tries < 600 && Ctl("status").status != 0; ++tries)
            std::this_thread::sleep_for(100ms);
    }
    static void TearDownTestSuite() {
        ::kill(pid_, SIGTERM);
        ::waitpid(pid_, nullptr, 0);
        std::istringstream tools(readFile(dir_ / "pids"));
        for (pid_t tool; tools >> tool;)
            ::kill(tool, SIGKILL);
        fs::remove_all(dir_);
    }

    // Runs the client, against the suite's daemon unless the arguments name a port.
    static Outcome Ctl(const std::string& args, FILE** running = nullptr) {
        const std::string target = args.find("-p ") == 0 ? "" : "-p " + port_ + " ";
        const std::string err = (dir_ / ("err" + std::to_string(calls_++))).string();
        FILE* pipe =
            ::popen(("timeout 30 " + kCtl + " " + target + args + " 2>" + err).c_str(), "r");
        Outcome outcome;
        if (running != nullptr) {
            *running = pipe;
            for (int tries = 0; tries < 500 && readFile(err).empty(); ++tries)
                std::this_thread::sleep_for(20ms);
        } else {
            char buffer[4096];
            for (std::size_t n; (n = std::fread(buffer, 1, sizeof buffer, pipe)) > 0;)
                outcome.out.append(buffer, n);
            const int status = ::pclose(pipe);
            outcome.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
        }
        outcome.err = readFile(err);
        return outcome;
    }

    static inline fs::path dir_;
    static inline std::string port_;
    static inline pid_t pid_ = -1;
    static inline int calls_ = 0;
};

TEST_F(CtlDaemonTest, SubscribeShowsInStatusAndKillRemovesIt) {
    auto reply = Ctl("subscribe --host 127.0.0.1 --port 4711 --id 71 --stat cpu,vmem "
                     "--samplerate 5000 --windowsize 3 --replyfreq 20000 --percentchange 5");
    EXPECT_EQ(reply.status, 0) << reply.err;
    EXPECT_EQ(reply.out, "subscribed id 71: cpu=37 vmem=4096\n");

    const auto status = Ctl("status");
    EXPECT_EQ(status.status, 0);
    EXPECT_EQ(status.out.rfind("probe: port " + port_ + ", sample rate 5 s, window ", 0), 0u);
    EXPECT_NE(status.out.find("\n71 "), std::string::npos) << status.out;
    EXPECT_NE(status.out.find(" 127.0.0.1  4711 "), std::string::npos) << status.out;
    EXPECT_NE(status.out.find(" 20 s "), std::string::npos) << status.out;

    const auto raw = Ctl("--xml status");
    EXPECT_EQ(raw.out.rfind(kHead + "\"get\">", 0), 0u);
    EXPECT_NE(raw.out.find("<id>71</id><host>127.0.0.1</host>"), std::string::npos);

    reply = Ctl("kill 71");
    EXPECT_EQ(reply.status, 0);
    EXPECT_EQ(reply.out, "unsubscribed id 71\n");
    EXPECT_EQ(Ctl("--xml status").out.find("<id>71</id>"), std::string::npos);
}

TEST_F(CtlDaemonTest, RefusalsExitNonZeroWithTheDaemonsErrorText) {
    ASSERT_EQ(Ctl("subscribe --host 127.0.0.1 --port 4712 --id 72").status, 0);
    auto again = Ctl("subscribe --host 127.0.0.1 --port 4712 --id 72");
    EXPECT_EQ(again.status, 3);
    EXPECT_EQ(again.out, "");
    EXPECT_EQ(again.err, "hostgauge-ctl: the daemon refused the request: Host not created\n");

    ASSERT_EQ(Ctl("kill 72").status, 0);
    const auto missing = Ctl("--xml kill 72");
    EXPECT_EQ(missing.status, 3);
    EXPECT_NE(missing.out.find("<error>get /Host with id 72 not found</error>"), std::string::npos);
    EXPECT_NE(missing.err.find("refused the request: Host with id 72 not found"),
              std::string::npos);
}

TEST_F(CtlDaemonTest, ListenPrintsEachDatagramAsAStampedLine) {
    const std::string udp = std::to_string(freePort(SOCK_DGRAM));
    FILE* listener = nullptr;
    Ctl("listen " + udp + " --count 2", &listener);
    // Percent change 0 sends at the end of every run of the load tool, about once a second.
    ASSERT_EQ(Ctl("subscribe --host 127.0.0.1 --port " + udp +
                  " --id 73 --percentchange 0 "
                  "--stat cpu")
                  .status,
              0);
    char line[512];
    for (int i = 0; i < 2; ++i) {
        ASSERT_NE(std::fgets(line, sizeof line, listener), nullptr);
        const std::string text = line;
        // "2026-11-22 22:49:15.197 from 127.0.0.1:45033 id 73 ..."
        EXPECT_EQ(text.substr(4, 1) + text.substr(10, 1) + text.substr(19, 1), "- .") << text;
        EXPECT_EQ(text.substr(23, 16), " from 127.0.0.1:") << text;
        EXPECT_NE(text.find(" id 73 seqno "), std::string::npos) << text;
        EXPECT_EQ(text.substr(text.size() - 8), " cpu=37\n") << text;
    }
    EXPECT_EQ(WEXITSTATUS(::pclose(listener)), 0) << "stops after --count datagrams";
    Ctl("kill 73");
}

TEST_F(CtlDaemonTest, MissingDaemonAndBadArgumentsGetClearMessages) {
    const auto absent = Ctl("-p " + std::to_string(freePort()) + " status");
    EXPECT_EQ(absent.status, 1);
    EXPECT_NE(absent.err.find("cannot reach the hostgauge daemon"), std::string::npos);
    EXPECT_NE(absent.err.find("(is it running?): connect("), std::string::npos);

    const std::string subscribe = "subscribe --host h --port 1 --id 1 ";
    for (const std::string& args : std::vector<std::string>{
             std::string(), "frobnicate", "status extra", "kill", "kill 0", "kill seven",
             "listen 70000", "listen 9 --count", "-p 0 status", "status --id 4", "status -x 1",
             "subscribe --host h --port 1", "subscribe --host 'a<b' --port 1 --id 1",
             subscribe + "--stat cpu,disk", subscribe + "--stat cpu,cpu", subscribe + "--id 2"}) {
        const auto bad = Ctl(args);
        EXPECT_EQ(bad.status, 2) << args;
        EXPECT_NE(bad.err.find("usage: hostgauge-ctl"), std::string::npos) << args;
    }
    EXPECT_EQ(Ctl("--help").status, 0);
}

} // namespace
