// KyTimeVal arithmetic with its one-second carry and borrow, and the calendar forms
// built with mktime, which only give a date where local time equals UTC. Where TZ names
// a zone that is UTC at every instant, the date comes from plain arithmetic instead:
// status reports format thousands of times, and mktime re-reads the zone each call.
#include "lib/time.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>

#include "lib/unistring.h"

namespace {

constexpr std::uint32_t SecondsPerDay = 86400;

// Remembers whether local time is UTC at every instant. Only zones named as UTC whose
// loaded rules agree (no offset, no daylight saving) qualify; for any other zone mktime
// decides on every call. The decision is redone whenever TZ changes and, while TZ is
// unset, once a second, since the system zone file may be replaced under a running daemon.
class UtcZone {
public:
    bool Current() {
        const char* zone = std::getenv("TZ");
        const bool changed =
            !decided_ || set_ != (zone != nullptr) || (zone != nullptr && zone_ != zone);
        if (changed || (!set_ && std::time(nullptr) != decidedAt_))
            Decide(zone);
        return utc_;
    }

private:
    static constexpr const char* SystemZone = "/etc/localtime";

    void Decide(const char* zone) {
        decided_ = true;
        decidedAt_ = std::time(nullptr);
        set_ = zone != nullptr;
        zone_ = set_ ? zone : "";
        tzset();
        // An empty TZ is UTC to the C library; unset TZ means the system zone file.
        const std::string name = !set_ ? SystemZoneName() : zone_.empty() ? "UTC" : zone_;
        utc_ = NamesUtc(name) && timezone == 0 && daylight == 0;
    }

    // The zone the system file links to; a plain file copy names nothing, and mktime decides.
    static std::string SystemZoneName() {
        std::error_code error;
        return std::filesystem::read_symlink(SystemZone, error).string();
    }

    // Leap-second ("right/") zones are not among these: their mktime never round-trips.
    static bool NamesUtc(std::string_view zone) {
        static constexpr std::array<std::string_view, 10> Names = {
            "UTC",   "UCT",   "GMT",       "UTC0", "GMT0",
            "GMT+0", "GMT-0", "Universal", "Zulu", "Greenwich"};
        if (zone.starts_with(':'))
            zone.remove_prefix(1);
        if (const auto at = zone.rfind("zoneinfo/"); at != zone.npos)
            zone.remove_prefix(at + 9);
        if (zone.starts_with("posix/"))
            zone.remove_prefix(6);
        if (zone.starts_with("Etc/"))
            zone.remove_prefix(4);
        return std::find(Names.begin(), Names.end(), zone) != Names.end();
    }

    bool decided_ = false;
    bool set_ = false;
    bool utc_ = false;
    std::time_t decidedAt_ = 0;
    std::string zone_;
};

UtcZone& utcZone() {
    static UtcZone zone;
    return zone;
}

struct Civil {
    int year;
    unsigned month; // 1..12
    unsigned day;   // 1..31
};

// Proleptic Gregorian date of a day count from 1970-01-01 (for days >= 0); March-based
// years put the leap day last, so each 400-year era is plain arithmetic.
constexpr Civil civilFromDays(std::uint32_t days) {
    const std::uint32_t z = days + 719468;
    const std::uint32_t era = z / 146097;
    const std::uint32_t dayOfEra = z - era * 146097;
    const std::uint32_t yearOfEra =
        (dayOfEra - dayOfEra / 1460 + dayOfEra / 36524 - dayOfEra / 146096) / 365;
    const std::uint32_t dayOfYear = dayOfEra - (365 * yearOfEra + yearOfEra / 4 - yearOfEra / 100);
    const std::uint32_t shifted = (5 * dayOfYear + 2) / 153;
    const unsigned day = dayOfYear - (153 * shifted + 2) / 5 + 1;
    const unsigned month = shifted < 10 ? shifted + 3 : shifted - 9;
    return {static_cast<int>(yearOfEra + era * 400) + (month <= 2 ? 1 : 0), month, day};
}
static_assert(civilFromDays(0).year == 1970 && civilFromDays(59).month == 3);
static_assert(civilFromDays(10957).year == 2000 && civilFromDays(10957 + 59).day == 29);

constexpr bool isLeap(int year) {
    return year % 4 == 0 && (year % 100 != 0 || year % 400 == 0);
}

int dayOfYear(const Civil& date) {
    static constexpr std::array<int, 12> Before = {0,   31,  59,  90,  120, 151,
                                                   181, 212, 243, 273, 304, 334};
    const int leapDay = date.month > 2 && isLeap(date.year) ? 1 : 0;
    return Before[date.month - 1] + leapDay + static_cast<int>(date.day) - 1;
}

// What mktime leaves in the structure when local time is UTC.
void fillUtc(std::uint32_t seconds, std::tm& out) {
    const std::uint32_t days = seconds / SecondsPerDay;
    const std::uint32_t ofDay = seconds % SecondsPerDay;
    const Civil date = civilFromDays(days);
    out = std::tm{};
    out.tm_sec = static_cast<int>(ofDay % 60);
    out.tm_min = static_cast<int>(ofDay / 60 % 60);
    out.tm_hour = static_cast<int>(ofDay / 3600);
    out.tm_mday = static_cast<int>(date.day);
    out.tm_mon = static_cast<int>(date.month) - 1;
    out.tm_year = date.year - 1900;
    out.tm_wday = static_cast<int>((days + 4) % 7); // 1970-01-01 was a Thursday
    out.tm_yday = dayOfYear(date);
    out.tm_isdst = 0;
    out.tm_gmtoff = 0;
    out.tm_zone = tzname[0];
}

char* putTwo(char* out, int value) {
    *out++ = static_cast<char>('0' + value / 10);
    *out++ = static_cast<char>('0' + value % 10);
    return out;
}

char* putText(char* out, std::string_view text) {
    return std::copy(text.begin(), text.end(), out);
}

} // namespace

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

