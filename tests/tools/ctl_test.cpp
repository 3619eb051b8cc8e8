// hostgauge-ctl: its reading of replies, reports and datagrams on fixed texts, then the real
// program against a real daemon on the end-to-end fixture: every command, refusals, a
// missing daemon, bad arguments.
#include "tools/ctl_report.h"

#include "tests/e2e/daemon_fixture.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <memory>

namespace {

using namespace std::chrono_literals;

const std::string kCtl = std::string(HOSTGAUGE_TOOLS_DIR) + "/hostgauge-ctl";
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

struct Outcome {
    int status = -1;
    std::string out, err;
};

// One daemon for the whole suite: start-up rates the CPU, which takes seconds.
class CtlDaemonTest : public testing::Test {
protected:
    static void SetUpTestSuite() {
        daemon_ = std::make_unique<e2e::Daemon>();
        daemon_->toolPrints(e2e::toolRun(37, 1));
        port_ = std::to_string(daemon_->port());
        daemon_->startServing();
        e2e::waitFor([] { return Ctl("status").status == 0; });
    }
    static void TearDownTestSuite() { daemon_.reset(); }

    // Runs the client, against the suite's daemon unless the arguments name a port.
    static Outcome Ctl(const std::string& args, FILE** running = nullptr) {
        const std::string target = args.find("-p ") == 0 ? "" : "-p " + port_ + " ";
        const std::string err = (daemon_->dir() / ("err" + std::to_string(calls_++))).string();
        FILE* pipe =
            ::popen(("timeout 30 " + kCtl + " " + target + args + " 2>" + err).c_str(), "r");
        Outcome outcome;
        if (running != nullptr) {
            *running = pipe;
            for (int tries = 0; tries < 500 && e2e::readFile(err).empty(); ++tries)
                std::this_thread::sleep_for(20ms);
        } else {
            char buffer[4096];
            for (std::size_t n; (n = std::fread(buffer, 1, sizeof buffer, pipe)) > 0;)
                outcome.out.append(buffer, n);
            const int status = ::pclose(pipe);
            outcome.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
        }
        outcome.err = e2e::readFile(err);
        return outcome;
    }

    static inline std::unique_ptr<e2e::Daemon> daemon_;
    static inline std::string port_;
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
    const std::string udp = std::to_string(e2e::freePort(SOCK_DGRAM));
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
    const auto absent = Ctl("-p " + std::to_string(e2e::freePort()) + " status");
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
