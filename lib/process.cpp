// KyUnixProcess: signal recording and dispatch, child reaping, fork and exec with
// pipes, and identity switches. The signal handler only marks the pending set; all
// the work happens in ProcessSignals on the event loop's thread.
#include "lib/process.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <grp.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include "lib/logging.h"
#include "lib/unistring.h"

KyUnixProcess* the_current_process = nullptr;

namespace {

volatile std::sig_atomic_t signalsEnabled = 0;
// The pipe through which a recorded signal wakes the event loop's wait (one per process).
int wakeReadFd = -1;
volatile std::sig_atomic_t wakeWriteFd = -1;

// A SIGCHLD registration: carries the child-exit callback instead of a loop callback.
class KyEventChildExit final : public KyEventSignal {
public:
    KyEventChildExit(KyCallback<KyUnixProcess::child_info>* callback, pid_t pid)
        : KyEventSignal(nullptr, SIGCHLD, pid), exitCallback_(callback) {}
    void Dispatch(const KyUnixProcess::child_info& info) const { exitCallback_->Dispatch(info); }

private:
    KyCallback<KyUnixProcess::child_info>* exitCallback_;
};

void InstallHandler(int signal) {
    std::signal(signal, had_a_signal);
}

std::string QuotedCommand(const char* const* argv) {
    std::string text = std::string("\"") + argv[0] + "\", const char[]={";
    for (const char* const* arg = argv; *arg != nullptr; ++arg)
        text += std::string("\"") + *arg + (arg[1] != nullptr ? "\", " : "\"}");
    return text;
}

std::string GroupsText(std::span<const gid_t> groups) {
    std::string text = std::to_string(groups.size()) + ",<gid_t *>{";
    for (std::size_t i = 0; i < groups.size(); ++i)
        text += (i ? "," : "") + std::to_string(groups[i]);
    return text + "}";
}

int SetGroups(std::span<const gid_t> groups) {
    return setgroups(groups.size(), groups.empty() ? nullptr : groups.data());
}

} // namespace

void had_a_signal(int signal) {
    int saved = errno;
    KyUnixProcess* process = the_current_process;
    if (signalsEnabled && process != nullptr && signal > 0 && signal < KyUnixProcess::SignalCount) {
        process->Record(signal);
        // A failed write means a full pipe, which wakes the loop already.
        if (wakeWriteFd >= 0 && write(wakeWriteFd, "", 1) < 0) {
        }
    }
    // SIGCHLD is re-armed only after reaping, so zombies still waiting do not re-raise it.
    if (signal != SIGCHLD)
        InstallHandler(signal);
    errno = saved;
}

KyUnixProcess::KyUnixProcess() : pid_(getpid()), euid_(geteuid()), egid_(getegid()) {
    children_.reserve(10);
    events_.reserve(10);
    InstallHandler(SIGCHLD);
}

KyUnixProcess::~KyUnixProcess() {
    if (the_current_process == this)
        the_current_process = nullptr;
}

void KyUnixProcess::Fail(const char* function, const std::string& arguments) {
    int saved = errno;
    lastError_.Set(KyUniString(function), KyUniString(std::string_view(arguments)), saved);
}

void KyUnixProcess::SetUidError(const char* function, unsigned long id) {
    Fail(function, std::to_string(id));
}

void KyUnixProcess::Record(int signal) {
    pending_[signal] = 1;
    pendingCount_ = pendingCount_ + 1;
}

unsigned KyUnixProcess::CatchCount(int signal) const {
    return signal > 0 && signal < SignalCount ? catchCounts_[signal] : 0;
}

int KyUnixProcess::WakeDescriptor() {
    if (wakeReadFd < 0) {
        int ends[2];
        if (pipe2(ends, O_NONBLOCK | O_CLOEXEC) != 0)
            return -1;
        wakeReadFd = ends[0];
        wakeWriteFd = ends[1];
    }
    return wakeReadFd;
}

void KyUnixProcess::DrainWakeups() {
    char bytes[64];
    while (wakeReadFd >= 0 && read(wakeReadFd, bytes, sizeof bytes) > 0) {
    }
}

void KyUnixProcess::StartSignals() {
    signalsEnabled = 1;
}
void KyUnixProcess::StopSignals() {
    signalsEnabled = 0;
}

