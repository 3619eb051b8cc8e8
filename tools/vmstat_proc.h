// Reads one snapshot of the kernel's load counters from a /proc tree (stat, meminfo, vmstat,
// diskstats) for hostgauge-vmstat. Files are read with plain read() into a stack buffer and
// parsed line by line in place, so a sample costs a few system calls and a handful of short
// strings (file paths and disk names).
#pragma once

#include "lib/error.h"
#include "lib/numbers.h"
#include "lib/unistring.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <cstdint>
#include <cstring>
#include <fcntl.h>
#include <string>
#include <string_view>
#include <unistd.h>
#include <vector>

namespace vmstat {

// Owns one open descriptor.
class Fd {
public:
    explicit Fd(int fd) : fd_(fd) {}
    Fd(const Fd&) = delete;
    Fd& operator=(const Fd&) = delete;
    ~Fd() {
        if (fd_ >= 0)
            ::close(fd_);
    }
    int Get() const { return fd_; }

private:
    int fd_;
};

inline std::string_view NextField(std::string_view& line) {
    const auto start = line.find_first_not_of(" \t");
    if (start == std::string_view::npos) {
        line = {};
        return {};
    }
    line.remove_prefix(start);
    const auto end = std::min(line.find_first_of(" \t"), line.size());
    const auto field = line.substr(0, end);
    line.remove_prefix(end);
    return field;
}

// A counter field; anything that is not a plain decimal number counts as 0.
inline std::uint64_t ToCount(std::string_view text) {
    std::uint64_t value = 0;
    std::from_chars(text.data(), text.data() + text.size(), value);
    return value;
}

// Hands the complete lines of text to onLine and returns the unfinished rest. The kernel's
// files have short lines except /proc/stat's interrupt list, of which only the leading total
// is needed: a line that fills the whole buffer is handed over cut there, and skipping is set
// so that its remainder is dropped.
template <typename OnLine>
std::string_view DeliverLines(std::string_view text, std::size_t capacity, bool& skipping,
                              OnLine& onLine) {
    for (auto eol = text.find('\n'); eol != std::string_view::npos; eol = text.find('\n')) {
        if (!skipping)
            onLine(text.substr(0, eol));
        skipping = false;
        text.remove_prefix(eol + 1);
    }
    if (text.size() == capacity) {
        if (!skipping)
            onLine(text);
        skipping = true;
        text.remove_prefix(text.size());
    }
    return text;
}

// Hands every line of the file at path to onLine, read with plain read() into a stack buffer.
template <typename OnLine>
KyStatus ForEachLine(const std::string& path, OnLine&& onLine, KyUnixError& failure) {
    Fd fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (fd.Get() < 0) {
        const int error = errno;
        failure.Set("open", KyUniString(std::string_view(path + ",O_RDONLY")), error);
        return Failure;
    }
    char buffer[8192];
    std::size_t used = 0;
    bool skipping = false;
    for (;;) {
        const ssize_t n = ::read(fd.Get(), buffer + used, sizeof buffer - used);
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0) {
            const int error = errno;
            const auto args = path + "," + std::to_string(sizeof buffer - used);
            failure.Set("read", KyUniString(std::string_view(args)), error);
            return Failure;
        }
        if (n == 0) {
            if (used > 0 && !skipping)
                onLine(std::string_view(buffer, used));
            return Success;
        }
        const auto rest = DeliverLines(std::string_view(buffer, used + static_cast<std::size_t>(n)),
                                       sizeof buffer, skipping, onLine);
        std::memmove(buffer, rest.data(), rest.size());
        used = rest.size();
    }
}

// Jiffies of the "cpu" line; guest time is already part of user and nice.
struct CpuTimes {
    std::uint64_t user = 0, nice = 0, system = 0, idle = 0, iowait = 0, irq = 0, softirq = 0,
                  steal = 0;

    std::uint64_t Total() const {
        return user + nice + system + idle + iowait + irq + softirq + steal;
    }
};

inline constexpr std::size_t kDiskColumns = 4;

struct Snapshot {
    CpuTimes cpu;
    unsigned cpuCount = 0;
    std::uint64_t interrupts = 0, contextSwitches = 0, running = 0, blocked = 0;
    std::uint64_t memAvailableKb = 0, swapFreeKb = 0;
    std::uint64_t pagesSwappedIn = 0, pagesSwappedOut = 0, pagesFreed = 0, pagesScanned = 0;
    std::array<std::uint64_t, kDiskColumns> diskOps{};
};

