#!/usr/bin/env bash
# Measures the daemon's steady footprint beside collectd's, in one run: processor time (own
# utime+stime from /proc/PID/stat, so other builds on the machine do not count) and peak RSS
# (VmHWM) of hostgauge, of its load tool (every run's process; the reaped ones through the
# daemon's cutime/cstime) and of collectd with only its cpu and memory plugins, all at a 5 s
# sample rate. The CPU ratings are counted apart: the daemon re-rates after every run whose
# average idle is 95 or more, and each rating is a busy loop of one to a few processor
# seconds, seen here as a burst in the daemon's own time between two polls.
# Usage: bench/footprint.sh [seconds]   (default 300; needs collectd-core installed)
#   HOSTGAUGE_BUILD: build directory with hostgauge and hostgauge-vmstat (default build)
set -euo pipefail
cd "$(dirname "$0")/.."
seconds=${1:-300}
build=$(cd "${HOSTGAUGE_BUILD:-build}" && pwd)
for exe in hostgauge hostgauge-vmstat; do
    [ -x "$build/$exe" ] || { echo "footprint: build $build/$exe first" >&2; exit 1; }
done
collectd=$(command -v collectd || echo /usr/sbin/collectd)
[ -x "$collectd" ] || { echo "footprint: install collectd-core first" >&2; exit 1; }

poll=0.5        # seconds between readings of /proc
burst_ns=100000000  # own time above this in one poll is a rating, not upkeep
hz=$(getconf CLK_TCK)
work=$(mktemp -d)
daemon='' collector=''
cleanup() {
    [ -n "$daemon" ] && kill -TERM "$daemon" 2>/dev/null
    [ -n "$collector" ] && kill -TERM "$collector" 2>/dev/null
    wait 2>/dev/null
    rm -rf "$work"
}
trap cleanup EXIT

# A free high port: never the default 3579, which other daemons on the machine may hold.
port_in_use() { awk -v p="$(printf ':%04X' "$1")" '$2 ~ p"$" { f = 1 } END { exit !f }' \
    /proc/net/tcp /proc/net/tcp6 2>/dev/null; }
port=$((20000 + RANDOM % 40000))
while port_in_use "$port"; do port=$((20000 + RANDOM % 40000)); done

# Its warning about the default build directory does not apply: the tool path is replaced.
bash scripts/gen-config.sh "$work/run" >/dev/null 2>&1 || { echo "footprint: gen-config failed" >&2; exit 1; }
sed -i -e "s|^corvane.config.hostspread.probepath=.*|corvane.config.hostspread.probepath=$build/hostgauge-vmstat -S|" \
    -e "s|^corvane.config.hostspread.port=.*|corvane.config.hostspread.port=$port|" \
    -e "s|^corvane.config.hostspread.samplerate=.*|corvane.config.hostspread.samplerate=5|" \
    "$work/run/hostspread.properties"

mkdir -p "$work/collectd"
cat >"$work/collectd/collectd.conf" <<EOF
Hostname "footprint"
FQDNLookup false
BaseDir "$work/collectd"
PIDFile "$work/collectd/collectd.pid"
PluginDir "/usr/lib/collectd"
TypesDB "/usr/share/collectd/types.db"
Interval 5
LoadPlugin cpu
LoadPlugin memory
EOF

"$build/hostgauge" "$work/run" >"$work/daemon.out" 2>&1 &
daemon=$!
"$collectd" -f -C "$work/collectd/collectd.conf" >"$work/collectd.out" 2>&1 &
collector=$!

# The pid file is written once start-up (with its first rating) is over.
for ((i = 0; i < 200; i++)); do
    [ -s "$work/run/hostgauge.pid" ] && break
    kill -0 "$daemon" 2>/dev/null || { cat "$work/daemon.out" >&2; exit 1; }
    sleep 0.1
