#!/usr/bin/env bash
# Installs the Debian packages that building, testing and running hostgauge need,
# and only those that are missing, so it costs nothing on a machine that has them.
set -euo pipefail

packages=(g++ cmake ninja-build libgtest-dev libgmock-dev libbenchmark-dev clang
          libclang-rt-dev procps netcat-openbsd curl haproxy prometheus chromium
          dpkg-dev file lintian mandoc logrotate systemd adduser)
missing=()
for p in "${packages[@]}"; do
    dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
done
if [ ${#missing[@]} -gt 0 ]; then
    echo "installing: ${missing[*]}"
    sudo=""
    [ "$(id -u)" -eq 0 ] || sudo=sudo
    $sudo apt-get update
    DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y "${missing[@]}"
fi