inline void ParseStatLine(std::string_view line, Snapshot& snap) {
    const auto key = NextField(line);
    if (key == "cpu") {
        std::uint64_t* slots[] = {&snap.cpu.user,    &snap.cpu.nice,   &snap.cpu.system,
                                  &snap.cpu.idle,    &snap.cpu.iowait, &snap.cpu.irq,
                                  &snap.cpu.softirq, &snap.cpu.steal};
        for (auto* slot : slots)
            *slot = ToCount(NextField(line));
    } else if (key.starts_with("cpu")) {
        ++snap.cpuCount;
    } else if (key == "intr") {
        snap.interrupts = ToCount(NextField(line));
    } else if (key == "ctxt") {
        snap.contextSwitches = ToCount(NextField(line));
    } else if (key == "procs_running") {
        snap.running = ToCount(NextField(line));
    } else if (key == "procs_blocked") {
        snap.blocked = ToCount(NextField(line));
    }
}

// Kernels before 3.14 have no MemAvailable; free plus page cache is the old estimate of it.
struct MemInfo {
    std::uint64_t available = 0, free = 0, buffers = 0, cached = 0, swapFree = 0;
    bool hasAvailable = false;

    void Parse(std::string_view line) {
        const auto key = NextField(line);
        const auto value = ToCount(NextField(line));
        if (key == "MemAvailable:") {
            available = value;
            hasAvailable = true;
        } else if (key == "MemFree:") {
            free = value;
        } else if (key == "Buffers:") {
            buffers = value;
        } else if (key == "Cached:") {
            cached = value;
        } else if (key == "SwapFree:") {
            swapFree = value;
        }
    }
    std::uint64_t Available() const { return hasAvailable ? available : free + buffers + cached; }
};

// pgscan_anon and pgscan_file split the same pages the per-reclaimer counters count, and
// pgscan_direct_throttle counts stalls, not pages; all three would count twice.
inline bool IsScanCounter(std::string_view key) {
    return key.starts_with("pgscan_") && key != "pgscan_anon" && key != "pgscan_file" &&
           key != "pgscan_direct_throttle";
}

inline void ParseVmstatLine(std::string_view line, Snapshot& snap) {
    const auto key = NextField(line);
    const auto value = ToCount(NextField(line));
    if (key == "pswpin")
        snap.pagesSwappedIn = value;
    else if (key == "pswpout")
        snap.pagesSwappedOut = value;
    else if (key == "pgfree")
        snap.pagesFreed = value;
    else if (IsScanCounter(key))
        snap.pagesScanned += value;
}

// Picks the first whole disks out of /proc/diskstats. Partitions are recognised by name, as a
// disk seen earlier followed by digits, optionally after a "p" (sda1, nvme0n1p2, mmcblk0p1);
// the kernel may list them after other disks, so every disk name seen so far is kept.
class DiskPicker {
public:
    explicit DiskPicker(Snapshot& snap) : snap_(snap) {}

    void Parse(std::string_view line) {
        NextField(line); // major
        NextField(line); // minor
        const auto name = NextField(line);
        if (name.empty() || IsVirtual(name) || IsPartition(name))
            return;
        disks_.emplace_back(name);
        if (disks_.size() > kDiskColumns)
            return;
        const auto reads = ToCount(NextField(line));
        for (int skipped = 0; skipped < 3; ++skipped)
            NextField(line);
        snap_.diskOps[disks_.size() - 1] = reads + ToCount(NextField(line));
    }

private:
    static bool IsVirtual(std::string_view name) {
        return name.starts_with("loop") || name.starts_with("ram");
    }
    static bool AllDigits(std::string_view text) {
        return !text.empty() && text.find_first_not_of("0123456789") == std::string_view::npos;
    }
    bool IsPartition(std::string_view name) const {
        for (const auto& disk : disks_) {
            if (name.size() <= disk.size() || !name.starts_with(disk))
                continue;
            auto suffix = name.substr(disk.size());
            if (suffix.front() == 'p')
                suffix.remove_prefix(1);
            if (AllDigits(suffix))
                return true;
        }
        return false;
    }

    Snapshot& snap_;
    std::vector<std::string> disks_;
};

// Reads all four files of the tree rooted at procDir into snap.
inline KyStatus ReadSnapshot(const std::string& procDir, Snapshot& snap, KyUnixError& failure) {
    snap = Snapshot{};
    MemInfo mem;
    DiskPicker disks(snap);
    const bool ok =
        ForEachLine(
            procDir + "/stat", [&](std::string_view l) { ParseStatLine(l, snap); }, failure) &&
        ForEachLine(
            procDir + "/meminfo", [&](std::string_view l) { mem.Parse(l); }, failure) &&
        ForEachLine(
            procDir + "/vmstat", [&](std::string_view l) { ParseVmstatLine(l, snap); }, failure) &&
        ForEachLine(
            procDir + "/diskstats", [&](std::string_view l) { disks.Parse(l); }, failure);
    snap.memAvailableKb = mem.Available();
    snap.swapFreeKb = mem.swapFree;
    return AsStatus(ok);
}

} // namespace vmstat
