// The CPU speed rating: how many turns of an empty counting loop the processor manages per
// processor second, scaled to bogo-MIPS and to the number of processors. Hosts that ask for
// it receive the best rating seen so far.
#pragma once

#include <chrono>
#include <cstdint>
#include <ctime>
#include <functional>
#include <optional>

class Bogomips {
public:
    static constexpr unsigned int FACTOR1 = 80;  // replaces a factor above FACTOR2
    static constexpr unsigned int FACTOR2 = 100; // percent divisor, largest factor accepted
    // How old the last rating must be before an idle run rates again.
    static constexpr std::chrono::hours RERATE_AFTER{6};
    // Shortens the processor time a rating try must last (milliseconds, default 1000), so
    // tests that start the daemon do not wait seconds for its rating; unset in production.
    static constexpr const char* TRY_LENGTH_ENV = "HOSTGAUGE_RATING_MS";

    // Processor time, in clock() units, that the timed loop took for the given loop count.
    using LoopTimer = std::function<std::clock_t(std::uint64_t loops)>;
    // The monotonic time at which a rating starts.
    using Clock = std::function<std::chrono::steady_clock::time_point()>;

    // A null timer times the real delay loop; a null clock reads std::chrono::steady_clock.
    Bogomips(int processors, unsigned int factor, LoopTimer timer = {}, Clock clock = {});

    void Initialise();
    // One measurement; false when no try lasted one processor second.
    bool calculate();
    // Measures again only when the last measurement, successful or not, started at least
    // RERATE_AFTER ago; the result of calculate() then, false when it is not due.
    bool recalculateIfStale();
    // The busy loop itself: runs loops + 1 turns.
    static void delay(std::uint64_t loops);

    int getBestBogo() const { return best_; }
    int getCurrentBogo() const { return current_; }
    int getLowestBogo() const { return lowest_; }

    // The rating for a loop that ran `loops` turns in `ticks` microseconds of processor time,
    // capped at the largest int.
    static int rate(std::uint64_t loops, std::uint64_t ticks, int processors, unsigned int factor);

private:
    std::clock_t timeLoop(std::uint64_t loops) const;
    std::chrono::steady_clock::time_point now() const;

    int current_ = 0;
    int best_ = 0;
    int lowest_ = 0;
    int processors_;
    unsigned int factor_;
    std::uint64_t tryMicros_;
    LoopTimer timer_;
    Clock clock_;
    std::optional<std::chrono::steady_clock::time_point> lastStart_;
};

// The probe's one rating, made at start-up.
extern Bogomips* myBogomips;