done
[ -s "$work/run/hostgauge.pid" ] || { echo "footprint: daemon did not start" >&2; exit 1; }
sleep 2
log=$work/run/log/hostgauge${daemon}_error.log
cached() { grep -c "The following results have just been cached: idle=" "$log" || true; }

# Readers of /proc: bash built-ins only, so polling forks nothing beside the measured ones.
own=0 reaped=0
read_stat() { # pid -> own=utime+stime, reaped=cutime+cstime (clock ticks)
    local line rest
    read -r line 2>/dev/null <"/proc/$1/stat" || return 1
    rest=${line##*) }
    read -r -a f <<<"$rest"
    own=$((f[11] + f[12])) reaped=$((f[13] + f[14]))
}
# The same run time to the nanosecond (stat truncates it to clock ticks), summed over the
# threads: collectd reads with several.
ran=0
read_sched() { # pid -> ran (ns)
    local t ns _
    ran=0
    for t in /proc/"$1"/task/*/schedstat; do
        read -r ns _ 2>/dev/null <"$t" && ran=$((ran + ns))
    done
    ((ran > 0))
}
# Peak RSS, and the private (anonymous) part of the current RSS: the rest is mapped files,
# mostly shared libraries whose pages every process using them shares.
hwm=0 anon=0
read_hwm() { # pid -> hwm, anon (KiB)
    local key value _
    hwm=0 anon=0
    while read -r key value _; do
        case $key in
        VmHWM:) hwm=$value ;;
        RssAnon:) anon=$value ;;
        esac
    done 2>/dev/null <"/proc/$1/status"
    ((hwm > 0))
}
tool_ticks=0 tool_hwm=0 tool_anon=0
read_tools() { # the daemon's reaped tools plus the live one(s) -> tool_ticks
    local kids pid
    read_stat "$daemon" || return 1
    tool_ticks=$reaped
    kids=()
    # The file has no line end, so read reports end of file after filling the array.
    read -r -a kids 2>/dev/null <"/proc/$daemon/task/$daemon/children" || true
    for pid in "${kids[@]}"; do
        if read_hwm "$pid"; then
            ((hwm > tool_hwm)) && tool_hwm=$hwm
            ((anon > tool_anon)) && tool_anon=$anon
        fi
        read_stat "$pid" && tool_ticks=$((tool_ticks + own))
    done
    return 0
}
now=0
clock_us() { local t=${EPOCHREALTIME/[.,]/}; now=$((10#$t)); } # -> now

read_tools
tool_start=$tool_ticks
read_stat "$daemon"
daemon_start=$own
read_sched "$daemon"
daemon_ns_start=$ran daemon_last=$ran
read_stat "$collector"
collectd_start=$own
read_sched "$collector"
collectd_ns_start=$ran
samples_start=$(cached)
ratings=0 rating_ns=0 in_burst=0
clock_us
start=$now
while clock_us && ((now - start < seconds * 1000000)); do
    sleep "$poll"
    read_sched "$daemon" || { echo "footprint: daemon ended early" >&2; exit 1; }
    step=$((ran - daemon_last)) daemon_last=$ran
    if ((step > burst_ns)); then
        ((in_burst)) || ratings=$((ratings + 1))
        in_burst=1 rating_ns=$((rating_ns + step))
    else
        in_burst=0
    fi
    read_tools
done
clock_us
elapsed_us=$((now - start))
read_tools
tool_ticks=$((tool_ticks - tool_start))
read_stat "$daemon"
daemon_ticks=$((own - daemon_start))
read_sched "$daemon"
daemon_ns=$((ran - daemon_ns_start))
read_hwm "$daemon"
daemon_hwm=$hwm daemon_anon=$anon
read_stat "$collector"
collectd_ticks=$((own - collectd_start))
read_sched "$collector"
collectd_ns=$((ran - collectd_ns_start))
read_hwm "$collector"
collectd_hwm=$hwm collectd_anon=$anon
samples=$(($(cached) - samples_start))

kill -TERM "$daemon"
status=0
wait "$daemon" || status=$?
daemon=''
last=$(tail -n 1 "$log")

# "stat ms" is utime+stime (cutime+cstime of the reaped tools) in clock ticks; "exact ms"
# the scheduler's nanosecond count, which the reaped tools no longer have. % of a core
# comes from the exact figure where there is one.
awk -v hz="$hz" -v el="$elapsed_us" -v dt="$daemon_ticks" -v dn="$daemon_ns" \
    -v rn="$rating_ns" -v n="$ratings" -v dh="$daemon_hwm" -v tt="$tool_ticks" \
    -v th="$tool_hwm" -v s="$samples" -v ct="$collectd_ticks" -v cn="$collectd_ns" \
    -v ch="$collectd_hwm" -v da="$daemon_anon" -v ta="$tool_anon" -v ca="$collectd_anon" 'BEGIN {
    el /= 1e6
    tick = 1000 / hz
    printf "%.0f s of steady running, 5 s samples, each process'"'"'s own processor time\n", el
    printf "%-26s %9s %9s %9s %10s %9s  %s\n", "process", "stat ms", "exact ms", "% core",
           "peak RSS", "anon RSS", "note"
    # The ratings are taken off the stat figure too, so both columns show upkeep alone.
    rating_ms = rn / 1e6
    row("hostgauge, ratings apart", dt * tick - rating_ms, (dn - rn) / 1e6, dh, da, "")
    row("hostgauge ratings", -1, rating_ms, dh, da, sprintf("%d rating(s)", n))
    row("hostgauge in all", dt * tick, dn / 1e6, dh, da, "")
    row("hostgauge-vmstat", tt * tick, -1, th, ta,
        sprintf("%d samples, %.3f ms per sample (+-%.2f)", s, s ? tt * tick / s : 0,
                s ? tick / s : 0))
    row("collectd (cpu, memory)", ct * tick, cn / 1e6, ch, ca, "")
}
function row(name, stat, exact, kib, anon, note,    ms, a, b) {
    # Worked out before printf, where a bare ">" would redirect its output.
    ms = exact >= 0 ? exact : stat
    a = stat >= 0 ? sprintf("%.0f", stat) : "-"
    b = exact >= 0 ? sprintf("%.1f", exact) : "-"
    printf "%-26s %9s %9s %9.4f %6.2f MiB %5.2f MiB  %s\n", name, a, b, 100 * ms / 1000 / el,
           kib / 1024, anon / 1024, note
}'
echo "daemon exit status $status (604 in the log, 92 in the shell); last log line: $last"

# Where the tool's time goes: the daemon forks it afresh for every run, so its start (exec,
# dynamic linking, the since-boot line) is spread over one run's samples only. Measured
# apart through the shell's children times (getrusage, to the microsecond).
child_ms() { # command... -> prints the children's user+system ms of running it
    (
        "$@" >/dev/null
        # In this shell itself: a pipe would run times in a fresh fork without children.
        times >"$work/times"
        awk 'NR == 2 { split($1, u, /[ms]/); split($2, s, /[ms]/)
            printf "%.2f", 1000 * (u[1] * 60 + u[2] + s[1] * 60 + s[2]) }' "$work/times"
    )
}
repeat() { local i; for ((i = 0; i < 10; i++)); do "$@"; done; }
true_ms=$(child_ms repeat /bin/true)
start_ms=$(child_ms repeat "$build/hostgauge-vmstat" -S 1 1)
run_ms=$(child_ms "$build/hostgauge-vmstat" -S 1 11)
awk -v t="$true_ms" -v s="$start_ms" -v r="$run_ms" 'BEGIN {
    printf "load tool apart: start with its first line %.2f ms (any program start here: %.2f ms),",
           s / 10, t / 10
    printf " each further line %.3f ms\n", (r - s / 10) / 10
}'
