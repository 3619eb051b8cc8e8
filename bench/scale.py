#!/usr/bin/env python3
# Farm scale: one daemon takes N subscriptions (default 10,000) to a 127.0.0.1 port that a
# receiver drains, one request per TCP connection. Measures the time of every 1,000 adds,
# one round in which all N reply timers fall due together (the daemon is held stopped until
# every timer is overdue, then resumed) beside a plain sendto loop of the same datagram,
# the status report's size and time, and the daemon's RSS before and after. Each repeat
# starts a fresh daemon; the summary gives medians.
# Usage: bench/scale.py [repeats] [--subs N] [--replyfreq MS]   (default 3, 10000, 15000)
#   HOSTGAUGE_BUILD: build directory with hostgauge and hostgauge-vmstat (default build)
import argparse
import os
import re
import shutil
import signal
import subprocess
import tempfile
import time

import hgrun

# The plain loop: the same datagram, sent N times from one socket, timed by the sender.
PLAIN_C = r"""
#include <arpa/inet.h>
#include <netinet/in.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <time.h>
int main(int argc, char** argv) {
    int n = atoi(argv[2]);
    const char* text = argv[3];
    size_t len = strlen(text);
    struct sockaddr_in to;
    memset(&to, 0, sizeof to);
    to.sin_family = AF_INET;
    to.sin_port = htons(atoi(argv[1]));
    to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    int fd = socket(AF_INET, SOCK_DGRAM, 0);
    struct timespec a, b, ca, cb;
    clock_gettime(CLOCK_MONOTONIC, &a);
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &ca);
    int sent = 0;
    for (int i = 0; i < n; ++i)
        if (sendto(fd, text, len, 0, (struct sockaddr*)&to, sizeof to) == (ssize_t)len) ++sent;
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &cb);
    clock_gettime(CLOCK_MONOTONIC, &b);
    double wall = (b.tv_sec - a.tv_sec) + (b.tv_nsec - a.tv_nsec) / 1e9;
    double cpu = (cb.tv_sec - ca.tv_sec) + (cb.tv_nsec - ca.tv_nsec) / 1e9;
    printf("%d %.6f %.6f\n", sent, wall, cpu);
    return 0;
}
"""

HEADER = re.compile(rb"^(\d{4}/\d\d/\d\d \d\d:\d\d:(\d\d\.\d{3}))\t", re.M)


def compile_plain(work):
    src, exe = os.path.join(work, "plain.c"), os.path.join(work, "plain")
    with open(src, "w") as f:
        f.write(PLAIN_C)
    subprocess.run(["cc", "-O2", "-o", exe, src], check=True)
    return exe


def send_span(log, offset):
    """First and last time stamp of the "sent to" records after offset, in seconds."""
    with open(log, "rb") as f:
        f.seek(offset)
        data = f.read()
    heads = list(HEADER.finditer(data))
    stamps = []
    for i, h in enumerate(heads):
        end = heads[i + 1].start() if i + 1 < len(heads) else len(data)
        if b"\nsent to " in data[h.end():end]:
            day = time.strptime(h.group(1)[:19].decode(), "%Y/%m/%d %H:%M:%S")
            stamps.append(time.mktime(day) + float(h.group(2)) % 1)
    return (stamps[0], stamps[-1], len(stamps)) if stamps else (0, 0, 0)


