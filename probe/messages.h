// The probe's catalogue of 43 log messages and the records added after it, one free
// function per message. Each asks the logger whether its number is wanted, builds the text
// around the inserted values and hands it to the log framework, which routes it by the
// message's category.
#pragma once

#include <string_view>

#include "lib/numbers.h"
#include "lib/unistring.h"

// Configuration (0-5).
void LogPropsNotFound(KyUniString const& path);
void LogPathNonExistant(KyUniString const& path, KyUniString const& defaultValue,
                        KyUniString const& key);
void LogPathNotDirectory(KyUniString const& path, KyUniString const& defaultValue,
                         KyUniString const& key);
void LogScalarAttrNonExistant(KyUniString const& key, KyScalar<unsigned> defaultValue);
void LogStringAttrNonExistant(KyUniString const& key, KyUniString const& defaultValue);
void LogScalarAttrBadValue(KyUniString const& key, KyScalar<unsigned> value,
                           KyScalar<unsigned> defaultValue);
// Start-up and shutdown (6-8).
void LogStarted();
void LogStopped(KyScalar<int> exitCode);
void LogExitSignal(KyUniString const& signalName);
// The load-tool child and its output (9-18).
void LogBufferFail(KyScalar<unsigned> bytes);
void LogForkFail(KyScalar<unsigned> retries);
void LogToolFail(KyScalar<unsigned> iterations);
void LogWrongChild(KyScalar<int> pid, KyScalar<int> currentPid);
void LogPipeFail(KyScalar<unsigned> bytes, KyScalar<int> error);
void LogReadPipeLimitFail(KyScalar<unsigned> reads);
void LogFilterNotRecognised(KyUniString const& filter);
void LogDataNotRecognised(KyUniString const& tool, KyUniString const& data);
void LogVMemOutOfRange(KyScalar<unsigned> measured, KyScalar<unsigned> configured);
void LogPhysMemOutOfRange(KyScalar<unsigned> measured, KyScalar<unsigned> configured);
// Log set-up (19).
void LogReOpenLogFail(KyUniString const& directory);
// Host registry (20-24).
void LogAttributeLookupFail(KyUniString const& where);
void LogAddressLookupFail(KyUniString const& host, KyScalar<int> result);
void LogHostTimedOut(KyUniString const& host, KyScalar<unsigned> id);
void LogHostListLen(KyUniString const& where, KyScalar<unsigned> count);
void LogCacheEmpty(KyUniString const& host);
// Control listener (25-30).
void LogAcceptFail(KyUniString const& reason);
void LogRemoteAddressFail();
void LogNewConnection(KyUniString const& peer);
void LogBindFailed(KyScalar<unsigned> port, KyUniString const& reason);
void LogListenFailed(KyScalar<unsigned> port, KyUniString const& reason);
void LogBadCommand(KyScalar<unsigned> length, KyUniString const& request);
// Responder (31-34).
void LogResponderBindFailed(KyUniString const& reason);
// The datagram's text as sent, in UTF-8.
void LogLoadPacketSent(std::string_view packet, KyUniString const& address);
void LogLoadSent(KyScalar<unsigned> idle, KyUniString const& address);
void LogLoadPacketFail(std::string_view packet, KyUniString const& address,
                       KyUniString const& reason, KyScalar<int> error);
// Command interpreter (35-41).
void LogCommandMissing();
void LogSyntaxError(KyUniString const& command, KyScalar<int> position, KyUniString const& reason);
void LogCommandText(KyUniString const& command);
// The reply as it goes out, already UTF-8: logged without another conversion.
void LogResponseText(std::string_view responseUtf8);
void LogAttribSetFail(KyUniString const& name, KyUniString const& value);
void LogAttribSetSuccess(KyUniString const& name, KyUniString const& value);
void LogAttribGetFail(KyUniString const& name);
// Sample cache (42).
void LogResultsCached(KyScalar<unsigned> idle, KyScalar<unsigned> swap,
                      KyScalar<unsigned> physMemFree, KyScalar<unsigned> swappedIn,
                      KyScalar<unsigned> swappedOut);

// Records beyond the catalogue (43 on): the agent port, operator drain and maintenance,
// and who may connect. Same style, their own numbers and categories.
void LogStringAttrBadValue(KyUniString const& key, KyUniString const& value,
                           KyUniString const& action);
void LogAdminStateChanged(KyUniString const& from, KyUniString const& to);
void LogAdminStateFileBad(KyUniString const& path, KyUniString const& content);
void LogAdminStateFileFail(KyUniString const& path, KyUniString const& reason);
void LogAdminSocketFail(KyUniString const& path, KyUniString const& reason);
void LogConnectionRefused(KyUniString const& peer, KyScalar<unsigned> port);
