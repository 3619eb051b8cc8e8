// The agent connection's life. Closing a socket that still holds unread bytes makes the
// kernel send a reset, which can destroy the answer before the balancer reads it; so the
// circuit only half-closes after writing and drains the input up to the balancer's close.
#include "probe/agentcircuit.h"

#include <sys/socket.h>

#include <algorithm>

#include "probe/agentreply.h"
#include "probe/counters.h"

void AgentCircuit::answer() {
    ++myCounters.agentAnswers;
    const std::string text = AgentReply::current();
    line_ = KyByteBuffer(static_cast<std::uint32_t>(text.size()), text.data());
    unsent_ = line_.Length();
    // Not through a queued stop: that closes the descriptor, which must stay open to drain.
    Write(line_, true);
}

void AgentCircuit::ReadAvail(KyByteBuffer& incoming) {
    if (incoming.Length() == 0) {
        ReadMore(4096);
        return;
    }
    TakeIncoming(); // what the balancer sends (agent-send) carries nothing the answer needs
}

void AgentCircuit::WriteMore(unsigned written) {
    unsent_ -= std::min<std::uint32_t>(written, unsent_);
    if (unsent_ == 0 && isOpen()) {
        // The balancer sees the end of the answer; the descriptor stays open for the drain.
        ::shutdown(descriptor(), SHUT_WR);
    }
}

void AgentCircuit::ReadError() {
    finish();
}

void AgentCircuit::closeIdle() {
    finish();
}
