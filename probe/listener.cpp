// The control port's listening socket and the life of its connections: accept, hand the
// descriptor to a RequestCircuit, close the silent ones, rest when descriptors run out, and
// delete finished circuits on the loop's next pass.
#include "probe/listener.h"

#include <sys/resource.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <limits>
#include <string>

#include "lib/inetaddr.h"
#include "lib/time.h"
#include "probe/agentcircuit.h"
#include "probe/allowlist.h"
#include "probe/messages.h"

Listener* myListener = nullptr;
Listener* myAgentListener = nullptr;

namespace {

// A zero time is always past, so the deletion fires on the loop's next pass.
const KyTimeVal kNextPass(0, 0);

KyTimeVal FromMilliseconds(unsigned long milliseconds) {
    return KyTimeVal(static_cast<std::uint32_t>(milliseconds / 1000),
                     static_cast<std::uint32_t>(milliseconds % 1000 * 1000));
}

// The idle limit, which tests shorten through the environment so they need not wait 10 s.
KyTimeVal IdleLimit() {
    const char* text = std::getenv(Listener::IDLE_LIMIT_ENV);
    if (text != nullptr) {
        char* end = nullptr;
        const unsigned long milliseconds = std::strtoul(text, &end, 10);
        if (end != text && *end == '\0' && milliseconds > 0)
            return FromMilliseconds(milliseconds);
    }
    return FromMilliseconds(Listener::IDLE_LIMIT_MS);
}

// Connections may hold all descriptors but the reserve and those already open at start-up
// (below firstFree, as descriptors are handed out lowest first).
std::size_t ConnectionLimit(int firstFree) {
    rlimit limit{};
    if (::getrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur == RLIM_INFINITY)
        return std::numeric_limits<std::size_t>::max();
    const rlim_t kept = static_cast<rlim_t>(firstFree) + Listener::RESERVED_DESCRIPTORS;
    return limit.rlim_cur > kept ? static_cast<std::size_t>(limit.rlim_cur - kept) : 1;
}

} // namespace

Listener::Listener(KyEventLoop& loop, Kind kind)
    : acceptCallback_(this, &Listener::acceptCB), loop_(loop), idleLimit_(IdleLimit()),
      connectionLimit_(std::numeric_limits<std::size_t>::max()), kind_(kind) {}

Listener::~Listener() {
    disarm(resumeTimer_);
    disarm(idleTimer_);
    RemoveCallback();
    if (fd_ != -1) {
        socket_.Close();
    }
    // Withdrawing the timeout runs deleteCB once more, which frees the pending circuits.
    if (deletionArmed_) {
        loop_.RemoveTimeoutEvent(kNextPass, &deleteCallback_);
    }
    pending_.clear();
}

KyStatus Listener::startListener(int port) {
    port_ = static_cast<unsigned>(port);
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
    connectionLimit_ = ConnectionLimit(fd_ + 1);
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
    // No circuit is on the call stack here, and under steady load the zero-delay timeout
    // would wait: finished circuits go now.
    pending_.clear();
    // Timeouts fire only when the loop is idle; a steady stream of clients must not keep
    // silent connections open past their limit.
    if (idleTimer_.armed && idleTimer_.due <= KyTimeVal()) {
        closeIdleCircuits(KyTimeVal());
    }
    // Everything queued is taken now: one accept per wake-up cannot keep up with a burst.
    while (registered_ && acceptOne()) {
    }
}

bool Listener::acceptOne() {
    if (atConnectionLimit()) {
        // Pre-empts EMFILE so that the load tool's pipe and the log files can still open;
        // accepting resumes as soon as a connection ends.
        KyUnixError limit;
        limit.Set("accept", KyUniString(std::string_view(std::to_string(fd_) + ",0,0")), EMFILE);
        stopAccepting(limit);
        return false;
    }
    KySocket connection;
    if (!connection.AcceptFrom(fd_, SOCK_NONBLOCK | SOCK_CLOEXEC)) {
        const int error = connection.ErrorErrno();
        if (error == EMFILE || error == ENFILE) {
            // Nothing here tells when descriptors free up elsewhere: try again in a second.
            stopAccepting(connection.LastError());
            arm(resumeTimer_, KyTimeVal() + KyTimeVal(ACCEPT_PAUSE_SECONDS, 0));
        } else if (error == EAGAIN || error == EWOULDBLOCK) {
            // Every waiting client has been taken (or the one pending went away meanwhile).
            outOfDescriptors_ = false;
        } else {
            LogAcceptFail(connection.LastError().Reason());
        }
        return false;
    }
    KyInetAddr peer;
    if (!connection.RemoteAddress(peer)) {
        LogRemoteAddressFail();
        return true; // the socket object closes the connection
    }
    if (!admits(peer)) {
        return true; // closed unread and unanswered by the socket object
    }
    LogNewConnection(peer.AsString());
    connection.SetCloseOnDestruct(false);
    startNewConnection(connection.FileDescriptor(), true);
    return true;
}

