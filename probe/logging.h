// The probe's layer over the log framework: MyLogger supplies the categories of the 43
// catalogue messages and the records after them, and Logging sets the framework up from the
// configured log directory and filter string, and flushes, reopens or closes the logs on request;
// while it lives, the event loop writes the buffered records before every wait.
#pragma once

#include <memory>

#include "lib/logging.h"
#include "lib/unistring.h"

class MyLogger : public KyLog {
public:
    // "hostgauge/<area>/<level>" for messages 0 to 42 and the records after them, then a
    // null entry.
    const char* const* MessageStrings() const override;
};

// The process's logger, built before main.
extern MyLogger mylog;

class Logging {
public:
    Logging(KyUniString const& logDirectory, KyUniString const& logFilter);
    ~Logging();
    Logging(Logging const&) = delete;
    Logging& operator=(Logging const&) = delete;

    // Registers the logger and builds the destinations; the result is also kept.
    bool initLogging();
    void closeLogs();
    // Closes and sets up again; a failed set-up ends the process with code 2.
    void reOpenLogs();
    // On SIGHUP: flush, then reopen the files where they are configured to be.
    void flushLogs();
    bool isInitialised() const { return initialised_; }

private:
    // Copies, not references: the configuration that owns the originals is destroyed
    // before the final log line is written.
    KyUniString logDirectory_;
    KyUniString logFilter_;
    KyUniString component_ = "hostgauge";
    KyUniString empty_;
    KyUniString extension_ = ".log";
    bool initialised_ = false;
};

// The one Logging object, created by Bootstrap and kept to the end of the process.
extern std::unique_ptr<Logging> bootLogger;
