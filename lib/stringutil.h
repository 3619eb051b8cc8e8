// String helpers: the process-wide scratch builder KySimpleString, Split and Join over
// lists of strings, and Hex, which shows an integer's bytes in their in-memory order
// (least significant first on this little-endian target: 0x1234 shows as 0x3412).
#pragma once

#include <cstdint>
#include <memory>
#include <string_view>

#include "lib/numbers.h"
#include "lib/unistring.h"

template <typename T>
class KyDList;

// Growable run of code units that Split collects into. One instance serves the whole
// process (Scratch()), so it is not re-entrant.
class KySimpleString {
public:
    static KySimpleString& Scratch();

    // Room for (n + n / 4 + 16) rounded down to 16 units when that is more than now;
    // resets the length to 0 either way.
    void PredictSize(std::uint32_t units);
    void Append(char16_t unit) {
        if (length_ == capacity_)
            Grow();
        data_[length_++] = unit;
    }
    void Reset() { length_ = 0; }
    std::uint32_t Length() const { return length_; }
    std::uint32_t Capacity() const { return capacity_; }
    std::u16string_view View() const { return {data_.get(), length_}; }

private:
    // Capacity becomes (capacity + capacity / 4 + 16) rounded down to 16.
    void Grow();
    void Reserve(std::uint32_t capacity);

    std::unique_ptr<char16_t[]> data_;
    std::uint32_t length_ = 0;
    std::uint32_t capacity_ = 0;
};

// Appends the pieces between separators: "a,,b" gives a, (empty), b; "" gives nothing.
KyStatus Split(const KyUniString& text, KyDList<KyUniString>& list, char16_t separator);
KyUniString Join(const KyDList<KyUniString>& list, const KyUniString& separator);
KyUniString Join(const KyDList<KyUniString>& list, char16_t separator);

KyUniString DoHex(std::uint32_t size, const void* value);
KyUniString Hex(unsigned char value);
KyUniString Hex(unsigned short value);
KyUniString Hex(unsigned int value);
KyUniString Hex(unsigned long value);
KyUniString Hex(unsigned long long value);
