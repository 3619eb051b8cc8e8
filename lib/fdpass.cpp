// Descriptor passing for KyFile over a Unix-domain stream socket: the descriptor travels
// as SCM_RIGHTS ancillary data on one marker byte. Ordinary data where a descriptor was
// expected is left unread and reported as EBADMSG, so the caller can read it as data.
#include <cerrno>
#include <cstring>
#include <string>
#include <sys/socket.h>
#include <unistd.h>

#include "lib/file.h"

namespace {

constexpr char kMarker = 'F';

struct Message {
    msghdr header{};
    iovec vector{};
    char byte = kMarker;
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))] = {};

    Message() {
        vector.iov_base = &byte;
        vector.iov_len = 1;
        header.msg_iov = &vector;
        header.msg_iovlen = 1;
        header.msg_control = control;
        header.msg_controllen = sizeof control;
    }

    // The passed descriptor, or -1 when the message carried none.
    int Descriptor() {
        for (cmsghdr* c = CMSG_FIRSTHDR(&header); c != nullptr; c = CMSG_NXTHDR(&header, c)) {
            if (c->cmsg_level == SOL_SOCKET && c->cmsg_type == SCM_RIGHTS) {
                int fd = -1;
                std::memcpy(&fd, CMSG_DATA(c), sizeof fd);
                return fd;
            }
        }
        return -1;
    }
};

} // namespace

KyIOResult KyFile::SendFD(int fd) {
    Message message;
    cmsghdr* c = CMSG_FIRSTHDR(&message.header);
    c->cmsg_level = SOL_SOCKET;
    c->cmsg_type = SCM_RIGHTS;
    c->cmsg_len = CMSG_LEN(sizeof fd);
    std::memcpy(CMSG_DATA(c), &fd, sizeof fd);
    const ssize_t sent = ::sendmsg(fd_, &message.header, MSG_NOSIGNAL);
    if (sent == 1) {
        return ioComplete;
    }
    const int error = sent < 0 ? errno : EAGAIN;
    if (error == EAGAIN || error == EWOULDBLOCK) {
        return ioPartial;
    }
    Record("sendmsg", ",SCM_RIGHTS," + std::to_string(fd), error);
    return ioError;
}

KyIOResult KyFile::RecvFD(RecvFDInfo& info) {
    // Peek first: a plain data byte must stay in the stream for the data reader.
    Message peek;
    const ssize_t peeked = ::recvmsg(fd_, &peek.header, MSG_PEEK);
    if (peeked == 0) {
        return ioEndOfFile;
    }
    if (peeked < 0) {
        const int error = errno;
        if (error == EAGAIN || error == EWOULDBLOCK) {
            return ioPartial;
        }
        Record("recvmsg", ",MSG_PEEK", error);
        return ioError;
    }
    const int duplicate = peek.Descriptor();
    if (duplicate < 0) {
        Record("recvmsg", ",SCM_RIGHTS", EBADMSG);
        return ioError;
    }
    ::close(duplicate);

    Message message;
    if (::recvmsg(fd_, &message.header, 0) != 1 || (info.fd = message.Descriptor()) < 0) {
        Record("recvmsg", ",SCM_RIGHTS", errno);
        return ioError;
    }
    ucred credentials{};
    socklen_t size = sizeof credentials;
    if (::getsockopt(fd_, SOL_SOCKET, SO_PEERCRED, &credentials, &size) == 0) {
        info.uid = credentials.uid;
        info.gid = credentials.gid;
    }
    return ioComplete;
}
