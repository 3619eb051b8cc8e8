// hostgauge-ctl: its reading of replies, reports and datagrams on fixed texts, and the real
// program's messages for a missing daemon and bad arguments. Its commands against a live
// daemon are run by the end-to-end agent test.
#include "tools/ctl_report.h"

#include "tests/e2e/daemon_fixture.h"

#include <gtest/gtest.h>

namespace {

const std::string kHead = "<?xml version=\"1.0\"?><cvnlbreply type=";

// Accepted replies become one line; refusals keep only the error text, whether several
// texts at once or the bare text of a bad length.
TEST(CtlReplyTest, AcceptedRepliesGetOneLineAndRefusalsOnlyTheErrorText) {
    const std::string created = kHead + "\"create\"><version>1.0</version><id>71</id><stats>cpu=37 "
                                        "vmem=4096 </stats></cvnlbreply>";
    EXPECT_EQ(ctl::DescribeReply(created, ctl::ReadReply(created)),
              "subscribed id 71: cpu=37 vmem=4096");
    const std::string killed = kHead + "\"kill\"><version>1.0</version><id>71</id></cvnlbreply>";
    EXPECT_EQ(ctl::DescribeReply(killed, ctl::ReadReply(killed)), "unsubscribed id 71");

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

TEST(CtlReplyTest, DatagramsBecomeStampedLinesAndOtherShapesAreShownRaw) {
    EXPECT_EQ(ctl::DatagramLine("12:00", "h:1",
                                "<?xml version=\"1.0\"?><cvnlbdata><id>73</id><seqno>1764000000"
                                "</seqno><stats>cpu=37 </stats></cvnlbdata>"),
              "12:00 from h:1 id 73 seqno 1764000000 cpu=37");
    EXPECT_EQ(ctl::DatagramLine("12:00", "h:1", "hello\nthere"),
              "12:00 from h:1 unrecognised datagram: hello there");
}

// No daemon needed: a port nobody listens on.
TEST(CtlProgramTest, MissingDaemonAndBadArgumentsGetClearMessages) {
    const auto absent = e2e::ctl("-p " + std::to_string(e2e::freePort()) + " status");
    EXPECT_EQ(absent.status, 1);
    EXPECT_NE(absent.out.find("cannot reach the hostgauge daemon"), std::string::npos);

    const std::string subscribe = "subscribe --host h --port 1 --id 1 ";
    for (const std::string& args : std::vector<std::string>{
             std::string(), "frobnicate", "status extra", "kill 0", "kill seven", "listen 70000",
             "-p 0 status", "subscribe --host h --port 1", "subscribe --host 'a<b' --port 1 --id 1",
             subscribe + "--stat cpu,disk", subscribe + "--stat cpu,cpu", subscribe + "--id 2"}) {
        const auto bad = e2e::ctl(args);
        EXPECT_EQ(bad.status, 2) << args;
        EXPECT_NE(bad.out.find("usage: hostgauge-ctl"), std::string::npos) << args;
    }
    EXPECT_EQ(e2e::ctl("--help").status, 0);
}

} // namespace
