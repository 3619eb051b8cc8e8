// The control port's listening socket and the life of its connections: accept, hand the
// descriptor to a RequestCircuit, and delete answered circuits on the loop's next pass.
#include "probe/listener.h"

#include <algorithm>
#include <cerrno>

#include "lib/inetaddr.h"
#include "lib/time.h"
#include "probe/messages.h"

Listener* myListener = nullptr;

namespace {

// A zero time is always past, so the deletion fires on the loop's next pass.
const KyTimeVal kNextPass(0, 0);

} // namespace

Listener::Listener(KyEventLoop& loop) : acceptCallback_(this, &Listener::acceptCB), loop_(loop) {}

Listener::~Listener() {
    RemoveCallback();
    if (fd_ != -1) {
        socket_.Close();
    }
    // Withdrawing a timeout runs deleteCB once more, which frees its circuit and itself.
    while (!pending_.empty()) {
        if (!loop_.RemoveTimeoutEvent(kNextPass, pending_.back().callback.get())) {
            pending_.pop_back();
        }
    }
}

KyStatus Listener::startListener(int port) {
    if (!startListeningSocket(port)) {
        return Failure;
    }
    AddCallback();
    return Success;
}

KyStatus Listener::startListeningSocket(int port) {
    fd_ = -1;
    KyInetAddr address = KyInetAddr::AddressAny();
    address.Port(static_cast<unsigned>(port));
    const auto portNumber = KyScalar<unsigned>(static_cast<unsigned>(port));
    if (!socket_.Bind(KySocketAddress(address), KySocket::Stream, true, 0, false)) {
        LogBindFailed(portNumber, socket_.LastError().Reason());
        return Failure;
    }
    if (!socket_.Listen(LISTEN_BACKLOG)) {
        LogListenFailed(portNumber, socket_.LastError().Reason());
        return Failure;
    }
    socket_.SetBlocking(false);
    socket_.SetCloseOnDestruct(false);
    // The load tool is forked again and again; it must not inherit the control port.
    socket_.SetCloseOnExec(true);
    fd_ = socket_.FileDescriptor();
    return Success;
}

void Listener::AddCallback() {
    if (!registered_ && fd_ >= 0) {
        registered_ = loop_.AddFileEvent(static_cast<unsigned>(fd_), true, false,
                                         &acceptCallback_) == Success;
    }
}

void Listener::RemoveCallback() {
    if (registered_) {
        registered_ = loop_.RemoveFileEvent(static_cast<unsigned>(fd_), true, false,
                                            &acceptCallback_) != Success;
    }
}

void Listener::acceptCB(KyCallback<cbdispatch>*, cbdispatch reason) {
    if (reason != KyEvent::Fired) {
        return;
    }
    KySocket connection;
    if (!connection.AcceptFrom(fd_)) {
        // The pending connection went away between the readiness and the accept.
        if (connection.ErrorErrno() != EWOULDBLOCK) {
            LogAcceptFail(connection.LastError().Reason());
        }
        return;
    }
    KyInetAddr peer;
    if (!connection.RemoteAddress(peer)) {
        LogRemoteAddressFail();
        return; // the socket object closes the connection
    }
    LogNewConnection(peer.AsString());
    connection.SetCloseOnDestruct(false);
    startNewConnection(connection.FileDescriptor());
}

void Listener::startNewConnection(int fd) {
    circuits_.push_back(std::make_unique<RequestCircuit>(loop_, fd, this));
}

void Listener::DeleteRequestCircuit(RequestCircuit* circuit) {
    const auto live = std::find_if(circuits_.begin(), circuits_.end(),
                                   [circuit](const auto& owned) { return owned.get() == circuit; });
    if (live == circuits_.end()) {
        return; // already on its way out
    }
    PendingDeletion deletion{std::make_unique<DeleteCallback>(this, &Listener::deleteCB, circuit),
                             std::move(*live)};
    circuits_.erase(live);
    loop_.AddTimeoutEvent(kNextPass, deletion.callback.get());
    pending_.push_back(std::move(deletion));
}

void Listener::deleteCB(KyCallback<cbdispatch>* callback, cbdispatch, RequestCircuit*) {
    // Whatever the reason, the circuit goes and so does the callback that carried it; the
    // callback is still running, but nothing of it is touched after this returns.
    const auto entry = std::find_if(pending_.begin(), pending_.end(), [callback](const auto& p) {
        return p.callback.get() == callback;
    });
    if (entry != pending_.end()) {
        pending_.erase(entry);
    }
}
