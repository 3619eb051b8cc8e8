// One control connection from accept to close: the request is whatever the first read that
// reaches the minimum length brings (there is no framing), the reply is one line, and the
// connection closes once the whole reply has been written; the object goes a pass later.
#include "probe/requestcircuit.h"

#include <algorithm>
#include <cstring>

#include "lib/codeset/converter.h"
#include "lib/time.h"
#include "lib/unistring.h"
#include "probe/listener.h"
#include "probe/messages.h"

RequestCircuit::RequestCircuit(KyEventLoop& loop, int fd, Listener* listener, bool prepared)
    : KyByteCircuit(loop), connection_(fd), listener_(listener), accepted_(MonotonicMicros()) {
    if (!prepared) {
        connection_.SetBlocking(false);
        // A load-tool run forked while this connection is open must not hold it open too.
        connection_.SetCloseOnExec(true);
    }
    // One socket both ways: its writes use send() without SIGPIPE.
    input_ = &connection_;
    output_ = &connection_;
    WantRead();
}

RequestCircuit::~RequestCircuit() {
    // The base class would unregister through the file objects after they are gone; drop
    // the registrations while they still exist.
    while (StopRead() > 0) {
    }
    StopWrite(true);
    connection_.Close();
}

void RequestCircuit::ReadAvail(KyByteBuffer& incoming) {
    if (incoming.Length() == 0) {
        long available = 0;
        connection_.AmountAvailable(available);
        ReadMore(static_cast<unsigned>(std::max(available, 1L)));
        return;
    }
    request_.Append(TakeIncoming());
    if (request_.Length() > MAXREQUESTSIZE) {
        LogBadCommand(KyScalar<unsigned>(request_.Length()), KyUniString(request_.AsStringView()));
        SendReply(BAD_REQUEST_MESSAGE, true);
        return;
    }
    KyByteBuffer request;
    if (isComplete(request)) {
        DispatchRequest(request);
        request_.Truncate(0);
    }
}

bool RequestCircuit::isComplete(KyByteBuffer& request) {
    if (request_.Length() >= MINREQUESTSIZE) {
        request = request_;
        return true;
    }
    // The log shows the still empty output buffer rather than the short request.
    LogBadCommand(KyScalar<unsigned>(request_.Length()), KyUniString(request.AsStringView()));
    request_.Truncate(0);
    SendReply(BAD_REQUEST_MESSAGE, true);
    return false;
}

void RequestCircuit::DispatchRequest(KyByteBuffer& request) {
    KyUniString text;
    text.CreateFrom(request, KyEncodingUtf8);
    const KyUniString reply = parser_.doCommand(text).Str();
    // Logged from the text in hand: a status report runs to megabytes, and decoding its
    // bytes again only to log them doubled the cost of answering.
    LogResponseText(reply);
    reply_ = reply.AsEncoding(KyEncodingUtf8);
    QueueReply(reply_, true);
}

void RequestCircuit::SendReply(const KyByteBuffer& reply, bool close) {
    KyUniString text;
    text.CreateFrom(reply, KyEncodingUtf8);
    LogResponseText(text);
    QueueReply(reply, close);
}

void RequestCircuit::QueueReply(const KyByteBuffer& reply, bool close) {
    progress_ = MonotonicMicros();
    Write(reply, true);
    if (close && isOpen()) {
        answered_ = true;
        while (StopRead() > 0) {
        }
        // The close waits behind the reply in the queue, so a slow reader still gets all of
        // it, and it happens the moment the last byte is written, not on a later loop pass
        // (a zero-delay timeout waits while other connections keep the loop busy).
        StopWrite(false);
        if (writingReply()) {
            listener_->watchReply(*this); // the rest waits for the peer to read
        }
    }
}

void RequestCircuit::SendReply(const char* text, bool close) {
    SendReply(KyByteBuffer(static_cast<std::uint32_t>(std::strlen(text)), text), close);
}

void RequestCircuit::EndOfFile(bool) {
    finish();
}

void RequestCircuit::WriteStopped() {
    finish();
}

void RequestCircuit::WriteMore(unsigned) {
    progress_ = MonotonicMicros();
}

// A reset or failed connection has nothing more to say: closed now, not after the idle limit.
void RequestCircuit::ReadError() {
    finish();
}

bool RequestCircuit::hasUnreadInput() {
    long available = 0;
    return connection_.AmountAvailable(available) && available > 0;
}

void RequestCircuit::closeStalled() {
    StopWrite(true);
    finish();
}

void RequestCircuit::WriteError() {
    // A peer that reset the connection: drop what is left of the reply and close now.
    KyByteCircuit::WriteError();
    finish();
}

void RequestCircuit::closeIdle() {
    // Logged like an empty request, so an operator sees who holds connections open silently.
    LogBadCommand(KyScalar<unsigned>(0), KyUniString());
    finish();
}

// Leaves the write queue alone: this may run from inside the queue walk (WriteStopped).
void RequestCircuit::finish() {
    while (StopRead() > 0) {
    }
    connection_.Close();
    listener_->DeleteRequestCircuit(this);
}
