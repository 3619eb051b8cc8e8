// The admin socket: opening it safely next to a possible leftover, accepting local
// clients, carrying out their commands on the AdminState, and cleaning up.
#include "probe/adminsocket.h"

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "probe/adminstate.h"
#include "probe/cache.h"
#include "probe/hostlistmgr.h"
#include "probe/messages.h"

AdminSocket* myAdminSocket = nullptr;

namespace {

const KyTimeVal kNextPass(0, 0);

bool addressFor(const std::string& path, sockaddr_un& address) {
    address = {};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof address.sun_path)
        return false;
    std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
    return true;
}

} // namespace

AdminSocket::AdminSocket(KyEventLoop& loop, std::string path)
    : loop_(loop), path_(std::move(path)) {
    if (open() && loop_.AddFileEvent(static_cast<unsigned>(fd_), true, false, &acceptCallback_)) {
        return;
    }
    if (fd_ >= 0) {
        ::close(fd_);
        ::unlink(path_.c_str());
        fd_ = -1;
    }
}

AdminSocket::~AdminSocket() {
    if (sweepArmed_) {
        loop_.RemoveTimeoutEvent(sweepDue_, &sweepCallback_);
    }
    if (deleteArmed_) {
        loop_.RemoveTimeoutEvent(kNextPass, &deleteCallback_);
    }
    connections_.clear();
    finished_.clear();
    if (fd_ >= 0) {
        loop_.RemoveFileEvent(static_cast<unsigned>(fd_), true, false, &acceptCallback_);
        ::close(fd_);
        ::unlink(path_.c_str());
    }
}

bool AdminSocket::open() {
    sockaddr_un address;
    const auto fail = [this](const char* call) {
        LogAdminSocketFail(KyUniString(path_),
                           KyUniString(std::string(call) + ": " + std::strerror(errno)));
        return false;
    };
    if (!addressFor(path_, address)) {
        errno = ENAMETOOLONG;
        return fail("bind");
    }
    if (staleSocketFile()) {
        ::unlink(path_.c_str());
    }
    fd_ = ::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (fd_ < 0) {
        return fail("socket");
    }
    // The file is made by bind with the umask's mode: no moment where others may connect.
    const mode_t previous = ::umask(0177);
    const int bound = ::bind(fd_, reinterpret_cast<const sockaddr*>(&address), sizeof address);
    ::umask(previous);
    if (bound != 0) {
        const bool ok = fail("bind");
        ::close(fd_);
        fd_ = -1;
        return ok;
    }
    if (::listen(fd_, SOMAXCONN) != 0) {
        return fail("listen");
    }
    return true;
}

bool AdminSocket::staleSocketFile() const {
    struct stat status {};
    if (::lstat(path_.c_str(), &status) != 0 || !S_ISSOCK(status.st_mode)) {
        return false;
    }
    sockaddr_un address;
    addressFor(path_, address);
    const int probe = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const bool answered =
        ::connect(probe, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
    const bool refused = !answered && errno == ECONNREFUSED;
    ::close(probe);
    return refused;
}

std::string AdminSocket::execute(std::string_view command) {
    if (!command.empty() && command.back() == '\r') {
        command.remove_suffix(1);
    }
    if (myAdminState == nullptr) {
        return "error: no state";
    }
    if (command == "state") {
        return std::string(AdminState::name(myAdminState->mode()));
    }
    const auto mode = AdminState::parse(command);
    if (!mode) {
        return "error: unknown command '" + std::string(command.substr(0, 32)) + "'";
    }
    const AdminState::Mode before = myAdminState->mode();
    const KyStatus saved = myAdminState->set(*mode);
    if (myAdminState->outOfRotation() != (before != AdminState::Mode::Ready)) {
        // Subscribers hear of it now, not at their next tick: their percent-change test
        // sees the jump between the idle they were sent and the idle now reported.
        HostListMgr::percentChangeCheck(myCache ? myCache->getLastIdle() : 0);
    }
    if (!saved) {
        return "error: now " + std::string(AdminState::name(*mode)) +
               ", but the state file could not be written (see the log)";
    }
    return std::string(AdminState::name(*mode));
}

void AdminSocket::acceptCB(KyCallback<cbdispatch>*, cbdispatch reason) {
    if (reason != KyEvent::Fired) {
        return;
    }
    while (true) {
        const int client = ::accept4(fd_, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
        if (client < 0) {
            return; // queue empty, or no descriptor now: the client is taken on a later pass
        }
        connections_.push_back(std::make_unique<AdminConnection>(loop_, client, this));
        armSweep();
    }
}

void AdminSocket::armSweep() {
    if (sweepArmed_ || connections_.empty()) {
        return;
    }
    sweepDue_ = connections_.front()->acceptedAt() + KyTimeVal(IDLE_SECONDS, 0);
    sweepArmed_ = loop_.AddTimeoutEvent(sweepDue_, &sweepCallback_) == Success;
}

void AdminSocket::sweepCB(KyCallback<cbdispatch>*, cbdispatch reason) {
    sweepArmed_ = false;
    if (reason != KyEvent::Fired) {
        return;
    }
    const KyTimeVal oldest = KyTimeVal() - KyTimeVal(IDLE_SECONDS, 0);
    std::vector<AdminConnection*> expired;
    for (const auto& connection : connections_) {
        if (connection->acceptedAt() <= oldest) {
            expired.push_back(connection.get());
        }
    }
    for (AdminConnection* connection : expired) {
        connection->close();
    }
    armSweep();
}

void AdminSocket::release(AdminConnection* connection) {
    for (auto at = connections_.begin(); at != connections_.end(); ++at) {
        if (at->get() == connection) {
            finished_.splice(finished_.end(), connections_, at);
            break;
        }
    }
    if (!deleteArmed_) {
        deleteArmed_ = loop_.AddTimeoutEvent(kNextPass, &deleteCallback_) == Success;
    }
}

void AdminSocket::deleteCB(KyCallback<cbdispatch>*, cbdispatch) {
    deleteArmed_ = false;
    finished_.clear();
}
