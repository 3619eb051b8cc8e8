// KyEventLoop: one pass handles recorded signals first, then waits in poll until the
// earliest timeout at most, dispatches the ready descriptors (read before write) and then
// every timeout that is due, earliest first. Notices go to standard error because the loop
// may be what the log framework itself depends on.
#include "lib/eventloop.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <string>
#include <time.h>
#include <unistd.h>

#include "lib/error.h"

#if __has_include(<sys/devpoll.h>)
#include <sys/devpoll.h>
#include <sys/ioctl.h>
#define KY_HAVE_DEVPOLL 1
#endif

KyUnixProcess pr;
KyEventLoop eventloop(&pr);

namespace {

constexpr const char* Prefix = "VTL legacy event loop";
constexpr short InUse = POLLNVAL; // marks a poll-set entry as taken
constexpr std::size_t Growth = 100;

std::uint64_t Microseconds(const KyTimeVal& time) {
    return std::uint64_t{time.Seconds()} * KyTimeVal::MicrosPerSecond + time.Microseconds();
}

std::uint64_t ReadClock(clockid_t clock) {
    timespec now{};
    clock_gettime(clock, &now);
    return std::uint64_t(now.tv_sec) * KyTimeVal::MicrosPerSecond +
           std::uint64_t(now.tv_nsec) / 1000;
}

std::uint64_t WallClock() {
    return ReadClock(CLOCK_REALTIME);
}

std::uint64_t MonotonicClock() {
    return MonotonicMicros();
}

void Notice(const char* format, int fd = -1) {
    std::fprintf(stderr, format, Prefix, static_cast<int>(getpid()), fd);
    std::fflush(stderr);
}

} // namespace

void KyEventLoopBase::ExitEventLoop(int code) {
    exitCode_ = code;
    running_ = False;
}

void KyEventLoop::PollSet::Free::operator()(pollfd* p) const {
    std::free(p);
}

KyEventLoop::PollSet::PollSet() : entries_(static_cast<pollfd*>(std::malloc(sizeof(pollfd) * 10))) {
    if (!entries_)
        capacity_ = 0;
}

long KyEventLoop::PollSet::Find(int fd) const {
    for (std::size_t i = 0; i < count_; ++i)
        if (entries_.get()[i].fd == fd)
            return static_cast<long>(i);
    return -1;
}

bool KyEventLoop::PollSet::Append(int fd) {
    if (count_ >= capacity_) {
        void* grown = std::realloc(entries_.get(), sizeof(pollfd) * (capacity_ + Growth));
        if (grown == nullptr)
            return false;
        (void)entries_.release();
        entries_.reset(static_cast<pollfd*>(grown));
        capacity_ += Growth;
    }
    entries_.get()[count_++] = pollfd{fd, InUse, 0};
    return true;
}

void KyEventLoop::PollSet::RemoveAt(std::size_t i) {
    pollfd* base = entries_.get();
    std::memmove(base + i, base + i + 1, sizeof(pollfd) * (count_ - i - 1));
    --count_;
}

KyEventLoop::KyEventLoop(KyUnixProcess* process)
    : process_(process), wallClock_(WallClock), monotonicClock_(MonotonicClock) {
    readTable_.reserve(10);
    writeTable_.reserve(10);
    // Made now, not when the loop starts: a descriptor opened later could take the number of
    // one that a caller closed while still registered.
    if (process_ != nullptr)
        process_->WakeDescriptor();
}

void KyEventLoop::SetClocks(ClockReader wall, ClockReader monotonic) {
    wallClock_ = wall;
    monotonicClock_ = monotonic;
}

KyEventLoop::~KyEventLoop() {
    CloseDevPoll();
}

int KyEventLoop::EnterEventLoop() {
    running_ = True;
    // A signal that lands after the pending check but before the wait would otherwise sit
    // unseen until some descriptor or timeout wakes the loop (up to an hour for a daemon
    // with no subscriptions): the handler also writes to a pipe that the wait watches.
    // Blocking signals around the check and the wait did the same at two system calls a
    // pass; without the pipe (no descriptors left) the loop runs as before it existed.
    const int wake = process_ != nullptr ? process_->WakeDescriptor() : -1;
    if (wake >= 0)
        AddFileEvent(static_cast<unsigned>(wake), true, false, &wakeCallback_);
    if (process_ != nullptr)
        process_->StartSignals();
    while (true) {
        if (ShouldContinue() != True) {
            if (process_ != nullptr)
                process_->StopSignals();
            if (wake >= 0)
                RemoveFileEvent(static_cast<unsigned>(wake), true, false, &wakeCallback_);
            return exitCode_;
        }
        RunOnce();
    }
}

