#!/usr/bin/env python3
# Soak: the daemon holds about 1,000 subscriptions while one is killed and a new one created
# continuously (about 10 requests per second), with a status query every few seconds and
# every subscriber's datagrams drained. Shows RSS and open descriptors over the run (they
# should stay flat), failed requests, and every error record the daemon logged.
# Usage: bench/soak.py [seconds] [--subs N] [--rate R]   (default 600 s, 1000, 10/s)
#   HOSTGAUGE_BUILD: build directory with hostgauge and hostgauge-vmstat (default build)
import argparse
import collections
import shutil
import time

import hgrun


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("seconds", nargs="?", type=float, default=600)
    ap.add_argument("--subs", type=int, default=1000)
    ap.add_argument("--rate", type=float, default=10.0, help="creates+kills per second")
    ap.add_argument("--status-every", type=float, default=5.0)
    args = ap.parse_args()

    rx = hgrun.Receiver()
    d = hgrun.Daemon()
    failures = collections.Counter()
    live = collections.deque()
    next_id = 1

    def send(text, kind):
        try:
            reply = d.request(text)
        except OSError as e:
            failures[f"{kind}: {e.__class__.__name__}"] += 1
            return b""
        if hgrun.is_error(reply):
            failures[f"{kind}: {reply[:80]!r}"] += 1
        return reply

    # Spread the reply timers over their 10 s, as subscribers arriving one by one would.
    for _ in range(args.subs):
        send(hgrun.create(next_id, rx.port), "create")
        live.append(next_id)
        next_id += 1
    # The first status report sizes the heap for reports; the baseline is taken after it.
    send(hgrun.STATUS, "status")
    time.sleep(2)
    p = d.proc
    start = {"rss": p.rss(), "fds": p.fds(), "ticks": p.ticks()[0]}
    print(f"soak: pid {d.pid}, port {d.port}, {len(live)} subscriptions, "
          f"{args.rate:g} requests/s for {args.seconds:g} s, log {d.log}", flush=True)
    print(f"{'t s':>6} {'RSS KiB':>8} {'HWM KiB':>8} {'fds':>4} {'subs':>5} {'requests':>8} "
          f"{'status':>6} {'datagrams':>9} {'load':>5}", flush=True)

    requests = statuses = 0
    reply = b""
    t0 = time.monotonic()
    next_status = t0 + args.status_every
    next_report = t0
    status_ms = []
    while True:
        now = time.monotonic()
        if now >= next_report:
            load = open("/proc/loadavg").read().split()[0]
            print(f"{now - t0:6.0f} {p.rss():8} {p.hwm():8} {p.fds():4} {len(live):5} "
                  f"{requests:8} {statuses:6} {rx.count:9} {load:>5}", flush=True)
            next_report += 60
        if now - t0 >= args.seconds:
            break
        if now >= next_status:
            began = time.monotonic()
            reply = send(hgrun.STATUS, "status")
            status_ms.append((time.monotonic() - began) * 1000)
            statuses += 1
            next_status += args.status_every
        # Alternate: kill the oldest, then create a fresh id, so the count stays near N.
        if requests % 2 == 0 and live:
            send(hgrun.kill(live.popleft()), "kill")
        else:
            send(hgrun.create(next_id, rx.port), "create")
            live.append(next_id)
            next_id += 1
        requests += 1
        delay = t0 + requests / args.rate - time.monotonic()
        if delay > 0:
            time.sleep(delay)

    time.sleep(1)
    end = {"rss": p.rss(), "fds": p.fds(), "ticks": p.ticks()[0]}
    hwm = p.hwm()
    errors = d.error_records()
    code = d.stop()
    rx.close()
    cpu_s = (end["ticks"] - start["ticks"]) / hgrun.HZ
    print(f"\n{'':14}{'start':>10}{'end':>10}")
    print(f"{'RSS KiB':14}{start['rss']:>10}{end['rss']:>10}   (peak {hwm} KiB)")
    print(f"{'descriptors':14}{start['fds']:>10}{end['fds']:>10}")
    print(f"requests {requests} (+{statuses} status, median {hgrun.median(status_ms):.1f} ms, "
          f"last reply {len(reply)} bytes), failed {sum(failures.values())}; "
          f"datagrams received {rx.count}; daemon CPU {cpu_s:.1f} s "
          f"({100 * cpu_s / args.seconds:.2f} % of a core)")
    for what, n in failures.most_common():
        print(f"  failed {n}x {what}")
    print(f"error records in the log: {len(errors)}")
    for line in errors[:20]:
        print("  " + line)
    print(f"daemon exit status {code} (604 by SIGTERM, seen as 604 mod 256 = 92)")
    # Logs with error records stay for reading; a clean run leaves nothing behind.
    if errors or failures:
        print(f"logs kept in {d.work}")
    else:
        shutil.rmtree(d.work, ignore_errors=True)


if __name__ == "__main__":
    main()
