// UTF-8 codec: a strict decoder (well-formed sequences per the Unicode table of valid
// second bytes) that replaces each maximal ill-formed subsequence by U+FFFD, and an
// encoder that joins surrogate pairs into four-byte sequences. Both run through plain
// ASCII a unit at a time without the general sequence logic: replies and logs are ASCII.
#include "lib/codeset/utf8.h"

#include <iterator>

namespace {

constexpr char16_t Replacement = 0xFFFD;

struct Sequence {
    char32_t codePoint;
    std::size_t used;
    bool ok;
};

// Reads one sequence at in[i]; an ill-formed one consumes its maximal subpart.
Sequence ReadSequence(std::span<const unsigned char> in, std::size_t i) {
    const unsigned char lead = in[i];
    if (lead < 0x80)
        return {lead, 1, true};
    std::size_t need = 0;
    char32_t cp = 0;
    unsigned char low = 0x80, high = 0xBF;
    if (lead >= 0xC2 && lead <= 0xDF) {
        need = 1;
        cp = lead & 0x1F;
    } else if (lead >= 0xE0 && lead <= 0xEF) {
        need = 2;
        cp = lead & 0x0F;
        low = lead == 0xE0 ? 0xA0 : 0x80;  // no overlong forms
        high = lead == 0xED ? 0x9F : 0xBF; // no encoded surrogates
    } else if (lead >= 0xF0 && lead <= 0xF4) {
        need = 3;
        cp = lead & 0x07;
        low = lead == 0xF0 ? 0x90 : 0x80;
        high = lead == 0xF4 ? 0x8F : 0xBF; // nothing above U+10FFFF
    } else {
        return {Replacement, 1, false};
    }
    std::size_t used = 1;
    for (std::size_t k = 0; k < need; ++k, ++used) {
        if (i + used >= in.size() || in[i + used] < low || in[i + used] > high)
            return {Replacement, used, false};
        cp = (cp << 6) | (in[i + used] & 0x3F);
        low = 0x80;
        high = 0xBF;
    }
    return {cp, used, true};
}

unsigned char* Put(unsigned char* out, char32_t cp) {
    if (cp < 0x80) {
        *out++ = static_cast<unsigned char>(cp);
    } else if (cp < 0x800) {
        *out++ = static_cast<unsigned char>(0xC0 | (cp >> 6));
        *out++ = static_cast<unsigned char>(0x80 | (cp & 0x3F));
    } else if (cp < 0x10000) {
        *out++ = static_cast<unsigned char>(0xE0 | (cp >> 12));
        *out++ = static_cast<unsigned char>(0x80 | ((cp >> 6) & 0x3F));
        *out++ = static_cast<unsigned char>(0x80 | (cp & 0x3F));
    } else {
        *out++ = static_cast<unsigned char>(0xF0 | (cp >> 18));
        *out++ = static_cast<unsigned char>(0x80 | ((cp >> 12) & 0x3F));
        *out++ = static_cast<unsigned char>(0x80 | ((cp >> 6) & 0x3F));
        *out++ = static_cast<unsigned char>(0x80 | (cp & 0x3F));
    }
    return out;
}

bool IsHighSurrogate(char16_t unit) {
    return unit >= 0xD800 && unit <= 0xDBFF;
}
bool IsLowSurrogate(char16_t unit) {
    return unit >= 0xDC00 && unit <= 0xDFFF;
}

// Plain ASCII moves a fixed-size chunk at a time: a branch-free test and copy of a known
// length that the compiler turns into vector instructions.
constexpr std::size_t Chunk = 16;

template <typename Unit>
bool AsciiChunk(const Unit* at) {
    unsigned bits = 0;
    for (std::size_t k = 0; k < Chunk; ++k)
        bits |= at[k];
    return bits < 0x80;
}

template <typename From, typename To>
void CopyChunk(const From* from, To* to) {
    for (std::size_t k = 0; k < Chunk; ++k)
        to[k] = static_cast<To>(from[k]);
}

// Bytes for the unit at in[i] and how many units it takes (2 for a surrogate pair).
struct UnitCost {
    std::size_t bytes;
    std::size_t units;
};

UnitCost CostAt(std::u16string_view in, std::size_t i) {
    const char16_t unit = in[i];
    if (unit < 0x80)
        return {1, 1};
    if (unit < 0x800)
        return {2, 1};
    if (IsHighSurrogate(unit) && i + 1 < in.size() && IsLowSurrogate(in[i + 1]))
        return {4, 2};
    return {3, 1}; // lone surrogates become U+FFFD, three bytes like the rest
}

// Encodes the unit (or pair) at in[i]; gives the units it consumed.
std::size_t PutUnit(std::u16string_view in, std::size_t i, unsigned char*& out) {
    const char16_t unit = in[i];
    if (IsHighSurrogate(unit) && i + 1 < in.size() && IsLowSurrogate(in[i + 1])) {
        out = Put(out, 0x10000 + ((char32_t{unit} - 0xD800) << 10) + (in[i + 1] - 0xDC00));
        return 2;
    }
    const bool lone = IsHighSurrogate(unit) || IsLowSurrogate(unit);
    out = Put(out, lone ? Replacement : unit);
    return 1;
}

// Encodes what starts at position i — a whole ASCII chunk, one ASCII unit, or one
// character (a surrogate pair counts as one) — advancing both i and out.
void EncodeStep(std::u16string_view in, std::size_t& i, unsigned char*& out) {
    if (i + Chunk <= in.size() && AsciiChunk(in.data() + i)) {
        CopyChunk(in.data() + i, out);
        i += Chunk;
        out += Chunk;
    } else if (in[i] < 0x80) {
        *out++ = static_cast<unsigned char>(in[i++]);
    } else {
        i += PutUnit(in, i, out);
    }
}

} // namespace

