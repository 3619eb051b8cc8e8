// UTF-8 codec of the converter (encoding 42): bytes to 16-bit code units and back.
// Malformed input never stops a conversion: each maximal ill-formed subsequence
// (a stray byte, an overlong or surrogate form, a code point above U+10FFFF, or a
// sequence cut short by the end of the input) decodes to one U+FFFD. Code points above
// U+FFFF decode to a surrogate pair; a lone surrogate unit encodes as U+FFFD (EF BF BD).
#pragma once

#include <cstddef>
#include <span>
#include <string>
#include <string_view>

namespace KyUtf8 {

// Output needs room for in.size() units; returns the units written.
std::size_t Decode(std::span<const unsigned char> in, char16_t* out);
// Output needs room for MaxEncodedLength(in.size()) bytes; returns the bytes written.
std::size_t Encode(std::u16string_view in, unsigned char* out);
// The exact byte count Encode gives for these units, so callers size output once.
std::size_t EncodedLength(std::u16string_view in);
// Appends the encoded units to `out` without zero-filling a worst-case block first.
void AppendEncoded(std::u16string_view in, std::string& out);
constexpr std::size_t MaxEncodedLength(std::size_t units) {
    return units * 3;
}
bool IsValid(std::span<const unsigned char> in);

} // namespace KyUtf8
