// Wildcard matching over whole 16-bit strings; the span template in the header does
// the work, so the log framework can also match narrow category texts directly.
#include "lib/match.h"

bool KyWildcardMatch(KyUniString const& pattern, KyUniString const& text, bool caseless) {
    const std::u16string_view p = pattern.View();
    const std::u16string_view t = text.View();
    return KyWildcardMatch(std::span<const char16_t>(p.data(), p.size()),
                           std::span<const char16_t>(t.data(), t.size()), caseless);
}
