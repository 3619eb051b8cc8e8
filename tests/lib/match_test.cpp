// Wildcard matching as the log filters use it, and the text building of KyOSStream
// that every log message goes through.
#include <gtest/gtest.h>

#include "lib/match.h"
#include "lib/stream.h"

namespace {

TEST(WildcardMatch, StarsQuestionMarksAndCase) {
    struct Case {
        const char* pattern;
        const char* text;
        bool caseless;
        bool matches;
    };
    const Case cases[] = {
        {"*", "", false, true},
        {"", "a", false, false},
        {"*error", "fatalerror", false, true},
        {"*error", "errors", false, false},
        {"?nfo", "info", false, true},
        {"?nfo", "nfo", false, false},
        {"a*b*c", "axxbyy", false, false},
        {"*a*a*a*b", "aaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaa", false, false},
        {".../*", ".../x/sink", false, true},
        {".../*", "../x", false, false},
        {"*.jsl", "A.JSL", false, false},
        {"HOSTGAUGE", "hostgauge", true, true},
        {"hostgauge", "hostgaug", true, false},
    };
    for (Case const& c : cases) {
        EXPECT_EQ(KyWildcardMatch(KyUniString(c.pattern), KyUniString(c.text), c.caseless),
                  c.matches)
            << c.pattern << " vs " << c.text;
    }
}

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
    EXPECT_EQ(shown[4], '/');
    EXPECT_EQ(shown[10], ' ');

    KyTimeFormat format;
    EXPECT_EQ(format.Format(KyTimeVal(1000000000, 5000)).substr(0, 19), shown.substr(0, 19));
    EXPECT_EQ(format.Format(KyTimeVal(1000000001, 0)).substr(17), "41.000");
}

} // namespace
