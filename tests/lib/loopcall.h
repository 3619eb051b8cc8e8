// Test helpers for code driven by the event loop: a callback that runs a lambda, and a
// run of the loop that a timeout ends with code 99 if nothing else ends it first.
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
