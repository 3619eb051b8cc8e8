#!/usr/bin/env bash
# Control-port throughput: requests per second, p50/p99 latency and the server's own CPU time
# per request, for the daemon (a KILL of an unknown id; the status report with 10
# subscriptions) beside the reference poll() server, at 1, 8, 32 and 128 concurrent clients.
# Every figure is the median of REPS runs of SECONDS each, all taken in one go.
# Usage: bench/control-port.sh [build-dir]   (default build; needs hostgauge and hostgauge-vmstat)
# Environment: SECONDS_PER_RUN (default 3), REPS (default 3), YARDSTICKS (the directory of
# connbench.c and ceiling_server.c, default ../shared/bench beside the checkout).
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=$(cd "${1:-$root/build}" && pwd)
seconds=${SECONDS_PER_RUN:-3}
reps=${REPS:-3}
yardsticks=${YARDSTICKS:-$root/../shared/bench}
work=$(mktemp -d /tmp/hostgauge-bench-XXXXXX)
daemon_pid= ceiling_pid=
cleanup() {
    [ -n "$daemon_pid" ] && kill "$daemon_pid" 2>/dev/null
    [ -n "$ceiling_pid" ] && kill "$ceiling_pid" 2>/dev/null
    wait 2>/dev/null
    rm -rf "$work"
}
trap cleanup EXIT

cc -O2 -o "$work/connbench" "$yardsticks/connbench.c"
cc -O2 -o "$work/ceiling_server" "$yardsticks/ceiling_server.c"

source "$root/bench/daemon.sh"
# utime + stime of a process, in clock ticks.
cpu_ticks() { awk '{ print $14 + $15 }' "/proc/$1/stat"; }
send() { printf '%s' "$2" | nc -N 127.0.0.1 "$1" >/dev/null; }

# The daemon with this machine's configuration, on a free port, its logs in the work dir.
port=$(free_port)
start_daemon "$build" "$work/run" "$port" 0

# Ten subscriptions that neither tick nor react during the runs.
for id in $(seq 1 10); do
    send "$port" "<cvnlbreq command=CREATE><version>1.0</version><host>127.0.0.1</host><port>9</port><samplerate>5000</samplerate><windowsize>6</windowsize><id>$id</id><replyfreq>3600000</replyfreq><percentchange>100</percentchange><stat>cpu</stat><stat>bogo</stat><stat>vmem</stat></cvnlbreq>"
done
printf '%s' '<cvnlbreq command=KILL><version>1.0</version><id>4000000</id></cvnlbreq>' >"$work/kill.req"
printf 'GET /?get&cvnlbinfo HTTP/1.0\r\n\r\n' >"$work/status.req"

ceiling_port=$(free_port)
"$work/ceiling_server" "$ceiling_port" poll >/dev/null 2>&1 &
ceiling_pid=$!
sleep 0.3

# One run: prints "rps p50 p99 cpu_us_per_request".
run() { # server-pid port request-file concurrency
    local before after line requests
    before=$(cpu_ticks "$1")
    line=$("$work/connbench" 127.0.0.1 "$2" "$3" "$4" "$seconds")
    after=$(cpu_ticks "$1")
    requests=$(sed 's/.*requests=\([0-9]*\).*/\1/' <<<"$line")
    awk -v line="$line" -v ticks=$((after - before)) -v hz="$(getconf CLK_TCK)" -v n="$requests" '
        BEGIN {
            split(line, f, /[ =]/)
            for (i = 1; i < length(f); i += 2) v[f[i]] = f[i + 1]
            printf "%s %s %s %.1f\n", v["rps"], v["p50_us"], v["p99_us"], n ? ticks * 1e6 / hz / n : 0
        }'
}
median() { sort -n | awk '{ a[NR] = $1 } END { print a[int((NR + 1) / 2)] }'; }

printf '%-22s %5s %9s %9s %9s %9s\n' server clients req/s p50_us p99_us cpu_us/req
for clients in 1 8 32 128; do
    for case in "hostgauge-kill $daemon_pid $port kill" "hostgauge-status $daemon_pid $port status" \
        "ceiling-poll $ceiling_pid $ceiling_port kill"; do
        read -r name pid p request <<<"$case"
        results=$(for _ in $(seq 1 "$reps"); do run "$pid" "$p" "$work/$request.req" "$clients"; done)
        printf '%-22s %5s' "$name" "$clients"
        for column in 1 2 3 4; do
            printf ' %9s' "$(awk -v c=$column '{ print $c }' <<<"$results" | median)"
        done
        printf '\n'
    done
done
