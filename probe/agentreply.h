// AgentReply: the one line the agent port answers, in the form load balancers' agent
// checks read: a weight from the averaged idle CPU and the server's state, then a
// description after "#" that operators see in the balancer's statistics.
#pragma once

#include <optional>
#include <string>

#include "probe/adminstate.h"

class AgentReply {
public:
    // What the line is built from: the averaged idle, the CPU rating and how many samples
    // went into the average.
    struct Reading {
        unsigned idle;
        long bogo;
        unsigned samples;
    };

    // Never 0 from load alone: a fully busy server stays in rotation with the least weight.
    static constexpr unsigned MIN_WEIGHT = 1;
    static constexpr unsigned MAX_WEIGHT = 100;

    static std::string format(AdminState::Mode mode, bool announceReady,
                              const std::optional<Reading>& reading);
    // The line for now: the newest configured window of the cache and the probe's state.
    static std::string current();
};
