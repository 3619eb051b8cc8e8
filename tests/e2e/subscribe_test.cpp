// End-to-end tests of subscriptions: the real daemon answers control requests on its port
// and sends load datagrams to a loopback subscriber; the scripted load tool decides what
// load it sees. Also the length refusals, a request in two writes and a port that is taken.
#include <gtest/gtest.h>

#include <ctime>
#include <regex>

#include "tests/e2e/daemon_fixture.h"

namespace {

using namespace e2e;

const std::string kRefusal = "Message is either too short or too long to be valid";

std::string create(unsigned id, unsigned short port, unsigned percent = 10) {
    return createRequest(id, port, 10000, percent, "<stat>cpu</stat><stat>vmem</stat>");
}

std::string status(const Daemon& daemon) {
    return request(daemon.port(), kStatusRequest);
}

// The datagram for id 7 with the fake tool's memory figures, whatever its sequence number.
void expectLoadPacket(const std::optional<std::string>& packet, int idle) {
    ASSERT_TRUE(packet.has_value()) << "no datagram";
    const std::regex shape(
        R"(<\?xml version="1.0"\?><cvnlbdata><id>7</id><seqno>(\d+)</seqno><stats>cpu=)" +
        std::to_string(idle) +
        R"( vmem=4 vmax=8192 pmem=2 pmax=4096 sin=3 sout=4 </stats></cvnlbdata>)");
    std::smatch match;
    ASSERT_TRUE(std::regex_match(*packet, match, shape)) << *packet;
    EXPECT_LE(std::abs(std::stol(match[1]) - long(std::time(nullptr))), 5) << "seqno is the clock";
}

TEST(Subscription, CreateReportsAtTheReplyFrequencyAndOnChangeUntilKilled) {
    Daemon daemon;
    daemon.set("samplerate", "10"); // a 30 second span
    daemon.toolPrints(toolRun(37));
    ASSERT_TRUE(daemon.startServing());
    Subscriber subscriber;

    const std::string before = status(daemon);
    EXPECT_NE(before.find("<samplerate>10</samplerate><windowsize>3</windowsize>"),
              std::string::npos)
        << before;
    EXPECT_TRUE(std::regex_search(before, std::regex("<stats>cpu=\\d+ bogo=[1-9]\\d* ")))
        << "start-up rated the processor: " << before;

    ASSERT_TRUE(daemon.waitForLog("idle=37"));
    const std::string created = request(daemon.port(), create(7, subscriber.port()));
    EXPECT_NE(created.find("<id>7</id><stats>cpu=37 vmem=4096 </stats>"), std::string::npos)
        << created;
    EXPECT_NE(request(daemon.port(), create(7, subscriber.port())).find("type=\"error\""),
              std::string::npos);

    // Nothing has reached the host yet, so the end of the next run counts as a change.
    expectLoadPacket(subscriber.receive(5s), 37);
    const auto first = std::chrono::steady_clock::now();
    expectLoadPacket(subscriber.receive(15s), 37);
    const auto period = std::chrono::steady_clock::now() - first;
    EXPECT_GT(period, 9s) << "the reply timer's period is 10 s";
    EXPECT_LT(period, 12s);
    EXPECT_TRUE(daemon.waitForLog("\nsent to 127.0.0.1:" + std::to_string(subscriber.port())));

    // The host's 5 s rate speeds the tool up; its window keeps the 30 s span.
    EXPECT_TRUE(waitFor([&] { return daemon.toolArgs().back() == "[-S][5][7]"; }));
    EXPECT_EQ(daemon.toolArgs().front(), "[-S][10][4]");
    const std::string during = status(daemon);
    EXPECT_NE(during.find("<samplerate>5</samplerate><windowsize>6</windowsize>"),
              std::string::npos);
    EXPECT_NE(during.find("<connection><id>7</id>"), std::string::npos) << during;

    // A move of the load by the host's percentage sends at once, between timer ticks.
    daemon.toolPrints(toolRun(80));
    expectLoadPacket(subscriber.receive(5s), 80);

    EXPECT_NE(request(daemon.port(), killRequest(7))
                  .find("type=\"kill\"><version>1.0</version><id>7</id>"),
              std::string::npos);
    daemon.toolPrints(toolRun(20));
    EXPECT_FALSE(subscriber.receive(3s).has_value()) << "a killed host gets nothing";
    EXPECT_NE(request(daemon.port(), killRequest(7)).find("Host with id 7 not found"),
              std::string::npos);
    EXPECT_NE(status(daemon).find("</time>No Updates</cvnlbreply>"), std::string::npos);
}

TEST(Subscription, RequestsOutOfBoundsOrInPiecesGetWhatTheFirstReadHolds) {
    Daemon daemon;
    daemon.toolPrints(toolRun(50));
    ASSERT_TRUE(daemon.startServing());

    EXPECT_EQ(request(daemon.port(), std::string(10, 'a')), kRefusal);
    EXPECT_NE(request(daemon.port(), "GET /cvnlbx"), "")
        << "a GET line of the protocol is answered from 11 bytes on, without its line end";
    const auto padded = [&](std::size_t size) {
        return request(daemon.port(),
                       killRequest(7) + std::string(size - killRequest(7).size(), ' '));
    };
    EXPECT_EQ(padded(513), kRefusal);
    EXPECT_EQ(padded(5000), kRefusal);
    EXPECT_NE(padded(512).find("get /Host with id 7 not found"), std::string::npos);
    EXPECT_TRUE(daemon.waitForLog("Bad request (length 513)."));
    EXPECT_TRUE(daemon.waitForLog("Bad request (length 5000).")) << "all that came is judged";
    EXPECT_TRUE(daemon.waitForLog("Bad request (length 10). Request is [  ]."))
        << "a short request is logged with the empty output text";

    // The daemon answers the first piece and closes with the second unread, so the client
    // sees either the answer to the first piece alone or a reset.
    const std::string split = request(
        daemon.port(),
        std::vector<std::string>{"<cvnlbreq command=KILL><version>1.0</version>", "<id>7</id>"});
    EXPECT_TRUE(split.empty() || split.find("Error parsing id; </error>") != std::string::npos)
        << split;
    EXPECT_TRUE(daemon.waitForLog("Command is \n<cvnlbreq command=KILL><version>1.0</version>\n"))
        << "the second piece is never read";
}

TEST(Subscription, ATakenControlPortEndsStartUpWithCodeOne) {
    Daemon daemon;
    const int holder = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address = loopback(daemon.port());
    address.sin_addr.s_addr = htonl(INADDR_ANY);
    ASSERT_EQ(::bind(holder, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    ASSERT_EQ(::listen(holder, 1), 0);
    daemon.start();

    EXPECT_EQ(daemon.waitExit(kStartDeadline), 1);
    ::close(holder);
    const std::string log = daemon.log();
    EXPECT_NE(log.find("Failed to bind to port " + std::to_string(daemon.port()) + ", reason "),
              std::string::npos)
        << log;
    EXPECT_EQ(log.find("Hostgauge stopped"), std::string::npos);
    EXPECT_FALSE(fs::exists(daemon.dir() / "hostgauge.pid"));
}

} // namespace
