// Control-request parsing: a table of request texts with the command and the attribute
// list each must give. The interpreter's look-ups in the list are tested through its replies
// (parsecommand_test.cpp).
#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "probe/tier3lbstrans.h"

namespace {

using Pairs = std::vector<std::pair<std::string, std::string>>;

struct RequestCase {
    const char* request;
    LbsCommand command;
    Pairs attributes;
};

Pairs AttributesOf(Tier3_LbsTransmission& parsed) {
    Pairs result;
    for (const LbsAttribute* a = parsed.getAttributes().getFirst(); a; a = a->getNext())
        result.emplace_back(a->getName().AsUtf8(), a->getValue().AsUtf8());
    return result;
}

const RequestCase kCases[] = {
    {"<cvnlbreq command=KILL><version>1.0</version><id>7</id></cvnlbreq>",
     LBS_KILL,
     {{"version", "1.0"}, {"id", "7"}}},
    // The status form wins wherever it stands, but only in its exact case.
    {"<cvnlbreq command=KILL><id>7</id></cvnlbreq>GET /?get&cvnlbinfo HTTP/1.1", LBS_GET, {}},
    {"get /?get&cvnlbinfo HTTP/1.1\r\n", LBS_UNKNOWN, {}},
    // The recognised opening tag has exactly one blank.
    {"<cvnlbreq><id>7</id></cvnlbreq>", LBS_UNKNOWN, {}},
    {"<cvnlbreq command=CREATE x=1><id>7</id></cvnlbreq>", LBS_UNKNOWN, {}},
    {"<other command=CREATE><id>7</id></other>", LBS_UNKNOWN, {}},
    // Names and the command word ignore case; values keep theirs.
    {"<CVNLBREQ COMMAND=\"kill\"><ID>7</ID><Host>MixedCase</Host></CVNLBREQ>",
     LBS_KILL,
     {{"id", "7"}, {"host", "MixedCase"}}},
    {"<cvnlbreq command=Admin><port>1</port></cvnlbreq>", LBS_ADMIN, {{"port", "1"}}},
    // A broken command word does not stop the attributes.
    {"<cvnlbreq command=\"create><id>7</id></cvnlbreq>", LBS_UNKNOWN, {{"id", "7"}}},
    {"<cvnlbreq command=><id>7</id></cvnlbreq>", LBS_UNKNOWN, {{"id", "7"}}},
    {"<cvnlbreq command=\"get\">", LBS_GET, {}},
    // Content is kept exactly; any text may stand between elements.
    {"<cvnlbreq command=create>\n  <port> 80 </port>\n\t<id>7</id>\n</cvnlbreq>",
     LBS_CREATE,
     {{"port", " 80 "}, {"id", "7"}}},
    {"<cvnlbreq command=CREATE><stat kind=x>cpu</stat><stat>bogo</stat><stat>cpu</stat>"
     "</cvnlbreq>",
     LBS_CREATE,
     {{"stat kind=x", "cpu"}, {"stat", "bogo"}, {"stat", "cpu"}}},
    // Parsing stops at the first element without its closing tag.
    {"<cvnlbreq command=KILL><version>1.0</version><id>7</cvnlbreq>",
     LBS_KILL,
     {{"version", "1.0"}}},
    {"<cvnlbreq command=GET", LBS_UNKNOWN, {}},
    // The first closing tag of the same name ends an element, even an inner one.
    {"<cvnlbreq command=KILL><a><a>x</a></a><id>7</id></cvnlbreq>", LBS_KILL, {{"a", "<a>x"}}},
    // An empty closing name closes an element whose tag had no blank.
    {"<cvnlbreq command=KILL><id>7</><port>9</port></cvnlbreq>",
     LBS_KILL,
     {{"id", "7"}, {"port", "9"}}},
    // Only '<', ' ' and '>' steer the scan: a name that starts the text needs no '<'.
    {"cvnlbreq command=KILL><id>7</id></cvnlbreq>", LBS_KILL, {{"id", "7"}}},
    {"", LBS_UNKNOWN, {}},
    {"<<<<>>>></></>", LBS_UNKNOWN, {}},
};

TEST(Tier3LbsTransmission, ParsesRequestTable) {
    for (const RequestCase& c : kCases) {
        SCOPED_TRACE(c.request);
        KyUniString request(c.request);
        Tier3_LbsTransmission parsed(request);
        EXPECT_TRUE(parsed.isValid());
        EXPECT_EQ(parsed.getCommand(), c.command);
        EXPECT_EQ(AttributesOf(parsed), c.attributes);
        EXPECT_EQ(parsed.getAttributes().getSize(), c.attributes.size());
    }
}

} // namespace
