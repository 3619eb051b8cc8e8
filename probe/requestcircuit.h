// RequestCircuit: one accepted control connection. It collects the bytes of a single
// request, hands them to its own ParseCommand, queues the one reply and asks its Listener
// to delete it once the event loop is back at the top; the closed connection ends the reply.
#pragma once

#include <cstdint>

#include "lib/bytebuf.h"
#include "lib/bytecircuit.h"
#include "lib/eventloop.h"
#include "lib/file.h"
#include "probe/parsecommand.h"

class Listener;

class RequestCircuit : public KyByteCircuit {
public:
    static constexpr std::uint32_t MAXREQUESTSIZE = 512;
    static constexpr std::uint32_t MINREQUESTSIZE = 11;
    static constexpr const char* BAD_REQUEST_MESSAGE =
        "Message is either too short or too long to be valid";

    // Takes over the connected descriptor fd and starts reading from it.
    RequestCircuit(KyEventLoop& loop, int fd, Listener* listener);
    ~RequestCircuit() override;

    void EndOfFile(bool inMiddle) override;
    void ReadAvail(KyByteBuffer& incoming) override;

    // True when `request` now holds a whole request; a too short one is refused here.
    bool isComplete(KyByteBuffer& request);
    void DispatchRequest(KyByteBuffer& request);
    void SendReply(const KyByteBuffer& reply, bool close);
    void SendReply(const char* text, bool close);

private:
    void finish();

    KyFile reader_;
    KyFile writer_;
    Listener* listener_;
    KyByteBuffer request_;
    KyByteBuffer reply_;
    ParseCommand parser_;
};
