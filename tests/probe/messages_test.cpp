// Every catalogue message the daemon raises, with sample values, must land as one plain
// record with its category and exactly its text: a slip in a text is the likeliest fault.
#include <functional>
#include <string>

#include <gtest/gtest.h>

#include "probe/logging.h"
#include "probe/messages.h"
#include "tests/lib/logtemp.h"

namespace {

struct MessageCase {
    unsigned number;
    const char* category;
    std::function<void()> raise;
    const char* text;
};

const MessageCase cases[] = {
    {0, "hostgauge/initialize/error", [] { LogPropsNotFound("alpha"); },
     "The properties file alpha was not found. The hostgauge has been initialized\nusing built-in "
     "defaults.\nThe most likely cause is incorrect configuration or installation.\nCreate the "
     "alpha file or reinstall the Corvane Enhancement Module."},
    {1, "hostgauge/initialize/error", [] { LogPathNonExistant("alpha", "beta gamma", "délta"); },
     "The path or object alpha does not exist. Using the built-in default beta gamma for "
     "the\nattribute délta. The hostgauge may not function correctly.\nThe most likely cause is "
     "incorrect configuration. \nCorrect the configuration in the hostgauge.properties file and "
     "restart the hostgauge."},
    {2, "hostgauge/initialize/error", [] { LogPathNotDirectory("alpha", "beta gamma", "délta"); },
     "The path alpha does not exist or is not a directory. Using the built-in default beta gamma "
     "for the attribute délta. The hostgauge may not function correctly.\nThe most likely cause is "
     "incorrect configuration. \nCorrect the configuration in the hostgauge.properties file and "
     "restart the hostgauge."},
    {3, "hostgauge/initialize/error", [] { LogScalarAttrNonExistant("alpha", 4000000000u); },
     "The attribute alpha does not exist in the hostgauge.properties file. The built-in default "
     "value 4000000000 will be used.\nThe most likely cause is incorrect configuration.\nCorrect "
     "the configuration in the hostgauge.properties file and restart the hostgauge."},
    {4, "hostgauge/initialize/error", [] { LogStringAttrNonExistant("alpha", "beta gamma"); },
     "The attribute alpha does not exist in the hostgauge.properties file. The built-in default "
     "value beta gamma will be used.\nThe most likely cause is incorrect configuration.\nCorrect "
     "the configuration in the hostgauge.properties file and restart the hostgauge."},
    {5, "hostgauge/initialize/error", [] { LogScalarAttrBadValue("alpha", 4000000000u, 9); },
     "The attribute alpha has the value 4000000000 which is invalid. The built-in default value 9 "
     "will be used instead.\nThe most likely cause is incorrect configuration.\nCorrect the "
     "configuration in the hostgauge.properties file and restart the hostgauge."},
    {6, "hostgauge/process/info", [] { LogStarted(); }, "Hostgauge started."},
    {7, "hostgauge/process/info", [] { LogStopped(604); }, "Hostgauge stopped - exitcode 604."},
    {8, "hostgauge/process/info", [] { LogExitSignal("alpha"); },
     "The hostgauge was stopped by signal alpha."},
    {9, "hostgauge/child/fatalerror", [] { LogBufferFail(4000000000u); },
     "Failed to malloc/realloc 4000000000 bytes for loadtool pipe buffer.\nHostgauge will not "
     "work.\nFree memory by killing unwanted processes."},
    {10, "hostgauge/child/fatalerror", [] { LogForkFail(4000000000u); },
     "Failed to fork a child process after 4000000000 retries.\nThe hostgauge will not work.\nKill "
     "off unwanted processes and restart the hostgauge."},
    {11, "hostgauge/child/fatalerror", [] { LogToolFail(4000000000u); },
     "The tool (sar/iostat/vmstat) being used to measure load did not return any data on "
     "4000000000 successive iterations.\nThe most likely cause is incorrect configuration of the "
     "tool or its arguments.\nCorrect the configuration in the hostgauge.properties file and "
     "restart the hostgauge."},
    {12, "hostgauge/child/info", [] { LogWrongChild(-42, -42); },
     "There has been a signal for child process with pid -42 which is not the current child "
     "process(-42) of the hostgauge loadtool.\nNo action is necessary."},
    {13, "hostgauge/child/error", [] { LogPipeFail(4000000000u, -42); },
     "Failure reading 4000000000 bytes from loadtool (sar/iostat/vmstat); errno is -42.\nHostgauge "
     "cannot return data.\nCheck the configuration in the hostgauge.properties file and restart "
     "the hostgauge."},
    {15, "hostgauge/child/fatalerror", [] { LogFilterNotRecognised("alpha"); },
     "The filter named alpha was not recognised. This filter may not be implemented on this "
     "platform. \nHostgauge cannot return data.\nCheck the configuration in the "
     "hostgauge.properties file and restart the hostgauge."},
    {16, "hostgauge/child/error", [] { LogDataNotRecognised("alpha", "beta gamma"); },
     "The data returned by alpha has not been recognised by the data filter. \nThe data was \nbeta "
     "gamma\nThe hostgauge has not cached any load values as a result in this cycle.\nNo action is "
     "necessary unless the problem occurs continuously, in which case check the configuration in "
     "the hostgauge.properties file and restart the hostgauge."},
    {17, "hostgauge/child/error", [] { LogVMemOutOfRange(4000000000u, 8); },
     "The used/free virtual memory measured (4000000000 Kb) exceeds the amount configured in "
     "hostgauge.properties (8 Kb).\nResulting virtual memory usage measurements will be "
     "inaccurate.\nCorrect the maxvirtualmemory value in hostgauge.properties and restart the "
     "hostgauge."},
    {19, "hostgauge/log/error", [] { LogReOpenLogFail("alpha"); },
     "Failed to reopen log files. No logs will be recorded.\n Check the log directory alpha "
     "exists.\nTo ensure correct log information, restart the Hostgauge."},
    {20, "hostgauge/attribute/error", [] { LogAttributeLookupFail("alpha"); },
     "Failed to any attributes in alpha.\nThe hostgauge may not return data.\nCheck the "
     "configuration in the hostgauge.properties file and restart the hostgauge."},
    {21, "hostgauge/host/error", [] { LogAddressLookupFail("alpha", -42); },
     "Failed to read the address for alpha from DNS; result was -42.\nThe hostgauge will not be "
     "able to send load updates to this host.\nCheck the hostname and that it is configured "
     "correctly in DNS.\n"},
    {22, "hostgauge/host/info", [] { LogHostTimedOut("alpha", 4000000000u); },
     "The host object for alpha with ID 4000000000 has time-expired and has been deleted.\nNo "
     "action is necessary."},
    {23, "hostgauge/host/moreinfo", [] { LogHostListLen("alpha", 4000000000u); },
     "alpha: There are 4000000000 host objects in the Host List."},
    {24, "hostgauge/host/error", [] { LogCacheEmpty("alpha"); },
     "Unable to send load/memory values to alpha. There are no values in the cache to "
     "average.\nHostspread may not work.\nIf this problem persists, check and correct the "
     "configuration in the hostgauge.properties file and restart the hostgauge."},
    {25, "hostgauge/listener/error", [] { LogAcceptFail("alpha"); },
     "Failed to accept new connection [Reason: alpha].\nAn unknown host will not be able to "
     "receive load updates.\nCheck for failures on your network."},
    {27, "hostgauge/listener/info", [] { LogNewConnection("alpha"); },
     "Received new connection from alpha."},
    {28, "hostgauge/listener/fatalerror", [] { LogBindFailed(4000000000u, "alpha"); },
     "Failed to bind to port 4000000000, reason alpha.\nThe hostgauge will not be able to "
     "function.\nCheck that this port is available OR configure the hostgauge to use a different "
     "port."},
    {29, "hostgauge/listener/fatalerror", [] { LogListenFailed(4000000000u, "alpha"); },
     "Failed to listen on port 4000000000, reason alpha.\nThe hostgauge will not be able to "
     "function.\nCheck that this port is available OR configure the hostgauge to use a different "
     "port."},
    {30, "hostgauge/listener/error", [] { LogBadCommand(4000000000u, "alpha"); },
     "Bad request (length 4000000000). Request is [ alpha ].\nThe hostgauge cannot act on this "
     "request.\nCheck the source of this request to determine its validity."},
    {31, "hostgauge/responder/fatalerror", [] { LogResponderBindFailed("alpha"); },
     "Failed to bind for connectionless port reason alpha.\nThe hostgauge will not be able to "
     "function.\nCheck the availability of suitable ports."},
    {32, "hostgauge/responder/moreinfo", [] { LogLoadPacketSent("alpha", "beta gamma"); },
     "alpha\nsent to beta gamma"},
    {34, "hostgauge/responder/error",
     [] { LogLoadPacketFail("alpha", "beta gamma", "délta", -42); },
     "Failed to send packet\nalpha\nto address beta gamma. Error was délta, errno was -42.\nThe "
     "hostgauge will continue sending load packets to this and other addresses.\nCheck for other "
     "evidence of network faults."},
    {36, "hostgauge/command/error", [] { LogSyntaxError("alpha", -42, "beta gamma"); },
     "Syntax error in command parameter list\nalpha\n at character position -42 because of [beta "
     "gamma].\nThe hostgauge may not work successfully.\nCorrect the source of the command and "
     "resend it."},
    {37, "hostgauge/command/info", [] { LogCommandText("alpha"); }, "Command is \nalpha"},
    {38, "hostgauge/command/info", [] { LogResponseText("alpha"); }, "Response is \nalpha"},
    {42, "hostgauge/results/moreinfo", [] { LogResultsCached(4000000000u, 8, 9, 10, 11); },
     "The following results have just been cached: idle=4000000000, swap=8, \nphysmemfree=9, "
     "swappedin=10, swappedout=11."},
};

TEST(MessageCatalogue, EveryMessageWritesItsCategoryAndExactText) {
    LogTempDir dir;
    Logging logging(KyUniString(dir.Path()), "*/*/*:all.log");
    for (std::size_t i = 0; i < std::size(cases); ++i) {
        MessageCase const& c = cases[i];
        SCOPED_TRACE("message " + std::to_string(c.number));
        c.raise();
        const auto records = ParseRecords(ReadLog(dir / "all.log"));
        ASSERT_EQ(records.size(), i + 1) << "one plain record each";
        EXPECT_EQ(records.back().category, c.category);
        EXPECT_EQ(records.back().text, c.text);
    }
}

} // namespace
