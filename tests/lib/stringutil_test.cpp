// Split, Join, the scratch builder's growth and the byte-order hex formatter.
#include "lib/stringutil.h"

#include <gtest/gtest.h>
#include <vector>

#include "lib/dlist.h"

namespace {

std::vector<std::u16string> Pieces(const char* text, char16_t separator = u',') {
    KyDList<KyUniString> list;
    Split(KyUniString(text), list, separator);
    std::vector<std::u16string> out;
    for (const KyUniString& piece : list)
        out.emplace_back(piece.View());
    return out;
}

TEST(StringUtil, SplitKeepsEmptyPiecesAndJoinPutsThemTogether) {
    using V = std::vector<std::u16string>;
    EXPECT_EQ(Pieces(""), V{});
    EXPECT_EQ(Pieces(","), (V{u"", u""}));
    EXPECT_EQ(Pieces("a,,b"), (V{u"a", u"", u"b"}));
    EXPECT_EQ(Pieces("a,"), (V{u"a", u""}));
    EXPECT_EQ(Pieces("solo"), V{u"solo"});
    EXPECT_EQ(Pieces("x/y", u'/'), (V{u"x", u"y"}));

    KyDList<KyUniString> list;
    list.Insert(KyUniString("kept"));
    Split(KyUniString("p,q"), list, u',');
    EXPECT_EQ(list.Length(), 3u) << "Split appends to what the list holds";
    EXPECT_EQ(Join(list, u'/'), "kept/p/q");
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

TEST(StringUtil, HexShowsBytesInMemoryOrder) {
    EXPECT_EQ(Hex(static_cast<unsigned short>(0x1234)), "0x3412");
    EXPECT_EQ(Hex(0x0102030405060708ull), "0x0807060504030201");
}

} // namespace
