// Descriptor ownership, one-call I/O with its four results, descriptor flags, and the
// whole-file and path helpers of KyFile. Every failing call is recorded with its
// arguments as text so callers can log it as it was made.
#include "lib/file.h"

#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>
#include <vector>

namespace {

KyUniString Text(std::string_view text) {
    return KyUniString(text);
}

bool StatPath(std::string_view path, struct stat& info) {
    return ::stat(std::string(path).c_str(), &info) == 0;
}

} // namespace

KyFile::KyFile() : owns_(true), fd_(-1) {}

KyFile::KyFile(int fd) : owns_(fd < 0), fd_(fd < 0 ? -1 : fd) {}

KyFile::~KyFile() {
    if (owns_ && fd_ >= 0) {
        ::close(fd_);
    }
}

KyFile::KyFile(KyFile&& other) noexcept
    : owns_(other.owns_), lastError_(other.lastError_), fd_(std::exchange(other.fd_, -1)) {
    other.owns_ = true;
}

KyFile& KyFile::operator=(KyFile&& other) noexcept {
    if (this != &other) {
        if (owns_ && fd_ >= 0) {
            ::close(fd_);
        }
        owns_ = std::exchange(other.owns_, true);
        lastError_ = other.lastError_;
        fd_ = std::exchange(other.fd_, -1);
    }
    return *this;
}

void KyFile::Adopt(int fd) {
    if (owns_ && fd_ >= 0 && fd_ != fd) {
        ::close(fd_);
    }
    fd_ = fd;
    owns_ = true;
}

void KyFile::Record(const char* function, std::string_view suffix, int error) {
    lastError_.Set(function, Text(std::to_string(fd_) + std::string(suffix)), error);
}

KyStatus KyFile::Open(std::string_view path, int flags, mode_t mode) {
    Adopt(-1);
    const int fd = ::open(std::string(path).c_str(), flags, mode);
    if (fd < 0) {
        GenerateOpenError(path, flags, mode);
        return Failure;
    }
    fd_ = fd;
    return Success;
}

KyStatus KyFile::Close() {
    if (fd_ < 0) {
        return Success;
    }
    if (::close(fd_) != 0) {
        lastError_.Set("close", "", errno);
        return Failure;
    }
    fd_ = -1;
    return Success;
}

KyIOResult KyFile::Transfer(const char* function, long result, long length, const void* address,
                            long& count) {
    if (result < 0) {
        const int error = errno;
        if (error == EAGAIN || error == EWOULDBLOCK) {
            count = 0;
            return ioPartial;
        }
        char pointer[32];
        std::snprintf(pointer, sizeof pointer, "%p", address);
        Record(function, "," + std::string(pointer) + "," + std::to_string(length), error);
        return ioError;
    }
    count = result;
    if (result == length) {
        return length == 0 ? ioEndOfFile : ioComplete;
    }
    return result == 0 ? ioEndOfFile : ioPartial;
}

KyIOResult KyFile::Read(void* buffer, long length, long& count) {
    const long result = ::read(fd_, buffer, static_cast<size_t>(length));
    return Transfer("read", result, length, buffer, count);
}

KyIOResult KyFile::Write(const void* data, long length, long& count) {
    const long result = ::write(fd_, data, static_cast<size_t>(length));
    if (result == 0 && length > 0) {
        // A write that moves nothing is not an end of file; the caller waits and retries.
        count = 0;
        return ioPartial;
    }
    return Transfer("write", result, length, data, count);
}

KyStatus KyFile::SetBlocking(bool blocking) {
    const int flags = ::fcntl(fd_, F_GETFL);
    if (flags < 0) {
        Record("fcntl", ",F_GETFL", errno);
        return Failure;
    }
    const int wanted = blocking ? (flags & ~O_NONBLOCK) : (flags | O_NONBLOCK);
    if (::fcntl(fd_, F_SETFL, wanted) < 0) {
        Record("fcntl", ",F_SETFL," + std::to_string(wanted), errno);
        return Failure;
    }
    return Success;
}

KyStatus KyFile::SetCloseOnExec(int fd, bool closeOnExec) {
    const int flags = ::fcntl(fd, F_GETFD);
    if (flags < 0) {
        return Failure;
    }
    const int wanted = closeOnExec ? (flags | FD_CLOEXEC) : (flags & ~FD_CLOEXEC);
    return AsStatus(::fcntl(fd, F_SETFD, wanted) == 0);
}

KyStatus KyFile::SetCloseOnExec(bool closeOnExec) {
    if (SetCloseOnExec(fd_, closeOnExec) == Failure) {
        Record("fcntl", closeOnExec ? ",F_SETFD,FD_CLOEXEC" : ",F_SETFD,0", errno);
        return Failure;
    }
    return Success;
}

KyStatus KyFile::AmountAvailable(long& count) {
    int available = 0;
    if (::ioctl(fd_, FIONREAD, &available) < 0) {
        Record("ioctl", ",FIONREAD", errno);
        count = 0;
        return Failure;
    }
    count = available;
    return Success;
}

KyStatus KyFile::FTruncate(off_t length) {
    if (::ftruncate(fd_, length) != 0) {
        Record("ftruncate", "," + std::to_string(length), errno);
        return Failure;
    }
    return Success;
}

off_t KyFile::LSeek(off_t offset, int whence) {
    const off_t result = ::lseek(fd_, offset, whence);
    if (result < 0) {
        Record("lseek", "," + std::to_string(offset) + "," + std::to_string(whence), errno);
    }
    return result;
}

