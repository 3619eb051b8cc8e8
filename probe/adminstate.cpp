// The operator's state and its file. The file holds one word and a line end; it is
// replaced through a temporary file and a rename, so a crash leaves the old or the new
// state, never half of one.
#include "probe/adminstate.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <iterator>

#include "probe/messages.h"

AdminState* myAdminState = nullptr;

namespace {

KyUniString errorText(const char* call, int error) {
    return KyUniString(std::string(call) + ": " + std::strerror(error));
}

std::string_view trimmedLine(std::string_view text) {
    while (!text.empty() && (text.back() == '\n' || text.back() == '\r' || text.back() == ' '))
        text.remove_suffix(1);
    return text;
}

} // namespace

AdminState::AdminState(const KyUniString& directory) : path_(directory.AsUtf8() + FILE_NAME) {
    load();
}

std::string_view AdminState::name(Mode mode) {
    switch (mode) {
    case Mode::Drain:
        return "drain";
    case Mode::Maint:
        return "maint";
    default:
        return "ready";
    }
}

std::optional<AdminState::Mode> AdminState::parse(std::string_view text) {
    for (const Mode mode : {Mode::Ready, Mode::Drain, Mode::Maint}) {
        if (text == name(mode))
            return mode;
    }
    return std::nullopt;
}

void AdminState::load() {
    std::ifstream in(path_);
    if (!in)
        return; // no file: never drained here
    const std::string content{std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
    const auto mode = parse(trimmedLine(content));
    if (!mode) {
        LogAdminStateFileBad(KyUniString(path_), KyUniString(content.substr(0, 64)));
        return;
    }
    mode_ = *mode;
}

KyStatus AdminState::set(Mode mode, const KyTimeVal& now) {
    if (mode == mode_)
        return Success;
    if (mode == Mode::Ready)
        liftedAt_ = now;
    else
        liftedAt_.reset();
    LogAdminStateChanged(KyUniString(name(mode_)), KyUniString(name(mode)));
    mode_ = mode;
    return save();
}

bool AdminState::announceReady(const KyTimeVal& now) const {
    return mode_ == Mode::Ready && liftedAt_ &&
           now < *liftedAt_ + KyTimeVal(READY_ANNOUNCE_SECONDS, 0);
}

KyStatus AdminState::save() const {
    const std::string temporary = path_ + ".new";
    const std::string text = std::string(name(mode_)) + "\n";
    const int fd = ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    const char* failed = nullptr;
    int error = 0;
    const auto check = [&](bool ok, const char* call) {
        if (!ok && failed == nullptr) {
            failed = call;
            error = errno;
        }
    };
    check(fd >= 0, "open");
    if (fd >= 0) {
        check(::write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size()), "write");
        check(failed != nullptr || ::fsync(fd) == 0, "fsync");
        ::close(fd);
        check(failed != nullptr || ::rename(temporary.c_str(), path_.c_str()) == 0, "rename");
    }
    if (failed != nullptr) {
        LogAdminStateFileFail(KyUniString(path_), errorText(failed, error));
        if (fd >= 0)
            ::unlink(temporary.c_str());
        return Failure;
    }
    return Success;
}
