// The command interpreter's replies, written out in full: subscribe, duplicate, kill,
// admin, the status report with and without hosts, escapes, and the error texts.
#include <cstdlib>
#include <ctime>

#include <gtest/gtest.h>

#include "probe/parsecommand.h"
#include "tests/probe/subscription_world.h"

namespace {

std::string run(std::string const& request) {
    ParseCommand interpreter;
    KyUniString text(request);
    return interpreter.doCommand(text).Str().AsUtf8();
}

// The whole reply: the XML declaration, the type, the version and the body.
std::string reply(std::string const& type, std::string const& body,
                  std::string const& version = "1.0") {
    return "<?xml version=\"1.0\"?><cvnlbreply type=\"" + type + "\"><version>" + version +
           "</version>" + body + "</cvnlbreply>";
}

const std::string CREATE7 =
    "<cvnlbreq command=CREATE><version>1.0</version><host>127.0.0.1</host><port>4711</port>"
    "<samplerate>5000</samplerate><windowsize>3</windowsize><id>7</id><replyfreq>30000"
    "</replyfreq><percentchange>10</percentchange><stat>cpu</stat><stat>bogo</stat></cvnlbreq>";
const std::string KILL7 = "<cvnlbreq command=KILL><version>1.0</version><id>7</id></cvnlbreq>";

TEST(CommandReplies, SubscribeDuplicateKillAdmin) {
    SubscriptionWorld world;
    myCache->addToCache(93, 51234, 0, 0, 0);
    const std::pair<std::string, std::string> exchanges[] = {
        {CREATE7, reply("create", "<id>7</id><stats>cpu=93 bogo=4312 </stats>")},
        {CREATE7, reply("error", "<error>get /Host not created</error>")},
        {KILL7, reply("kill", "<id>7</id>")},
        {KILL7, reply("error", "<error>get /Host with id 7 not found</error>")},
        {"<cvnlbreq command=ADMIN><version>1.0</version><port>4711</port><samplerate>5"
         "</samplerate><windowsize>3</windowsize></cvnlbreq>",
         reply("error", "<error>get /Command not implemented</error>")},
        {"<cvnlbreq command=CREATE><version>1.0</version><host>127.0.0.1</host><port>1</port>"
         "<samplerate>5000</samplerate><windowsize>3</windowsize><id>8</id><replyfreq>1"
         "</replyfreq><percentchange>0</percentchange><stat>CPU</stat></cvnlbreq>",
         reply("create", "<id>8</id><stats></stats>")},
    };
    for (auto const& [request, expected] : exchanges) {
        EXPECT_EQ(run(request), expected) << request;
    }
    ASSERT_EQ(HostListMgr::getHostList().size(), 1u);
    EXPECT_EQ(HostListMgr::getHostList().front()->getStatMask(), 0u);
}

TEST(CommandReplies, ErrorTextsAccumulateInCheckOrder) {
    SubscriptionWorld world;
    const struct {
        std::string request, version, error;
    } exchanges[] = {
        {"<cvnlbreq command=CREATE><host>h</host><port>0</port><samplerate>5000</samplerate>"
         "<windowsize>3</windowsize><id>7</id><replyfreq>30000</replyfreq><percentchange>10"
         "</percentchange><stat>cpu</stat></cvnlbreq>",
         "1.0", "Error parsing version; Error parsing port; "},
        {"<cvnlbreq command=CREATE><version>1.0</version></cvnlbreq>", "1.0",
         "Error parsing host; Error parsing port; Error parsing samplerate; Error parsing "
         "windowsize; Error parsing id; Error parsing replyfrequency; Error parsing "
         "percentchange; Error parsing stat; "},
        {"<cvnlbreq command=STOP></cvnlbreq>", "1.0", "Error parsing version; UNKNOWN"},
        {"<cvnlbreq command=KILL><version>1.0beta</version><id>9</id></cvnlbreq>", "1.0beta",
         "Host with id 9 not found"},
        {"<cvnlbreq command=KILL><version>1.1</version><id>9</id></cvnlbreq>", "1.0",
         "Error parsing version; "},
        {"<cvnlbreq command=KILL><version>1</version><id>0</id></cvnlbreq>", "1.0",
         "Error parsing version; Error parsing id; "},
    };
    for (auto const& e : exchanges) {
        EXPECT_EQ(run(e.request), reply("error", "<error>get /" + e.error + "</error>", e.version))
            << e.request;
    }
}

TEST(StatusReport, ProbeReadingsThenOneConnectionPerHost) {
    SubscriptionWorld world;
    setenv("TZ", "UTC", 1);
    tzset();
    myCache->addToCache(93, 51234, 0, 0, 0);
    const std::string probeTime = myCache->getLastTime().AsRFC1123().AsUtf8();
    const std::string probe = "<port>3579</port><samplerate>5</samplerate><windowsize>10"
                              "</windowsize><stats>cpu=93 bogo=4312 vmem=51234 </stats><time>" +
                              probeTime + "</time>";
    EXPECT_EQ(run("GET /?get&cvnlbinfo HTTP/1.0\r\n"), reply("get", probe + "No Updates"));

    UdpReceiver receiver;
    const std::string port = std::to_string(receiver.Port());
    run("<cvnlbreq command=CREATE><version>1.0</version><host>127.0.0.1</host><port>" + port +
        "</port><samplerate>5000</samplerate><windowsize>3</windowsize><id>7</id><replyfreq>"
        "30000</replyfreq><percentchange>10</percentchange><stat>cpu</stat><stat>bogo</stat>"
        "</cvnlbreq>");
    Host* host = HostListMgr::findHost(7);
    ASSERT_NE(host, nullptr);
    host->sendLoad(myCache->getAverageOfNIdleValues(1).get());
    const std::string connection =
        "<connection><id>7</id><host>127.0.0.1</host><port>" + port +
        "</port><replyfrequency>30</replyfrequency><percentchange>10</percentchange><samplerate>5"
        "</samplerate><windowsize>3</windowsize><stats>cpu=93 bogo=4312 </stats><time>" +
        host->getLastTime().AsRFC1123().AsUtf8() + "</time></connection>";
    EXPECT_EQ(run("GET%20/%3Fget%26cvnlbinfo"), reply("get", probe + connection));
    // A tagged GET needs no version and shows whichever it was given.
    EXPECT_EQ(run("<cvnlbreq command=get><version>1.1</version></cvnlbreq>"),
              reply("get", probe + connection, "1.1"));
}

} // namespace
