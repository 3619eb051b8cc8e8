#!/usr/bin/env python3
# Cost of the control port's HTTP views with many subscriptions: the size of /metrics and of
# the status page, and the daemon's own processor time per request for each (read from
# /proc around a batch of requests, so the client's work is not counted), beside the XML
# status report for comparison.
# Usage: bench/views.py [--subs N] [--reps R]   (10000, 50)
#   HOSTGAUGE_BUILD: build directory with hostgauge and hostgauge-vmstat (default build)
import argparse
import shutil
import time

import hgrun

VIEWS = (
    ("/metrics", "GET /metrics HTTP/1.1\r\nHost: x\r\n\r\n"),
    ("/ (status page)", "GET / HTTP/1.1\r\nHost: x\r\nAccept: text/html\r\n\r\n"),
    ("XML status report", "GET /?get&cvnlbinfo HTTP/1.0\r\n\r\n"),
)


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("--subs", type=int, default=10000)
    ap.add_argument("--reps", type=int, default=50)
    args = ap.parse_args()

    rx = hgrun.Receiver()
    d = hgrun.Daemon(samplerate=5)
    try:
        for ident in range(1, args.subs + 1):
            reply = d.request(hgrun.create(ident, rx.port, replyfreq=3600000))
            if hgrun.is_error(reply):
                raise SystemExit(f"subscription {ident} refused: {reply!r}")
        time.sleep(7)  # a sample or two, so every series is there
        print(f"{args.subs} subscriptions, {args.reps} requests per view; RSS "
              f"{d.proc.rss() / 1024:.2f} MiB")
        print(f"{'view':<20} {'bytes':>10} {'daemon ms/request':>18} {'wall ms/request':>16}")
        for name, text in VIEWS:
            size = len(d.request(text))
            own0, t0 = d.proc.cpu_ns(), time.monotonic()
            for _ in range(args.reps):
                d.request(text)
            own = (d.proc.cpu_ns() - own0) / args.reps / 1e6
            wall = (time.monotonic() - t0) / args.reps * 1e3
            print(f"{name:<20} {size:>10} {own:>18.2f} {wall:>16.2f}")
    finally:
        d.stop()
        rx.close()
    shutil.rmtree(d.work, ignore_errors=True)


if __name__ == "__main__":
    main()