KyStatus KyFile::LockF(int command, off_t length) {
    if (::lockf(fd_, command, length) != 0) {
        Record("lockf", "," + std::to_string(command) + "," + std::to_string(length), errno);
        return Failure;
    }
    return Success;
}

std::string KyFile::GeneratePrintableName(std::string_view path) {
    std::string printable;
    for (const char c : path) {
        const auto byte = static_cast<unsigned char>(c);
        if (byte >= 32 && byte < 127) {
            printable += c;
        } else {
            char escaped[8];
            std::snprintf(escaped, sizeof escaped, "\\x%02X", byte);
            printable += escaped;
        }
    }
    return printable;
}

std::string KyFile::FlagsText(int flags) {
    std::string text;
    switch (flags & O_ACCMODE) {
    case O_WRONLY:
        text = "WRONLY";
        break;
    case O_RDWR:
        text = "RDWR";
        break;
    default:
        text = "RDONLY";
        break;
    }
    static constexpr std::pair<int, const char*> kNamed[] = {
        {O_CREAT, " | CREAT"},       {O_TRUNC, " | TRUNC"},   {O_EXCL, " | EXCL"},
        {O_NONBLOCK, " | NONBLOCK"}, {O_APPEND, " | APPEND"}, {O_NDELAY, " | NDELAY"},
        {O_NOCTTY, " | NOCTTY"},
    };
    for (const auto& [flag, name] : kNamed) {
        if ((flags & flag) != 0) {
            text += name;
        }
    }
    return text;
}

void KyFile::GenerateOpenError(std::string_view path, int flags, mode_t mode) {
    const int error = errno;
    char octal[16];
    std::snprintf(octal, sizeof octal, "%#o", static_cast<unsigned>(mode));
    const std::string arguments =
        "\"" + GeneratePrintableName(path) + "\", " + FlagsText(flags) + ", " + octal;
    lastError_.Set("open", Text(arguments), error);
}

KyStatus KyFile::ReadFile(std::string_view path, KyByteBuffer& buffer) {
    buffer = KyByteBuffer();
    KyFile file;
    if (file.Open(path, O_RDONLY) == Failure) {
        return Failure;
    }
    struct stat info {};
    if (::fstat(file.fd_, &info) != 0 || info.st_size < 0 || info.st_size > 0x7fffffff) {
        return Failure;
    }
    const auto size = static_cast<long>(info.st_size);
    if (size == 0) {
        return Success;
    }
    buffer.Extend(static_cast<std::uint32_t>(size));
    long count = 0;
    const KyIOResult result = file.Read(buffer.Data(), size, count);
    buffer.Truncate(static_cast<std::uint32_t>(count > 0 ? count : 0));
    return AsStatus(result == ioComplete && count == size);
}

KyStatus KyFile::WriteFile(std::string_view path, const KyByteBuffer& buffer) {
    KyFile file;
    if (file.Open(path, O_WRONLY | O_CREAT | O_TRUNC, 0600) == Failure) {
        return Failure;
    }
    const long length = buffer.Length();
    long count = 0;
    bool whole = length == 0;
    if (length > 0) {
        whole = file.Write(buffer.Data(), length, count) == ioComplete && count == length;
    }
    return AsStatus(file.Close() == Success && whole);
}

KyStatus KyFile::DoesPathExist(std::string_view path) {
    struct stat info {};
    return AsStatus(StatPath(path, info));
}

KyStatus KyFile::IsDirectory(std::string_view path) {
    struct stat info {};
    return AsStatus(StatPath(path, info) && S_ISDIR(info.st_mode));
}

long long KyFile::Length(std::string_view path) {
    struct stat info {};
    return StatPath(path, info) ? static_cast<long long>(info.st_size) : -1;
}

time_t KyFile::AccessTime(std::string_view path) {
    struct stat info {};
    return StatPath(path, info) ? info.st_atime : -1;
}

time_t KyFile::CreateTime(std::string_view path) {
    struct stat info {};
    return StatPath(path, info) ? info.st_ctime : -1;
}

time_t KyFile::ModTime(std::string_view path) {
    struct stat info {};
    return StatPath(path, info) ? info.st_mtime : -1;
}

std::string KyFile::GetCWD() {
    std::vector<char> buffer(256);
    while (::getcwd(buffer.data(), buffer.size()) == nullptr) {
        if (errno != ERANGE) {
            return {};
        }
        buffer.resize(buffer.size() * 2);
    }
    return buffer.data();
}

std::string KyFile::RationalisePath(std::string_view path) {
    const bool absolute = !path.empty() && path.front() == '/';
    std::vector<std::string_view> parts;
    while (!path.empty()) {
        const auto slash = path.find('/');
        const std::string_view part = path.substr(0, slash);
        path = slash == std::string_view::npos ? std::string_view() : path.substr(slash + 1);
        if (part.empty() || part == ".") {
            continue;
        }
        if (part == ".." && !parts.empty() && parts.back() != "..") {
            parts.pop_back();
        } else if (part != ".." || !absolute) {
            parts.push_back(part);
        }
    }
    std::string result = absolute ? "/" : "";
    for (std::size_t i = 0; i < parts.size(); ++i) {
        result += (i == 0 ? "" : "/") + std::string(parts[i]);
    }
    return result.empty() ? "." : result;
}

KyStatus KyFile::IsSubdir(std::string_view parent, std::string_view child) {
    const std::string base = RationalisePath(parent);
    const std::string inner = RationalisePath(child);
    if (inner == base) {
        return True;
    }
    const std::string prefix = base == "/" ? base : base + "/";
    return AsStatus(inner.compare(0, prefix.size(), prefix) == 0);
}
