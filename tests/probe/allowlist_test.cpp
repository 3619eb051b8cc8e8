// Who may connect: CIDR entries with host bits, bad entries skipped (and a list with
// none usable falling back to everyone), and the once-a-minute refusal record with its
// bounded memory.
#include "probe/allowlist.h"
#include "probe/refusallog.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>

namespace {

std::uint32_t address(const char* text) {
    in_addr parsed{};
    inet_pton(AF_INET, text, &parsed);
    return ntohl(parsed.s_addr);
}

TEST(AllowList, MatchesNetworksAndSkipsBadEntries) {
    const AllowList list(" 10.0.0.0/8, 192.168.1.7/24,bad,1.2.3.4/33,1.2.3/8,5.6.7.8,9.9.9.9/x,"
                         "172.16.0.1/32",
                         "allow");
    EXPECT_EQ(list.size(), 3u);
    EXPECT_FALSE(list.allowsEveryone());
    for (const char* in : {"10.0.0.0", "10.255.255.255", "192.168.1.200", "172.16.0.1"})
        EXPECT_TRUE(list.permits(address(in))) << in;
    for (const char* out : {"11.0.0.0", "9.255.255.255", "192.168.2.7", "172.16.0.2", "1.2.3.4"})
        EXPECT_FALSE(list.permits(address(out))) << out;

    const AllowList everyone("0.0.0.0/0", "allow");
    EXPECT_TRUE(everyone.allowsEveryone());
    EXPECT_TRUE(everyone.permits(address("203.0.113.9")));
    const AllowList unusable("nonsense,,", "allow");
    EXPECT_TRUE(unusable.allowsEveryone());
}

TEST(RefusalLog, OncePerMinutePerAddressWithBoundedMemory) {
    RefusalLog log;
    const KyTimeVal start(1000000, 0);
    const KyInetAddr first(address("10.0.0.1")), second(address("10.0.0.2"));
    EXPECT_TRUE(log.note(first, 3579, start));
    EXPECT_FALSE(log.note(first, 3579, start + KyTimeVal(59, 0)));
    EXPECT_TRUE(log.note(second, 3579, start + KyTimeVal(1, 0)));
    EXPECT_TRUE(log.note(first, 3579, start + KyTimeVal(60, 0)));

    // A full table forgets only the addresses logged more than a minute ago.
    for (std::uint32_t i = 0; i < RefusalLog::PRUNE_AT - 2; ++i)
        log.note(KyInetAddr(address("11.0.0.0") + i), 3579, start);
    EXPECT_TRUE(log.note(second, 3579, start + KyTimeVal(61, 0)));
    EXPECT_FALSE(log.note(first, 3579, start + KyTimeVal(62, 0)));

    for (std::uint32_t i = 0; i < 3 * RefusalLog::PRUNE_AT; ++i)
        log.note(KyInetAddr(address("11.0.0.0") + i), 3579, start);
    EXPECT_LE(log.remembered(), RefusalLog::PRUNE_AT);
}

} // namespace
