// The agent connection's life. Closing a socket that still holds unread bytes makes the
// kernel send a reset, which can destroy the answer before the balancer reads it; so the
// circuit only half-closes after writing and drains the input up to the balancer's close.
#include "probe/agentcircuit.h"

#include <sys/socket.h>

#include <algorithm>

#include "probe/agentreply.h"

void AgentCircuit::answer() {
    const std::string text = AgentReply::current();
    line_ = KyByteBuffer(static_cast<std::uint32_t>(text.size()), text.data());
    Write(line_, true);
    if (isOpen()) {
        StopWrite(false);
    }
}

void AgentCircuit::ReadAvail(KyByteBuffer& incoming) {
    if (incoming.Length() == 0) {
        ReadMore(4096);
        return;
    }
    TakeIncoming(); // what the balancer sends (agent-send) carries nothing the answer needs
}

void AgentCircuit::WriteStopped() {
    // The balancer sees the end of the line; the descriptor stays open for the drain.
    ::shutdown(descriptor(), SHUT_WR);
}

void AgentCircuit::ReadError() {
    finish();
}

void AgentCircuit::closeIdle() {
    finish();
}
