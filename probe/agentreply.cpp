// Building the agent line. The average is the one a load datagram would carry for the
// configured window, so both kinds of balancer see the same figure.
#include "probe/agentreply.h"

#include <algorithm>

#include "probe/bogomips.h"
#include "probe/bootstrap.h"
#include "probe/cache.h"

std::string AgentReply::format(AdminState::Mode mode, bool announceReady,
                               const std::optional<Reading>& reading) {
    if (mode == AdminState::Mode::Drain)
        return "0% drain # drained by operator\n";
    if (mode == AdminState::Mode::Maint)
        return "maint # maintenance by operator\n";
    // "ready" also clears a drain an operator set on the balancer itself, so it is sent only
    // for a while after a local drain or maintenance ended.
    const std::string up = announceReady ? "up ready" : "up";
    if (!reading) // no weight: the balancer keeps the one it has
        return up + " # no load samples yet\n";
    const unsigned weight = std::clamp(reading->idle, MIN_WEIGHT, MAX_WEIGHT);
    return std::to_string(weight) + "% " + up + " # idle " + std::to_string(reading->idle) +
           "% rating " + std::to_string(reading->bogo) + " samples " +
           std::to_string(reading->samples) + "\n";
}

std::string AgentReply::current() {
    const AdminState::Mode mode = myAdminState ? myAdminState->mode() : AdminState::Mode::Ready;
    const bool announce = myAdminState != nullptr && myAdminState->announceReady();
    std::optional<Reading> reading;
    const unsigned window = myBootstrap ? myBootstrap->getWindowSize() : 1;
    if (myCache != nullptr) {
        if (const auto average = myCache->getAverageOfNIdleValues(window)) {
            const auto samples = std::min<std::size_t>(window, myCache->getLength());
            reading = Reading{average->getIdle(), myBogomips ? myBogomips->getBestBogo() : 0,
                              static_cast<unsigned>(samples)};
        }
    }
    return format(mode, announce, reading);
}
