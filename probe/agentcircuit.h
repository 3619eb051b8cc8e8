// AgentCircuit: one connection to the agent port. It answers with the agent line at once,
// without waiting for input, shuts its sending side once the line is out, and reads and
// drops whatever the balancer sends until the balancer closes (or the idle limit ends it).
#pragma once

#include "lib/bytebuf.h"
#include "probe/requestcircuit.h"

class AgentCircuit : public RequestCircuit {
public:
    using RequestCircuit::RequestCircuit;

    // Writes the line (queued if the socket is full); the listener calls it once the circuit
    // is live.
    void answer();

    void ReadAvail(KyByteBuffer& incoming) override;
    // Counts the line's bytes out; after the last one the sending side is shut.
    void WriteMore(unsigned written) override;
    // A balancer that reset the connection: nothing more will come.
    void ReadError() override;
    // Silent past the limit after the answer: closed without the bad-request record.
    void closeIdle() override;

private:
    KyByteBuffer line_;
    std::uint32_t unsent_ = 0;
};
