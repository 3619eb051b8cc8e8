// Addresses, sockets and name look-up against the real kernel: TCP and UDP on 127.0.0.1
// with ports chosen by the system, error texts as they are recorded, and look-ups limited to
// localhost, dotted decimal and the reserved .invalid domain.
#include <gtest/gtest.h>

#include <netdb.h>

#include <cerrno>
#include <chrono>
#include <string>

#include "lib/dns.h"
#include "lib/inetaddr.h"
#include "lib/socket.h"

namespace {

KyInetAddr Loopback(unsigned port = 0) {
    KyInetAddr address = KyInetAddr::AddressLoopback();
    address.Port(port);
    return address;
}

// A socket bound to 127.0.0.1 on a port the kernel picks; `port` reads it back.
unsigned BindLoopback(KySocket& socket, KySocket::connectionType type) {
    EXPECT_TRUE(socket.Bind(Loopback(), type, false, 0, false));
    KyInetAddr local;
    EXPECT_TRUE(socket.LocalAddress(local));
    return local.GetPort();
}

// A bare root file system may have an /etc/hosts without localhost; ask the C library
// directly, so a fault in KyDNS still fails wherever the name exists.
bool LocalhostResolves() {
    addrinfo hints{};
    hints.ai_family = AF_INET;
    addrinfo* found = nullptr;
    const int result = ::getaddrinfo("localhost", nullptr, &hints, &found);
    if (found != nullptr)
        ::freeaddrinfo(found);
    return result == 0;
}

const char* const kNoLocalhost = "\"localhost\" does not resolve on this machine (no entry in "
                                 "/etc/hosts); the look-up of a local name cannot be tested here";

TEST(KyInetAddr, FromStringAcceptsOnlyWholeDottedForms) {
    struct Case {
        const char* text;
        bool allowPort;
        bool ok;
        const char* shown;
    };
    const Case cases[] = {
        {"192.168.0.1", false, true, "192.168.0.1:0"},
        {"192.168.0.1:8080", true, true, "192.168.0.1:8080"},
        {"192.168.0.1:8080", false, false, nullptr},
        {"192.168.0.1:70000", true, false, nullptr},
        {"256.1.1.1", false, false, nullptr},
        {"1.2.3.4x", false, false, nullptr},
        {"1.2.3.4.5", false, false, nullptr},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.text);
        KyInetAddr address(9, 9, 9, 9);
        EXPECT_EQ(address.FromString(c.text, c.allowPort) == Success, c.ok);
        if (c.ok)
            EXPECT_EQ(address.AsString(true).AsUtf8(), c.shown);
        else
            EXPECT_EQ(address.AsString().AsUtf8(), "9.9.9.9");
    }
    // A port out of range is refused and leaves port 0 with the reason recorded.
    KyInetAddr address;
    EXPECT_TRUE(address.Port(65535));
    EXPECT_FALSE(address.Port(70000));
    EXPECT_EQ(address.GetPort(), 0u);
    EXPECT_NE(address.LastError(), nullptr);
}

// The daemon binds without retries: a taken port fails at once, silently, with the call
// spelt out.
TEST(KySocket, BindWithoutRetriesFailsAtOnceAndSilently) {
    KySocket holder, second;
    const unsigned port = BindLoopback(holder, KySocket::Stream);
    testing::internal::CaptureStderr();
    const auto start = std::chrono::steady_clock::now();
    EXPECT_FALSE(second.Bind(Loopback(port), KySocket::Stream, true, 0, true));
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(1));
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    EXPECT_EQ(second.ErrorErrno(), EADDRINUSE);
    EXPECT_EQ(
        second.LastError().Arguments(),
        (std::to_string(second.FileDescriptor()) + ",127.0.0.1:" + std::to_string(port)).c_str());
}

// A datagram goes out whole and is read back; a socket never opened fails with the call named.
TEST(KySocket, DatagramsReportTheirIOResults) {
    KySocket receiver, sender;
    const unsigned port = BindLoopback(receiver, KySocket::Datagram);
    BindLoopback(sender, KySocket::Datagram);
    long count = 0;
    EXPECT_EQ(sender.WriteMessage("load", 4, count, Loopback(port)), ioComplete);
    char got[16];
    KyInetAddr from;
    EXPECT_EQ(receiver.ReadMessage(got, sizeof got, count, from), ioPartial);
    EXPECT_EQ(std::string(got, count), "load");

    KySocket closed;
    EXPECT_EQ(closed.WriteMessage("x", 1, count, Loopback(9)), ioError);
    EXPECT_EQ(closed.LastError().Function(), "sendto");
}

TEST(KyDNS, DottedDecimalAndLocalNamesResolveWithoutTheNetwork) {
    KyDList<KyInetAddr> list;
    list.Insert(KyInetAddr(1, 1, 1, 1)); // replaced by the answer
    EXPECT_EQ(KyDNS::GetAddressList("10.1.2.3", list), KyDNS::Ok);
    ASSERT_EQ(list.Length(), 1u);
    EXPECT_EQ(list[0].AsString(), "10.1.2.3");

    const int missing = KyDNS::GetAddressList("no-such-host.invalid", list);
    EXPECT_TRUE(missing == KyDNS::HostNotFound || missing == KyDNS::TryAgain) << missing;
    EXPECT_EQ(list.Length(), 1u) << "a failed look-up leaves the list alone";

    if (!LocalhostResolves())
        GTEST_SKIP() << kNoLocalhost;
    ASSERT_EQ(KyDNS::GetAddressList("localhost", list), KyDNS::Ok);
    bool loopback = false;
    for (const KyInetAddr& a : list)
        loopback = loopback || a.IsAddressEqual(KyInetAddr::AddressLoopback());
    EXPECT_TRUE(loopback);
}

} // namespace
