// Wildcard matching for the log framework's filter patterns: "*" matches any run of
// code units, "?" exactly one. Works on spans of code units so that both 16-bit
// strings and narrow category texts can be matched without copying.
#pragma once

#include <cstddef>
#include <span>

#include "lib/unistring.h"

namespace ky_match_detail {

// Caseless comparison lower-cases both sides only where they differ.
template <typename P, typename T>
bool UnitsEqual(P pattern, T text, bool caseless) {
    const auto p = static_cast<char16_t>(pattern);
    const auto t = static_cast<char16_t>(text);
    return p == t || (caseless && KyUniString::Lower(p) == KyUniString::Lower(t));
}

} // namespace ky_match_detail

// Greedy match with one backtrack point (the last star seen): linear in the common case
// and never recursive, so hostile patterns cannot exhaust the stack.
template <typename P, typename T>
bool KyWildcardMatch(std::span<const P> pattern, std::span<const T> text, bool caseless) {
    std::size_t p = 0;
    std::size_t t = 0;
    std::size_t starAt = pattern.size();
    std::size_t resumeAt = 0;
    while (t < text.size()) {
        if (p < pattern.size() && pattern[p] == P('*')) {
            starAt = p++;
            resumeAt = t;
        } else if (p < pattern.size() &&
                   (pattern[p] == P('?') ||
                    ky_match_detail::UnitsEqual(pattern[p], text[t], caseless))) {
            ++p;
            ++t;
        } else if (starAt != pattern.size()) {
            p = starAt + 1;
            t = ++resumeAt;
        } else {
            return false;
        }
    }
    while (p < pattern.size() && pattern[p] == P('*')) {
        ++p;
    }
    return p == pattern.size();
}

// The library's entry point: a pattern and a text held as 16-bit strings.
bool KyWildcardMatch(KyUniString const& pattern, KyUniString const& text, bool caseless);
