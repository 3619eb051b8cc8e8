// IPv4 addresses for the socket layer: KyInetAddr is an address with port (network
// order inside, host order at the interface); KySocketAddress is what Bind takes, either
// an internet address or a local (AF_UNIX) path.
#pragma once

#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <cstdint>
#include <memory>
#include <string_view>

#include "lib/bytebuf.h"
#include "lib/error.h"
#include "lib/numbers.h"
#include "lib/unistring.h"

class KyInetAddr {
public:
    // Serialised form: four address bytes then two port bytes, network order.
    static constexpr std::uint32_t SerialSize = 6;

    KyInetAddr();
    KyInetAddr(const KyInetAddr& other);
    KyInetAddr& operator=(const KyInetAddr& other);
    explicit KyInetAddr(const sockaddr_in* address);
    explicit KyInetAddr(const in_addr* address);
    KyInetAddr(unsigned char b1, unsigned char b2, unsigned char b3, unsigned char b4);
    explicit KyInetAddr(std::uint32_t hostOrder);

    static KyInetAddr AddressAny();
    static KyInetAddr AddressLoopback();

    in_addr GetAddress() const { return address_.sin_addr; }
    unsigned GetPort() const { return ntohs(address_.sin_port); }
    std::uint32_t AsUint32() const { return ntohl(address_.sin_addr.s_addr); }
    bool IsAddressEqual(const KyInetAddr& other) const;
    bool operator==(const KyInetAddr& other) const;

    // 0..65535 sets the port; anything else sets 0, records the error and fails.
    KyStatus Port(unsigned port);
    // Dotted decimal, or "*" for the any-address; with the port appended after a colon.
    KyUniString AsString(bool withPort = false) const;
    // Dotted decimal, and with allowPort also "a.b.c.d:port". The whole text must match.
    KyStatus FromString(const KyUniString& text, bool allowPort = false);

    void Write(KyByteBuffer& out) const;
    KyStatus Read(const KyByteBuffer& in, std::uint32_t offset = 0);

    operator sockaddr*() { return reinterpret_cast<sockaddr*>(&address_); }
    operator const sockaddr*() const { return reinterpret_cast<const sockaddr*>(&address_); }
    operator in_addr*() { return &address_.sin_addr; }
    const sockaddr_in& SockAddrIn() const { return address_; }

    // Null until something has failed.
    const KyUnixError* LastError() const { return error_.get(); }

private:
    void RecordError(const KyUniString& function, const KyUniString& arguments, int error);

    sockaddr_in address_{};
    std::unique_ptr<KyUnixError> error_;
};

class KySocketAddress {
public:
    KySocketAddress(const KyInetAddr& address);
    // A local (AF_UNIX) address; a path too long for sun_path is cut.
    explicit KySocketAddress(std::string_view path);

    int Family() const { return storage_.any.sa_family; }
    // 16 for an internet address (and any other non-local family), path length + 3 for a
    // local one.
    socklen_t Length() const;
    const sockaddr* Get() const { return &storage_.any; }
    std::string_view Path() const;
    // The address as error texts show it.
    KyUniString AsString() const;

private:
    union Storage {
        sockaddr any;
        sockaddr_in inet;
        sockaddr_un local;
    } storage_{};
};
