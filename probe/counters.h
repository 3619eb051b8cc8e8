// Counters: what the daemon has done since it started, for the metrics page. Plain
// integers bumped where the work happens; nothing resets them (a SIGHUP only reopens logs).
#pragma once

#include <cstdint>
#include <ctime>

struct Counters {
    // When main started the daemon, in seconds since the epoch.
    std::time_t startedAt = 0;
    // Control requests by command, and those answered with an error reply or refused as
    // too short or too long.
    std::uint64_t creates = 0;
    std::uint64_t kills = 0;
    std::uint64_t statusQueries = 0;
    std::uint64_t admins = 0;
    std::uint64_t errorReplies = 0;
    std::uint64_t badRequests = 0;
    // HTTP views on the control port, and agent-port answers.
    std::uint64_t metricsPages = 0;
    std::uint64_t statusPages = 0;
    std::uint64_t notFound = 0;
    std::uint64_t agentAnswers = 0;
    // Load datagrams that left, and those the kernel refused.
    std::uint64_t datagramsSent = 0;
    std::uint64_t datagramsFailed = 0;
    // Load-tool runs started, and runs that ended without a sample.
    std::uint64_t toolRuns = 0;
    std::uint64_t emptyToolRuns = 0;
};

// The process's one set of counters; zero from static initialisation, so any unit may count.
extern Counters myCounters;
