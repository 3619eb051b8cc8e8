// Addresses, sockets and name look-up against the real kernel: TCP and UDP on 127.0.0.1
// with ports chosen by the system, error texts as they are recorded, the bind retry rule,
// and look-ups limited to localhost, dotted decimal and the reserved .invalid domain.
#include <gtest/gtest.h>

#include <netdb.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <memory>
#include <string>
#include <thread>

#include "lib/dns.h"
#include "lib/dnscache.h"
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

TEST(KyInetAddr, TextFormsAndTheirSerialisedForm) {
    KyInetAddr any;
    any.Port(3144);
    EXPECT_EQ(any.AsString(true).AsUtf8(), "*:3144");
    EXPECT_EQ(any.AsString(false).AsUtf8(), "*");
    EXPECT_EQ(KyInetAddr(10, 1, 2, 3).AsString().AsUtf8(), "10.1.2.3");
    sockaddr_in full = Loopback(80).SockAddrIn();
    EXPECT_EQ(KyInetAddr(&full).AsString(true).AsUtf8(), "127.0.0.1:80");
    EXPECT_TRUE(KyInetAddr(&full).IsAddressEqual(Loopback(81)));
    EXPECT_FALSE(KyInetAddr(&full) == Loopback(81));

    KyByteBuffer serial;
    Loopback(4711).Write(serial);
    KyInetAddr back;
    ASSERT_TRUE(back.Read(serial));
    EXPECT_TRUE(back == Loopback(4711));
    EXPECT_FALSE(back.Read(serial, 1));
}

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

TEST(KySocket, StreamConnectAcceptAndAddresses) {
    KySocket listener;
    const unsigned port = BindLoopback(listener, KySocket::Stream);
    ASSERT_NE(port, 0u);
    ASSERT_TRUE(listener.Listen(5));

    // The peer's address comes with the accept, and both sides agree on it.
    KySocket client;
    ASSERT_TRUE(client.Connect(Loopback(port)));
    KySocket server;
    KyInetAddr fromAccept, clientSide, peerOfServer, serverSide;
    ASSERT_TRUE(server.AcceptFrom(listener.FileDescriptor(), 0, &fromAccept));
    ASSERT_TRUE(client.LocalAddress(clientSide));
    ASSERT_TRUE(server.RemoteAddress(peerOfServer));
    ASSERT_TRUE(server.LocalAddress(serverSide));
    EXPECT_TRUE(fromAccept == clientSide);
    EXPECT_TRUE(peerOfServer == clientSide);
    EXPECT_TRUE(serverSide == Loopback(port));

    // No connection pending on a non-blocking listener.
    ASSERT_TRUE(listener.SetBlocking(false));
    KySocket none;
    EXPECT_FALSE(none.AcceptFrom(listener.FileDescriptor()));
    EXPECT_EQ(none.ErrorErrno(), EAGAIN);
    EXPECT_FALSE(none.RemoteAddress(peerOfServer));
    EXPECT_EQ(none.LastError().Function(), "getpeername");
}

// Without retries a taken port fails at once and silently; with retries the bind waits
// until the holder lets go, saying so on standard error.
TEST(KySocket, BindRetriesOnlyWhenAskedAfterAddressInUse) {
    auto holder = std::make_unique<KySocket>();
    const unsigned port = BindLoopback(*holder, KySocket::Stream);
    KySocket second;
    testing::internal::CaptureStderr();
    const auto start = std::chrono::steady_clock::now();
    EXPECT_FALSE(second.Bind(Loopback(port), KySocket::Stream, true, 0, true));
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(1));
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    EXPECT_EQ(second.ErrorErrno(), EADDRINUSE);
    EXPECT_EQ(
        second.LastError().Arguments(),
        (std::to_string(second.FileDescriptor()) + ",127.0.0.1:" + std::to_string(port)).c_str());

    std::thread release([&holder] {
        std::this_thread::sleep_for(std::chrono::milliseconds(300));
        holder.reset();
    });
    KySocket third;
    testing::internal::CaptureStderr();
    const bool bound = third.Bind(Loopback(port), KySocket::Stream, false, 3, true);
    const std::string notice = testing::internal::GetCapturedStderr();
    release.join();
    EXPECT_TRUE(bound);
    EXPECT_EQ(notice, "A socket is still in use, attempting 3 retries...\n");
}

