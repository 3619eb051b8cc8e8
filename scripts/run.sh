#!/usr/bin/env bash
# Builds hostgauge and starts the daemon in the foreground with a configuration for
# this machine (generated under run/ on first use). Stop it with Ctrl-C.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/deps.sh
cmake -S . -B build -G Ninja >/dev/null
cmake --build build -j "$(nproc)"
mkdir -p run
exec build/hostgauge "$PWD/run"