bool Listener::atConnectionLimit() const {
    return circuits_.size() >= connectionLimit_;
}

// Without descriptors the pending connection stays queued and the socket stays readable, so
// watching it would spin. One log line per shortage, which lasts until the queue is empty.
void Listener::stopAccepting(const KyUnixError& reason) {
    RemoveCallback();
    if (!outOfDescriptors_) {
        LogAcceptFail(reason.Reason());
        outOfDescriptors_ = true;
    }
}

void Listener::resumeCB(KyCallback<cbdispatch>*, cbdispatch reason) {
    resumeTimer_.armed = false;
    if (reason == KyEvent::Fired) {
        AddCallback();
    }
}

void Listener::idleCB(KyCallback<cbdispatch>*, cbdispatch reason) {
    idleTimer_.armed = false;
    if (reason == KyEvent::Fired) {
        closeIdleCircuits(KyTimeVal());
    }
}

// A connection that has not sent its request within the limit is closed without a reply,
// so silent clients cannot pin descriptors.
void Listener::closeIdleCircuits(const KyTimeVal& now) {
    std::vector<RequestCircuit*> expired;
    for (const auto& circuit : circuits_) {
        if (circuit->awaitingRequest() && circuit->acceptedAt() + idleLimit_ <= now) {
            expired.push_back(circuit.get());
        }
    }
    for (RequestCircuit* circuit : expired) {
        circuit->closeIdle();
    }
    armIdleTimer();
}

// Circuits stay in accept order, so the first one still waiting is the next to expire.
void Listener::armIdleTimer() {
    const auto waiting = std::find_if(circuits_.begin(), circuits_.end(), [](const auto& circuit) {
        return circuit->awaitingRequest();
    });
    if (waiting != circuits_.end()) {
        arm(idleTimer_, (*waiting)->acceptedAt() + idleLimit_);
    }
}

void Listener::arm(OwnTimer& timer, const KyTimeVal& due) {
    if (timer.armed) {
        return;
    }
    timer.due = due;
    loop_.AddTimeoutEvent(due, &timer.callback);
    timer.armed = true;
}

void Listener::disarm(OwnTimer& timer) {
    if (timer.armed) {
        // The withdrawal notice clears the flag.
        loop_.RemoveTimeoutEvent(timer.due, &timer.callback);
        timer.armed = false;
    }
}

void Listener::startNewConnection(int fd, bool prepared) {
    if (kind_ == Kind::Agent) {
        auto agent = std::make_unique<AgentCircuit>(loop_, fd, this, prepared);
        AgentCircuit* answering = agent.get();
        circuits_.push_back(std::move(agent));
        // Answered once it is in the live list, so a write error can take it out again.
        answering->answer();
    } else {
        circuits_.push_back(std::make_unique<RequestCircuit>(loop_, fd, this, prepared));
    }
    armIdleTimer();
}

bool Listener::admits(const KyInetAddr& peer) {
    if (myAllowList == nullptr || myAllowList->permits(peer)) {
        return true;
    }
    refusals_.note(peer, port_, KyTimeVal());
    return false;
}

void Listener::DeleteRequestCircuit(RequestCircuit* circuit) {
    const auto live = std::find_if(circuits_.begin(), circuits_.end(),
                                   [circuit](const auto& owned) { return owned.get() == circuit; });
    if (live == circuits_.end()) {
        return; // already on its way out
    }
    pending_.push_back(std::move(*live));
    circuits_.erase(live);
    if (!registered_ && !resumeTimer_.armed && !atConnectionLimit()) {
        AddCallback(); // a connection slot is free again after a stop at the limit
    }
    if (!deletionArmed_) {
        loop_.AddTimeoutEvent(kNextPass, &deleteCallback_);
        deletionArmed_ = true;
    }
}

void Listener::deleteCB(KyCallback<cbdispatch>*, cbdispatch, RequestCircuit*) {
    // Whatever the reason, every circuit waiting for deletion goes.
    deletionArmed_ = false;
    pending_.clear();
}
