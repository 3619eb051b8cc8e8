// Time values: normalising, carrying arithmetic, reading the clock and the RFC 1123 date form,
// which only exists where the local zone is UTC, however often the zone changes.
#include "lib/time.h"

#include <array>
#include <cstdint>
#include <cstdlib>
#include <ctime>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "lib/unistring.h"

namespace {

// Puts TZ back as it was at the end of a scope; Set changes it, or unsets it for nullptr.
class ZoneGuard {
public:
    explicit ZoneGuard(const char* zone) : had_(std::getenv("TZ") != nullptr) {
        old_ = had_ ? std::getenv("TZ") : "";
        Set(zone);
    }
    ~ZoneGuard() { Set(had_ ? old_.c_str() : nullptr); }
    static void Set(const char* zone) {
        zone != nullptr ? setenv("TZ", zone, 1) : unsetenv("TZ");
        tzset();
    }

private:
    bool had_;
    std::string old_;
};

TEST(TimeVal, NormalisesAndCarries) {
    const KyTimeVal t(5, 2500000);
    EXPECT_EQ(t.Seconds(), 7u);
    EXPECT_EQ(t.Microseconds(), 500000u);
    KyTimeVal sum(1, 600000);
    sum += KyTimeVal(2, 400000); // a carry of exactly one second
    EXPECT_EQ(sum, KyTimeVal(4, 0));
    sum -= KyTimeVal(1, 700000);
    EXPECT_EQ(sum, KyTimeVal(2, 300000));
    KyTimeVal fromTv;
    fromTv = timeval{3, 1999999};
    EXPECT_EQ(fromTv, KyTimeVal(4, 999999));
    EXPECT_GT(KyTimeVal().Seconds(), 1600000000u) << "default construction reads the clock";
}

// The date form checked against the C library's own UTC calendar, across leap years,
// century rules and the 32-bit end, in every spelling of UTC the fast path accepts.
std::string gmtimeText(std::uint32_t seconds) {
    const std::time_t clock = seconds;
    std::tm date{};
    gmtime_r(&clock, &date);
    char text[64];
    return std::string(text, std::strftime(text, sizeof text, "%a, %d %b %Y %H:%M:%S GMT", &date));
}

TEST(TimeVal, Rfc1123FollowsTheZoneAsItChanges) {
    const ZoneGuard restore(nullptr);
    std::vector<std::uint32_t> seconds = {0,          59,         951782399,  951782400, 4107542399,
                                          4107542400, 2147483647, 2147483648, 4294967295};
    for (std::uint64_t s = 12345; s <= 0xFFFFFFFFu; s += 86400ull * 97 + 3671)
        seconds.push_back(static_cast<std::uint32_t>(s));
    for (const char* zone : {"UTC", ":Etc/UTC", "GMT0"}) {
        ZoneGuard::Set(zone);
        for (std::uint32_t s : seconds) {
            std::array<char, KyTimeVal::RFC1123Capacity> text;
            ASSERT_EQ(KyTimeVal(s, 0).FormatRFC1123(text), gmtimeText(s)) << zone << " " << s;
            ASSERT_EQ(KyTimeVal(s, 999999).AsRFC1123().AsUtf8(), gmtimeText(s)) << zone << s;
        }
    }
    // Each switch must be noticed, also back to a zone seen before.
    const KyTimeVal winter(784111777, 0), summer(773000000, 0);
    for (int round = 0; round < 2; ++round) {
        ZoneGuard::Set("UTC");
        EXPECT_EQ(summer.AsRFC1123(), gmtimeText(773000000).c_str());
        ZoneGuard::Set("EST5EDT");
        EXPECT_EQ(winter.AsRFC1123(), "");
        EXPECT_EQ(summer.AsRFC1123(), "");
        // A zone with daylight saving gets its date from mktime, which finds UTC in winter.
        ZoneGuard::Set("GMT0BST,M3.5.0/1,M10.5.0");
        EXPECT_EQ(winter.AsRFC1123(), "Sun, 06 Nov 1994 08:49:37 GMT");
    }
}

} // namespace
