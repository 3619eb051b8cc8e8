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

const std::string CREATE7 =
    "<cvnlbreq command=CREATE><version>1.0</version><host>127.0.0.1</host><port>4711</port>"
    "<samplerate>5000</samplerate><windowsize>3</windowsize><id>7</id><replyfreq>30000"
    "</replyfreq><percentchange>10</percentchange><stat>cpu</stat><stat>bogo</stat></cvnlbreq>";
const std::string KILL7 = "<cvnlbreq command=KILL><version>1.0</version><id>7</id></cvnlbreq>";

TEST(CommandReplies, SubscribeDuplicateKillAdmin) {
    SubscriptionWorld world;
    myCache->addToCache(93, 51234, 0, 0, 0);
    const std::pair<std::string, std::string> exchanges[] = {
        {CREATE7, "<?xml version=\"1.0\"?><cvnlbreply type=\"create\"><version>1.0</version>"
                  "<id>7</id><stats>cpu=93 bogo=4312 </stats></cvnlbreply>"},
        {CREATE7, "<?xml version=\"1.0\"?><cvnlbreply type=\"error\"><version>1.0</version>"
                  "<error>get /Host not created</error></cvnlbreply>"},
        {KILL7, "<?xml version=\"1.0\"?><cvnlbreply type=\"kill\"><version>1.0</version><id>7"
                "</id></cvnlbreply>"},
        {KILL7, "<?xml version=\"1.0\"?><cvnlbreply type=\"error\"><version>1.0</version>"
                "<error>get /Host with id 7 not found</error></cvnlbreply>"},
        {"<cvnlbreq command=ADMIN><version>1.0</version><port>4711</port><samplerate>5"
         "</samplerate><windowsize>3</windowsize></cvnlbreq>",
         "<?xml version=\"1.0\"?><cvnlbreply type=\"error\"><version>1.0</version><error>get "
         "/Command not implemented</error></cvnlbreply>"},
        {"<cvnlbreq command=CREATE><version>1.0</version><host>127.0.0.1</host><port>1</port>"
         "<samplerate>5000</samplerate><windowsize>3</windowsize><id>8</id><replyfreq>1"
         "</replyfreq><percentchange>0</percentchange><stat>CPU</stat></cvnlbreq>",
         "<?xml version=\"1.0\"?><cvnlbreply type=\"create\"><version>1.0</version><id>8</id>"
         "<stats></stats></cvnlbreply>"},
    };
    for (auto const& [request, reply] : exchanges) {
        EXPECT_EQ(run(request), reply) << request;
    }
    ASSERT_EQ(HostListMgr::getHostList().size(), 1u);
    EXPECT_EQ(HostListMgr::getHostList().front()->getStatMask(), 0u);
}

TEST(CommandReplies, ErrorTextsAccumulateInCheckOrder) {
    SubscriptionWorld world;
    const std::string head = "<?xml version=\"1.0\"?><cvnlbreply type=\"error\"><version>";
    const std::pair<std::string, std::string> exchanges[] = {
        {"<cvnlbreq command=CREATE><host>h</host><port>0</port><samplerate>5000</samplerate>"
         "<windowsize>3</windowsize><id>7</id><replyfreq>30000</replyfreq><percentchange>10"
         "</percentchange><stat>cpu</stat></cvnlbreq>",
         "1.0</version><error>get /Error parsing version; Error parsing port; </error>"},
        {"<cvnlbreq command=CREATE><version>1.0</version></cvnlbreq>",
         "1.0</version><error>get /Error parsing host; Error parsing port; Error parsing "
         "samplerate; Error parsing windowsize; Error parsing id; Error parsing replyfrequency; "
         "Error parsing percentchange; Error parsing stat; </error>"},
        {"<cvnlbreq command=STOP><version>1.0</version></cvnlbreq>",
         "1.0</version><error>get /UNKNOWN</error>"},
        {"<cvnlbreq command=STOP></cvnlbreq>",
         "1.0</version><error>get /Error parsing version; UNKNOWN</error>"},
        {"<cvnlbreq command=KILL><version>1.0beta</version><id>9</id></cvnlbreq>",
         "1.0beta</version><error>get /Host with id 9 not found</error>"},
        {"<cvnlbreq command=KILL><version>1.1</version><id>9</id></cvnlbreq>",
         "1.0</version><error>get /Error parsing version; </error>"},
        {"<cvnlbreq command=KILL><version>1</version><id>0</id></cvnlbreq>",
         "1.0</version><error>get /Error parsing version; Error parsing id; </error>"},
    };
    for (auto const& [request, reply] : exchanges) {
        EXPECT_EQ(run(request), head + reply + "</cvnlbreply>") << request;
    }
}

TEST(StatusReport, ProbeReadingsThenOneConnectionPerHost) {
    SubscriptionWorld world;
    setenv("TZ", "UTC", 1);
    tzset();
    const std::string head = "<?xml version=\"1.0\"?><cvnlbreply type=\"get\"><version>1.0"
                             "</version><port>3579</port><samplerate>5</samplerate><windowsize>";
    myCache->addToCache(93, 51234, 0, 0, 0);
    const std::string probeTime = myCache->getLastTime().AsRFC1123().AsUtf8();
    ASSERT_FALSE(probeTime.empty());
    const std::string probe =
        "</windowsize><stats>cpu=93 bogo=4312 vmem=51234 </stats><time>" + probeTime + "</time>";
    EXPECT_EQ(run("GET /?get&cvnlbinfo HTTP/1.0\r\n"),
              head + "10" + probe + "No Updates</cvnlbreply>");

    UdpReceiver receiver;
    run("<cvnlbreq command=CREATE><version>1.0</version><host>127.0.0.1</host><port>" +
        std::to_string(receiver.Port()) +
        "</port><samplerate>5000</samplerate><windowsize>3</windowsize><id>7</id><replyfreq>"
        "30000</replyfreq><percentchange>10</percentchange><stat>cpu</stat><stat>bogo</stat>"
        "</cvnlbreq>");
    Host* host = HostListMgr::findHost(7);
    ASSERT_NE(host, nullptr);
    host->sendLoad(myCache->getAverageOfNIdleValues(1).get());
    const std::string connection =
        "<connection><id>7</id><host>127.0.0.1</host><port>" + std::to_string(receiver.Port()) +
        "</port><replyfrequency>30</replyfrequency><percentchange>10"
        "</percentchange><samplerate>5</samplerate><windowsize>3"
        "</windowsize><stats>cpu=93 bogo=4312 </stats><time>" +
        host->getLastTime().AsRFC1123().AsUtf8() + "</time></connection></cvnlbreply>";
    EXPECT_EQ(run("GET%20/%3Fget%26cvnlbinfo"), head + "10" + probe + connection);
    // A tagged GET needs no version and shows whichever it was given.
    EXPECT_EQ(run("<cvnlbreq command=get><version>1.1</version></cvnlbreq>"),
              std::string(head).replace(head.find("1.0</version>"), 3, "1.1") + "10" + probe +
                  connection);
}

} // namespace
