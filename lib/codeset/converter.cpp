// The encoding table and the dispatch of decode, encode and validity checks to the
// codec of an identifier. The table's order is fixed: UTF-8 stays the last entry.
#include "lib/codeset/converter.h"

#include <algorithm>
#include <array>

#include "lib/codeset/ascii.h"
#include "lib/codeset/utf8.h"
#include "lib/unistring.h"

namespace {

struct Encoding {
    int id;
    std::span<const std::string_view> names; // the first is the preferred name
    std::size_t (*decode)(std::span<const unsigned char>, char16_t*);
    std::size_t (*encode)(std::u16string_view, unsigned char*);
    bool (*isValid)(std::span<const unsigned char>);
    // The exact output size, so the result is allocated once at its final length.
    std::size_t (*encodedLength)(std::u16string_view);
};

std::size_t OneBytePerUnit(std::u16string_view in) {
    return in.size();
}

constexpr std::string_view AsciiNames[] = {"US-ASCII", "ASCII", "ANSI_X3.4-1968", "ISO646-US",
                                           "646"};
constexpr std::string_view Utf8Names[] = {"UTF-8", "UNICODE-1-1-UTF-8", "UTF8"};

constexpr std::array<Encoding, 2> Table = {{
    {KyEncodingUsAscii, AsciiNames, KyAscii::Decode, KyAscii::Encode, KyAscii::IsValid,
     OneBytePerUnit},
    {KyEncodingUtf8, Utf8Names, KyUtf8::Decode, KyUtf8::Encode, KyUtf8::IsValid,
     KyUtf8::EncodedLength},
}};

const Encoding* Find(int id) {
    const auto* it = std::ranges::find(Table, id, &Encoding::id);
    return it == Table.end() ? nullptr : it;
}

bool EqualCaseless(std::string_view a, std::string_view b) {
    const auto lower = [](char c) { return c >= 'A' && c <= 'Z' ? char(c + 32) : c; };
    return std::ranges::equal(a, b, [&](char x, char y) { return lower(x) == lower(y); });
}

} // namespace

int KyCodesetConverter::GetEncoding(std::string_view name) {
    for (const Encoding& encoding : Table) {
        for (std::string_view alias : encoding.names) {
            if (EqualCaseless(alias, name))
                return encoding.id;
        }
    }
    return KyEncodingUnknown;
}

std::string_view KyCodesetConverter::GetEncodingName(int id) {
    const Encoding* encoding = Find(id);
    return encoding ? encoding->names.front() : std::string_view();
}

int KyCodesetConverter::EncodingForLocale(std::string_view codeset) {
    const int id = GetEncoding(codeset);
    return id == KyEncodingUnknown ? KyEncodingUtf8 : id;
}

KyStatus KyCodesetConverter::Decode(int id, std::span<const unsigned char> in, KyUniString& out,
                                    int /*option*/) {
    const Encoding* encoding = Find(id);
    if (encoding == nullptr)
        return Failure;
    // Build in a fresh string, so text shared with copies of `out` is never copied.
    KyUniString text;
    if (!in.empty()) {
        if (text.Extend(static_cast<std::uint32_t>(in.size() * 2)) != Success)
            return Failure;
        auto* units = reinterpret_cast<char16_t*>(text.KyByteBuffer::Data());
        const std::size_t count = encoding->decode(in, units);
        text.KyByteBuffer::Truncate(static_cast<std::uint32_t>(count * 2));
    }
    out = std::move(text);
    return Success;
}

KyStatus KyCodesetConverter::Encode(int id, std::u16string_view in, KyByteBuffer& out,
                                    int /*option*/) {
    const Encoding* encoding = Find(id);
    if (encoding == nullptr)
        return Failure;
    KyByteBuffer bytes;
    if (!in.empty()) {
        const std::size_t length = encoding->encodedLength(in);
        if (length > UINT32_MAX || bytes.Extend(static_cast<std::uint32_t>(length)) != Success)
            return Failure;
        const std::size_t count = encoding->encode(in, bytes.Data());
        bytes.Truncate(static_cast<std::uint32_t>(count));
    }
    out = std::move(bytes);
    return Success;
}

KyStatus KyCodesetConverter::IsValid(int id, std::span<const unsigned char> in, int /*option*/) {
    const Encoding* encoding = Find(id);
    return AsStatus(encoding != nullptr && encoding->isValid(in));
}
