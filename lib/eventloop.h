// The single-threaded reactor the whole daemon runs on: descriptor readiness,
// absolute-time timeouts and the signals recorded by KyUnixProcess are delivered to
// callbacks one at a time until a callback asks the loop to end. Timeouts are kept on the
// monotonic clock, so a step of the wall clock neither fires nor stalls them.
#pragma once

#include <csignal>

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <poll.h>
#include <utility>
#include <vector>

#include "lib/event.h"
#include "lib/numbers.h"
#include "lib/process.h"
#include "lib/time.h"

class KyEventLoopBase {
public:
    using cbdispatch = KyEvent::cbdispatch;

    virtual int EnterEventLoop() = 0;
    virtual void ExitEventLoop(int code);
    virtual KyStatus AddTimeoutEvent(const KyTimeVal& time, KyCallback<cbdispatch>* callback) = 0;
    virtual KyStatus AddFileEvent(unsigned fd, bool read, bool write,
                                  KyCallback<cbdispatch>* callback) = 0;
    virtual KyStatus RemoveFileEvent(unsigned fd, bool read, bool write,
                                     KyCallback<cbdispatch>* callback) = 0;
    virtual KyStatus RemoveTimeoutEvent(const KyTimeVal& time,
                                        KyCallback<cbdispatch>* callback) = 0;
    virtual ~KyEventLoopBase() = default;

protected:
    int exitCode_ = 0;
    KyStatus running_ = False;
};

class KyEventLoop : public KyEventLoopBase {
public:
    explicit KyEventLoop(KyUnixProcess* process);
    ~KyEventLoop() override;
    KyEventLoop(const KyEventLoop&) = delete;
    KyEventLoop& operator=(const KyEventLoop&) = delete;

    int EnterEventLoop() override;
    KyStatus AddTimeoutEvent(const KyTimeVal& time, KyCallback<cbdispatch>* callback) override;
    KyStatus AddFileEvent(unsigned fd, bool read, bool write,
                          KyCallback<cbdispatch>* callback) override;
    KyStatus RemoveFileEvent(unsigned fd, bool read, bool write,
                             KyCallback<cbdispatch>* callback) override;
    KyStatus RemoveTimeoutEvent(const KyTimeVal& time, KyCallback<cbdispatch>* callback) override;
    virtual KyStatus ShouldContinue() const { return running_; }

    KyStatus OpenDevPoll();
    void CloseDevPoll();

    // Work that must be done before the loop blocks (writing out buffered output, say):
    // each hook runs once per pass, in the order added, right before the wait. Adding a
    // hook twice keeps one. A hook must not add or remove hooks.
    using BeforeWait = void (*)();
    void AddBeforeWait(BeforeWait hook);
    void RemoveBeforeWait(BeforeWait hook);

    std::size_t TimeoutCount() const { return timeouts_.size(); }
    std::size_t PollCount() const { return pollSet_.Count(); }

    // Where the loop reads the time, in microseconds: the wall clock that callers' absolute
    // times refer to, and the monotonic clock that decides when they are due. Tests replace
    // them to step the wall clock or move time on without waiting.
    using ClockReader = std::uint64_t (*)();
    void SetClocks(ClockReader wall, ClockReader monotonic);

private:
    // The pollfd array handed to poll; plain malloc memory so a failed growth is a
    // status the loop can report rather than an exception.
    class PollSet {
    public:
        PollSet();
        std::size_t Count() const { return count_; }
        pollfd* Data() { return entries_.get(); }
        pollfd& operator[](std::size_t i) { return entries_.get()[i]; }
        long Find(int fd) const;
        bool Append(int fd);
        void RemoveAt(std::size_t i);

    private:
        struct Free {
            void operator()(pollfd* p) const;
        };
        std::unique_ptr<pollfd, Free> entries_;
        std::size_t capacity_ = 10;
        std::size_t count_ = 0;
    };
    using FileTable = std::vector<std::unique_ptr<KyEventFile>>;

    // Due timeouts by monotonic time, then by the time their callers gave (which orders the
    // ones set in the past); the index finds one by the time its caller gave.
    using Timeouts = std::multimap<std::pair<std::uint64_t, std::uint64_t>, KyEventTimeout>;
    using TimeIndex = std::multimap<std::uint64_t, Timeouts::iterator>;

    void RunOnce();
    int WaitMilliseconds() const;
    int WaitForEvents(int wait);
    // Empties the process's wake-up pipe; the signals themselves are dispatched apart.
    void Woken(KyCallback<cbdispatch>* callback, cbdispatch reason);
    void FireDueTimeouts(std::uint64_t now);
    // Takes the timeout out of both maps; the caller dispatches the returned event.
    Timeouts::node_type Take(Timeouts::iterator entry);
    void PollFailed(int error, int wait);
    void DispatchReady();
    bool DispatchFile(const FileTable& table, int fd);
    void ReportBadDescriptor(std::size_t index);
    static void Store(FileTable& table, int fd, std::unique_ptr<KyEventFile> event);
    static void Clear(FileTable& table, int fd);
    void WriteDevPoll(int fd, short events);
    void DispatchDevPoll(const pollfd* results, int count);

    KyUnixProcess* process_;
    int devPollFd_ = -1;
    bool devPollMode_ = false;
    // Maps rather than an append-and-sort list: thousands of subscribed hosts re-arm their
    // timers on every tick.
    Timeouts timeouts_;
    TimeIndex byTime_;
    // The monotonic time up to which the current or last pass fires: a timeout added since
    // is due one microsecond later at the earliest, so it waits for the next pass.
    std::uint64_t fence_ = 0;
    ClockReader wallClock_;
    ClockReader monotonicClock_;
    std::vector<BeforeWait> beforeWait_;
    KySimpleCallback<cbdispatch, KyEventLoop> wakeCallback_{this, &KyEventLoop::Woken};
    FileTable readTable_;
    FileTable writeTable_;
    PollSet pollSet_;
};

// The daemon's process object and its one event loop, built in this order at start-up.
extern KyUnixProcess pr;
extern KyEventLoop eventloop;
