#!/usr/bin/env bash
# Writes the daemon's configuration for this machine into a run directory (default run/):
# fills etc/hostspread.properties with absolute paths (the built load tool, logs and pid file
# under the run directory) and this machine's memory totals from /proc/meminfo.
# Usage: scripts/gen-config.sh [run-dir]
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
run_dir=${1:-$root/run}
mkdir -p "$run_dir/log"
run_dir=$(cd "$run_dir" && pwd)

tool=$root/build/hostgauge-vmstat
[ -x "$tool" ] || echo "gen-config: warning: $tool is not built yet" >&2
# The daemon splits the probe path at its first blank into program and argument.
case $tool in *" "*)
    echo "gen-config: the checkout path must not contain blanks: $tool" >&2
    exit 1 ;;
esac

# Totals in Kb, rounded up to the file's unit of 1024 Kb, so that no free-memory reading of
# the tool (memory available plus free swap, and memory available) can exceed them.
mem_kb=$(awk '$1 == "MemTotal:" { print $2 }' /proc/meminfo)
swap_kb=$(awk '$1 == "SwapTotal:" { print $2 }' /proc/meminfo)
max_pmem=$(( (mem_kb + 1023) / 1024 ))
max_vmem=$(( (mem_kb + ${swap_kb:-0} + 1023) / 1024 ))

# Paths go into a sed replacement, where "|", "&" and "\" are special.
esc() { printf '%s' "$1" | sed 's/[\\|&]/\\&/g'; }
sed -e "s|@TOOL@|$(esc "$tool")|" -e "s|@LOGDIR@|$(esc "$run_dir/log")|" \
    -e "s|@PIDDIR@|$(esc "$run_dir")|" \
    -e "s|@MAXVMEM@|$max_vmem|" -e "s|@MAXPMEM@|$max_pmem|" \
    "$root/etc/hostspread.properties" >"$run_dir/hostspread.properties.new"
mv "$run_dir/hostspread.properties.new" "$run_dir/hostspread.properties"
echo "wrote $run_dir/hostspread.properties"
