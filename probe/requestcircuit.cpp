// One control connection from accept to close: the request is whatever the first read that
// reaches the minimum length brings (there is no framing), the reply is one line, and the
// connection closes once the whole reply has been written; the object goes a pass later.
#include "probe/requestcircuit.h"

#include <cstring>
#include <ctime>
#include <string>

#include "lib/codeset/converter.h"
#include "lib/time.h"
#include "lib/unistring.h"
#include "probe/counters.h"
#include "probe/httprequest.h"
#include "probe/listener.h"
#include "probe/messages.h"
#include "probe/metricspage.h"
#include "probe/statuspage.h"

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
        ReadUpTo(READ_CHUNK);
        return;
    }
    // A read that filled the chunk may have left more behind: the request is everything
    // that has arrived, so the rest is taken too before it is judged.
    const bool filled = incoming.Length() == READ_CHUNK;
    request_.Append(TakeIncoming());
    if (filled) {
        long available = 0;
        if (connection_.AmountAvailable(available) && available > 0) {
            ReadMore(static_cast<unsigned>(available));
            return;
        }
    }
    // HTTP GETs are read up to the end of their headers, which browsers make longer than
    // the 512 bytes that bound every other request; those keep their one-read framing.
    switch (HttpRequest::frame(request_.AsStringView())) {
    case HttpRequest::Framing::Partial:
        if (!legacyLineInHand()) {
            return; // the rest of the headers comes with a later read
        }
        break;
    case HttpRequest::Framing::Complete:
        serveHttp();
        return;
    case HttpRequest::Framing::TooLong:
        refuseLength();
        return;
    case HttpRequest::Framing::NotHttp:
        break;
    }
    if (request_.Length() > MAXREQUESTSIZE) {
        refuseLength();
        return;
    }
    KyByteBuffer request;
    if (isComplete(request)) {
        DispatchRequest(request);
        request_.Truncate(0);
    }
}

// A GET line of the balancers' own protocol that has not ended is answered from the read
// in hand, as it always was: such a client may never send the line's end.
bool RequestCircuit::legacyLineInHand() const {
    const std::string_view text = request_.AsStringView();
    return text.find('\n') == std::string_view::npos &&
           text.find(PROTOCOL_MARK) != std::string_view::npos &&
           request_.Length() >= MINREQUESTSIZE;
}

void RequestCircuit::refuseLength() {
    ++myCounters.badRequests;
    LogBadCommand(KyScalar<unsigned>(request_.Length()), KyUniString(request_.AsStringView()));
    SendReply(BAD_REQUEST_MESSAGE, true);
}

void RequestCircuit::serveHttp() {
    const std::string_view text = request_.AsStringView();
    const HttpRequest http(text);
    // The status query old balancers send keeps its raw reply; only a browser, which lists
    // text/html among what it accepts, gets a status line and headers before the same XML.
    if (text.find(PROTOCOL_MARK) != std::string_view::npos) {
        KyByteBuffer request = request_;
        DispatchRequest(request, http.acceptsHtml() ? HttpRequest::XML_HEAD : std::string_view());
        return;
    }
    std::string response;
    if (http.path() == "/metrics") {
        ++myCounters.metricsPages;
        response = HttpRequest::response("200 OK", MetricsPage::CONTENT_TYPE,
                                         MetricsPage::render(myCounters.startedAt));
    } else if (http.path() == "/" || http.path() == "/status") {
        ++myCounters.statusPages;
        response =
            HttpRequest::response("200 OK", "text/html; charset=utf-8",
                                  StatusPage::render(myCounters.startedAt, std::time(nullptr)));
    } else {
        ++myCounters.notFound;
        response = HttpRequest::response("404 Not Found", "text/html; charset=utf-8",
                                         StatusPage::notFound());
    }
    QueueReply(KyByteBuffer(static_cast<std::uint32_t>(response.size()), response.data()), true);
}

bool RequestCircuit::isComplete(KyByteBuffer& request) {
    if (request_.Length() >= MINREQUESTSIZE) {
        request = request_;
        return true;
    }
    // The log shows the still empty output buffer rather than the short request.
    ++myCounters.badRequests;
    LogBadCommand(KyScalar<unsigned>(request_.Length()), KyUniString(request.AsStringView()));
    request_.Truncate(0);
    SendReply(BAD_REQUEST_MESSAGE, true);
    return false;
}

void RequestCircuit::DispatchRequest(KyByteBuffer& request, std::string_view head) {
    KyUniString text;
    text.CreateFrom(request, KyEncodingUtf8);
    // Encoded once: the log record takes the same bytes that go out (a status report runs
    // to megabytes, and converting it a second time for the log doubled the cost).
    reply_ = parser_.doCommand(text).Str().AsEncoding(KyEncodingUtf8);
    LogResponseText(reply_.AsStringView());
    if (!head.empty()) {
        QueueReply(KyByteBuffer(static_cast<std::uint32_t>(head.size()), head.data()), false);
    }
    QueueReply(reply_, true);
}

void RequestCircuit::SendReply(const KyByteBuffer& reply, bool close) {
    LogResponseText(reply.AsStringView());
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
