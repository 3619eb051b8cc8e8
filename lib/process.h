// The running process: forking and executing children with a pipe to them, turning
// asynchronous Unix signals into events the loop dispatches, reaping children and
// reporting each exit, and switching user and group identities.
#pragma once

#include <array>
#include <csignal>
#include <memory>
#include <span>
#include <string>
#include <sys/types.h>
#include <vector>

#include "lib/error.h"
#include "lib/event.h"
#include "lib/numbers.h"
#include "lib/userdb/user.h"

class KyProcess {
public:
    virtual void Abort(bool children, bool parent) = 0;
    virtual ~KyProcess() = default;
};

class KyUnixProcess : public KyProcess {
public:
    static constexpr int SignalCount = 256;
    // How a forked child whose exec failed ends, as a shell reports a command it cannot run.
    static constexpr int EXIT_EXEC_FAILED = 127;

    // How a child ended: its exit status, or the signal that killed it (code 0 then).
    struct child_info {
        int pid;
        int code;
        int signal;
    };

    // One fork request: what the child should run and under which identity, which pipes
    // to make; on return it holds the child's pid and the parent's pipe ends.
    class ForkParams {
    public:
        ForkParams() = default;
        virtual ~ForkParams() = default;

        // argv must be null-terminated and outlive the fork; null means fork only.
        void ExecCommand(const char* const* argv) { command_ = argv; }
        void WantPipe(bool want) { wantPipe_ = want; }
        void WantErrorPipe(bool want) { wantErrorPipe_ = want; }
        void SetCallback(KyCallback<child_info>* callback) { callback_ = callback; }
        void SetEffectiveUserId(uid_t id) { setEuid_ = true, euid_ = id; }
        void SetEffectiveGroupId(gid_t id) { setEgid_ = true, egid_ = id; }
        void SetUserId(uid_t id) { setUid_ = true, uid_ = id; }
        void SetGroupId(gid_t id) { setGid_ = true, gid_ = id; }
        // Descriptors the child gets as its standard input, output and error (-1: none).
        void SetChildDescriptors(int in, int out, int err) {
            stdin_ = in, stdout_ = out, stderr_ = err;
        }

        int PipeDescriptor() const { return pipe_; }
        int ErrorPipeDescriptor() const { return errorPipe_; }
        pid_t ChildPid() const { return childPid_; }
        bool ChildExecProcessFailure() const { return execFailure_; }
        void ChildExecProcessFailure(bool failed) { execFailure_ = failed; }

    private:
        friend class KyUnixProcess;
        bool setEuid_ = false, setEgid_ = false, setUid_ = false, setGid_ = false;
        uid_t euid_ = 1;
        gid_t egid_ = 1;
        uid_t uid_ = 1;
        gid_t gid_ = 1;
        const char* const* command_ = nullptr;
        int pipe_ = -1;
        int errorPipe_ = -1;
        bool wantPipe_ = false, wantErrorPipe_ = false, execFailure_ = false;
        int stdin_ = -1, stdout_ = -1, stderr_ = -1;
        pid_t childPid_ = 0;
        KyCallback<child_info>* callback_ = nullptr;
    };

    KyUnixProcess();
    ~KyUnixProcess() override;
    KyUnixProcess(const KyUnixProcess&) = delete;
    KyUnixProcess& operator=(const KyUnixProcess&) = delete;

    void Abort(bool children, bool parent) override;
    virtual KyStatus Pipe(int* fds);
    virtual KyStatus Fork(ForkParams& params);
    virtual KyStatus Exec(const char* const* argv, ForkParams& params);
    [[noreturn]] virtual void Exit(int code, bool children, bool parent);
    virtual void Infanticide(bool wait);
    virtual KyStatus BecomeRoot();
    virtual KyStatus BecomeNobody();
    virtual KyStatus BecomeUser(const KyUnixUser& user);
    virtual KyStatus FixGroups(KyUnixUser& user);
    virtual KyStatus SwitchEffectiveUser(long& uid);

    // Signals are recorded only while the event loop runs, between these two calls.
    void StartSignals();
    void StopSignals();
    KyStatus CatchSignal(int signal, KyCallback<KyEvent::cbdispatch>* callback);
    KyStatus CatchExit(KyCallback<child_info>* callback, pid_t pid);
    KyStatus RemoveSIGCHLDCallback(pid_t pid);
    // Dispatches the signals recorded since the last call; True when there were any.
    KyStatus ProcessSignals();
    // True while a recorded signal waits for ProcessSignals.
    bool HasPendingSignals() const { return pendingCount_ != 0; }
    // A descriptor that becomes readable whenever a signal is recorded, so a wait that
    // started just after the last look at HasPendingSignals still ends at once; -1 when it
    // cannot be made. DrainWakeups empties it.
    int WakeDescriptor();
    void DrainWakeups();

    const KyUnixError& LastError() const { return lastError_; }
    pid_t Pid() const { return pid_; }
    std::span<const pid_t> Children() const { return children_; }
    uid_t EffectiveUserId() const { return euid_; }
    gid_t EffectiveGroupId() const { return egid_; }
    unsigned CatchCount(int signal) const;
    bool UserSwitchFailed() const { return switchFailed_; }

private:
    friend void had_a_signal(int signal);

    void Fail(const char* function, const std::string& arguments);
    void SetUidError(const char* function, unsigned long id);
    void Record(int signal);
    void DispatchSignal(int signal);
    void ReapChildren();
    void NotifyExit(pid_t pid, int status);
    bool IsRegistered(const KyEventSignal* event) const;
    void ForgetChild(pid_t pid);
    KyStatus BecomeRootIdentity();
    KyStatus SwitchIdentities(const ForkParams& params);
    void SetUpChild(ForkParams& params, const int* out, const int* err);

    KyUnixError lastError_;
    pid_t pid_;
    std::vector<pid_t> children_;
    uid_t euid_;
    gid_t egid_;
    std::array<unsigned, SignalCount> catchCounts_{};
    // Written by the signal handler, so plain flags of the one type it may touch.
    std::array<volatile std::sig_atomic_t, SignalCount> pending_{};
    volatile std::sig_atomic_t pendingCount_ = 0;
    // Shared so a dispatch pass can walk a copy while callbacks change the list.
    std::vector<std::shared_ptr<KyEventSignal>> events_;
    bool switchFailed_ = false;
};

// The process whose pending set the signal handler fills; set by main.
extern KyUnixProcess* the_current_process;

// The handler installed for every caught signal: records it and nothing else.
void had_a_signal(int signal);

// Derive to receive child exits as a virtual call instead of a callback object.
class KyChildNotification {
public:
    explicit KyChildNotification(KyUnixProcess::ForkParams* params);
    virtual void ChildExited(int pid, int code, int signal) = 0;
    virtual ~KyChildNotification();

private:
    void _childcb(KyCallback<KyUnixProcess::child_info>* callback, KyUnixProcess::child_info info);

    std::unique_ptr<KySimpleCallback<KyUnixProcess::child_info, KyChildNotification>> callback_;
};

// The "nobody" user (or "nouser"), looked up once and kept; may be invalid.
const KyUnixUser& NobodyUser();
KyUnixUser RootUser();
KyUnixUser NoUser();
