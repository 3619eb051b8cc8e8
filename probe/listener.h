// Listener: the control port. It owns the listening TCP socket, accepts one connection per
// readable event and gives each to a new RequestCircuit; circuits that have answered are
// deleted through zero-delay timeouts, because they ask for it from inside their own callbacks.
#pragma once

#include <cstddef>
#include <memory>
#include <vector>

#include "lib/event.h"
#include "lib/eventloop.h"
#include "lib/numbers.h"
#include "lib/socket.h"
#include "probe/requestcircuit.h"

class Listener {
public:
    using cbdispatch = KyEvent::cbdispatch;
    static constexpr unsigned LISTEN_BACKLOG = 5;

    explicit Listener(KyEventLoop& loop);
    ~Listener();
    Listener(const Listener&) = delete;
    Listener& operator=(const Listener&) = delete;

    KyStatus startListener(int port);
    KyStatus startListeningSocket(int port);
    void AddCallback();
    void RemoveCallback();

    void acceptCB(KyCallback<cbdispatch>* callback, cbdispatch reason);
    void startNewConnection(int fd);
    // Takes the circuit out of the live list; it is deleted on the loop's next pass.
    void DeleteRequestCircuit(RequestCircuit* circuit);
    void deleteCB(KyCallback<cbdispatch>* callback, cbdispatch reason, RequestCircuit* circuit);

    int fileDescriptor() const { return fd_; }
    std::size_t liveCircuits() const { return circuits_.size(); }
    std::size_t pendingDeletions() const { return pending_.size(); }

private:
    using AcceptCallback = KySimpleCallback<cbdispatch, Listener>;
    using DeleteCallback = KyCallbackWithData<cbdispatch, Listener, RequestCircuit*>;
    // A circuit on its way out with the timeout that carries it; the circuit goes first.
    struct PendingDeletion {
        std::unique_ptr<DeleteCallback> callback;
        std::unique_ptr<RequestCircuit> circuit;
    };

    AcceptCallback acceptCallback_;
    KyEventLoop& loop_;
    KySocket socket_;
    int fd_ = -1;
    bool registered_ = false;
    std::vector<std::unique_ptr<RequestCircuit>> circuits_;
    std::vector<PendingDeletion> pending_;
};

// The probe's one control listener, made at start-up.
extern Listener* myListener;
