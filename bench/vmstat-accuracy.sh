#!/usr/bin/env bash
# Checks hostgauge-vmstat against the system's own figures over the same intervals: its id
# column against procps vmstat's id + wa (limit: 2 points), and its free column against
# MemAvailable read from /proc/meminfo at each sample (limit: 1 %). Half of the run puts one
# busy process on the machine so that idle is not simply 100 on both sides.
# Usage: bench/vmstat-accuracy.sh [interval-seconds [samples]]   (needs procps vmstat)
set -euo pipefail
cd "$(dirname "$0")/.."
interval=${1:-2}
samples=${2:-8}
tool=${HOSTGAUGE_VMSTAT:-build/hostgauge-vmstat}
[ -x "$tool" ] || { echo "build $tool first" >&2; exit 1; }
work=$(mktemp -d)
trap 'rm -rf "$work"; [ -n "${busy:-}" ] && kill "$busy" 2>/dev/null || true' EXIT

# Both tools start together and print samples+1 lines; the first, since boot, is skipped.
vmstat -n "$interval" $((samples + 1)) >"$work/procps" &
reference=$!
"$tool" -S "$interval" $((samples + 1)) >"$work/ours" &
ours=$!
for ((i = 1; i <= samples; i++)); do
    [ "$i" -eq $((samples / 2 + 1)) ] && { yes >/dev/null & busy=$!; }
    sleep "$interval"
    awk '$1 == "MemAvailable:" { print $2 }' /proc/meminfo >>"$work/memavail"
done
wait "$reference" "$ours"

# procps's columns are found by name: its layout differs between versions.
awk -v lines="$samples" '
    FNR == 1 { file++ }
    file == 1 && FNR == 2 { for (i = 1; i <= NF; i++) if ($i == "id") id = i; else if ($i == "wa") wa = i }
    file == 1 && FNR > 3 { ref[FNR - 3] = $id + $wa }
    file == 2 && FNR > 3 { ourid[FNR - 3] = $22; ourfree[FNR - 3] = $5 }
    file == 3 { avail[FNR] = $1 }
    END {
        printf "%6s %12s %8s %9s %12s %12s %8s\n", "sample", "procps id+wa", "our id", "id diff",
               "MemAvailable", "our free", "free %"
        worstId = 0; worstFree = 0
        for (n = 1; n <= lines; n++) {
            d = ourid[n] - ref[n]; if (d < 0) d = -d
            f = 100 * (ourfree[n] - avail[n]) / avail[n]; if (f < 0) f = -f
            if (d > worstId) worstId = d
            if (f > worstFree) worstFree = f
            printf "%6d %12d %8d %9d %12d %12d %8.3f\n", n, ref[n], ourid[n], d, avail[n], ourfree[n], f
        }
        printf "largest id difference: %d points (limit 2); largest free difference: %.3f %% (limit 1)\n",
               worstId, worstFree
        exit (worstId > 2 || worstFree > 1) ? 1 : 0
    }' "$work/procps" "$work/ours" "$work/memavail"
