// CPU cost of one sample line of hostgauge-vmstat on this machine's /proc: reading the four
// counter files, computing the 22 columns and formatting the line. The tool runs all day
// beside the daemon, so one sample should stay well under a millisecond.
#include "tools/vmstat_proc.h"
#include "tools/vmstat_row.h"

#include <benchmark/benchmark.h>
#include <unistd.h>

namespace {

void BM_SnapshotToLine(benchmark::State& state) {
    vmstat::Snapshot before, after;
    KyUnixError failure;
    if (!vmstat::ReadSnapshot("/proc", before, failure)) {
        state.SkipWithError(failure.Reason().AsUtf8().c_str());
        return;
    }
    const long pageSize = sysconf(_SC_PAGESIZE), hz = sysconf(_SC_CLK_TCK);
    char line[512];
    for (auto _ : state) {
        vmstat::ReadSnapshot("/proc", after, failure);
        auto text = vmstat::FormatRow(vmstat::ComputeRow(before, after, pageSize, hz, 1.0), line);
        benchmark::DoNotOptimize(text);
        before = after;
    }
}
BENCHMARK(BM_SnapshotToLine)->Unit(benchmark::kMicrosecond);

} // namespace

BENCHMARK_MAIN();
