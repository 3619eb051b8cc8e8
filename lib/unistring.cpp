// KyUniString operations: construction from narrow and wide text, editing on the
// copy-on-write buffer, searching, letter case, number conversion and the bridge to the
// codeset converter for byte encodings.
#include "lib/unistring.h"

#include <algorithm>
#include <cstring>

#include "lib/codeset/utf8.h"

namespace {

std::span<const unsigned char> AsBytes(std::string_view text) {
    return {reinterpret_cast<const unsigned char*>(text.data()), text.size()};
}

bool IsDigit(char16_t unit) {
    return unit >= u'0' && unit <= u'9';
}

// The shared digit scan of the As... conversions; unsigned arithmetic wraps as wanted.
template <typename T>
T ParseDecimal(std::u16string_view text) {
    std::size_t i = 0;
    const bool negative = !text.empty() && text[0] == u'-';
    if (negative)
        i = 1;
    T value = 0;
    for (; i < text.size() && IsDigit(text[i]); ++i)
        value = static_cast<T>(value * 10 + static_cast<T>(text[i] - u'0'));
    return negative ? static_cast<T>(T{0} - value) : value;
}

} // namespace

KyUniString::KyUniString(const char* utf8) {
    if (utf8 != nullptr)
        KyCodesetConverter::Decode(KyEncodingUtf8, AsBytes(utf8), *this);
}

KyUniString::KyUniString(std::string_view utf8) {
    KyCodesetConverter::Decode(KyEncodingUtf8, AsBytes(utf8), *this);
}

KyUniString::KyUniString(std::u16string_view units)
    : KyByteBuffer(static_cast<std::uint32_t>(units.size() * 2), units.data()) {}

KyUniString::KyUniString(const char16_t* units, std::uint32_t count)
    : KyByteBuffer(units == nullptr ? 0 : count * 2, units) {}

KyUniString& KyUniString::operator=(const char* utf8) {
    *this = KyUniString(utf8);
    return *this;
}

bool KyUniString::operator==(const KyUniString& other) const {
    return KyByteBuffer::operator==(other);
}

bool KyUniString::operator==(const char* utf8) const {
    return *this == KyUniString(utf8);
}

KyUniString& KyUniString::operator+=(const KyUniString& other) {
    Append(other);
    return *this;
}

KyUniString& KyUniString::operator+=(char16_t unit) {
    Append(unit);
    return *this;
}

KyStatus KyUniString::Append(const KyUniString& other) {
    return KyByteBuffer::Append(other);
}

KyStatus KyUniString::Append(char16_t unit) {
    return KyByteBuffer::Append(2, &unit);
}

char16_t KyUniString::CharAt(std::uint32_t i) const {
    return i < Length() ? AsPointer()[i] : 0;
}

KyStatus KyUniString::Set(std::uint32_t i, char16_t unit) {
    if (i >= Length())
        return Failure;
    Units()[i] = unit;
    return Success;
}

std::string KyUniString::AsUtf8() const {
    std::string out;
    KyUtf8::AppendEncoded(View(), out);
    return out;
}

KyStatus KyUniString::Truncate(std::uint32_t length) {
    return Pad(length, 0);
}

KyStatus KyUniString::Pad(std::uint32_t length, char16_t fill) {
    const std::uint32_t old = Length();
    if (length <= old)
        return KyByteBuffer::Truncate(length * 2);
    if (KyByteBuffer::Extend(length * 2) != Success)
        return Failure;
    std::fill(Units() + old, Units() + length, fill);
    return Success;
}

KyStatus KyUniString::Remove(std::uint32_t position, std::uint32_t count) {
    const std::uint32_t length = Length();
    if (position > length)
        return Failure;
    count = std::min(count, length - position);
    return KyByteBuffer::Remove(position * 2, count * 2);
}

KyStatus KyUniString::Insert(std::uint32_t position, const KyUniString& text) {
    position = std::min(position, Length());
    return KyByteBuffer::Insert(position * 2, text.KyByteBuffer::Length(), text.Data());
}

KyStatus KyUniString::Substitute(char16_t from, char16_t to) {
    if (Search(from) == NotFound)
        return Success;
    std::replace(Units(), Units() + Length(), from, to);
    return Success;
}

KyUniString KyUniString::SubString(std::uint32_t start, std::uint32_t count) const {
    // One builder for the process; the copy handed out shares its storage, and the
    // next call's edit gives the builder fresh storage, so earlier results stay intact.
    static KyUniString scratch;
    scratch = KyUniString();
    const std::uint32_t length = Length();
    if (start < length)
        scratch.KyByteBuffer::Append(std::min(count, length - start) * 2, AsPointer() + start);
    return scratch;
}

int KyUniString::Search(char16_t unit) const {
    return SearchFrom(0, unit);
}

