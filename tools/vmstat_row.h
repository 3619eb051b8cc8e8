// Turns two /proc snapshots into the 22 columns of a Solaris "vmstat -S" sample line, and
// formats the two heading lines and the sample lines. The daemon's vmstat filter scans each
// sample line as 22 whitespace-separated integers, so every column is an int and columns are
// always separated by at least one blank.
#pragma once

#include "tools/vmstat_proc.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <climits>
#include <cmath>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>

namespace vmstat {

inline constexpr std::size_t kColumns = 22;
using Row = std::array<int, kColumns>;

struct Column {
    std::string_view name;
    int width; // including the separating blank
};

inline constexpr std::array<Column, kColumns> kLayout{{
    {"r", 2},  {"b", 2},  {"w", 2},  {"swap", 10}, {"free", 10}, {"si", 4}, {"so", 4}, {"pi", 5},
    {"po", 5}, {"fr", 6}, {"de", 3}, {"sr", 5},    {"s0", 4},    {"s1", 4}, {"s2", 4}, {"s3", 4},
    {"in", 6}, {"sy", 6}, {"cs", 6}, {"us", 3},    {"sy", 3},    {"id", 4},
}};

struct Group {
    std::string_view label;
    std::size_t columns;
};

inline constexpr std::array<Group, 6> kGroups{
    {{"kthr", 3}, {"memory", 2}, {"page", 7}, {"disk", 4}, {"faults", 3}, {"cpu", 3}}};

inline int Clamp(double value) {
    if (!(value > 0))
        return 0;
    return value >= INT_MAX ? INT_MAX : static_cast<int>(std::lround(value));
}

// Counters only grow; one that went back (a reset or a vanished disk) reports no activity.
inline double Delta(std::uint64_t before, std::uint64_t after) {
    return after > before ? static_cast<double>(after - before) : 0.0;
}

struct CpuShare {
    int user, system, idle;
};

// Whole percentages of the interval, rounded half up; idle takes what is left so the three
// sum to exactly 100 and idle is never above it.
inline CpuShare SplitCpu(const CpuTimes& before, const CpuTimes& after) {
    const double user = Delta(before.user + before.nice, after.user + after.nice);
    const double system = Delta(before.system + before.irq + before.softirq + before.steal,
                                after.system + after.irq + after.softirq + after.steal);
    const double idle = Delta(before.idle + before.iowait, after.idle + after.iowait);
    const double total = user + system + idle;
    if (total <= 0)
        return {0, 0, 100};
    const auto percent = [total](double part) {
        return static_cast<int>(std::floor(part * 100 / total + 0.5));
    };
    const int us = std::min(percent(user), 100);
    const int sy = std::min(percent(system), 100 - us);
    return {us, sy, 100 - us - sy};
}

// The sampling clock: the CPUs' jiffies, which tick ncpu x hz times a second, so the rates of
// the since-boot line and of each interval come from the counters themselves.
inline double ElapsedSeconds(const Snapshot& before, const Snapshot& after, long hz,
                             double fallback) {
    const double jiffies = Delta(before.cpu.Total(), after.cpu.Total());
    const unsigned cpus = std::max(after.cpuCount, 1u);
    if (jiffies <= 0 || hz <= 0)
        return fallback;
    return jiffies / cpus / static_cast<double>(hz);
}

// before is a zeroed snapshot for the since-boot line.
inline Row ComputeRow(const Snapshot& before, const Snapshot& after, long pageSize, long hz,
                      double fallbackSeconds) {
    const double seconds = ElapsedSeconds(before, after, hz, fallbackSeconds);
    const double kbPerPage = static_cast<double>(pageSize) / 1024.0;
    const auto rate = [seconds](std::uint64_t a, std::uint64_t b) {
        return Clamp(Delta(a, b) / seconds);
    };
    const auto kbRate = [&](std::uint64_t a, std::uint64_t b) {
        return Clamp(Delta(a, b) * kbPerPage / seconds);
    };
    const auto cpu = SplitCpu(before.cpu, after.cpu);
    const auto level = [](std::uint64_t v) { return Clamp(static_cast<double>(v)); };
    return Row{
        level(after.running > 0 ? after.running - 1 : 0), // not counting this reader
        level(after.blocked),
        0,
        level(after.memAvailableKb + after.swapFreeKb),
        level(after.memAvailableKb),
        rate(before.pagesSwappedIn, after.pagesSwappedIn),
        rate(before.pagesSwappedOut, after.pagesSwappedOut),
        kbRate(before.pagesSwappedIn, after.pagesSwappedIn),
        kbRate(before.pagesSwappedOut, after.pagesSwappedOut),
        kbRate(before.pagesFreed, after.pagesFreed),
        0,
        rate(before.pagesScanned, after.pagesScanned),
        rate(before.diskOps[0], after.diskOps[0]),
        rate(before.diskOps[1], after.diskOps[1]),
        rate(before.diskOps[2], after.diskOps[2]),
        rate(before.diskOps[3], after.diskOps[3]),
        rate(before.interrupts, after.interrupts),
        0,
        rate(before.contextSwitches, after.contextSwitches),
        cpu.user,
        cpu.system,
        cpu.idle,
    };
}

// Appends text right-aligned in width, with at least one blank before it.
inline void AppendAligned(std::string& out, std::string_view text, int width) {
    const int pad = std::max(1, width - static_cast<int>(text.size()));
    out.append(static_cast<std::size_t>(pad), ' ');
    out.append(text);
}

inline std::string FormatHeadings() {
    std::string groups, names;
    std::size_t column = 0;
    for (const auto& group : kGroups) {
        int span = 0;
        for (std::size_t i = 0; i < group.columns; ++i, ++column) {
            span += kLayout[column].width;
            AppendAligned(names, kLayout[column].name, kLayout[column].width);
        }
        const int left = std::max(1, (span - static_cast<int>(group.label.size()) + 1) / 2);
        groups.append(static_cast<std::size_t>(left), ' ');
        groups.append(group.label);
        groups.append(static_cast<std::size_t>(
                          std::max(0, span - left - static_cast<int>(group.label.size()))),
                      ' ');
    }
    while (!groups.empty() && groups.back() == ' ')
        groups.pop_back();
    return groups + "\n" + names + "\n";
}

// Formats into the caller's buffer (no heap); returns the line including its newline.
inline std::string_view FormatRow(const Row& row, std::span<char> out) {
    std::size_t used = 0;
    for (std::size_t i = 0; i < kColumns; ++i) {
        char digits[16];
        const auto end = std::to_chars(digits, digits + sizeof digits, row[i]).ptr;
        const auto length = static_cast<int>(end - digits);
        const auto pad = static_cast<std::size_t>(std::max(1, kLayout[i].width - length));
        if (used + pad + static_cast<std::size_t>(length) + 1 > out.size())
            break;
        std::fill_n(out.data() + used, pad, ' ');
        used += pad;
        std::copy(digits, end, out.data() + used);
        used += static_cast<std::size_t>(length);
    }
    out[used++] = '\n';
    return {out.data(), used};
}

} // namespace vmstat
