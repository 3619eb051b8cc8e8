#!/usr/bin/env bash
# The systemd unit: clean under systemd-analyze verify, and its start command hands the
# daemon the configuration directory and this machine's processor count (the shell line
# runs with the daemon replaced by echo, after systemd's "$$" unescaping).
# Usage: unit_test.sh BUILD_DIR
set -uo pipefail
src=$(cd "$(dirname "$0")/../.." && pwd)
unit=$src/etc/systemd/hostgauge.service
fail=0

# Documentation= names pages that are not installed here; the package test checks them.
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cp "$unit" "$work/hostgauge.service"
if ! out=$(systemd-analyze verify --man=no "$work/hostgauge.service" 2>&1) || [ -n "$out" ]; then
    echo "FAIL systemd-analyze verify:"; echo "$out"; fail=1
fi

exec_start=$(sed -n 's/^ExecStart=//p' "$unit")
line=$(sed -e 's/\$\$/$/g' -e 's|/usr/sbin/hostgauge|echo|' <<<"$exec_start")
got=$(eval "$line")
want="/etc/hostgauge $(grep -c '^processor' /proc/cpuinfo)"
if [ "$got" != "$want" ]; then
    echo "FAIL ExecStart gives \"$got\", expected \"$want\""; fail=1
fi
exit $fail
