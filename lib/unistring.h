// KyUniString: the library's value string of 16-bit code units (native byte order),
// copy-on-write over a KyByteBuffer. Narrow text crossing into the library is decoded
// as UTF-8; other byte encodings go through the codeset converter by identifier.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>

#include "lib/bytebuf.h"
#include "lib/codeset/converter.h"
#include "lib/numbers.h"

// Length, positions and counts are in code units. The inherited Extend, PreAllocate,
// Data and c_str still count and show bytes.
class KyUniString : public KyByteBuffer {
public:
    static constexpr int NotFound = -1;
    static constexpr std::uint32_t ToEnd = ~0u;

    KyUniString() = default;
    KyUniString(const char* utf8); // null gives the empty string
    explicit KyUniString(std::string_view utf8);
    explicit KyUniString(std::u16string_view units);
    KyUniString(const char16_t* units, std::uint32_t count);
    KyUniString(const KyUniString&) = default;
    KyUniString(KyUniString&&) noexcept = default;
    KyUniString& operator=(const KyUniString&) = default;
    KyUniString& operator=(KyUniString&&) noexcept = default;
    KyUniString& operator=(const char* utf8);

    bool operator==(const KyUniString& other) const;
    bool operator==(const char* utf8) const;
    bool operator!=(const KyUniString& other) const { return !(*this == other); }
    bool operator!=(const char* utf8) const { return !(*this == utf8); }
    KyUniString& operator+=(const KyUniString& other);
    KyUniString& operator+=(char16_t unit);
    KyStatus Append(const KyUniString& other);
    KyStatus Append(char16_t unit);

    std::uint32_t Length() const { return KyByteBuffer::Length() / 2; }
    char16_t CharAt(std::uint32_t i) const; // 0 past the end
    char16_t operator[](std::uint32_t i) const { return CharAt(i); }
    KyStatus Set(std::uint32_t i, char16_t unit);
    const char16_t* AsPointer() const { return reinterpret_cast<const char16_t*>(Data()); }
    std::u16string_view View() const { return {AsPointer(), Length()}; }
    std::string AsUtf8() const;

    // Shorter cuts; longer extends (the new units are zero).
    KyStatus Truncate(std::uint32_t length);
    // Extends to `length` filling with `fill`, or cuts to `length`.
    KyStatus Pad(std::uint32_t length, char16_t fill);
    KyStatus Remove(std::uint32_t position, std::uint32_t count);
    KyStatus Insert(std::uint32_t position, const KyUniString& text);
    // Replaces every `from` unit by `to`.
    KyStatus Substitute(char16_t from, char16_t to);

    // Positions are unit indexes; a failed search gives NotFound.
    KyUniString SubString(std::uint32_t start, std::uint32_t count = ToEnd) const;
    int Search(char16_t unit) const;
    int SearchFrom(std::uint32_t start, char16_t unit) const;
    int SearchFrom(std::uint32_t start, const KyUniString& text) const;
    int SearchReverse(char16_t unit) const;
    // Backwards from `start` (inclusive, clamped to the last position).
    int SearchReverseFrom(std::uint32_t start, char16_t unit) const;
    int SearchReverseFrom(std::uint32_t start, const KyUniString& text) const;
    int SearchFirstNotIn(const KyUniString& set) const;

    // Letter case covers ASCII and Latin-1 letters; other units are left alone.
    KyUniString& UpperCase();
    KyUniString& LowerCase();
    static char16_t Upper(char16_t unit);
    static char16_t Lower(char16_t unit);
    bool MatchCaseless(const KyUniString& other) const;

    // Optional leading '-', then decimal digits up to the first non-digit; the sign
    // negates the result (wrapping for the unsigned forms). No digits give 0.
    std::int32_t AsInt32() const;
    std::uint32_t AsUint32() const;
    std::uint16_t AsUint16() const;
    std::uint64_t AsUint64() const;
    static KyUniString CreateFromUnsigned(std::uint64_t value);

    // Replace this string with decoded bytes; Failure for an unknown encoding.
    KyStatus CreateFrom(const unsigned char* bytes, std::uint32_t length, int encoding,
                        int option = 0);
    KyStatus CreateFrom(const KyByteBuffer& bytes, int encoding, int option = 0);
    // The string's text in the encoding; empty for an unknown encoding.
    KyByteBuffer AsEncoding(int encoding, int option = 0) const;
    static KyStatus IsValid(const KyByteBuffer& bytes, int encoding, int option = 0);
    static int GetEncoding(const KyUniString& name);
    static KyUniString GetEncodingName(int id);

    std::uint32_t HashValue() const { return KyByteBuffer::HashValue(); }

private:
    char16_t* Units() { return reinterpret_cast<char16_t*>(KyByteBuffer::Data()); }
};

KyUniString operator+(const KyUniString& left, const KyUniString& right);

// Deliberately not an ordering: a smaller left unit anywhere in the common part makes
// it true, so both "ca" < "bz" and "bz" < "ca" hold; orders
// that callers have always produced depend on exactly this form.
bool operator<(const KyUniString& left, const KyUniString& right);
