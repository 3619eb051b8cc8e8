// The single-threaded reactor the whole daemon runs on: descriptor readiness,
// absolute-time timeouts and the signals recorded by KyUnixProcess are delivered to
// callbacks one at a time until a callback asks the loop to end.
#pragma once

#include <csignal>

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <poll.h>
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

    std::size_t TimeoutCount() const { return timeouts_.size(); }
    std::size_t PollCount() const { return pollSet_.Count(); }

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

    void RunOnce();
    int WaitMilliseconds() const;
    int WaitForEvents(int wait, const sigset_t& unblocked);
    void FireFirstTimeout();
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
    // Keyed by microseconds since the epoch. A map rather than an append-and-sort list:
    // thousands of subscribed hosts re-arm their timers on every tick.
    std::multimap<std::uint64_t, KyEventTimeout> timeouts_;
    FileTable readTable_;
    FileTable writeTable_;
    PollSet pollSet_;
};

// The daemon's process object and its one event loop, built in this order at start-up.
extern KyUnixProcess pr;
extern KyEventLoop eventloop;
