#!/usr/bin/env bash
# Log rotation against a running daemon: the packaged configuration and logrotate file with
# their directories moved into a temporary one. After logrotate -f the old records sit in the
# compressed rotation, the daemon (told by SIGHUP) writes to a fresh file, and rotations of
# long-gone daemons older than 14 days are removed while recent ones stay.
# Usage: logrotate_test.sh BUILD_DIR
set -uo pipefail
src=$(cd "$(dirname "$0")/../.." && pwd)
build=$(cd "$1" && pwd)
work=$(mktemp -d)
daemon=
cleanup() {
    [ -n "$daemon" ] && kill -KILL "$daemon" 2>/dev/null && wait "$daemon" 2>/dev/null
    rm -rf "$work"
}
trap cleanup EXIT
fail() { echo "FAIL $*"; exit 1; }
# Polls a condition for up to 60 s (start-up rates the CPU first).
wait_for() {
    for _ in $(seq 600); do eval "$1" && return 0; sleep 0.1; done
    return 1
}
mkdir -p "$work/log" "$work/run" "$work/lib"

sed -e "s|=/var/log/hostgauge|=$work/log|" -e "s|=/run/hostgauge|=$work/run|" \
    -e "s|=/var/lib/hostgauge|=$work/lib|" -e "s|=/usr/sbin/|=$build/|" \
    -e 's|^\(corvane.config.hostspread.agentport\)=.*|\1=0|' \
    "$src/etc/hostgauge/hostspread.properties" >"$work/template"
# A port somebody else holds makes the daemon exit with 1 at once: then try another.
for _ in 1 2 3 4 5; do
    port=$((20000 + RANDOM % 40000))
    sed "s|^\(corvane.config.hostspread.port\)=.*|\1=$port|" "$work/template" \
        >"$work/hostspread.properties"
    HOSTGAUGE_RATING_MS=20 "$build/hostgauge" "$work" 1 >/dev/null 2>&1 &
    daemon=$!
    wait_for "[ -s '$work/run/hostgauge.pid' ] || ! kill -0 $daemon 2>/dev/null" ||
        fail "the daemon did not start"
    [ -s "$work/run/hostgauge.pid" ] && break
    daemon=
done
[ -n "$daemon" ] || fail "no free port found"
log=$work/log/hostgauge${daemon}_error.log
grep -q "Hostgauge started." "$log" || fail "no start record in $log"

touch -d '20 days ago' "$work/log/hostgauge1_error.log.3.gz"
touch -d '2 days ago' "$work/log/hostgauge2_error.log.1.gz"
sed -e "s|/var/log/hostgauge|$work/log|g" -e "s|/run/hostgauge|$work/run|g" -e '/^\s*su /d' \
    "$src/etc/logrotate.d/hostgauge" >"$work/logrotate.conf"
logrotate -f -s "$work/logrotate.state" "$work/logrotate.conf" || fail "logrotate failed"

zcat "$log.1.gz" 2>/dev/null | grep -q "Hostgauge started." || fail "no rotated $log.1.gz"
wait_for "[ -e '$log' ]" || fail "the daemon did not reopen $log after SIGHUP"
kill -TERM "$daemon"
wait "$daemon"
status=$?
daemon=
[ "$status" = 92 ] || fail "exit status $status after SIGTERM, expected 92"
grep -q "Hostgauge stopped - exitcode 604." "$log" || fail "the fresh $log lacks the stop record"
! zcat "$log.1.gz" | grep -q "stopped" || fail "records after the rotation went to the old file"
[ ! -e "$work/log/hostgauge1_error.log.3.gz" ] || fail "a 20-day-old rotation was kept"
[ -e "$work/log/hostgauge2_error.log.1.gz" ] || fail "a 2-day-old rotation was removed"
