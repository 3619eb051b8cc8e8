// The status report at farm scale: one GET through the command interpreter with 1,000
// and 10,000 subscriptions (all to 127.0.0.1) in the registry, and beside it the cost of
// the date form per host: mktime on every call against the zone-cached AsRFC1123.
// When streams copied their text out and every date went through mktime, the report
// took 2.6-7.9 ms / 7.6-114 ms (1,000 / 10,000 hosts, TZ=UTC) and 3.3 / 39-41 ms with
// TZ unset, where mktime checks the zone file on each call; now about 0.3 / 3.1-3.5 ms.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <memory>

#include "probe/parsecommand.h"
#include "tests/probe/subscription_world.h"

namespace {

void addHosts(unsigned count) {
    const KyUniString loopback("127.0.0.1");
    const KyUniString version("1.0");
    for (unsigned id = 1; id <= count; ++id) {
        HostListMgr::addHost(loopback, 40000 + id % 20000, 5000, 3, 30000, 10, id, version,
                             Host::CPU | Host::BOGO | Host::VMEM);
    }
}

// Second argument 1: TZ names UTC; 0: TZ unset, the usual daemon set-up, where every date
// still goes through mktime.
void StatusReport(benchmark::State& state) {
    state.range(1) != 0 ? setenv("TZ", "UTC", 1) : unsetenv("TZ");
    tzset();
    SubscriptionWorld world;
    myCache->addToCache(93, 51234, 0, 0, 0);
    addHosts(static_cast<unsigned>(state.range(0)));
    KyUniString reply;
    for (auto _ : state) {
        ParseCommand interpreter;
        KyUniString request("GET /?get&cvnlbinfo HTTP/1.0\r\n");
        reply = interpreter.doCommand(request).Str();
        benchmark::DoNotOptimize(reply.AsPointer());
    }
    state.counters["report_bytes"] = static_cast<double>(reply.AsUtf8().size());
}
BENCHMARK(StatusReport)
    ->ArgsProduct({{1000, 10000}, {1, 0}})
    ->ArgNames({"hosts", "utc"})
    ->Unit(benchmark::kMillisecond);

// What every host's time element used to cost: a mktime round trip and a formatted print.
void DateThroughMktime(benchmark::State& state) {
    setenv("TZ", "UTC", 1);
    tzset();
    std::uint32_t seconds = 1700000000;
    for (auto _ : state) {
        std::tm date{};
        date.tm_mday = 1;
        date.tm_year = 70;
        date.tm_sec = static_cast<int>(seconds % 60);
        date.tm_min = static_cast<int>(seconds / 60);
        const bool utc = std::mktime(&date) == static_cast<std::time_t>(seconds);
        char text[64];
        std::snprintf(text, sizeof text, "%02d %02d:%02d:%02d %d", date.tm_mday, date.tm_hour,
                      date.tm_min, date.tm_sec, utc);
        KyUniString result(text);
        benchmark::DoNotOptimize(result.AsPointer());
        ++seconds;
    }
}
BENCHMARK(DateThroughMktime);

void DateAsRfc1123(benchmark::State& state) {
    setenv("TZ", "UTC", 1);
    tzset();
    std::uint32_t seconds = 1700000000;
    for (auto _ : state) {
        const KyUniString result = KyTimeVal(seconds++, 0).AsRFC1123();
        benchmark::DoNotOptimize(result.AsPointer());
    }
}
BENCHMARK(DateAsRfc1123);

} // namespace

BENCHMARK_MAIN();
