// The UTF-8 codec: malformed input never stops decoding, surrogate pairs both ways, and
// the chunked path for long ASCII runs.
#include <gtest/gtest.h>
#include <string>

#include "lib/codeset/utf8.h"

namespace {

std::u16string Decode(std::string_view bytes) {
    std::u16string out(bytes.size(), u'\0');
    const auto* data = reinterpret_cast<const unsigned char*>(bytes.data());
    out.resize(KyUtf8::Decode({data, bytes.size()}, out.data()));
    return out;
}

std::string Encode(std::u16string_view units) {
    std::string out(KyUtf8::MaxEncodedLength(units.size()), '\0');
    out.resize(KyUtf8::Encode(units, reinterpret_cast<unsigned char*>(out.data())));
    return out;
}

bool Valid(std::string_view bytes) {
    return KyUtf8::IsValid({reinterpret_cast<const unsigned char*>(bytes.data()), bytes.size()});
}

struct Malformed {
    const char* bytes;
    std::u16string_view decoded;
};

class Utf8Malformed : public testing::TestWithParam<Malformed> {};

TEST_P(Utf8Malformed, EachBadSubsequenceBecomesOneReplacement) {
    EXPECT_EQ(Decode(GetParam().bytes), GetParam().decoded);
    EXPECT_FALSE(Valid(GetParam().bytes));
}

INSTANTIATE_TEST_SUITE_P(
    Cases, Utf8Malformed,
    testing::Values(Malformed{"a\x80z", u"a\uFFFDz"},                 // stray continuation
                    Malformed{"\xC0\xAF", u"\uFFFD\uFFFD"},           // overlong lead
                    Malformed{"\xE0\x80\x80", u"\uFFFD\uFFFD\uFFFD"}, // overlong 3-byte
                    Malformed{"\xED\xA0\x80", u"\uFFFD\uFFFD\uFFFD"}, // encoded surrogate
                    Malformed{"\xF4\x90\x80\x80", u"\uFFFD\uFFFD\uFFFD\uFFFD"}, // > U+10FFFF
                    Malformed{"\xE2\x82z", u"\uFFFDz"},         // cut short mid-text
                    Malformed{"ok\xF0\x9F\x98", u"ok\uFFFD"})); // cut short at the end

TEST(Utf8, SurrogatePairsAndLoneSurrogates) {
    EXPECT_EQ(Decode("\xF0\x90\x80\x80"), u"\xD800\xDC00");
    EXPECT_EQ(Decode("\xF4\x8F\xBF\xBF"), u"\xDBFF\xDFFF");
    EXPECT_EQ(Encode(u"\xD83D\xDE00"), "\xF0\x9F\x98\x80");
    EXPECT_EQ(Encode(u"a\xD83D"), "a\xEF\xBF\xBD");
    EXPECT_EQ(Encode(u"\xDE00z"), "\xEF\xBF\xBDz");
    EXPECT_EQ(Encode(u"\u007F\u0080\u07FF\u0800\uFFFF"),
              "\x7F\xC2\x80\xDF\xBF\xE0\xA0\x80\xEF\xBF\xBF");
    EXPECT_TRUE(Valid("\xF0\x9F\x98\x80 \xC3\xA9"));
}

// Long ASCII runs take a chunked path; a multi-byte form or a surrogate pair straddling a
// chunk edge, or a tail shorter than a chunk, must come out as the unit-by-unit codec's.
TEST(Utf8, LongTextsAroundChunkEdges) {
    for (std::size_t at = 0; at < 40; ++at) {
        for (std::u16string_view odd : {u"\u00E9", u"\u20AC", u"\xD83D\xDE00", u"\xDE00"}) {
            std::u16string text(at, u'x');
            text.append(odd).append(std::u16string(37, u'y'));
            const std::string bytes = Encode(text);
            EXPECT_EQ(KyUtf8::EncodedLength(text), bytes.size()) << at;
            std::string appended = "<";
            KyUtf8::AppendEncoded(text, appended);
            EXPECT_EQ(appended.substr(1), bytes) << at;
            std::u16string back = text;
            if (odd == u"\xDE00")
                back[at] = u'\uFFFD';
            EXPECT_EQ(Decode(bytes), back) << at;
        }
    }
    std::u16string big(10000, u'a');
    big[9999] = u'\u00E9';
    std::string out;
    KyUtf8::AppendEncoded(big, out);
    EXPECT_EQ(out.size(), 10001u);
    EXPECT_EQ(out.substr(9998), "a\xC3\xA9");
}

} // namespace
