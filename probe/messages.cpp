// The 43 catalogue messages. Each function checks that the logger wants its number,
// builds the text in UTF-8 from the literal pieces and the values, and hands it to the
// framework, which routes it by the category in probe/logging.cpp. Texts are encoded
// once, straight into the record text: a response can be a multi-megabyte report.
#include "probe/messages.h"

#include <charconv>
#include <string>

#include "lib/codeset/utf8.h"
#include "probe/logging.h"

namespace {

void AppendPart(std::string& out, const char* literal) {
    out.append(literal);
}
void AppendPart(std::string& out, std::string_view utf8) {
    out.append(utf8);
}
void AppendPart(std::string& out, KyUniString const& text) {
    KyUtf8::AppendEncoded(text.View(), out);
}
template <typename T>
void AppendPart(std::string& out, KyScalar<T> number) {
    char digits[24];
    const auto result = std::to_chars(digits, digits + sizeof digits, number.Value());
    out.append(digits, result.ptr);
}

template <typename... Parts>
void Emit(unsigned number, Parts const&... parts) {
    if (!mylog.Gen(number)) {
        return;
    }
    std::string text;
    (AppendPart(text, parts), ...);
    KyLog::JserverLogUtf8(number, text);
}

} // namespace

void LogPropsNotFound(KyUniString const& path) {
    Emit(0, "The properties file ", path,
         " was not found. The hostgauge has been initialized\nusing built-in defaults.\nThe most "
         "likely cause is incorrect configuration or installation.\nCreate the ",
         path, " file or reinstall the Corvane Enhancement Module.");
}
void LogPathNonExistant(KyUniString const& path, KyUniString const& defaultValue,
                        KyUniString const& key) {
    Emit(1, "The path or object ", path, " does not exist. Using the built-in default ",
         defaultValue, " for the\nattribute ", key,
         ". The hostgauge may not function correctly.\nThe most likely cause is incorrect "
         "configuration. \nCorrect the configuration in the hostgauge.properties file and restart "
         "the hostgauge.");
}
void LogPathNotDirectory(KyUniString const& path, KyUniString const& defaultValue,
                         KyUniString const& key) {
    Emit(2, "The path ", path, " does not exist or is not a directory. Using the built-in default ",
         defaultValue, " for the attribute ", key,
         ". The hostgauge may not function correctly.\nThe most likely cause is incorrect "
         "configuration. \nCorrect the configuration in the hostgauge.properties file and restart "
         "the hostgauge.");
}
void LogScalarAttrNonExistant(KyUniString const& key, KyScalar<unsigned> defaultValue) {
    Emit(3, "The attribute ", key,
         " does not exist in the hostgauge.properties file. The built-in default value ",
         defaultValue,
         " will be used.\nThe most likely cause is incorrect configuration.\nCorrect the "
         "configuration in the hostgauge.properties file and restart the hostgauge.");
}
void LogStringAttrNonExistant(KyUniString const& key, KyUniString const& defaultValue) {
    Emit(4, "The attribute ", key,
         " does not exist in the hostgauge.properties file. The built-in default value ",
         defaultValue,
         " will be used.\nThe most likely cause is incorrect configuration.\nCorrect the "
         "configuration in the hostgauge.properties file and restart the hostgauge.");
}
void LogScalarAttrBadValue(KyUniString const& key, KyScalar<unsigned> value,
                           KyScalar<unsigned> defaultValue) {
    Emit(5, "The attribute ", key, " has the value ", value,
         " which is invalid. The built-in default value ", defaultValue,
         " will be used instead.\nThe most likely cause is incorrect configuration.\nCorrect the "
         "configuration in the hostgauge.properties file and restart the hostgauge.");
}
void LogStarted() {
    Emit(6, "Hostgauge started.");
}
void LogStopped(KyScalar<int> exitCode) {
    Emit(7, "Hostgauge stopped - exitcode ", exitCode, ".");
}
void LogExitSignal(KyUniString const& signalName) {
    Emit(8, "The hostgauge was stopped by signal ", signalName, ".");
}
void LogBufferFail(KyScalar<unsigned> bytes) {
    Emit(9, "Failed to malloc/realloc ", bytes,
         " bytes for loadtool pipe buffer.\nHostgauge will not work.\nFree memory by killing "
         "unwanted processes.");
}
void LogForkFail(KyScalar<unsigned> retries) {
    Emit(10, "Failed to fork a child process after ", retries,
         " retries.\nThe hostgauge will not work.\nKill off unwanted processes and restart the "
         "hostgauge.");
}
void LogToolFail(KyScalar<unsigned> iterations) {
    Emit(11, "The tool (sar/iostat/vmstat) being used to measure load did not return any data on ",
         iterations,
         " successive iterations.\nThe most likely cause is incorrect configuration of the tool or "
         "its arguments.\nCorrect the configuration in the hostgauge.properties file and restart "
         "the hostgauge.");
}
void LogWrongChild(KyScalar<int> pid, KyScalar<int> currentPid) {
    Emit(12, "There has been a signal for child process with pid ", pid,
         " which is not the current child process(", currentPid,
         ") of the hostgauge loadtool.\nNo action is necessary.");
}
void LogPipeFail(KyScalar<unsigned> bytes, KyScalar<int> error) {
    Emit(13, "Failure reading ", bytes, " bytes from loadtool (sar/iostat/vmstat); errno is ",
         error,
         ".\nHostgauge cannot return data.\nCheck the configuration in the hostgauge.properties "
         "file and restart the hostgauge.");
}
void LogReadPipeLimitFail(KyScalar<unsigned> reads) {
    Emit(14,
         "The pipe being used to read data from the loadtool (sar/iostat/vmstat) did not return "
         "any data on ",
         reads, " successive reads.\nNo action is necessary.");
}
void LogFilterNotRecognised(KyUniString const& filter) {
    Emit(15, "The filter named ", filter,
         " was not recognised. This filter may not be implemented on this platform. \nHostgauge "
         "cannot return data.\nCheck the configuration in the hostgauge.properties file and "
         "restart the hostgauge.");
}
void LogDataNotRecognised(KyUniString const& tool, KyUniString const& data) {
    Emit(16, "The data returned by ", tool,
         " has not been recognised by the data filter. \nThe data was \n", data,
         "\nThe hostgauge has not cached any load values as a result in this cycle.\nNo action is "
         "necessary unless the problem occurs continuously, in which case check the configuration "
         "in the hostgauge.properties file and restart the hostgauge.");
}
void LogVMemOutOfRange(KyScalar<unsigned> measured, KyScalar<unsigned> configured) {
    Emit(17, "The used/free virtual memory measured (", measured,
         " Kb) exceeds the amount configured in hostgauge.properties (", configured,
         " Kb).\nResulting virtual memory usage measurements will be inaccurate.\nCorrect the "
         "maxvirtualmemory value in hostgauge.properties and restart the hostgauge.");
}
void LogPhysMemOutOfRange(KyScalar<unsigned> measured, KyScalar<unsigned> configured) {
    Emit(18, "The used/free real memory measured (", measured,
         " Kb) exceeds the amount configured in hostgauge.properties (", configured,
         " Kb).\nResulting real memory usage measurements will be inaccurate.\nCorrect the "
         "maxrealmemory value in hostgauge.properties and restart the hostgauge.");
}
void LogReOpenLogFail(KyUniString const& directory) {
    Emit(19, "Failed to reopen log files. No logs will be recorded.\n Check the log directory ",
         directory, " exists.\nTo ensure correct log information, restart the Hostgauge.");
}
void LogAttributeLookupFail(KyUniString const& where) {
    Emit(20, "Failed to any attributes in ", where,
         ".\nThe hostgauge may not return data.\nCheck the configuration in the "
         "hostgauge.properties file and restart the hostgauge.");
}
void LogAddressLookupFail(KyUniString const& host, KyScalar<int> result) {
    Emit(21, "Failed to read the address for ", host, " from DNS; result was ", result,
         ".\nThe hostgauge will not be able to send load updates to this host.\nCheck the hostname "
         "and that it is configured correctly in DNS.\n");
}
void LogHostTimedOut(KyUniString const& host, KyScalar<unsigned> id) {
    Emit(22, "The host object for ", host, " with ID ", id,
         " has time-expired and has been deleted.\nNo action is necessary.");
}
void LogHostListLen(KyUniString const& where, KyScalar<unsigned> count) {
    Emit(23, where, ": There are ", count, " host objects in the Host List.");
}
void LogCacheEmpty(KyUniString const& host) {
    Emit(24, "Unable to send load/memory values to ", host,
         ". There are no values in the cache to average.\nHostspread may not work.\nIf this "
         "problem persists, check and correct the configuration in the hostgauge.properties file "
         "and restart the hostgauge.");
}
void LogAcceptFail(KyUniString const& reason) {
    Emit(25, "Failed to accept new connection [Reason: ", reason,
         "].\nAn unknown host will not be able to receive load updates.\nCheck for failures on "
         "your network.");
}
void LogRemoteAddressFail() {
    Emit(26, "Failed to get remote address for new connection.\nAn unknown host will not be able "
             "to receive load updates.\nCheck for failures on your network.");
}
void LogNewConnection(KyUniString const& peer) {
    Emit(27, "Received new connection from ", peer, ".");
}
void LogBindFailed(KyScalar<unsigned> port, KyUniString const& reason) {
    Emit(28, "Failed to bind to port ", port, ", reason ", reason,
         ".\nThe hostgauge will not be able to function.\nCheck that this port is available OR "
         "configure the hostgauge to use a different port.");
}
void LogListenFailed(KyScalar<unsigned> port, KyUniString const& reason) {
    Emit(29, "Failed to listen on port ", port, ", reason ", reason,
         ".\nThe hostgauge will not be able to function.\nCheck that this port is available OR "
         "configure the hostgauge to use a different port.");
}
void LogBadCommand(KyScalar<unsigned> length, KyUniString const& request) {
    Emit(30, "Bad request (length ", length, "). Request is [ ", request,
         " ].\nThe hostgauge cannot act on this request.\nCheck the source of this request to "
         "determine its validity.");
}
void LogResponderBindFailed(KyUniString const& reason) {
    Emit(31, "Failed to bind for connectionless port reason ", reason,
         ".\nThe hostgauge will not be able to function.\nCheck the availability of suitable "
         "ports.");
}
void LogLoadPacketSent(std::string_view packet, KyUniString const& address) {
    Emit(32, packet, "\nsent to ", address);
}
void LogLoadSent(KyScalar<unsigned> idle, KyUniString const& address) {
    Emit(33, "Idle value ", idle, " sent to ", address, " ");
}
void LogLoadPacketFail(std::string_view packet, KyUniString const& address,
                       KyUniString const& reason, KyScalar<int> error) {
    Emit(34, "Failed to send packet\n", packet, "\nto address ", address, ". Error was ", reason,
         ", errno was ", error,
         ".\nThe hostgauge will continue sending load packets to this and other addresses.\nCheck "
         "for other evidence of network faults.");
}
void LogCommandMissing() {
    Emit(35, "Failed to find valid command.\nThe hostgauge may not work successfully.\nCorrect the "
             "hostgauge configuration and restart it.");
}
void LogSyntaxError(KyUniString const& command, KyScalar<int> position, KyUniString const& reason) {
    Emit(36, "Syntax error in command parameter list\n", command, "\n at character position ",
         position, " because of [", reason,
         "].\nThe hostgauge may not work successfully.\nCorrect the source of the command and "
         "resend it.");
}
void LogCommandText(KyUniString const& command) {
    Emit(37, "Command is \n", command);
}
void LogResponseText(std::string_view responseUtf8) {
    Emit(38, "Response is \n", responseUtf8);
}
void LogAttribSetFail(KyUniString const& name, KyUniString const& value) {
    Emit(39, "Failed to register attribute setting (", name, " = ", value,
         ").\nThe hostgauge may not work properly.\nRestart the hostgauge to see if the problem "
         "persists.");
}
void LogAttribSetSuccess(KyUniString const& name, KyUniString const& value) {
    Emit(40, "Successfully set ", name, " = ", value);
}
void LogAttribGetFail(KyUniString const& name) {
    Emit(41, "Failed to get attribute ", name,
         "\n.The hostgauge may not work successfully.\nCorrect the hostgauge configuration and "
         "restart it.");
}
void LogResultsCached(KyScalar<unsigned> idle, KyScalar<unsigned> swap,
                      KyScalar<unsigned> physMemFree, KyScalar<unsigned> swappedIn,
                      KyScalar<unsigned> swappedOut) {
    Emit(42, "The following results have just been cached: idle=", idle, ", swap=", swap,
         ", \nphysmemfree=", physMemFree, ", swappedin=", swappedIn, ", swappedout=", swappedOut,
         ".");
}
void LogStringAttrBadValue(KyUniString const& key, KyUniString const& value,
                           KyUniString const& action) {
    Emit(43, "The attribute ", key, " has the value ", value, " which is invalid. ", action,
         "\nThe most likely cause is incorrect configuration.\nCorrect the configuration in the "
         "hostgauge.properties file and restart the hostgauge.");
}
void LogAdminStateChanged(KyUniString const& from, KyUniString const& to) {
    Emit(44, "The operator changed the hostgauge state from ", from, " to ", to, ".");
}
void LogAdminStateFileBad(KyUniString const& path, KyUniString const& content) {
    Emit(45, "The state file ", path, " holds ", content,
         " which is not a state. The hostgauge starts in the state ready.\nSet the state again "
         "with hostgauge-ctl drain, maint or ready.");
}
void LogAdminStateFileFail(KyUniString const& path, KyUniString const& reason) {
    Emit(46, "Failed to write the state file ", path, ", reason ", reason,
         ".\nThe state holds until the hostgauge stops but will not survive a restart.\nCheck "
         "the statedirectory setting and the permissions of that directory.");
}
void LogAdminSocketFail(KyUniString const& path, KyUniString const& reason) {
    Emit(47, "Failed to open the admin socket ", path, ", reason ", reason,
         ".\nhostgauge-ctl cannot change the state of this hostgauge.\nCheck the piddirectory "
         "setting and that no other hostgauge uses this socket.");
}
void LogConnectionRefused(KyUniString const& peer, KyScalar<unsigned> port) {
    Emit(48, "Refused a connection from ", peer, " to port ", port,
         ": the address is not in the allow list. Further refusals of this address are not "
         "logged for a minute.");
}
