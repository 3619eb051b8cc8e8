#!/usr/bin/env bash
# The package as an operator meets it (needs root; scripts/test.sh runs it last): build the
# .deb, check it with lintian, install it, start the daemon as the user hostgauge the way
# the unit does, check that it listens, measures and answers, that logrotate's file works
# on it, stop it with SIGTERM, purge the package and check that nothing is left behind.
set -uo pipefail
src=$(cd "$(dirname "$0")/../.." && pwd)
if [ "$(id -u)" -ne 0 ]; then
    echo "package test skipped: it installs a package and needs root"
    exit 0
fi
if dpkg-query -W -f='${Status}' hostgauge 2>/dev/null | grep -q installed ||
    getent passwd hostgauge >/dev/null; then
    echo "package test skipped: hostgauge is already installed on this machine"
    exit 0
fi

work=$(mktemp -d)
daemon=
installed=
cleanup() {
    [ -n "$daemon" ] && kill -KILL "$daemon" 2>/dev/null && wait "$daemon" 2>/dev/null
    [ -n "$installed" ] && dpkg --purge hostgauge >/dev/null 2>&1
    rm -rf "$work"
}
trap cleanup EXIT
fail() { echo "FAIL $*"; exit 1; }
wait_for() { # condition, seconds
    for _ in $(seq $(($2 * 10))); do eval "$1" && return 0; sleep 0.1; done
    return 1
}

deb=$(bash "$src/scripts/package.sh" | tail -1)
[ -f "$deb" ] || fail "scripts/package.sh built no package"
version=$(sed -n 's/^project(hostgauge VERSION \([^ ]*\).*/\1/p' "$src/CMakeLists.txt")
[ "$(basename "$deb")" = "hostgauge_${version}_$(dpkg --print-architecture).deb" ] ||
    fail "package named $(basename "$deb")"
echo "package: $(basename "$deb"), $(stat -c %s "$deb") bytes," \
    "installed size $(dpkg-deb -f "$deb" Installed-Size) KiB, Depends: $(dpkg-deb -f "$deb" Depends)"
dpkg-deb -f "$deb" Depends | grep -q 'libc6 (>=' || fail "Depends lacks the computed libc6"

lintian --tag-display-limit 0 "$deb" >"$work/lintian" 2>&1
cat "$work/lintian"
! grep -q '^E: ' "$work/lintian" || fail "lintian reports errors"

dpkg -i "$deb" >"$work/dpkg" 2>&1 || { cat "$work/dpkg"; fail "dpkg -i failed"; }
installed=1
getent passwd hostgauge >/dev/null || fail "no user hostgauge"
for file in /usr/sbin/hostgauge /usr/sbin/hostgauge-vmstat /usr/bin/hostgauge-ctl \
    /etc/hostgauge/hostspread.properties /etc/logrotate.d/hostgauge \
    /usr/lib/systemd/system/hostgauge.service /usr/share/man/man8/hostgauge.8.gz \
    /usr/share/man/man5/hostspread.properties.5.gz; do
    [ -e "$file" ] || fail "$file not installed"
done
[ "$(/usr/sbin/hostgauge --version)" = "hostgauge $version" ] || fail "--version is wrong"
[ "$(stat -c %U /var/log/hostgauge /var/lib/hostgauge | sort -u)" = hostgauge ] ||
    fail "log and state directories do not belong to hostgauge"
man_check=no
command -v man >/dev/null && man_check=yes
out=$(systemd-analyze verify --man=$man_check /usr/lib/systemd/system/hostgauge.service 2>&1)
echo "systemd-analyze verify: ${out:-clean}"
[ -z "$out" ] || fail "systemd-analyze verify complains"

# The operator's edits to the conffile: a free port, and the per-sample records on (as the
# file explains) so that a measurement shows in the log.
conf=/etc/hostgauge/hostspread.properties
sed -i 's|^\(corvane.config.hostspread.logfilter=.*\)\*/\*/info:|\1*/*/*info:|' "$conf"
# What the unit's RuntimeDirectory= provides.
install -d -o hostgauge -g hostgauge /run/hostgauge
start_line=$(sed -n 's/^ExecStart=//p' /usr/lib/systemd/system/hostgauge.service | sed 's/\$\$/$/g')
for _ in 1 2 3 4 5; do
    port=$((20000 + RANDOM % 40000))
    sed -i "s|^\(corvane.config.hostspread.port\)=.*|\1=$port|" "$conf"
    (cd / && exec setpriv --reuid=hostgauge --regid=hostgauge --init-groups \
        sh -c "exec $start_line") >"$work/stderr" 2>&1 &
    daemon=$!
    wait_for "[ -s /run/hostgauge/hostgauge.pid ] || ! kill -0 $daemon 2>/dev/null" 60 ||
        fail "the daemon did not start"
    [ -s /run/hostgauge/hostgauge.pid ] && break
    daemon=
done
[ -n "$daemon" ] || fail "no free port found"
started=$(date +%s)
[ "$(ps -o user= -p "$daemon")" = hostgauge ] || fail "the daemon does not run as hostgauge"
log=/var/log/hostgauge/hostgauge${daemon}_error.log
wait_for "grep -q 'have just been cached' '$log'" 15 || fail "no cached sample within 15 s"
echo "first cached sample $(($(date +%s) - started)) s after the pid file appeared"
! grep -E 'does not exist|is invalid|not a directory' "$log" || fail "the packaged configuration has faults"
/usr/bin/hostgauge-ctl -p "$port" status >"$work/status" || fail "hostgauge-ctl status failed"
grep -q "port $port" "$work/status" || fail "unexpected status: $(cat "$work/status")"

logrotate -f -s "$work/logrotate.state" /etc/logrotate.d/hostgauge || fail "logrotate failed"
[ -e "$log.1.gz" ] || fail "logrotate made no $log.1.gz"
wait_for "grep -q 'have just been cached' '$log' 2>/dev/null" 15 ||
    fail "no sample in the fresh log after rotation"

kill -TERM "$daemon"
wait "$daemon"
status=$?
daemon=
[ "$status" = 92 ] || fail "exit status $status after SIGTERM, expected 92"
[ ! -e /run/hostgauge/hostgauge.pid ] || fail "the pid file is left after SIGTERM"
[ ! -s "$work/stderr" ] || fail "the daemon wrote to standard error: $(cat "$work/stderr")"

dpkg -L hostgauge >"$work/files"
dpkg --purge hostgauge >"$work/dpkg" 2>&1 || { cat "$work/dpkg"; fail "dpkg --purge failed"; }
installed=
while read -r path; do
    if [ -f "$path" ] || [ -L "$path" ]; then fail "$path is left after purge"; fi
done <"$work/files"
for path in /etc/hostgauge /var/log/hostgauge /var/lib/hostgauge /run/hostgauge \
    /usr/share/doc/hostgauge /etc/systemd/system/multi-user.target.wants/hostgauge.service; do
    [ ! -e "$path" ] || fail "$path is left after purge"
done
! grep -rqs hostgauge /var/lib/systemd/deb-systemd-helper-enabled \
    /var/lib/systemd/deb-systemd-helper-masked || fail "systemd helper state is left after purge"
! getent passwd hostgauge >/dev/null || fail "the user hostgauge is left after purge"
! getent group hostgauge >/dev/null || fail "the group hostgauge is left after purge"
echo "package test passed"
