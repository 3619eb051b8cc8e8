// Text building for KyOSStream and the log framework's time form. Narrow text that is
// plain ASCII is widened directly; anything else goes through the UTF-8 decoder.
#include "lib/stream.h"

#include <algorithm>
#include <cstdio>
#include <ctime>

KyOSStream& KyOSStream::operator<<(KyUniString const& text) {
    units_.append(text.View());
    return *this;
}

KyOSStream& KyOSStream::operator<<(std::string_view utf8) {
    const bool ascii =
        std::all_of(utf8.begin(), utf8.end(), [](char c) { return (c & 0x80) == 0; });
    if (ascii) {
        return AppendAscii(utf8);
    }
    return *this << KyUniString(utf8);
}

KyOSStream& KyOSStream::AppendAscii(std::string_view ascii) {
    units_.append(ascii.begin(), ascii.end());
    return *this;
}

std::string_view KyTimeFormat::Format(KyTimeVal const& time) {
    const std::uint32_t micros = time.Microseconds();
    const std::uint32_t seconds = time.Seconds() + micros / KyTimeVal::MicrosPerSecond;
    const unsigned millis = (micros % KyTimeVal::MicrosPerSecond) / 1000;
    if (second_ != seconds) {
        FormatSecond(seconds);
    }
    char tail[8];
    const int length = std::snprintf(tail, sizeof tail, ".%03u", millis);
    text_.assign(secondText_).append(tail, static_cast<std::size_t>(length));
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
