// Test helpers for code driven by the event loop: a callback that runs a lambda, a run of
// the loop that a timeout ends with code 99 if nothing else ends it first, and a run that
// lasts until a condition holds.
#pragma once

#include <functional>

#include "lib/eventloop.h"

template <typename A = KyEvent::cbdispatch>
struct Call : KyCallback<A> {
    explicit Call(std::function<void(A)> f) : run(std::move(f)) {}
    void Dispatch(A arg) override { run(arg); }
    std::function<void(A)> run;
};

// Runs the loop until a callback ends it; a regression that hangs, or a run meant to last
// a while, ends with 99 after `limit`.
inline int RunGuarded(KyEventLoop& loop, KyTimeVal limit = KyTimeVal(2, 0)) {
    Call<> guard{[&loop](int reason) {
        if (reason == KyEvent::Fired)
            loop.ExitEventLoop(99);
    }};
    const KyTimeVal due = KyTimeVal() + limit;
    loop.AddTimeoutEvent(due, &guard);
    const int code = loop.EnterEventLoop();
    loop.RemoveTimeoutEvent(due, &guard);
    return code;
}

// Runs the loop until `done` holds (asked every 5 ms) or `seconds` have passed; true if it held.
inline bool RunUntil(KyEventLoop& loop, const std::function<bool()>& done, int seconds = 2) {
    bool met = false;
    KyTimeVal next;
    Call<> check{[&](int reason) {
        if (reason != KyEvent::Fired)
            return;
        if ((met = done()))
            return loop.ExitEventLoop(0);
        next = KyTimeVal() + KyTimeVal(0, 5000);
        loop.AddTimeoutEvent(next, &check);
    }};
    loop.AddTimeoutEvent(next, &check);
    RunGuarded(loop, KyTimeVal(seconds, 0));
    loop.RemoveTimeoutEvent(next, &check);
    return met;
}
