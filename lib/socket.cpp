// Socket creation, binding with its retry rule, accepting, addresses, datagrams and
// options. Error texts spell each call as it was made, so a log line shows it verbatim.
#include "lib/socket.h"

#include <netinet/in.h>
#include <netinet/ip.h>
#include <netinet/tcp.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "lib/logging.h"

namespace {

// sockaddr_in's size; the interfaces pass it for every internet address.
constexpr socklen_t kInetLength = 16;

std::string PointerText(const void* pointer) {
    char text[32];
    std::snprintf(text, sizeof text, "%p", pointer);
    return text;
}

KyUniString Text(const std::string& text) {
    return KyUniString(std::string_view(text));
}

} // namespace

KyStatus KySocket::MakeSocket(int family, connectionType type) {
    Close();
    const int sockType = type == Datagram ? SOCK_DGRAM : SOCK_STREAM;
    int protocol = 0;
    if (family == AF_INET)
        protocol = type == Datagram ? IPPROTO_UDP : IPPROTO_TCP;
    const int fd = ::socket(family, sockType, protocol);
    if (fd < 0) {
        lastError_.Set("socket", Text(std::to_string(sockType)), errno);
        return Failure;
    }
    Adopt(fd);
    return Success;
}

KyStatus KySocket::Connect(KySocketAddress address) {
    if (fd_ < 0 && !MakeSocket(address.Family(), Stream))
        return Failure;
    if (::connect(fd_, address.Get(), address.Length()) < 0) {
        const int error = errno;
        lastError_.Set("connect", Text(std::to_string(fd_)) + "," + address.AsString(), error);
        return Failure;
    }
    return Success;
}

KyStatus KySocket::Bind(KySocketAddress address, connectionType type, bool reuse, unsigned retries,
                        bool verbose) {
    if (!MakeSocket(address.Family(), type))
        return Failure;
    if (address.Family() == AF_UNIX) {
        const std::string path(address.Path());
        if (::unlink(path.c_str()) < 0 && errno != ENOENT) {
            lastError_.Set("unlink", Text(path), errno);
            return Failure;
        }
    }
    if (reuse && !SetReuseAddress(true))
        return Failure;
    return TryBind(address, retries, verbose);
}

KyStatus KySocket::TryBind(const KySocketAddress& address, unsigned retries, bool verbose) {
    int error = 0;
    bool retried = false;
    for (unsigned attempt = 0;; ++attempt) {
        if (::bind(fd_, address.Get(), address.Length()) == 0) {
            error = 0;
            break;
        }
        error = errno;
        // Only a first EADDRINUSE earns retries; once retrying, any error retries.
        const bool retryable = attempt > 0 || error == EADDRINUSE;
        if (!retryable || attempt >= retries)
            break;
        if (verbose) {
            if (attempt == 0)
                std::fprintf(stderr, "A socket is still in use, attempting %d retries...",
                             static_cast<int>(retries));
            else
                std::fputc('.', stderr);
            std::fflush(stderr);
        }
        KyLog::Flush(); // records logged so far reach the disk before the pause
        ::sleep(2);
        retried = true;
    }
    if (verbose && retried) {
        std::fputc('\n', stderr);
        std::fflush(stderr);
    }
    if (error == 0)
        return Success;
    lastError_.Set("bind", Text(std::to_string(fd_)) + "," + address.AsString(), error);
    return Failure;
}

KyStatus KySocket::Listen(unsigned backlog) {
    if (::listen(fd_, static_cast<int>(backlog)) < 0) {
        lastError_.Set("listen", Text(std::to_string(fd_) + "," + std::to_string(backlog)), errno);
        return Failure;
    }
    return Success;
}

KyStatus KySocket::AcceptFrom(int listeningFd, int flags, KyInetAddr* peer) {
    Close();
    socklen_t length = kInetLength;
    const int fd = peer != nullptr ? ::accept4(listeningFd, *peer, &length, flags)
                                   : ::accept4(listeningFd, nullptr, nullptr, flags);
    if (fd < 0) {
        const int error = errno;
        std::string arguments = std::to_string(listeningFd) + ",0,0";
        if (flags != 0)
            arguments += "," + std::to_string(flags);
        lastError_.Set(flags != 0 ? "accept4" : "accept", Text(arguments), error);
        return Failure;
    }
    Adopt(fd);
    return Success;
}