namespace KyUtf8 {

std::size_t Decode(std::span<const unsigned char> in, char16_t* out) {
    char16_t* const start = out;
    std::size_t i = 0;
    while (i < in.size()) {
        if (i + Chunk <= in.size() && AsciiChunk(in.data() + i)) {
            CopyChunk(in.data() + i, out);
            i += Chunk;
            out += Chunk;
            continue;
        }
        if (in[i] < 0x80) {
            *out++ = in[i++];
            continue;
        }
        const Sequence seq = ReadSequence(in, i);
        i += seq.used;
        if (seq.codePoint >= 0x10000) {
            const char32_t v = seq.codePoint - 0x10000;
            *out++ = static_cast<char16_t>(0xD800 + (v >> 10));
            *out++ = static_cast<char16_t>(0xDC00 + (v & 0x3FF));
        } else {
            *out++ = static_cast<char16_t>(seq.codePoint);
        }
    }
    return static_cast<std::size_t>(out - start);
}

std::size_t Encode(std::u16string_view in, unsigned char* out) {
    unsigned char* const start = out;
    std::size_t i = 0;
    while (i < in.size()) {
        EncodeStep(in, i, out);
    }
    return static_cast<std::size_t>(out - start);
}

std::size_t EncodedLength(std::u16string_view in) {
    std::size_t bytes = 0;
    std::size_t i = 0;
    while (i < in.size()) {
        if (i + Chunk <= in.size() && AsciiChunk(in.data() + i)) {
            bytes += Chunk;
            i += Chunk;
            continue;
        }
        const UnitCost cost = CostAt(in, i);
        bytes += cost.bytes;
        i += cost.units;
    }
    return bytes;
}

void AppendEncoded(std::u16string_view in, std::string& out) {
    out.reserve(out.size() + EncodedLength(in));
    // Encoding goes through a cache-sized stack block: std::string cannot grow without
    // zero-filling, and appending a block at a time keeps it to one copy.
    unsigned char block[4096];
    std::size_t i = 0;
    while (i < in.size()) {
        unsigned char* put = block;
        while (i < in.size() && put + Chunk <= std::end(block)) {
            EncodeStep(in, i, put);
        }
        out.append(reinterpret_cast<const char*>(block), static_cast<std::size_t>(put - block));
    }
}

bool IsValid(std::span<const unsigned char> in) {
    for (std::size_t i = 0; i < in.size();) {
        const Sequence seq = ReadSequence(in, i);
        if (!seq.ok)
            return false;
        i += seq.used;
    }
    return true;
}

} // namespace KyUtf8
