// Cost of the event loop per registration and per dispatch as registered timeouts and
// descriptors grow, beside the append-and-sort timeout list the loop no longer uses.
#include <algorithm>
#include <benchmark/benchmark.h>
#include <sys/resource.h>
#include <unistd.h>
#include <utility>
#include <vector>

#include "lib/eventloop.h"

namespace {

constexpr int Batch = 1000; // dispatches per benchmark iteration

// Re-arms itself one step behind the latest timeout, as a subscribed host's timer does;
// all times lie in the past so every pass fires one timeout without sleeping.
class Rearm : public KyCallback<KyEvent::cbdispatch> {
public:
    Rearm(KyEventLoop& loop, std::uint32_t next) : loop_(loop), next_(next) {}
    void Dispatch(int) override {
        loop_.AddTimeoutEvent(KyTimeVal(1, 0) + KyTimeVal(0, next_++), this);
        if (++fired_ % Batch == 0)
            loop_.ExitEventLoop(0);
    }

private:
    KyEventLoop& loop_;
    std::uint32_t next_;
    long fired_ = 0;
};

void LoopTimeoutRearm(benchmark::State& state) {
    KyEventLoop loop(nullptr);
    std::uint32_t count = static_cast<std::uint32_t>(state.range(0));
    Rearm callback(loop, count);
    for (std::uint32_t i = 0; i < count; ++i)
        loop.AddTimeoutEvent(KyTimeVal(1, 0) + KyTimeVal(0, i), &callback);
    for (auto _ : state)
        loop.EnterEventLoop();
    state.SetItemsProcessed(state.iterations() * Batch);
    state.SetLabel("fire + re-arm through poll");
}

void LoopTimeoutAddRemove(benchmark::State& state) {
    KyEventLoop loop(nullptr);
    KyStaticCallback<KyEvent::cbdispatch> callback([](KyCallback<int>*, int) {});
    for (std::uint32_t i = 0; i < state.range(0); ++i)
        loop.AddTimeoutEvent(KyTimeVal(2, i * 7), &callback);
    std::uint32_t step = 0;
    for (auto _ : state) {
        KyTimeVal when(2, (step++ * 13) % 1000000);
        loop.AddTimeoutEvent(when, &callback);
        loop.RemoveTimeoutEvent(when, &callback);
    }
    state.SetItemsProcessed(state.iterations());
}

// The list the loop used to keep: append, then a quicksort with the middle element as
// pivot over the whole list; the earliest is taken from the front.
struct Timed {
    std::uint64_t at;
};

void QuickSort(std::vector<Timed*>& list, long low, long high) {
    if (low >= high)
        return;
    std::swap(list[low], list[(low + high) / 2]);
    long last = low;
    for (long i = low + 1; i <= high; ++i)
        if (list[i]->at < list[low]->at)
            std::swap(list[++last], list[i]);
    std::swap(list[low], list[last]);
    QuickSort(list, low, last - 1);
    QuickSort(list, last + 1, high);
}

void SortedListRearm(benchmark::State& state) {
    std::vector<Timed*> list;
    std::uint64_t next = 0;
    for (; next < static_cast<std::uint64_t>(state.range(0)); ++next)
        list.push_back(new Timed{next});
    for (auto _ : state) {
        Timed* first = list.front();
        list.erase(list.begin());
        first->at = next++;
        list.push_back(first);
        QuickSort(list, 0, static_cast<long>(list.size()) - 1);
    }
    for (Timed* item : list)
        delete item;
    state.SetItemsProcessed(state.iterations());
    state.SetLabel("pop first + append + sort, no poll");
}

class ReadCounter : public KyCallback<KyEvent::cbdispatch> {
public:
    explicit ReadCounter(KyEventLoop& loop) : loop_(loop) {}
    void Dispatch(int) override {
        if (++reads_ % Batch == 0)
            loop_.ExitEventLoop(0);
    }

private:
    KyEventLoop& loop_;
    long reads_ = 0;
};

struct Pipes {
    explicit Pipes(long count) {
        rlimit limit{};
        getrlimit(RLIMIT_NOFILE, &limit);
        limit.rlim_cur = std::min<rlim_t>(limit.rlim_max, 8192);
        setrlimit(RLIMIT_NOFILE, &limit);
        for (long i = 0; i < count; ++i) {
            int fds[2];
            if (pipe(fds) != 0)
                break;
            ends.push_back(fds[0]), ends.push_back(fds[1]);
        }
    }
    ~Pipes() {
        for (int fd : ends)
            close(fd);
    }
    int Read(long i) const { return ends[2 * i]; }
    int Write(long i) const { return ends[2 * i + 1]; }
    std::vector<int> ends;
};

// Idle descriptors plus one that stays readable: each pass polls them all and
// dispatches the active one.
void LoopDescriptors(benchmark::State& state) {
    long idle = state.range(0);
    Pipes pipes(idle + 1);
    KyEventLoop loop(nullptr);
    ReadCounter active(loop);
    KyStaticCallback<KyEvent::cbdispatch> never([](KyCallback<int>*, int) {});
    for (long i = 0; i < idle; ++i)
        loop.AddFileEvent(pipes.Read(i), true, false, &never);
    if (write(pipes.Write(idle), "x", 1) != 1)
        state.SkipWithError("pipe write failed");
    loop.AddFileEvent(pipes.Read(idle), true, false, &active);
    for (auto _ : state)
        loop.EnterEventLoop();
    state.SetItemsProcessed(state.iterations() * Batch);
}

void LoopFileAddRemove(benchmark::State& state) {
    long idle = state.range(0);
    Pipes pipes(idle + 1);
    KyEventLoop loop(nullptr);
    KyStaticCallback<KyEvent::cbdispatch> never([](KyCallback<int>*, int) {});
    for (long i = 0; i < idle; ++i)
        loop.AddFileEvent(pipes.Read(i), true, false, &never);
    unsigned extra = static_cast<unsigned>(pipes.Read(idle));
    for (auto _ : state) {
        loop.AddFileEvent(extra, true, true, &never);
        loop.RemoveFileEvent(extra, true, true, nullptr);
    }
    state.SetItemsProcessed(state.iterations());
}

} // namespace

BENCHMARK(LoopTimeoutRearm)->Arg(10)->Arg(1000)->Arg(10000)->Arg(100000);
BENCHMARK(LoopTimeoutAddRemove)->Arg(10)->Arg(1000)->Arg(10000)->Arg(100000);
BENCHMARK(SortedListRearm)->Arg(10)->Arg(1000)->Arg(10000)->Arg(100000);
BENCHMARK(LoopDescriptors)->Arg(10)->Arg(100)->Arg(1000);
BENCHMARK(LoopFileAddRemove)->Arg(10)->Arg(100)->Arg(1000);

BENCHMARK_MAIN();
