// The once-a-minute throttle of refusal records.
#include "probe/refusallog.h"

#include <iterator>

#include "probe/messages.h"

bool RefusalLog::note(const KyInetAddr& peer, unsigned port, const KyTimeVal& now) {
    const KyTimeVal quiet(QUIET_SECONDS, 0);
    const auto found = lastLogged_.find(peer.AsUint32());
    if (found != lastLogged_.end() && now < found->second + quiet)
        return false;
    if (lastLogged_.size() >= PRUNE_AT)
        prune(now);
    lastLogged_[peer.AsUint32()] = now;
    LogConnectionRefused(peer.AsString(), port);
    return true;
}

void RefusalLog::prune(const KyTimeVal& now) {
    const KyTimeVal quiet(QUIET_SECONDS, 0);
    for (auto at = lastLogged_.begin(); at != lastLogged_.end();) {
        at = now < at->second + quiet ? std::next(at) : lastLogged_.erase(at);
    }
    // Thousands of distinct addresses within one minute: forgetting them costs a few extra
    // records, keeping them would let the table grow without bound.
    if (lastLogged_.size() >= PRUNE_AT)
        lastLogged_.clear();
}