def one_run(args, plain):
    rx = hgrun.Receiver()
    d = hgrun.Daemon()
    p, res = d.proc, {}
    try:
        time.sleep(1)
        res["rss_before"] = p.rss()
        # Adds, timed per block of 1,000 (wall at the client, the daemon's own CPU).
        blocks, block_cpu, failed = [], [], 0
        t0 = time.monotonic()
        for first in range(1, args.subs + 1, 1000):
            began, cpu = time.monotonic(), p.cpu_ns()
            for ident in range(first, min(first + 1000, args.subs + 1)):
                failed += hgrun.is_error(d.request(hgrun.create(
                    ident, rx.port, replyfreq=args.replyfreq, change=100)))
            blocks.append(time.monotonic() - began)
            block_cpu.append((p.cpu_ns() - cpu) / 1e9)
        res["add_all"] = time.monotonic() - t0
        res["blocks"], res["block_cpu"], res["add_failed"] = blocks, block_cpu, failed

        # Hold the daemon until every reply timer is overdue: on resuming, one loop pass
        # finds all of them due at once.
        counter = hgrun.SentCounter(d.log)
        os.kill(d.pid, signal.SIGSTOP)
        sent0, offset, cpu0 = counter.poll(), os.path.getsize(d.log), p.cpu_ns()
        rx0 = rx.count
        time.sleep(args.replyfreq / 1000 + 1)
        resumed = time.monotonic()
        os.kill(d.pid, signal.SIGCONT)
        while counter.poll() < sent0 + args.subs and time.monotonic() - resumed < 60:
            time.sleep(0.05)
        time.sleep(0.5)
        first, last, n = send_span(d.log, offset)
        res["round_n"] = n
        res["round_wall"] = last - first
        res["round_cpu"] = (p.cpu_ns() - cpu0) / 1e9
        res["round_rx"] = rx.count - rx0
        sample = rx.last.decode()

        # Status report: size and time at the client, the daemon's CPU per report.
        times, cpus, size = [], [], 0
        for _ in range(5):
            began, cpu = time.monotonic(), p.cpu_ns()
            size = len(d.request(hgrun.STATUS))
            times.append(time.monotonic() - began)
            cpus.append((p.cpu_ns() - cpu) / 1e9)
        res["status_size"], res["status_ms"] = size, 1000 * hgrun.median(times)
        res["status_cpu_ms"] = 1000 * hgrun.median(cpus)
        res["rss_after"], res["hwm"], res["fds"] = p.rss(), p.hwm(), p.fds()
        res["errors"] = len(d.error_records())
    finally:
        d.stop()
        rx.close()
        shutil.rmtree(d.work, ignore_errors=True)

    # The plain loop, with the datagram the daemon sent, to a fresh drained port.
    rx = hgrun.Receiver()
    runs = []
    for _ in range(3):
        out = subprocess.run([plain, str(rx.port), str(args.subs), sample], check=True,
                             capture_output=True, text=True).stdout.split()
        runs.append((float(out[1]), float(out[2])))
    rx.close()
    res["plain_wall"] = hgrun.median([r[0] for r in runs])
    res["plain_cpu"] = hgrun.median([r[1] for r in runs])
    res["datagram"] = len(sample)
    return res


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("repeats", nargs="?", type=int, default=3)
    ap.add_argument("--subs", type=int, default=10000)
    ap.add_argument("--replyfreq", type=int, default=15000, help="ms; adds must fit in it")
    args = ap.parse_args()
    work = tempfile.mkdtemp(prefix="hg-scale-")
    plain = compile_plain(work)
    runs = []
    for i in range(args.repeats):
        r = one_run(args, plain)
        runs.append(r)
        print(f"run {i + 1}: adds {r['add_all']:.2f} s (blocks {' '.join(f'{b:.2f}' for b in r['blocks'])}"
              f"; failed {r['add_failed']}), round {r['round_n']} sent in {r['round_wall']:.3f} s"
              f" / {r['round_cpu']:.3f} CPU s (received {r['round_rx']}), status {r['status_size']} B"
              f" in {r['status_ms']:.1f} ms, RSS {r['rss_before']} -> {r['rss_after']} KiB,"
              f" error records {r['errors']}, load {open('/proc/loadavg').read().split()[0]}",
              flush=True)
    shutil.rmtree(work, ignore_errors=True)

    def med(key, f=lambda x: x):
        return hgrun.median([f(r[key]) for r in runs])

    def block(i):
        return hgrun.median([r["blocks"][i] for r in runs if len(r["blocks"]) > i])

    def block_cpu(i):
        return hgrun.median([r["block_cpu"][i] for r in runs if len(r["block_cpu"]) > i])

    n = args.subs
    nb = len(runs[0]["blocks"])
    print(f"\nmedians of {len(runs)} run(s), {n} subscriptions")
    print(f"{'adds, all':34} {med('add_all'):9.2f} s   ({n / med('add_all'):.0f} requests/s)")
    for i in sorted({0, nb // 2 - 1, nb - 1}):
        print(f"{f'adds, block {i + 1} of {nb} (per 1,000)':34} {block(i):9.3f} s   "
              f"daemon CPU {block_cpu(i):.3f} s")
    round_rate = med("round_n") / med("round_wall") if med("round_wall") else float("nan")
    cpu_rate = med("round_n") / med("round_cpu")
    plain_rate, plain_cpu_rate = n / med("plain_wall"), n / med("plain_cpu")
    print(f"{'timer round: datagrams sent':34} {med('round_n'):9.0f}     ({med('datagram')} bytes each)")
    print(f"{'  datagrams/s, wall (log stamps)':34} {round_rate:9.0f}     plain sendto loop "
          f"{plain_rate:.0f}  ratio {round_rate / plain_rate:.2f}")
    print(f"{'  datagrams per CPU second':34} {cpu_rate:9.0f}     plain sendto loop "
          f"{plain_cpu_rate:.0f}  ratio {cpu_rate / plain_cpu_rate:.2f}")
    print(f"{'status report':34} {med('status_size'):9.0f} B   {med('status_ms'):.1f} ms at the "
          f"client, {med('status_cpu_ms'):.1f} ms daemon CPU")
    print(f"{'RSS before / after adds':34} {med('rss_before'):9.0f} / {med('rss_after'):.0f} KiB "
          f"(peak {med('hwm'):.0f} KiB, {med('fds'):.0f} fds)")


if __name__ == "__main__":
    main()
