#!/usr/bin/env bash
# Builds hostgauge and runs every test: the plain build, then the same suite built with
# AddressSanitizer and UndefinedBehaviorSanitizer (any report fails the run), then a short
# run of each fuzz target, and last, as root only, the Debian package's install test
# (tests/pkg/package_check.sh). Set HOSTGAUGE_QUICK=1 to run the plain build only.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/deps.sh

jobs=$(nproc)
run_suite() {
    local dir=$1; shift
    cmake -S . -B "$dir" -G Ninja "$@" >/dev/null
    cmake --build "$dir" -j "$jobs"
    (cd "$dir" && ctest --output-on-failure -j "$jobs" --timeout 300)
}

run_suite build
[ "${HOSTGAUGE_QUICK:-0}" = 1 ] && exit 0

export ASAN_OPTIONS=detect_leaks=1:abort_on_error=1:halt_on_error=1
export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
run_suite build-asan -DHOSTGAUGE_SANITIZE=ON -DCMAKE_BUILD_TYPE=Debug

if ls tests/fuzz/*_fuzz.cpp >/dev/null 2>&1; then
    CXX=clang++ cmake -S . -B build-fuzz -G Ninja -DHOSTGAUGE_FUZZ=ON >/dev/null
    cmake --build build-fuzz -j "$jobs"
    for src in tests/fuzz/*_fuzz.cpp; do
        name=$(basename "$src" .cpp)
        corpus=tests/fuzz/corpus/${name%_fuzz}
        work=$(mktemp -d)
        [ -d "$corpus" ] && cp -r "$corpus"/. "$work"/
        # Requests are refused past 512 bytes; files and tool output need room for more
        # than one buffer's worth.
        max_len=600
        case $name in props_fuzz | vmstat_fuzz) max_len=4096 ;; esac
        echo "fuzzing $name for ${HOSTGAUGE_FUZZ_SECONDS:-60} s"
        build-fuzz/"$name" -max_total_time="${HOSTGAUGE_FUZZ_SECONDS:-60}" -max_len=$max_len "$work"
        rm -rf "$work"
    done
fi

# Installs and purges the package on this machine, so it runs only as root and says so
# otherwise.
bash tests/pkg/package_check.sh