void KyEventLoop::Woken(KyCallback<cbdispatch>*, cbdispatch) {
    if (process_ != nullptr)
        process_->DrainWakeups();
}

void KyEventLoop::AddBeforeWait(BeforeWait hook) {
    if (std::find(beforeWait_.begin(), beforeWait_.end(), hook) == beforeWait_.end())
        beforeWait_.push_back(hook);
}

void KyEventLoop::RemoveBeforeWait(BeforeWait hook) {
    std::erase(beforeWait_, hook);
}

void KyEventLoop::RunOnce() {
    if (process_ != nullptr && process_->ProcessSignals() == True)
        return;
    // Before the wait is computed, so the time the hooks take shortens it.
    for (BeforeWait hook : beforeWait_)
        hook();
    int wait = WaitMilliseconds();
    int ready;
    if (process_ != nullptr && process_->HasPendingSignals())
        return;
#ifdef KY_HAVE_DEVPOLL
    if (devPollMode_) {
        pollfd results[1024];
        dvpoll request{results, 1024, wait};
        ready = ioctl(devPollFd_, DP_POLL, &request);
        if (ready > 0) {
            const std::uint64_t now = monotonicClock_();
            fence_ = std::max(fence_, now);
            DispatchDevPoll(results, ready);
            return FireDueTimeouts(now);
        }
    } else
#endif
        ready = WaitForEvents(wait);
    const int waitErrno = errno;
    if (ready < 0 && waitErrno != EINTR && waitErrno != EAGAIN)
        return PollFailed(waitErrno, wait);
    // Due timeouts fire in every pass, however busy the descriptors are: a control port
    // kept ready by many clients must not starve the load reports. Time is taken before
    // the descriptors run, so whatever they add waits for the next pass.
    const std::uint64_t now = monotonicClock_();
    fence_ = std::max(fence_, now);
    // A signal that arrived during the wait goes before the descriptors ready with it.
    if (ready > 0 && process_ != nullptr && process_->HasPendingSignals() &&
        process_->ProcessSignals() == True && ShouldContinue() != True)
        return;
    if (ready > 0)
        DispatchReady();
    FireDueTimeouts(now);
}

int KyEventLoop::WaitForEvents(int wait) {
    timespec limit{wait / 1000, (wait % 1000) * 1000000L};
    return ppoll(pollSet_.Data(), pollSet_.Count(), wait < 0 ? nullptr : &limit, nullptr);
}

int KyEventLoop::WaitMilliseconds() const {
    if (timeouts_.empty())
        return -1;
    const std::uint64_t due = timeouts_.begin()->first.first;
    const std::uint64_t now = monotonicClock_();
    if (now >= due)
        return 0;
    // Rounded up: waking a little early would only spin until the timeout is due.
    const std::uint64_t millis = (due - now + 999) / 1000;
    return millis > INT_MAX ? INT_MAX : static_cast<int>(millis);
}

void KyEventLoop::FireDueTimeouts(std::uint64_t now) {
    while (running_ == True && !timeouts_.empty() && timeouts_.begin()->first.first <= now) {
        // Taken out before it runs, so the callback may add or remove timeouts freely.
        Take(timeouts_.begin()).mapped().Dispatch();
    }
}

KyEventLoop::Timeouts::node_type KyEventLoop::Take(Timeouts::iterator entry) {
    auto [first, last] = byTime_.equal_range(Microseconds(entry->second.Time()));
    for (auto it = first; it != last; ++it) {
        if (it->second == entry) {
            byTime_.erase(it);
            break;
        }
    }
    return timeouts_.extract(entry);
}

void KyEventLoop::PollFailed(int error, int wait) {
    KyUnixError record;
    record.Set(KyUniString("poll"),
               KyUniString(std::string("<pollfd *>,") + std::to_string(pollSet_.Count()) + "," +
                           std::to_string(wait)),
               error);
    std::string reason = record.Reason().AsUtf8();
    std::fprintf(stderr, "\n%sPID=%d FATAL ERROR:EventLoop has unexpected error: %s\n", Prefix,
                 static_cast<int>(getpid()), reason.c_str());
    if (devPollMode_)
        std::fprintf(stderr, "Poll fd %d\n", devPollFd_);
    std::fflush(stderr);
    ExitEventLoop(127);
}

