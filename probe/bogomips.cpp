// The CPU speed rating: a busy loop timed in processor time, doubled until one try lasts a
// second. The arithmetic is deliberately coarse (integer division before scaling) so the
// ratings stay comparable with those the load balancers already know.
#include "probe/bogomips.h"

#include <cstdlib>
#include <limits>

#include "lib/logging.h"

Bogomips* myBogomips = nullptr;

namespace {

constexpr std::uint64_t MICROS_PER_SECOND = 1000000;
constexpr std::uint64_t LOOPS_PER_BOGOMIP = 500000;
constexpr std::uint64_t U64_MAX = std::numeric_limits<std::uint64_t>::max();

// clock() units as microseconds, whatever the platform's CLOCKS_PER_SEC.
std::uint64_t asMicroseconds(std::clock_t ticks) {
    if (ticks <= 0) {
        return 0;
    }
    if constexpr (CLOCKS_PER_SEC == MICROS_PER_SECOND) {
        return static_cast<std::uint64_t>(ticks);
    } else {
        return static_cast<std::uint64_t>(static_cast<long double>(ticks) * MICROS_PER_SECOND /
                                          CLOCKS_PER_SEC);
    }
}

// a * b, held at the largest value instead of wrapping: only absurd speeds get there.
std::uint64_t timesCapped(std::uint64_t a, std::uint64_t b) {
    return b != 0 && a > U64_MAX / b ? U64_MAX : a * b;
}

// How long one try must last, in microseconds of processor time: a second unless the
// environment names a shorter or longer time for tests.
std::uint64_t tryLength() {
    if (const char* text = std::getenv(Bogomips::TRY_LENGTH_ENV); text != nullptr) {
        char* end = nullptr;
        const unsigned long milliseconds = std::strtoul(text, &end, 10);
        if (end != text && *end == '\0' && milliseconds > 0 && milliseconds <= 1000000) {
            return std::uint64_t{milliseconds} * 1000;
        }
    }
    return MICROS_PER_SECOND;
}

} // namespace

Bogomips::Bogomips(int processors, unsigned int factor, LoopTimer timer, Clock clock)
    : processors_(processors > 0 ? processors : 1), factor_(factor), tryMicros_(tryLength()),
      timer_(std::move(timer)), clock_(std::move(clock)) {
    Initialise();
}

void Bogomips::Initialise() {
    best_ = 0;
    lowest_ = 0;
    calculate();
    lowest_ = current_;
    // Capped only after the first measurement, which still uses the configured factor.
    if (factor_ > FACTOR2) {
        factor_ = FACTOR1;
    }
}

void Bogomips::delay(std::uint64_t loops) {
    // volatile: the loop has no other effect, and must not be optimised away. The count
    // runs down past 0 to the largest value, so the body runs loops + 1 times.
    volatile std::uint64_t counter = loops;
    while (counter != U64_MAX) {
        counter = counter - 1;
    }
}

std::clock_t Bogomips::timeLoop(std::uint64_t loops) const {
    if (timer_) {
        return timer_(loops);
    }
    const std::clock_t start = std::clock();
    delay(loops);
    return std::clock() - start;
}

std::chrono::steady_clock::time_point Bogomips::now() const {
    return clock_ ? clock_() : std::chrono::steady_clock::now();
}

int Bogomips::rate(std::uint64_t loops, std::uint64_t ticks, int processors, unsigned int factor) {
    // Turns per microsecond, then per second; with a try of a second or more never above
    // loops. The products after it may exceed 64 bits only for absurd speeds, and are capped.
    const std::uint64_t loopsPerSecond = (loops / ticks) * MICROS_PER_SECOND;
    std::uint64_t rating =
        timesCapped(loopsPerSecond / LOOPS_PER_BOGOMIP, static_cast<std::uint64_t>(processors));
    if (processors > 1) {
        rating = timesCapped(rating, factor) / FACTOR2;
    }
    constexpr auto intMax = static_cast<std::uint64_t>(std::numeric_limits<int>::max());
    return static_cast<int>(rating < intMax ? rating : intMax);
}

bool Bogomips::calculate() {
    // The rating holds the loop for seconds: what was logged before it is written first.
    KyLog::Flush();
    lastStart_ = now();
    // The count is 64-bit: a processor that runs a turn in under about 0.9 ns passes 2^31
    // turns before a try lasts one processor second, so a 32-bit count overflowed there and
    // left the rating at 0. Doubling ends at 0 when the count overflows.
    for (std::uint64_t loops = 2; loops != 0; loops <<= 1) {
        const std::uint64_t ticks = asMicroseconds(timeLoop(loops));
        if (ticks >= tryMicros_) {
            current_ = rate(loops, ticks, processors_, factor_);
            if (current_ > best_) {
                best_ = current_;
            } else if (current_ < lowest_) {
                lowest_ = current_;
            }
            return true;
        }
    }
    return false;
}

bool Bogomips::recalculateIfStale() {
    // The best rating only ever grows, so frequent re-rating adds little, while every rating
    // stalls the event loop for seconds of processor time and delays the datagrams due
    // meanwhile. An idle machine is therefore re-rated at most every RERATE_AFTER.
    if (lastStart_ && now() - *lastStart_ < RERATE_AFTER) {
        return false;
    }
    return calculate();
}
