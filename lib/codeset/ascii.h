// US-ASCII codec of the converter (encoding 1). Bytes above 0x7F decode to U+FFFD;
// code units above 0x7F encode as '?', so encoding always gives one byte per unit.
#pragma once

#include <cstddef>
#include <span>
#include <string_view>

namespace KyAscii {

// Output needs room for in.size() units; returns the units written.
std::size_t Decode(std::span<const unsigned char> in, char16_t* out);
// Output needs room for in.size() bytes; returns the bytes written.
std::size_t Encode(std::u16string_view in, unsigned char* out);
bool IsValid(std::span<const unsigned char> in);

} // namespace KyAscii
