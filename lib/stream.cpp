// Text building for KyOSStream and the log framework's time form. Every insertion widens
// or copies straight into the stream's own storage; narrow text is decoded in place by
// the UTF-8 decoder, whose ASCII path is a plain widening copy.
#include "lib/stream.h"

#include <algorithm>
#include <cstring>
#include <ctime>

#include "lib/codeset/utf8.h"

namespace {

// The largest byte capacity the growth asks for, leaving room for the buffer's rounding.
constexpr std::uint64_t MaxBytes = UINT32_MAX - 32;

} // namespace

void KyOSStream::Reserve(std::size_t units) {
    const std::uint64_t length = text_.KyByteBuffer::Length();
    const std::uint64_t needed = length + 2 * std::uint64_t{units};
    if (needed > MaxBytes)
        return;
    if (text_.RefCount() == 1 && needed < text_.Capacity())
        return;
    const std::uint64_t doubled = 2 * std::uint64_t{text_.Capacity()};
    text_.PreAllocate(static_cast<std::uint32_t>(std::min(std::max(needed, doubled), MaxBytes)));
}

char16_t* KyOSStream::Grow(std::size_t units) {
    const std::uint64_t length = text_.KyByteBuffer::Length();
    const std::uint64_t needed = length + 2 * std::uint64_t{units};
    if (needed > MaxBytes)
        return nullptr;
    Reserve(units);
    if (text_.Extend(static_cast<std::uint32_t>(needed)) != Success)
        return nullptr;
    return reinterpret_cast<char16_t*>(text_.Data() + length);
}

KyOSStream& KyOSStream::AppendUnits(std::u16string_view units) {
    if (units.empty())
        return *this;
    // A view into this very stream would move with the growth.
    const std::u16string_view own = View();
    if (!own.empty() && units.data() >= own.data() && units.data() < own.data() + own.size()) {
        const std::u16string copy(units);
        return AppendUnits(copy);
    }
    if (char16_t* out = Grow(units.size()))
        std::copy(units.begin(), units.end(), out);
    return *this;
}

KyOSStream& KyOSStream::operator<<(std::string_view utf8) {
    if (utf8.empty())
        return *this;
    // Decoding never gives more units than bytes, so the text grows once and is cut back.
    const std::uint32_t before = text_.Length();
    char16_t* out = Grow(utf8.size());
    if (out == nullptr)
        return *this;
    const auto* bytes = reinterpret_cast<const unsigned char*>(utf8.data());
    const std::size_t units = KyUtf8::Decode({bytes, utf8.size()}, out);
    if (units < utf8.size())
        text_.Truncate(before + static_cast<std::uint32_t>(units));
    return *this;
}

KyOSStream& KyOSStream::AppendAscii(std::string_view ascii) {
    if (char16_t* out = Grow(ascii.size()))
        std::copy(ascii.begin(), ascii.end(), out);
    return *this;
}

std::string_view KyTimeFormat::Format(KyTimeVal const& time) {
    const std::uint32_t micros = time.Microseconds();
    const std::uint32_t seconds = time.Seconds() + micros / KyTimeVal::MicrosPerSecond;
    const unsigned millis = (micros % KyTimeVal::MicrosPerSecond) / 1000;
    if (second_ != seconds) {
        FormatSecond(seconds);
    }
    // Every record asks for this: three digits by hand rather than a printf.
    const char tail[4] = {'.', static_cast<char>('0' + millis / 100),
                          static_cast<char>('0' + millis / 10 % 10),
                          static_cast<char>('0' + millis % 10)};
    text_.assign(secondText_).append(tail, sizeof tail);
    return text_;
}

void KyTimeFormat::FormatSecond(std::uint32_t seconds) {
    const std::time_t clock = seconds;
    std::tm local{};
    char text[64];
    std::size_t length = 0;
    if (localtime_r(&clock, &local) != nullptr) {
        length = std::strftime(text, sizeof text, "%Y/%m/%d %H:%M:%S", &local);
    }
    secondText_.assign(text, length);
    second_ = seconds;
}

KyOSStream& operator<<(KyOSStream& stream, KyTimeVal const& time) {
    KyTimeFormat format;
    return stream << format.Format(time);
}
