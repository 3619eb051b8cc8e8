#!/bin/sh
# Stands in for `vmstat -S` in the end-to-end tests. Everything it does is steered by files
# in $FAKEVMSTAT_DIR, which the tests may change between runs:
#   args    each run appends its arguments, each one in brackets, on one line
#   pids    each run appends its process id
#   output  printed as the run's output, `repeat` times (default once)
#   die     when present, the run kills itself at once after printing
#   linger  seconds to stay alive after printing (default 1), like the sample interval
dir=${FAKEVMSTAT_DIR:?FAKEVMSTAT_DIR must name the test directory}
line=
for arg in "$@"; do
    line="$line[$arg]"
done
echo "$line" >>"$dir/args"
echo $$ >>"$dir/pids"
if [ -f "$dir/output" ]; then
    count=$(cat "$dir/repeat" 2>/dev/null || echo 1)
    while [ "$count" -gt 0 ]; do
        cat "$dir/output"
        count=$((count - 1))
    done
fi
[ -f "$dir/die" ] && kill -9 $$
exec sleep "$(cat "$dir/linger" 2>/dev/null || echo 1)"