KyStatus KyUnixProcess::CatchSignal(int signal, KyCallback<KyEvent::cbdispatch>* callback) {
    if (signal <= 0 || signal >= SignalCount) {
        errno = EINVAL;
        Fail("signal", std::to_string(signal));
        return Failure;
    }
    events_.push_back(std::make_shared<KyEventSignal>(callback, signal));
    InstallHandler(signal);
    ++catchCounts_[signal];
    return Success;
}

KyStatus KyUnixProcess::CatchExit(KyCallback<child_info>* callback, pid_t pid) {
    events_.push_back(std::make_shared<KyEventChildExit>(callback, pid));
    ++catchCounts_[SIGCHLD];
    return Success;
}

KyStatus KyUnixProcess::RemoveSIGCHLDCallback(pid_t pid) {
    auto found = std::find_if(events_.begin(), events_.end(), [pid](const auto& event) {
        return event->SignalNumber() == SIGCHLD && event->Pid() == pid;
    });
    if (found == events_.end())
        return Failure;
    events_.erase(found);
    if (catchCounts_[SIGCHLD] > 0)
        --catchCounts_[SIGCHLD];
    return Success;
}

bool KyUnixProcess::IsRegistered(const KyEventSignal* event) const {
    return std::any_of(events_.begin(), events_.end(),
                       [event](const auto& held) { return held.get() == event; });
}

KyStatus KyUnixProcess::ProcessSignals() {
    if (pendingCount_ == 0)
        return False;
    // Taking the set must not race the handler, so signals wait for the copy.
    sigset_t all, previous;
    sigfillset(&all);
    sigprocmask(SIG_BLOCK, &all, &previous);
    std::array<bool, SignalCount> taken{};
    for (int signal = 1; signal < SignalCount; ++signal) {
        taken[signal] = pending_[signal] != 0;
        pending_[signal] = 0;
    }
    pendingCount_ = 0;
    sigprocmask(SIG_SETMASK, &previous, nullptr);
    InstallHandler(SIGCHLD);

    for (int signal = 1; signal < SignalCount; ++signal) {
        if (!taken[signal])
            continue;
        if (signal == SIGCHLD)
            ReapChildren();
        else
            DispatchSignal(signal);
    }
    InstallHandler(SIGCHLD);
    return True;
}

void KyUnixProcess::DispatchSignal(int signal) {
    auto snapshot = events_;
    for (const auto& event : snapshot) {
        // A registration withdrawn by an earlier callback in this pass may be dead.
        if (event->SignalNumber() == signal && event->Callback() != nullptr &&
            IsRegistered(event.get()))
            event->Dispatch();
    }
}

void KyUnixProcess::ReapChildren() {
    int status = 0;
    pid_t pid;
    while ((pid = waitpid(-1, &status, WNOHANG)) > 0) {
        ForgetChild(pid);
        NotifyExit(pid, status);
    }
}

void KyUnixProcess::NotifyExit(pid_t pid, int status) {
    bool stopped = (status & 0xff) != 0 && ((status >> 8) & 0xff) != 0;
    if (stopped)
        return;
    child_info info{pid, 0, 0};
    if ((status & 0x7f) == 0)
        info.code = (status >> 8) & 0xff;
    else
        info.signal = status & 0x7f;
    auto snapshot = events_;
    for (const auto& event : snapshot) {
        if (event->SignalNumber() != SIGCHLD || event->Pid() != pid || !IsRegistered(event.get()))
            continue;
        if (auto* exit = dynamic_cast<const KyEventChildExit*>(event.get()))
            exit->Dispatch(info);
        RemoveSIGCHLDCallback(pid);
    }
}

void KyUnixProcess::ForgetChild(pid_t pid) {
    std::erase(children_, pid);
}

KyStatus KyUnixProcess::Pipe(int* fds) {
    // Both ends must read and write: the child uses its end as stdin and stdout.
    if (socketpair(AF_UNIX, SOCK_STREAM, 0, fds) != 0) {
        Fail("pipe", "int [2]");
        return Failure;
    }
    return Success;
}

