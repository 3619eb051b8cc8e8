// RefusalLog: logs connections refused by the allow list at most once a minute per
// address, so a client that retries in a loop cannot flood the logs. The table of
// addresses forgets entries older than a minute once it grows, so it stays small.
#pragma once

#include <cstdint>
#include <unordered_map>

#include "lib/inetaddr.h"
#include "lib/time.h"

class RefusalLog {
public:
    static constexpr std::uint32_t QUIET_SECONDS = 60;
    static constexpr std::size_t PRUNE_AT = 4096;

    // Logs the refusal unless this address was logged within the last minute; true if logged.
    bool note(const KyInetAddr& peer, unsigned port, const KyTimeVal& now);
    std::size_t remembered() const { return lastLogged_.size(); }

private:
    void prune(const KyTimeVal& now);

    std::unordered_map<std::uint32_t, KyTimeVal> lastLogged_;
};