KyStatus KyTimeVal::CalendarDate(std::tm& out) const {
    if (!utcZone().Current())
        return FillInTMStruct(out);
    fillUtc(seconds_, out);
    return Success;
}

std::string_view KyTimeVal::FormatRFC1123(std::span<char, RFC1123Capacity> out) const {
    static constexpr std::array<std::string_view, 7> Days = {"Sun", "Mon", "Tue", "Wed",
                                                             "Thu", "Fri", "Sat"};
    static constexpr std::array<std::string_view, 12> Months = {
        "Jan", "Feb", "Mar", "Apr", "May", "Jun", "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
    std::tm date{};
    if (CalendarDate(date) != Success || date.tm_wday < 0 || date.tm_wday > 6 || date.tm_mon < 0 ||
        date.tm_mon > 11)
        return {};
    const int year = date.tm_year + 1900;
    const auto twoDigits = [](int v) { return v >= 0 && v <= 99; };
    if (year < 1000 || year > 9999 || !twoDigits(date.tm_mday) || !twoDigits(date.tm_hour) ||
        !twoDigits(date.tm_min) || !twoDigits(date.tm_sec)) {
        const int length = std::snprintf(
            out.data(), out.size(), "%s, %02d %s %4d %02d:%02d:%02d GMT", Days[date.tm_wday].data(),
            date.tm_mday, Months[date.tm_mon].data(), year, date.tm_hour, date.tm_min, date.tm_sec);
        return {out.data(), std::clamp<std::size_t>(length, 0, out.size() - 1)};
    }
    char* end = putText(out.data(), Days[date.tm_wday]);
    end = putTwo(putText(end, ", "), date.tm_mday);
    end = putText(putText(putText(end, " "), Months[date.tm_mon]), " ");
    end = putTwo(putTwo(end, year / 100), year % 100);
    end = putTwo(putText(end, " "), date.tm_hour);
    end = putTwo(putText(end, ":"), date.tm_min);
    end = putTwo(putText(end, ":"), date.tm_sec);
    end = putText(end, " GMT");
    return {out.data(), static_cast<std::size_t>(end - out.data())};
}

KyUniString KyTimeVal::AsRFC1123() const {
    std::array<char, RFC1123Capacity> text;
    const std::string_view date = FormatRFC1123(text);
    // The text is ASCII by construction, so widening needs no decoder.
    std::array<char16_t, RFC1123Capacity> units;
    std::copy(date.begin(), date.end(), units.begin());
    return KyUniString(units.data(), static_cast<std::uint32_t>(date.size()));
}

std::uint64_t MonotonicMicros() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return std::uint64_t(now.tv_sec) * KyTimeVal::MicrosPerSecond +
           std::uint64_t(now.tv_nsec) / 1000;
}
