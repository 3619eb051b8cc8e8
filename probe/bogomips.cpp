// The CPU speed rating: a busy loop timed in processor time, doubled until one try lasts a
// second. The arithmetic is deliberately coarse (integer division before scaling) so the
// ratings stay comparable with those the load balancers already know.
#include "probe/bogomips.h"

Bogomips* myBogomips = nullptr;

namespace {

constexpr unsigned int MICROS_PER_SECOND = 1000000;
constexpr unsigned int LOOPS_PER_BOGOMIP = 500000;

// clock() units as microseconds, whatever the platform's CLOCKS_PER_SEC.
unsigned int asMicroseconds(std::clock_t ticks) {
    if constexpr (CLOCKS_PER_SEC == MICROS_PER_SECOND) {
        return static_cast<unsigned int>(ticks);
    } else {
        return static_cast<unsigned int>(static_cast<long double>(ticks) * MICROS_PER_SECOND /
                                         CLOCKS_PER_SEC);
    }
}

} // namespace

Bogomips::Bogomips(int processors, unsigned int factor, LoopTimer timer)
    : processors_(processors > 0 ? processors : 1), factor_(factor), timer_(std::move(timer)) {
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

void Bogomips::delay(int loops) {
    // volatile: the loop has no other effect, and must not be optimised away.
    volatile int counter = loops;
    while (counter >= 0) {
        counter = counter - 1;
    }
}

std::clock_t Bogomips::timeLoop(int loops) const {
    if (timer_) {
        return timer_(loops);
    }
    const std::clock_t start = std::clock();
    delay(loops);
    return std::clock() - start;
}

int Bogomips::rate(unsigned int loops, unsigned int ticks, int processors, unsigned int factor) {
    const unsigned int loopsPerSecond = (loops / ticks) * MICROS_PER_SECOND;
    int rating = static_cast<int>(loopsPerSecond / LOOPS_PER_BOGOMIP) * processors;
    if (processors > 1) {
        rating = static_cast<int>(static_cast<unsigned int>(rating) * factor / FACTOR2);
    }
    return rating;
}

bool Bogomips::calculate() {
    // Doubling ends at 0 when the unsigned count overflows.
    for (unsigned int loops = 2; loops != 0; loops <<= 1) {
        const unsigned int ticks = asMicroseconds(timeLoop(static_cast<int>(loops)));
        if (ticks >= MICROS_PER_SECOND) {
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
