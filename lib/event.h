// Callbacks and the events that carry them. Every event the loop or the process
// object delivers (descriptor readiness, timeouts, signals, child exits) ends in a
// KyCallback owned by whoever registered it; the events themselves belong to the loop
// or the process object.
#pragma once

#include <sys/types.h>

#include "lib/time.h"

// The interface through which an event reaches its owner; A is what the event passes.
template <typename A>
class KyCallback {
public:
    virtual ~KyCallback() = default;
    virtual void Dispatch(A arg) = 0;
};

// Calls a member function of an object, handing it the callback itself so one method
// can serve several registrations.
template <typename A, typename T>
class KySimpleCallback : public KyCallback<A> {
public:
    using Method = void (T::*)(KyCallback<A>*, A);
    KySimpleCallback(T* target, Method method) : target_(target), method_(method) {}
    void Dispatch(A arg) override { (target_->*method_)(this, arg); }

private:
    T* target_;
    Method method_;
};

// A callback that carries a datum chosen at registration (a circuit to delete, a
// signal number) so that the receiver needs no lookup of its own.
template <typename A, typename D>
class KyBaseCallbackWithData : public KyCallback<A> {
public:
    explicit KyBaseCallbackWithData(const D& data) : data_(data) {}
    const D& Data() const { return data_; }

private:
    D data_;
};

template <typename A, typename T, typename D>
class KyCallbackWithData : public KyBaseCallbackWithData<A, D> {
public:
    using Method = void (T::*)(KyCallback<A>*, A, D);
    KyCallbackWithData(T* target, Method method, const D& data)
        : KyBaseCallbackWithData<A, D>(data), target_(target), method_(method) {}
    void Dispatch(A arg) override { (target_->*method_)(this, arg, this->Data()); }

private:
    T* target_;
    Method method_;
};

template <typename A>
class KyStaticCallback : public KyCallback<A> {
public:
    using Function = void (*)(KyCallback<A>*, A);
    explicit KyStaticCallback(Function function) : function_(function) {}
    void Dispatch(A arg) override { function_(this, arg); }

private:
    Function function_;
};

// One registration with the loop or the process object: the callback to run.
class KyEvent {
public:
    // Why a callback runs: the event fired, or a timeout was withdrawn and its owner may
    // release what it tied to it.
    using cbdispatch = int;
    static constexpr cbdispatch Fired = 0;
    static constexpr cbdispatch Withdrawn = 1;

    explicit KyEvent(KyCallback<cbdispatch>* callback) : callback_(callback) {}
    virtual ~KyEvent() = default;
    KyEvent(const KyEvent&) = delete;
    KyEvent& operator=(const KyEvent&) = delete;

    KyCallback<cbdispatch>* Callback() const { return callback_; }
    void Dispatch() const;

private:
    KyCallback<cbdispatch>* callback_;
};

// Readiness of one direction of one descriptor.
class KyEventFile : public KyEvent {
public:
    KyEventFile(KyCallback<cbdispatch>* callback, int fd, bool read)
        : KyEvent(callback), fd_(fd), read_(read) {}
    int FileDescriptor() const { return fd_; }
    bool IsRead() const { return read_; }

private:
    int fd_;
    bool read_;
};

// A callback due at an absolute time.
class KyEventTimeout : public KyEvent {
public:
    KyEventTimeout(KyCallback<cbdispatch>* callback, const KyTimeVal& time)
        : KyEvent(callback), time_(time) {}
    const KyTimeVal& Time() const { return time_; }
    bool operator<(const KyEventTimeout& other) const { return time_ < other.time_; }

private:
    KyTimeVal time_;
};

// A caught signal; the pid is set only for a child-exit registration.
class KyEventSignal : public KyEvent {
public:
    KyEventSignal(KyCallback<cbdispatch>* callback, int signal, pid_t pid = 0)
        : KyEvent(callback), signal_(signal), pid_(pid) {}
    int SignalNumber() const { return signal_; }
    pid_t Pid() const { return pid_; }

private:
    int signal_;
    pid_t pid_;
};
