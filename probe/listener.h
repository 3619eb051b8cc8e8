// Listener: the control port. It owns the listening TCP socket, accepts every pending
// connection on each readable event and gives each to a new RequestCircuit; it closes
// connections that stay silent too long or stop reading their reply, stops accepting while
// descriptors run short, and deletes finished circuits through a zero-delay timeout (they
// ask from their own callbacks).
#pragma once

#include <cstddef>
#include <memory>
#include <vector>

#include "lib/error.h"
#include "lib/event.h"
#include "lib/eventloop.h"
#include "lib/numbers.h"
#include "lib/socket.h"
#include "lib/time.h"
#include "probe/refusallog.h"
#include "probe/requestcircuit.h"

class Listener {
public:
    using cbdispatch = KyEvent::cbdispatch;
    // Bursts of clients wait in the kernel's queue rather than being refused.
    static constexpr unsigned LISTEN_BACKLOG = SOMAXCONN;
    // How long a connection may stay silent after it was accepted.
    static constexpr unsigned IDLE_LIMIT_MS = 10000;
    // Test-only: milliseconds that replace IDLE_LIMIT_MS, read once when the listener is made.
    static constexpr const char* IDLE_LIMIT_ENV = "HOSTGAUGE_IDLE_LIMIT_MS";
    // How long a queued reply may go without any of it being taken by the client.
    static constexpr unsigned WRITE_LIMIT_MS = 30000;
    static constexpr const char* WRITE_LIMIT_ENV = "HOSTGAUGE_WRITE_LIMIT_MS";
    // Connections taken per wake-up. Most are answered as they are accepted, so clients
    // that reconnect at once would otherwise keep the loop here and its timers waiting.
    static constexpr unsigned ACCEPTS_PER_WAKEUP = 64;
    // How long accepting rests once descriptors have run out.
    static constexpr unsigned ACCEPT_PAUSE_SECONDS = 1;
    // Descriptors that connections leave to the rest of the daemon (log files, the load
    // tool's pipe), so a flood of clients cannot stall the measurement.
    static constexpr unsigned RESERVED_DESCRIPTORS = 16;

    // What the accepted connections are: control requests, or the load balancers' agent
    // check (an AgentCircuit answers at once).
    enum class Kind { Control, Agent };

    explicit Listener(KyEventLoop& loop, Kind kind = Kind::Control);
    ~Listener();
    Listener(const Listener&) = delete;
    Listener& operator=(const Listener&) = delete;

    KyStatus startListener(int port);
    KyStatus startListeningSocket(int port);
    void AddCallback();
    void RemoveCallback();

    void acceptCB(KyCallback<cbdispatch>* callback, cbdispatch reason);
    // `prepared`: fd was accepted non-blocking and close-on-exec.
    void startNewConnection(int fd, bool prepared = false);
    // Takes the circuit out of the live list; it is deleted on the loop's next pass (all
    // circuits waiting then go through one zero-delay timeout).
    void DeleteRequestCircuit(RequestCircuit* circuit);
    void deleteCB(KyCallback<cbdispatch>* callback, cbdispatch reason, RequestCircuit* circuit);
    // A reply that could not be written at once is closed if it makes no progress for the
    // write limit, however far off the next idle deadline is.
    void watchReply(const RequestCircuit& circuit);

    int fileDescriptor() const { return fd_; }
    std::size_t liveCircuits() const { return circuits_.size(); }
    std::size_t pendingDeletions() const { return pending_.size(); }
    bool accepting() const { return registered_; }

private:
    using AcceptCallback = KySimpleCallback<cbdispatch, Listener>;
    using DeleteCallback = KyCallbackWithData<cbdispatch, Listener, RequestCircuit*>;
    // A timeout the listener owns: at most one registration at a time, at `due`.
    struct OwnTimer {
        explicit OwnTimer(Listener* owner,
                          void (Listener::*handler)(KyCallback<cbdispatch>*, cbdispatch))
            : callback(owner, handler) {}
        AcceptCallback callback;
        KyTimeVal due{0, 0};
        bool armed = false;
    };

    // False when the queue is empty or accepting has to stop for now.
    bool acceptOne();
    void stopAccepting(const KyUnixError& reason);
    void resumeCB(KyCallback<cbdispatch>* callback, cbdispatch reason);
    void sweepCB(KyCallback<cbdispatch>* callback, cbdispatch reason);
    // Closes the connections past their limits and arms the sweep for the next deadline.
    void sweep();
    // The monotonic time at which the circuit is past its limit, or 0 if it has none.
    std::uint64_t deadline(const RequestCircuit& circuit) const;
    // Arms the sweep at the monotonic time `due`, unless it is armed for earlier already.
    void armSweep(std::uint64_t due);
    void arm(OwnTimer& timer, const KyTimeVal& due);
    void disarm(OwnTimer& timer);
    bool atConnectionLimit() const;
    // False for a peer outside the allow list; the refusal is logged, at most once a minute.
    bool admits(const KyInetAddr& peer);

    AcceptCallback acceptCallback_;
    KyEventLoop& loop_;
    KySocket socket_;
    int fd_ = -1;
    bool registered_ = false;
    std::vector<std::unique_ptr<RequestCircuit>> circuits_;
    std::vector<std::unique_ptr<RequestCircuit>> pending_;
    // The one zero-delay timeout that deletes every pending circuit; its datum is unused.
    DeleteCallback deleteCallback_{this, &Listener::deleteCB, nullptr};
    bool deletionArmed_ = false;
    std::uint64_t idleLimit_;  // microseconds
    std::uint64_t writeLimit_; // microseconds
    std::uint64_t sweepDue_ = 0;
    std::size_t connectionLimit_;
    // True from a failure for want of descriptors until the accept queue has been emptied.
    bool outOfDescriptors_ = false;
    OwnTimer resumeTimer_{this, &Listener::resumeCB};
    OwnTimer sweepTimer_{this, &Listener::sweepCB};
    Kind kind_ = Kind::Control;
    unsigned port_ = 0;
    RefusalLog refusals_;
};

// The probe's one control listener, made at start-up.
extern Listener* myListener;
// The agent port's listener, when one is configured.
extern Listener* myAgentListener;