bool KyEventLoop::DispatchFile(const FileTable& table, int fd) {
    if (fd < 0 || static_cast<std::size_t>(fd) >= table.size() || !table[fd])
        return false;
    // Only the callback is touched: it may remove (and so delete) its own event.
    table[fd]->Callback()->Dispatch(KyEvent::Fired);
    return true;
}

void KyEventLoop::DispatchReady() {
    for (std::size_t i = 0; i < pollSet_.Count(); ++i) {
        short returned = pollSet_[i].revents;
        if (returned & (POLLIN | POLLERR | POLLHUP))
            DispatchFile(readTable_, pollSet_[i].fd);
        if (i >= pollSet_.Count())
            break;
        returned = pollSet_[i].revents;
        if (returned & (POLLOUT | POLLERR | POLLHUP))
            DispatchFile(writeTable_, pollSet_[i].fd);
        if (i >= pollSet_.Count())
            break;
        if (pollSet_[i].revents & POLLNVAL) {
            ReportBadDescriptor(i);
            break;
        }
    }
}

void KyEventLoop::ReportBadDescriptor(std::size_t index) {
    int fd = pollSet_[index].fd;
    short wanted = pollSet_[index].events;
    if (wanted & POLLOUT)
        Notice("\n%sPID=%d SEVERE INTERNAL ERROR\nThe eventloop has bad write file descriptor %d - "
               "this software will not function correctly.\n",
               fd);
    if (wanted & POLLIN)
        Notice("\n%sPID=%d SEVERE INTERNAL ERROR\nThe eventloop has bad read file descriptor %d - "
               "this software will not function correctly.\n",
               fd);
    RemoveFileEvent(static_cast<unsigned>(fd), true, true, nullptr);
}

void KyEventLoop::Store(FileTable& table, int fd, std::unique_ptr<KyEventFile> event) {
    std::size_t slot = static_cast<std::size_t>(fd);
    if (slot >= table.size())
        table.resize((slot / 10 + 1) * 10);
    table[slot] = std::move(event);
}

void KyEventLoop::Clear(FileTable& table, int fd) {
    if (static_cast<std::size_t>(fd) < table.size())
        table[fd].reset();
}

KyStatus KyEventLoop::AddFileEvent(unsigned fd, bool read, bool write,
                                   KyCallback<cbdispatch>* callback) {
    int descriptor = static_cast<int>(fd);
    long index = pollSet_.Find(descriptor);
    if (index < 0) {
        if (!pollSet_.Append(descriptor)) {
            // The set is left as it was, so the registrations already made keep working.
            Notice("\n%sPID=%d SEVERE INTERNAL ERROR\nThe eventloop failed to allocate memory "
                   "for poll list - this software will not function correctly.\n");
            return False;
        }
        index = static_cast<long>(pollSet_.Count() - 1);
    }
    pollfd& entry = pollSet_[static_cast<std::size_t>(index)];
    if (read) {
        Store(readTable_, descriptor, std::make_unique<KyEventFile>(callback, descriptor, true));
        entry.events |= POLLIN;
    }
    if (write) {
        Store(writeTable_, descriptor, std::make_unique<KyEventFile>(callback, descriptor, false));
        entry.events |= POLLOUT;
    }
    if (devPollMode_)
        WriteDevPoll(descriptor, static_cast<short>((read ? POLLIN : 0) | (write ? POLLOUT : 0)));
    return Success;
}

KyStatus KyEventLoop::RemoveFileEvent(unsigned fd, bool read, bool write, KyCallback<cbdispatch>*) {
    int descriptor = static_cast<int>(fd);
    long index = pollSet_.Find(descriptor);
    if (index < 0)
        return False;
    pollfd& entry = pollSet_[static_cast<std::size_t>(index)];
    if (read) {
        Clear(readTable_, descriptor);
        entry.events &= ~POLLIN;
    }
    if (write) {
        Clear(writeTable_, descriptor);
        entry.events &= ~POLLOUT;
    }
    short remaining = entry.events;
    if (devPollMode_) {
        WriteDevPoll(descriptor, 2048); // POLLREMOVE
        if (devPollMode_ && (remaining & POLLIN))
            WriteDevPoll(descriptor, POLLIN);
    }
    if (remaining == InUse || remaining == 0)
        pollSet_.RemoveAt(static_cast<std::size_t>(index));
    return Success;
}

