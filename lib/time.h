// KyTimeVal: a seconds-and-microseconds time value, always normalised (microseconds
// below one million), with carrying arithmetic, comparison and the RFC 1123 date form
// used in status replies and saved properties files.
#pragma once

#include <compare>
#include <cstddef>
#include <cstdint>
#include <ctime>
#include <span>
#include <string_view>
#include <sys/time.h>

#include "lib/numbers.h"

class KyUniString;

class KyTimeVal {
public:
    static constexpr std::uint32_t MicrosPerSecond = 1000000;
    static constexpr std::size_t RFC1123Capacity = 64;

    KyTimeVal() { now(); } // the current time
    KyTimeVal(std::uint32_t seconds, std::uint32_t microseconds);
    explicit KyTimeVal(const timeval& tv) { *this = tv; }
    KyTimeVal(const KyTimeVal&) = default;
    KyTimeVal& operator=(const KyTimeVal&) = default;
    KyTimeVal& operator=(const timeval& tv);

    // Sets this value to the current time.
    KyStatus now();

    std::uint32_t Seconds() const { return seconds_; }
    std::uint32_t Microseconds() const { return microseconds_; }
    timeval Time() const;
    void Normalise();

    KyTimeVal& operator+=(const KyTimeVal& other);
    KyTimeVal& operator+=(unsigned seconds);
    KyTimeVal& operator-=(const KyTimeVal& other);
    KyTimeVal operator+(const KyTimeVal& other) const;
    KyTimeVal operator-(const KyTimeVal& other) const;

    // Seconds decide, then microseconds.
    auto operator<=>(const KyTimeVal&) const = default;
    bool operator==(const KyTimeVal&) const = default;

    // Success only when the local time zone is UTC (mktime gives back Seconds()).
    KyStatus FillInTMStruct(std::tm& out) const;
    // "Sun, 06 Nov 1994 08:49:37 GMT"; empty unless FillInTMStruct succeeds.
    KyUniString AsRFC1123() const;
    // The same text written into `out`, for callers that format many times in a row.
    std::string_view FormatRFC1123(std::span<char, RFC1123Capacity> out) const;

private:
    // FillInTMStruct's result, worked out without mktime where the zone is known to be UTC.
    KyStatus CalendarDate(std::tm& out) const;

    std::uint32_t seconds_ = 0;
    std::uint32_t microseconds_ = 0;
};

// Microseconds on the monotonic clock: for durations and deadlines that a step of the
// wall clock must not move.
std::uint64_t MonotonicMicros();
