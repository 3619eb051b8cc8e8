// US-ASCII codec: one byte per code unit both ways, with U+FFFD and '?' standing in
// for what the other side cannot hold.
#include "lib/codeset/ascii.h"

#include <algorithm>

namespace KyAscii {

std::size_t Decode(std::span<const unsigned char> in, char16_t* out) {
    std::ranges::transform(in, out, [](unsigned char b) -> char16_t {
        return b < 0x80 ? char16_t{b} : char16_t{0xFFFD};
    });
    return in.size();
}

std::size_t Encode(std::u16string_view in, unsigned char* out) {
    std::ranges::transform(in, out, [](char16_t unit) -> unsigned char {
        return unit < 0x80 ? static_cast<unsigned char>(unit) : '?';
    });
    return in.size();
}

bool IsValid(std::span<const unsigned char> in) {
    return std::ranges::all_of(in, [](unsigned char b) { return b < 0x80; });
}

} // namespace KyAscii
