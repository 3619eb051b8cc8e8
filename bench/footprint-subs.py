#!/usr/bin/env python3
# Steady footprint with subscribers: the daemon at a 5 s sample rate with 100 subscriptions
# replying every 10 s (datagrams drained by a receiver). Gives the daemon's own processor
# time with the CPU ratings counted apart (a rating is a busy loop of about a processor
# second, seen as a burst of own time between two readings), its peak RSS, and the load
# tool's processor time (reaped runs through the daemon's cutime+cstime, plus the live one).
# Usage: bench/footprint-subs.py [seconds] [--subs N] [--replyfreq MS]   (300, 100, 10000)
#   HOSTGAUGE_BUILD: build directory with hostgauge and hostgauge-vmstat (default build)
import argparse
import shutil
import time

import hgrun

POLL = 0.5  # seconds between readings of /proc
BURST_NS = 100_000_000  # own time above this within one reading is a rating, not upkeep


def tool_ticks(daemon):
    """Processor ticks of every load-tool run so far, and the live tools' peak RSS."""
    ticks = daemon.ticks()[1]
    hwm = 0
    for pid in daemon.children():
        try:
            child = hgrun.Proc(pid)
            ticks += child.ticks()[0]
            hwm = max(hwm, child.hwm())
        except (OSError, IndexError):
            pass  # the run ended between the listing and the reading
    return ticks, hwm


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("seconds", nargs="?", type=float, default=300)
    ap.add_argument("--subs", type=int, default=100)
    ap.add_argument("--replyfreq", type=int, default=10000)
    args = ap.parse_args()

    rx = hgrun.Receiver()
    d = hgrun.Daemon(samplerate=5)
    p = d.proc
    try:
        for ident in range(1, args.subs + 1):
            reply = d.request(hgrun.create(ident, rx.port, replyfreq=args.replyfreq))
            if hgrun.is_error(reply):
                raise SystemExit(f"subscription {ident} refused: {reply!r}")
        time.sleep(2)
        sent = hgrun.SentCounter(d.log)
        sent0 = sent.poll()
        own0, last = p.cpu_ns(), p.cpu_ns()
        ticks0 = p.ticks()[0]
        tool0, tool_hwm = tool_ticks(p)
        ratings = rating_ns = 0
        in_burst = False
        t0 = time.monotonic()
        while time.monotonic() - t0 < args.seconds:
            time.sleep(POLL)
            now = p.cpu_ns()
            step, last = now - last, now
            if step > BURST_NS:
                ratings += not in_burst
                rating_ns += step
            in_burst = step > BURST_NS
            tool_hwm = max(tool_hwm, tool_ticks(p)[1])
        elapsed = time.monotonic() - t0
        own_ns = p.cpu_ns() - own0
        own_ticks = p.ticks()[0] - ticks0
        tool = tool_ticks(p)[0] - tool0
        hwm, rss, fds = p.hwm(), p.rss(), p.fds()
        datagrams = sent.poll() - sent0
        errors = d.error_records()
    finally:
        code = d.stop()
        rx.close()
    shutil.rmtree(d.work, ignore_errors=True)

    tick_ms = 1000 / hgrun.HZ
    upkeep_ms = (own_ns - rating_ns) / 1e6
    print(f"{elapsed:.0f} s steady, sample rate 5 s, {args.subs} subscriptions every "
          f"{args.replyfreq / 1000:g} s, {datagrams} datagrams sent, load "
          f"{open('/proc/loadavg').read().split()[0]}")
    print(f"{'process':26} {'CPU ms':>9} {'% core':>8} {'peak RSS':>10}  note")

    def row(name, ms, kib, note=""):
        print(f"{name:26} {ms:9.1f} {100 * ms / 1000 / elapsed:8.4f} {kib / 1024:6.2f} MiB  {note}")

    row("hostgauge, ratings apart", upkeep_ms, hwm,
        f"{upkeep_ms * 1000 / max(datagrams, 1):.0f} us per datagram all in; RSS now "
        f"{rss / 1024:.2f} MiB, {fds} fds")
    row("hostgauge ratings", rating_ns / 1e6, hwm, f"{ratings} rating(s)")
    row("hostgauge in all", own_ns / 1e6, hwm, f"stat: {own_ticks * tick_ms:.0f} ms")
    row("hostgauge-vmstat", tool * tick_ms, tool_hwm, "every run, from clock ticks")
    print(f"error records in the log: {len(errors)}; daemon exit status {code} (604 by SIGTERM, seen as 604 mod 256 = 92)")
    for line in errors[:10]:
        print("  " + line)


if __name__ == "__main__":
    main()
