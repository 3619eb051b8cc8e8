// Cost of one log record: 100,000 catalogue messages written through the log framework
// to a plain file, against fprintf+fflush of the same record text in the same run.
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <unistd.h>

#include <benchmark/benchmark.h>

#include "lib/stream.h"
#include "lib/time.h"
#include "probe/logging.h"
#include "probe/messages.h"

namespace {

constexpr int Records = 100000;
double frameworkSeconds = 0;
double fprintfSeconds = 0;

std::filesystem::path BenchDir() {
    static const std::filesystem::path dir =
        std::filesystem::temp_directory_path() / ("hgbench" + std::to_string(getpid()));
    std::filesystem::create_directories(dir);
    return dir;
}

void ThroughFramework(benchmark::State& state) {
    Logging logging(KyUniString(BenchDir().string()), "*/*/*:framework.log");
    const KyUniString peer("10.1.2.3");
    const auto start = std::chrono::steady_clock::now();
    for (auto _ : state) {
        LogNewConnection(peer);
    }
    frameworkSeconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    state.counters["records/s"] =
        benchmark::Counter(double(state.iterations()), benchmark::Counter::kIsRate);
}

void PlainFprintf(benchmark::State& state) {
    std::FILE* file = std::fopen((BenchDir() / "fprintf.log").c_str(), "a");
    KyTimeFormat format;
    unsigned counter = 0;
    const auto start = std::chrono::steady_clock::now();
    for (auto _ : state) {
        const KyTimeVal now;
        std::fprintf(file, "%s\t (pid %d)\t%s\t#%u\tKeldmoor Vantorel((legacy))\n%s%s%s\n",
                     std::string(format.Format(now)).c_str(), int(getpid()),
                     "hostgauge/listener/info", ++counter, "Received new connection from ",
                     "10.1.2.3", ".");
        std::fflush(file);
    }
    fprintfSeconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    std::fclose(file);
    state.counters["records/s"] =
        benchmark::Counter(double(state.iterations()), benchmark::Counter::kIsRate);
}

BENCHMARK(ThroughFramework)->Iterations(Records)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(PlainFprintf)->Iterations(Records)->UseRealTime()->Unit(benchmark::kMillisecond);

} // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    if (frameworkSeconds > 0 && fprintfSeconds > 0) {
        std::printf("framework %.0f records/s, fprintf %.0f records/s, "
                    "framework/fprintf time ratio %.2f\n",
                    Records / frameworkSeconds, Records / fprintfSeconds,
                    frameworkSeconds / fprintfSeconds);
    }
    std::filesystem::remove_all(BenchDir());
    return 0;
}
