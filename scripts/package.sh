#!/usr/bin/env bash
# Builds the Debian package hostgauge_<version>_<arch>.deb with CPack in its own Release
# build directory (default build-pkg/; tests and benchmarks off, so it builds only what
# ships), with Debian's hardening flags. Prints the package's path on the last line.
# Usage: scripts/package.sh [build-dir]
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
dir=${1:-$root/build-pkg}

# Debian's compiler and linker flags: fortified functions, stack protector, full RELRO.
export DEB_BUILD_MAINT_OPTIONS=hardening=+all
CXXFLAGS=$(dpkg-buildflags --get CXXFLAGS)
CPPFLAGS=$(dpkg-buildflags --get CPPFLAGS)
LDFLAGS=$(dpkg-buildflags --get LDFLAGS)

cmake -S "$root" -B "$dir" -G Ninja -DCMAKE_BUILD_TYPE=Release -DCMAKE_INSTALL_PREFIX=/usr \
    -DHOSTGAUGE_TESTS=OFF -DHOSTGAUGE_BENCH=OFF \
    -DCMAKE_CXX_FLAGS="$CPPFLAGS $CXXFLAGS" -DCMAKE_EXE_LINKER_FLAGS="$LDFLAGS" >/dev/null
cmake --build "$dir" -j "$(nproc)"
rm -f "$dir"/hostgauge_*.deb
(cd "$dir" && cpack -G DEB >/dev/null)
ls "$dir"/hostgauge_*.deb
