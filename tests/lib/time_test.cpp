// Time values: normalising, carrying arithmetic, ordering and the RFC 1123 date form,
// which only exists where the local zone is UTC.
#include "lib/time.h"

#include <cstdlib>
#include <gtest/gtest.h>

#include "lib/unistring.h"

namespace {

class ZoneGuard {
public:
    explicit ZoneGuard(const char* zone) {
        const char* old = std::getenv("TZ");
        had_ = old != nullptr;
        if (had_)
            old_ = old;
        setenv("TZ", zone, 1);
        tzset();
    }
    ~ZoneGuard() {
        had_ ? setenv("TZ", old_.c_str(), 1) : unsetenv("TZ");
        tzset();
    }

private:
    bool had_ = false;
    std::string old_;
};

TEST(TimeVal, NormalisesAndCarries) {
    const KyTimeVal t(5, 2500000);
    EXPECT_EQ(t.Seconds(), 7u);
    EXPECT_EQ(t.Microseconds(), 500000u);

    KyTimeVal sum(1, 700000);
    sum += KyTimeVal(2, 400000);
    EXPECT_EQ(sum, KyTimeVal(4, 100000));
    sum += 10u;
    EXPECT_EQ(sum, KyTimeVal(14, 100000));

    KyTimeVal difference(4, 100000);
    difference -= KyTimeVal(1, 700000);
    EXPECT_EQ(difference, KyTimeVal(2, 400000));

    timeval tv{3, 1999999};
    KyTimeVal fromTv;
    fromTv = tv;
    EXPECT_EQ(fromTv, KyTimeVal(4, 999999));
    EXPECT_EQ(fromTv.Time().tv_usec, 999999);
}

TEST(TimeVal, OrdersBySecondsThenMicroseconds) {
    EXPECT_TRUE(KyTimeVal(1, 999999) < KyTimeVal(2, 0));
    EXPECT_TRUE(KyTimeVal(2, 1) > KyTimeVal(2, 0));
    EXPECT_TRUE(KyTimeVal(2, 5) <= KyTimeVal(2, 5));
    EXPECT_FALSE(KyTimeVal(3, 0) <= KyTimeVal(2, 999999));

    const KyTimeVal before;
    const KyTimeVal after;
    EXPECT_LE(before, after);
    EXPECT_GT(before.Seconds(), 1600000000u) << "default construction reads the clock";
}

TEST(TimeVal, Rfc1123DateOnlyInUtc) {
    {
        ZoneGuard utc("UTC");
        EXPECT_EQ(KyTimeVal(784111777, 0).AsRFC1123(), "Sun, 06 Nov 1994 08:49:37 GMT");
        EXPECT_EQ(KyTimeVal(0, 0).AsRFC1123(), "Thu, 01 Jan 1970 00:00:00 GMT");
        std::tm date{};
        EXPECT_EQ(KyTimeVal(86400 * 365 + 59, 0).FillInTMStruct(date), Success);
        EXPECT_EQ(date.tm_year, 71);
        EXPECT_EQ(date.tm_sec, 59);
    }
    ZoneGuard elsewhere("EST5EDT");
    std::tm date{};
    EXPECT_EQ(KyTimeVal(784111777, 0).FillInTMStruct(date), Failure);
    EXPECT_EQ(KyTimeVal(784111777, 0).AsRFC1123(), "");
}

} // namespace