// Callers give wall-clock times; the distance from now on the wall clock becomes the same
// distance on the monotonic clock, so a later step of the wall clock moves nothing.
KyStatus KyEventLoop::AddTimeoutEvent(const KyTimeVal& time, KyCallback<cbdispatch>* callback) {
    const std::uint64_t wanted = Microseconds(time);
    const std::uint64_t wall = wallClock_();
    const std::uint64_t now = monotonicClock_();
    std::uint64_t due = 0;
    if (wanted >= wall)
        due = now + (wanted - wall);
    else if (wall - wanted < now)
        due = now - (wall - wanted); // long due: keeps its place among the other late ones
    due = std::max(due, fence_ + 1);
    const auto entry =
        timeouts_.emplace(std::piecewise_construct, std::forward_as_tuple(due, wanted),
                          std::forward_as_tuple(callback, time));
    byTime_.emplace(wanted, entry);
    return Success;
}

KyStatus KyEventLoop::RemoveTimeoutEvent(const KyTimeVal& time, KyCallback<cbdispatch>* callback) {
    auto [first, last] = byTime_.equal_range(Microseconds(time));
    for (auto it = first; it != last; ++it) {
        if (it->second->second.Callback() != callback)
            continue;
        // Out of the maps first: the withdrawal notice may re-arm or remove other timeouts.
        auto node = Take(it->second);
        callback->Dispatch(KyEvent::Withdrawn);
        return True;
    }
    return Failure;
}

KyStatus KyEventLoop::OpenDevPoll() {
    CloseDevPoll();
    devPollMode_ = true;
#ifdef KY_HAVE_DEVPOLL
    devPollFd_ = open("/dev/poll", O_RDWR);
#else
    errno = ENOENT; // no such device on this system: behave as a failed open
#endif
    if (devPollFd_ < 0) {
        std::perror("Could not open /dev/poll");
        devPollMode_ = false;
        return Failure;
    }
    fcntl(devPollFd_, F_SETFD, FD_CLOEXEC);
    if (pollSet_.Count() > 0) {
        std::size_t bytes = sizeof(pollfd) * pollSet_.Count();
        if (write(devPollFd_, pollSet_.Data(), bytes) != static_cast<ssize_t>(bytes)) {
            std::perror("failed to write all pollfds");
            CloseDevPoll();
            return Failure;
        }
    }
    return Success;
}

void KyEventLoop::CloseDevPoll() {
    if (devPollFd_ >= 0)
        close(devPollFd_);
    devPollFd_ = -1;
    devPollMode_ = false;
}

void KyEventLoop::WriteDevPoll(int fd, short events) {
    pollfd record{fd, events, 0};
    if (write(devPollFd_, &record, sizeof record) != static_cast<ssize_t>(sizeof record)) {
        std::perror("failed to write all pollfds");
        CloseDevPoll();
    }
}

#ifdef KY_HAVE_DEVPOLL
// Write readiness is reported once per registration in this mode: descriptors that
// reported it are dropped from the device and re-added for reading only.
void KyEventLoop::DispatchDevPoll(const pollfd* results, int count) {
    for (int i = 0; i < count; ++i) {
        if (results[i].revents & (POLLIN | POLLERR | POLLHUP))
            DispatchFile(readTable_, results[i].fd);
        if (results[i].revents & (POLLOUT | POLLERR | POLLHUP))
            DispatchFile(writeTable_, results[i].fd);
    }
    for (int i = 0; i < count && devPollFd_ >= 0; ++i) {
        pollfd record{results[i].fd, POLLREMOVE, 0};
        if ((results[i].revents & (POLLNVAL | POLLERR | POLLHUP | POLLOUT)) &&
            write(devPollFd_, &record, sizeof record) != static_cast<ssize_t>(sizeof record))
            std::perror("Write to devpoll failed");
    }
    for (int i = 0; i < count && devPollFd_ >= 0; ++i) {
        int fd = results[i].fd;
        bool writeOnly = (results[i].revents & POLLOUT) &&
                         !(results[i].revents & (POLLNVAL | POLLERR | POLLHUP));
        if (!writeOnly || static_cast<std::size_t>(fd) >= readTable_.size() || !readTable_[fd])
            continue;
        pollfd record{fd, POLLIN, 0};
        if (ioctl(devPollFd_, DP_ISPOLLED, &record) == 0 &&
            write(devPollFd_, &record, sizeof record) != static_cast<ssize_t>(sizeof record))
            std::perror("Write to devpoll failed");
    }
}
#endif
