// hostgauge-vmstat: the load tool the daemon runs on Linux. It speaks the Solaris "vmstat -S"
// format that the daemon's vmstat filter parses: two heading lines, a line of averages since
// boot, then one 22-column sample line every interval until count lines have been printed.
// Counters come from /proc (or the tree named by -P or HOSTGAUGE_PROC).
#include "lib/error.h"
#include "lib/unistring.h"
#include "tools/vmstat_proc.h"
#include "tools/vmstat_row.h"

#include <cerrno>
#include <charconv>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <span>
#include <string>
#include <string_view>
#include <unistd.h>
#include <utility>

namespace {

constexpr int kExitFailure = 1;
constexpr int kExitUsage = 2;
constexpr std::string_view kUsage =
    "usage: hostgauge-vmstat [-S] [-P proc-dir] [interval [count]]\n"
    "  -S           Solaris-style columns (the only format; accepted for compatibility)\n"
    "  -P proc-dir  read the counters from proc-dir instead of /proc (also HOSTGAUGE_PROC)\n"
    "  interval     seconds between sample lines (a positive integer)\n"
    "  count        number of sample lines in all, the since-boot line included\n";

struct Options {
    std::string procDir = "/proc";
    std::uint32_t interval = 0; // 0: the since-boot line only
    std::uint64_t count = 0;    // 0: until stopped
};

template <typename T>
bool ParsePositive(std::string_view text, T& value) {
    const auto* end = text.data() + text.size();
    const auto [ptr, ec] = std::from_chars(text.data(), end, value);
    return ec == std::errc() && ptr == end && value > 0;
}

bool ParseOptions(int argc, char** argv, Options& options) {
    if (const char* env = std::getenv("HOSTGAUGE_PROC"); env != nullptr && *env != '\0')
        options.procDir = env;
    int positional = 0;
    for (int i = 1; i < argc; ++i) {
        const std::string_view arg = argv[i];
        if (arg == "-S")
            continue;
        if (arg == "-P" && i + 1 < argc) {
            options.procDir = argv[++i];
        } else if (arg.starts_with("-") || positional == 2) {
            return false;
        } else if (positional++ == 0) {
            if (!ParsePositive(arg, options.interval))
                return false;
        } else if (!ParsePositive(arg, options.count)) {
            return false;
        }
    }
    return true;
}

// A reader that went away is the normal end of a run for the daemon: leave quietly.
void WriteOut(std::string_view text) {
    while (!text.empty()) {
        const ssize_t n = ::write(STDOUT_FILENO, text.data(), text.size());
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0 && errno == EPIPE)
            std::_Exit(0);
        if (n < 0) {
            const int error = errno;
            KyUnixError failure;
            failure.Set("write", KyUniString(std::string_view("1," + std::to_string(text.size()))),
                        error);
            std::fprintf(stderr, "hostgauge-vmstat: %s\n", failure.Reason().AsUtf8().c_str());
            std::_Exit(kExitFailure);
        }
        text.remove_prefix(static_cast<std::size_t>(n));
    }
}

// Sleeps until an absolute deadline, so the samples do not drift by the time each one takes.
void SleepUntil(timespec& deadline, std::uint32_t interval) {
    deadline.tv_sec += interval;
    while (::clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &deadline, nullptr) == EINTR) {
    }
}

class Sampler {
public:
    explicit Sampler(std::string procDir)
        : procDir_(std::move(procDir)), pageSize_(::sysconf(_SC_PAGESIZE)),
          hz_(::sysconf(_SC_CLK_TCK)) {}

    // Takes a new snapshot and computes the line for the time since the previous one.
    KyStatus Next(double nominalSeconds, vmstat::Row& row) {
        vmstat::Snapshot next;
        if (!vmstat::ReadSnapshot(procDir_, next, failure_))
            return Failure;
        row = vmstat::ComputeRow(current_, next, pageSize_, hz_, nominalSeconds);
        current_ = next;
        return Success;
    }
    const KyUnixError& LastFailure() const { return failure_; }

private:
    std::string procDir_;
    long pageSize_;
    long hz_;
    vmstat::Snapshot current_; // zero until the first line: that line covers the uptime
    KyUnixError failure_;
};

void Print(const vmstat::Row& row) {
    char line[512];
    WriteOut(vmstat::FormatRow(row, line));
}

int Fail(const Sampler& sampler) {
    std::fprintf(stderr, "hostgauge-vmstat: %s\n", sampler.LastFailure().Reason().AsUtf8().c_str());
    return kExitFailure;
}

} // namespace

int main(int argc, char** argv) {
    Options options;
    if (!ParseOptions(argc, argv, options)) {
        std::fputs(kUsage.data(), stderr);
        return kExitUsage;
    }
    std::signal(SIGPIPE, SIG_IGN);
    Sampler sampler(options.procDir);
    timespec deadline{};
    ::clock_gettime(CLOCK_MONOTONIC, &deadline);
    vmstat::Row row;
    if (!sampler.Next(1.0, row))
        return Fail(sampler);
    WriteOut(vmstat::FormatHeadings());
    Print(row);
    for (std::uint64_t printed = 1;
         options.interval > 0 && (options.count == 0 || printed < options.count); ++printed) {
        SleepUntil(deadline, options.interval);
        if (!sampler.Next(options.interval, row))
            return Fail(sampler);
        Print(row);
    }
    return 0;
}
