// KyOSStream: the string output stream in which log message texts and control replies
// are built. It takes 16-bit strings, narrow UTF-8 text, integers in decimal, KyScalar
// values and times, and hands back the finished text as a KyUniString that shares the
// stream's storage, so even a multi-megabyte status report is never copied on the way out.
#pragma once

#include <charconv>
#include <concepts>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "lib/numbers.h"
#include "lib/time.h"
#include "lib/unistring.h"

// Integers that print as numbers; character types are text, not numbers.
template <typename T>
concept KyDecimal = std::integral<T> && !std::same_as<T, bool> && !std::same_as<T, char> &&
                    !std::same_as<T, char8_t> && !std::same_as<T, char16_t> &&
                    !std::same_as<T, char32_t> && !std::same_as<T, wchar_t>;

class KyOSStream {
public:
    KyOSStream& operator<<(KyUniString const& text) { return AppendUnits(text.View()); }
    KyOSStream& operator<<(std::u16string_view units) { return AppendUnits(units); }
    KyOSStream& operator<<(std::string_view utf8);
    KyOSStream& operator<<(const char* utf8) { return *this << std::string_view(utf8 ? utf8 : ""); }

    template <KyDecimal T>
    KyOSStream& operator<<(T number) {
        char digits[24];
        const auto result = std::to_chars(digits, digits + sizeof digits, number);
        return AppendAscii(std::string_view(digits, result.ptr - digits));
    }

    template <KyDecimal T>
    KyOSStream& operator<<(KyScalar<T> number) {
        return *this << number.Value();
    }

    // Shares the storage; a later insertion copies it first, so the result never changes.
    KyUniString Str() const { return text_; }
    std::u16string_view View() const { return text_.View(); }
    void Clear() { text_ = KyUniString(); }
    // Room for this many more code units, for callers that know the size of what follows.
    void Reserve(std::size_t units);

private:
    KyOSStream& AppendUnits(std::u16string_view units);
    KyOSStream& AppendAscii(std::string_view ascii);
    // Lengthens the text by `units` and gives the place to write them, or null when the
    // text cannot grow. Capacity doubles, so building a long text copies it at most once.
    char16_t* Grow(std::size_t units);

    KyUniString text_;
};

// Renders times as the log framework shows them: local "YYYY/MM/DD HH:MM:SS" and
// milliseconds, e.g. 2014/03/07 09:15:02.047. The strftime result for a second is kept
// and reused while that second lasts, since records come many to a second.
class KyTimeFormat {
public:
    std::string_view Format(KyTimeVal const& time);

private:
    void FormatSecond(std::uint32_t seconds);

    std::optional<std::uint32_t> second_;
    std::string secondText_;
    std::string text_;
};

// Inserts the time in the log framework's form.
KyOSStream& operator<<(KyOSStream& stream, KyTimeVal const& time);
