// The CPU speed rating: how many turns of an empty counting loop the processor manages per
// processor second, scaled to bogo-MIPS and to the number of processors. Hosts that ask for
// it receive the best rating seen so far.
#pragma once

#include <ctime>
#include <functional>

class Bogomips {
public:
    static constexpr unsigned int FACTOR1 = 80;  // replaces a factor above FACTOR2
    static constexpr unsigned int FACTOR2 = 100; // percent divisor, largest factor accepted
    // Processor time, in clock() units, that the timed loop took for the given loop count.
    using LoopTimer = std::function<std::clock_t(int loops)>;

    // A null timer times the real delay loop.
    Bogomips(int processors, unsigned int factor, LoopTimer timer = {});

    void Initialise();
    // One measurement; false when no try lasted one processor second.
    bool calculate();
    // The busy loop itself: runs loops + 1 turns.
    static void delay(int loops);

    int getBestBogo() const { return best_; }
    int getCurrentBogo() const { return current_; }
    int getLowestBogo() const { return lowest_; }

    // The rating for a loop that ran `loops` turns in `ticks` microseconds of processor time.
    static int rate(unsigned int loops, unsigned int ticks, int processors, unsigned int factor);

private:
    std::clock_t timeLoop(int loops) const;

    int current_ = 0;
    int best_ = 0;
    int lowest_ = 0;
    int processors_;
    unsigned int factor_;
    LoopTimer timer_;
};

// The probe's one rating, made at start-up.
extern Bogomips* myBogomips;
