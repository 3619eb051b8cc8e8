// hostgauge-ctl: the local admin socket through which the daemon's drain/maintenance state
// is read and set. One command line per connection, one answer line back.
#pragma once

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

namespace ctl {

// Where a packaged daemon puts its socket, then where a default configuration does.
inline std::vector<std::string> AdminSocketCandidates(const std::string& given) {
    if (!given.empty())
        return {given};
    return {"/run/hostgauge/hostgauge.sock", "/tmp/hostgauge.sock"};
}

// Connects to one socket; -1 with `error` set when nobody answers there.
inline int ConnectAdmin(const std::string& path, std::string& error) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof address.sun_path) {
        error = path + ": path too long";
        return -1;
    }
    std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
    const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd >= 0 && ::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0)
        return fd;
    error = path + ": " + std::strerror(errno);
    if (fd >= 0)
        ::close(fd);
    return -1;
}

// Reads to the end of file, waiting at most `timeoutMs` for each piece.
inline bool ReadToEnd(int fd, std::string& text, int timeoutMs, std::string& error) {
    char buffer[4096];
    pollfd ready{fd, POLLIN, 0};
    while (true) {
        const int polled = ::poll(&ready, 1, timeoutMs);
        if (polled <= 0) {
            error = polled == 0 ? "no answer in time" : std::strerror(errno);
            return false;
        }
        const ssize_t count = ::read(fd, buffer, sizeof buffer);
        if (count == 0)
            return true;
        if (count < 0) {
            error = std::strerror(errno);
            return false;
        }
        text.append(buffer, static_cast<std::size_t>(count));
    }
}

// Sends `command` to the first candidate socket that accepts a connection; the answer comes
// back without its line end.
inline bool AdminExchange(const std::vector<std::string>& candidates, std::string_view command,
                          std::string& answer, std::string& error, int timeoutMs = 10000) {
    std::string tried;
    for (const auto& path : candidates) {
        std::string problem;
        const int fd = ConnectAdmin(path, problem);
        if (fd < 0) {
            tried += (tried.empty() ? "" : "; ") + problem;
            continue;
        }
        const std::string line = std::string(command) + "\n";
        const bool sent =
            ::send(fd, line.data(), line.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(line.size());
        ::shutdown(fd, SHUT_WR);
        const bool read = sent && ReadToEnd(fd, answer, timeoutMs, problem);
        ::close(fd);
        if (!read) {
            error = "talking to the admin socket " + path + ": " +
                    (sent ? problem : std::string(std::strerror(errno)));
            return false;
        }
        while (!answer.empty() && (answer.back() == '\n' || answer.back() == '\r'))
            answer.pop_back();
        return true;
    }
    error = "cannot reach the hostgauge admin socket (is the daemon running? " + tried + ")";
    return false;
}

} // namespace ctl
