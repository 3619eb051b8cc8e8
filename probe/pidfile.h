// The pid file: the daemon's process id, written when start-up is complete so that
// operators' scripts can find and signal it, and removed again on the way out.
#pragma once

#include "lib/unistring.h"

#include <sys/types.h>

class PidFile {
public:
    static constexpr const char* FILE_NAME = "/hostgauge.pid";

    // Writes the file in the given directory; a failure is not reported and not fatal.
    explicit PidFile(KyUniString const& directory);
    // Removes the file, but only one that this process wrote.
    ~PidFile();
    PidFile(const PidFile&) = delete;
    PidFile& operator=(const PidFile&) = delete;

    const KyUniString& getPath() const { return path_; }
    bool isWritten() const { return written_; }

private:
    KyUniString path_;
    pid_t pid_;
    bool written_ = false;
};

// Made by main once the daemon is up; processExit removes it.
extern PidFile* myPidFile;
