// KySocket: one socket descriptor on top of KyFile, for the control listener and its
// connections (stream) and the load-packet sender (datagram). Every failing call is
// recorded with its arguments as text in the file's last error.
#pragma once

#include <sys/socket.h>

#include "lib/file.h"
#include "lib/inetaddr.h"
#include "lib/numbers.h"

class KySocket : public KyFile {
public:
    // 0 datagram, anything else stream.
    enum connectionType { Datagram = 0, Stream = 1 };
    // Mapped to IP type-of-service bits by SetTypeOfService; other values mean none.
    enum serviceType {
        ServiceNone = 0,
        ServiceLowDelay = 1,
        ServiceReliability = 2,
        ServiceThroughput = 3
    };

    KySocket() = default;
    // Takes over an existing socket descriptor and closes it on destruction.
    explicit KySocket(int fd) { Adopt(fd); }

    virtual KyStatus Connect(KySocketAddress address);

    // Creates the socket and binds it; retries (2 s apart) only follow an EADDRINUSE.
    KyStatus Bind(KySocketAddress address, connectionType type, bool reuse, unsigned retries,
                  bool verbose);
    KyStatus Listen(unsigned backlog);
    // Replaces this socket's descriptor with the next connection on listeningFd; flags are
    // accept4's (SOCK_NONBLOCK, SOCK_CLOEXEC), so a busy listener saves the fcntl calls.
    // With `peer`, the connection's remote address comes with the accept, which saves the
    // getpeername a caller would otherwise make for every connection.
    KyStatus AcceptFrom(int listeningFd, int flags = 0, KyInetAddr* peer = nullptr);
    KyStatus RemoteAddress(KyInetAddr& address);
    KyStatus LocalAddress(KyInetAddr& address);

    // send() with MSG_NOSIGNAL: a peer that has reset the connection is an ordinary write
    // error (EPIPE, ECONNRESET) for this socket, never a SIGPIPE that stops the process.
    KyIOResult Write(const void* data, long length, long& count) override;
    KyIOResult WriteMessage(const void* data, long length, long& written, const KyInetAddr& to);
    KyIOResult ReadMessage(void* buffer, long length, long& count, KyInetAddr& from);

    KyStatus SetReuseAddress(bool on);
    KyStatus SetBroadcast(bool on);
    KyStatus SetOOBInLine(bool on);
    // Delay false turns Nagle's algorithm off (TCP_NODELAY).
    KyStatus SetDelay(bool delay);
    KyStatus SetLinger(bool on, int seconds);
    KyStatus SetKeepAlive(bool on);
    KyStatus SetReceiveBufferSize(unsigned size);
    unsigned GetReceiveBufferSize();
    KyStatus SetTransmitBufferSize(unsigned size);
    unsigned GetTransmitBufferSize();
    // Acts only when VTL_SET_IP_TOS is set in the environment.
    KyStatus SetTypeOfService(serviceType service);

    // False leaves the descriptor open when the socket object goes (it is handed on).
    void SetCloseOnDestruct(bool close) { owns_ = close; }

private:
    KyStatus MakeSocket(int family, connectionType type);
    KyStatus TryBind(const KySocketAddress& address, unsigned retries, bool verbose);
    KyStatus SetIntOption(int level, const char* levelName, int option, const char* optionName,
                          int value);
    unsigned GetIntOption(int level, const char* levelName, int option, const char* optionName);
    KyStatus QueryAddress(bool peer, KyInetAddr& address);
};
