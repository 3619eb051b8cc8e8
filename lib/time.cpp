// KyTimeVal arithmetic with its one-second carry and borrow, and the calendar forms
// built with mktime, which only give a date where local time equals UTC.
#include "lib/time.h"

#include <cstdio>

#include "lib/unistring.h"

KyTimeVal::KyTimeVal(std::uint32_t seconds, std::uint32_t microseconds)
    : seconds_(seconds), microseconds_(microseconds) {
    Normalise();
}

KyTimeVal& KyTimeVal::operator=(const timeval& tv) {
    seconds_ = static_cast<std::uint32_t>(tv.tv_sec);
    microseconds_ = static_cast<std::uint32_t>(tv.tv_usec);
    Normalise();
    return *this;
}

KyStatus KyTimeVal::now() {
    timeval tv{};
    if (gettimeofday(&tv, nullptr) != 0)
        return Failure;
    *this = tv;
    return Success;
}

timeval KyTimeVal::Time() const {
    timeval tv{};
    tv.tv_sec = static_cast<time_t>(seconds_);
    tv.tv_usec = static_cast<suseconds_t>(microseconds_);
    return tv;
}

void KyTimeVal::Normalise() {
    seconds_ += microseconds_ / MicrosPerSecond;
    microseconds_ %= MicrosPerSecond;
}

KyTimeVal& KyTimeVal::operator+=(const KyTimeVal& other) {
    seconds_ += other.seconds_;
    microseconds_ += other.microseconds_;
    if (microseconds_ >= MicrosPerSecond) {
        microseconds_ -= MicrosPerSecond;
        ++seconds_;
    }
    return *this;
}

KyTimeVal& KyTimeVal::operator+=(unsigned seconds) {
    seconds_ += seconds;
    return *this;
}

KyTimeVal& KyTimeVal::operator-=(const KyTimeVal& other) {
    seconds_ -= other.seconds_;
    if (microseconds_ < other.microseconds_) {
        microseconds_ += MicrosPerSecond;
        --seconds_;
    }
    microseconds_ -= other.microseconds_;
    return *this;
}

KyTimeVal KyTimeVal::operator+(const KyTimeVal& other) const {
    KyTimeVal sum(*this);
    return sum += other;
}

KyTimeVal KyTimeVal::operator-(const KyTimeVal& other) const {
    KyTimeVal difference(*this);
    return difference -= other;
}

KyStatus KyTimeVal::FillInTMStruct(std::tm& out) const {
    out = std::tm{};
    out.tm_hour = 0;
    out.tm_mday = 1;
    out.tm_mon = 0;
    out.tm_year = 70;
    out.tm_isdst = 0;
    out.tm_sec = static_cast<int>(seconds_ % 60);
    out.tm_min = static_cast<int>(seconds_ / 60);
    return AsStatus(std::mktime(&out) == static_cast<std::time_t>(seconds_));
}

KyUniString KyTimeVal::AsRFC1123() const {
    static constexpr const char* Days[] = {"Sun", "Mon", "Tue", "Wed", "Thu", "Fri", "Sat"};
    static constexpr const char* Months[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                             "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
    std::tm date{};
    if (FillInTMStruct(date) != Success || date.tm_wday < 0 || date.tm_wday > 6 ||
        date.tm_mon < 0 || date.tm_mon > 11)
        return KyUniString();
    char text[64];
    std::snprintf(text, sizeof text, "%s, %02d %s %4d %02d:%02d:%02d GMT", Days[date.tm_wday],
                  date.tm_mday, Months[date.tm_mon], date.tm_year + 1900, date.tm_hour, date.tm_min,
                  date.tm_sec);
    return KyUniString(text);
}
