// The pid file: decimal process id without a line end, mode 0600, silently overwriting a
// file left by an earlier run.
#include "probe/pidfile.h"

#include "lib/file.h"

#include <string>
#include <unistd.h>

PidFile* myPidFile = nullptr;

PidFile::PidFile(KyUniString const& directory) : path_(directory + FILE_NAME), pid_(::getpid()) {
    const std::string content = std::to_string(pid_);
    const KyByteBuffer bytes{std::string_view(content)};
    written_ = KyFile::WriteFile(path_.AsUtf8(), bytes) == Success;
}

PidFile::~PidFile() {
    // A forked copy of the daemon that ends through processExit must not take the
    // running daemon's file with it.
    if (written_ && ::getpid() == pid_) {
        ::unlink(path_.AsUtf8().c_str());
    }
}
