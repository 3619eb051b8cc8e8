// The control port's listening socket and the life of its connections: accept, hand the
// descriptor to a RequestCircuit, close the silent ones and those that stop reading, rest
// when descriptors run out, and delete finished circuits on the loop's next pass.
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

// A limit in milliseconds, which tests shorten through the environment so they need not
// wait; returned in microseconds.
std::uint64_t LimitFromEnvironment(const char* name, unsigned defaultMilliseconds) {
    unsigned long milliseconds = defaultMilliseconds;
    if (const char* text = std::getenv(name); text != nullptr) {
        char* end = nullptr;
        const unsigned long value = std::strtoul(text, &end, 10);
        if (end != text && *end == '\0' && value > 0)
            milliseconds = value;
    }
    return std::uint64_t{milliseconds} * 1000;
}

// The wall-clock time at which the monotonic time `due` comes, for the loop's timeouts.
KyTimeVal WallTimeOf(std::uint64_t due) {
    const std::uint64_t now = MonotonicMicros();
    const std::uint64_t ahead = due > now ? due - now : 0;
    return KyTimeVal() + KyTimeVal(static_cast<std::uint32_t>(ahead / 1000000),
                                   static_cast<std::uint32_t>(ahead % 1000000));
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
    : acceptCallback_(this, &Listener::acceptCB), loop_(loop),
      idleLimit_(LimitFromEnvironment(IDLE_LIMIT_ENV, IDLE_LIMIT_MS)),
      writeLimit_(LimitFromEnvironment(WRITE_LIMIT_ENV, WRITE_LIMIT_MS)),
      connectionLimit_(std::numeric_limits<std::size_t>::max()), kind_(kind) {}

Listener::~Listener() {
    disarm(resumeTimer_);
    disarm(sweepTimer_);
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
    // A burst is taken in one go (one accept per wake-up cannot keep up with it), but only
    // so much of it: whatever is left keeps the socket readable for the next pass.
    for (unsigned taken = 0; taken < ACCEPTS_PER_WAKEUP && registered_ && acceptOne(); ++taken) {
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
    // The peer's address comes with the accept rather than from a getpeername per
    // connection, so the "cannot read the remote address" failure has no path left.
    KyInetAddr peer;
    if (!connection.AcceptFrom(fd_, SOCK_NONBLOCK | SOCK_CLOEXEC, &peer)) {
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

void Listener::sweepCB(KyCallback<cbdispatch>*, cbdispatch reason) {
    sweepTimer_.armed = false;
    if (reason == KyEvent::Fired) {
        sweep();
    }
}

// A connection that has not sent its request within the idle limit is closed without a
// reply, so silent clients cannot pin descriptors; one whose request is already waiting to
// be read is left to be read (the loop may have been busy for longer than the limit). A
// connection whose reply has not moved for the write limit is closed too: a client that
// never reads must not hold its descriptor for ever.
void Listener::sweep() {
    const std::uint64_t now = MonotonicMicros();
    std::vector<RequestCircuit*> idle, stalled;
    std::uint64_t next = 0;
    for (const auto& circuit : circuits_) {
        const std::uint64_t due = deadline(*circuit);
        if (due == 0) {
            continue;
        }
        if (due > now) {
            next = next == 0 ? due : std::min(next, due);
        } else if (circuit->writingReply()) {
            stalled.push_back(circuit.get());
        } else if (!circuit->hasUnreadInput()) {
            idle.push_back(circuit.get());
        } else {
            // Its request is read on the next pass; should it not be, look again later.
            next = next == 0 ? now + idleLimit_ : std::min(next, now + idleLimit_);
        }
    }
    for (RequestCircuit* circuit : idle) {
        circuit->closeIdle();
    }
    for (RequestCircuit* circuit : stalled) {
        circuit->closeStalled();
    }
    if (next != 0) {
        armSweep(next);
    }
}

std::uint64_t Listener::deadline(const RequestCircuit& circuit) const {
    if (circuit.awaitingRequest()) {
        return circuit.acceptedAt() + idleLimit_;
    }
    if (circuit.writingReply()) {
        return circuit.lastProgress() + writeLimit_;
    }
    return 0;
}

void Listener::armSweep(std::uint64_t due) {
    if (sweepTimer_.armed) {
        if (sweepDue_ <= due) {
            return;
        }
        disarm(sweepTimer_);
    }
    sweepDue_ = due;
    arm(sweepTimer_, WallTimeOf(due));
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
        armSweep(answering->acceptedAt() + idleLimit_);
        // Answered once it is in the live list, so a write error can take it out again.
        answering->answer();
    } else {
        auto circuit = std::make_unique<RequestCircuit>(loop_, fd, this, prepared);
        RequestCircuit* reading = circuit.get();
        circuits_.push_back(std::move(circuit));
        // A client sends its request as it connects, so the request is usually in already:
        // read now, not a loop pass later. An answered circuit stays alive until the next pass.
        reading->readCB(nullptr, KyEvent::Fired);
        if (reading->awaitingRequest()) {
            armSweep(reading->acceptedAt() + idleLimit_);
        }
    }
}

void Listener::watchReply(const RequestCircuit& circuit) {
    armSweep(circuit.lastProgress() + writeLimit_);
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