TEST(KySocket, DatagramsReportTheirIOResults) {
    KySocket receiver;
    const unsigned port = BindLoopback(receiver, KySocket::Datagram);
    KySocket sender;
    BindLoopback(sender, KySocket::Datagram);

    long count = 0;
    EXPECT_EQ(sender.WriteMessage("load", 4, count, Loopback(port)), ioComplete);
    char got[16];
    KyInetAddr from, senderSide;
    EXPECT_EQ(receiver.ReadMessage(got, sizeof got, count, from), ioPartial);
    EXPECT_EQ(std::string(got, count), "load");
    sender.LocalAddress(senderSide);
    EXPECT_TRUE(from == senderSide);
    EXPECT_EQ(sender.WriteMessage("", 0, count, Loopback(port)), ioEndOfFile);

    KySocket closed;
    EXPECT_EQ(closed.WriteMessage("x", 1, count, Loopback(9)), ioError);
    EXPECT_EQ(closed.LastError().Function(), "sendto");
}

TEST(KySocket, OptionFailuresSpellTheCallAndTypeOfServiceIsSetOnlyOnRequest) {
    KySocket none;
    EXPECT_FALSE(none.SetReuseAddress(true));
    EXPECT_EQ(none.LastError().Arguments(), "-1,SOL_SOCKET(1),SO_REUSEADDR(2),(char*)(int 1),4");
    unsetenv("VTL_SET_IP_TOS");
    EXPECT_TRUE(none.SetTypeOfService(KySocket::ServiceThroughput));
    setenv("VTL_SET_IP_TOS", "", 1);
    EXPECT_FALSE(none.SetTypeOfService(KySocket::ServiceThroughput));
    unsetenv("VTL_SET_IP_TOS");
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

TEST(KyDNSCache, StoresNegativeEntriesAndExpiresEvery200thLookup) {
    KyDNSCache cache(0);
    KyDNS::SetCache(&cache);
    // Uninstalled on every way out, a skip or a failed assertion included.
    const std::unique_ptr<KyDNSCache, void (*)(KyDNSCache*)> installed(
        &cache, [](KyDNSCache*) { KyDNS::SetCache(nullptr); });
    KyDList<KyInetAddr> list;
    // The second look-up is answered from the negative entry with the same code; absolute
    // names are asked for, and cached, with their trailing dot; dotted decimal bypasses it.
    const int missing = KyDNS::GetAddressList("cache-test.invalid", list);
    EXPECT_EQ(KyDNS::GetAddressList("cache-test.invalid", list), missing);
    KyDNS::GetAddressList("absolute.invalid", list, true);
    EXPECT_NE(cache.FindByName("absolute.invalid."), nullptr);
    EXPECT_EQ(KyDNS::GetAddressList("10.0.0.1", list), KyDNS::Ok);
    EXPECT_EQ(cache.Lookups(), 3u);

    // Both negative entries stay until the 200th look-up empties the cache before it asks.
    while (cache.Lookups() < 199)
        KyDNS::GetAddressList("cache-test.invalid", list);
    EXPECT_EQ(cache.NameCount(), 2u);
    KyDNS::GetAddressList("cache-test.invalid", list);
    EXPECT_EQ(cache.NameCount(), 1u);

    // A name that resolves is also found by each of its addresses.
    if (!LocalhostResolves())
        GTEST_SKIP() << kNoLocalhost;
    ASSERT_EQ(KyDNS::GetAddressList("localhost", list), KyDNS::Ok);
    EXPECT_NE(cache.FindByAddress(list[0]), nullptr);
}

} // namespace
