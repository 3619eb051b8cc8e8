// Properties files on disk: the line rules, value escapes, the last-wins rule, unreadable
// input, and the saved format read back.
#include "lib/props.h"

#include <gtest/gtest.h>

#include <string>

#include "tests/lib/logtemp.h"

namespace {

class Props : public ::testing::Test {
protected:
    KyUniString Write(std::string_view text) {
        WriteWhole(dir_ / "in.properties", std::string(text));
        return KyUniString((dir_ / "in.properties").c_str());
    }
    std::string Value(const char* key) const {
        const KyUniString* value = props_.Get(key);
        return value == nullptr ? "<absent>" : value->AsUtf8();
    }

    LogTempDir dir_;
    KyProperties props_;
};

TEST_F(Props, LineRulesKeepBlanksAndSplitAtTheFirstEquals) {
    ASSERT_EQ(props_.Load(Write("a = b\n"
                                "#comment=1\n"
                                " #spaced=2\n"
                                "!bang=3\n"
                                "url=http://x/?a=b\n"
                                "=empty key\n"
                                "no equals here\n"
                                "\n"
                                "crlf=v\r\n"
                                "dup=first\n"
                                "dup=second")),
              Success);
    EXPECT_EQ(Value("a "), " b");
    EXPECT_EQ(Value("#comment"), "<absent>");
    EXPECT_EQ(Value(" #spaced"), "2");
    EXPECT_EQ(Value("!bang"), "3");
    EXPECT_EQ(Value("url"), "http://x/?a=b");
    EXPECT_EQ(Value(""), "empty key");
    EXPECT_EQ(Value("crlf"), "v\r");
    EXPECT_EQ(Value("dup"), "second");
    EXPECT_EQ(props_.Count(), 7u);
}

TEST(PropsEscapes, ValueDecoding) {
    const struct {
        const char* raw;
        const char* decoded;
    } cases[] = {
        {"x\\u0041y", "xAy"},
        {"x\\u0041", "xu0041"},
        {"\\u12", "u12"},
        {"a\\\\b", "a\\b"},
        {"end\\", "end\\"},
        {"\\n\\r\\t", "\n\r\t"},
        {"\\=\\q", "=q"},
        {"\\u00e9!", "\xc3\xa9!"},
        {"\\u4zzz!", "\x04!"},
        {"\\\\u0041x", "\\u0041x"},
        {"", ""},
    };
    for (const auto& c : cases) {
        const KyUniString decoded = KyProperties::UnescapeValue(KyUniString(c.raw));
        EXPECT_EQ(decoded.AsUtf8(), c.decoded) << c.raw;
    }
}

TEST_F(Props, BadInputNeverFails) {
    EXPECT_EQ(props_.Load((dir_ / "absent").c_str()), Failure);
    EXPECT_EQ(props_.Load(dir_.Path().c_str()), Failure);
    EXPECT_EQ(props_.Load(Write("\\\n=\\\n\\u=\\u\n\xff\xfe=\x80\\")), Success);
    EXPECT_EQ(Value("="), "<absent>");
    EXPECT_EQ(Value("\\u"), "u");
    EXPECT_EQ(Value(""), "\\");
}

} // namespace
