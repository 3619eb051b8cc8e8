// The character-set converter: its table of encodings (identifier, names, decoder,
// encoder), name look-up both ways and the mapping from a locale's code set name.
// Only US-ASCII (1) and UTF-8 (42, the table's last entry) are built in.
#pragma once

#include <cstddef>
#include <span>
#include <string_view>

#include "lib/numbers.h"

class KyUniString;
class KyByteBuffer;

inline constexpr int KyEncodingUnknown = 0;
inline constexpr int KyEncodingUsAscii = 1;
inline constexpr int KyEncodingUtf8 = 42;

class KyCodesetConverter {
public:
    // Identifier for a name or alias, compared without regard to letter case;
    // KyEncodingUnknown when no entry has that name.
    static int GetEncoding(std::string_view name);
    // The entry's first (preferred) name; empty for an unknown identifier.
    static std::string_view GetEncodingName(int id);
    // The identifier for a code set name as nl_langinfo(CODESET) reports it. Code sets
    // this converter does not know map to UTF-8, which loses nothing.
    static int EncodingForLocale(std::string_view codeset);

    // Replaces `out` with the decoded text; Failure (and `out` untouched) only for an
    // unknown identifier. Malformed input never fails: see the codecs for what it gives.
    static KyStatus Decode(int id, std::span<const unsigned char> in, KyUniString& out,
                           int option = 0);
    // Replaces `out` with the encoded bytes; Failure only for an unknown identifier.
    static KyStatus Encode(int id, std::u16string_view in, KyByteBuffer& out, int option = 0);
    // True when the bytes are a well-formed text of the encoding.
    static KyStatus IsValid(int id, std::span<const unsigned char> in, int option = 0);
};