KyStatus KyUnixProcess::Fork(ForkParams& params) {
    params.childPid_ = 0;
    int out[2] = {-1, -1}, err[2] = {-1, -1};
    if (params.wantPipe_ && !Pipe(out))
        return Failure;
    if (params.wantErrorPipe_ && !Pipe(err)) {
        if (params.wantPipe_)
            close(out[0]), close(out[1]);
        return Failure;
    }
    // Log buffers are flushed first so the child does not write the parent's records again.
    KyLog::AboutToFork();
    pid_t pid = fork();
    KyLog::HaveForked();
    if (pid < 0) {
        Fail("fork", "");
        for (int fd : {out[0], out[1], err[0], err[1]})
            if (fd >= 0)
                close(fd);
        return Failure;
    }
    if (pid > 0) {
        params.childPid_ = pid;
        children_.push_back(pid);
        if (params.callback_ != nullptr)
            CatchExit(params.callback_, pid);
        // The parent's ends stay out of later children, so each run sees its own EOF.
        if (params.wantPipe_)
            close(out[0]), params.pipe_ = out[1], fcntl(out[1], F_SETFD, FD_CLOEXEC);
        if (params.wantErrorPipe_)
            close(err[0]), params.errorPipe_ = err[1], fcntl(err[1], F_SETFD, FD_CLOEXEC);
    } else {
        SetUpChild(params, params.wantPipe_ ? out : nullptr, params.wantErrorPipe_ ? err : nullptr);
        if (params.command_ != nullptr) {
            Exec(params.command_, params);
            // A deliberate departure from handing the failure back to the caller: the child
            // is a copy of the whole daemon (its event loop, sockets, pid file, timers), and a
            // copy returning into that code would serve and fork on its own for ever. It ends
            // here, touching nothing: no log record, no destructors, no exit handlers. The
            // parent sees a run that produced nothing.
            _exit(EXIT_EXEC_FAILED);
        }
    }
    InstallHandler(SIGCHLD);
    return Success;
}

void KyUnixProcess::SetUpChild(ForkParams& params, const int* out, const int* err) {
    pid_ = getpid();
    children_.clear();
    if (out != nullptr)
        close(out[1]), params.pipe_ = out[0];
    if (err != nullptr)
        close(err[1]), params.errorPipe_ = err[0];
    if (params.command_ == nullptr)
        return;
    if (out != nullptr) {
        dup2(out[0], 0);
        dup2(out[0], 1);
        if (out[0] > 1)
            close(out[0]);
    }
    if (err != nullptr) {
        dup2(err[0], 2);
        if (err[0] > 2)
            close(err[0]);
    }
}

KyStatus KyUnixProcess::Exec(const char* const* argv, ForkParams& params) {
    static constexpr const char* dupNames[] = {"dup2 stdin", "dup2 stdout", "dup2 stderr"};
    const int explicitFds[] = {params.stdin_, params.stdout_, params.stderr_};
    for (int target = 0; target < 3; ++target) {
        if (explicitFds[target] < 0)
            continue;
        if (dup2(explicitFds[target], target) < 0) {
            Fail(dupNames[target],
                 std::to_string(explicitFds[target]) + "," + std::to_string(target));
            return Failure;
        }
        fcntl(target, F_SETFD, 0);
    }
    if (!SwitchIdentities(params))
        return Failure;
    if (argv == nullptr || argv[0] == nullptr) {
        errno = EINVAL;
        Fail("execvp", "");
        return Failure;
    }
    execvp(argv[0], const_cast<char* const*>(argv));
    Fail("execvp", QuotedCommand(argv));
    return Failure;
}

KyStatus KyUnixProcess::SwitchIdentities(const ForkParams& params) {
    if (!params.setEuid_ && !params.setEgid_ && !params.setUid_ && !params.setGid_)
        return Success;
    uid_t remembered = euid_;
    if (remembered != 0 && !BecomeRootIdentity())
        return Failure;
    if (params.setEgid_ && params.egid_ != egid_) {
        if (setegid(params.egid_) != 0)
            return SetUidError("setegid", params.egid_), Failure;
        egid_ = params.egid_;
    }
    if (params.setGid_ && params.gid_ != getgid() && setgid(params.gid_) != 0)
        return SetUidError("setgid", params.gid_), Failure;
    if (params.setUid_ && params.uid_ != getuid() && setuid(params.uid_) != 0)
        return SetUidError("setuid", params.uid_), Failure;
    uid_t target = params.setEuid_ ? params.euid_ : remembered;
    bool wanted = params.setEuid_ ? params.euid_ != remembered : remembered != 0;
    if (wanted) {
        if (seteuid(target) != 0)
            return SetUidError("seteuid", target), Failure;
        euid_ = target;
    }
    return Success;
}

KyStatus KyUnixProcess::BecomeRootIdentity() {
    if (euid_ == 0)
        return Success;
    if (seteuid(0) != 0) {
        SetUidError("seteuid", 0);
        return Failure;
    }
    euid_ = 0;
    return Success;
}

