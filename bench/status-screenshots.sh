#!/usr/bin/env bash
# Screenshots of the control port's browser views, as a person sees them in Chromium: the
# status page at a laptop's width (1280 px) and a phone's (390 px), and the XML status report
# (/?get&cvnlbinfo), after 3 subscriptions and a few minutes of samples (one every 5 s).
# Usage: bench/status-screenshots.sh [outdir] [build-dir]   (default /tmp/hostgauge-shots, build)
# Environment: MINUTES of history to gather first (default 3). Needs Debian's chromium.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
out=${1:-/tmp/hostgauge-shots}
build=$(cd "${2:-$root/build}" && pwd)
minutes=${MINUTES:-3}
work=$(mktemp -d /tmp/hostgauge-shots-XXXXXX)
daemon_pid=
cleanup() {
    [ -n "$daemon_pid" ] && kill "$daemon_pid" 2>/dev/null
    wait 2>/dev/null
    rm -rf "$work"
}
trap cleanup EXIT
mkdir -p "$out"

source "$root/bench/daemon.sh"
port=$(free_port)
start_daemon "$build" "$work" "$port" 0 "$(nproc)"

# Three balancers, asking for one, two and all three figures.
python3 - "$port" <<'PY'
import socket, sys
port = int(sys.argv[1])
for ident, stats in ((3, "<stat>cpu</stat>"), (1, "<stat>cpu</stat><stat>bogo</stat>"),
                     (2, "<stat>cpu</stat><stat>bogo</stat><stat>vmem</stat>")):
    request = ("<cvnlbreq command=CREATE><version>1.0</version><host>127.0.0.1</host>"
               f"<port>{40000 + ident}</port><samplerate>1000</samplerate>"
               f"<windowsize>5</windowsize><id>{ident}</id><replyfreq>10000</replyfreq>"
               f"<percentchange>10</percentchange>{stats}</cvnlbreq>")
    with socket.create_connection(("127.0.0.1", port)) as s:
        s.sendall(request.encode())
        print(s.recv(4096).decode())
PY

for ((left = minutes * 60; left > 0; left -= 30)); do
    echo "gathering samples: ${left} s left"
    sleep $((left < 30 ? left : 30))
done

shoot() { # name width height url
    chromium --headless=new --no-sandbox --disable-gpu --hide-scrollbars \
        --screenshot="$out/$1.png" --window-size="$2,$3" "$4" >/dev/null 2>&1
    echo "$out/$1.png"
}
shoot status-1280 1280 1500 "http://127.0.0.1:$port/"
shoot status-390 390 2200 "http://127.0.0.1:$port/status"
shoot report-xml 1280 800 "http://127.0.0.1:$port/?get&cvnlbinfo"
