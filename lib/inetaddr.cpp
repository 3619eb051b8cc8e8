// KyInetAddr and KySocketAddress: address texts, ports and the sockaddr forms handed to
// the socket calls. Addresses are kept in network order exactly as the kernel wants them.
#include "lib/inetaddr.h"

#include <arpa/inet.h>

#include <cerrno>
#include <charconv>
#include <cstddef>
#include <cstring>
#include <string>

namespace {

constexpr unsigned kPortLimit = 65536;

sockaddr_in MakeInet(std::uint32_t networkAddress, std::uint16_t networkPort) {
    sockaddr_in result{};
    result.sin_family = AF_INET;
    result.sin_addr.s_addr = networkAddress;
    result.sin_port = networkPort;
    return result;
}

// Reads one decimal field of at most `limit` from the front of `text`.
bool TakeNumber(std::string_view& text, unsigned limit, unsigned& value) {
    if (text.empty() || text.front() < '0' || text.front() > '9')
        return false;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc() || value > limit)
        return false;
    text.remove_prefix(static_cast<std::size_t>(end - text.data()));
    return true;
}

bool TakeChar(std::string_view& text, char c) {
    if (text.empty() || text.front() != c)
        return false;
    text.remove_prefix(1);
    return true;
}

} // namespace

KyInetAddr::KyInetAddr() : address_(MakeInet(htonl(INADDR_ANY), 0)) {}

KyInetAddr::KyInetAddr(const KyInetAddr& other) : address_(other.address_) {}

KyInetAddr& KyInetAddr::operator=(const KyInetAddr& other) {
    address_ = other.address_;
    return *this;
}

KyInetAddr::KyInetAddr(const sockaddr_in* address)
    : address_(MakeInet(address->sin_addr.s_addr, address->sin_port)) {}

KyInetAddr::KyInetAddr(const in_addr* address) : address_(MakeInet(address->s_addr, 0)) {}

KyInetAddr::KyInetAddr(unsigned char b1, unsigned char b2, unsigned char b3, unsigned char b4)
    : KyInetAddr(std::uint32_t{b1} << 24 | std::uint32_t{b2} << 16 | std::uint32_t{b3} << 8 |
                 std::uint32_t{b4}) {}

KyInetAddr::KyInetAddr(std::uint32_t hostOrder) : address_(MakeInet(htonl(hostOrder), 0)) {}

KyInetAddr KyInetAddr::AddressAny() {
    return KyInetAddr(std::uint32_t{INADDR_ANY});
}

KyInetAddr KyInetAddr::AddressLoopback() {
    return KyInetAddr(std::uint32_t{INADDR_LOOPBACK});
}

bool KyInetAddr::IsAddressEqual(const KyInetAddr& other) const {
    return address_.sin_addr.s_addr == other.address_.sin_addr.s_addr;
}

bool KyInetAddr::operator==(const KyInetAddr& other) const {
    return IsAddressEqual(other) && address_.sin_port == other.address_.sin_port;
}

KyStatus KyInetAddr::Port(unsigned port) {
    if (port < kPortLimit) {
        address_.sin_port = htons(static_cast<std::uint16_t>(port));
        return Success;
    }
    address_.sin_port = 0;
    RecordError("Port", KyUniString("! (0 <= port " + std::to_string(port) + " < 65536)"), EINVAL);
    return Failure;
}

KyUniString KyInetAddr::AsString(bool withPort) const {
    std::string text;
    const std::uint32_t value = AsUint32();
    if (value == INADDR_ANY) {
        text = "*";
    } else {
        text = std::to_string(value >> 24) + '.' + std::to_string((value >> 16) & 0xFF) + '.' +
               std::to_string((value >> 8) & 0xFF) + '.' + std::to_string(value & 0xFF);
    }
    if (withPort)
        text += ':' + std::to_string(GetPort());
    return KyUniString(std::string_view(text));
}

KyStatus KyInetAddr::FromString(const KyUniString& text, bool allowPort) {
    const std::string narrow = text.AsUtf8();
    std::string_view rest = narrow;
    unsigned bytes[4] = {};
    for (int i = 0; i < 4; ++i) {
        if ((i > 0 && !TakeChar(rest, '.')) || !TakeNumber(rest, 255, bytes[i]))
            return Failure;
    }
    unsigned port = 0;
    if (allowPort && TakeChar(rest, ':') && !TakeNumber(rest, kPortLimit - 1, port))
        return Failure;
    if (!rest.empty())
        return Failure;
    *this = KyInetAddr(static_cast<unsigned char>(bytes[0]), static_cast<unsigned char>(bytes[1]),
                       static_cast<unsigned char>(bytes[2]), static_cast<unsigned char>(bytes[3]));
    address_.sin_port = htons(static_cast<std::uint16_t>(port));
    return Success;
}

void KyInetAddr::Write(KyByteBuffer& out) const {
    out.Append(sizeof address_.sin_addr.s_addr, &address_.sin_addr.s_addr);
    out.Append(sizeof address_.sin_port, &address_.sin_port);
}

KyStatus KyInetAddr::Read(const KyByteBuffer& in, std::uint32_t offset) {
    if (offset > in.Length() || in.Length() - offset < SerialSize)
        return Failure;
    const unsigned char* bytes = in.Data() + offset;
    std::memcpy(&address_.sin_addr.s_addr, bytes, sizeof address_.sin_addr.s_addr);
    std::memcpy(&address_.sin_port, bytes + sizeof address_.sin_addr.s_addr,
                sizeof address_.sin_port);
    address_.sin_family = AF_INET;
    return Success;
}

void KyInetAddr::RecordError(const KyUniString& function, const KyUniString& arguments, int error) {
    if (!error_)
        error_ = std::make_unique<KyUnixError>();
    error_->Set(function, arguments, error);
}

KySocketAddress::KySocketAddress(const KyInetAddr& address) {
    storage_.inet = address.SockAddrIn();
}

KySocketAddress::KySocketAddress(std::string_view path) {
    storage_.local.sun_family = AF_UNIX;
    const std::size_t length = std::min(path.size(), sizeof storage_.local.sun_path - 1);
    std::memcpy(storage_.local.sun_path, path.data(), length);
}

socklen_t KySocketAddress::Length() const {
    if (Family() != AF_UNIX)
        return sizeof(sockaddr_in);
    return static_cast<socklen_t>(Path().size() + 3);
}

std::string_view KySocketAddress::Path() const {
    if (Family() != AF_UNIX)
        return {};
    return {storage_.local.sun_path,
            strnlen(storage_.local.sun_path, sizeof storage_.local.sun_path)};
}

KyUniString KySocketAddress::AsString() const {
    if (Family() == AF_UNIX)
        return KyUniString(Path());
    return KyInetAddr(&storage_.inet).AsString(true);
}
