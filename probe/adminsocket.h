// AdminSocket: the local Unix-domain socket through which the operator (hostgauge-ctl)
// reads and changes the drain/maintenance state. Only the daemon's user may connect
// (mode 0600); nothing on the network can reach it. The socket file goes at exit.
#pragma once

#include <list>
#include <memory>
#include <string>
#include <string_view>

#include "lib/event.h"
#include "lib/eventloop.h"
#include "lib/time.h"
#include "probe/adminconnection.h"

class AdminSocket {
public:
    using cbdispatch = KyEvent::cbdispatch;
    static constexpr const char* SOCKET_NAME = "/hostgauge.sock";
    // A client that has not sent its command by then is closed.
    static constexpr unsigned IDLE_SECONDS = 5;

    // Opens the socket at `path`; a failure is logged and leaves the object not live.
    AdminSocket(KyEventLoop& loop, std::string path);
    ~AdminSocket();
    AdminSocket(const AdminSocket&) = delete;
    AdminSocket& operator=(const AdminSocket&) = delete;

    bool live() const { return fd_ >= 0; }
    const std::string& path() const { return path_; }
    // Carries out one command line ("state", "drain", "maint", "ready"); the answer line.
    static std::string execute(std::string_view command);
    // A finished connection: deleted on the loop's next pass.
    void release(AdminConnection* connection);

private:
    using Callback = KySimpleCallback<cbdispatch, AdminSocket>;

    bool open();
    // A socket file left by a daemon that died: nobody answers on it any more.
    bool staleSocketFile() const;
    void acceptCB(KyCallback<cbdispatch>* callback, cbdispatch reason);
    void sweepCB(KyCallback<cbdispatch>* callback, cbdispatch reason);
    void deleteCB(KyCallback<cbdispatch>* callback, cbdispatch reason);
    void armSweep();

    KyEventLoop& loop_;
    std::string path_;
    int fd_ = -1;
    std::list<std::unique_ptr<AdminConnection>> connections_;
    std::list<std::unique_ptr<AdminConnection>> finished_;
    Callback acceptCallback_{this, &AdminSocket::acceptCB};
    Callback sweepCallback_{this, &AdminSocket::sweepCB};
    Callback deleteCallback_{this, &AdminSocket::deleteCB};
    KyTimeVal sweepDue_{0, 0};
    bool sweepArmed_ = false;
    bool deleteArmed_ = false;
};

// The probe's admin socket, made at start-up.
extern AdminSocket* myAdminSocket;