KyStatus KySocket::QueryAddress(bool peer, KyInetAddr& address) {
    socklen_t length = kInetLength;
    sockaddr* where = address;
    const int result =
        peer ? ::getpeername(fd_, where, &length) : ::getsockname(fd_, where, &length);
    if (result < 0) {
        const int error = errno;
        lastError_.Set(peer ? "getpeername" : "getsockname",
                       Text(std::to_string(fd_) + "," + PointerText(where) + "," +
                            std::to_string(kInetLength)),
                       error);
        return Failure;
    }
    return Success;
}

KyStatus KySocket::RemoteAddress(KyInetAddr& address) {
    return QueryAddress(true, address);
}

KyStatus KySocket::LocalAddress(KyInetAddr& address) {
    return QueryAddress(false, address);
}

KyIOResult KySocket::Write(const void* data, long length, long& count) {
    const ssize_t sent = ::send(fd_, data, static_cast<size_t>(length), MSG_NOSIGNAL);
    if (sent >= 0) {
        count = sent;
        if (sent == length)
            return length == 0 ? ioEndOfFile : ioComplete;
        // Nothing moved is not an end of file: the caller waits for writability and retries.
        return ioPartial;
    }
    const int error = errno;
    if (error == EAGAIN || error == EWOULDBLOCK) {
        count = 0;
        return ioPartial;
    }
    lastError_.Set("send",
                   Text(std::to_string(fd_) + "," + PointerText(data) + "," +
                        std::to_string(length) + ",MSG_NOSIGNAL"),
                   error);
    return ioError;
}

KyIOResult KySocket::WriteMessage(const void* data, long length, long& written,
                                  const KyInetAddr& to) {
    // No SIGPIPE from a datagram socket either; errors come back as errors.
    const ssize_t sent = ::sendto(fd_, data, static_cast<size_t>(length), MSG_NOSIGNAL,
                                  static_cast<const sockaddr*>(to), kInetLength);
    if (sent == length && length > 0)
        return ioComplete;
    if (sent == 0)
        return ioEndOfFile;
    if (sent > 0) {
        written = sent;
        return ioPartial;
    }
    const int error = errno;
    if (error == EAGAIN || error == EWOULDBLOCK) {
        written = 0;
        return ioPartial;
    }
    lastError_.Set(
        "sendto",
        Text(std::to_string(fd_) + "," + PointerText(data) + "," + std::to_string(length) + ",") +
            to.AsString(true) + Text("," + std::to_string(kInetLength)),
        error);
    return ioError;
}

KyIOResult KySocket::ReadMessage(void* buffer, long length, long& count, KyInetAddr& from) {
    socklen_t fromLength = kInetLength;
    sockaddr* where = from;
    const ssize_t got = ::recvfrom(fd_, buffer, static_cast<size_t>(length), 0, where, &fromLength);
    if (got == length && length > 0)
        return ioComplete;
    if (got == 0)
        return ioEndOfFile;
    if (got > 0) {
        count = got;
        return ioPartial;
    }
    const int error = errno;
    if (error == EAGAIN || error == EWOULDBLOCK) {
        count = 0;
        return ioPartial;
    }
    lastError_.Set("recvfrom",
                   Text(std::to_string(fd_) + "," + PointerText(buffer) + "," +
                        std::to_string(length) + "," + PointerText(where) + "," +
                        std::to_string(kInetLength)),
                   error);
    return ioError;
}

KyStatus KySocket::SetIntOption(int level, const char* levelName, int option,
                                const char* optionName, int value) {
    if (::setsockopt(fd_, level, option, &value, sizeof value) < 0) {
        const int error = errno;
        lastError_.Set("setsockopt",
                       Text(std::to_string(fd_) + "," + levelName + "(" + std::to_string(level) +
                            ")," + optionName + "(" + std::to_string(option) + "),(char*)(int " +
                            std::to_string(value) + ")," + std::to_string(sizeof value)),
                       error);
        return Failure;
    }
    return Success;
}