int KyUniString::SearchFrom(std::uint32_t start, char16_t unit) const {
    const std::u16string_view view = View();
    const std::size_t at = start < view.size() ? view.find(unit, start) : view.npos;
    return at == view.npos ? NotFound : static_cast<int>(at);
}

int KyUniString::SearchFrom(std::uint32_t start, const KyUniString& text) const {
    const std::u16string_view view = View();
    const std::size_t at = start <= view.size() ? view.find(text.View(), start) : view.npos;
    return at == view.npos ? NotFound : static_cast<int>(at);
}

int KyUniString::SearchReverse(char16_t unit) const {
    const std::size_t at = View().rfind(unit);
    return at == std::u16string_view::npos ? NotFound : static_cast<int>(at);
}

int KyUniString::SearchReverseFrom(std::uint32_t start, char16_t unit) const {
    const std::size_t at = View().rfind(unit, start);
    return at == std::u16string_view::npos ? NotFound : static_cast<int>(at);
}

int KyUniString::SearchReverseFrom(std::uint32_t start, const KyUniString& text) const {
    const std::size_t at = View().rfind(text.View(), start);
    return at == std::u16string_view::npos ? NotFound : static_cast<int>(at);
}

int KyUniString::SearchFirstNotIn(const KyUniString& set) const {
    const std::size_t at = View().find_first_not_of(set.View());
    return at == std::u16string_view::npos ? NotFound : static_cast<int>(at);
}

char16_t KyUniString::Upper(char16_t unit) {
    const bool latin1 = unit >= 0xE0 && unit <= 0xFE && unit != 0xF7;
    return (unit >= u'a' && unit <= u'z') || latin1 ? static_cast<char16_t>(unit - 0x20) : unit;
}

char16_t KyUniString::Lower(char16_t unit) {
    const bool latin1 = unit >= 0xC0 && unit <= 0xDE && unit != 0xD7;
    return (unit >= u'A' && unit <= u'Z') || latin1 ? static_cast<char16_t>(unit + 0x20) : unit;
}

KyUniString& KyUniString::UpperCase() {
    if (Length() > 0)
        std::transform(Units(), Units() + Length(), Units(), Upper);
    return *this;
}

KyUniString& KyUniString::LowerCase() {
    if (Length() > 0)
        std::transform(Units(), Units() + Length(), Units(), Lower);
    return *this;
}

bool KyUniString::MatchCaseless(const KyUniString& other) const {
    return std::ranges::equal(View(), other.View(),
                              [](char16_t a, char16_t b) { return Lower(a) == Lower(b); });
}

std::int32_t KyUniString::AsInt32() const {
    return static_cast<std::int32_t>(ParseDecimal<std::uint32_t>(View()));
}

std::uint32_t KyUniString::AsUint32() const {
    return ParseDecimal<std::uint32_t>(View());
}

std::uint16_t KyUniString::AsUint16() const {
    return ParseDecimal<std::uint16_t>(View());
}

std::uint64_t KyUniString::AsUint64() const {
    return ParseDecimal<std::uint64_t>(View());
}

KyUniString KyUniString::CreateFromUnsigned(std::uint64_t value) {
    char16_t digits[20];
    char16_t* first = std::end(digits);
    do {
        *--first = static_cast<char16_t>(u'0' + value % 10);
        value /= 10;
    } while (value != 0);
    return KyUniString(first, static_cast<std::uint32_t>(std::end(digits) - first));
}

KyStatus KyUniString::CreateFrom(const unsigned char* bytes, std::uint32_t length, int encoding,
                                 int option) {
    const std::span<const unsigned char> in(bytes, bytes == nullptr ? 0 : length);
    return KyCodesetConverter::Decode(encoding, in, *this, option);
}

KyStatus KyUniString::CreateFrom(const KyByteBuffer& bytes, int encoding, int option) {
    return KyCodesetConverter::Decode(encoding, bytes.Bytes(), *this, option);
}

KyByteBuffer KyUniString::AsEncoding(int encoding, int option) const {
    KyByteBuffer out;
    KyCodesetConverter::Encode(encoding, View(), out, option);
    return out;
}

KyStatus KyUniString::IsValid(const KyByteBuffer& bytes, int encoding, int option) {
    return KyCodesetConverter::IsValid(encoding, bytes.Bytes(), option);
}

int KyUniString::GetEncoding(const KyUniString& name) {
    return KyCodesetConverter::GetEncoding(name.AsUtf8());
}

KyUniString KyUniString::GetEncodingName(int id) {
    return KyUniString(KyCodesetConverter::GetEncodingName(id));
}

KyUniString operator+(const KyUniString& left, const KyUniString& right) {
    KyUniString sum(left);
    sum.Append(right);
    return sum;
}

bool operator<(const KyUniString& left, const KyUniString& right) {
    const std::uint32_t common = std::min(left.Length(), right.Length());
    std::uint32_t i = 0;
    for (; i < common; ++i) {
        if (left.CharAt(i) < right.CharAt(i))
            return true;
    }
    return right.Length() > i;
}
