// KyLog: the process-wide log framework. The application supplies its table of message
// categories; filter terms choose destinations (plain .log files, structured .jsl files,
// standard error), and each message number is routed to its destinations through a table
// built once at set-up, so writing a record needs no pattern matching. Records for files
// collect in a buffer per destination and reach the file in one write when Flush() runs.
#pragma once

#include <array>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <span>
#include <string>
#include <string_view>

#include "lib/dlist.h"
#include "lib/error.h"
#include "lib/numbers.h"
#include "lib/unistring.h"

class KyLog {
public:
    class JsLogFile;
    class JsLogAction;

    // The application's categories ("component/area/level") indexed by message number,
    // ended by a null entry. The base logger knows no messages.
    virtual const char* const* MessageStrings() const;
    virtual ~KyLog() = default;

    // The logger registered by InitLogs, or null before that.
    static KyLog* Logger();
    // Registers the logger and the directory in which relative destinations are created.
    static void InitLogs(KyLog* logger, KyUniString const& directory);
    // Replaces all destinations by those of the terms
    // ("component/area/level:destination"); malformed terms are skipped. Always true.
    static bool SetupJSFilters(KyDList<KyUniString> const& terms);
    static bool SetupJSFilters(std::span<const KyUniString> terms);

    // Whether a message is worth formatting at all; destinations are chosen later.
    bool Gen(unsigned messageNumber) const;
    // Whether any destination wants the message.
    static bool JsGen(unsigned messageNumber);
    // Writes one record of the message to each of its destinations.
    static void JserverLog(unsigned messageNumber, KyUniString const& text);
    // The same for text already in UTF-8, so large texts are encoded only once.
    static void JserverLogUtf8(unsigned messageNumber, std::string_view utf8);

    // Writes every destination's buffered records. The owner of the process calls it
    // before the process waits or blocks, before a fork and at exit (an exit handler
    // registered by InitLogs covers exit() and a return from main).
    static void Flush();
    // Flushes, then reopens every file destination at its path, so moved-away logs start
    // afresh.
    static KyStatus ReOpen();
    static void AboutToFork();
    // In a child after fork: records buffered in the parent are dropped (they are the
    // parent's to write), and destinations named with the pid marker move to files
    // carrying the child's own process id.
    static void HaveForked();
};

// One destination: where records go and which categories it wants.
class KyLog::JsLogFile {
public:
    JsLogFile(KyUniString name, KyUniString component, KyUniString area, KyUniString level);
    ~JsLogFile();
    JsLogFile(JsLogFile const&) = delete;
    JsLogFile& operator=(JsLogFile const&) = delete;

    // The destination name that stands for standard error.
    static KyUniString const& GetStdErrStr();

    bool Wants(std::span<const std::string_view, 3> category) const;
    bool IsStructured() const { return structured_; }
    bool IsConsole() const { return console_; }
    bool NamedByPid() const;
    // Null until the first record was written, and when the destination could not be
    // opened.
    std::FILE* Stream() const { return stream_; }
    // The stream for a record, opening the file first if needed; null when it cannot be
    // opened.
    std::FILE* Writable();
    KyUnixError const& LastError() const { return lastError_; }

    // A buffer is written before it would grow past this size, so a burst between two
    // waits holds at most this much in memory.
    static constexpr std::size_t FlushBound = 64 * 1024;

    // Queues a record for the destination; standard error is written at once.
    void Append(std::string_view record);
    // Writes the queued records in one write (more only when the file takes part of it).
    void Flush();
    std::size_t Pending() const { return pending_.size(); }
    // Forgets the queued records without writing them.
    void Discard() { pending_.clear(); }

    // Fixes the path for the process id; the file is created by Writable().
    void Open(int pid);
    void ReOpen();
    void Close();

private:
    void FixFileState();
    void WriteOut(std::string_view bytes);

    bool structured_;
    bool console_;
    KyUniString component_;
    KyUniString area_;
    KyUniString level_;
    KyUniString name_;
    std::string path_;
    std::FILE* stream_ = nullptr;
    bool openFailed_ = false;
    std::string pending_;
    KyUnixError lastError_;
};

// The destinations of one message number: at most four, in the order of the terms.
class KyLog::JsLogAction {
public:
    static constexpr std::size_t MaxDestinations = 4;

    explicit JsLogAction(const char* category = "") : category_(category) {}
    // A destination past the fourth is dropped.
    void Add(JsLogFile* destination);
    bool Active() const { return count_ > 0; }
    std::span<JsLogFile* const> Destinations() const { return {slots_.data(), count_}; }
    std::string_view Category() const { return category_; }

private:
    const char* category_;
    std::array<JsLogFile*, MaxDestinations> slots_{};
    std::size_t count_ = 0;
};
