#!/usr/bin/env bash
# Builds hostgauge and starts the daemon in the foreground with a configuration for
# this machine, written afresh into run/ by scripts/gen-config.sh on every start (edit
# etc/hostspread.properties to change it). Stop it with Ctrl-C.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/deps.sh
cmake -S . -B build -G Ninja >/dev/null
cmake --build build -j "$(nproc)"
bash scripts/gen-config.sh run
exec build/hostgauge "$PWD/run"