unsigned KySocket::GetIntOption(int level, const char* levelName, int option,
                                const char* optionName) {
    int value = 0;
    socklen_t length = sizeof value;
    if (::getsockopt(fd_, level, option, &value, &length) < 0) {
        const int error = errno;
        lastError_.Set("getsockopt",
                       Text(std::to_string(fd_) + "," + levelName + "(" + std::to_string(level) +
                            ")," + optionName + "(" + std::to_string(option) + "),(char*)(int*)," +
                            std::to_string(sizeof value)),
                       error);
        return 0;
    }
    return static_cast<unsigned>(value);
}

KyStatus KySocket::SetReuseAddress(bool on) {
    return SetIntOption(SOL_SOCKET, "SOL_SOCKET", SO_REUSEADDR, "SO_REUSEADDR", on ? 1 : 0);
}

KyStatus KySocket::SetBroadcast(bool on) {
    return SetIntOption(SOL_SOCKET, "SOL_SOCKET", SO_BROADCAST, "SO_BROADCAST", on ? 1 : 0);
}

KyStatus KySocket::SetOOBInLine(bool on) {
    return SetIntOption(SOL_SOCKET, "SOL_SOCKET", SO_OOBINLINE, "SO_OOBINLINE", on ? 1 : 0);
}

KyStatus KySocket::SetDelay(bool delay) {
    return SetIntOption(IPPROTO_TCP, "IPPROTO_TCP", TCP_NODELAY, "TCP_NODELAY", delay ? 0 : 1);
}

KyStatus KySocket::SetKeepAlive(bool on) {
    return SetIntOption(SOL_SOCKET, "SOL_SOCKET", SO_KEEPALIVE, "SO_KEEPALIVE", on ? 1 : 0);
}

KyStatus KySocket::SetLinger(bool on, int seconds) {
    const linger value{on ? 1 : 0, seconds};
    if (::setsockopt(fd_, SOL_SOCKET, SO_LINGER, &value, sizeof value) < 0) {
        const int error = errno;
        lastError_.Set("setsockopt",
                       Text(std::to_string(fd_) + ",SOL_SOCKET(" + std::to_string(SOL_SOCKET) +
                            "),SO_LINGER(" + std::to_string(SO_LINGER) + "),(char*)(linger " +
                            std::to_string(value.l_onoff) + " " + std::to_string(seconds) + ")," +
                            std::to_string(sizeof value)),
                       error);
        return Failure;
    }
    return Success;
}

KyStatus KySocket::SetReceiveBufferSize(unsigned size) {
    return SetIntOption(SOL_SOCKET, "SOL_SOCKET", SO_RCVBUF, "SO_RCVBUF", static_cast<int>(size));
}

unsigned KySocket::GetReceiveBufferSize() {
    return GetIntOption(SOL_SOCKET, "SOL_SOCKET", SO_RCVBUF, "SO_RCVBUF");
}

KyStatus KySocket::SetTransmitBufferSize(unsigned size) {
    return SetIntOption(SOL_SOCKET, "SOL_SOCKET", SO_SNDBUF, "SO_SNDBUF", static_cast<int>(size));
}

unsigned KySocket::GetTransmitBufferSize() {
    return GetIntOption(SOL_SOCKET, "SOL_SOCKET", SO_SNDBUF, "SO_SNDBUF");
}

KyStatus KySocket::SetTypeOfService(serviceType service) {
    if (std::getenv("VTL_SET_IP_TOS") == nullptr)
        return Success;
    int bits = 0;
    switch (service) {
    case ServiceThroughput:
        bits = 8;
        break;
    case ServiceReliability:
        bits = 4;
        break;
    case ServiceLowDelay:
        bits = 16;
        break;
    default:
        return Success;
    }
    return SetIntOption(IPPROTO_IP, "IPPROTO_IP", IP_TOS, "IP_TOS", bits);
}
