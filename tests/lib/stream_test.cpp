// KyOSStream, which every log message goes through: numbers, scalars, times and UTF-8
// appended, and texts handed out stay as they were while the stream goes on and grows.
#include "lib/stream.h"

#include <string>

#include <gtest/gtest.h>

namespace {

TEST(OSStream, BuildsTextFromStringsNumbersAndTimes) {
    KyOSStream text;
    text << "n=" << -42 << " u=" << 4294967295u << " s=" << KyScalar<int>(-7) << " "
         << KyScalar<unsigned>(0) << " " << KyUniString("d\xc3\xa9j\xc3\xa0") << " "
         << std::string_view("caf\xc3\xa9") << (const char*)nullptr;
    EXPECT_TRUE(text.Str() == "n=-42 u=4294967295 s=-7 0 d\xc3\xa9j\xc3\xa0 caf\xc3\xa9");

    KyOSStream when;
    when << KyTimeVal(1000000000, 47999);
    const std::string shown = when.Str().AsUtf8();
    ASSERT_EQ(shown.size(), 23u) << shown;
    EXPECT_EQ(shown.substr(19), ".047");
    EXPECT_EQ(KyTimeFormat().Format(KyTimeVal(1000000001, 0)).substr(17), "41.000");
}

TEST(OSStream, HandedOutTextNeverChanges) {
    KyOSStream stream;
    stream << "head";
    const KyUniString first = stream.Str();
    stream << " tail " << 42u;
    const KyUniString second = stream.Str();
    stream.Reserve(1000);
    stream << KyUniString(" more");
    EXPECT_TRUE(first == "head");
    EXPECT_TRUE(second == "head tail 42");
    EXPECT_TRUE(stream.Str() == "head tail 42 more");

    // Its own text appended to itself survives the growth that moves it.
    stream << stream.View();
    EXPECT_TRUE(stream.Str() == "head tail 42 morehead tail 42 more");

    stream.Clear();
    stream << "again";
    EXPECT_TRUE(stream.Str() == "again");
    EXPECT_TRUE(second == "head tail 42");
}

} // namespace