void KyUnixProcess::Infanticide(bool wait) {
    for (pid_t child : children_)
        kill(child, SIGTERM);
    if (!wait)
        return;
    bool found = true;
    while (found) {
        found = false;
        auto snapshot = children_;
        for (pid_t child : snapshot) {
            if (kill(child, 0) != 0)
                continue;
            int status;
            pid_t reaped = waitpid(child, &status, 0);
            if (reaped < 0 && errno == EINTR) {
                found = true;
                continue;
            }
            // Reaped now, or not ours to wait for: either way it is no longer a child.
            ForgetChild(child);
            found = found || reaped > 0;
        }
    }
}

void KyUnixProcess::Exit(int code, bool children, bool parent) {
    if (children)
        Infanticide(false);
    pid_t parentPid = getppid();
    if (parent && parentPid >= 2)
        kill(parentPid, SIGTERM);
    std::exit(code);
}

void KyUnixProcess::Abort(bool children, bool parent) {
    if (children)
        Infanticide(false);
    pid_t parentPid = getppid();
    if (parent && parentPid >= 2)
        kill(parentPid, SIGTERM);
    KyLog::Flush(); // abort runs no exit handlers
    std::abort();
}

KyStatus KyUnixProcess::BecomeUser(const KyUnixUser& user) {
    if (!user.IsValid()) {
        errno = ENOENT;
        Fail("User lookup", "'" + user.Name() + "'");
        return Failure;
    }
    if (!switchFailed_ && euid_ == user.Uid() && egid_ == user.Gid())
        return Success;
    switchFailed_ = true;
    if (!BecomeRootIdentity())
        return Failure;
    if (SetGroups(user.Groups()) != 0) {
        Fail("setgroups", GroupsText(user.Groups()));
        return Failure;
    }
    if (egid_ != user.Gid()) {
        if (setegid(user.Gid()) != 0)
            return SetUidError("setegid", user.Gid()), Failure;
        egid_ = user.Gid();
    }
    if (euid_ != user.Uid()) {
        if (seteuid(user.Uid()) != 0)
            return SetUidError("seteuid", user.Uid()), Failure;
        euid_ = user.Uid();
    }
    switchFailed_ = false;
    return Success;
}

KyStatus KyUnixProcess::BecomeRoot() {
    return BecomeUser(RootUser());
}

KyStatus KyUnixProcess::BecomeNobody() {
    const KyUnixUser& nobody = NobodyUser();
    if (!nobody.IsValid()) {
        errno = ENOENT;
        Fail("User lookup", "'nobody' or 'nouser'");
        return Failure;
    }
    return BecomeUser(nobody);
}

KyStatus KyUnixProcess::FixGroups(KyUnixUser& user) {
    if (!BecomeRootIdentity())
        return Failure;
    std::span<const gid_t> groups = user.Groups();
    if (groups.empty() || SetGroups(groups) == 0 || errno != EINVAL)
        return Failure;
    // Too many groups for this system: drop from the end until the kernel accepts them.
    for (std::size_t count = groups.size() - 1; count > 0; --count) {
        if (SetGroups(groups.first(count)) == 0) {
            user.TruncateGroups(count);
            return BecomeUser(user);
        }
        if (errno != EINVAL)
            return Failure;
    }
    return Failure;
}

KyStatus KyUnixProcess::SwitchEffectiveUser(long& uid) {
    if (seteuid(static_cast<uid_t>(uid)) != 0) {
        SetUidError("seteuid", static_cast<unsigned long>(uid));
        return Failure;
    }
    long previous = static_cast<long>(euid_);
    euid_ = static_cast<uid_t>(uid);
    uid = previous;
    return Success;
}

KyChildNotification::KyChildNotification(KyUnixProcess::ForkParams* params)
    : callback_(std::make_unique<KySimpleCallback<KyUnixProcess::child_info, KyChildNotification>>(
          this, &KyChildNotification::_childcb)) {
    params->SetCallback(callback_.get());
}

KyChildNotification::~KyChildNotification() = default;

void KyChildNotification::_childcb(KyCallback<KyUnixProcess::child_info>*,
                                   KyUnixProcess::child_info info) {
    ChildExited(info.pid, info.code, info.signal);
}

const KyUnixUser& NobodyUser() {
    static const KyUnixUser nobody = [] {
        KyUnixUser user("nobody");
        return user.IsValid() ? user : KyUnixUser("nouser");
    }();
    return nobody;
}

KyUnixUser RootUser() {
    return KyUnixUser("root");
}

KyUnixUser NoUser() {
    return KyUnixUser();
}
