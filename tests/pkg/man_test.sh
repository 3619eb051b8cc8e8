#!/usr/bin/env bash
# The manual pages: clean under mandoc's lint, and they keep up with the code: every key of
# the packaged configuration is described in hostspread.properties(5), and every command
# that hostgauge-ctl --help lists is described in hostgauge-ctl(1).
# Usage: man_test.sh BUILD_DIR
set -uo pipefail
src=$(cd "$(dirname "$0")/../.." && pwd)
build=$1
fail=0

for page in "$src"/man/*.[1-8]; do
    if ! out=$(mandoc -T lint "$page" 2>&1) || [ -n "$out" ]; then
        echo "FAIL mandoc -T lint $page:"; echo "$out"; fail=1
    fi
done

# The rendered page as plain text (overstrike bold and underline removed).
page_text() { mandoc -T ascii "$1" | sed 's/.\x08//g'; }

keys_page=$(page_text "$src/man/hostspread.properties.5")
for key in $(sed -n 's/^corvane\.config\.hostspread\.\([a-z]*\)=.*/\1/p' \
    "$src/etc/hostgauge/hostspread.properties"); do
    grep -qE "^ {7}$key( |\$)" <<<"$keys_page" || { echo "FAIL key $key not in hostspread.properties(5)"; fail=1; }
done

ctl_page=$(page_text "$src/man/hostgauge-ctl.1")
for command in $("$build/hostgauge-ctl" --help | sed -n 's/^  \([a-z][a-z]*\)\( .*\)\{0,1\}$/\1/p'); do
    grep -qE "^ {7}$command( |\$)" <<<"$ctl_page" || { echo "FAIL command $command not in hostgauge-ctl(1)"; fail=1; }
done
exit $fail
