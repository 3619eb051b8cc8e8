// The scratch builder's growth rule, Split and Join over value lists of strings, and
// the byte-order hexadecimal formatter.
#include "lib/stringutil.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

#include "lib/dlist.h"

namespace {

// Beyond this many units the builder asks for the largest block it can address.
constexpr std::uint32_t LargestRequest = 0x3F800000;
constexpr std::uint32_t LargestBlock = 0x3FFFFFF0;

constexpr std::uint32_t RoundDown16(std::uint64_t n) {
    return static_cast<std::uint32_t>(std::min<std::uint64_t>(n, LargestBlock) & ~15ull);
}

} // namespace

KySimpleString& KySimpleString::Scratch() {
    static KySimpleString scratch;
    return scratch;
}

void KySimpleString::PredictSize(std::uint32_t units) {
    const std::uint64_t n = units;
    const std::uint32_t wanted =
        units > LargestRequest ? LargestBlock : RoundDown16(n + n / 4 + 16);
    if (wanted > capacity_)
        Reserve(wanted);
    length_ = 0;
}

void KySimpleString::Grow() {
    const std::uint64_t c = capacity_;
    Reserve(RoundDown16(c + c / 4 + 16));
}

void KySimpleString::Reserve(std::uint32_t capacity) {
    auto grown = std::make_unique_for_overwrite<char16_t[]>(capacity);
    std::copy_n(data_.get(), length_, grown.get());
    data_ = std::move(grown);
    capacity_ = capacity;
}

KyStatus Split(const KyUniString& text, KyDList<KyUniString>& list, char16_t separator) {
    if (text.Length() == 0)
        return Success;
    KySimpleString& builder = KySimpleString::Scratch();
    builder.PredictSize(text.Length());
    for (char16_t unit : text.View()) {
        if (unit != separator) {
            builder.Append(unit);
            continue;
        }
        list.Insert(KyUniString(builder.View()));
        builder.Reset();
    }
    list.Insert(KyUniString(builder.View()));
    return Success;
}

KyUniString Join(const KyDList<KyUniString>& list, const KyUniString& separator) {
    KyUniString joined;
    bool first = true;
    for (const KyUniString& element : list) {
        if (!first)
            joined.Append(separator);
        joined.Append(element);
        first = false;
    }
    return joined;
}

KyUniString Join(const KyDList<KyUniString>& list, char16_t separator) {
    return Join(list, KyUniString(&separator, 1));
}

KyUniString DoHex(std::uint32_t size, const void* value) {
    const auto* bytes = static_cast<const unsigned char*>(value);
    std::string text = "0x";
    char digits[3];
    for (std::uint32_t i = 0; i < size; ++i) {
        std::snprintf(digits, sizeof digits, "%02X", bytes[i]);
        text += digits;
    }
    return KyUniString(std::string_view(text));
}

KyUniString Hex(unsigned char value) {
    return DoHex(sizeof value, &value);
}
KyUniString Hex(unsigned short value) {
    return DoHex(sizeof value, &value);
}
KyUniString Hex(unsigned int value) {
    return DoHex(sizeof value, &value);
}
KyUniString Hex(unsigned long value) {
    return DoHex(sizeof value, &value);
}
KyUniString Hex(unsigned long long value) {
    return DoHex(sizeof value, &value);
}
