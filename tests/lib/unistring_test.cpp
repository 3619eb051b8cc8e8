// Strings: UTF-8 boundary, value semantics, editing, searching, case, numbers, the
// byte-encoding bridge, and the string helpers (Split and the scratch builder).
#include "lib/unistring.h"

#include <gtest/gtest.h>
#include <vector>

#include "lib/dlist.h"
#include "lib/stringutil.h"

namespace {

using U = KyUniString;

TEST(UniString, NarrowTextIsUtf8) {
    EXPECT_EQ(U(static_cast<const char*>(nullptr)).Length(), 0u);
    const U text("h\xC3\xA9llo \xE2\x82\xAC \xF0\x9F\x98\x80"); // é, €, U+1F600
    EXPECT_EQ(text.View(), u"h\u00E9llo \u20AC \U0001F600");
    EXPECT_EQ(text.AsUtf8(), "h\xC3\xA9llo \xE2\x82\xAC \xF0\x9F\x98\x80");
    EXPECT_EQ(U(std::string_view("a\0b", 3)).Length(), 3u);
}

TEST(UniString, CopiesAreIndependentValues) {
    U a("abc");
    U b = a;
    b.Set(0, u'X');
    b += "yz";
    EXPECT_EQ(a, "abc");
    EXPECT_EQ(a + U("!") + b, "abc!Xbcyz");

    // SubString builds in one shared place; earlier results must not change.
    const U first = b.SubString(1, 2);
    const U second = b.SubString(3);
    EXPECT_EQ(first, "bc");
    EXPECT_EQ(second, "yz");
    EXPECT_EQ(b.SubString(4, 100), "z");
    EXPECT_EQ(b.Set(5, u'q'), Failure);
    EXPECT_EQ(b.CharAt(5), 0);
}

// Edits clip at the end of the string; searches answer NotFound past it.
TEST(UniString, EditingAndSearching) {
    U s("hello");
    s.Insert(50, U("!"));
    s.Remove(1, 2);
    EXPECT_EQ(s, "hlo!");
    EXPECT_EQ(s.Remove(7, 1), Failure);

    const U t("abcabc");
    EXPECT_EQ(t.Search(u'z'), U::NotFound);
    EXPECT_EQ(t.SearchFrom(10, u'a'), U::NotFound);
    EXPECT_EQ(t.SearchFrom(1, U("abc")), 3);
    EXPECT_EQ(t.SearchReverseFrom(2, u'a'), 0);
    EXPECT_EQ(t.SearchReverseFrom(3, U("bc")), 1);
    EXPECT_EQ(t.SearchFirstNotIn(U("ab")), 2);
}

TEST(UniString, LetterCase) {
    U s("AzXed \xC3\x89t\xC3\xA9 Za");
    EXPECT_EQ(U(s).UpperCase(), "AZXED \xC3\x89T\xC3\x89 ZA");
    EXPECT_EQ(s.LowerCase(), "azxed \xC3\xA9t\xC3\xA9 za");
    EXPECT_TRUE(U("Content-Length").MatchCaseless(U("content-LENGTH")));
}

// How configuration values become numbers: leading digits, wrapping like strtoul.
TEST(UniString, NumbersTakeTheLeadingDigitsAndWrap) {
    EXPECT_EQ(U("12ab").AsUint32(), 12u);
    EXPECT_EQ(U("-1").AsUint32(), 4294967295u);
    EXPECT_EQ(U("text").AsUint32(), 0u);
    EXPECT_EQ(U("4294967297").AsUint32(), 1u);
    EXPECT_EQ(U::CreateFromUnsigned(18446744073709551615ull), "18446744073709551615");
}

TEST(UniString, ByteEncodings) {
    const std::string_view raw = "gr\xC3\xBC\xC3\x9F";
    U text;
    ASSERT_EQ(text.CreateFrom(KyByteBuffer(raw), KyEncodingUtf8), Success);
    EXPECT_EQ(text.View(), u"gr\u00FC\u00DF");
    EXPECT_EQ(text.AsEncoding(KyEncodingUtf8).AsStringView(), raw);
    EXPECT_EQ(text.AsEncoding(KyEncodingUsAscii).AsStringView(), "gr??");
    EXPECT_EQ(text.CreateFrom(KyByteBuffer(raw), 7), Failure);
    EXPECT_EQ(text.View(), u"gr\u00FC\u00DF") << "unknown encoding leaves the string";
}

std::vector<std::u16string> Pieces(const char* text, char16_t separator = u',') {
    KyDList<KyUniString> list;
    Split(KyUniString(text), list, separator);
    std::vector<std::u16string> out;
    for (const KyUniString& piece : list)
        out.emplace_back(piece.View());
    return out;
}

TEST(StringUtil, SplitKeepsEmptyPiecesAndAppends) {
    using V = std::vector<std::u16string>;
    EXPECT_EQ(Pieces(""), V{});
    EXPECT_EQ(Pieces(","), (V{u"", u""}));
    EXPECT_EQ(Pieces("a,,b"), (V{u"a", u"", u"b"}));
    EXPECT_EQ(Pieces("a,"), (V{u"a", u""}));
    EXPECT_EQ(Pieces("x/y", u'/'), (V{u"x", u"y"}));

    KyDList<KyUniString> list;
    list.Insert(KyUniString("kept"));
    Split(KyUniString("p,q"), list, u',');
    EXPECT_EQ(list.Length(), 3u) << "Split appends to what the list holds";
}

TEST(StringUtil, ScratchBuilderGrowth) {
    KySimpleString builder;
    builder.PredictSize(100); // 100 + 25 + 16 = 141, rounded down to 128
    EXPECT_EQ(builder.Capacity(), 128u);
    for (int i = 0; i < 129; ++i)
        builder.Append(u'x');
    EXPECT_EQ(builder.Capacity(), 176u); // 128 + 32 + 16
    EXPECT_EQ(builder.View(), std::u16string(129, u'x'));
}

} // namespace
