// RequestCircuit: one accepted control connection. It collects the bytes of a single
// request, hands them to its own ParseCommand, queues the one reply, closes the connection
// as soon as that reply has left and then asks its Listener to delete it on a later pass.
#pragma once

#include <cstdint>
#include <string_view>

#include "lib/bytebuf.h"
#include "lib/bytecircuit.h"
#include "lib/eventloop.h"
#include "lib/socket.h"
#include "probe/parsecommand.h"

class Listener;

class RequestCircuit : public KyByteCircuit {
public:
    static constexpr std::uint32_t MAXREQUESTSIZE = 512;
    static constexpr std::uint32_t MINREQUESTSIZE = 11;
    // Bytes asked of the first read: every request of the protocol and most browsers' and
    // scrapers' GETs come whole in one read of this size. Below 1 KiB the buffer stays
    // among the allocator's small sizes, whose requests do not make it tidy up its caches.
    static constexpr std::uint32_t READ_CHUNK = 960;
    static constexpr const char* BAD_REQUEST_MESSAGE =
        "Message is either too short or too long to be valid";
    // Every request of the balancers' own protocol names it ("<cvnlbreq", "?get&cvnlbinfo"):
    // such an HTTP request goes to the parser, not to the browser views.
    static constexpr std::string_view PROTOCOL_MARK = "cvnlb";

    // Takes over the connected descriptor fd and starts reading from it. `prepared` says fd
    // is already non-blocking and close-on-exec (accepted so), which saves four system calls.
    RequestCircuit(KyEventLoop& loop, int fd, Listener* listener, bool prepared = false);
    ~RequestCircuit() override;

    void EndOfFile(bool inMiddle) override;
    void ReadAvail(KyByteBuffer& incoming) override;
    void ReadError() override;
    void WriteError() override;
    void WriteStopped() override;
    void WriteMore(unsigned written) override;

    // True when `request` now holds a whole request; a too short one is refused here.
    bool isComplete(KyByteBuffer& request);
    // `head` goes out before the reply: the HTTP status line and headers a browser needs.
    void DispatchRequest(KyByteBuffer& request, std::string_view head = {});
    // An HTTP GET whose headers are all in: a view by path, or the status query.
    void serveHttp();
    bool legacyLineInHand() const;
    // Refuses a request whose length is out of bounds, as too short or too long.
    void refuseLength();
    void SendReply(const KyByteBuffer& reply, bool close);
    void SendReply(const char* text, bool close);
    void QueueReply(const KyByteBuffer& reply, bool close);

    // Ends a connection that has sent nothing for too long: no reply, just the close.
    virtual void closeIdle();
    // Ends a connection whose reader stopped taking the reply: the rest is dropped.
    void closeStalled();
    // Still waiting for its request: neither answered nor ended.
    bool awaitingRequest() const { return !answered_ && isOpen(); }
    // Answered, and the reply is still being written.
    bool writingReply() const { return answered_ && isOpen(); }
    bool isOpen() const { return connection_.FileDescriptor() >= 0; }
    // Bytes that have arrived but not been read yet.
    bool hasUnreadInput();
    // On the monotonic clock, in microseconds: when the connection was accepted, and when
    // its reply was queued or last made progress.
    std::uint64_t acceptedAt() const { return accepted_; }
    std::uint64_t lastProgress() const { return progress_; }

protected:
    void finish();
    int descriptor() const { return connection_.FileDescriptor(); }

private:
    KySocket connection_;
    Listener* listener_;
    std::uint64_t accepted_;
    std::uint64_t progress_ = 0;
    bool answered_ = false;
    KyByteBuffer request_;
    KyByteBuffer reply_;
    ParseCommand parser_;
};
